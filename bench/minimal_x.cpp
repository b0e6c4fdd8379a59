#include "minimal_x.h"

#include "bench_support.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <string>

#include "common/bytes.h"

namespace bench {

namespace {

std::string socketPath(int display) { return "/tmp/.X11-unix/X" + std::to_string(display); }

}  // namespace

int listenOnFreeDisplay(int& display) {
    display = -1;
    ::mkdir("/tmp/.X11-unix", 01777);
    const int listener = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (listener < 0) return -1;
    for (int n = 300; n < 400 && display < 0; ++n) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::strncpy(address.sun_path, socketPath(n).c_str(), sizeof address.sun_path - 1);
        if (::bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0) display = n;
    }
    if (display < 0 || ::listen(listener, 1) != 0) {
        ::close(listener);
        return -1;
    }
    return listener;
}

void removeDisplaySocket(int display) { ::unlink(socketPath(display).c_str()); }

bool answerSetup(int fd) {
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
    return writeAll(fd, reply.data(), reply.size());
}

std::vector<std::uint8_t> queryExtensionReply(std::span<const std::uint8_t> request, std::uint16_t sequence,
                                              std::string_view name, std::uint8_t major) {
    const std::size_t length = request.size() >= 8 ? bytes::get16(request, 4) : 0;
    const bool present = request.size() >= 8 + length &&
                         std::string_view(reinterpret_cast<const char*>(request.data() + 8), length) == name;
    std::vector<std::uint8_t> out;
    bytes::Writer(out).u8(1).u8(0).u16(sequence).u32(0).u8(present ? 1 : 0).u8(present ? major : 0).zeros(22);
    return out;
}

}  // namespace bench
