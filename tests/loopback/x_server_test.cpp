// The loopback X server against a real libxcb client, and against clients that send it garbage.
#include "x_server.h"

#include "common/bytes.h"
#include <gtest/gtest.h>

#include <xcb/xcb.h>
#include <xcb/xcbext.h>

#include <poll.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>

using namespace std::chrono_literals;
using loopback::XServer;

namespace {

xcb_extension_t fileTransferExtension{"QRV_ThinFileTransfer12", 0};

struct XcbDeleter {
    void operator()(xcb_connection_t* c) const { xcb_disconnect(c); }
};
using Connection = std::unique_ptr<xcb_connection_t, XcbDeleter>;

Connection connect(const std::string& display) { return Connection(xcb_connect(display.c_str(), nullptr)); }

// Sends a void file-transfer request whose body follows the 4-byte header (padded here).
unsigned sendRequest(xcb_connection_t* c, std::uint8_t minor, std::span<const std::uint8_t> body, bool checked) {
    std::uint8_t header[4] = {};
    static const std::uint8_t zeros[4] = {};
    iovec parts[2 + 3];  // libxcb needs two spare entries before the request's own
    parts[2] = {header, sizeof header};
    parts[3] = {const_cast<std::uint8_t*>(body.data()), body.size()};
    parts[4] = {const_cast<std::uint8_t*>(zeros), (4 - body.size() % 4) % 4};
    const xcb_protocol_request_t request{3, &fileTransferExtension, minor, 1};
    return xcb_send_request(c, checked ? XCB_REQUEST_CHECKED : 0, parts + 2, &request);
}

// The body of a status request (minor 119) carrying `path`.
std::vector<std::uint8_t> statusBody(std::string_view path) {
    std::vector<std::uint8_t> body;
    bytes::Writer(body).u8(0).u8(0).u16(0).u32(static_cast<std::uint32_t>(path.size())).u32(0).raw(path);
    return body;
}

// Whether a libxcb client is served: a GetInputFocus round trip.
bool serves(const XServer& server) {
    auto c = connect(server.displayName());
    xcb_generic_error_t* error = nullptr;
    auto* reply = xcb_get_input_focus_reply(c.get(), xcb_get_input_focus(c.get()), &error);
    const bool ok = reply != nullptr && error == nullptr;
    std::free(reply);
    std::free(error);
    return ok;
}

// A socket to the display, for bytes no proper client would send.
class RawClient {
public:
    explicit RawClient(int display) : fd_(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_un addr{};
        addr.sun_family = AF_UNIX;
        std::snprintf(addr.sun_path, sizeof addr.sun_path, "/tmp/.X11-unix/X%d", display);
        EXPECT_EQ(::connect(fd_, reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0);
    }
    ~RawClient() { ::close(fd_); }
    RawClient(const RawClient&) = delete;
    RawClient& operator=(const RawClient&) = delete;

    // Sends what the server takes; it may close the connection part way.
    void send(std::span<const std::uint8_t> bytes) {
        for (std::size_t done = 0; done < bytes.size();) {
            const ssize_t n = ::send(fd_, bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
            if (n <= 0) return;
            done += static_cast<std::size_t>(n);
        }
    }
    void shutdownWrite() { ::shutdown(fd_, SHUT_WR); }
    // Exactly n bytes; fewer on end of stream or when nothing comes for 10 s.
    std::vector<std::uint8_t> read(std::size_t n) {
        std::vector<std::uint8_t> out(n);
        std::size_t got = 0;
        while (got < n) {
            pollfd p{fd_, POLLIN, 0};
            const ssize_t r = ::poll(&p, 1, 10000) > 0 ? ::recv(fd_, out.data() + got, n - got, 0) : 0;
            if (r <= 0) break;
            got += static_cast<std::size_t>(r);
        }
        out.resize(got);
        return out;
    }
    // Sends a little-endian setup without authorisation and reads the whole answer.
    std::vector<std::uint8_t> handshake() {
        send(std::array<std::uint8_t, 12>{'l', 0, 11, 0});
        auto answer = read(8);
        if (answer.size() < 8) return {};
        const auto rest = read(bytes::get16(answer, 6) * 4u);
        answer.insert(answer.end(), rest.begin(), rest.end());
        return answer;
    }
    // True when the server closes the connection (reading whatever comes first).
    bool closedByServer() {
        for (std::uint8_t buffer[4096];;) {
            pollfd p{fd_, POLLIN, 0};
            if (::poll(&p, 1, 10000) <= 0) return false;
            const ssize_t r = ::recv(fd_, buffer, sizeof buffer, 0);
            if (r <= 0) return r == 0 || errno == ECONNRESET;
        }
    }

private:
    int fd_;
};

// A server with default options and a libxcb client connected to it.
class LoopbackXServer : public ::testing::Test {
protected:
    void SetUp() override {
        std::string error;
        server = XServer::start({}, &error);
        ASSERT_TRUE(server) << error;
        c = connect(server->displayName());
        ASSERT_EQ(xcb_connection_has_error(c.get()), 0);
    }
    std::unique_ptr<XServer> server;
    Connection c;
};

}  // namespace

TEST_F(LoopbackXServer, SequenceSurvivesTheSixteenBitWrap) {
    constexpr int kCount = 70000;
    unsigned first = 0;
    for (int i = 0; i < kCount; ++i) {
        const unsigned seq = sendRequest(c.get(), 119, statusBody(std::to_string(i)), false);
        if (i == 0) first = seq;
    }
    const unsigned checked = sendRequest(c.get(), 119, statusBody("last"), true);
    xcb_generic_error_t* none = xcb_request_check(c.get(), {checked});
    EXPECT_EQ(none, nullptr);
    std::free(none);

    // Every request arrives, in order, with its own number; libxcb's own GetInputFocus requests
    // in between are answered by the server and take numbers too.
    unsigned expected = first;
    for (int i = 0; i < kCount; ++i) {
        auto r = server->nextRequest(5s);
        ASSERT_TRUE(r);
        ASSERT_EQ(r->minor, 119);
        const std::uint32_t pathLen = bytes::get32(r->bytes, 8);
        ASSERT_EQ(std::string(r->bytes.begin() + 16, r->bytes.begin() + 16 + pathLen), std::to_string(i));
        while (static_cast<std::uint16_t>(expected) != r->sequence && expected < first + kCount + 10) ++expected;
        ASSERT_EQ(r->sequence, static_cast<std::uint16_t>(expected)) << "request " << i;
        ++expected;
    }
    auto last = server->nextRequest(5s);
    ASSERT_TRUE(last);
    EXPECT_EQ(last->sequence, static_cast<std::uint16_t>(checked));
    EXPECT_GT(checked - first, 65536u);

    // An error for a request past the wrap reaches the right request.
    const unsigned failing = sendRequest(c.get(), 119, statusBody("x"), true);
    xcb_flush(c.get());
    auto r = server->nextRequest(5s);
    ASSERT_TRUE(r);
    ASSERT_TRUE(server->sendError(*r, 2 /* BadValue */, 0x1234));
    xcb_generic_error_t* error = xcb_request_check(c.get(), {failing});
    ASSERT_TRUE(error);
    EXPECT_EQ(error->error_code, 2);
    EXPECT_EQ(error->resource_id, 0x1234u);
    EXPECT_EQ(error->major_code, server->fileTransferOpcode());
    EXPECT_EQ(error->minor_code, 119);
    std::free(error);
}

TEST_F(LoopbackXServer, BigRequestIsNormalised) {
    std::vector<std::uint8_t> body(300001);
    for (std::size_t i = 0; i < body.size(); ++i) body[i] = static_cast<std::uint8_t>(i * 7 + 3);
    const unsigned seq = sendRequest(c.get(), 115, body, false);
    sendRequest(c.get(), 119, statusBody("after"), false);
    xcb_flush(c.get());
    EXPECT_EQ(xcb_connection_has_error(c.get()), 0);

    auto big = server->nextRequest(5s);
    ASSERT_TRUE(big);
    EXPECT_TRUE(big->big);
    EXPECT_EQ(big->major, server->fileTransferOpcode());
    EXPECT_EQ(big->minor, 115);
    EXPECT_EQ(big->sequence, static_cast<std::uint16_t>(seq));
    ASSERT_EQ(big->bytes.size(), 4 + body.size() + 3);
    EXPECT_EQ(big->bytes[0], big->major);
    EXPECT_EQ(big->bytes[1], 115);
    EXPECT_TRUE(std::equal(body.begin(), body.end(), big->bytes.begin() + 4));

    auto small = server->nextRequest(5s);
    ASSERT_TRUE(small);
    EXPECT_FALSE(small->big);
    EXPECT_EQ(small->sequence, static_cast<std::uint16_t>(seq + 1));
    EXPECT_EQ(bytes::get16(small->bytes, 2) * 4u, small->bytes.size());
}

// Garbage ends in an X error or a closed connection, never in a crash, and the next client is
// served.
TEST_F(LoopbackXServer, GarbageGetsAnErrorOrAClose) {
    const std::uint8_t ft = server->fileTransferOpcode(), bigReq = loopback::kBigRequestsOpcode;
    struct Answer {
        std::uint8_t type, code;
        std::uint16_t sequence;
        std::uint8_t major;  // of an error
    };
    struct Case {
        const char* what;
        bool handshake;
        std::vector<std::uint8_t> bytes;
        std::vector<Answer> answers;  // 32 bytes each, in order
        bool stays;                   // the connection still answers a GetInputFocus
    };
    const std::vector<Case> cases = {
        {"not an X client", false, {'G', 'E', 'T', ' ', '/', '\r', '\n'}, {}, false},
        {"big-endian client", false, {'B', 0, 0, 11, 0, 0, 0, 0, 0, 0, 0, 0}, {}, false},
        {"setup cut short", false, {'l', 0, 11, 0, 16, 0, 16, 0}, {}, false},
        {"unknown opcode", true, {200, 3, 2, 0, 0, 0, 0, 0, 200, 3, 2, 0, 0, 0, 0, 0}, {{0, 1, 1, 200}, {0, 1, 2, 200}}, true},
        {"length 0 without BIG-REQUESTS", true, {43, 0, 0, 0, 0xFF, 0xFF, 0xFF, 0xFF}, {{0, 16, 1, 43}}, false},
        {"absurd big length", true, {bigReq, 0, 1, 0, ft, 115, 0, 0, 0xFF, 0xFF, 0xFF, 0xFF}, {{1, 0, 1, 0}, {0, 16, 2, ft}}, false},
        {"big length below its header", true, {bigReq, 0, 1, 0, ft, 115, 0, 0, 1, 0, 0, 0}, {{1, 0, 1, 0}, {0, 16, 2, ft}}, false},
        {"QueryExtension name past its end", true, {98, 0, 3, 0, 200, 0, 0, 0, 'a', 'b', 'c', 'd'}, {{0, 16, 1, 98}}, true},
        {"request cut short", true, {ft, 115, 100, 0, 1, 2, 3, 4}, {}, false},
    };
    for (const auto& k : cases) {
        SCOPED_TRACE(k.what);
        RawClient raw(server->display());
        if (k.handshake) {
            ASSERT_GT(raw.handshake().size(), 8u);
        }
        raw.send(k.bytes);
        for (const auto& a : k.answers) {
            const auto got = raw.read(32);
            ASSERT_EQ(got.size(), 32u);
            EXPECT_EQ(got[0], a.type);
            EXPECT_EQ(got[1], a.code);
            EXPECT_EQ(bytes::get16(got, 2), a.sequence);
            if (a.type == 0) {
                EXPECT_EQ(got[10], a.major);
            }
        }
        if (k.stays) {
            raw.send(std::array<std::uint8_t, 4>{43, 0, 1, 0});
            const auto reply = raw.read(32);
            ASSERT_EQ(reply.size(), 32u);
            EXPECT_EQ(reply[0], 1);
        }
        raw.shutdownWrite();
        EXPECT_TRUE(raw.closedByServer());
    }
    EXPECT_TRUE(serves(*server));
}
