// Directories both ways as ZIP streams, from a session the far side drives and from -getd and
// -putd: the tree that arrives is compared with the tree that was packed.
#include <gtest/gtest.h>

#include <csignal>
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

// A new directory opens at once; an existing one is replaced only on kind 2, and only once the
// new tree arrived whole. The stream serves one directory after another, whatever the packing
// method; nothing is left beside the trees.
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
        push(b, pack(method));
        EXPECT_EQ(fs::exists(dir / name / "sub" / "stale.txt"), name == "old");
        EXPECT_EQ(fs::exists(dir / name), name == "old");
        send(8, b);
        expectStatus(far, 1, false, (dir / name).string());
        expectSourceTree(dir / name);
    }
    EXPECT_EQ(testsupport::namesIn(dir.path()), (std::vector<std::string>{"deflate", "old", "source", "zstd"}));
    const auto result = far.close();
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_TRUE(contains(result.err, "Sending suceess file transfer status\n"));
}

// Kind 2 before any kind 0: the directory path is still empty, and an empty path is never
// handed to the tree removal, so nothing around the process is deleted. Names without a
// separator or ".zip" get no answer; the first ".zip" ends the name. A cut archive fails and
// leaves nothing, as does a replacing store that is aborted after its data.
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
    push(b, Bytes(archive.begin(), archive.begin() + static_cast<std::ptrdiff_t>(archive.size() / 2)));
    send(8, b);
    expectStatus(far, 1, true, (dir / "cut").string());
    const std::string source = (dir / "source.zip").string();
    send(0, source);
    EXPECT_EQ(far.nextReply().value_or(Reply{}).kind, 1);
    send(2, source);
    EXPECT_EQ(far.nextReply().value_or(Reply{}).kind, 3);
    push(source, pack(loopback::ZipMethod::Store));
    send(7, source);
    EXPECT_TRUE(far.quiet());
    expectSourceTree(dir / "source");
    EXPECT_EQ(testsupport::namesIn(dir.path()), std::vector<std::string>{"source"});
    const auto result = far.close();
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_TRUE(contains(result.err, "Unable to create directory : No such file or directory (2)\n")) << result.err;
}

// -getd: the tree is unpacked beside the target and replaces it (an existing tree the user
// agreed to overwrite included) only once it arrived whole. An abort before or after data, a
// refusal, a lost connection, a signal or damaged data leave the target as it was, and nothing
// beside it. A tree whose central directory spans several chunks is no write failure.
TEST_F(Directories, GetDirectoryReplacesTheTargetOnlyOnceTheTreeArrivedWhole) {
    enum End { Complete, Abort, Refuse, Lose, Signal, Declined, Damaged, Large };
    struct Case {
        std::string name;
        bool existing;
        End end;
        int how = 0;  // the refusal's kind, the signal
        bool data = true;
    } cases[] = {
        {"fresh", false, Complete},          {"aborted", false, Abort, 0, false}, {"declined", true, Declined},
        {"replaced", true, Complete},        {"abort-first", true, Abort, 0, false}, {"abort-later", true, Abort},
        {"refused", true, Refuse, 16},       {"lost", true, Lose},               {"interrupted", true, Signal, SIGINT},
        {"hung-up", false, Signal, SIGHUP},  {"damaged", true, Damaged},          {"large", false, Large},
    };
    const Bytes damaged = archivetest::buildArchive({{"good.txt", "fine", 8, {}, false, false, {}}, {"bad.txt", "data", 8, {}, false, false, 1}});
    fs::create_directories(dir / "many");
    for (int i = 0; i < 3000; ++i) testsupport::writeFile(dir / "many" / ("file-" + std::to_string(i)), "x");
    loopback::PackResult many;
    ASSERT_TRUE(loopback::packDirectory(dir / "many", loopback::ZipMethod::Deflate, many, nullptr));
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const fs::path parent = dir / ("in-" + c.name);
        fs::create_directories(parent);
        const std::string local = (parent / "tree").string();
        if (c.existing) {
            fs::create_directories(parent / "tree" / "sub");
            testsupport::writeFile(parent / "tree" / "sub" / "old.txt", "old");
        }
        const auto before = archivetest::imageOf(local);
        FarSide side;
        ASSERT_TRUE(side.start({"-getd", "Desktop/project", local}, c.end == Declined ? "n" : "y"));
        const std::string question = c.existing ? "Local Directory " + local + " exists, overwrite it [y/n]?" : "";
        testsupport::RunResult result;
        std::string tail = "File Transfer completed.\n";
        if (c.end == Declined) {
            EXPECT_TRUE(side.quiet());
            result = side.finish();
            tail = "File Transfer abort.\n";
        } else {
            const auto announce = side.nextReply();
            ASSERT_TRUE(announce);
            EXPECT_EQ(fieldsOf(*announce), Fields(2, 6, 0, 10, 0, "Desktop/project", local));
            EXPECT_FALSE(fs::exists(local) && !c.existing) << "nothing under the target's name before arrival";
            if (c.data) side.push(echo(*announce, 4), c.end == Damaged ? damaged : c.end == Large ? many.bytes : archive);
            switch (c.end) {
                case Abort: side.send(echo(*announce, 7)), tail = "File Transfer aborted by remote.\n"; break;
                case Refuse:
                    side.send(Event{2, 6, 0, static_cast<std::uint8_t>(c.how), 0, {}, {}, {}});
                    tail = "Failed, because the session is suspended. Please resume the session and try again.\n";
                    break;
                case Signal: side.signal(c.how); break;
                case Lose: break;
                default:
                    side.send(echo(*announce, 8));
                    // The directory path comes from a kind 0 only.
                    expectStatus(side, 1, c.end == Damaged, "");
                    break;
            }
            result = c.end == Lose ? side.close() : side.finish();
        }
        if (c.end == Signal) EXPECT_EQ(result.signal, c.how);
        else if (c.end != Lose) expectEnd(result, tail);
        else EXPECT_EQ(result.exitCode, 0);
        EXPECT_TRUE(contains(result.err, "Version 12.5\n\n" + question)) << result.err;
        EXPECT_EQ(contains(result.err, "Unable to write to local " + local + ": "), c.end == Damaged) << result.err;
        const bool arrived = c.end == Complete || c.end == Large;
        EXPECT_EQ(testsupport::namesIn(parent), arrived || c.existing ? std::vector<std::string>{"tree"}
                                                                      : std::vector<std::string>{})
            << "no temporary is left behind";
        if (c.end == Large) {
            EXPECT_EQ(archivetest::imageOf(local), archivetest::imageOf(dir / "many"));
        } else if (arrived) {
            expectSourceTree(local);
        } else if (c.existing) {
            EXPECT_EQ(archivetest::imageOf(local), before);
        }
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
    // Completion of any directory transfer is answered with a status of request kind 1; a
    // directory sent from here is a success.
    send(8, local, 1);
    expectStatus(far, 1, false, "");
    // A missing directory is a failed status of request kind 0.
    start.nameB = (dir / "missing").string();
    ASSERT_TRUE(far.send(start));
    expectStatus(far, 0, true, start.nameB);
    EXPECT_EQ(far.close().exitCode, 0);
}

}  // namespace
