// Whole runs against the loopback desktop, which plays the far side's command-line flows and
// scripted sessions with its own folder of "remote" files.
#include <gtest/gtest.h>

#include <filesystem>
#include <thread>

#include "archive/archive_support.h"
#include "desktop.h"
#include "far_side.h"
#include "support/temp_dir.h"

namespace {

using namespace fttest;
namespace fs = std::filesystem;

bool sameTree(const fs::path& left, const fs::path& right) {
    return archivetest::imageOf(left) == archivetest::imageOf(right);
}

// A loopback desktop serving one varoft run at a time.
class DesktopRun : public ::testing::Test {
protected:
    void SetUp() override {
        std::string error;
        server = loopback::XServer::start({}, &error);
        if (!server) GTEST_SKIP() << "no loopback server: " << error;
        fs::create_directories(dir / "desktop");
        fs::create_directories(dir / "local");
    }

    testsupport::RunResult run(std::vector<std::string> args, loopback::DesktopOptions options = {}) {
        options.folder = dir / "desktop";
        loopback::Desktop desktop(*server, options);
        std::thread serving([&] { desktop.serveClient(std::chrono::milliseconds(10000)); });
        testsupport::RunOptions run;
        run.args = {"-display", server->displayName()};
        run.args.insert(run.args.end(), args.begin(), args.end());
        run.env = quietEnvironment();
        auto result = testsupport::run(testsupport::varoftBinary(), run);
        desktop.stop();
        serving.join();
        return result;
    }

    std::string local(const std::string& name) const { return (dir / "local" / name).string(); }
    fs::path onDesktop(const std::string& name) const { return dir / "desktop" / name; }

    std::unique_ptr<loopback::XServer> server;
    testsupport::TempDir dir;
};

// A file there and back, the way back in small chunks.
TEST_F(DesktopRun, PutThenGetGivesBackTheSameBytes) {
    const Bytes content = pattern(3 * 131072 + 17, 21);
    testsupport::writeFile(local("up.bin"), std::string(content.begin(), content.end()));
    auto result = run({"-put", local("up.bin"), "renamed.bin"});
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_TRUE(endsWith(result.err, "File Transfer completed.\n")) << result.err;
    EXPECT_EQ(bytesOf(testsupport::readFile(onDesktop("renamed.bin"))), content);
    loopback::DesktopOptions options;
    options.chunkSize = 999;
    result = run({"-get", "renamed.bin", local("down.bin")}, options);
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_TRUE(endsWith(result.err, "File Transfer completed.\n")) << result.err;
    EXPECT_EQ(bytesOf(testsupport::readFile(local("down.bin"))), content);
}

// A tree there, and back packed with each of the methods the desktop may use.
TEST_F(DesktopRun, PutdThenGetdGivesBackTheSameTree) {
    archivetest::makeSampleTree(dir / "local" / "tree");
    auto result = run({"-putd", local("tree"), "project"});
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_TRUE(endsWith(result.err, "File Transfer completed.\n")) << result.err;
    EXPECT_TRUE(sameTree(onDesktop("project"), dir / "local" / "tree"));
    for (const auto method : {loopback::ZipMethod::Deflate, loopback::ZipMethod::Store, loopback::ZipMethod::Zstd}) {
        const std::string back = local(std::string("back-") + loopback::zipMethodName(method));
        SCOPED_TRACE(back);
        loopback::DesktopOptions options;
        options.zipMethod = method;
        result = run({"-getd", "project", back}, options);
        EXPECT_EQ(result.exitCode, 0);
        EXPECT_TRUE(endsWith(result.err, "File Transfer completed.\n")) << result.err;
        EXPECT_TRUE(sameTree(back, dir / "local" / "tree"));
    }
}

TEST_F(DesktopRun, ScriptedSessionFetchesAndStoresFilesAndDirectories) {
    testsupport::writeFile(local("mine.txt"), "from the client");
    testsupport::writeFile(local("moving.txt"), "moved away");
    archivetest::makeSampleTree(dir / "local" / "tree");
    testsupport::writeFile(onDesktop("theirs.txt"), "from the desktop");
    archivetest::makeSampleTree(dir / "desktop" / "theirs");
    testsupport::writeFile(dir / "desktop" / "theirs" / "only-there.txt", "desktop's own");
    loopback::DesktopOptions options;
    // The directory fetch comes last: varoft answers the completion of any directory transfer
    // with a status, which the desktop's script does not wait for after a fetch.
    options.script = {
        "fetch " + local("mine.txt"),
        "move " + local("moving.txt"),
        "store " + local("stored.txt") + " theirs.txt",
        "storedir " + local("tree-copy") + " theirs",
        "fetchdir " + local("tree"),
        "close",
    };
    const auto result = run({}, options);
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_TRUE(endsWith(result.err, "File Transfer session was closed.\n")) << result.err;
    EXPECT_EQ(testsupport::readFile(onDesktop("mine.txt")), "from the client");
    EXPECT_TRUE(fs::exists(local("mine.txt")));
    EXPECT_EQ(testsupport::readFile(onDesktop("moving.txt")), "moved away");
    EXPECT_FALSE(fs::exists(local("moving.txt")));
    EXPECT_TRUE(sameTree(onDesktop("tree"), dir / "local" / "tree"));
    EXPECT_EQ(testsupport::readFile(local("stored.txt")), "from the desktop");
    EXPECT_TRUE(sameTree(dir / "local" / "tree-copy", onDesktop("theirs")));
}

}  // namespace
