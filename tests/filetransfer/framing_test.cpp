// The exact bytes of the two client requests and the decoding of the far side's events.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "common/bytes.h"
#include "filetransfer/framing.h"
#include "filetransfer/protocol.h"
#include "filetransfer/transfer.h"

namespace {

using Bytes = std::vector<std::uint8_t>;

Bytes bytesOf(std::string_view s) { return Bytes(s.begin(), s.end()); }

TEST(FileTransferReplyEncoding, EveryFieldInItsPlace) {
    const Bytes block = {0xAA, 0xBB};
    FileTransferReplyFields f;
    f.direction = 1;
    f.objectType = 6;
    f.openFlag = 1;
    f.kind = 10;
    f.size = 0x0102030405060708ull;
    f.a = "remote";
    f.b = "/tmp/local";
    f.c = block;
    const Bytes wire = encodeFileTransferReply(140, f);
    ASSERT_EQ(wire.size(), 24u + 18 + 2);  // 18 variable bytes, 2 of padding
    EXPECT_EQ(wire[0], 140);
    EXPECT_EQ(wire[1], kFileTransferReplyOpcode);
    EXPECT_EQ(bytes::get16(wire, 2), wire.size() / 4);
    EXPECT_EQ(wire[4], 1);
    EXPECT_EQ(wire[5], 6);
    EXPECT_EQ(wire[6], 1);
    EXPECT_EQ(wire[7], 10);
    EXPECT_EQ(bytes::get64(wire, 8), 0x0102030405060708ull);
    EXPECT_EQ(bytes::get16(wire, 16), 6);
    EXPECT_EQ(bytes::get16(wire, 18), 10);
    EXPECT_EQ(bytes::get32(wire, 20), 2u);
    EXPECT_EQ(std::string(wire.begin() + 24, wire.begin() + 30), "remote");
    EXPECT_EQ(std::string(wire.begin() + 30, wire.begin() + 40), "/tmp/local");
    EXPECT_EQ(wire[40], 0xAA);
    EXPECT_EQ(wire[41], 0xBB);
    EXPECT_EQ(wire[42], 0);
    EXPECT_EQ(wire[43], 0);

    // The fixed part handed to libxcb leaves the opcode and length bytes to it.
    const auto fixed = encodeFileTransferReplyFixed(f);
    EXPECT_EQ(fixed[0], 0);
    EXPECT_EQ(fixed[1], 0);
    EXPECT_TRUE(std::equal(fixed.begin() + 4, fixed.end(), wire.begin() + 4));
}

TEST(FileTransferReplyEncoding, PaddingFollowsTheVariableLength) {
    FileTransferReplyFields f;
    f.a = "abc";
    f.b = "de";  // 5 bytes: 3 of padding
    EXPECT_EQ(encodeFileTransferReply(1, f).size(), 24u + 5 + 3);
    EXPECT_EQ(replyParts(f).padding, 3u);
    f.a = "abcd";
    f.b = "efgh";  // 8 bytes: none
    EXPECT_EQ(encodeFileTransferReply(1, f).size(), 24u + 8);
    f.a = {};
    f.b = {};
    EXPECT_EQ(encodeFileTransferReply(1, f).size(), 24u);
}

TEST(FileTransferReplyEncoding, DirectionTwoCarriesNoBlock) {
    const Bytes block(7, 0x55);
    FileTransferReplyFields f;
    f.direction = 2;
    f.kind = 4;
    f.a = "a";
    f.c = block;
    const Bytes wire = encodeFileTransferReply(1, f);
    EXPECT_EQ(bytes::get32(wire, 20), 0u);
    EXPECT_EQ(wire.size(), 28u);  // "a" and 3 bytes of padding, no block
    f.direction = 1;
    EXPECT_EQ(bytes::get32(encodeFileTransferReply(1, f), 20), 7u);
}

TEST(FileTransferReplyEncoding, StringLengthsAreKeptInSixteenBits) {
    const std::string longName(65536 + 5, 'x');
    FileTransferReplyFields f;
    f.a = longName;
    const Bytes wire = encodeFileTransferReply(1, f);
    EXPECT_EQ(bytes::get16(wire, 16), 5);
    EXPECT_EQ(wire.size(), 24u + 5 + 3);
}

TEST(FileTransferStatusEncoding, FailedStatusWithPathAndText) {
    const Bytes wire = encodeFileTransferStatus(140, kStatusTransferTarget, true, "/x/y", "No such file or directory");
    ASSERT_EQ(wire.size() % 4, 0u);
    EXPECT_EQ(wire[0], 140);
    EXPECT_EQ(wire[1], kFileTransferStatusOpcode);
    EXPECT_EQ(bytes::get16(wire, 2), wire.size() / 4);
    EXPECT_EQ(wire[4], 1);
    EXPECT_EQ(wire[5], 1);
    EXPECT_EQ(bytes::get16(wire, 6), 0);
    EXPECT_EQ(bytes::get32(wire, 8), 4u);
    EXPECT_EQ(bytes::get32(wire, 12), 25u);
    EXPECT_EQ(std::string(wire.begin() + 16, wire.begin() + 20), "/x/y");
    EXPECT_EQ(std::string(wire.begin() + 20, wire.begin() + 45), "No such file or directory");
    EXPECT_EQ(wire.size(), 48u);
}

TEST(FileTransferStatusEncoding, SuccessWithoutPathIsTheFixedPartAlone) {
    const Bytes wire = encodeFileTransferStatus(140, kStatusListing, false, {}, {});
    ASSERT_EQ(wire.size(), 16u);
    EXPECT_EQ(wire[4], 4);
    EXPECT_EQ(wire[5], 0);
    EXPECT_EQ(bytes::get32(wire, 8), 0u);
    EXPECT_EQ(bytes::get32(wire, 12), 0u);
}

// An event buffer as libxcb delivers it: 32 bytes, the full sequence, then the payload.
Bytes eventBuffer(std::uint16_t eventType, const Bytes& payload) {
    Bytes b(36, 0);
    b[0] = 35;
    b[1] = 140;
    bytes::put16(b, 2, 7);
    const std::size_t padded = (payload.size() + 3) / 4 * 4;
    bytes::put32(b, 4, static_cast<std::uint32_t>(padded / 4));
    bytes::put16(b, 8, eventType);
    b.insert(b.end(), payload.begin(), payload.end());
    b.resize(36 + padded, 0);
    return b;
}

Bytes transferPayload(std::uint8_t kind, std::uint16_t lengthA, std::uint16_t lengthB, std::uint32_t dataLength,
                      const Bytes& tail) {
    Bytes p;
    bytes::Writer w(p);
    w.u8(2).u8(1).u8(0).u8(kind).u64(1234).u16(lengthA).u16(lengthB).u32(dataLength).raw(tail);
    return p;
}

TEST(GenericEventDecoding, HeaderFieldsAndRealSize) {
    const Bytes b = eventBuffer(90, Bytes(10, 1));
    const auto h = decodeGenericEventHeader(b);
    ASSERT_TRUE(h);
    EXPECT_EQ(h->responseType, 35);
    EXPECT_EQ(h->extension, 140);
    EXPECT_EQ(h->sequence, 7);
    EXPECT_EQ(h->length, 3u);
    EXPECT_EQ(h->eventType, 90);
    EXPECT_EQ(genericEventBufferSize(h->length), b.size());
    EXPECT_FALSE(decodeGenericEventHeader(std::span<const std::uint8_t>(b).first(31)));
}

TEST(TransferRequestDecoding, NamesAndDataFromTheirOffsets) {
    Bytes tail = bytesOf("remote.txt");
    const Bytes local = bytesOf("/tmp/l");
    tail.insert(tail.end(), local.begin(), local.end());
    tail.insert(tail.end(), {9, 8, 7});
    const Bytes b = eventBuffer(90, transferPayload(4, 10, 6, 3, tail));
    TransferRequest t;
    ASSERT_TRUE(decodeTransferRequest(b, t));
    EXPECT_EQ(t.direction, 2);
    EXPECT_EQ(t.objectType, 1);
    EXPECT_EQ(t.kind, 4);
    EXPECT_EQ(t.size, 1234u);
    EXPECT_TRUE(t.hasNameA);
    EXPECT_TRUE(t.hasNameB);
    EXPECT_EQ(t.nameA, "remote.txt");
    EXPECT_EQ(t.nameB, "/tmp/l");
    ASSERT_EQ(t.data.size(), 3u);
    EXPECT_EQ(t.data[0], 9);
    EXPECT_EQ(t.data[2], 7);
}

TEST(TransferRequestDecoding, NamesOutsideOneTo1023AreNotTaken) {
    // Name A claims 1024 bytes and is skipped; name B behind it is still found.
    Bytes tail(1024, 'a');
    const Bytes local = bytesOf("/b");
    tail.insert(tail.end(), local.begin(), local.end());
    TransferRequest t;
    const Bytes event = eventBuffer(90, transferPayload(5, 1024, 2, 0, tail));  // the views point into it
    ASSERT_TRUE(decodeTransferRequest(event, t));
    EXPECT_FALSE(t.hasNameA);
    EXPECT_TRUE(t.hasNameB);
    EXPECT_EQ(t.nameB, "/b");
    ASSERT_TRUE(decodeTransferRequest(eventBuffer(90, transferPayload(5, 0, 0, 0, {})), t));
    EXPECT_FALSE(t.hasNameA);
    EXPECT_FALSE(t.hasNameB);
}

TEST(TransferRequestDecoding, LengthsThatLieAreRefused) {
    TransferRequest t;
    // Names longer than the event.
    EXPECT_FALSE(decodeTransferRequest(eventBuffer(90, transferPayload(5, 100, 0, 0, bytesOf("abc"))), t));
    EXPECT_FALSE(decodeTransferRequest(eventBuffer(90, transferPayload(5, 1, 500, 0, bytesOf("abc"))), t));
    // A skipped name A still moves name B out of the event.
    EXPECT_FALSE(decodeTransferRequest(eventBuffer(90, transferPayload(5, 2000, 3, 0, bytesOf("abc"))), t));
    // Data longer than the event, even by the padding's width.
    EXPECT_FALSE(decodeTransferRequest(eventBuffer(90, transferPayload(4, 1, 1, 0xFFFFFFFFu, bytesOf("ab"))), t));
    EXPECT_FALSE(decodeTransferRequest(eventBuffer(90, transferPayload(4, 1, 1, 7, bytesOf("ab"))), t));
    // The data length matters for chunks only.
    EXPECT_TRUE(decodeTransferRequest(eventBuffer(90, transferPayload(5, 1, 1, 0xFFFFFFFFu, bytesOf("ab"))), t));
    // Too short for the fixed fields.
    EXPECT_FALSE(decodeTransferRequest(eventBuffer(90, Bytes{2, 1, 0, 5, 0, 0}), t));
    EXPECT_FALSE(decodeTransferRequest(eventBuffer(90, {}), t));
}

TEST(TransferRequestDecoding, SessionEndAndRefusalsNeedOnlyTheirKind) {
    TransferRequest t;
    for (int k = 13; k <= 17; ++k) {
        const auto kind = static_cast<std::uint8_t>(k);
        ASSERT_TRUE(decodeTransferRequest(eventBuffer(90, Bytes{2, 1, 0, kind}), t)) << int(kind);
        EXPECT_EQ(t.kind, kind);
    }
    EXPECT_FALSE(decodeTransferRequest(eventBuffer(90, Bytes{2, 1, 0, 4}), t));
}

// Random events with length fields near the real size: whatever is accepted lies inside the
// event, and exactly the events whose lengths fit are accepted.
TEST(TransferRequestDecoding, AcceptedViewsAlwaysLieInsideTheEvent) {
    std::uint32_t x = 2463534242u;
    auto next = [&x] {
        x ^= x << 13;
        x ^= x >> 17;
        x ^= x << 5;
        return x;
    };
    for (int round = 0; round < 20000; ++round) {
        const std::size_t tailSize = next() % 64;
        const auto lengthA = static_cast<std::uint16_t>(next() % 8 == 0 ? 1024 + next() % 3000 : next() % (tailSize + 4));
        const auto lengthB = static_cast<std::uint16_t>(next() % (tailSize + 4));
        const auto dataLength = static_cast<std::uint32_t>(next() % (tailSize + 4));
        const auto kind = static_cast<std::uint8_t>(next() % 2 == 0 ? 4 : next() % 20);
        const Bytes event = eventBuffer(90, transferPayload(kind, lengthA, lengthB, dataLength, Bytes(tailSize, 'x')));
        TransferRequest t;
        const bool accepted = decodeTransferRequest(event, t);
        const auto inside = [&event](const void* p, std::size_t n) {
            const auto* b = static_cast<const std::uint8_t*>(p);
            return n == 0 || (b >= event.data() && b + n <= event.data() + event.size());
        };
        const std::size_t room = event.size() - 56;  // bytes after the fixed fields
        bool fits = true;
        if (kind != 13 && (kind < 14 || kind > 17)) {
            if (lengthA >= 1 && lengthA <= 1023 && lengthA > room) fits = false;
            if (lengthB >= 1 && lengthB <= 1023 && std::size_t{lengthA} + lengthB > room) fits = false;
            if (kind == 4 && std::size_t{lengthA} + lengthB + dataLength > room) fits = false;
        }
        ASSERT_EQ(accepted, fits) << round;
        if (!accepted) continue;
        EXPECT_TRUE(inside(t.nameA.data(), t.nameA.size()));
        EXPECT_TRUE(inside(t.nameB.data(), t.nameB.size()));
        EXPECT_TRUE(inside(t.data.data(), t.data.size()));
        if (kind == 4) {
            EXPECT_EQ(t.data.size(), dataLength);
        }
    }
}

}  // namespace
