// The lockstep limit of printing: two minimal processes exchange the same requests a print job
// makes (60000-byte chunks, each answered by a 32-byte reply before the next goes) over a Unix
// socket, with the data in memory. No X, no disk: what is left is the round trips and copies.
#include "bench_support.h"
#include "print_lockstep.h"

#include <sys/socket.h>
#include <sys/uio.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <vector>

#include "common/bytes.h"
#include "print/print_loop.h"
#include "print/requests.h"

namespace {

using bench::readAll;

bool writeAll(int fd, iovec* parts, int count) {
    while (count > 0) {
        ssize_t n = ::writev(fd, parts, count);
        if (n <= 0) return false;
        while (count > 0 && static_cast<std::size_t>(n) >= parts->iov_len) {
            n -= static_cast<ssize_t>(parts->iov_len);
            ++parts;
            --count;
        }
        if (count > 0) {
            parts->iov_base = static_cast<std::uint8_t*>(parts->iov_base) + n;
            parts->iov_len -= static_cast<std::size_t>(n);
        }
    }
    return true;
}

// The answering side: reads each request whole and answers code 0 until the last chunk.
[[noreturn]] void answer(int fd) {
    std::vector<std::uint8_t> body(kPrintChunkSize + 4096);
    std::uint16_t sequence = 0;
    for (;;) {
        std::uint8_t header[4];
        if (!readAll(fd, header, 4)) ::_exit(1);
        const std::size_t units = bytes::get16(header, 2);
        if (units < 3 || units * 4 - 4 > body.size() || !readAll(fd, body.data(), units * 4 - 4)) ::_exit(1);
        const bool last = body[0] == 0;  // partial / more
        auto reply = encodePrintReply(kPrintAccepted, ++sequence, {});
        iovec part{reply.data(), reply.size()};
        if (!writeAll(fd, &part, 1)) ::_exit(1);
        if (last) ::_exit(0);
    }
}

}  // namespace

double lockstepSeconds(std::uint64_t totalBytes) {
    int fds[2];
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds) != 0) return -1;
    const pid_t child = ::fork();
    if (child == 0) {
        ::close(fds[0]);
        answer(fds[1]);
    }
    ::close(fds[1]);
    const int fd = fds[0];
    std::vector<std::uint8_t> data(kPrintChunkSize, 'x');
    const std::string name = "bench.pdf";

    const auto start = std::chrono::steady_clock::now();
    std::uint64_t left = totalBytes;
    bool first = true, ok = true;
    for (;;) {
        const std::size_t chunk = left < kPrintChunkSize ? static_cast<std::size_t>(left) : kPrintChunkSize;
        left -= chunk;
        // As the program sees it: the end is known only after a read comes back short.
        const bool last = chunk < kPrintChunkSize;
        PrintRequestFixed fixed = first ? encodeFileBeginFixed(0x80, !last, static_cast<std::uint16_t>(name.size()),
                                                                static_cast<std::uint32_t>(chunk))
                                        : encodeFileContinueFixed(0x80, !last, static_cast<std::uint32_t>(chunk));
        static const std::uint8_t zeros[4] = {};
        const std::size_t nameLength = first ? name.size() : 0;
        iovec parts[4] = {{fixed.data(), fixed.size()},
                          {const_cast<char*>(name.data()), nameLength},
                          {data.data(), chunk},
                          {const_cast<std::uint8_t*>(zeros), printRequestPadding(nameLength, chunk)}};
        std::uint8_t reply[kPrintReplyHeaderSize];
        if (!writeAll(fd, parts, 4) || !readAll(fd, reply, sizeof reply)) {
            ok = false;
            break;
        }
        first = false;
        if (last) break;
    }
    const auto end = std::chrono::steady_clock::now();
    ::close(fd);
    int status = 0;
    ::waitpid(child, &status, 0);
    if (!ok || !WIFEXITED(status) || WEXITSTATUS(status) != 0) return -1;
    return std::chrono::duration<double>(end - start).count();
}
