// varoft against the loopback desktop once through a pipe and once on a pseudo-terminal, in every
// mode: the pipe gets the documented lines and nothing else; the terminal gets the same lines
// intact, with the display's own lines (a summary, the desktop's actions) between them.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>

#include "common/terminal_progress.h"
#include "support/loopback_desktop.h"
#include "support/process.h"
#include "support/temp_dir.h"

namespace {

// Everything varoft wrote to standard output and standard error, a terminal `columns` wide.
std::string runOnTerminal(const std::vector<std::string>& args, unsigned short columns) {
    const int master = ::posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
    if (master < 0 || ::grantpt(master) != 0 || ::unlockpt(master) != 0) return "no terminal";
    const winsize size{24, columns, 0, 0};
    ::ioctl(master, TIOCSWINSZ, &size);
    const std::string program = testsupport::varoftBinary();
    std::vector<char*> argv = {const_cast<char*>(program.c_str())};
    for (const auto& a : args) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    const pid_t pid = ::fork();
    if (pid == 0) {
        const int slave = ::open(::ptsname(master), O_RDWR | O_NOCTTY), none = ::open("/dev/null", O_RDONLY);
        ::dup2(none, 0), ::dup2(slave, 1), ::dup2(slave, 2);
        ::setenv("TERM", "xterm", 1), ::unsetenv("NO_COLOR");
        ::execv(argv[0], argv.data());
        ::_exit(127);
    }
    std::string text;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(120);
    for (bool exited = pid <= 0; std::chrono::steady_clock::now() < deadline;) {
        pollfd fd{master, POLLIN, 0};
        char buffer[4096];
        const ssize_t n = ::poll(&fd, 1, 50) > 0 ? ::read(master, buffer, sizeof buffer) : 0;
        if (n > 0) text.append(buffer, static_cast<std::size_t>(n));
        else if (exited) break;  // drained: the slave is gone (EIO) or nothing more came
        exited = exited || ::waitpid(pid, nullptr, WNOHANG) == pid;
    }
    ::close(master);
    return text;
}

struct Split {
    std::string documented;          // what a pipe must get byte for byte
    std::string display;             // the display's whole lines
    std::vector<std::string> drawn;  // each progress line drawn over itself
};

// A progress line is '\r', the line and an erase to the end; it must be cleared ("\r" and an
// erase) or drawn again before anything else is written, or it stays in the documented text.
Split split(const std::string& raw) {
    Split out;
    std::string text;
    for (std::size_t i = 0, erase = 0; i < raw.size();) {
        if (raw.compare(i, 2, "\r\n") == 0) {
            text += '\n', i += 2;
        } else if (raw[i] == '\r' && (erase = raw.find("\x1b[K", i)) != std::string::npos &&
                   raw.find_first_of("\r\n", i + 1) >= erase && (erase == i + 1 || raw.compare(erase + 3, 1, "\r") == 0)) {
            if (erase > i + 1) out.drawn.push_back(raw.substr(i + 1, erase - i - 1));
            i = erase + 3;
        } else {
            text += raw[i++];
        }
    }
    const std::regex ours(" in [0-9.:]+ s|^desktop |^hint: ");
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);)
        (std::regex_search(line, ours) ? out.display : out.documented) += line + "\n";
    return out;
}

TEST(TerminalRun, PipeGetsOnlyTheDocumentedLinesTerminalAlsoTheDisplays) {
    testsupport::TempDir dir;
    const std::string d = dir.str();
    for (const char* sub : {"desk/tree/sub", "mine/docs"}) std::filesystem::create_directories(dir / sub);
    testsupport::writeFile(dir / "desk" / "tree" / "sub" / "a.txt", "a\n");
    testsupport::writeFile(dir / "desk" / "note.txt", "note\n");
    { std::ofstream{dir / "desk" / "big.bin"}; }
    std::filesystem::resize_file(dir / "desk" / "big.bin", 128 << 20);  // sparse, long enough to draw
    testsupport::writeFile(dir / "mine" / "docs" / "b.txt", std::string(100000, 'b'));
    loopback::DesktopOptions options;
    options.folder = dir / "desk";
    options.chunkSize = 4096;
    options.script = {"list " + d, "fetch " + d + "/mine/docs/b.txt", "store " + d + "/s.txt note.txt",
                      "rename " + d + "/s.txt " + d + "/r.txt", "delete " + d + "/r.txt", "close"};
    testsupport::LoopbackDesktop desktop(options);
    ASSERT_TRUE(desktop.ok()) << desktop.error();

    const std::string banner = "varoft - Varo File Transfer and Remote Print Utility, Version 12.5\n\n";
    const std::string completed = banner + "File Transfer completed.\n", summary = "^[0-9.]+ [KMG]?i?B in [0-9.]+ s(, .*/s)?\n$";
    // In the arguments "@" stands for "pipe" or "tty"; under -v only how the documented text ends is
    // given; the display's lines are a pattern.
    struct Row { const char* name; std::vector<std::string> args; std::string documented, display; };
    const Row rows[] = {
        {"put", {"-put", d + "/mine/docs/b.txt", "up-@.txt"}, completed, summary},
        // -v: every line logged while a progress line is drawn clears it first
        {"get", {"-v", "-get", "big.bin", d + "/got-@.bin"}, "File Transfer completed.\n", summary},
        {"putd", {"-putd", d + "/mine", "mine-@"}, completed, summary},
        {"getd", {"-getd", "tree", d + "/tree-@"}, completed, "^[0-9.]+ B in [0-9.]+ s"},
        {"print", {"-print", d + "/desk/note.txt"}, banner, "^" + d + "/desk/note.txt: 5 B in [0-9.]+ s"},
        {"bare target", {"-getd", "tree", "bare"}, banner + "Wrong local path: bare \n", "^hint: .* use ./bare\n$"},
        {"quiet", {"-q", "-put", d + "/mine/docs/b.txt", "quiet-@.txt"}, "", "^$"},
        {"session", {}, banner + "File Transfer session was closed.\n",
         "^desktop listed " + d + "\ndesktop fetched .*/b.txt \\(97.7 KiB in .*\\)\ndesktop stored .*/s.txt \\(5 B in .*\\)\n"
         "desktop renamed .*/s.txt -> .*/r.txt\ndesktop deleted .*/r.txt\n$"},
    };
    for (const Row& row : rows) {
        const auto with = [&](const char* run) {
            std::vector<std::string> args = {"-display", desktop.server().displayName()};
            for (const auto& a : row.args) args.push_back(std::regex_replace(a, std::regex("@"), run));
            return args;
        };
        testsupport::RunOptions piped;
        piped.args = with("pipe");
        const testsupport::RunResult pipe = testsupport::run(testsupport::varoftBinary(), piped);
        const bool verbose = !row.args.empty() && row.args[0] == "-v";
        EXPECT_TRUE(pipe.err.ends_with(row.documented) && (verbose || pipe.err == row.documented)) << row.name;
        EXPECT_EQ(pipe.out, "");
        const Split tty = split(runOnTerminal(with("tty"), 40));
        const std::size_t same = static_cast<std::size_t>(
            std::mismatch(pipe.err.begin(), pipe.err.end(), tty.documented.begin(), tty.documented.end()).first - pipe.err.begin());
        EXPECT_EQ(tty.documented.substr(same, 200), pipe.err.substr(same, 200)) << row.name << " on the terminal, byte " << same;
        EXPECT_TRUE(std::regex_search(tty.display, std::regex(row.display))) << row.name << ": " << tty.display;
        for (const std::string& line : tty.drawn) EXPECT_LT(terminal::displayWidth(line), 40u) << line;
        const bool drawnWithTotal = !tty.drawn.empty() && tty.drawn[0].find('%') != std::string::npos;
        EXPECT_TRUE(drawnWithTotal || row.name != std::string_view("get")) << "a -get draws its line, with the total";
    }
}

}  // namespace
