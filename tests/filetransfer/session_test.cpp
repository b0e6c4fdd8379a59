// Sessions the far side drives (no transfer option): the start report, fetching and
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

std::string hostName() {
    char buffer[256] = {};
    ::gethostname(buffer, sizeof buffer - 1);
    return buffer;
}

// A session started and its start message taken.
class Session : public ::testing::Test {
protected:
    void SetUp() override { FAR_SIDE_OR_SKIP(far); }
    void begin(std::vector<std::string> args = {"-v"}) {
        ASSERT_TRUE(far.start(std::move(args)));
        start = far.nextReply();
        ASSERT_TRUE(start);
        ASSERT_EQ(start->kind, 9);
    }
    FarSide far;
    std::optional<Reply> start;
    testsupport::TempDir dir;
};

Event event(std::uint8_t direction, std::uint8_t objectType, std::uint8_t kind, std::string b = {},
            std::string a = "desk.txt") {
    return Event{direction, objectType, 0, kind, 0, std::move(a), std::move(b), {}};
}

TEST_F(Session, StartReportsHostUserAndTheRootDrive) {
    begin({"-vv"});
    EXPECT_EQ(fieldsOf(*start), Fields(1, 1, 0, 9, 0, hostName(), "tester"));
    EXPECT_EQ(start->block, bytesOf(std::string_view("Root (/)\0", 9)));
    const auto result = far.close();
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_TRUE(contains(result.err, "Sending request to Proxy/Desktop to start file transfer process.\n"
                                     "UserProfile = /home/tester\nHidden drives value = 0\nDrive = Root (/)\n"
                                     "UserHomeDir = /home/tester/Documents\nUSERNAME = tester\n"
                                     "HOSTNAME = " + hostName() + "\nSending file transfer reply.\n"))
        << result.err;
}

// Copies (object type 1) keep their file, moves (2) remove it when the fetch ends; completion
// gets no reply.
TEST_F(Session, FetchSendsTheSizeThenTheChunks) {
    begin();
    const std::pair<std::size_t, std::uint8_t> cases[] = {{0, 1}, {131072, 1}, {2 * 131072 + 5, 1}, {8, 2}};
    for (const auto& [size, objectType] : cases) {
        SCOPED_TRACE(size);
        const Bytes content = pattern(size, 11);
        const std::string file = (dir / ("f" + std::to_string(size))).string();
        testsupport::writeFile(file, std::string(content.begin(), content.end()));
        const Reply opened = far.ask(event(1, objectType, 0, file), 3);
        EXPECT_EQ(fieldsOf(opened), Fields(1, objectType, 0, 3, size, "desk.txt", file));
        EXPECT_EQ(far.pull(opened), content);
        far.send(event(1, objectType, 8, file));
        EXPECT_TRUE(far.quiet());
        EXPECT_EQ(fs::exists(file), objectType == 1);
    }
    EXPECT_EQ(far.close().exitCode, 0);
}

TEST_F(Session, FetchOfAMissingFileAndStoreIntoAMissingDirectoryAreFailedStatuses) {
    begin();
    const std::string missing = (dir / "missing.txt").string(), target = (dir / "no" / "such" / "f").string();
    for (const auto& [direction, path] : {std::pair{1, missing}, std::pair{2, target}}) {
        far.send(event(static_cast<std::uint8_t>(direction), 1, 0, path));
        const auto status = far.nextStatus();
        ASSERT_TRUE(status);
        EXPECT_EQ(std::tie(status->requestKind, status->status, status->reserved, status->path),
                  std::make_tuple(std::uint8_t(direction - 1), std::uint8_t{1}, std::uint16_t{0}, path));
        EXPECT_EQ(status->error, "No such file or directory");
        EXPECT_EQ(status->wireSize, (16 + path.size() + status->error.size() + 3) / 4 * 4);
    }
    EXPECT_TRUE(contains(far.close().err, "Sending failed file transfer status, error : No such file or directory\n"));
}

// An abort removes the source of a move and keeps a copied file; the aborted transfer is
// gone afterwards, so a request for data finds nothing.
TEST_F(Session, AbortEndsTheTransfer) {
    begin();
    for (const std::uint8_t objectType : {std::uint8_t{3}, std::uint8_t{1}}) {
        const std::string file = (dir / ("f" + std::to_string(objectType))).string();
        testsupport::writeFile(file, "abc");
        far.ask(event(1, objectType, 0, file), 3);
        far.send(event(1, objectType, 7, file));
        EXPECT_TRUE(far.quiet());
        EXPECT_EQ(fs::exists(file), objectType == 1);
        far.ask(event(1, 1, 5, file), 6);
    }
    EXPECT_EQ(far.close().exitCode, 0);
}

// An existing file is replaced on kind 2 only, and only when the new one arrived whole (an
// abort after the data leaves the old one); a new one opens at once. A finished transfer no
// longer takes data, and nothing is left beside the files.
TEST_F(Session, StoreWithAndWithoutAnExistingFile) {
    begin();
    for (const auto& [existing, abort] : {std::pair{true, true}, std::pair{true, false}, std::pair{false, false}}) {
        SCOPED_TRACE(testing::Message() << existing << abort);
        const std::string file = (dir / (existing ? "old" : "new")).string();
        if (existing) {
            testsupport::writeFile(file, "old");
            far.ask(event(2, 1, 0, file), 1);
            EXPECT_EQ(testsupport::readFile(file), "old");
        }
        const Reply opened = far.ask(event(2, 1, existing ? 2 : 0, file), 3);
        EXPECT_EQ(fieldsOf(opened), Fields(2, 1, 0, 3, 0, "desk.txt", file));
        const Bytes content = existing ? bytesOf("new") : pattern(300000, 5);
        Event chunk = event(2, 1, 4, file);
        chunk.size = content.size();
        far.push(chunk, content);
        EXPECT_EQ(testsupport::readFile(file), existing ? "old" : "");
        far.send(event(2, 1, abort ? 7 : 8, file));
        EXPECT_TRUE(far.quiet());
        EXPECT_EQ(bytesOf(testsupport::readFile(file)), abort ? bytesOf("old") : content);
        far.ask(event(2, 1, 4, file), 6);
    }
    EXPECT_EQ(testsupport::namesIn(dir.path()), (std::vector<std::string>{"new", "old"}));
    EXPECT_EQ(far.close().exitCode, 0);
}

TEST_F(Session, EventsOutOfOrderGetTheirFixedAnswersAndNamesAreKept) {
    begin({"-v"});
    EXPECT_EQ(far.ask(event(2, 1, 4, "/x"), 6).nameB, "/x");
    far.ask(event(1, 1, 5, "/x"), 6);
    for (int k : {1, 3, 6, 9, 12, 18, 255}) {
        SCOPED_TRACE(k);
        EXPECT_TRUE(far.ask(event(1, 1, static_cast<std::uint8_t>(k), "/x"), 4).block.empty());
    }
    // An unknown kind also ends a transfer in progress.
    const std::string file = (dir / "f").string();
    testsupport::writeFile(file, "data");
    far.ask(event(1, 1, 0, file), 3);
    EXPECT_TRUE(far.ask(event(1, 1, 11, file), 8).block.empty());
    far.ask(event(1, 1, 5, file), 6);
    // Names of length 0 or above 1023 are not taken: the earlier ones stay.
    testsupport::writeFile(file, "abc");
    far.ask(event(1, 1, 0, file, "first-a"), 3);
    Reply r = far.ask(event(1, 1, 5, "", ""), 4);  // both empty: the earlier names are echoed
    EXPECT_EQ(std::tie(r.nameA, r.nameB, r.block), std::make_tuple("first-a", file, bytesOf("abc")));
    r = far.ask(event(1, 1, 5, file, std::string(1024, 'z')), 8);  // name B behind it is taken
    EXPECT_EQ(std::tie(r.nameA, r.nameB), std::make_tuple("first-a", file));
    r = far.ask(event(1, 1, 9, "/other", std::string(1023, 'y')), 4);
    EXPECT_EQ(std::tie(r.nameA, r.nameB), std::make_tuple(std::string(1023, 'y'), "/other"));
    EXPECT_EQ(r.wireSize, (24 + 1023 + 6 + 3) / 4 * 4);
    const auto result = far.close();
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_TRUE(contains(result.err, "gev->event_type = 90\nReading file transfer request.\nSending file transfer reply.\n"))
        << result.err;
}

// Events of other types or extensions, and events whose lengths lie, are dropped; the loop
// goes on and nothing of them reaches the file.
TEST_F(Session, EventsThatLieAreDroppedAndTheLoopGoesOn) {
    begin({"-v"});
    const std::string file = (dir / "target").string();
    far.ask(event(2, 1, 0, file), 3);
    Event chunk = event(2, 1, 4, file);
    chunk.data = bytesOf("abcd");
    Bytes otherExtension = {35, 99, 0, 0, 0, 0, 0, 0, 90, 0};  // a generic event of another extension
    otherExtension.resize(32);
    EXPECT_TRUE(far.server().sendRaw(otherExtension));
    EXPECT_TRUE(far.sendPayload(92, loopback::encodeTransferEvent(chunk)));
    Bytes longData = loopback::encodeTransferEvent(chunk), longName = longData;
    bytes::put32(longData, 16, 1u << 20);
    bytes::put16(longName, 12, 900);
    for (const Bytes& lie : {longData, longName, Bytes{2, 1, 0, 4, 0, 0, 0, 0}, Bytes{}})
        EXPECT_TRUE(far.sendPayload(90, lie));
    EXPECT_TRUE(far.quiet());
    far.ask(chunk, 5);
    far.send(event(2, 1, 8, file));
    EXPECT_TRUE(far.quiet());
    EXPECT_EQ(testsupport::readFile(file), "abcd");
    const auto result = far.close();
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_TRUE(contains(result.err, "gev->event_type = 92\n"));
    EXPECT_TRUE(contains(result.err, "Skipping gev->extension = 99.\n"));
    std::size_t drops = 0;
    for (auto at = result.err.find("Dropping event of type 90"); at != std::string::npos;
         at = result.err.find("Dropping event of type 90", at + 1))
        ++drops;
    EXPECT_EQ(drops, 4u) << result.err;
}

}  // namespace
