// loopback-desktop: the far side on this machine, for demos and manual runs of varoft.
//
//   loopback-desktop [--display N] [--tcp] [--cookie HEX] [--no-file-transfer] [--no-print]
//                    [--no-big-requests] [--folder DIR] [--print-folder DIR] [--chunk-size N]
//                    [--zip-method deflate|store|zstd] [--print-code N [--print-reason TEXT]]
//                    [--refuse KIND] [--send-start] [--script FILE] [--trace] [--once]
//
// It prints "loopback-desktop: serving :N" once clients can connect, then one line per thing
// it receives or sends. SIGINT and SIGTERM stop it at once, in the middle of a transfer too
// (the client is sent an abort); the socket and lock files are removed on the way out.
#include "desktop.h"
#include "x_server.h"

#include <cerrno>
#include <charconv>
#include <csignal>
#include <cstdio>
#include <fstream>
#include <string>
#include <string_view>
#include <thread>

#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <unistd.h>

using namespace std::chrono_literals;

namespace {

// SIGINT and SIGTERM, taken from a signalfd by a thread of their own (they are blocked in every
// thread), so that stopping may lock and wake whatever the desktop waits on.
class StopOnSignal {
public:
    // Blocks the signals for this thread and the threads it starts from now on.
    StopOnSignal() {
        sigemptyset(&signals_);
        sigaddset(&signals_, SIGINT);
        sigaddset(&signals_, SIGTERM);
        pthread_sigmask(SIG_BLOCK, &signals_, nullptr);
        signalFd_ = ::signalfd(-1, &signals_, SFD_CLOEXEC);
        doneFd_ = ::eventfd(0, EFD_CLOEXEC);
    }
    ~StopOnSignal() {
        finish();
        ::close(signalFd_);
        ::close(doneFd_);
    }
    StopOnSignal(const StopOnSignal&) = delete;
    StopOnSignal& operator=(const StopOnSignal&) = delete;

    bool ok() const { return signalFd_ >= 0 && doneFd_ >= 0; }
    // Ends the watching; the desktop may go after this.
    void finish() {
        const std::uint64_t one = 1;
        if (!watcher_.joinable()) return;
        [[maybe_unused]] const ssize_t n = ::write(doneFd_, &one, sizeof one);
        watcher_.join();
    }
    void watch(loopback::Desktop& desktop) {
        watcher_ = std::thread([this, &desktop] {
            pollfd fds[2] = {{signalFd_, POLLIN, 0}, {doneFd_, POLLIN, 0}};
            while (::poll(fds, 2, -1) < 0 && errno == EINTR) {
            }
            if (fds[0].revents & POLLIN) desktop.stop();
        });
    }

private:
    sigset_t signals_{};
    int signalFd_ = -1, doneFd_ = -1;
    std::thread watcher_;
};

void usage() {
    std::fputs(
        "usage: loopback-desktop [--display N] [--tcp] [--cookie HEX] [--no-file-transfer] [--no-print]\n"
        "                        [--no-big-requests] [--folder DIR] [--print-folder DIR] [--chunk-size N]\n"
        "                        [--zip-method deflate|store|zstd] [--print-code N] [--print-reason TEXT]\n"
        "                        [--refuse KIND] [--send-start] [--script FILE] [--trace] [--once]\n",
        stderr);
}

template <typename T>
bool parseNumber(std::string_view text, T& out) {
    const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), out);
    return ec == std::errc() && end == text.data() + text.size();
}

bool parseHex(std::string_view text, std::string& out) {
    if (text.size() % 2 != 0) return false;
    out.clear();
    for (std::size_t i = 0; i < text.size(); i += 2) {
        unsigned value = 0;
        const auto [end, ec] = std::from_chars(text.data() + i, text.data() + i + 2, value, 16);
        if (ec != std::errc() || end != text.data() + i + 2) return false;
        out.push_back(static_cast<char>(value));
    }
    return true;
}

void printLine(const std::string& line) {
    std::printf("desktop: %s\n", line.c_str());
    std::fflush(stdout);
}

}  // namespace

int main(int argc, char** argv) {
    loopback::ServerOptions server;
    loopback::DesktopOptions desktop;
    bool once = false;
    std::string scriptPath;
    for (int i = 1; i < argc; ++i) {
        const std::string_view arg = argv[i];
        const char* value = i + 1 < argc ? argv[i + 1] : nullptr;
        auto needValue = [&] {
            if (!value) {
                std::fprintf(stderr, "loopback-desktop: %s needs a value\n", argv[i]);
                return false;
            }
            ++i;
            return true;
        };
        bool ok = true;
        if (arg == "--display") ok = needValue() && parseNumber(value, server.display) && server.display >= 0;
        else if (arg == "--tcp") server.tcp = true;
        else if (arg == "--cookie") ok = needValue() && parseHex(value, server.cookie);
        else if (arg == "--no-file-transfer") server.fileTransferExtension = false;
        else if (arg == "--no-print") server.printExtension = false;
        else if (arg == "--no-big-requests") server.bigRequests = false;
        else if (arg == "--folder") ok = needValue() && (desktop.folder = value, true);
        else if (arg == "--print-folder") ok = needValue() && (desktop.printFolder = value, true);
        else if (arg == "--chunk-size") ok = needValue() && parseNumber(value, desktop.chunkSize) && desktop.chunkSize > 0;
        else if (arg == "--zip-method") {
            ok = needValue();
            if (ok) {
                const auto method = loopback::parseZipMethod(value);
                ok = method.has_value();
                if (ok) desktop.zipMethod = *method;
            }
        } else if (arg == "--print-code") ok = needValue() && parseNumber(value, desktop.printCode);
        else if (arg == "--print-reason") ok = needValue() && (desktop.printReason = value, true);
        else if (arg == "--refuse") ok = needValue() && parseNumber(value, desktop.refusal) && desktop.refusal >= 13 && desktop.refusal <= 17;
        else if (arg == "--script") ok = needValue() && (scriptPath = value, true);
        else if (arg == "--send-start") desktop.sendStart = true;
        else if (arg == "--trace") desktop.trace = true;
        else if (arg == "--once") once = true;
        else if (arg == "--help" || arg == "-h") {
            usage();
            return 0;
        } else {
            std::fprintf(stderr, "loopback-desktop: unknown option %s\n", argv[i]);
            ok = false;
        }
        if (!ok) {
            usage();
            return 2;
        }
    }
    if (!scriptPath.empty()) {
        std::ifstream in(scriptPath);
        if (!in) {
            std::fprintf(stderr, "loopback-desktop: cannot read %s\n", scriptPath.c_str());
            return 2;
        }
        for (std::string line; std::getline(in, line);) desktop.script.push_back(line);
    }
    desktop.log = printLine;

    StopOnSignal stopper;  // before the server thread starts, so that it inherits the mask
    if (!stopper.ok()) {
        std::fprintf(stderr, "loopback-desktop: cannot watch for signals\n");
        return 1;
    }
    std::string error;
    auto x = loopback::XServer::start(server, &error);
    if (!x) {
        std::fprintf(stderr, "loopback-desktop: %s\n", error.c_str());
        return 1;
    }
    loopback::Desktop far(*x, desktop);
    stopper.watch(far);
    std::printf("loopback-desktop: serving %s (folder %s)\n", x->displayName().c_str(), desktop.folder.c_str());
    std::fflush(stdout);
    while (!far.stopped()) {
        if (far.serveClient(1000ms) && once) break;
    }
    stopper.finish();
    return 0;
}
