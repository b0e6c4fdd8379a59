#include "bench_support.h"
#include "minimal_x.h"
#include "print_answer.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <string_view>
#include <vector>

#include "common/bytes.h"
#include "print/print_loop.h"
#include "print/requests.h"

namespace {

using bench::readAll;

constexpr std::uint8_t kMajor = 141;

bool writeAll(int fd, const std::vector<std::uint8_t>& out) { return bench::writeAll(fd, out.data(), out.size()); }

// Serves one client; the seconds from its first print request to the answer to its last chunk,
// negative when that never came.
double serve(int fd) {
    if (!bench::answerSetup(fd)) return -1;
    std::chrono::steady_clock::time_point start{}, end{};
    std::vector<std::uint8_t> request(0x40000);
    std::uint16_t sequence = 0;
    bool complete = false;
    for (;;) {
        if (!readAll(fd, request.data(), 4)) return complete ? std::chrono::duration<double>(end - start).count() : -1;
        ++sequence;
        const std::size_t units = bytes::get16(request, 2);
        if (units == 0 || units * 4 > request.size() || !readAll(fd, request.data() + 4, units * 4 - 4)) return -1;
        std::vector<std::uint8_t> out;
        if (request[0] == bench::kQueryExtension) {
            out = bench::queryExtensionReply(std::span(request).first(units * 4), sequence, kThinPrintExtensionName, kMajor);
        } else if (request[0] == kMajor) {
            if (start == std::chrono::steady_clock::time_point{}) start = std::chrono::steady_clock::now();
            out = encodePrintReply(kPrintAccepted, sequence, {});
            complete = request[4] == 0;
        } else {
            bytes::Writer(out).u8(0).u8(1).u16(sequence).u32(0).u16(request[1]).u8(request[0]).zeros(21);
        }
        if (!writeAll(fd, out)) return -1;
        if (complete) end = std::chrono::steady_clock::now();
    }
}

}  // namespace

MinimalAnswerer startMinimalAnswerer() {
    MinimalAnswerer answerer;
    int result[2];
    if (::pipe2(result, O_CLOEXEC) != 0) return answerer;
    const int listener = bench::listenOnFreeDisplay(answerer.display);
    if (listener >= 0) answerer.pid = ::fork();
    if (answerer.pid == 0) {
        ::alarm(120);  // never outlive a benchmark that went wrong
        const int client = ::accept(listener, nullptr, nullptr);
        bench::removeDisplaySocket(answerer.display);
        const double seconds = client >= 0 ? serve(client) : -1;
        ::_exit(bench::writeAll(result[1], reinterpret_cast<const std::uint8_t*>(&seconds), sizeof seconds) ? 0 : 1);
    }
    if (listener >= 0) ::close(listener);
    ::close(result[1]);
    answerer.resultFd = result[0];
    return answerer;
}

double finishMinimalAnswerer(const MinimalAnswerer& answerer) {
    double seconds = -1;
    const bool got = bench::readAll(answerer.resultFd, reinterpret_cast<std::uint8_t*>(&seconds), sizeof seconds);
    ::close(answerer.resultFd);
    int status = 0;
    if (answerer.pid <= 0 || ::waitpid(answerer.pid, &status, 0) != answerer.pid) return -1;
    return got && WIFEXITED(status) && WEXITSTATUS(status) == 0 ? seconds : -1;
}
