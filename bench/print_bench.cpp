// Printing a large PDF through the loopback desktop, beside the lockstep limit of the same
// exchange (see print_lockstep.cpp) and two narrower set-ups that show where the time goes:
// varoft against a minimal single-threaded X server, and the request layer alone (chunks from
// memory) against the loopback X server library. Prints a table of rates and the ratios.
// Usage: print_bench [megabytes] [rounds]
#include <fcntl.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <optional>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "print/print_loop.h"
#include "print/requests.h"
#include "print_answer.h"
#include "print_lockstep.h"
#include "x_server.h"

extern char** environ;

namespace {

using Clock = std::chrono::steady_clock;

constexpr const char* kVaroft = VAROFT_BINARY;
constexpr const char* kLoopbackDesktop = LOOPBACK_DESKTOP_BINARY;

// A PDF-looking file of `size` bytes: the signature, then bytes no text test accepts.
bool writePdf(const std::string& path, std::uint64_t size) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    const std::string head = "%PDF-1.7\n%\xE2\xE3\xCF\xD3\n";
    out.write(head.data(), static_cast<std::streamsize>(head.size()));
    std::vector<char> block(1 << 20);
    std::uint32_t x = 2463534242u;
    for (char& c : block) {
        x ^= x << 13, x ^= x >> 17, x ^= x << 5;
        c = static_cast<char>(x);
    }
    std::uint64_t left = size - head.size();
    while (left > 0) {
        const std::size_t n = left < block.size() ? static_cast<std::size_t>(left) : block.size();
        out.write(block.data(), static_cast<std::streamsize>(n));
        left -= n;
    }
    return static_cast<bool>(out.flush());
}

struct DesktopRun {
    double seconds = -1;     // from start to exit
    double cpuSeconds = 0;   // varoft's own user + system time
};

double toSeconds(const timeval& t) { return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_usec) / 1e6; }

// Accepts print requests until the last chunk; the number of data bytes they carried, or
// nothing when the requests stopped coming.
std::optional<std::uint64_t> acceptAll(loopback::XServer& server) {
    std::uint64_t received = 0;
    for (;;) {
        auto request = server.nextRequest(std::chrono::seconds(30));
        if (!request) return std::nullopt;
        if (request->major != server.printOpcode()) continue;
        const auto& b = request->bytes;
        if (b.size() < kPrintRequestFixedSize) return std::nullopt;
        received += b[8] | (b[9] << 8) | (b[10] << 16) | (static_cast<std::uint32_t>(b[11]) << 24);
        server.sendPrintReply(*request, kPrintAccepted);
        if (b[4] == 0) return received;  // the last chunk
    }
}

// The request layer alone: chunks from memory sent by sendFileBegin / sendFileContinue from a
// thread of this process, answered by the loopback X server. Seconds, negative on failure.
double inProcessSeconds(std::uint64_t size) {
    std::string error;
    auto server = loopback::XServer::start(loopback::ServerOptions{}, &error);
    if (!server) return -1;
    xcb_connection_t* connection = xcb_connect(server->displayName().c_str(), nullptr);
    if (xcb_connection_has_error(connection) || !xcb_get_extension_data(connection, &ThinPrintExtension)) {
        xcb_disconnect(connection);
        return -1;
    }
    std::vector<std::uint8_t> data(kPrintChunkSize, 'x');
    int sent = 0;
    const auto start = Clock::now();
    std::thread client([&] {
        std::uint32_t more = 1;
        std::uint64_t left = size;
        bool first = true;
        for (;;) {
            const std::size_t chunk = left < kPrintChunkSize ? static_cast<std::size_t>(left) : kPrintChunkSize;
            left -= chunk;
            const bool last = chunk < kPrintChunkSize;
            const auto bytes = std::span<const std::uint8_t>(data).first(chunk);
            const int ok = first ? sendFileBegin(connection, "bench.pdf", bytes, !last, more)
                                 : sendFileContinue(connection, bytes, !last, more);
            if (!ok) return;
            first = false;
            if (last) break;
        }
        sent = 1;
    });
    const auto received = acceptAll(*server);
    client.join();
    const auto end = Clock::now();
    xcb_disconnect(connection);
    if (!sent || !received || *received != size) return -1;
    return std::chrono::duration<double>(end - start).count();
}

// Runs varoft on the file with the display given; `answer` accepts every chunk and tells
// whether the job came complete.
template <typename Answer>
DesktopRun timeVaroft(const std::string& varoft, const std::string& display, const std::string& file, Answer answer) {
    std::vector<std::string> args = {varoft, "-print", "-q", "-display", display, file};
    std::vector<char*> argv;
    for (auto& a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    const auto start = Clock::now();
    pid_t pid = -1;
    if (posix_spawn(&pid, varoft.c_str(), nullptr, nullptr, argv.data(), environ) != 0) return {};
    const bool complete = answer();
    int status = 0;
    rusage usage{};
    ::wait4(pid, &status, 0, &usage);
    const auto end = Clock::now();
    if (!complete || !WIFEXITED(status) || WEXITSTATUS(status) != 0) {
        std::fprintf(stderr, "print_bench: the print run on %s failed\n", display.c_str());
        return {};
    }
    return {std::chrono::duration<double>(end - start).count(), toSeconds(usage.ru_utime) + toSeconds(usage.ru_stime)};
}

// The loopback-desktop program as a separate process, keeping the job in its print folder.
DesktopRun throughLoopbackDesktop(const std::string& varoft, const std::string& dir, const std::string& file,
                                  std::uint64_t size) {
    const std::string folder = dir + "/desktop", printFolder = dir + "/printed";
    std::vector<std::string> args = {kLoopbackDesktop, "--folder", folder, "--print-folder", printFolder, "--once"};
    std::vector<char*> argv;
    for (auto& a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    int out[2];
    if (::pipe2(out, O_CLOEXEC) != 0) return {};
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, out[1], 1);
    pid_t desktop = -1;
    const int spawned = posix_spawn(&desktop, kLoopbackDesktop, &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    ::close(out[1]);
    if (spawned != 0) {
        ::close(out[0]);
        return {};
    }
    // "loopback-desktop: serving :N (folder ...)" comes once clients can connect.
    std::string display, seen;
    char c;
    while (display.empty() && ::read(out[0], &c, 1) == 1) {
        if (c != '\n') {
            seen.push_back(c);
            continue;
        }
        const auto at = seen.find("serving :");
        if (at != std::string::npos) display = seen.substr(at + 8, seen.find(' ', at + 8) - (at + 8));
        seen.clear();
    }
    DesktopRun run;
    if (!display.empty()) run = timeVaroft(varoft, display, file, [] { return true; });
    // It ends by itself after its one client; without one it would wait for ever.
    if (run.seconds <= 0) ::kill(desktop, SIGTERM);
    while (::read(out[0], &c, 1) == 1) {
    }
    ::close(out[0]);
    int status = 0;
    ::waitpid(desktop, &status, 0);
    std::error_code ec;
    const auto kept = std::filesystem::file_size(printFolder + "/bench.pdf", ec);
    if (ec || kept != size) {
        std::fprintf(stderr, "print_bench: the loopback desktop did not keep the whole file\n");
        return {};
    }
    return run;
}

// The loopback X server library answering every chunk from this process, nothing kept.
DesktopRun throughLoopbackServer(const std::string& varoft, const std::string& file, std::uint64_t size) {
    std::string error;
    auto server = loopback::XServer::start(loopback::ServerOptions{}, &error);
    if (!server) {
        std::fprintf(stderr, "print_bench: cannot start the X server: %s\n", error.c_str());
        return {};
    }
    return timeVaroft(varoft, server->displayName(), file, [&] {
        const auto received = acceptAll(*server);
        return received && *received == size;
    });
}

DesktopRun throughMinimalAnswerer(const std::string& varoft, const std::string& file) {
    const MinimalAnswerer answerer = startMinimalAnswerer();
    if (answerer.pid <= 0) return {};
    return timeVaroft(varoft, ":" + std::to_string(answerer.display), file,
                      [&] { return finishMinimalAnswerer(answerer); });
}

}  // namespace

// The fastest of several rounds of each measurement, taken in turns so that a burst of load
// from elsewhere does not fall on one measurement only.
struct Best {
    double seconds = 0;
    double cpuSeconds = 0;
    bool failed = false;
    void add(double wall, double cpu = 0) {
        if (wall <= 0) failed = true;
        else if (seconds == 0 || wall < seconds) seconds = wall, cpuSeconds = cpu;
    }
};

int main(int argc, char** argv) {
    const std::string varoft = kVaroft;
    const std::uint64_t size = (argc > 1 ? std::strtoull(argv[1], nullptr, 10) : 100) * 1024 * 1024;
    const int rounds = argc > 2 ? std::atoi(argv[2]) : 5;
    if (size == 0 || rounds < 1) {
        std::fprintf(stderr, "usage: print_bench [megabytes] [rounds]\n");
        return 2;
    }

    char dirTemplate[] = "/tmp/varoft-print-bench-XXXXXX";
    if (!::mkdtemp(dirTemplate)) return 1;
    const std::string dir = dirTemplate;
    const std::string file = dir + "/bench.pdf";
    if (!writePdf(file, size)) return 1;

    Best limit, minimal, requestLayer, server, desktop;
    for (int round = 0; round < rounds; ++round) {
        limit.add(lockstepSeconds(size));
        const DesktopRun m = throughMinimalAnswerer(varoft, file);
        minimal.add(m.seconds, m.cpuSeconds);
        requestLayer.add(inProcessSeconds(size));
        const DesktopRun x = throughLoopbackServer(varoft, file, size);
        server.add(x.seconds, x.cpuSeconds);
        const DesktopRun d = throughLoopbackDesktop(varoft, dir, file, size);
        desktop.add(d.seconds, d.cpuSeconds);
    }
    std::error_code ec;
    std::filesystem::remove_all(dir, ec);
    if (limit.failed || minimal.failed || requestLayer.failed || server.failed || desktop.failed) return 1;

    std::printf("best of %d rounds\n", rounds);
    std::printf("%-34s %12s %9s %9s %7s\n", "run", "bytes", "seconds", "MB/s", "limit");
    const auto line = [&](const char* name, double seconds) {
        std::printf("%-34s %12llu %9.3f %9.1f %6.1f%%\n", name, static_cast<unsigned long long>(size), seconds,
                    static_cast<double>(size) / 1e6 / seconds, 100.0 * limit.seconds / seconds);
    };
    line("lockstep limit (two processes)", limit.seconds);
    line("varoft -print, minimal X server", minimal.seconds);
    line("request layer, loopback X server", requestLayer.seconds);
    line("varoft -print, loopback X server", server.seconds);
    line("varoft -print, loopback-desktop", desktop.seconds);
    std::printf("varoft's own CPU time: %.3f s (minimal X), %.3f s (loopback-desktop)\n", minimal.cpuSeconds,
                desktop.cpuSeconds);
    return 0;
}
