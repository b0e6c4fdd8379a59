#include "transfer_answer.h"

#include "bench_support.h"
#include "minimal_x.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "common/bytes.h"

namespace bench {

namespace {

constexpr const char* kExtensionName = "QRV_ThinFileTransfer12";
constexpr std::uint8_t kMajor = 140;
constexpr std::uint8_t kReplyMinor = 115;
constexpr std::uint16_t kTransferRequestEvent = 90;
constexpr std::size_t kChunk = 131072;

// A TransferRequest generic event, with its sequence number left 0 (filled before each send).
std::vector<std::uint8_t> transferEvent(std::uint8_t direction, std::uint8_t kind, std::uint64_t size,
                                        std::string_view a, std::string_view b, std::size_t dataLength) {
    std::vector<std::uint8_t> payload;
    bytes::Writer(payload)
        .u8(direction).u8(1).u8(0).u8(kind).u64(size)
        .u16(static_cast<std::uint16_t>(a.size())).u16(static_cast<std::uint16_t>(b.size()))
        .u32(static_cast<std::uint32_t>(dataLength)).raw(a).raw(b);
    for (std::size_t i = 0; i < dataLength; ++i) payload.push_back(static_cast<std::uint8_t>(i * 131 + 7));
    bytes::Writer(payload).pad4();
    std::vector<std::uint8_t> event;
    bytes::Writer(event).u8(35).u8(kMajor).u16(0).u32(static_cast<std::uint32_t>(payload.size() / 4))
        .u16(kTransferRequestEvent).zeros(22).raw(payload);
    return event;
}

bool send(int fd, std::vector<std::uint8_t>& event, std::uint16_t sequence) {
    bytes::put16(event, 2, sequence);
    return writeAll(fd, event.data(), event.size());
}

struct Result {
    double seconds = -1;
    std::uint64_t bytes = 0;
};

// Serves one client. Requests are read into one buffer in as few reads as the socket allows
// and handled where they lie.
Result serve(int fd, bool get, std::uint64_t size) {
    Result result;
    if (!answerSetup(fd)) return result;
    std::vector<std::uint8_t> buffer(4 * kChunk);
    std::size_t have = 0;
    std::uint16_t sequence = 0;
    bool announced = false, ended = false;
    std::chrono::steady_clock::time_point start{};
    std::string nameA, nameB;
    std::vector<std::uint8_t> ask, fullChunk;  // get: ask is the closing kind-8 event
    std::uint64_t sent = 0;
    for (;;) {
        const ssize_t got = ::read(fd, buffer.data() + have, buffer.size() - have);
        if (got < 0) return result;
        if (got == 0) break;
        have += static_cast<std::size_t>(got);
        std::size_t at = 0;
        while (have - at >= 4) {
            const std::size_t length = std::size_t{bytes::get16(std::span(buffer).subspan(at), 2)} * 4;
            if (length < 4 || length > buffer.size()) return result;
            if (have - at < length) break;
            const auto request = std::span<const std::uint8_t>(buffer).subspan(at, length);
            at += length;
            ++sequence;
            std::vector<std::uint8_t> out;
            if (request[0] == kQueryExtension) {
                out = queryExtensionReply(request, sequence, kExtensionName, kMajor);
            } else if (request[0] != kMajor) {
                bytes::Writer(out).u8(0).u8(1).u16(sequence).u32(0).u16(request[1]).u8(request[0]).zeros(21);
            } else if (request[1] == kReplyMinor && length >= 24) {
                const std::uint8_t kind = request[7];
                if (kind == 10 && !announced) {
                    announced = true;
                    start = std::chrono::steady_clock::now();
                    const std::size_t lengthA = bytes::get16(request, 16), lengthB = bytes::get16(request, 18);
                    if (24 + lengthA + lengthB > length) return result;
                    nameA.assign(reinterpret_cast<const char*>(request.data() + 24), lengthA);
                    nameB.assign(reinterpret_cast<const char*>(request.data() + 24 + lengthA), lengthB);
                    ask = get ? transferEvent(2, 8, size, nameA, nameB, 0) : transferEvent(1, 5, 0, nameA, nameB, 0);
                    if (get) fullChunk = transferEvent(2, 4, size, nameA, nameB, kChunk);
                } else if (!get && kind == 4) {
                    result.bytes += bytes::get32(request, 20);
                } else if (!get && kind == 8) {
                    ended = true;
                    continue;
                } else if (!(get && kind == 5)) {
                    continue;
                }
                if (!get) {
                    if (!send(fd, ask, sequence)) return result;
                } else if (sent < size) {
                    const std::size_t n = static_cast<std::size_t>(std::min<std::uint64_t>(kChunk, size - sent));
                    sent += n;
                    if (n < kChunk) fullChunk = transferEvent(2, 4, size, nameA, nameB, n);  // the last one
                    if (!send(fd, fullChunk, sequence)) return result;
                } else if (!ended) {
                    ended = true;
                    result.bytes = sent;
                    if (!send(fd, ask, sequence)) return result;
                }
            }
            if (!out.empty() && !writeAll(fd, out.data(), out.size())) return result;
        }
        if (at > 0) {
            std::memmove(buffer.data(), buffer.data() + at, have - at);
            have -= at;
        }
    }
    if (announced && ended)
        result.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    return result;
}

}  // namespace

TransferAnswerer startTransferAnswerer(bool get, std::uint64_t size) {
    TransferAnswerer answerer;
    int pipeFds[2];
    if (::pipe2(pipeFds, O_CLOEXEC) != 0) return answerer;
    const int listener = listenOnFreeDisplay(answerer.display);
    if (listener >= 0) answerer.pid = ::fork();
    if (answerer.pid == 0) {
        ::alarm(300);  // never outlive a benchmark that went wrong
        const int client = ::accept(listener, nullptr, nullptr);
        removeDisplaySocket(answerer.display);
        const Result r = client >= 0 ? serve(client, get, size) : Result{};
        char line[64];
        const int n = std::snprintf(line, sizeof line, "%.9f %llu\n", r.seconds, static_cast<unsigned long long>(r.bytes));
        ::_exit(writeAll(pipeFds[1], reinterpret_cast<const std::uint8_t*>(line), static_cast<std::size_t>(n)) ? 0 : 1);
    }
    if (listener >= 0) ::close(listener);
    ::close(pipeFds[1]);
    answerer.resultFd = pipeFds[0];
    if (answerer.pid < 0) {
        ::close(pipeFds[0]);
        answerer.resultFd = -1;
    }
    return answerer;
}

double finishTransferAnswerer(const TransferAnswerer& answerer, std::uint64_t size) {
    if (answerer.pid <= 0) return -1;
    std::string text;
    char c;
    while (::read(answerer.resultFd, &c, 1) == 1) text.push_back(c);
    ::close(answerer.resultFd);
    int status = 0;
    if (::waitpid(answerer.pid, &status, 0) != answerer.pid || !WIFEXITED(status) || WEXITSTATUS(status) != 0) return -1;
    double seconds = -1;
    unsigned long long bytes = 0;
    if (std::sscanf(text.c_str(), "%lf %llu", &seconds, &bytes) != 2 || bytes != size) return -1;
    return seconds;
}

}  // namespace bench
