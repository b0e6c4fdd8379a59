// Whole runs against the loopback desktop, which plays the far side's command-line flows and
// scripted sessions with its own folder of "remote" files.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <thread>

#include "archive/archive_support.h"
#include "desktop.h"
#include "far_side.h"
#include "support/process.h"
#include "support/temp_dir.h"

namespace {

using namespace fttest;
namespace fs = std::filesystem;

bool endsWith(const std::string& text, const std::string& tail) {
    return text.size() >= tail.size() && text.compare(text.size() - tail.size(), tail.size(), tail) == 0;
}

// The paths in which two trees differ (missing on one side, or different contents); empty
// when they are the same.
std::string treeDifference(const fs::path& left, const fs::path& right) {
    const auto a = archivetest::imageOf(left);
    const auto b = archivetest::imageOf(right);
    std::string out;
    for (const auto& [path, content] : a) {
        const auto other = b.find(path);
        if (other == b.end()) out += "only in " + left.filename().string() + ": " + path + "\n";
        else if (other->second != content) out += "differs: " + path + "\n";
    }
    for (const auto& [path, content] : b)
        if (!a.count(path)) out += "only in " + right.filename().string() + ": " + path + "\n";
    return out;
}

// The archive tests' sample tree, UTF-8 name included.
void makeTree(const fs::path& root) { archivetest::makeSampleTree(root); }

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

    testsupport::RunResult run(std::vector<std::string> args, loopback::DesktopOptions options = {},
                               std::optional<std::string> input = std::nullopt) {
        options.folder = dir / "desktop";
        loopback::Desktop desktop(*server, options);
        std::thread serving([&] { desktop.serveClient(std::chrono::milliseconds(10000)); });
        testsupport::RunOptions run;
        run.args = {"-display", server->displayName()};
        run.args.insert(run.args.end(), args.begin(), args.end());
        run.env = quietEnvironment();
        run.input = std::move(input);
        auto result = testsupport::run(testsupport::varoftBinary(), run);
        desktop.stop();
        serving.join();
        outcome = desktop.lastOutcome();
        return result;
    }

    std::string local(const std::string& name) const { return (dir / "local" / name).string(); }
    fs::path onDesktop(const std::string& name) const { return dir / "desktop" / name; }

    std::unique_ptr<loopback::XServer> server;
    testsupport::TempDir dir;
    std::string outcome;
};

class DesktopFileSizes : public DesktopRun, public ::testing::WithParamInterface<std::size_t> {};

TEST_P(DesktopFileSizes, PutThenGetGivesBackTheSameBytes) {
    const Bytes content = pattern(GetParam(), 21);
    testsupport::writeFile(local("up.bin"), std::string(content.begin(), content.end()));

    auto result = run({"-put", local("up.bin")});
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_TRUE(endsWith(result.err, "File Transfer completed.\n")) << result.err;
    EXPECT_EQ(bytesOf(testsupport::readFile(onDesktop("up.bin"))), content);

    result = run({"-get", "up.bin", local("down.bin")});
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_TRUE(endsWith(result.err, "File Transfer completed.\n")) << result.err;
    EXPECT_EQ(bytesOf(testsupport::readFile(local("down.bin"))), content);
}

INSTANTIATE_TEST_SUITE_P(Desktop, DesktopFileSizes, ::testing::Values(0, 3 * 131072 + 17),
                         [](const auto& param) { return "Bytes" + std::to_string(param.param); });

TEST_F(DesktopRun, GetWithSmallChunksAndARemoteNameOnPut) {
    const Bytes content = pattern(50000, 4);
    testsupport::writeFile(local("a.bin"), std::string(content.begin(), content.end()));
    EXPECT_EQ(run({"-put", local("a.bin"), "renamed.bin"}).exitCode, 0);
    EXPECT_TRUE(fs::exists(onDesktop("renamed.bin")));
    loopback::DesktopOptions options;
    options.chunkSize = 999;
    EXPECT_EQ(run({"-get", "renamed.bin", local("b.bin")}, options).exitCode, 0);
    EXPECT_EQ(bytesOf(testsupport::readFile(local("b.bin"))), content);
}

TEST_F(DesktopRun, OpenSendsTheFileUnderItsBaseName) {
    testsupport::writeFile(local("show.txt"), "look at me");
    const auto result = run({"-open", local("show.txt")});
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_EQ(testsupport::readFile(onDesktop("show.txt")), "look at me");
}

TEST_F(DesktopRun, GetOfAMissingDesktopFileIsAborted) {
    const auto result = run({"-get", "not-there.txt", local("x.txt")});
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_TRUE(endsWith(result.err, "File Transfer aborted by remote.\n")) << result.err;
    EXPECT_FALSE(fs::exists(local("x.txt")));
}

TEST_F(DesktopRun, RefusedTransfersEndWithTheirMessage) {
    testsupport::writeFile(local("r.txt"), "r");
    loopback::DesktopOptions options;
    options.refusal = 15;
    const auto result = run({"-put", local("r.txt")}, options);
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_TRUE(endsWith(result.err, "Failed to connect. Varo Client does not support file transfer.\n"));
    EXPECT_TRUE(fs::exists(local("r.txt")));
}

class DesktopDirectories : public DesktopRun, public ::testing::WithParamInterface<loopback::ZipMethod> {};

TEST_P(DesktopDirectories, PutdThenGetdGivesBackTheSameTree) {
    makeTree(dir / "local" / "tree");
    auto result = run({"-putd", local("tree"), "project"});
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_TRUE(endsWith(result.err, "File Transfer completed.\n")) << result.err;
    EXPECT_EQ(treeDifference(onDesktop("project"), dir / "local" / "tree"), "");

    loopback::DesktopOptions options;
    options.zipMethod = GetParam();
    result = run({"-getd", "project", local("back")}, options);
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_TRUE(endsWith(result.err, "File Transfer completed.\n")) << result.err;
    EXPECT_EQ(treeDifference(dir / "local" / "back", dir / "local" / "tree"), "");
}

INSTANTIATE_TEST_SUITE_P(Desktop, DesktopDirectories,
                         ::testing::Values(loopback::ZipMethod::Deflate, loopback::ZipMethod::Store,
                                           loopback::ZipMethod::Zstd),
                         [](const auto& param) { return std::string(loopback::zipMethodName(param.param)); });

TEST_F(DesktopRun, ScriptedSessionFetchesAndStoresFilesAndDirectories) {
    testsupport::writeFile(local("mine.txt"), "from the client");
    testsupport::writeFile(local("moving.txt"), "moved away");
    makeTree(dir / "local" / "tree");
    testsupport::writeFile(onDesktop("theirs.txt"), "from the desktop");
    makeTree(dir / "desktop" / "theirs");
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
    EXPECT_EQ(treeDifference(onDesktop("tree"), dir / "local" / "tree"), "");
    EXPECT_EQ(testsupport::readFile(local("stored.txt")), "from the desktop");
    EXPECT_EQ(treeDifference(dir / "local" / "tree-copy", onDesktop("theirs")), "");
}

}  // namespace
