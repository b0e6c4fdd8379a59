// The Desktop's flows driven by a hand-written libxcb client that plays the client's part of
// each exchange message by message.
#include "desktop.h"
#include "x_client.h"

#include "common/bytes.h"
#include "support/temp_dir.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <mutex>
#include <thread>

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using namespace loopback;
using testsupport::TempDir;

namespace {

// An event as the client reads it from libxcb's buffer.
struct SeenEvent {
    std::uint16_t type = 0;
    std::vector<std::uint8_t> raw;
    // TransferRequest fields
    std::uint8_t direction = 0, objectType = 0, openFlag = 0, kind = 0;
    std::uint64_t size = 0;
    std::string nameA, nameB, data;
};

class Harness {
public:
    explicit Harness(DesktopOptions options = {}, int clients = 1) {
        std::string error;
        server_ = XServer::start({}, &error);
        EXPECT_TRUE(server_) << error;
        options.folder = dir_ / "desktop";
        fs::create_directories(options.folder);
        options.log = [this](const std::string& line) {
            std::lock_guard lock(mutex_);
            log_ += line + "\n";
        };
        desktop_ = std::make_unique<Desktop>(*server_, options);
        thread_ = std::thread([this, clients] {
            for (int i = 0; i < clients; ++i) desktop_->serveClient(20s);
        });
        client_ = loopbacktest::connect(server_->displayName());
        EXPECT_EQ(xcb_connection_has_error(client_.get()), 0);
    }
    ~Harness() { finish(); }

    // Ends the client (without waiting for the desktop).
    void disconnect() { client_.reset(); }
    // Ends the client and waits for the desktop to be done.
    void finish() {
        client_.reset();
        if (thread_.joinable()) thread_.join();
    }

    const fs::path& folder() const { return dir_.path(); }
    std::string displayName() const { return server_->displayName(); }
    fs::path desktopFolder() const { return dir_ / "desktop"; }
    Desktop& desktop() { return *desktop_; }
    xcb_connection_t* xcb() { return client_.get(); }
    std::string log() {
        std::lock_guard lock(mutex_);
        return log_;
    }

    void reply(std::uint8_t direction, std::uint8_t object, std::uint8_t open, std::uint8_t kind, std::uint64_t size,
               std::string_view a, std::string_view b, std::string_view block = {}) {
        std::vector<std::uint8_t> body;
        bytes::Writer(body).u8(direction).u8(object).u8(open).u8(kind).u64(size).u16(static_cast<std::uint16_t>(a.size()))
            .u16(static_cast<std::uint16_t>(b.size())).u32(static_cast<std::uint32_t>(block.size())).raw(a).raw(b).raw(block);
        loopbacktest::sendRequest(xcb(), &loopbacktest::fileTransferExtension, 115, body, true, false);
        xcb_flush(xcb());
    }
    void send(std::uint8_t minor, const std::vector<std::uint8_t>& body) {
        loopbacktest::sendRequest(xcb(), &loopbacktest::fileTransferExtension, minor, body, true, false);
        xcb_flush(xcb());
    }

    std::optional<SeenEvent> next() {
        xcb_generic_event_t* ev = xcb_wait_for_event(xcb());
        if (!ev) return std::nullopt;
        const auto* p = reinterpret_cast<const std::uint8_t*>(ev);
        SeenEvent out;
        out.raw.assign(p, p + 36 + 4 * std::size_t{bytes::get32({p, 8}, 4)});
        std::free(ev);
        out.type = bytes::get16(out.raw, 8);
        if (out.type == kTransferRequest) {
            bytes::Reader r(out.raw, 36);
            out.direction = r.u8();
            out.objectType = r.u8();
            out.openFlag = r.u8();
            out.kind = r.u8();
            out.size = r.u64();
            const std::uint16_t a = r.u16(), b = r.u16();
            const std::uint32_t d = r.u32();
            out.nameA = r.text(a);
            out.nameB = r.text(b);
            out.data = r.text(d);
            EXPECT_TRUE(r.ok());
        }
        return out;
    }

private:
    TempDir dir_;
    std::unique_ptr<XServer> server_;
    std::unique_ptr<Desktop> desktop_;
    std::thread thread_;
    loopbacktest::Connection client_;
    std::mutex mutex_;
    std::string log_;
};

std::string pattern(std::size_t n) {
    std::string s(n, '\0');
    for (std::size_t i = 0; i < n; ++i) s[i] = static_cast<char>((i * 31 + i / 251) & 0xFF);
    return s;
}

}  // namespace

TEST(DesktopFlows, GetSendsChunksAndMissingFileAborts) {
    DesktopOptions options;
    options.chunkSize = 131072;
    Harness h(options);
    const std::string content = pattern(2 * 131072 + 37);
    testsupport::writeFile(h.desktopFolder() / "report.bin", content);

    h.reply(2, 1, 0, 10, 0, "report.bin", "/tmp/report.bin");
    std::string received;
    std::size_t chunks = 0;
    for (;;) {
        auto e = h.next();
        ASSERT_TRUE(e);
        ASSERT_EQ(e->type, kTransferRequest);
        EXPECT_EQ(e->direction, 2);
        EXPECT_EQ(e->nameA, "report.bin");
        EXPECT_EQ(e->nameB, "/tmp/report.bin");
        if (e->kind == 8) break;
        ASSERT_EQ(e->kind, 4);
        EXPECT_LE(e->data.size(), 131072u);
        received += e->data;
        ++chunks;
        h.reply(2, 1, 0, 5, e->size, "report.bin", "/tmp/report.bin");
    }
    EXPECT_EQ(chunks, 3u);
    EXPECT_EQ(received, content);

    h.reply(2, 1, 0, 10, 0, "nothing.here", "/tmp/x");
    auto e = h.next();
    ASSERT_TRUE(e);
    EXPECT_EQ(e->kind, 7);
    EXPECT_EQ(e->nameA, "nothing.here");
    h.finish();
    EXPECT_EQ(h.desktop().lastOutcome(), "missing");
    EXPECT_NE(h.log().find("sent report.bin (262181 bytes in 3 chunks)"), std::string::npos) << h.log();
}

TEST(DesktopFlows, PutStoresUnderTheLocalBaseName) {
    Harness h;
    h.reply(1, 0, 1, 10, 11, "?", "/home/u/notes.txt");
    for (const std::string_view piece : {std::string_view("hello "), std::string_view("world"), std::string_view()}) {
        auto e = h.next();
        ASSERT_TRUE(e);
        EXPECT_EQ(e->kind, 5);
        EXPECT_EQ(e->openFlag, 1);
        EXPECT_EQ(e->nameA, "?");
        EXPECT_EQ(e->nameB, "/home/u/notes.txt");
        if (piece.empty()) h.reply(1, 0, 1, 8, 11, "?", "/home/u/notes.txt");
        else h.reply(1, 0, 1, 4, 11, "?", "/home/u/notes.txt", piece);
    }
    h.finish();
    EXPECT_EQ(testsupport::readFile(h.desktopFolder() / "notes.txt"), "hello world");
    EXPECT_NE(h.log().find("opened notes.txt (11 bytes)"), std::string::npos) << h.log();
}

TEST(DesktopFlows, DirectoriesTravelAsZip) {
    Harness h;
    // -putd: an Info-ZIP archive in small chunks, unpacked under the remote name.
    const fs::path src = h.folder() / "src";
    fs::create_directories(src / "inner");
    testsupport::writeFile(src / "inner" / "a.txt", "alpha");
    testsupport::writeFile(src / "b.bin", pattern(5000));
    ASSERT_EQ(std::system(("cd " + src.string() + " && zip -qr ../src.zip .").c_str()), 0);
    const std::string zip = testsupport::readFile(h.folder() / "src.zip");
    h.reply(1, 6, 0, 10, 0, "project", src.string());
    for (std::size_t at = 0;; at += 1000) {
        auto e = h.next();
        ASSERT_TRUE(e);
        ASSERT_EQ(e->kind, 5);
        if (at >= zip.size()) {
            h.reply(1, 6, 0, 8, 0, "project", src.string());
            break;
        }
        h.reply(1, 6, 0, 4, 0, "project", src.string(), std::string_view(zip).substr(at, 1000));
    }
    // -getd of what arrived: the zip comes back in kind-4 events and unpacks to the same tree.
    const fs::path back = h.folder() / "back";
    h.reply(2, 6, 0, 10, 0, "project", back.string());
    std::string received;
    for (;;) {
        auto e = h.next();
        ASSERT_TRUE(e);
        if (e->kind == 8) break;
        ASSERT_EQ(e->kind, 4);
        received += e->data;
        h.reply(2, 6, 0, 5, 0, "project", back.string());
    }
    h.finish();
    EXPECT_EQ(testsupport::readFile(h.desktopFolder() / "project" / "inner" / "a.txt"), "alpha");
    EXPECT_EQ(testsupport::readFile(h.desktopFolder() / "project" / "b.bin"), pattern(5000));
    testsupport::writeFile(h.folder() / "back.zip", received);
    fs::create_directories(back);
    ASSERT_EQ(std::system(("bsdtar -xf " + (h.folder() / "back.zip").string() + " -C " + back.string()).c_str()), 0);
    EXPECT_EQ(testsupport::readFile(back / "inner" / "a.txt"), "alpha");
    EXPECT_EQ(testsupport::readFile(back / "b.bin"), pattern(5000));
}

TEST(DesktopFlows, RefusalAnswersTheAnnounce) {
    DesktopOptions options;
    options.refusal = 16;
    Harness h(options);
    h.reply(2, 1, 0, 10, 0, "a", "/tmp/a");
    auto e = h.next();
    ASSERT_TRUE(e);
    EXPECT_EQ(e->kind, 16);
    EXPECT_EQ(e->nameB, "/tmp/a");
}

TEST(DesktopFlows, PrintKeepsAcceptedFilesAndReportsRejections) {
    for (const int value : {0, 2}) {
        const auto code = static_cast<std::uint8_t>(value);
        DesktopOptions options;
        options.printCode = code;
        options.printReason = code ? "queue full" : "";
        Harness h(options);
        auto print = [&](std::uint8_t minor, std::vector<std::uint8_t> body) {
            const unsigned seq = loopbacktest::sendRequest(h.xcb(), &loopbacktest::printExtension, minor, body, false, true);
            xcb_generic_error_t* error = nullptr;
            auto* reply = static_cast<std::uint8_t*>(xcb_wait_for_reply(h.xcb(), seq, &error));
            EXPECT_TRUE(reply);
            EXPECT_FALSE(error);
            std::string out;
            if (reply) {
                out = std::to_string(reply[1]) + ":" +
                      std::string(reinterpret_cast<char*>(reply) + 32, bytes::get32({reply, 12}, 8));
            }
            std::free(reply);
            std::free(error);
            return out;
        };
        std::vector<std::uint8_t> begin, more;
        bytes::Writer(begin).u8(1).u8(0).u16(9).u32(3).raw("dir/a.txt").raw("hel");
        bytes::Writer(more).u8(0).zeros(3).u32(2).raw("lo");
        const std::string expected = code ? "2:queue full" : "0:";
        EXPECT_EQ(print(1, begin), expected);
        EXPECT_EQ(print(2, more), expected);
        h.finish();
        const fs::path printed = h.desktopFolder() / "print" / "a.txt";
        if (code == 0) EXPECT_EQ(testsupport::readFile(printed), "hello");
        else EXPECT_FALSE(fs::exists(printed));
    }
}

TEST(DesktopFlows, ScriptedSessionAfterTheSessionStart) {
    DesktopOptions options;
    options.script = {"list /tmp", "delete /tmp/x", "close"};
    Harness h(options);
    h.reply(1, 1, 0, 9, 0, "host1", "me", std::string_view("Root (/)\0", 9));

    auto list = h.next();
    ASSERT_TRUE(list);
    ASSERT_EQ(list->type, kListDirectoryRequest);
    EXPECT_EQ(std::string(list->raw.begin() + 40, list->raw.begin() + 44), "/tmp");
    auto item = [&](std::uint8_t type, std::uint64_t size, std::string_view name) {
        std::vector<std::uint8_t> body;
        bytes::Writer(body).u32(static_cast<std::uint32_t>(name.size())).u64(size).u8(type).zeros(7).raw(name);
        h.send(116, body);
    };
    item(2, 0, "/tmp");
    item('t', 5, "1700000000_a.txt");
    item(0, 0, "");

    auto del = h.next();
    ASSERT_TRUE(del);
    ASSERT_EQ(del->type, kDeleteFileRequest);
    std::vector<std::uint8_t> status;
    bytes::Writer(status).u8(3).u8(0).u16(0).u32(6).u32(0).raw("/tmp/x");
    h.send(119, status);

    auto close = h.next();
    ASSERT_TRUE(close);
    EXPECT_EQ(close->kind, 13);
    h.finish();
    ASSERT_TRUE(h.desktop().sessionStart());
    EXPECT_EQ(h.desktop().sessionStart()->host, "host1");
    EXPECT_EQ(h.desktop().sessionStart()->drives, std::vector<std::string>{"Root (/)"});
    const std::string log = h.log();
    EXPECT_NE(log.find("text 5 1700000000_a.txt"), std::string::npos) << log;
    EXPECT_NE(log.find("status for request kind 3: success (/tmp/x)"), std::string::npos) << log;
}

// A second client that speaks while the first one's transfer runs waits for its turn and is
// then served; the first one's events never reach it.
TEST(DesktopFlows, ClientsAreServedOneAfterTheOther) {
    Harness h({}, 2);
    testsupport::writeFile(h.desktopFolder() / "one.txt", "first");
    h.reply(2, 1, 0, 10, 0, "one.txt", "/tmp/one.txt");
    auto data = h.next();
    ASSERT_TRUE(data);
    ASSERT_EQ(data->kind, 4);

    // Meanwhile a print job from another connection; its answer comes once the first is done.
    auto other = loopbacktest::connect(h.displayName());
    ASSERT_EQ(xcb_connection_has_error(other.get()), 0);
    std::vector<std::uint8_t> begin;
    bytes::Writer(begin).u8(0).u8(0).u16(5).u32(2).raw("p.txt").raw("ok");
    const unsigned seq = loopbacktest::sendRequest(other.get(), &loopbacktest::printExtension, 1, begin, false, true);
    xcb_flush(other.get());

    h.reply(2, 1, 0, 5, 5, "one.txt", "/tmp/one.txt");
    auto end = h.next();
    ASSERT_TRUE(end);
    EXPECT_EQ(end->kind, 8);
    h.disconnect();  // the first client leaves; the print job gets its turn

    xcb_generic_error_t* error = nullptr;
    auto* reply = static_cast<std::uint8_t*>(xcb_wait_for_reply(other.get(), seq, &error));
    ASSERT_TRUE(reply);
    EXPECT_EQ(reply[1], 0);
    std::free(reply);
    std::free(error);
    EXPECT_EQ(xcb_poll_for_event(other.get()), nullptr);  // no event of the first client's
    other.reset();
    h.finish();
    EXPECT_EQ(testsupport::readFile(h.desktopFolder() / "print" / "p.txt"), "ok");
    EXPECT_NE(h.log().find("client 2 waits until client 1 is done"), std::string::npos) << h.log();
}

TEST(DesktopFlows, StartEventBeforeTheDataWhenAsked) {
    DesktopOptions options;
    options.sendStart = true;
    Harness h(options);
    testsupport::writeFile(h.desktopFolder() / "f.txt", "data");
    h.reply(2, 1, 0, 10, 0, "f.txt", "/tmp/f.txt");
    std::vector<std::uint8_t> kinds;
    for (;;) {
        auto e = h.next();
        ASSERT_TRUE(e);
        kinds.push_back(e->kind);
        if (e->kind == 0) h.reply(2, 1, 0, 1, 0, "f.txt", "/tmp/f.txt");       // exists
        else if (e->kind == 2) h.reply(2, 1, 0, 3, 0, "f.txt", "/tmp/f.txt");  // opened
        else if (e->kind == 4) h.reply(2, 1, 0, 5, 0, "f.txt", "/tmp/f.txt");
        else break;
    }
    EXPECT_EQ(kinds, (std::vector<std::uint8_t>{0, 2, 4, 8}));
}
