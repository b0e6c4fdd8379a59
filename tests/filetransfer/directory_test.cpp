// Directories both ways as ZIP streams, from a session the far side drives and from -getd and
// -putd: the tree that arrives is compared with the tree that was packed.
#include <gtest/gtest.h>

#include <filesystem>

#include "archive/archive_support.h"
#include "far_side.h"
#include "zip_archive.h"
#include "support/temp_dir.h"

namespace {

using namespace fttest;
namespace fs = std::filesystem;

void expectStatus(FarSide& far, std::uint8_t requestKind, bool failed, const std::string& path) {
    const auto status = far.nextStatus();
    ASSERT_TRUE(status);
    EXPECT_EQ(std::tie(status->requestKind, status->status, status->path),
              std::make_tuple(requestKind, std::uint8_t{failed}, path));
    EXPECT_TRUE(failed || status->error.empty()) << status->error;
}

// A sample tree; archives are packed and unpacked the way the desktop does it.
class Directories : public ::testing::Test {
protected:
    void SetUp() override {
        FAR_SIDE_OR_SKIP(far);
        archivetest::makeSampleTree(dir / "source");
        archive = pack(loopback::ZipMethod::Deflate);
    }
    Bytes pack(loopback::ZipMethod method) {
        loopback::PackResult packed;
        EXPECT_TRUE(loopback::packDirectory(dir / "source", method, packed, nullptr));
        return packed.bytes;
    }
    bool send(std::uint8_t kind, const std::string& b, std::uint8_t direction = 2) {
        return far.send(Event{direction, 6, 0, kind, 0, "desk", b, {}});
    }
    void push(const std::string& b, const Bytes& data) { far.push(Event{2, 6, 0, 4, 0, "desk", b, {}}, data); }
    void expectSourceTree(const fs::path& root) {
        EXPECT_EQ(archivetest::imageOf(root), archivetest::imageOf(dir / "source"));
    }
    void expectSourceTree(const Bytes& zip) {
        loopback::UnpackResult unpacked;
        std::string error;
        ASSERT_TRUE(loopback::unpackArchive(zip, dir / "unpacked", unpacked, &error)) << error;
        expectSourceTree(dir / "unpacked");
    }
    void startSession() {
        ASSERT_TRUE(far.start({"-v"}));
        ASSERT_EQ(far.nextReply().value_or(Reply{}).kind, 9);
    }

    FarSide far;
    testsupport::TempDir dir;
    Bytes archive;
};

// A new directory opens at once; an existing one is replaced only on kind 2. The stream serves
// one directory after another, whatever the packing method.
TEST_F(Directories, SessionStoreUnpacksTreesAndReportsSuccess) {
    startSession();
    fs::create_directories(dir / "old" / "sub");
    testsupport::writeFile(dir / "old" / "sub" / "stale.txt", "stale");
    for (const auto method : {loopback::ZipMethod::Deflate, loopback::ZipMethod::Store, loopback::ZipMethod::Zstd}) {
        const std::string name = method == loopback::ZipMethod::Store ? "old" : loopback::zipMethodName(method);
        SCOPED_TRACE(name);
        const std::string b = (dir / (name + ".zip")).string();
        send(0, b);
        if (name == "old") {
            EXPECT_EQ(far.nextReply().value_or(Reply{}).kind, 1);
            EXPECT_TRUE(fs::exists(dir / "old" / "sub" / "stale.txt"));
            send(2, b);
        }
        EXPECT_EQ(far.nextReply().value_or(Reply{}).kind, 3);
        EXPECT_TRUE(fs::is_directory(dir / name));
        EXPECT_FALSE(fs::exists(dir / name / "sub" / "stale.txt"));
        push(b, pack(method));
        send(8, b);
        expectStatus(far, 1, false, (dir / name).string());
        expectSourceTree(dir / name);
    }
    const auto result = far.close();
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_TRUE(contains(result.err, "Sending suceess file transfer status\n"));
}

// Kind 2 before any kind 0: the directory path is still empty, and an empty path is never
// handed to the tree removal, so nothing around the process is deleted. Names without a
// separator or ".zip" get no answer; the first ".zip" ends the name. A cut archive fails.
TEST_F(Directories, SessionStoreRefusals) {
    far.setWorkingDirectory(dir.str());
    startSession();
    send(2, (dir / "x.zip").string());
    expectStatus(far, 1, true, "");
    EXPECT_TRUE(fs::exists(dir / "source" / "readme.txt"));
    for (const std::string& b : {std::string("pics.zip"), (dir / "pics").string()}) {
        send(0, b);
        EXPECT_TRUE(far.quiet());
    }
    EXPECT_FALSE(fs::exists(dir / "pics"));
    const std::string b = (dir / "cut.zip" / "b.zip").string();
    send(0, b);
    EXPECT_EQ(far.nextReply().value_or(Reply{}).kind, 3);
    EXPECT_TRUE(fs::is_directory(dir / "cut"));
    push(b, Bytes(archive.begin(), archive.begin() + static_cast<std::ptrdiff_t>(archive.size() / 2)));
    send(8, b);
    expectStatus(far, 1, true, (dir / "cut").string());
    const auto result = far.close();
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_TRUE(contains(result.err, "Unable to create directory : No such file or directory (2)\n")) << result.err;
}

// -getd: a new directory is filled and reported, or removed again on an abort; an existing
// one is left alone when the user refuses.
TEST_F(Directories, GetDirectoryFromTheCommandLine) {
    const std::pair<std::string, std::uint8_t> cases[] = {{"fresh", 8}, {"aborted", 7}, {"source", 0}};
    for (const auto& [name, end] : cases) {
        SCOPED_TRACE(name);
        FarSide side;
        const std::string local = (dir / name).string();
        ASSERT_TRUE(side.start({"-getd", "Desktop/project", local}, "n"));
        if (end == 0) {
            EXPECT_TRUE(side.quiet());
            expectEnd(side.finish(), "Local Directory " + local + " exists, overwrite it [y/n]?File Transfer abort.\n");
            expectSourceTree(local);
            continue;
        }
        const auto announce = side.nextReply();
        ASSERT_TRUE(announce);
        EXPECT_EQ(fieldsOf(*announce), Fields(2, 6, 0, 10, 0, "Desktop/project", local));
        EXPECT_TRUE(fs::is_directory(local));
        if (end == 8) side.push(echo(*announce, 4), archive);
        ASSERT_TRUE(side.send(echo(*announce, end)));
        if (end == 8) expectStatus(side, 1, false, "");  // the directory path comes from a kind 0 only
        expectEnd(side.finish(), end == 8 ? "File Transfer completed.\n" : "File Transfer aborted by remote.\n");
        EXPECT_EQ(fs::exists(local), end == 8);
        if (end == 8) expectSourceTree(local);
    }
}

// -putd: the tree is packed and sent; an abort leaves it as it was.
TEST_F(Directories, PutDirectoryFromTheCommandLine) {
    const std::string local = (dir / "source").string();
    for (const int end : {8, 7}) {
        FarSide side;
        ASSERT_TRUE(side.start({"-putd", local, "Desktop/copy"}));
        const auto announce = side.nextReply();
        ASSERT_TRUE(announce);
        EXPECT_EQ(fieldsOf(*announce), Fields(1, 6, 0, 10, 0, "Desktop/copy", local));
        if (end == 8) {
            expectSourceTree(side.pull(*announce));
        } else {
            side.ask(echo(*announce, 5), 4);
            ASSERT_TRUE(side.send(echo(*announce, 7)));
        }
        expectEnd(side.finish(), end == 8 ? "File Transfer completed.\n" : "File Transfer aborted by remote.\n");
        expectSourceTree(local);
    }
}

TEST_F(Directories, SessionFetchOfADirectory) {
    ASSERT_TRUE(far.start({}));
    ASSERT_TRUE(far.nextReply());
    const std::string local = (dir / "source").string();
    Event start{1, 6, 0, 0, 999, "desk", local, {}};  // the size is replaced by 0 for a directory
    const Reply opened = far.ask(start, 3);
    EXPECT_EQ(fieldsOf(opened), Fields(1, 6, 0, 3, 0, "desk", local));
    expectSourceTree(far.pull(opened));
    // Completion of any directory transfer is answered with a status of request kind 1. No
    // unpack stream exists in this session, which counts as a failed unpacking.
    send(8, local, 1);
    expectStatus(far, 1, true, "");
    // A missing directory is a failed status of request kind 0.
    start.nameB = (dir / "missing").string();
    ASSERT_TRUE(far.send(start));
    expectStatus(far, 0, true, start.nameB);
    EXPECT_EQ(far.close().exitCode, 0);
}

}  // namespace
