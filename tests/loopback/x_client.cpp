#include "x_client.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>

namespace loopbacktest {

Connection connect(const std::string& display) {
    return Connection(xcb_connect(display.c_str(), nullptr));
}

unsigned sendRequest(xcb_connection_t* c, xcb_extension_t* extension, std::uint8_t opcode,
                     std::span<const std::uint8_t> body, bool isVoid, bool checked) {
    std::uint8_t header[4] = {};
    static const std::uint8_t zeros[4] = {};
    iovec parts[2 + 3];  // libxcb needs two spare entries before the request's own
    parts[2] = {header, sizeof header};
    parts[3] = {const_cast<std::uint8_t*>(body.data()), body.size()};
    parts[4] = {const_cast<std::uint8_t*>(zeros), (4 - body.size() % 4) % 4};
    const xcb_protocol_request_t request{3, extension, opcode, static_cast<std::uint8_t>(isVoid ? 1 : 0)};
    return xcb_send_request(c, checked ? XCB_REQUEST_CHECKED : 0, parts + 2, &request);
}

RawClient::RawClient(int display) {
    fd_ = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    const std::string path = "/tmp/.X11-unix/X" + std::to_string(display);
    std::memcpy(addr.sun_path, path.c_str(), path.size() + 1);
    if (fd_ >= 0 && ::connect(fd_, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
        ::close(fd_);
        fd_ = -1;
    }
}

RawClient::~RawClient() {
    if (fd_ >= 0) ::close(fd_);
}

bool RawClient::send(std::span<const std::uint8_t> bytes) {
    std::size_t done = 0;
    while (done < bytes.size()) {
        const ssize_t n = ::send(fd_, bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
        if (n <= 0) return false;
        done += static_cast<std::size_t>(n);
    }
    return true;
}

bool RawClient::send(std::string_view text) {
    return send(std::span(reinterpret_cast<const std::uint8_t*>(text.data()), text.size()));
}

void RawClient::shutdownWrite() { ::shutdown(fd_, SHUT_WR); }

std::optional<std::vector<std::uint8_t>> RawClient::read(std::size_t n) {
    std::vector<std::uint8_t> out(n);
    std::size_t got = 0;
    while (got < n) {
        pollfd p{fd_, POLLIN, 0};
        if (::poll(&p, 1, 10000) <= 0) return std::nullopt;
        const ssize_t r = ::recv(fd_, out.data() + got, n - got, 0);
        if (r <= 0) return std::nullopt;
        got += static_cast<std::size_t>(r);
    }
    return out;
}

std::optional<std::vector<std::uint8_t>> RawClient::readSetupAnswer(bool bigEndian) {
    auto head = read(8);
    if (!head) return std::nullopt;
    const std::size_t units = bigEndian ? ((*head)[6] << 8 | (*head)[7]) : ((*head)[7] << 8 | (*head)[6]);
    auto rest = read(units * 4);
    if (!rest) return std::nullopt;
    head->insert(head->end(), rest->begin(), rest->end());
    return head;
}

std::optional<std::vector<std::uint8_t>> RawClient::handshake() {
    const std::uint8_t setup[12] = {'l', 0, 11, 0, 0, 0, 0, 0, 0, 0, 0, 0};
    if (!send(setup)) return std::nullopt;
    return readSetupAnswer();
}

bool RawClient::closedByServer() {
    for (;;) {
        pollfd p{fd_, POLLIN, 0};
        if (::poll(&p, 1, 10000) <= 0) return false;
        std::uint8_t buffer[4096];
        const ssize_t r = ::recv(fd_, buffer, sizeof buffer, 0);
        if (r == 0) return true;
        if (r < 0) return errno == ECONNRESET;
    }
}

}  // namespace loopbacktest
