// Directories received as ZIP streams, from a session the far side drives and from -getd: the
// tree that arrives is compared with the tree that was packed.
#include <gtest/gtest.h>

#include <filesystem>

#include "archive/archive_support.h"
#include "far_side.h"
#include "support/temp_dir.h"

namespace {

using namespace fttest;
namespace fs = std::filesystem;

bool endsWith(const std::string& text, const std::string& tail) {
    return text.size() >= tail.size() && text.compare(text.size() - tail.size(), tail.size(), tail) == 0;
}

// A sample tree and its archive, made by the zip tool.
class DirectoryReceive : public ::testing::Test {
protected:
    void SetUp() override {
        if (!far.ok()) GTEST_SKIP() << "no loopback server: " << far.error();
        if (!archivetest::haveTool("zip")) GTEST_SKIP() << "zip is not installed";
        archivetest::makeSampleTree(dir / "source");
        ASSERT_EQ(archivetest::shell("zip -q -r -X ../source.zip .", (dir / "source").string()), 0);
        archive = archivetest::readBytes(dir / "source.zip");
    }

    // Sends the archive as kind-4 events, each answered by kind 5.
    void push(const Bytes& data, const std::string& b, std::string a = "desk") {
        for (std::size_t offset = 0; offset < data.size(); offset += 131072) {
            const std::size_t n = std::min<std::size_t>(131072, data.size() - offset);
            Event e;
            e.direction = 2;
            e.objectType = 6;
            e.kind = 4;
            e.a = a;
            e.b = b;
            e.data.assign(data.begin() + static_cast<std::ptrdiff_t>(offset),
                          data.begin() + static_cast<std::ptrdiff_t>(offset + n));
            ASSERT_TRUE(far.send(e));
            const auto reply = far.nextReply();
            ASSERT_TRUE(reply);
            EXPECT_EQ(reply->kind, 5);
            EXPECT_EQ(reply->objectType, 6);
            EXPECT_TRUE(reply->c.empty());
        }
    }
    bool send(std::uint8_t kind, const std::string& b) {
        Event e;
        e.direction = 2;
        e.objectType = 6;
        e.kind = kind;
        e.a = "desk";
        e.b = b;
        return far.send(e);
    }
    void startSession() {
        ASSERT_TRUE(far.start({"-v"}));
        const auto start = far.nextReply();
        ASSERT_TRUE(start);
        ASSERT_EQ(start->kind, 9);
    }

    FarSide far;
    testsupport::TempDir dir;
    Bytes archive;
};

TEST_F(DirectoryReceive, SessionStoreUnpacksTheTreeAndReportsSuccess) {
    startSession();
    const std::string b = (dir / "copy.zip").string();
    send(0, b);
    const auto opened = far.nextReply();
    ASSERT_TRUE(opened);
    EXPECT_EQ(opened->kind, 3);
    EXPECT_TRUE(fs::is_directory(dir / "copy"));
    push(archive, b);
    send(8, b);
    const auto status = far.nextStatus();
    ASSERT_TRUE(status);
    EXPECT_EQ(status->requestKind, 1);
    EXPECT_EQ(status->failed, 0);
    EXPECT_EQ(status->path, (dir / "copy").string());
    EXPECT_TRUE(status->error.empty());
    EXPECT_EQ(archivetest::imageOf(dir / "copy"), archivetest::imageOf(dir / "source"));

    // The stream is ready for a second directory in the same session.
    const std::string again = (dir / "again.zip").string();
    send(0, again);
    ASSERT_TRUE(far.nextReply());
    push(archive, again);
    send(8, again);
    const auto second = far.nextStatus();
    ASSERT_TRUE(second);
    EXPECT_EQ(second->failed, 0);
    EXPECT_EQ(archivetest::imageOf(dir / "again"), archivetest::imageOf(dir / "source"));

    far.server().closeClient();
    const auto result = far.finish();
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_NE(result.err.find("Sending suceess file transfer status\n"), std::string::npos);
}

TEST_F(DirectoryReceive, AnExistingDirectoryIsReplacedOnlyOnKindTwo) {
    startSession();
    fs::create_directories(dir / "old" / "sub");
    testsupport::writeFile(dir / "old" / "sub" / "stale.txt", "stale");
    const std::string b = (dir / "old.zip").string();
    send(0, b);
    auto reply = far.nextReply();
    ASSERT_TRUE(reply);
    EXPECT_EQ(reply->kind, 1);
    EXPECT_TRUE(fs::exists(dir / "old" / "sub" / "stale.txt"));
    send(2, b);
    reply = far.nextReply();
    ASSERT_TRUE(reply);
    EXPECT_EQ(reply->kind, 3);
    EXPECT_FALSE(fs::exists(dir / "old" / "sub"));
    push(archive, b);
    send(8, b);
    const auto status = far.nextStatus();
    ASSERT_TRUE(status);
    EXPECT_EQ(status->failed, 0);
    EXPECT_EQ(archivetest::imageOf(dir / "old"), archivetest::imageOf(dir / "source"));
}

TEST_F(DirectoryReceive, AnArchiveCutShortIsAFailure) {
    startSession();
    const std::string b = (dir / "cut.zip").string();
    send(0, b);
    ASSERT_TRUE(far.nextReply());
    push(Bytes(archive.begin(), archive.begin() + static_cast<std::ptrdiff_t>(archive.size() / 2)), b);
    send(8, b);
    const auto status = far.nextStatus();
    ASSERT_TRUE(status);
    EXPECT_EQ(status->requestKind, 1);
    EXPECT_EQ(status->failed, 1);
    EXPECT_EQ(status->path, (dir / "cut").string());
}

TEST_F(DirectoryReceive, NamesWithoutSeparatorOrZipEndingGetNoAnswer) {
    startSession();
    send(0, "pics.zip");
    EXPECT_TRUE(far.quiet());
    send(0, (dir / "pics").string());
    EXPECT_TRUE(far.quiet());
    EXPECT_FALSE(fs::exists(dir / "pics"));
    // The first ".zip" ends the directory name.
    send(0, (dir / "a.zip" / "b.zip").string());
    const auto reply = far.nextReply();
    ASSERT_TRUE(reply);
    EXPECT_EQ(reply->kind, 3);
    EXPECT_TRUE(fs::is_directory(dir / "a"));
}

TEST_F(DirectoryReceive, ReplacingWithoutAStartTouchesNothing) {
    // Kind 2 before any kind 0: the directory path is still empty, and an empty path is never
    // handed to the tree removal, so nothing around the process is deleted.
    far.setWorkingDirectory(dir.str());
    startSession();
    send(2, (dir / "x.zip").string());
    const auto status = far.nextStatus();
    ASSERT_TRUE(status);
    EXPECT_EQ(status->requestKind, 1);
    EXPECT_EQ(status->failed, 1);
    EXPECT_EQ(status->path, "");
    EXPECT_TRUE(fs::exists(dir / "source.zip"));
    EXPECT_TRUE(fs::exists(dir / "source" / "readme.txt"));
    far.server().closeClient();
    const auto result = far.finish();
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_NE(result.err.find("Unable to create directory : No such file or directory (2)\n"), std::string::npos)
        << result.err;
}

TEST_F(DirectoryReceive, GetDirectoryFromTheCommandLine) {
    const std::string local = (dir / "fresh").string();
    ASSERT_TRUE(far.start({"-getd", "Desktop/project", local}));
    const auto announce = far.nextReply();
    ASSERT_TRUE(announce);
    EXPECT_EQ(announce->direction, 2);
    EXPECT_EQ(announce->objectType, 6);
    EXPECT_EQ(announce->openFlag, 0);
    EXPECT_EQ(announce->kind, 10);
    EXPECT_EQ(announce->size, 0u);
    EXPECT_EQ(announce->a, "Desktop/project");
    EXPECT_EQ(announce->b, local);
    EXPECT_TRUE(fs::is_directory(local));
    push(archive, local, "Desktop/project");
    send(8, local);
    const auto status = far.nextStatus();
    ASSERT_TRUE(status);
    EXPECT_EQ(status->failed, 0);
    const auto result = far.finish();
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_TRUE(endsWith(result.err, "File Transfer completed.\n")) << result.err;
    EXPECT_EQ(archivetest::imageOf(local), archivetest::imageOf(dir / "source"));
}

TEST_F(DirectoryReceive, GetDirectoryIntoAnExistingOneAsksFirst) {
    const std::string local = (dir / "there").string();
    fs::create_directories(local);
    testsupport::writeFile(dir / "there" / "mine.txt", "mine");
    ASSERT_TRUE(far.start({"-getd", "r", local}, "n"));
    EXPECT_TRUE(far.quiet());
    auto result = far.finish();
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_TRUE(endsWith(result.err, "Local Directory " + local + " exists, overwrite it [y/n]?File Transfer abort.\n"))
        << result.err;
    EXPECT_TRUE(fs::exists(dir / "there" / "mine.txt"));
}

TEST_F(DirectoryReceive, AStartEventAfterTheAcceptedPromptRemovesTheOldTreeButCannotReopen) {
    // -getd has already opened the unpack stream on the directory; a far side that still sends
    // kind 0 gets the kept directory removed and recreated, but the open stream cannot be opened
    // a second time: the run ends with a failed status.
    const std::string local = (dir / "there").string();
    fs::create_directories(local);
    testsupport::writeFile(dir / "there" / "mine.txt", "mine");
    ASSERT_TRUE(far.start({"-getd", "r", local}, "y"));
    ASSERT_TRUE(far.nextReply());
    send(0, local + ".zip");
    const auto status = far.nextStatus();
    ASSERT_TRUE(status);
    EXPECT_EQ(status->requestKind, 1);
    EXPECT_EQ(status->failed, 1);
    EXPECT_EQ(status->path, local);
    const auto result = far.finish();
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_FALSE(fs::exists(dir / "there" / "mine.txt"));
    EXPECT_TRUE(fs::is_directory(local));
}

TEST_F(DirectoryReceive, AbortBeforeAnyDataRemovesTheNewEmptyDirectory) {
    const std::string local = (dir / "empty-then-aborted").string();
    ASSERT_TRUE(far.start({"-getd", "r", local}));
    ASSERT_TRUE(far.nextReply());
    EXPECT_TRUE(fs::is_directory(local));
    send(7, local);
    const auto result = far.finish();
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_TRUE(endsWith(result.err, "File Transfer aborted by remote.\n"));
    EXPECT_FALSE(fs::exists(local));
}

TEST_F(DirectoryReceive, GetDirectoryOntoAPlainFile) {
    const std::string local = (dir / "plain").string();
    testsupport::writeFile(local, "x");
    ASSERT_TRUE(far.start({"-getd", "r", local}));
    const auto answer = far.next();
    const auto result = far.finish();
    EXPECT_EQ(result.exitCode, 0);
    // No prompt; the failed creation is logged and the stream decides the rest.
    EXPECT_EQ(result.err.find("overwrite it"), std::string::npos);
    EXPECT_NE(result.err.find("Unable to create directory " + local + ": File exists (17)\n"), std::string::npos)
        << result.err;
    ASSERT_TRUE(answer);
    ASSERT_TRUE(answer->status);
    EXPECT_EQ(answer->status->requestKind, 1);
    EXPECT_EQ(answer->status->failed, 1);
    EXPECT_EQ(answer->status->path, local);
}

// ---- sending directories -------------------------------------------------------------------

class DirectorySend : public ::testing::Test {
protected:
    void SetUp() override {
        if (!far.ok()) GTEST_SKIP() << "no loopback server: " << far.error();
        if (!archivetest::haveTool("unzip")) GTEST_SKIP() << "unzip is not installed";
        archivetest::makeSampleTree(dir / "source");
    }
    // Pulls the archive with kind-5 events until kind 8; the replies echo the transfer.
    Bytes pull(const std::string& b, std::string a = "desk") {
        Bytes zip;
        for (int guard = 0; guard < 10000; ++guard) {
            Event e;
            e.direction = 1;
            e.objectType = 6;
            e.kind = 5;
            e.a = a;
            e.b = b;
            EXPECT_TRUE(far.send(e));
            const auto reply = far.nextReply();
            EXPECT_TRUE(reply);
            if (!reply) break;
            EXPECT_EQ(reply->objectType, 6);
            EXPECT_EQ(reply->size, 0u);
            EXPECT_EQ(reply->b, b);
            if (reply->kind == 8) break;
            EXPECT_EQ(reply->kind, 4);
            EXPECT_LE(reply->c.size(), 131072u);
            zip.insert(zip.end(), reply->c.begin(), reply->c.end());
        }
        return zip;
    }
    // Unpacks with the unzip tool and compares with the source tree.
    void expectSameTree(const Bytes& zip) {
        testsupport::writeFile(dir / "got.zip", std::string(zip.begin(), zip.end()));
        ASSERT_EQ(archivetest::shell("unzip -q got.zip -d unpacked", dir.str()), 0);
        EXPECT_EQ(archivetest::imageOf(dir / "unpacked"), archivetest::imageOf(dir / "source"));
    }

    FarSide far;
    testsupport::TempDir dir;
};

TEST_F(DirectorySend, PutDirectoryFromTheCommandLine) {
    const std::string local = (dir / "source").string();
    ASSERT_TRUE(far.start({"-putd", local, "Desktop/copy"}));
    const auto announce = far.nextReply();
    ASSERT_TRUE(announce);
    EXPECT_EQ(announce->direction, 1);
    EXPECT_EQ(announce->objectType, 6);
    EXPECT_EQ(announce->openFlag, 0);
    EXPECT_EQ(announce->kind, 10);
    EXPECT_EQ(announce->size, 0u);
    EXPECT_EQ(announce->a, "Desktop/copy");
    EXPECT_EQ(announce->b, local);
    const Bytes zip = pull(local, "Desktop/copy");
    const auto result = far.finish();
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_TRUE(endsWith(result.err, "File Transfer completed.\n")) << result.err;
    expectSameTree(zip);
    EXPECT_TRUE(fs::is_directory(local));
}

TEST_F(DirectorySend, SessionFetchOfADirectory) {
    ASSERT_TRUE(far.start({}));
    ASSERT_TRUE(far.nextReply());
    const std::string local = (dir / "source").string();
    Event start;
    start.direction = 1;
    start.objectType = 6;
    start.kind = 0;
    start.size = 999;  // the far side's size is replaced by 0 for a directory
    start.a = "desk";
    start.b = local;
    ASSERT_TRUE(far.send(start));
    const auto opened = far.nextReply();
    ASSERT_TRUE(opened);
    EXPECT_EQ(opened->kind, 3);
    EXPECT_EQ(opened->size, 0u);
    expectSameTree(pull(local));
    // Completion of any directory transfer is answered with a status of request kind 1. No
    // unpack stream exists in this session, which counts as a failed unpacking.
    Event end = start;
    end.kind = 8;
    ASSERT_TRUE(far.send(end));
    const auto completion = far.nextStatus();
    ASSERT_TRUE(completion);
    EXPECT_EQ(completion->requestKind, 1);
    EXPECT_EQ(completion->failed, 1);
    EXPECT_EQ(completion->path, "");

    // A missing directory is a failed status of request kind 0.
    start.b = (dir / "missing").string();
    ASSERT_TRUE(far.send(start));
    const auto status = far.nextStatus();
    ASSERT_TRUE(status);
    EXPECT_EQ(status->requestKind, 0);
    EXPECT_EQ(status->failed, 1);
    EXPECT_EQ(status->path, start.b);
    far.server().closeClient();
    EXPECT_EQ(far.finish().exitCode, 0);
}

TEST_F(DirectorySend, AbortOfADirectorySendLeavesTheTree) {
    const std::string local = (dir / "source").string();
    const auto before = archivetest::imageOf(local);
    ASSERT_TRUE(far.start({"-putd", local, "r"}));
    ASSERT_TRUE(far.nextReply());
    Event e;
    e.direction = 1;
    e.objectType = 6;
    e.kind = 5;
    e.b = local;
    ASSERT_TRUE(far.send(e));
    ASSERT_TRUE(far.nextReply());
    e.kind = 7;
    ASSERT_TRUE(far.send(e));
    const auto result = far.finish();
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_TRUE(endsWith(result.err, "File Transfer aborted by remote.\n"));
    EXPECT_EQ(archivetest::imageOf(local), before);
}

}  // namespace
