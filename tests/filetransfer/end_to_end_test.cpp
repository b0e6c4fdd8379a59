// varoft itself against the loopback desktop, a handful of runs per mode: they prove the binary,
// the libxcb framing both ways, the session start report, the prompt on standard input,
// signals, lost connections and failing writes, which the in-process tests cannot reach.
#include <gtest/gtest.h>

#include <cstdlib>

#include <csignal>
#include <filesystem>
#include <thread>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "archive/archive_support.h"
#include "support/loopback_desktop.h"
#include "support/temp_dir.h"

namespace {

namespace fs = std::filesystem;
using testsupport::LoopbackDesktop;
using testsupport::readFile;
using testsupport::RunOptions;
using testsupport::writeFile;

// The banner names the program as started: varoft.exe when the Windows build is under test.
const bool kWindowsBuild = std::getenv("VAROFT_TEST_PROGRAM") != nullptr;
const std::string kBanner = std::string(kWindowsBuild ? "varoft.exe" : "varoft") +
                            " - Varo File Transfer and Remote Print Utility, Version 12.5\n\n";

std::string hostName() {
    char buffer[256] = {};
    ::gethostname(buffer, sizeof buffer - 1);
    return buffer;
}

loopback::DesktopOptions onFolder(const fs::path& folder, std::size_t chunkSize = 131072) {
    loopback::DesktopOptions options;
    options.folder = folder;
    options.chunkSize = chunkSize;
    options.zipMethod = loopback::ZipMethod::Store;
    return options;
}

// The bytes of the regular files below `dir`, links not followed.
std::uintmax_t bytesBelow(const fs::path& dir) {
    std::uintmax_t bytes = 0;
    std::error_code ec;
    for (auto it = fs::recursive_directory_iterator(dir, ec); !ec && it != fs::recursive_directory_iterator(); it.increment(ec))
        if (it->is_regular_file(ec) && !it->is_symlink(ec)) bytes += it->file_size(ec);
    return bytes;
}
// Waits until a receive has written more than 100000 bytes below `dir` (under a temporary name).
bool receiving(const fs::path& dir) {
    for (int i = 0; i < 4000 && bytesBelow(dir) < 100000; ++i) std::this_thread::sleep_for(std::chrono::milliseconds(5));
    return bytesBelow(dir) >= 100000;
}

// A session the desktop drives: the start report, a listing, a store, a fetch, a rename and a
// failing delete, then the desktop closes it.
TEST(EndToEnd, SessionServesTheDesktopsSteps) {
    testsupport::TempDir dir;
    const fs::path home = dir / "home", docs = home / "Documents";
    fs::create_directories(docs);
    fs::create_directories(dir / "desk");
    const std::string content = archivetest::repeatText(131072 + 5), d = docs.string();
    writeFile(dir / "desk" / "up.bin", content);
    loopback::DesktopOptions options = onFolder(dir / "desk");
    options.script = {"list", "store " + d + "/got.bin up.bin", "fetch " + d + "/got.bin",
                      "rename " + d + "/got.bin " + d + "/got.old", "delete " + d + "/missing", "list", "close"};
    LoopbackDesktop desktop(options);
    ASSERT_TRUE(desktop.ok()) << desktop.error();
    RunOptions run;
    run.env = {{"USERPROFILE", std::nullopt}, {"USERNAME", std::nullopt}, {"HOME", home.string()}, {"USER", "tester"}};
    const auto result = desktop.run({"-v"}, run);
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_NE(result.err.find("Sending request to Proxy/Desktop to start file transfer process.\nUserProfile = " +
                              home.string() + "\nHidden drives value = 0\nDrive = Root (/)\nUserHomeDir = " + d +
                              "\nUSERNAME = tester\nHOSTNAME = " + hostName() + "\n"),
              std::string::npos)
        << result.err;
    EXPECT_TRUE(result.err.ends_with("File Transfer session was closed.\n")) << result.err;
    EXPECT_EQ(readFile(dir / "desk" / "got.bin"), content);
    EXPECT_TRUE(fs::exists(docs / "got.old"));
    const std::string said = desktop.said();
    for (const std::string& line :
         {"session start: host " + hostName() + ", user tester, drives [Root (/)]\n", "listing " + d + "\n",
          std::string("_got.old\n"), "status for request kind 2: success (" + d + "/got.bin)\n",
          "status for request kind 3: failure \"No such file or directory\" (" + d + "/missing)\n"})
        EXPECT_NE(said.find(line), std::string::npos) << line << "---\n" << said;
}

// Each sending mode (the receiving ones below).
TEST(EndToEnd, EachSendingModeMovesItsFileOrTree) {
    testsupport::TempDir dir;
    const fs::path desk = dir / "desk", local = dir / "local";
    archivetest::makeSampleTree(local / "tree");
    writeFile(local / "several.bin", archivetest::repeatText(3 * 131072 + 17));
    writeFile(local / "empty.bin", "");
    writeFile(local / "report.pdf", "%PDF-1.7\n");
    LoopbackDesktop desktop(onFolder(desk));
    ASSERT_TRUE(desktop.ok()) << desktop.error();
    const std::tuple<std::vector<std::string>, fs::path, fs::path> cases[] = {
        {{"-put", local / "several.bin", "up.bin"}, local / "several.bin", desk / "up.bin"},
        {{"-put", local / "empty.bin"}, local / "empty.bin", desk / "empty.bin"},
        {{"-open", local / "report.pdf"}, local / "report.pdf", desk / "report.pdf"},
        {{"-putd", local / "tree", "uptree"}, local / "tree", desk / "uptree"},
    };
    for (const auto& [args, from, to] : cases) {
        SCOPED_TRACE(args[0]);
        const auto result = desktop.run(args);
        EXPECT_EQ(result.exitCode, 0);
        EXPECT_TRUE(result.err.ends_with("File Transfer completed.\n")) << result.err;
        if (fs::is_directory(from)) EXPECT_EQ(archivetest::imageOf(to), archivetest::imageOf(from));
        else EXPECT_EQ(readFile(to), readFile(from));
        EXPECT_TRUE(fs::exists(from)) << "a send keeps its source";
    }
}

// -get: only a lower-case n refuses to overwrite. The file arrives under a temporary name and
// replaces the target (the file a link names) only once complete: a refusal, a failed write, a
// signal or a lost connection leave the old file byte for byte, or no file, and nothing else.
TEST(EndToEnd, GetReplacesTheTargetOnlyOnceTheFileArrivedWhole) {
    enum End { Complete, Declined, FailedWrite, Signal, Lost };
    struct Case {
        const char* remote;
        bool existing;
        std::optional<std::string> input;
        End end;
        bool link = false;  // the local path is a symbolic link to the file
    } cases[] = {
        {"small.bin", false, {}, Complete},           {"small.bin", true, "nope\n", Declined},
        {"small.bin", true, std::nullopt, Complete},  {"small.bin", true, "y", Complete, true},
        {"small.bin", true, "y", FailedWrite},        {"big.bin", true, "y", Signal},
        {"big.bin", false, {}, Lost},
    };
    testsupport::TempDir desk;
    const std::string content = archivetest::repeatText(200000);
    writeFile(desk / "small.bin", content);
    writeFile(desk / "big.bin", "");
    fs::resize_file(desk / "big.bin", std::uintmax_t{1} << 30);  // sparse; never sent whole
    LoopbackDesktop desktop(onFolder(desk.path(), 4093));
    ASSERT_TRUE(desktop.ok()) << desktop.error();
    const mode_t mask = ::umask(0);
    ::umask(mask);
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << c.remote << " " << c.existing << " " << c.end << " " << c.link);
        // Under Wine: no symbolic links, no file size limit, no SIGHUP.
        if (kWindowsBuild && (c.link || c.end == FailedWrite || c.end == Signal)) continue;
        testsupport::TempDir dir;
        const std::string local = (dir / "got.bin").string();
        const fs::path file = c.link ? dir / "real.bin" : fs::path(local);
        if (c.link) fs::create_symlink("real.bin", local);
        if (c.existing) writeFile(file, "old");
        RunOptions options;
        options.input = c.input;
        if (c.end == FailedWrite) options.fileSizeLimit = 100000;
        const auto process = desktop.start({"-get", c.remote, local}, options);
        if (c.end == Signal || c.end == Lost) {
            ASSERT_TRUE(receiving(dir.path()));
            if (c.end == Signal) process->signal(SIGHUP);
            else desktop.server().closeClient();
        }
        const auto result = process->wait();
        const std::string question = c.existing ? "Local File " + local + " exists, overwrite it [y/n]?" : "";
        const std::string ending[] = {"File Transfer completed.\n", "File Transfer abort.\n",
                                      "Unable to write to local " + local + ": File too large\nFile Transfer completed.\n"};
        if (c.end == Signal) EXPECT_EQ(result.signal, SIGHUP) << "ended as the signal would";
        // A lost connection ends silently: the line that says so is for terminals only.
        else EXPECT_EQ(result.err, kBanner + question + (c.end == Lost ? "" : ending[c.end]));
        EXPECT_EQ(result.exitCode, c.end == Signal ? -1 : 0);
        const bool arrived = c.end == Complete;
        std::vector<std::string> names;
        if (c.link) names = {"got.bin", "real.bin"};
        else if (arrived || c.existing) names = {"got.bin"};
        EXPECT_EQ(testsupport::namesIn(dir.path()), names) << "no temporary is left behind";
        if (arrived) {
            EXPECT_EQ(readFile(file), content);
            if (!kWindowsBuild) {
                EXPECT_EQ(fs::status(file).permissions(), static_cast<fs::perms>(0666 & ~mask));
            }
            EXPECT_EQ(fs::is_symlink(local), c.link);
        } else if (c.existing) {
            EXPECT_EQ(readFile(file), "old");
        }
    }
}

// -getd: the tree is unpacked beside the target and replaces it (a tree the user agreed to
// overwrite) only once it arrived whole; a signal leaves the target as it was, nothing beside it.
TEST(EndToEnd, GetDirectoryReplacesTheTargetOnlyOnceTheTreeArrivedWhole) {
    testsupport::TempDir dir;
    archivetest::makeSampleTree(dir / "desk" / "tree");
    fs::create_directories(dir / "desk" / "bigtree");
    writeFile(dir / "desk" / "bigtree" / "big.bin", "");
    fs::resize_file(dir / "desk" / "bigtree" / "big.bin", std::uintmax_t{1} << 30);
    LoopbackDesktop desktop(onFolder(dir / "desk", 4096));
    ASSERT_TRUE(desktop.ok()) << desktop.error();
    for (const bool interrupted : {false, true}) {
        SCOPED_TRACE(interrupted);
        if (kWindowsBuild && interrupted) continue;  // Wine reports Ctrl-C as an exit code
        const fs::path parent = dir / (interrupted ? "interrupted" : "replaced");
        const std::string local = (parent / "tree").string();
        fs::create_directories(parent / "tree" / "sub");
        writeFile(parent / "tree" / "sub" / "old.txt", "old");
        const auto before = archivetest::imageOf(local);
        RunOptions options;
        options.input = "y";
        const auto process = desktop.start({"-getd", interrupted ? "bigtree" : "tree", local}, options);
        if (interrupted) {
            ASSERT_TRUE(receiving(parent));
            process->signal(SIGINT);
        }
        const auto result = process->wait();
        if (interrupted) {
            EXPECT_EQ(result.signal, SIGINT);
            EXPECT_EQ(archivetest::imageOf(local), before);
        } else {
            EXPECT_EQ(result.err, kBanner + "Local Directory " + local + " exists, overwrite it [y/n]?File Transfer completed.\n");
            EXPECT_EQ(archivetest::imageOf(local), archivetest::imageOf(dir / "desk" / "tree"));
        }
        EXPECT_EQ(testsupport::namesIn(parent), std::vector<std::string>{"tree"}) << "no temporary is left behind";
    }
}

// A server that calls the extension absent still answers the lookup: only a lookup that fails
// counts as a missing extension, so the run goes on until its first request breaks the
// connection, and ends without a message.
TEST(EndToEnd, ExtensionReportedAbsent) {
    loopback::ServerOptions server;
    server.fileTransferExtension = false;
    testsupport::TempDir dir;
    LoopbackDesktop desktop(onFolder(dir.path()), server);
    ASSERT_TRUE(desktop.ok()) << desktop.error();
    const auto result = desktop.run({"-put", "/etc/hostname"});
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_EQ(result.err, kBanner);
}

// Over 4 GiB both ways (sparse files, stored entries: the bytes that matter are the sizes and the
// zip64 records): tens of seconds, label "slow".
constexpr std::uint64_t kSize = (std::uint64_t{9} << 30) / 2;  // 4.5 GiB

// Holes but for 4 KiB of pattern at the start, across the 4 GiB border and at the end.
constexpr std::uint64_t kRegions[] = {0, (std::uint64_t{1} << 32) - 2048, kSize - 4096};
std::string region(std::uint64_t offset) {
    std::string out(4096, '\0');
    for (std::size_t i = 0; i < out.size(); ++i) out[i] = static_cast<char>((offset >> 12) + i * 31 + 1);
    return out;
}

bool makeSparseFile(const fs::path& path) {
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    bool ok = fd >= 0 && ::ftruncate(fd, static_cast<off_t>(kSize)) == 0;
    for (const auto at : kRegions) ok = ok && ::pwrite(fd, region(at).data(), 4096, static_cast<off_t>(at)) == 4096;
    return ::close(fd) == 0 && ok;
}

// The size, the patterned regions and the hole before the last one.
bool sameSparseContent(const fs::path& path) {
    std::error_code ec;
    if (fs::file_size(path, ec) != kSize || ec) return false;
    const int fd = ::open(path.c_str(), O_RDONLY);
    std::string got(4096, '\0');
    bool same = fd >= 0;
    for (const auto at : kRegions)
        same = same && ::pread(fd, got.data(), 4096, static_cast<off_t>(at)) == 4096 && got == region(at);
    same = same && ::pread(fd, got.data(), 4096, static_cast<off_t>(kSize - 8192)) == 4096 && got == std::string(4096, '\0');
    ::close(fd);
    return same;
}

TEST(EndToEnd, OverFourGibibytesBothWays) {
    testsupport::TempDir dir;
    // varoft writes what it receives in full, one such file at a time.
    if (fs::space(dir.path()).available < kSize + (std::uint64_t{1} << 30))
        GTEST_SKIP() << "not enough free space under " << dir.str();
    for (const char* tree : {"desk/tree", "local/tree"}) fs::create_directories(dir / tree);
    for (const char* file : {"desk/big.bin", "desk/tree/big.bin", "local/big.bin", "local/tree/big.bin"})
        ASSERT_TRUE(makeSparseFile(dir / file)) << file;
    LoopbackDesktop desktop(onFolder(dir / "desk"));
    ASSERT_TRUE(desktop.ok()) << desktop.error();

    const std::pair<std::vector<std::string>, fs::path> cases[] = {
        {{"-put", dir / "local" / "big.bin", "up.bin"}, dir / "desk" / "up.bin"},
        {{"-get", "big.bin", dir / "got.bin"}, dir / "got.bin"},
        {{"-putd", dir / "local" / "tree", "uptree"}, dir / "desk" / "uptree" / "big.bin"},
        {{"-getd", "tree", dir / "gottree"}, dir / "gottree" / "big.bin"},
    };
    for (const auto& [args, arrives] : cases) {
        SCOPED_TRACE(args[0]);
        testsupport::RunOptions run;
        run.timeout = std::chrono::seconds(600);
        const auto result = desktop.run(args, run);
        EXPECT_EQ(result.exitCode, 0) << result.err;
        EXPECT_TRUE(sameSparseContent(arrives));
        fs::remove(arrives);  // varoft's copies are not sparse: one at a time
    }
}

}  // namespace
