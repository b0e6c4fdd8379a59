// The program as a user meets it: banner, usage, connection failures and exit codes, run as a
// child process.
#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "support/process.h"
#include "support/temp_dir.h"
#include "support/xvfb.h"

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

RunResult varoft(std::vector<std::string> args, std::map<std::string, std::optional<std::string>> env = {}) {
    RunOptions options;
    options.args = std::move(args);
    options.env = std::move(env);
    options.env.emplace("DISPLAY", std::nullopt);
    return testsupport::run(testsupport::varoftBinary(), options);
}

TEST(Driver, VersionGoesToStandardOutputAlone) {
    for (auto args : {std::vector<std::string>{"--version"}, std::vector<std::string>{"-print", "--version"},
                      std::vector<std::string>{"-v", "--version", "-bogus"}}) {
        const RunResult r = varoft(args);
        EXPECT_EQ(r.exitCode, 0);
        EXPECT_EQ(r.err, "");
        ASSERT_EQ(r.out.size(), std::string("varoft    Version 12.5.3.9413, GitHash ").size() + 12) << r.out;
        EXPECT_EQ(r.out.rfind("varoft    Version 12.5.3.9413, GitHash ", 0), 0u) << r.out;
        const std::string hash = r.out.substr(r.out.size() - 12, 11);
        EXPECT_EQ(hash.find_first_not_of("0123456789abcdef"), std::string::npos) << hash;
    }
}

TEST(Driver, CommandLineErrorsShowBannerAndUsageAndExitZero) {
    for (auto args : {std::vector<std::string>{"-get", "onlyone"}, std::vector<std::string>{"plain"},
                      std::vector<std::string>{"-print", "-x", "a.txt"}, std::vector<std::string>{"-print", "-l"}}) {
        const RunResult r = varoft(args);
        EXPECT_EQ(r.exitCode, 0);
        EXPECT_EQ(r.err, kBanner + kUsage);
        EXPECT_EQ(r.out, "");
    }
    // A quiet command line that fails keeps its quietness in transfer mode...
    EXPECT_EQ(varoft({"-q", "-bogus"}).err, "");
    // ...while print mode shows the usage at the default level.
    EXPECT_EQ(varoft({"-print", "-q", "-bogus"}).err, kBanner + kUsage);
}

TEST(Driver, BannerNamesTheProgramByItsBaseName) {
    RunOptions options;
    options.argv0 = "/some/where/renamed-tool";
    options.args = {"-x"};
    const RunResult r = testsupport::run(testsupport::varoftBinary(), options);
    EXPECT_EQ(r.err.rfind("renamed-tool - Varo File Transfer", 0), 0u) << r.err;
    // The usage text always says varoft.
    EXPECT_NE(r.err.find("Usage:  varoft [OPTION]"), std::string::npos);
}

TEST(Driver, PrintModeWithoutFilesShowsUsageAndExitsOne) {
    RunResult r = varoft({"-print"});
    EXPECT_EQ(r.exitCode, 1);
    EXPECT_EQ(r.err, kBanner + kUsage);

    r = varoft({"-print", "-q", "/nonexistent/x.txt"});
    EXPECT_EQ(r.exitCode, 1);
    EXPECT_EQ(r.err, "\"/nonexistent/x.txt\" file not found\n") << "the not-found line survives -q";
}

TEST(Driver, ConnectionFailuresAreReportedByCode) {
    RunResult r = varoft({"-display", "no::such::display"});
    EXPECT_EQ(r.exitCode, 1);
    EXPECT_EQ(r.err, kBanner + "Could not connect to display: no::such::display, parse error.\n");

    r = varoft({"-print", "-display", "no::such::display", "/etc/hostname"});
    EXPECT_EQ(r.exitCode, 1);
    EXPECT_EQ(r.err, kBanner + "xcb_connection_has_error() returned 5\n");

    r = varoft({"-d", kDeadDisplay});
    EXPECT_EQ(r.exitCode, 1);
    EXPECT_EQ(r.err, kBanner + "Could not connect to display: " + kDeadDisplay + "\n");

    r = varoft({"-print", "-d", kDeadDisplay, "/etc/hostname"});
    EXPECT_EQ(r.exitCode, 1);
    EXPECT_EQ(r.err, kBanner + "Could not connect to display: " + kDeadDisplay + "\n");

    // Without -display the library falls back on DISPLAY, here unset.
    r = varoft({});
    EXPECT_EQ(r.exitCode, 1);
    EXPECT_EQ(r.err, kBanner + "Could not connect to display: (null), parse error.\n");

    r = varoft({"-q", "-d", kDeadDisplay});
    EXPECT_EQ(r.exitCode, 1);
    EXPECT_EQ(r.err, "") << "a quiet run fails silently";
}

TEST(Driver, DetailLevelsEchoTheCommandLine) {
    testsupport::TempDir dir;
    testsupport::writeFile(dir / "a.txt", "a");
    RunResult r = varoft({"-vv", "-d", kDeadDisplay});
    EXPECT_EQ(r.err, kBanner + "Command line processed\nVerbosity level: 3\nDisplay is: " + kDeadDisplay +
                         "\nCould not connect to display: " + kDeadDisplay + "\n");

    const std::string file = (dir / "a.txt").string();
    r = varoft({"-print", "-vv", "-d", kDeadDisplay, file});
    EXPECT_EQ(r.err, kBanner + "Command line processed\nVerbosity level: 3\nDisplay is: " + kDeadDisplay +
                         "\n1 files to print:\n\t" + file + "\nCould not connect to display: " + kDeadDisplay + "\n");
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
    const RunResult r = varoft({"-l", "-d", kDeadDisplay, "-q"});
    EXPECT_FALSE(std::filesystem::exists(log)) << "nothing shown, nothing written";
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
                             {"-put", longer + "/keep.txt"}}) {
        SCOPED_TRACE(args[0]);
        std::vector<std::string> line = args;
        line.insert(line.end(), {"-d", kDeadDisplay});
        RunOptions options;
        options.args = line;
        options.input = "y";
        const RunResult r = testsupport::run(testsupport::varoftBinary(), options);
        EXPECT_EQ(r.exitCode, 0);
        EXPECT_EQ(r.err, kBanner + args.back() + ": File name too long\n");
        for (const std::string& path : {cut, longer}) EXPECT_EQ(testsupport::readFile(path + "/keep.txt"), "keep");
    }
}

// A real X server that has neither vendor extension answers the lookup with "not present". Only
// a lookup that fails counts as a missing extension, so the run goes on until its first request
// of the absent extension breaks the connection, and ends normally.
TEST(Driver, ServerWithoutTheExtensions) {
    testsupport::Xvfb xvfb;
    if (!xvfb.running()) GTEST_SKIP() << xvfb.error();

    RunResult r = varoft({"-d", xvfb.displayName()});
    EXPECT_EQ(r.exitCode, 0);
    EXPECT_EQ(r.err, kBanner);

    r = varoft({"-print", "-d", xvfb.displayName(), "/etc/hostname"});
    EXPECT_EQ(r.exitCode, 0);
    EXPECT_EQ(r.err.rfind(kBanner, 0), 0u) << r.err;

    // DISPLAY is used when no -display is given.
    RunOptions options;
    options.env["DISPLAY"] = xvfb.displayName();
    r = testsupport::run(testsupport::varoftBinary(), options);
    EXPECT_EQ(r.exitCode, 0);
    EXPECT_EQ(r.err, kBanner);
}

TEST(Driver, WrongCookieIsAConnectionFailure) {
    testsupport::TempDir dir;
    const std::string serverAuth = (dir / "server.auth").string();
    // The server accepts every cookie of its -auth file, whatever display an entry names.
    testsupport::writeXauthority(serverAuth, 0, "0123456789abcdef");
    testsupport::Xvfb xvfb("-auth " + serverAuth);
    if (!xvfb.running()) GTEST_SKIP() << xvfb.error();
    const int display = std::stoi(xvfb.displayName().substr(1));

    const std::string wrong = (dir / "wrong.auth").string();
    testsupport::writeXauthority(wrong, display, "fedcba9876543210");
    RunResult r = varoft({"-d", xvfb.displayName()}, {{"XAUTHORITY", wrong}});
    EXPECT_EQ(r.exitCode, 1);
    // Between the two lines libxcb itself prints the reason the server gave for refusing.
    EXPECT_EQ(r.err.rfind(kBanner, 0), 0u) << r.err;
    const std::string failure = "Could not connect to display: " + xvfb.displayName() + "\n";
    ASSERT_GE(r.err.size(), failure.size());
    EXPECT_EQ(r.err.substr(r.err.size() - failure.size()), failure);

    const std::string right = (dir / "right.auth").string();
    testsupport::writeXauthority(right, display, "0123456789abcdef");
    r = varoft({"-d", xvfb.displayName()}, {{"XAUTHORITY", right}});
    EXPECT_EQ(r.exitCode, 0) << r.err;
}

}  // namespace
