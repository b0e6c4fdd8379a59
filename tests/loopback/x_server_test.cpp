// The loopback X server against a real libxcb client and against raw sockets.
#include "x_client.h"
#include "x_server.h"

#include "common/bytes.h"
#include "support/temp_dir.h"

#include <gtest/gtest.h>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <sys/wait.h>
#include <filesystem>
#include <fstream>
#include <random>
#include <thread>

using namespace std::chrono_literals;
using loopback::ServerOptions;
using loopback::XServer;
using namespace loopbacktest;

namespace {

std::unique_ptr<XServer> startServer(const ServerOptions& options = {}) {
    std::string error;
    auto server = XServer::start(options, &error);
    EXPECT_TRUE(server) << error;
    return server;
}

std::vector<std::uint8_t> statusBody(std::string_view path) {
    std::vector<std::uint8_t> body;
    bytes::Writer(body).u8(0).u8(0).u16(0).u32(static_cast<std::uint32_t>(path.size())).u32(0).raw(path);
    return body;
}

// Whether a libxcb connection still works: a GetInputFocus round trip.
bool roundTrip(xcb_connection_t* c) {
    xcb_generic_error_t* error = nullptr;
    auto* reply = xcb_get_input_focus_reply(c, xcb_get_input_focus(c), &error);
    const bool ok = reply != nullptr && error == nullptr;
    std::free(reply);
    std::free(error);
    return ok;
}

class ScopedEnv {
public:
    ScopedEnv(const char* name, const std::string& value) : name_(name) {
        if (const char* old = std::getenv(name)) old_ = old;
        ::setenv(name, value.c_str(), 1);
    }
    ~ScopedEnv() {
        if (old_) ::setenv(name_, old_->c_str(), 1);
        else ::unsetenv(name_);
    }

private:
    const char* name_;
    std::optional<std::string> old_;
};

// An authority file with one entry for any address of `display`.
void writeAuthority(const std::filesystem::path& path, int display, std::string_view cookie) {
    std::string out;
    auto counted = [&](std::string_view s) {
        out.push_back(static_cast<char>(s.size() >> 8));
        out.push_back(static_cast<char>(s.size() & 0xFF));
        out.append(s);
    };
    out.push_back(static_cast<char>(0xFF));  // FamilyWild, big-endian 0xFFFF
    out.push_back(static_cast<char>(0xFF));
    counted("");
    counted(std::to_string(display));
    counted("MIT-MAGIC-COOKIE-1");
    counted(cookie);
    testsupport::writeFile(path, out);
}

// A display number outside the range the automatic choice uses, free right now, so that a
// test can release and retake it while other tests run beside it.
int freeFixedDisplay() {
    for (int i = 0; i < 100; ++i) {
        ServerOptions options;
        options.display = 300 + (::getpid() + i) % 100;
        std::string error;
        if (XServer::start(options, &error)) return options.display;
    }
    return -1;
}

}  // namespace

TEST(XServerDisplay, HandshakeGivesOneSaneScreen) {
    auto server = startServer();
    ASSERT_TRUE(server);
    EXPECT_GE(server->display(), 40);
    EXPECT_EQ(server->displayName(), ":" + std::to_string(server->display()));
    EXPECT_FALSE(server->clientConnected());

    auto c = connect(server->displayName());
    ASSERT_EQ(xcb_connection_has_error(c.get()), 0);
    const xcb_setup_t* setup = xcb_get_setup(c.get());
    EXPECT_EQ(setup->protocol_major_version, 11);
    EXPECT_EQ(setup->maximum_request_length, 65535);
    EXPECT_NE(setup->resource_id_mask, 0u);
    EXPECT_EQ(setup->resource_id_base & setup->resource_id_mask, 0u);
    ASSERT_EQ(xcb_setup_roots_length(setup), 1);
    const xcb_screen_t* screen = xcb_setup_roots_iterator(setup).data;
    EXPECT_EQ(screen->root_depth, 24);
    bool rootVisualFound = false;
    for (auto d = xcb_screen_allowed_depths_iterator(screen); d.rem; xcb_depth_next(&d)) {
        for (auto v = xcb_depth_visuals_iterator(d.data); v.rem; xcb_visualtype_next(&v))
            rootVisualFound |= v.data->visual_id == screen->root_visual;
    }
    EXPECT_TRUE(rootVisualFound);
    EXPECT_TRUE(roundTrip(c.get()));
    EXPECT_TRUE(server->waitForClient(5s));
    EXPECT_EQ(server->clientsAccepted(), 1u);

    c.reset();
    EXPECT_TRUE(server->waitForDisconnect(5s));
    EXPECT_FALSE(server->clientConnected());
}

TEST(XServerDisplay, LockAndSocketAreTakenAndReleased) {
    const int n = freeFixedDisplay();
    ASSERT_GE(n, 0);
    ServerOptions same;
    same.display = n;
    auto first = startServer(same);
    auto second = startServer();
    auto third = startServer();
    ASSERT_TRUE(first && second && third);
    EXPECT_EQ(first->display(), n);
    EXPECT_NE(second->display(), third->display());
    const std::string lock = "/tmp/.X" + std::to_string(n) + "-lock";
    const std::string socket = "/tmp/.X11-unix/X" + std::to_string(n);
    EXPECT_TRUE(std::filesystem::exists(lock));
    EXPECT_TRUE(std::filesystem::exists(socket));

    // The same number again is refused while the first server lives.
    std::string error;
    EXPECT_FALSE(XServer::start(same, &error));
    EXPECT_FALSE(error.empty());

    first.reset();
    EXPECT_FALSE(std::filesystem::exists(lock));
    EXPECT_FALSE(std::filesystem::exists(socket));
    auto again = XServer::start(same, &error);
    ASSERT_TRUE(again) << error;
    EXPECT_EQ(again->display(), n);
}

TEST(XServerDisplay, LeftoversOfADeadServerAreReclaimed) {
    const int n = freeFixedDisplay();
    ASSERT_GE(n, 0);
    const std::string lock = "/tmp/.X" + std::to_string(n) + "-lock";
    const std::string socketPath = "/tmp/.X11-unix/X" + std::to_string(n);

    // A lock naming a process that no longer exists, and a socket file nobody listens on.
    const pid_t child = ::fork();
    if (child == 0) ::_exit(0);
    ASSERT_GT(child, 0);
    int status = 0;
    ::waitpid(child, &status, 0);
    testsupport::writeFile(lock, "      " + std::to_string(child) + "\n");
    {
        const int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
        sockaddr_un addr{};
        addr.sun_family = AF_UNIX;
        std::memcpy(addr.sun_path, socketPath.c_str(), socketPath.size() + 1);
        ASSERT_EQ(::bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0);
        ::close(fd);
    }
    ServerOptions options;
    options.display = n;
    std::string error;
    auto server = XServer::start(options, &error);
    ASSERT_TRUE(server) << error;
    auto c = connect(server->displayName());
    EXPECT_EQ(xcb_connection_has_error(c.get()), 0);
    EXPECT_TRUE(roundTrip(c.get()));
}

TEST(XServerDisplay, TcpWhenAsked) {
    ServerOptions options;
    options.tcp = true;
    auto server = startServer(options);
    ASSERT_TRUE(server);
    auto c = connect("127.0.0.1" + server->displayName());
    ASSERT_EQ(xcb_connection_has_error(c.get()), 0);
    EXPECT_TRUE(roundTrip(c.get()));
}

TEST(XServerSetup, CookieIsChecked) {
    ServerOptions options;
    options.cookie = std::string("\x01\x02\x03\x04\x05\x06\x07\x08\x09\x0a\x0b\x0c\x0d\x0e\x0f\x10", 16);
    auto server = startServer(options);
    ASSERT_TRUE(server);
    testsupport::TempDir dir;

    writeAuthority(dir / "right", server->display(), options.cookie);
    {
        ScopedEnv env("XAUTHORITY", (dir / "right").string());
        auto c = connect(server->displayName());
        ASSERT_EQ(xcb_connection_has_error(c.get()), 0);
        EXPECT_TRUE(roundTrip(c.get()));
    }
    writeAuthority(dir / "wrong", server->display(), std::string(16, 'x'));
    {
        ScopedEnv env("XAUTHORITY", (dir / "wrong").string());
        auto c = connect(server->displayName());
        EXPECT_NE(xcb_connection_has_error(c.get()), 0);
    }
    // What a client without any cookie is told, byte by byte.
    RawClient raw(server->display());
    auto answer = raw.handshake();
    ASSERT_TRUE(answer);
    EXPECT_EQ((*answer)[0], 0);  // Failed
    const std::string reason(answer->begin() + 8, answer->begin() + 8 + (*answer)[1]);
    EXPECT_EQ(reason, "No protocol specified\n");
    EXPECT_TRUE(raw.closedByServer());
    EXPECT_EQ(server->clientsAccepted(), 1u);
}

TEST(XServerSetup, BigEndianClientIsRefused) {
    auto server = startServer();
    ASSERT_TRUE(server);
    RawClient raw(server->display());
    const std::uint8_t setup[12] = {'B', 0, 0, 11, 0, 0, 0, 0, 0, 0, 0, 0};
    ASSERT_TRUE(raw.send(setup));
    auto answer = raw.readSetupAnswer(true);
    ASSERT_TRUE(answer);
    EXPECT_EQ((*answer)[0], 0);
    EXPECT_EQ((*answer)[2], 0);  // protocol major 11, big-endian
    EXPECT_EQ((*answer)[3], 11);
    EXPECT_GT((*answer)[1], 0);
    EXPECT_TRUE(raw.closedByServer());
}

TEST(XServerRequests, ExtensionsCanBeSwitchedOff) {
    for (const bool on : {true, false}) {
        ServerOptions options;
        options.fileTransferExtension = options.printExtension = options.bigRequests = on;
        auto server = startServer(options);
        ASSERT_TRUE(server);
        auto c = connect(server->displayName());
        ASSERT_EQ(xcb_connection_has_error(c.get()), 0);
        const auto* ft = xcb_get_extension_data(c.get(), &fileTransferExtension);
        const auto* print = xcb_get_extension_data(c.get(), &printExtension);
        ASSERT_TRUE(ft && print);
        EXPECT_EQ(ft->present, on ? 1 : 0);
        EXPECT_EQ(print->present, on ? 1 : 0);
        if (on) {
            EXPECT_EQ(ft->major_opcode, server->fileTransferOpcode());
            EXPECT_EQ(print->major_opcode, server->printOpcode());
        }
        EXPECT_EQ(xcb_get_maximum_request_length(c.get()), on ? loopback::kBigRequestMaxUnits : 65535u);
        auto* other = xcb_query_extension_reply(c.get(), xcb_query_extension(c.get(), 5, "SHAPE"), nullptr);
        ASSERT_TRUE(other);
        EXPECT_EQ(other->present, 0);
        std::free(other);
    }
}

TEST(XServerRequests, UnknownRequestsGetBadRequest) {
    auto server = startServer();
    ASSERT_TRUE(server);
    auto c = connect(server->displayName());
    ASSERT_EQ(xcb_connection_has_error(c.get()), 0);
    const std::uint8_t body[8] = {};
    const unsigned seq = sendRequest(c.get(), nullptr, 1 /* CreateWindow */, body, true, true);
    xcb_generic_error_t* error = xcb_request_check(c.get(), {seq});
    ASSERT_TRUE(error);
    EXPECT_EQ(error->error_code, 1);
    EXPECT_EQ(error->major_code, 1);
    EXPECT_EQ(error->full_sequence, seq);
    std::free(error);
    EXPECT_TRUE(roundTrip(c.get()));
}

TEST(XServerRequests, SequenceSurvivesTheSixteenBitWrap) {
    auto server = startServer();
    ASSERT_TRUE(server);
    auto c = connect(server->displayName());
    ASSERT_EQ(xcb_connection_has_error(c.get()), 0);
    constexpr int kCount = 70000;
    unsigned first = 0;
    for (int i = 0; i < kCount; ++i) {
        const unsigned seq = sendRequest(c.get(), &fileTransferExtension, 119, statusBody(std::to_string(i)), true, false);
        if (i == 0) first = seq;
    }
    const unsigned checked = sendRequest(c.get(), &fileTransferExtension, 119, statusBody("last"), true, true);
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

    // An error the test sends for a request past the wrap reaches the right request.
    const unsigned failing = sendRequest(c.get(), &fileTransferExtension, 119, statusBody("x"), true, true);
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

TEST(XServerRequests, BigRequestIsNormalised) {
    auto server = startServer();
    ASSERT_TRUE(server);
    auto c = connect(server->displayName());
    ASSERT_EQ(xcb_connection_has_error(c.get()), 0);
    std::vector<std::uint8_t> body(300001);
    for (std::size_t i = 0; i < body.size(); ++i) body[i] = static_cast<std::uint8_t>(i * 7 + 3);
    const unsigned seq = sendRequest(c.get(), &fileTransferExtension, 115, body, true, false);
    sendRequest(c.get(), &fileTransferExtension, 119, statusBody("after"), true, false);
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

TEST(XServerRequests, PrintReplyCarriesCodeAndReason) {
    auto server = startServer();
    ASSERT_TRUE(server);
    auto c = connect(server->displayName());
    ASSERT_EQ(xcb_connection_has_error(c.get()), 0);
    for (const std::string_view reason : {std::string_view{}, std::string_view("printer on fire")}) {
        std::vector<std::uint8_t> body;
        bytes::Writer(body).u8(0).u8(0).u16(5).u32(2).raw("a.txt").raw("hi");
        const unsigned seq = sendRequest(c.get(), &printExtension, 1, body, false, true);
        xcb_flush(c.get());
        auto r = server->nextRequest(5s);
        ASSERT_TRUE(r);
        EXPECT_EQ(r->major, server->printOpcode());
        EXPECT_EQ(r->minor, 1);
        EXPECT_EQ(bytes::get16(r->bytes, 2), 5);  // 12 fixed + 7 bytes + 1 pad
        ASSERT_TRUE(server->sendPrintReply(*r, reason.empty() ? 0 : 2, reason));
        xcb_generic_error_t* error = nullptr;
        void* reply = xcb_wait_for_reply(c.get(), seq, &error);
        ASSERT_TRUE(reply);
        EXPECT_EQ(error, nullptr);
        const auto* head = static_cast<const std::uint8_t*>(reply);
        const std::span<const std::uint8_t> view(head, 32 + 4 * bytes::get32({head, 8}, 4));
        EXPECT_EQ(view[1], reason.empty() ? 0 : 2);
        ASSERT_EQ(bytes::get32(view, 8), reason.size());
        EXPECT_EQ(std::string(view.begin() + 32, view.begin() + 32 + static_cast<std::ptrdiff_t>(reason.size())), reason);
        std::free(reply);
    }
}

TEST(XServerEvents, GenericEventReachesTheClient) {
    auto server = startServer();
    ASSERT_TRUE(server);
    auto c = connect(server->displayName());
    ASSERT_EQ(xcb_connection_has_error(c.get()), 0);
    ASSERT_TRUE(server->waitForClient(5s));
    const unsigned seq = sendRequest(c.get(), &fileTransferExtension, 119, statusBody("p"), true, false);
    xcb_flush(c.get());
    ASSERT_TRUE(server->nextRequest(5s));

    const std::uint8_t head[3] = {7, 8, 9};
    const std::uint8_t extra[5] = {1, 2, 3, 4, 5};
    ASSERT_TRUE(server->sendGenericEvent(90, extra, head));
    xcb_generic_event_t* event = xcb_wait_for_event(c.get());
    ASSERT_TRUE(event);
    const auto* ge = reinterpret_cast<const xcb_ge_generic_event_t*>(event);
    EXPECT_EQ(ge->response_type, XCB_GE_GENERIC);
    EXPECT_EQ(ge->extension, server->fileTransferOpcode());
    EXPECT_EQ(ge->sequence, static_cast<std::uint16_t>(seq));
    EXPECT_EQ(ge->length, 2u);
    EXPECT_EQ(ge->event_type, 90);
    const auto* raw = reinterpret_cast<const std::uint8_t*>(event);
    EXPECT_EQ(raw[10], 7);
    EXPECT_EQ(raw[12], 9);
    EXPECT_EQ(raw[13], 0);
    EXPECT_EQ(raw[36], 1);  // libxcb put its full sequence at 32
    EXPECT_EQ(raw[40], 5);
    EXPECT_EQ(raw[41], 0);
    std::free(event);
}

TEST(XServerEvents, ClosedClientIsDroppedAndTheNextServed) {
    auto server = startServer();
    ASSERT_TRUE(server);
    auto c = connect(server->displayName());
    ASSERT_TRUE(server->waitForClient(5s));
    const std::uint32_t firstId = server->currentClient();
    ASSERT_EQ(xcb_connection_has_error(c.get()), 0);
    ASSERT_TRUE(server->sendGenericEvent(13, {}));
    server->closeClient();
    xcb_generic_event_t* event = xcb_wait_for_event(c.get());
    ASSERT_TRUE(event);  // what was queued before the close still arrives
    std::free(event);
    EXPECT_EQ(xcb_wait_for_event(c.get()), nullptr);
    EXPECT_NE(xcb_connection_has_error(c.get()), 0);
    EXPECT_FALSE(server->sendGenericEvent(13, {}));

    auto next = connect(server->displayName());
    ASSERT_EQ(xcb_connection_has_error(next.get()), 0);
    EXPECT_TRUE(roundTrip(next.get()));
    EXPECT_NE(server->currentClient(), firstId);
    EXPECT_EQ(server->clientsAccepted(), 2u);
}

// Garbage of every kind ends in an X error or a closed connection, and the server goes on.
TEST(XServerGarbage, BadBytesGiveAnErrorOrAClose) {
    auto server = startServer();
    ASSERT_TRUE(server);
    const int n = server->display();
    auto stillServes = [&] {
        auto c = connect(server->displayName());
        return xcb_connection_has_error(c.get()) == 0 && roundTrip(c.get());
    };

    {  // not an X client at all
        RawClient raw(n);
        ASSERT_TRUE(raw.send("GET / HTTP/1.0\r\n\r\n"));
        EXPECT_TRUE(raw.closedByServer());
    }
    {  // an unknown opcode: BadRequest with the right sequence, and the connection stays
        RawClient raw(n);
        ASSERT_TRUE(raw.handshake());
        const std::uint8_t req[8] = {200, 3, 2, 0, 0, 0, 0, 0};
        ASSERT_TRUE(raw.send(req));
        ASSERT_TRUE(raw.send(req));
        for (std::uint16_t seq = 1; seq <= 2; ++seq) {
            auto e = raw.read(32);
            ASSERT_TRUE(e);
            EXPECT_EQ((*e)[0], 0);
            EXPECT_EQ((*e)[1], 1);
            EXPECT_EQ(bytes::get16(*e, 2), seq);
            EXPECT_EQ((*e)[10], 200);
            EXPECT_EQ(bytes::get16(*e, 8), 3);
        }
    }
    {  // length 0 without BIG-REQUESTS: BadLength, then the close
        RawClient raw(n);
        ASSERT_TRUE(raw.handshake());
        const std::uint8_t req[8] = {43, 0, 0, 0, 0xFF, 0xFF, 0xFF, 0xFF};
        ASSERT_TRUE(raw.send(req));
        auto e = raw.read(32);
        ASSERT_TRUE(e);
        EXPECT_EQ((*e)[0], 0);
        EXPECT_EQ((*e)[1], 16);
        EXPECT_TRUE(raw.closedByServer());
    }
    {  // an absurd big length after BigReqEnable: BadLength and a close, no allocation of it
        RawClient raw(n);
        ASSERT_TRUE(raw.handshake());
        const std::uint8_t enable[4] = {loopback::kBigRequestsOpcode, 0, 1, 0};
        ASSERT_TRUE(raw.send(enable));
        auto reply = raw.read(32);
        ASSERT_TRUE(reply);
        EXPECT_EQ((*reply)[0], 1);
        EXPECT_EQ(bytes::get32(*reply, 8), loopback::kBigRequestMaxUnits);
        const std::uint8_t huge[8] = {server->fileTransferOpcode(), 115, 0, 0, 0xFF, 0xFF, 0xFF, 0xFF};
        ASSERT_TRUE(raw.send(huge));
        auto e = raw.read(32);
        ASSERT_TRUE(e);
        EXPECT_EQ((*e)[1], 16);
        EXPECT_EQ(bytes::get16(*e, 2), 2);
        EXPECT_TRUE(raw.closedByServer());
        const std::uint8_t tooShort[8] = {server->fileTransferOpcode(), 115, 0, 0, 1, 0, 0, 0};
        RawClient again(n);
        ASSERT_TRUE(again.handshake());
        ASSERT_TRUE(again.send(enable));
        ASSERT_TRUE(again.read(32));
        ASSERT_TRUE(again.send(tooShort));
        auto e2 = again.read(32);
        ASSERT_TRUE(e2);
        EXPECT_EQ((*e2)[1], 16);
        EXPECT_TRUE(again.closedByServer());
    }
    {  // a QueryExtension whose name runs past its request
        RawClient raw(n);
        ASSERT_TRUE(raw.handshake());
        const std::uint8_t req[12] = {98, 0, 3, 0, 200, 0, 0, 0, 'a', 'b', 'c', 'd'};
        ASSERT_TRUE(raw.send(req));
        auto e = raw.read(32);
        ASSERT_TRUE(e);
        EXPECT_EQ((*e)[0], 0);
        EXPECT_EQ((*e)[1], 16);
        EXPECT_TRUE(raw.send(req));  // the connection is still usable
        EXPECT_TRUE(raw.read(32));
    }
    {  // a request cut short, then the client stops writing
        RawClient raw(n);
        ASSERT_TRUE(raw.handshake());
        const std::uint8_t req[8] = {server->fileTransferOpcode(), 115, 100, 0, 1, 2, 3, 4};
        ASSERT_TRUE(raw.send(req));
        raw.shutdownWrite();
        EXPECT_TRUE(raw.closedByServer());
    }
    {  // a setup cut short
        RawClient raw(n);
        ASSERT_TRUE(raw.send("l\0\x0b\0\x10\0\x10\0"));
        raw.shutdownWrite();
        EXPECT_TRUE(raw.closedByServer());
    }
    EXPECT_TRUE(stillServes());

    // Random bytes after a proper handshake: whatever the server makes of them, it answers only
    // with errors and replies, and keeps serving others.
    std::mt19937 random(1234);
    for (int round = 0; round < 20; ++round) {
        RawClient raw(n);
        ASSERT_TRUE(raw.handshake());
        std::vector<std::uint8_t> junk(1 + random() % 3000);
        for (auto& b : junk) b = static_cast<std::uint8_t>(random());
        raw.send(junk);
        raw.shutdownWrite();
        EXPECT_TRUE(raw.closedByServer()) << "round " << round;
    }
    EXPECT_TRUE(stillServes());
    // Vendor requests among the junk are queued whole; none is malformed in length.
    while (auto r = server->nextRequest(0ms)) EXPECT_EQ(r->bytes.size() % 4, 0u);
}

// Idle connections beyond what the server keeps are closed at once; when they go, others are
// served again.
TEST(XServerGarbage, ConnectionFloodIsBounded) {
    auto server = startServer();
    ASSERT_TRUE(server);
    std::vector<std::unique_ptr<RawClient>> idle;
    for (int i = 0; i < 64; ++i) idle.push_back(std::make_unique<RawClient>(server->display()));
    // Every kept connection still completes a handshake once it speaks.
    ASSERT_TRUE(idle.front()->handshake());
    RawClient extra(server->display());
    ASSERT_TRUE(extra.connected());
    EXPECT_TRUE(extra.closedByServer());
    idle.clear();
    for (int attempt = 0; attempt < 100; ++attempt) {  // until the server has seen them go
        auto c = connect(server->displayName());
        if (xcb_connection_has_error(c.get()) == 0) {
            EXPECT_TRUE(roundTrip(c.get()));
            return;
        }
        std::this_thread::sleep_for(20ms);
    }
    ADD_FAILURE() << "no client served after the flood";
}

// A client that connects, sends and leaves before anyone looks is still reported, once, and
// what it sent is still there to be read.
TEST(XServerEvents, QuickClientIsReportedOnce) {
    auto server = startServer();
    ASSERT_TRUE(server);
    {
        auto c = connect(server->displayName());
        sendRequest(c.get(), &fileTransferExtension, 119, statusBody("bye"), true, false);
        EXPECT_TRUE(roundTrip(c.get()));
    }
    auto r = server->nextRequest(5s);
    ASSERT_TRUE(r);
    EXPECT_EQ(r->client, server->lastClient());
    for (int i = 0; i < 500 && server->clientConnected(); ++i) std::this_thread::sleep_for(10ms);
    EXPECT_FALSE(server->clientConnected());
    EXPECT_TRUE(server->waitForClient(0ms));
    EXPECT_FALSE(server->waitForClient(50ms));
}

// A valid conversation with a few bytes changed at random, many times over: every connection
// ends (no hang), the server never reads outside what it got (ASan in the sanitizer build) and
// it keeps serving proper clients.
TEST(XServerGarbage, MutatedConversationsNeverBreakTheServer) {
    auto server = startServer();
    ASSERT_TRUE(server);
    std::vector<std::uint8_t> valid;
    bytes::Writer w(valid);
    w.u8('l').u8(0).u16(11).u16(0).u16(18).u16(16).u16(0).raw("MIT-MAGIC-COOKIE-1").pad4().zeros(16);
    w.u8(98).u8(0).u16(5).u16(12).u16(0).raw("BIG-REQUESTS");                      // QueryExtension
    w.u8(loopback::kBigRequestsOpcode).u8(0).u16(1);                                // BigReqEnable
    w.u8(server->fileTransferOpcode()).u8(115).u16(0).u32(6).zeros(16);             // big form
    w.u8(server->fileTransferOpcode()).u8(119).u16(5).u32(0).u32(3).u32(0).raw("abc").pad4();
    w.u8(43).u8(0).u16(1);                                                          // GetInputFocus
    w.u8(server->printOpcode()).u8(1).u16(4).u8(0).u8(0).u16(1).u32(2).raw("abc").pad4();
    std::mt19937 random(99);
    for (int round = 0; round < 200; ++round) {
        auto bytes = valid;
        const int changes = 1 + static_cast<int>(random() % 4);
        // Every other round leaves the setup (the first 48 bytes) alone, so the requests are read.
        const std::size_t from = round % 2 ? 48 : 0;
        for (int i = 0; i < changes; ++i) bytes[from + random() % (bytes.size() - from)] = static_cast<std::uint8_t>(random());
        RawClient raw(server->display());
        ASSERT_TRUE(raw.connected());
        raw.send(bytes);
        raw.shutdownWrite();
        ASSERT_TRUE(raw.closedByServer()) << "round " << round;
    }
    while (server->nextRequest(0ms)) {
    }
    auto c = connect(server->displayName());
    ASSERT_EQ(xcb_connection_has_error(c.get()), 0);
    EXPECT_TRUE(roundTrip(c.get()));
}
