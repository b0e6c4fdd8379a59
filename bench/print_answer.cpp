#include "bench_support.h"
#include "print_answer.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "common/bytes.h"
#include "print/print_loop.h"
#include "print/requests.h"

namespace {

using bench::readAll;

constexpr std::uint8_t kMajor = 141;
constexpr std::uint8_t kQueryExtension = 98;

bool writeAll(int fd, const std::vector<std::uint8_t>& out) { return bench::writeAll(fd, out.data(), out.size()); }

// Setup: no screens, no formats; enough for a client that asks for no screen.
bool handshake(int fd) {
    std::uint8_t head[12];
    if (!readAll(fd, head, sizeof head) || head[0] != 'l') return false;
    const std::size_t nameLength = bytes::get16(head, 6), dataLength = bytes::get16(head, 8);
    std::vector<std::uint8_t> auth(nameLength + bytes::pad4(nameLength) + dataLength + bytes::pad4(dataLength));
    if (!readAll(fd, auth.data(), auth.size())) return false;
    const std::string_view vendor = "bench";
    std::vector<std::uint8_t> body;
    bytes::Writer(body)
        .u32(1)             // release
        .u32(0x00200000)    // resource id base
        .u32(0x001FFFFF)    // resource id mask
        .u32(0)             // motion buffer
        .u16(static_cast<std::uint16_t>(vendor.size()))
        .u16(0xFFFF)        // maximum request length
        .u8(0)              // screens
        .u8(0)              // formats
        .u8(0).u8(0).u8(32).u8(32).u8(8).u8(255)
        .zeros(4)
        .raw(vendor)
        .pad4();
    std::vector<std::uint8_t> reply;
    bytes::Writer(reply).u8(1).u8(0).u16(11).u16(0).u16(static_cast<std::uint16_t>(body.size() / 4)).raw(body);
    return writeAll(fd, reply);
}

// Serves one client; true when its last print chunk was answered.
bool serve(int fd) {
    if (!handshake(fd)) return false;
    std::vector<std::uint8_t> request(0x40000);
    std::uint16_t sequence = 0;
    bool complete = false;
    for (;;) {
        if (!readAll(fd, request.data(), 4)) return complete;
        ++sequence;
        const std::size_t units = bytes::get16(request, 2);
        if (units == 0 || units * 4 > request.size() || !readAll(fd, request.data() + 4, units * 4 - 4)) return false;
        std::vector<std::uint8_t> out;
        if (request[0] == kQueryExtension) {
            const std::size_t length = bytes::get16(request, 4);
            const bool print = std::string_view(reinterpret_cast<const char*>(&request[8]), length) ==
                               kThinPrintExtensionName;
            bytes::Writer(out).u8(1).u8(0).u16(sequence).u32(0).u8(print ? 1 : 0).u8(print ? kMajor : 0).zeros(22);
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
    ::mkdir("/tmp/.X11-unix", 01777);
    const int listener = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (listener < 0) return answerer;
    for (int display = 300; display < 400; ++display) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        const std::string path = "/tmp/.X11-unix/X" + std::to_string(display);
        std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
        if (::bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0) {
            answerer.display = display;
            break;
        }
    }
    if (answerer.display < 0 || ::listen(listener, 1) != 0) {
        ::close(listener);
        return answerer;
    }
    answerer.pid = ::fork();
    if (answerer.pid == 0) {
        ::alarm(120);  // never outlive a benchmark that went wrong
        const int client = ::accept(listener, nullptr, nullptr);
        const std::string path = "/tmp/.X11-unix/X" + std::to_string(answerer.display);
        ::unlink(path.c_str());
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
