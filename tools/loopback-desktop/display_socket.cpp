#include "display_socket.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

namespace loopback {

namespace {

std::string errnoText(const char* what) { return std::string(what) + ": " + std::strerror(errno); }

bool pidAlive(long pid) { return pid > 0 && (::kill(static_cast<pid_t>(pid), 0) == 0 || errno == EPERM); }

// Takes /tmp/.X<n>-lock the way X servers do: created exclusively, holding our pid. A lock left
// by a dead process is removed and taken. False when a live process holds it.
bool takeLock(const std::string& path) {
    for (int attempt = 0; attempt < 2; ++attempt) {
        Fd fd(::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0444));
        if (fd.valid()) {
            char text[16];
            const int n = std::snprintf(text, sizeof text, "%10ld\n", static_cast<long>(::getpid()));
            if (n <= 0 || ::write(fd.get(), text, static_cast<std::size_t>(n)) != n) {
                ::unlink(path.c_str());
                return false;
            }
            return true;
        }
        if (errno != EEXIST) return false;
        Fd old(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
        if (!old.valid()) continue;  // vanished meanwhile: try again
        char text[32] = {};
        const ssize_t got = ::read(old.get(), text, sizeof text - 1);
        if (got <= 0) return false;  // being written right now: someone else's
        const long pid = std::strtol(text, nullptr, 10);
        if (pidAlive(pid)) return false;
        ::unlink(path.c_str());
    }
    return false;
}

sockaddr_un unixAddress(const std::string& path, bool abstract, socklen_t& len) {
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    const std::size_t offset = abstract ? 1 : 0;
    std::memcpy(addr.sun_path + offset, path.data(), std::min(path.size(), sizeof addr.sun_path - 1 - offset));
    len = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + offset + path.size() + (abstract ? 0 : 1));
    return addr;
}

// Whether a server answers on the socket file.
bool socketAnswers(const std::string& path) {
    Fd fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (!fd.valid()) return false;
    socklen_t len = 0;
    const sockaddr_un addr = unixAddress(path, false, len);
    return ::connect(fd.get(), reinterpret_cast<const sockaddr*>(&addr), len) == 0;
}

Fd listenUnix(const std::string& path, bool abstract, std::string* error) {
    Fd fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    socklen_t len = 0;
    const sockaddr_un addr = unixAddress(path, abstract, len);
    if (!fd.valid() || ::bind(fd.get(), reinterpret_cast<const sockaddr*>(&addr), len) != 0 ||
        ::listen(fd.get(), 16) != 0 || !setNonBlocking(fd.get())) {
        if (error) *error = errnoText(abstract ? "abstract socket" : path.c_str());
        return {};
    }
    return fd;
}

Fd listenTcp(int port, std::string* error) {
    Fd fd(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (!fd.valid()) {
        if (error) *error = errnoText("socket");
        return {};
    }
    const int one = 1;
    ::setsockopt(fd.get(), SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(static_cast<std::uint16_t>(port));
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (::bind(fd.get(), reinterpret_cast<const sockaddr*>(&addr), sizeof addr) != 0 ||
        ::listen(fd.get(), 16) != 0 || !setNonBlocking(fd.get())) {
        if (error) *error = errnoText(("127.0.0.1:" + std::to_string(port)).c_str());
        return {};
    }
    return fd;
}

}  // namespace

bool setNonBlocking(int fd) {
    const int flags = ::fcntl(fd, F_GETFL);
    return flags >= 0 && ::fcntl(fd, F_SETFL, flags | O_NONBLOCK) == 0;
}

DisplayBinding::~DisplayBinding() { release(); }

DisplayBinding::DisplayBinding(DisplayBinding&& other) noexcept { *this = std::move(other); }

DisplayBinding& DisplayBinding::operator=(DisplayBinding&& other) noexcept {
    if (this == &other) return *this;
    release();
    display_ = other.display_;
    lockPath_ = std::move(other.lockPath_);
    socketPath_ = std::move(other.socketPath_);
    fds_ = std::move(other.fds_);
    locked_ = other.locked_;
    socketMade_ = other.socketMade_;
    other.locked_ = other.socketMade_ = false;
    other.fds_.clear();
    return *this;
}

void DisplayBinding::release() {
    fds_.clear();
    if (socketMade_) ::unlink(socketPath_.c_str());
    if (locked_) ::unlink(lockPath_.c_str());
    socketMade_ = locked_ = false;
}

bool DisplayBinding::take(int display, bool tcp, DisplayBinding& out, std::string* error) {
    if (display >= 0) {
        bool busy = false;
        return bindOne(display, tcp, out, &busy, error);
    }
    for (int n = 40; n < 240; ++n) {
        DisplayBinding attempt;
        bool busy = false;
        std::string why;
        if (bindOne(n, tcp, attempt, &busy, &why)) {
            out = std::move(attempt);
            return true;
        }
        if (!busy) {
            if (error) *error = why;
            return false;
        }
    }
    if (error) *error = "no free display number from 40 to 239";
    return false;
}

// Tries to take display `n`. On failure *busy tells whether it was merely in use.
bool DisplayBinding::bindOne(int n, bool tcp, DisplayBinding& b, bool* busy, std::string* error) {
    *busy = true;
    b.display_ = n;
    b.lockPath_ = "/tmp/.X" + std::to_string(n) + "-lock";
    b.socketPath_ = "/tmp/.X11-unix/X" + std::to_string(n);
    if (!takeLock(b.lockPath_)) {
        if (error) *error = "display :" + std::to_string(n) + " is locked by another server (" + b.lockPath_ + ")";
        return false;
    }
    b.locked_ = true;
    if (::mkdir("/tmp/.X11-unix", 01777) == 0) ::chmod("/tmp/.X11-unix", 01777);
    if (::access(b.socketPath_.c_str(), F_OK) == 0) {
        if (socketAnswers(b.socketPath_)) {
            if (error) *error = "a server already answers on " + b.socketPath_;
            return false;
        }
        ::unlink(b.socketPath_.c_str());  // left behind by a server that died
    }
    Fd abstractFd = listenUnix(b.socketPath_, true, error);
    if (!abstractFd.valid()) return false;  // another server holds the abstract name
    Fd pathFd = listenUnix(b.socketPath_, false, error);
    if (!pathFd.valid()) {
        *busy = false;
        return false;
    }
    b.socketMade_ = true;
    ::chmod(b.socketPath_.c_str(), 0777);  // any local user may connect, as with X servers
    b.fds_.push_back(std::move(pathFd));
    b.fds_.push_back(std::move(abstractFd));
    if (tcp) {
        Fd tcpFd = listenTcp(6000 + n, error);
        if (!tcpFd.valid()) return false;
        b.fds_.push_back(std::move(tcpFd));
    }
    return true;
}

}  // namespace loopback
