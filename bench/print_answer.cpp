#include "bench_support.h"
#include "minimal_x.h"
#include "print_answer.h"

#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string_view>
#include <vector>

#include "common/bytes.h"
#include "print/print_loop.h"
#include "print/requests.h"

namespace {

using bench::readAll;

constexpr std::uint8_t kMajor = 141;

bool writeAll(int fd, const std::vector<std::uint8_t>& out) { return bench::writeAll(fd, out.data(), out.size()); }

// Serves one client; true when its last print chunk was answered.
bool serve(int fd) {
    if (!bench::answerSetup(fd)) return false;
    std::vector<std::uint8_t> request(0x40000);
    std::uint16_t sequence = 0;
    bool complete = false;
    for (;;) {
        if (!readAll(fd, request.data(), 4)) return complete;
        ++sequence;
        const std::size_t units = bytes::get16(request, 2);
        if (units == 0 || units * 4 > request.size() || !readAll(fd, request.data() + 4, units * 4 - 4)) return false;
        std::vector<std::uint8_t> out;
        if (request[0] == bench::kQueryExtension) {
            out = bench::queryExtensionReply(std::span(request).first(units * 4), sequence, kThinPrintExtensionName, kMajor);
        } else if (request[0] == kMajor) {
            out = encodePrintReply(kPrintAccepted, sequence, {});
            if (request[4] == 0) complete = true;
        } else {
            bytes::Writer(out).u8(0).u8(1).u16(sequence).u32(0).u16(request[1]).u8(request[0]).zeros(21);
        }
        if (!writeAll(fd, out)) return false;
    }
}

}  // namespace

MinimalAnswerer startMinimalAnswerer() {
    MinimalAnswerer answerer;
    const int listener = bench::listenOnFreeDisplay(answerer.display);
    if (listener < 0) return answerer;
    answerer.pid = ::fork();
    if (answerer.pid == 0) {
        ::alarm(120);  // never outlive a benchmark that went wrong
        const int client = ::accept(listener, nullptr, nullptr);
        bench::removeDisplaySocket(answerer.display);
        ::_exit(client >= 0 && serve(client) ? 0 : 1);
    }
    ::close(listener);
    return answerer;
}

bool finishMinimalAnswerer(const MinimalAnswerer& answerer) {
    int status = 0;
    if (answerer.pid <= 0 || ::waitpid(answerer.pid, &status, 0) != answerer.pid) return false;
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}
