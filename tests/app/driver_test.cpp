// The program as a user meets it: banner, usage, connection failures and exit codes, run as a
// child process.
#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <tuple>

#include <sys/stat.h>

#include "platform/platform.h"
#include "support/process.h"
#include "support/temp_dir.h"

namespace {

using testsupport::RunOptions;
using testsupport::RunResult;

const std::string kBanner = "varoft - Varo File Transfer and Remote Print Utility, Version 12.5\n\n";
const std::string kUsage =
    "Usage:  varoft [OPTION]\n\nOptions:\n"
    "  -q                           - quiet\n"
    "  -v                           - verbose\n"
    "  -vv                          - very_verbose\n"
    "  -display <display>           - varoproxy to connect to\n"
    "  -get <RemoteFile  LocalFile> - copy a remote file (from User Desktop) to a local file\n"
    "  -put <LocalFile> [RemoteFile] - copy a local file to a remote file (to User Desktop) \n"
    "  -getd <RemoteDir  LocalDir>  - copy a remote directory (from User Desktop) to a local one\n"
    "  -putd <LocalDir  RemoteDir>  - copy a local directory to a remote one (to User Desktop) \n"
    "  -print <File1 File2 ...>     - send a local file(s) for printing (to User Desktop) \n"
    "  -open <File>                 - send a local file for opening (to User Desktop) \n";

// A display number with no server behind it.
const std::string kDeadDisplay = ":187";

RunResult varoft(std::vector<std::string> args, std::string argv0 = {}) {
    RunOptions options;
    options.args = std::move(args);
    options.argv0 = std::move(argv0);
    options.env = {{"DISPLAY", std::nullopt}};
    options.input = "y";
    return testsupport::run(testsupport::varoftBinary(), options);
}

TEST(Driver, VersionGoesToStandardOutputAlone) {
    for (auto args : {std::vector<std::string>{"-v", "--version", "-bogus"}, std::vector<std::string>{"-print", "--version"}}) {
        const RunResult r = varoft(args);
        EXPECT_EQ(r.exitCode, 0);
        EXPECT_EQ(r.err, "");
        ASSERT_EQ(r.out.size(), std::string("varoft    Version 12.5.3.9413, GitHash ").size() + 12) << r.out;
        EXPECT_EQ(r.out.rfind("varoft    Version 12.5.3.9413, GitHash ", 0), 0u) << r.out;
        const std::string hash = r.out.substr(r.out.size() - 12, 11);
        EXPECT_EQ(hash.find_first_not_of("0123456789abcdef"), std::string::npos) << hash;
    }
}

// Each command line's exit status and standard error.
TEST(Driver, ExitStatusesAndMessages) {
    testsupport::TempDir dir;
    const std::string file = (dir / "a.txt").string(), dead = kDeadDisplay;
    testsupport::writeFile(file, "a");
    const std::string noConnection = "Could not connect to display: " + dead + "\n";
    const std::string detail = kBanner + "Command line processed\nVerbosity level: 3\nDisplay is: " + dead + "\n";
    const std::tuple<std::vector<std::string>, int, std::string> cases[] = {
        // Command-line errors: banner and usage, exit 0; a quiet transfer command line stays quiet,
        // print mode shows its usage at the default level.
        {{"-get", "onlyone"}, 0, kBanner + kUsage}, {{"-q", "-bogus"}, 0, ""}, {{"-print", "-q", "-bogus"}, 0, kBanner + kUsage},
        // Print mode without files: the usage and 1; the not-found line survives -q.
        {{"-print"}, 1, kBanner + kUsage}, {{"-print", "-q", "/nonexistent/x.txt"}, 1, "\"/nonexistent/x.txt\" file not found\n"},
        // Connection failures by their code; without -display the library falls back on DISPLAY, unset here.
        {{"-display", "no::such::display"}, 1, kBanner + "Could not connect to display: no::such::display, parse error.\n"},
        {{"-print", "-display", "no::such::display", file}, 1, kBanner + "xcb_connection_has_error() returned 5\n"},
        {{"-d", dead}, 1, kBanner + noConnection}, {{"-print", "-d", dead, file}, 1, kBanner + noConnection},
        {{}, 1, kBanner + "Could not connect to display: (null), parse error.\n"}, {{"-q", "-d", dead}, 1, ""},
        // -vv echoes the command line.
        {{"-vv", "-d", dead}, 1, detail + noConnection},
        {{"-print", "-vv", "-d", dead, file}, 1, detail + "1 files to print:\n\t" + file + "\n" + noConnection},
    };
    for (const auto& [args, status, err] : cases) {
        const RunResult r = varoft(args);
        EXPECT_EQ(r.exitCode, status) << testing::PrintToString(args);
        EXPECT_EQ(r.err, err) << testing::PrintToString(args);
        EXPECT_EQ(r.out, "");
    }
    // The banner names the program by its base name; the usage always says varoft.
    EXPECT_EQ(varoft({"-x"}, "/some/where/renamed-tool").err, "renamed-tool" + kBanner.substr(6) + kUsage);
}

// Whatever was planted under the log's name (a file, a symbolic or hard link to a file of
// someone's) is removed, never written through: the log is a new file of this user's, mode 0600.
TEST(Driver, LogFileReceivesExactlyTheShownLines) {
    namespace fs = std::filesystem;
    const fs::path log = "/tmp/varoft.log";
    testsupport::TempDir dir;
    const fs::path victim = dir / "victim";
    for (const std::string plant : {"file", "symlink", "hardlink"}) {
        SCOPED_TRACE(plant);
        fs::remove(log);
        testsupport::writeFile(victim, "not the log's\n");
        if (plant == "file") testsupport::writeFile(log, "left over from an earlier run\n");
        else if (plant == "symlink") fs::create_symlink(victim, log);
        else fs::create_hard_link(victim, log);
        RunResult r = varoft({"-l", "-v", "-d", kDeadDisplay});
        EXPECT_EQ(r.exitCode, 1);
        EXPECT_EQ(testsupport::readFile(victim), "not the log's\n");
        ASSERT_TRUE(fs::is_regular_file(fs::symlink_status(log)));
        EXPECT_EQ(fs::status(log).permissions(), fs::perms::owner_read | fs::perms::owner_write);
        EXPECT_EQ(testsupport::readFile(log), r.err) << "the old file is removed, then every shown line appended";
    }
    varoft({"-l", "-d", kDeadDisplay, "-q"});
    EXPECT_FALSE(fs::exists(log)) << "nothing shown, nothing written";
    // Each line opens the file afresh: a link or a FIFO planted under its name meanwhile is
    // neither written through nor waited for.
    fs::remove(victim);
    testsupport::writeFile(victim, "not the log's\n");
    fs::create_symlink(victim, dir / "link");
    ASSERT_EQ(::mkfifo((dir / "fifo").c_str(), 0600), 0);
    EXPECT_FALSE(platform::appendToLogFile((dir / "link").string(), "line\n"));
    EXPECT_FALSE(platform::appendToLogFile((dir / "fifo").string(), "line\n"));
    EXPECT_EQ(testsupport::readFile(victim), "not the log's\n");
    EXPECT_TRUE(platform::appendToLogFile((dir / "new").string(), "line\n"));
    EXPECT_EQ(testsupport::readFile(dir / "new"), "line\n");
}

// A local path longer than the protocol's 1023-byte fields is refused before connecting: a cut
// path could name an unrelated sibling. Nothing is created, truncated or removed.
TEST(Driver, LocalPathsTooLongForTheProtocolAreRefused) {
    namespace fs = std::filesystem;
    testsupport::TempDir dir;
    std::string cut = dir.str();
    while (cut.size() < 1023) cut += "/" + std::string(std::min<std::size_t>(200, 1023 - cut.size() - 1), 'd');
    ASSERT_EQ(cut.size(), 1023u);
    const std::string longer = cut + "-sibling";
    for (const std::string& path : {cut, longer}) {
        fs::create_directories(path);
        testsupport::writeFile(path + "/keep.txt", "keep");
    }
    for (const auto& args : {std::vector<std::string>{"-getd", "remote", longer}, {"-get", "remote", longer + "/keep.txt"},
                             {"-put", longer + "/keep.txt"}, {"-putd", cut}}) {
        SCOPED_TRACE(args[0]);
        std::vector<std::string> line = args;
        line.insert(line.end(), {"-d", kDeadDisplay});
        const RunResult r = varoft(line);
        // Exactly 1023 bytes go on to the connection.
        const bool fits = args.back() == cut;
        EXPECT_EQ(r.exitCode, fits ? 1 : 0);
        EXPECT_EQ(r.err, kBanner + (fits ? "Could not connect to display: " + kDeadDisplay : args.back() + ": File name too long") + "\n");
        for (const std::string& path : {cut, longer}) EXPECT_EQ(testsupport::readFile(path + "/keep.txt"), "keep");
    }
}

}  // namespace
