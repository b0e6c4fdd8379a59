// Sessions the far side drives (no transfer option): the environment report, fetching and
// storing files, the replies to out-of-order events, refusals and events that lie.
#include <gtest/gtest.h>

#include <filesystem>

#include <unistd.h>

#include "common/bytes.h"
#include "far_side.h"
#include "support/temp_dir.h"

namespace {

using namespace fttest;
namespace fs = std::filesystem;

bool endsWith(const std::string& text, const std::string& tail) {
    return text.size() >= tail.size() && text.compare(text.size() - tail.size(), tail.size(), tail) == 0;
}
bool contains(const std::string& text, const std::string& part) { return text.find(part) != std::string::npos; }

std::string hostName() {
    char buffer[256] = {};
    ::gethostname(buffer, sizeof buffer - 1);
    return buffer;
}

// A session started and its start message taken.
class Session : public ::testing::Test {
protected:
    void begin(std::vector<std::string> args = {"-v"}, std::map<std::string, std::optional<std::string>> env = {}) {
        if (!far.ok()) GTEST_SKIP() << "no loopback server: " << far.error();
        ASSERT_TRUE(far.start(std::move(args), std::nullopt, std::move(env)));
        start = far.nextReply();
        ASSERT_TRUE(start);
        ASSERT_EQ(start->kind, 9);
    }
    // Ends the session the way the proxy does: by closing the connection.
    testsupport::RunResult end() {
        far.server().closeClient();
        return far.finish();
    }
    Reply expectReply(const Event& e, std::uint8_t kind) {
        EXPECT_TRUE(far.send(e));
        auto reply = far.nextReply();
        EXPECT_TRUE(reply) << "no reply to kind " << int(e.kind);
        if (!reply) return {};
        EXPECT_EQ(reply->kind, kind);
        return *reply;
    }

    FarSide far;
    std::optional<Reply> start;
    testsupport::TempDir dir;
};

Event event(std::uint8_t direction, std::uint8_t objectType, std::uint8_t kind, std::string b = {},
            std::string a = "desk.txt") {
    Event e;
    e.direction = direction;
    e.objectType = objectType;
    e.kind = kind;
    e.a = std::move(a);
    e.b = std::move(b);
    return e;
}

// ---- session start ---------------------------------------------------------------------------

TEST_F(Session, StartReportsHostUserAndTheRootDrive) {
    begin({"-vv"});
    EXPECT_EQ(start->direction, 1);
    EXPECT_EQ(start->objectType, 1);
    EXPECT_EQ(start->openFlag, 0);
    EXPECT_EQ(start->size, 0u);
    EXPECT_EQ(start->a, hostName());
    EXPECT_EQ(start->b, "tester");
    EXPECT_EQ(start->c, bytesOf(std::string_view("Root (/)\0", 9)));
    const auto result = end();
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_TRUE(contains(result.err, "Sending request to Proxy/Desktop to start file transfer process.\n"
                                     "UserProfile = /home/tester\n"
                                     "Hidden drives value = 0\n"
                                     "Drive = Root (/)\n"
                                     "UserHomeDir = /home/tester/Documents\n"
                                     "USERNAME = tester\n"
                                     "HOSTNAME = " + hostName() + "\n"
                                     "Sending file transfer reply.\n"))
        << result.err;
}

TEST_F(Session, HomeAndUserFallBackInOrder) {
    struct Case {
        std::map<std::string, std::optional<std::string>> env;
        std::string user;
        std::vector<std::string> lines;  // expected in the -v log
    } cases[] = {
        {{{"USERPROFILE", "/profiles/ann"}, {"USERNAME", "ann"}},
         "ann",
         {"UserProfile = /profiles/ann\n", "UserHomeDir = /profiles/ann/Documents\n", "USERNAME = ann\n"}},
        {{{"HOME", std::nullopt}, {"USER", std::nullopt}},
         "tester",  // LOGNAME
         {"getenv(USERPROFILE) returned NULL\n", "UserHomeDir = /\n"}},
        {{{"HOME", std::nullopt}, {"SystemDrive", "C:"}, {"USER", std::nullopt}, {"LOGNAME", std::nullopt}},
         "",
         {"UserHomeDir = C:\n"}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.user);
        FarSide side;
        if (!side.ok()) GTEST_SKIP() << side.error();
        ASSERT_TRUE(side.start({"-v"}, std::nullopt, c.env));
        const auto reply = side.nextReply();
        ASSERT_TRUE(reply);
        EXPECT_EQ(reply->b, c.user);
        side.server().closeClient();
        const auto result = side.finish();
        for (const auto& line : c.lines) EXPECT_TRUE(contains(result.err, line)) << line << result.err;
        EXPECT_EQ(contains(result.err, "USERNAME ="), !c.user.empty());
    }
}

TEST_F(Session, RunsUntilTheConnectionGoesAway) {
    begin({});
    EXPECT_TRUE(far.quiet(300ms));
    const auto result = end();
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_FALSE(result.timedOut);
}

// ---- fetching local files (direction 1) ------------------------------------------------------

// Fetches name B through kind 0 and kind-5 events; returns the bytes received.
Bytes fetch(Session* s, FarSide& far, const std::string& path, std::uint8_t objectType, std::uint64_t* announced) {
    far.send(event(1, objectType, 0, path));
    const auto opened = far.nextReply();
    EXPECT_TRUE(opened);
    if (!opened) return {};
    EXPECT_EQ(opened->kind, 3);
    EXPECT_EQ(opened->b, path);
    *announced = opened->size;
    Bytes data;
    for (int guard = 0; guard < 1000; ++guard) {
        Event e = event(1, objectType, 5, path);
        e.size = opened->size;
        far.send(e);
        const auto reply = far.nextReply();
        EXPECT_TRUE(reply);
        if (!reply || reply->kind == 8) break;
        EXPECT_EQ(reply->kind, 4);
        EXPECT_LE(reply->c.size(), 131072u);
        data.insert(data.end(), reply->c.begin(), reply->c.end());
    }
    (void)s;
    return data;
}

TEST_F(Session, FetchSendsTheSizeThenTheChunks) {
    begin();
    for (std::size_t size : {std::size_t{0}, std::size_t{131072}, std::size_t{2 * 131072 + 5}}) {
        SCOPED_TRACE(size);
        const Bytes content = pattern(size, 11);
        const fs::path file = dir / ("f" + std::to_string(size));
        testsupport::writeFile(file, std::string(content.begin(), content.end()));
        std::uint64_t announced = 0;
        EXPECT_EQ(fetch(this, far, file.string(), 1, &announced), content);
        EXPECT_EQ(announced, size);
        // Completion gets no reply; the file stays.
        far.send(event(1, 1, 8, file.string()));
        EXPECT_TRUE(far.quiet());
        EXPECT_TRUE(fs::exists(file));
    }
    EXPECT_EQ(end().exitCode, 0);
}

TEST_F(Session, FetchOfAMissingFileIsAFailedStatus) {
    begin();
    const std::string missing = (dir / "missing.txt").string();
    far.send(event(1, 1, 0, missing));
    const auto status = far.nextStatus();
    ASSERT_TRUE(status);
    EXPECT_EQ(status->requestKind, 0);
    EXPECT_EQ(status->failed, 1);
    EXPECT_EQ(status->reserved, 0);
    EXPECT_EQ(status->path, missing);
    EXPECT_EQ(status->error, "No such file or directory");
    EXPECT_EQ(status->wireSize, (16 + missing.size() + status->error.size() + 3) / 4 * 4);
    const auto result = end();
    EXPECT_TRUE(contains(result.err, "Sending failed file transfer status, error : No such file or directory\n"));
}

TEST_F(Session, MovedFilesAreRemovedWhenTheFetchEnds) {
    begin();
    const fs::path file = dir / "moved.txt";
    testsupport::writeFile(file, "contents");
    std::uint64_t announced = 0;
    EXPECT_EQ(fetch(this, far, file.string(), 2, &announced), bytesOf("contents"));
    EXPECT_FALSE(fs::exists(file));
    EXPECT_EQ(end().exitCode, 0);
}

TEST_F(Session, AbortOfAMoveRemovesTheSourceAndOfACopyKeepsIt) {
    begin();
    const fs::path moved = dir / "m", copied = dir / "c";
    testsupport::writeFile(moved, "m");
    testsupport::writeFile(copied, "c");
    expectReply(event(1, 3, 0, moved.string()), 3);
    far.send(event(1, 3, 7, moved.string()));
    EXPECT_TRUE(far.quiet());
    EXPECT_FALSE(fs::exists(moved));
    expectReply(event(1, 1, 0, copied.string()), 3);
    far.send(event(1, 1, 7, copied.string()));
    EXPECT_TRUE(far.quiet());
    EXPECT_TRUE(fs::exists(copied));
    // The aborted transfer is gone: a request for data finds nothing.
    expectReply(event(1, 1, 5), 6);
    EXPECT_EQ(end().exitCode, 0);
}

// ---- storing files locally (direction 2) -----------------------------------------------------

TEST_F(Session, StoreAsksBeforeReplacingAndReplacesOnKindTwo) {
    begin();
    const fs::path file = dir / "stored.txt";
    testsupport::writeFile(file, "old");
    expectReply(event(2, 1, 0, file.string()), 1);
    EXPECT_EQ(testsupport::readFile(file), "old");
    const Reply opened = expectReply(event(2, 1, 2, file.string()), 3);
    EXPECT_EQ(opened.direction, 2);
    EXPECT_EQ(opened.b, file.string());
    Event chunk = event(2, 1, 4, file.string());
    chunk.size = 3;
    chunk.data = bytesOf("new");
    const Reply stored = expectReply(chunk, 5);
    EXPECT_EQ(stored.size, 3u);
    EXPECT_TRUE(stored.c.empty());
    far.send(event(2, 1, 8, file.string()));
    EXPECT_TRUE(far.quiet());
    EXPECT_EQ(testsupport::readFile(file), "new");
    // The finished transfer no longer takes data.
    expectReply(event(2, 1, 4, file.string()), 6);
    EXPECT_EQ(end().exitCode, 0);
}

TEST_F(Session, StoreOfANewFileOpensAtOnce) {
    begin();
    const fs::path file = dir / "new.bin";
    expectReply(event(2, 1, 0, file.string()), 3);
    const Bytes content = pattern(300000, 5);
    for (std::size_t offset = 0; offset < content.size(); offset += 131072) {
        Event chunk = event(2, 1, 4, file.string());
        const std::size_t n = std::min<std::size_t>(131072, content.size() - offset);
        chunk.data.assign(content.begin() + static_cast<std::ptrdiff_t>(offset),
                          content.begin() + static_cast<std::ptrdiff_t>(offset + n));
        expectReply(chunk, 5);
    }
    far.send(event(2, 1, 8, file.string()));
    EXPECT_TRUE(far.quiet());
    EXPECT_EQ(bytesOf(testsupport::readFile(file)), content);
    EXPECT_EQ(end().exitCode, 0);
}

TEST_F(Session, StoreIntoAMissingDirectoryIsAFailedStatus) {
    begin();
    const std::string target = (dir / "no" / "such" / "f").string();
    far.send(event(2, 1, 0, target));
    const auto status = far.nextStatus();
    ASSERT_TRUE(status);
    EXPECT_EQ(status->requestKind, 1);
    EXPECT_EQ(status->failed, 1);
    EXPECT_EQ(status->path, target);
    EXPECT_EQ(status->error, "No such file or directory");
    EXPECT_EQ(end().exitCode, 0);
}

TEST_F(Session, AbortOfAStoreRemovesThePartialFile) {
    begin();
    const fs::path file = dir / "partial";
    expectReply(event(2, 1, 0, file.string()), 3);
    Event chunk = event(2, 1, 4, file.string());
    chunk.data = pattern(100);
    expectReply(chunk, 5);
    far.send(event(2, 1, 7, file.string()));
    EXPECT_TRUE(far.quiet());
    EXPECT_FALSE(fs::exists(file));
    EXPECT_EQ(end().exitCode, 0);
}

// ---- events out of order, names, unknown kinds -----------------------------------------------

TEST_F(Session, EventsWithoutATransferGetTheirFixedAnswers) {
    begin({"-v"});
    const Reply chunk = expectReply(event(2, 1, 4, "/x"), 6);
    EXPECT_EQ(chunk.b, "/x");
    expectReply(event(1, 1, 5, "/x"), 6);
    for (int k : {1, 3, 6, 9, 12, 18, 255}) {
        const auto kind = static_cast<std::uint8_t>(k);
        SCOPED_TRACE(k);
        const Reply r = expectReply(event(1, 1, kind, "/x"), 4);
        EXPECT_TRUE(r.c.empty());
    }
    const auto result = end();
    EXPECT_EQ(result.exitCode, 0);
    // Each exchange is traced at -v.
    EXPECT_TRUE(contains(result.err, "gev->event_type = 90\nReading file transfer request.\nSending file transfer reply.\n"))
        << result.err;
}

TEST_F(Session, AnUnknownKindEndsATransferInProgress) {
    begin();
    const fs::path file = dir / "f";
    testsupport::writeFile(file, "data");
    expectReply(event(1, 1, 0, file.string()), 3);
    const Reply r = expectReply(event(1, 1, 11, file.string()), 8);
    EXPECT_TRUE(r.c.empty());
    expectReply(event(1, 1, 5, file.string()), 6);
    EXPECT_EQ(end().exitCode, 0);
}

TEST_F(Session, NamesOfLengthZeroOrAbove1023KeepTheEarlierOnes) {
    begin();
    const fs::path file = dir / "named";
    testsupport::writeFile(file, "abc");
    expectReply(event(1, 1, 0, file.string(), "first-a"), 3);
    // Both names empty: the replies echo the earlier ones.
    Reply r = expectReply(event(1, 1, 5, "", ""), 4);
    EXPECT_EQ(r.a, "first-a");
    EXPECT_EQ(r.b, file.string());
    EXPECT_EQ(r.c, bytesOf("abc"));
    // A 1024-byte name A is not taken either, and name B behind it still is.
    Event e = event(1, 1, 5, file.string(), std::string(1024, 'z'));
    r = expectReply(e, 8);
    EXPECT_EQ(r.a, "first-a");
    EXPECT_EQ(r.b, file.string());
    // 1023 bytes are taken.
    r = expectReply(event(1, 1, 9, "/other", std::string(1023, 'y')), 4);
    EXPECT_EQ(r.a, std::string(1023, 'y'));
    EXPECT_EQ(r.b, "/other");
    EXPECT_EQ(r.wireSize, (24 + 1023 + 6 + 3) / 4 * 4);
    EXPECT_EQ(end().exitCode, 0);
}

// ---- ends of the session ---------------------------------------------------------------------

TEST_F(Session, KindThirteenClosesTheSession) {
    begin();
    Event e;
    e.kind = 13;
    far.send(e);
    EXPECT_TRUE(far.quiet());
    const auto result = far.finish();
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_TRUE(endsWith(result.err, "File Transfer session was closed.\n"));
}

TEST_F(Session, RefusalsEndTheSessionAndLeaveLocalFilesAlone) {
    begin();
    const fs::path file = dir / "open-for-sending";
    testsupport::writeFile(file, "x");
    expectReply(event(1, 1, 0, file.string()), 3);
    Event e;
    e.kind = 16;
    far.send(e);
    const auto result = far.finish();
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_TRUE(endsWith(result.err,
                         "Failed, because the session is suspended. Please resume the session and try again.\n"));
    EXPECT_TRUE(fs::exists(file));
}

// ---- events that are not served, or that lie -------------------------------------------------

TEST_F(Session, EventsOfOtherTypesAndExtensionsAreDropped) {
    begin({"-v"});
    EXPECT_TRUE(far.sendPayload(92, transferPayload(event(1, 1, 5, "/x"))));
    EXPECT_TRUE(far.quiet());
    // A generic event of another extension, same event type.
    Bytes other(32, 0);
    other[0] = 35;
    other[1] = 99;
    bytes::put16(other, 8, 90);
    EXPECT_TRUE(far.server().sendRaw(other));
    EXPECT_TRUE(far.quiet());
    // The loop is still serving.
    expectReply(event(1, 1, 5, "/x"), 6);
    const auto result = end();
    EXPECT_TRUE(contains(result.err, "gev->event_type = 92\n"));
    EXPECT_TRUE(contains(result.err, "Skipping gev->extension = 99.\n"));
}

TEST_F(Session, EventsWhoseLengthsLieAreDroppedAndTheLoopGoesOn) {
    begin({"-v"});
    const fs::path file = dir / "target";
    expectReply(event(2, 1, 0, file.string()), 3);

    Event chunk = event(2, 1, 4, file.string());
    chunk.data = bytesOf("abcd");
    // Data longer than the event.
    EXPECT_TRUE(far.sendPayload(90, transferPayload(chunk, {}, {}, 1u << 20)));
    EXPECT_TRUE(far.quiet());
    // A name longer than the event.
    EXPECT_TRUE(far.sendPayload(90, transferPayload(chunk, std::uint16_t{900})));
    EXPECT_TRUE(far.quiet());
    // Too short for the fixed fields.
    EXPECT_TRUE(far.sendPayload(90, Bytes{2, 1, 0, 4, 0, 0, 0, 0}));
    EXPECT_TRUE(far.quiet());
    EXPECT_TRUE(far.sendPayload(90, Bytes{}));
    EXPECT_TRUE(far.quiet());

    // Nothing of them reached the file; the transfer still works.
    expectReply(chunk, 5);
    far.send(event(2, 1, 8, file.string()));
    EXPECT_TRUE(far.quiet());
    EXPECT_EQ(testsupport::readFile(file), "abcd");
    const auto result = end();
    EXPECT_EQ(result.exitCode, 0);
    std::size_t drops = 0;
    for (auto at = result.err.find("Dropping event of type 90"); at != std::string::npos;
         at = result.err.find("Dropping event of type 90", at + 1))
        ++drops;
    EXPECT_EQ(drops, 4u) << result.err;
}

}  // namespace
