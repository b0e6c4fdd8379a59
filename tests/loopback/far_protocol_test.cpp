// The far side's codec against hand-made bytes, and its events as libxcb delivers them.
#include "far_protocol.h"
#include "x_client.h"
#include "x_server.h"

#include "common/bytes.h"

#include <gtest/gtest.h>

#include <cstdlib>

using namespace std::chrono_literals;
using namespace loopback;

namespace {

std::vector<std::uint8_t> hex(std::initializer_list<int> values) {
    std::vector<std::uint8_t> out;
    for (int v : values) out.push_back(static_cast<std::uint8_t>(v));
    return out;
}

std::vector<std::uint8_t> withText(std::vector<std::uint8_t> head, std::string_view text, std::size_t pad) {
    head.insert(head.end(), text.begin(), text.end());
    head.insert(head.end(), pad, 0);
    return head;
}

}  // namespace

TEST(FarProtocolDecode, TransferReplyFields) {
    // Kind 4 from the client: direction 1, object 1, open 0, size 0x0102030405060708,
    // A = "ab" (2), B = "cde" (3), block C = 4 bytes, then 3 bytes of padding.
    const auto request = withText(hex({140, 115, 9, 0, 1, 1, 0, 4, 8, 7, 6, 5, 4, 3, 2, 1, 2, 0, 3, 0, 4, 0, 0, 0}),
                                  "abcde\x01\x02\x03\x04", 3);
    const auto reply = decodeTransferReply(request);
    ASSERT_TRUE(reply);
    EXPECT_EQ(reply->direction, 1);
    EXPECT_EQ(reply->objectType, 1);
    EXPECT_EQ(reply->kind, 4);
    EXPECT_EQ(reply->size, 0x0102030405060708u);
    EXPECT_EQ(reply->nameA, "ab");
    EXPECT_EQ(reply->nameB, "cde");
    EXPECT_EQ(reply->block, hex({1, 2, 3, 4}));

    // Lengths that claim more than the request holds, and a cut fixed part.
    auto lying = request;
    lying[20] = 100;  // length C
    EXPECT_FALSE(decodeTransferReply(lying));
    EXPECT_FALSE(decodeTransferReply(std::span(request).first(20)));
    auto longName = request;
    longName[17] = 0xFF;  // length A high byte
    EXPECT_FALSE(decodeTransferReply(longName));
}

TEST(FarProtocolDecode, SessionStartDriveList) {
    const std::string drives("Root (/)\0Data (D:)\0", 19);
    std::vector<std::uint8_t> request;
    bytes::Writer(request).u8(140).u8(115).u16(0).u8(1).u8(1).u8(0).u8(9).u64(0).u16(4).u16(2).u32(19).raw("hostme").raw(drives).pad4();
    const auto reply = decodeTransferReply(request);
    ASSERT_TRUE(reply);
    EXPECT_EQ(reply->nameA, "host");
    EXPECT_EQ(reply->nameB, "me");
    EXPECT_EQ(splitDriveList(reply->block), (std::vector<std::string>{"Root (/)", "Data (D:)"}));
    EXPECT_TRUE(splitDriveList({}).empty());
    const std::string unterminated = "A (A:)";
    EXPECT_EQ(splitDriveList(std::span(reinterpret_cast<const std::uint8_t*>(unterminated.data()), unterminated.size())),
              std::vector<std::string>{"A (A:)"});
}

TEST(FarProtocolDecode, StatusAndListItem) {
    const auto status = withText(hex({140, 119, 7, 0, 4, 1, 0, 0, 3, 0, 0, 0, 9, 0, 0, 0}), "/x*No access", 0);
    const auto s = decodeTransferStatus(status);
    ASSERT_TRUE(s);
    EXPECT_EQ(s->requestKind, 4);
    EXPECT_EQ(s->status, 1);
    EXPECT_EQ(s->path, "/x*");
    EXPECT_EQ(s->error, "No access");
    EXPECT_FALSE(decodeTransferStatus(std::span(status).first(status.size() - 1)));

    const auto item = withText(hex({140, 116, 9, 0, 12, 0, 0, 0, 0, 0, 0, 0, 1, 0, 0, 0, 't', 0, 0, 0, 0xEE, 0xEE, 0xEE, 0xEE}),
                               "1700000000_a", 0);
    const auto i = decodeListItem(item);
    ASSERT_TRUE(i);
    EXPECT_EQ(i->size, 0x100000000u);
    EXPECT_EQ(i->type, 't');
    EXPECT_EQ(i->name, "1700000000_a");
    auto lying = item;
    lying[4] = 13;
    EXPECT_FALSE(decodeListItem(lying));
}

TEST(FarProtocolDecode, PrintBeginAndContinue) {
    // A name of 5 bytes and no data: 3 bytes of padding, 5 units.
    const auto begin = withText(hex({141, 1, 5, 0, 1, 0, 5, 0, 0, 0, 0, 0}), "a.txt", 3);
    const auto b = decodePrintChunk(begin);
    ASSERT_TRUE(b);
    EXPECT_TRUE(b->begin);
    EXPECT_EQ(b->more, 1);
    EXPECT_EQ(b->name, "a.txt");
    EXPECT_TRUE(b->data.empty());

    const auto cont = withText(hex({141, 2, 4, 0, 0, 0xAA, 0xAA, 0xAA, 2, 0, 0, 0}), "hi", 2);
    const auto c = decodePrintChunk(cont);
    ASSERT_TRUE(c);
    EXPECT_FALSE(c->begin);
    EXPECT_EQ(c->more, 0);
    EXPECT_TRUE(c->name.empty());
    EXPECT_EQ(c->data, hex({'h', 'i'}));

    auto lying = cont;
    lying[8] = 9;
    EXPECT_FALSE(decodePrintChunk(lying));
    auto other = cont;
    other[1] = 3;
    EXPECT_FALSE(decodePrintChunk(other));
}

TEST(FarProtocolEncode, EventPayloadsOnTheWire) {
    TransferEvent e;
    e.direction = 2;
    e.objectType = 6;
    e.openFlag = 1;
    e.kind = 4;
    e.size = 0x1122334455667788u;
    e.nameA = "A";
    e.nameB = "BB";
    e.data = {9, 8, 7};
    EXPECT_EQ(encodeTransferEvent(e), hex({2, 6, 1, 4, 0x88, 0x77, 0x66, 0x55, 0x44, 0x33, 0x22, 0x11, 1, 0, 2, 0, 3, 0, 0, 0,
                                           'A', 'B', 'B', 9, 8, 7}));
    EXPECT_EQ(encodeListDirectory("ab"), hex({2, 0, 0, 0, 'a', 'b'}));
    EXPECT_EQ(encodeListDirectory(""), hex({0, 0, 0, 0}));
    EXPECT_EQ(encodeDeleteFile("xyz"), hex({0, 0, 3, 0, 'x', 'y', 'z'}));
    EXPECT_EQ(encodeRenameFile("o", "nw"), hex({1, 0, 2, 0, 'o', 'n', 'w'}));
}

// The client reads events from libxcb's buffer, where every wire byte from 32 on sits 4 bytes
// later; the payloads land where the client expects them.
TEST(FarProtocolEncode, EventsAsTheClientSeesThem) {
    std::string error;
    auto server = XServer::start({}, &error);
    ASSERT_TRUE(server) << error;
    auto c = loopbacktest::connect(server->displayName());
    ASSERT_EQ(xcb_connection_has_error(c.get()), 0);
    ASSERT_TRUE(server->waitForClient(5s));
    auto next = [&]() -> std::vector<std::uint8_t> {
        xcb_generic_event_t* ev = xcb_wait_for_event(c.get());
        if (!ev) return {};
        const auto* raw = reinterpret_cast<const std::uint8_t*>(ev);
        const std::size_t length = 36 + 4 * std::size_t{bytes::get32({raw, 8}, 4)};
        std::vector<std::uint8_t> out(raw, raw + length);
        std::free(ev);
        return out;
    };

    TransferEvent e;
    e.direction = 1;
    e.objectType = 1;
    e.kind = 5;
    e.size = 77;
    e.nameA = "report.pdf";
    e.nameB = "/tmp/report.pdf";
    ASSERT_TRUE(server->sendGenericEvent(kTransferRequest, encodeTransferEvent(e)));
    auto ev = next();
    ASSERT_GE(ev.size(), 56u + 25u);
    EXPECT_EQ(bytes::get16(ev, 8), kTransferRequest);
    EXPECT_EQ(ev[36], 1);
    EXPECT_EQ(ev[37], 1);
    EXPECT_EQ(ev[39], 5);
    EXPECT_EQ(bytes::get64(ev, 40), 77u);
    EXPECT_EQ(bytes::get16(ev, 48), 10);
    EXPECT_EQ(bytes::get16(ev, 50), 15);
    EXPECT_EQ(bytes::get32(ev, 52), 0u);
    EXPECT_EQ(std::string(ev.begin() + 56, ev.begin() + 81), "report.pdf/tmp/report.pdf");

    ASSERT_TRUE(server->sendGenericEvent(kListDirectoryRequest, encodeListDirectory("..")));
    ev = next();
    ASSERT_GE(ev.size(), 42u);
    EXPECT_EQ(bytes::get16(ev, 8), kListDirectoryRequest);
    EXPECT_EQ(bytes::get16(ev, 36), 2);
    EXPECT_EQ(std::string(ev.begin() + 40, ev.begin() + 42), "..");

    ASSERT_TRUE(server->sendGenericEvent(kRenameFileRequest, encodeRenameFile("old", "new1")));
    ev = next();
    ASSERT_GE(ev.size(), 47u);
    EXPECT_EQ(bytes::get16(ev, 36), 3);
    EXPECT_EQ(bytes::get16(ev, 38), 4);
    EXPECT_EQ(std::string(ev.begin() + 40, ev.begin() + 47), "oldnew1");

    ASSERT_TRUE(server->sendGenericEvent(kDeleteFileRequest, encodeDeleteFile("gone")));
    ev = next();
    ASSERT_GE(ev.size(), 44u);
    EXPECT_EQ(bytes::get16(ev, 38), 4);
    EXPECT_EQ(std::string(ev.begin() + 40, ev.begin() + 44), "gone");
}
