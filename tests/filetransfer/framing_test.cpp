// The exact bytes of the two client requests and the decoding of the far side's events.
#include <gtest/gtest.h>

#include <string>
#include <tuple>
#include <vector>

#include "common/bytes.h"
#include "filetransfer/framing.h"
#include "filetransfer/protocol.h"
#include "recording_wire.h"

namespace {

using Bytes = std::vector<std::uint8_t>;

Bytes concat(Bytes head, std::string_view text, Bytes tail = {}) {
    head.insert(head.end(), text.begin(), text.end());
    head.insert(head.end(), tail.begin(), tail.end());
    return head;
}

TEST(FileTransferReplyEncoding, ExactBytes) {
    const Bytes block = {0xAA, 0xBB};
    const TransferHeader f{1, 6, 1, 10, 0x0102030405060708ull, "remote", "/tmp/local"};
    const Bytes wire = encodeFileTransferReply(140, f, block);
    EXPECT_EQ(wire, concat({140, 115, 11, 0, 1, 6, 1, 10, 8, 7, 6, 5, 4, 3, 2, 1, 6, 0, 10, 0, 2, 0, 0, 0},
                           "remote/tmp/local", {0xAA, 0xBB, 0, 0}));
    // The fixed part handed to libxcb leaves the opcode and length bytes to it.
    const auto fixed = encodeFileTransferReplyFixed(f, block);
    EXPECT_EQ(Bytes(fixed.begin(), fixed.end()), concat({0, 0, 0, 0}, "", Bytes(wire.begin() + 4, wire.begin() + 24)));
}

// Padding follows the variable length; direction 2 carries no block; string lengths are kept
// in 16 bits.
TEST(FileTransferReplyEncoding, LengthsAndPadding) {
    const Bytes block(7, 0x55);
    const std::string longName(65536 + 5, 'x');
    const std::tuple<std::uint8_t, std::string_view, std::string_view, std::size_t, std::uint16_t, std::uint32_t> cases[] = {
        {1, "abc", "de", 36, 3, 7}, {1, "abcd", "efgh", 40, 4, 7}, {1, "", "", 32, 0, 7},
        {2, "abc", "de", 32, 3, 0}, {2, "", "", 24, 0, 0},         {2, longName, "", 32, 5, 0},
    };  // direction, string A, string B, size on the wire, length fields of A and C
    for (const auto& [direction, a, b, size, lengthA, lengthC] : cases) {
        SCOPED_TRACE(testing::Message() << int(direction) << " " << a.size() << " " << b.size());
        const Bytes wire = encodeFileTransferReply(1, TransferHeader{direction, 1, 0, 4, 0, std::string(a), std::string(b)}, block);
        EXPECT_EQ(wire.size(), size);
        EXPECT_EQ(bytes::get16(wire, 2), wire.size() / 4);
        EXPECT_EQ(bytes::get16(wire, 16), lengthA);
        EXPECT_EQ(bytes::get32(wire, 20), lengthC);
    }
}

TEST(FileTransferStatusEncoding, ExactBytes) {
    EXPECT_EQ(encodeFileTransferStatus(140, kStatusTransferTarget, true, "/x/y", "No such file or directory"),
              concat({140, 119, 12, 0, 1, 1, 0, 0, 4, 0, 0, 0, 25, 0, 0, 0}, "/x/yNo such file or directory",
                     {0, 0, 0}));
    EXPECT_EQ(encodeFileTransferStatus(140, kStatusListing, false, {}, {}),
              (Bytes{140, 119, 4, 0, 4, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}));
}

Bytes transferPayload(std::uint8_t kind, std::uint16_t lengthA, std::uint16_t lengthB, std::uint32_t dataLength,
                      const Bytes& tail) {
    Bytes p;
    bytes::Writer w(p);
    w.u8(2).u8(1).u8(0).u8(kind).u64(1234).u16(lengthA).u16(lengthB).u32(dataLength).raw(tail);
    return p;
}

TEST(TransferRequestDecoding, LengthsThatLieAreRefused) {
    struct Case {
        Bytes payload;
        bool accepted;
    } cases[] = {
        {transferPayload(5, 100, 0, 0, {'a', 'b', 'c'}), false},   // name A longer than the event
        {transferPayload(5, 1, 500, 0, {'a', 'b', 'c'}), false},   // name B longer than the event
        {transferPayload(5, 2000, 3, 0, {'a', 'b', 'c'}), false},  // a skipped name A still moves B out
        {transferPayload(4, 1, 1, 0xFFFFFFFFu, {'a', 'b'}), false},
        {transferPayload(4, 1, 1, 7, {'a', 'b'}), false},  // longer even by the padding's width
        {transferPayload(4, 1, 1, 3, {'a', 'b'}), false},  // one byte past the padding
        {transferPayload(4, 1, 1, 2, {'a', 'b'}), true},   // the padding counts as the event's
        {transferPayload(5, 1, 1, 0xFFFFFFFFu, {'a', 'b'}), true},  // data length matters for chunks only
        {Bytes{2, 1, 0, 5, 0, 0}, false},  // too short for the fixed fields
        {Bytes{}, false},
        {Bytes{2, 1, 0, 4}, false},
        // The session end and the refusals need only their kind.
        {Bytes{2, 1, 0, 13}, true}, {Bytes{2, 1, 0, 14}, true}, {Bytes{2, 1, 0, 17}, true},
    };
    for (const auto& c : cases) {
        TransferRequest t;
        EXPECT_EQ(decodeTransferRequest(fttest::eventOf(90, c.payload), t), c.accepted) << testing::PrintToString(c.payload);
    }
    // The event header needs the 32 bytes of every event.
    const Bytes header = fttest::eventOf(90, Bytes{});
    EXPECT_EQ(decodeGenericEventHeader(header).value_or(GenericEventHeader{}).eventType, 90);
    EXPECT_FALSE(decodeGenericEventHeader(std::span<const std::uint8_t>(header).first(31)));
}

}  // namespace
