#include "x_server.h"

#include "common/bytes.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

namespace loopback {

namespace {

constexpr std::uint8_t kQueryExtension = 98;
constexpr std::uint8_t kGetInputFocus = 43;

constexpr std::uint8_t kBadRequest = 1;
constexpr std::uint8_t kBadLength = 16;

constexpr std::size_t kReadChunk = 262144;
// Stop reading from a client that does not read its answers once this much is pending, and
// drop it when it has far more.
constexpr std::size_t kOutputBackpressure = 1u << 20;
constexpr std::size_t kOutputLimit = 64u << 20;
constexpr std::size_t kMaxConnections = 64;
constexpr auto kCloseGrace = std::chrono::seconds(5);

constexpr std::string_view kFileTransferName = "QRV_ThinFileTransfer12";
constexpr std::string_view kPrintName = "QRV_ThinPrint12";
constexpr std::string_view kBigRequestsName = "BIG-REQUESTS";
constexpr std::string_view kCookieName = "MIT-MAGIC-COOKIE-1";
constexpr std::string_view kVendor = "varoft loopback desktop";

std::string errnoText(const char* what) { return std::string(what) + ": " + std::strerror(errno); }

// An owned file descriptor.
class Fd {
public:
    Fd() = default;
    explicit Fd(int fd) : fd_(fd) {}
    ~Fd() { reset(); }
    Fd(const Fd&) = delete;
    Fd& operator=(const Fd&) = delete;
    Fd(Fd&& o) noexcept : fd_(o.release()) {}
    Fd& operator=(Fd&& o) noexcept {
        if (this != &o) {
            reset();
            fd_ = o.release();
        }
        return *this;
    }
    int get() const { return fd_; }
    bool valid() const { return fd_ >= 0; }
    int release() {
        const int f = fd_;
        fd_ = -1;
        return f;
    }
    void reset() {
        if (fd_ >= 0) ::close(fd_);
        fd_ = -1;
    }

private:
    int fd_ = -1;
};

bool setNonBlocking(int fd) {
    const int flags = ::fcntl(fd, F_GETFL);
    return flags >= 0 && ::fcntl(fd, F_SETFL, flags | O_NONBLOCK) == 0;
}

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

// Everything a display needs, bound and locked; released again unless `keep` is called.
struct Binding {
    std::string lockPath, socketPath;
    std::vector<Fd> fds;
    bool locked = false, socketMade = false;
    ~Binding() {
        fds.clear();
        if (socketMade) ::unlink(socketPath.c_str());
        if (locked) ::unlink(lockPath.c_str());
    }
    void keep() { locked = socketMade = false; }
};

// Tries to take display `n`. On failure *busy tells whether it was merely in use.
bool bindDisplay(int n, bool tcp, Binding& b, bool* busy, std::string* error) {
    *busy = true;
    b.lockPath = "/tmp/.X" + std::to_string(n) + "-lock";
    b.socketPath = "/tmp/.X11-unix/X" + std::to_string(n);
    if (!takeLock(b.lockPath)) {
        if (error) *error = "display :" + std::to_string(n) + " is locked by another server (" + b.lockPath + ")";
        return false;
    }
    b.locked = true;
    if (::mkdir("/tmp/.X11-unix", 01777) == 0) ::chmod("/tmp/.X11-unix", 01777);
    if (::access(b.socketPath.c_str(), F_OK) == 0) {
        if (socketAnswers(b.socketPath)) {
            if (error) *error = "a server already answers on " + b.socketPath;
            return false;
        }
        ::unlink(b.socketPath.c_str());  // left behind by a server that died
    }
    Fd abstractFd = listenUnix(b.socketPath, true, error);
    if (!abstractFd.valid()) return false;  // another server holds the abstract name
    Fd pathFd = listenUnix(b.socketPath, false, error);
    if (!pathFd.valid()) {
        *busy = false;
        return false;
    }
    b.socketMade = true;
    ::chmod(b.socketPath.c_str(), 0777);  // any local user may connect, as with X servers
    b.fds.push_back(std::move(pathFd));
    b.fds.push_back(std::move(abstractFd));
    if (tcp) {
        Fd tcpFd = listenTcp(6000 + n, error);
        if (!tcpFd.valid()) return false;
        b.fds.push_back(std::move(tcpFd));
    }
    return true;
}

std::vector<std::uint8_t> failedSetup(std::string_view reason, bool bigEndian) {
    std::vector<std::uint8_t> out;
    const std::size_t n = std::min<std::size_t>(reason.size(), 255);
    const auto units = static_cast<std::uint16_t>((n + bytes::pad4(n)) / 4);
    auto u16 = [&](std::uint16_t v) {
        if (bigEndian) {
            out.push_back(static_cast<std::uint8_t>(v >> 8));
            out.push_back(static_cast<std::uint8_t>(v));
        } else {
            out.push_back(static_cast<std::uint8_t>(v));
            out.push_back(static_cast<std::uint8_t>(v >> 8));
        }
    };
    out.push_back(0);  // Failed
    out.push_back(static_cast<std::uint8_t>(n));
    u16(11);
    u16(0);
    u16(units);
    bytes::Writer w(out);
    w.raw(reason.substr(0, n)).pad4();
    return out;
}

std::vector<std::uint8_t> acceptedSetup(std::uint32_t clientId) {
    // One screen of 1024x768 at depth 24 with one TrueColor visual; pixmap formats for depths
    // 1 and 24.
    constexpr std::uint32_t kRoot = 0x000000FF, kColormap = 0x00000020, kVisual = 0x00000021;
    std::vector<std::uint8_t> body;
    bytes::Writer w(body);
    const std::uint32_t base = ((clientId % 1000u) + 1u) << 21;
    w.u32(12000000).u32(base).u32(0x001FFFFF).u32(256);
    w.u16(static_cast<std::uint16_t>(kVendor.size())).u16(65535);
    w.u8(1).u8(2);  // screens, pixmap formats
    w.u8(0).u8(0).u8(32).u8(32).u8(8).u8(255).zeros(4);
    w.raw(kVendor).pad4();
    w.u8(1).u8(1).u8(32).zeros(5);
    w.u8(24).u8(32).u8(32).zeros(5);
    // screen
    w.u32(kRoot).u32(kColormap).u32(0x00FFFFFF).u32(0).u32(0);
    w.u16(1024).u16(768).u16(271).u16(203).u16(1).u16(1);
    w.u32(kVisual).u8(0).u8(0).u8(24).u8(2);
    // depth 24 with its visual, depth 1 without visuals
    w.u8(24).u8(0).u16(1).zeros(4);
    w.u32(kVisual).u8(4).u8(8).u16(256).u32(0x00FF0000).u32(0x0000FF00).u32(0x000000FF).zeros(4);
    w.u8(1).u8(0).u16(0).zeros(4);

    std::vector<std::uint8_t> out;
    bytes::Writer h(out);
    h.u8(1).u8(0).u16(11).u16(0).u16(static_cast<std::uint16_t>(body.size() / 4)).raw(body);
    return out;
}

std::vector<std::uint8_t> reply32(std::uint8_t data1, std::uint16_t sequence) {
    std::vector<std::uint8_t> r(32, 0);
    r[0] = 1;
    r[1] = data1;
    bytes::put16(r, 2, sequence);
    return r;
}

}  // namespace

struct XServer::Connection {
    Fd fd;
    std::uint32_t id = 0;
    bool ready = false;      // handshake done
    bool closing = false;     // nothing more is served; half-closed once the output is written
    bool halfClosed = false;  // our side is shut; closed when the client ends or at closeBy
    std::chrono::steady_clock::time_point closeBy{};
    bool bigEnabled = false;
    std::uint32_t sequence = 0;  // requests read so far
    std::vector<std::uint8_t> in;
    std::size_t inPos = 0;
    std::vector<std::uint8_t> out;
    std::size_t outPos = 0;
    std::size_t pendingOut() const { return out.size() - outPos; }
};

std::unique_ptr<XServer> XServer::start(const ServerOptions& options, std::string* error) {
    std::signal(SIGPIPE, SIG_IGN);
    std::unique_ptr<XServer> server(new XServer());
    server->options_ = options;

    Binding binding;
    bool bound = false;
    if (options.display >= 0) {
        bool busy = false;
        bound = bindDisplay(options.display, options.tcp, binding, &busy, error);
        if (bound) server->display_ = options.display;
    } else {
        for (int n = 40; n < 240 && !bound; ++n) {
            Binding attempt;
            bool busy = false;
            std::string why;
            if (bindDisplay(n, options.tcp, attempt, &busy, &why)) {
                binding.lockPath = attempt.lockPath;
                binding.socketPath = attempt.socketPath;
                binding.fds = std::move(attempt.fds);
                binding.locked = binding.socketMade = true;
                attempt.keep();
                server->display_ = n;
                bound = true;
            } else if (!busy) {
                if (error) *error = why;
                return nullptr;
            }
        }
        if (!bound && error && error->empty()) *error = "no free display number from 40 to 239";
    }
    if (!bound) return nullptr;

    int pipeFds[2];
    if (::pipe2(pipeFds, O_CLOEXEC | O_NONBLOCK) != 0) {
        if (error) *error = errnoText("pipe");
        return nullptr;
    }
    server->wakeRead_ = pipeFds[0];
    server->wakeWrite_ = pipeFds[1];
    server->lockPath_ = binding.lockPath;
    server->socketPath_ = binding.socketPath;
    for (auto& fd : binding.fds) server->listenFds_.push_back(fd.release());
    binding.keep();
    server->thread_ = std::thread([s = server.get()] { s->run(); });
    return server;
}

XServer::~XServer() {
    {
        std::lock_guard lock(mutex_);
        stopping_ = true;
    }
    wake();
    if (thread_.joinable()) thread_.join();
    connections_.clear();
    for (int fd : listenFds_) ::close(fd);
    if (wakeRead_ >= 0) ::close(wakeRead_);
    if (wakeWrite_ >= 0) ::close(wakeWrite_);
    if (!socketPath_.empty()) ::unlink(socketPath_.c_str());
    if (!lockPath_.empty()) ::unlink(lockPath_.c_str());
}

void XServer::wake() {
    const std::uint8_t b = 1;
    [[maybe_unused]] const ssize_t n = ::write(wakeWrite_, &b, 1);  // a full pipe is awake already
}

void XServer::run() {
    std::vector<pollfd> fds;
    std::vector<Connection*> polled;
    for (;;) {
        fds.clear();
        polled.clear();
        {
            std::lock_guard lock(mutex_);
            if (stopping_) return;
            const auto now = std::chrono::steady_clock::now();
            for (auto& c : connections_) {
                if (c->closing && c->pendingOut() == 0 && !c->halfClosed) {
                    // Half-close, so that the client reads what was sent before it sees the end
                    // (libxcb gives up on a hang-up without reading what came with it).
                    ::shutdown(c->fd.get(), SHUT_WR);
                    c->halfClosed = true;
                }
                if (c->closing && now >= c->closeBy) c->fd.reset();
            }
            const bool lost = std::erase_if(connections_, [](const auto& c) { return !c->fd.valid(); }) > 0;
            if (lost) changed_.notify_all();
            fds.push_back({wakeRead_, POLLIN, 0});
            for (int fd : listenFds_) fds.push_back({fd, POLLIN, 0});
            for (auto& c : connections_) {
                short events = 0;
                if (c->closing || c->pendingOut() < kOutputBackpressure) events |= POLLIN;
                if (c->pendingOut() > 0) events |= POLLOUT;
                fds.push_back({c->fd.get(), events, 0});
                polled.push_back(c.get());
            }
        }
        const int ready = ::poll(fds.data(), fds.size(), 200);
        if (ready < 0 && errno != EINTR) return;
        if (ready <= 0) continue;
        if (fds[0].revents) {
            std::uint8_t drain[64];
            while (::read(wakeRead_, drain, sizeof drain) > 0) {
            }
        }
        for (std::size_t i = 0; i < listenFds_.size(); ++i) {
            if (fds[1 + i].revents & POLLIN) acceptFrom(listenFds_[i]);
        }
        std::lock_guard lock(mutex_);
        for (std::size_t i = 0; i < polled.size(); ++i) {
            Connection& c = *polled[i];
            const short re = fds[1 + listenFds_.size() + i].revents;
            if (!c.fd.valid()) continue;
            if (re & POLLOUT) writeTo(c);
            if (c.fd.valid() && (re & (POLLIN | POLLHUP | POLLERR))) readFrom(c);
        }
    }
}

void XServer::acceptFrom(int listenFd) {
    Fd fd(::accept4(listenFd, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
    if (!fd.valid()) return;
    std::lock_guard lock(mutex_);
    if (connections_.size() >= kMaxConnections) return;  // closed again at once
    auto c = std::make_unique<Connection>();
    c->fd = std::move(fd);
    c->id = nextId_++;
    connections_.push_back(std::move(c));
}

void XServer::readFrom(Connection& c) {
    std::uint8_t buffer[kReadChunk];
    const ssize_t got = ::recv(c.fd.get(), buffer, sizeof buffer, 0);
    if (got == 0 || (got < 0 && errno != EAGAIN && errno != EINTR)) {
        c.fd.reset();  // the client went away (or broke): forget what it left half-sent
        return;
    }
    if (got < 0) return;
    if (c.closing) return;  // nothing more is served; wait for the client's end
    c.in.insert(c.in.end(), buffer, buffer + got);
    process(c);
    if (c.inPos > 0 && (c.inPos == c.in.size() || c.inPos > kReadChunk)) {
        c.in.erase(c.in.begin(), c.in.begin() + static_cast<std::ptrdiff_t>(c.inPos));
        c.inPos = 0;
    }
    if (c.pendingOut() > 0) writeTo(c);
}

void XServer::writeTo(Connection& c) {
    while (c.pendingOut() > 0) {
        const ssize_t n = ::send(c.fd.get(), c.out.data() + c.outPos, c.pendingOut(), MSG_NOSIGNAL);
        if (n < 0) {
            if (errno == EAGAIN || errno == EINTR) break;
            c.fd.reset();
            return;
        }
        c.outPos += static_cast<std::size_t>(n);
    }
    if (c.outPos == c.out.size()) {
        c.out.clear();
        c.outPos = 0;
    } else if (c.outPos > kReadChunk) {
        c.out.erase(c.out.begin(), c.out.begin() + static_cast<std::ptrdiff_t>(c.outPos));
        c.outPos = 0;
    }
}

void XServer::process(Connection& c) {
    while (c.fd.valid() && !c.closing) {
        const bool progressed = c.ready ? processRequest(c) : processSetup(c);
        if (!progressed) break;
    }
}

void XServer::drop(Connection& c, bool afterFlush) {
    if (afterFlush) {
        c.closing = true;
        c.closeBy = std::chrono::steady_clock::now() + kCloseGrace;
    } else {
        c.fd.reset();
    }
}

// The connection setup: byte order, protocol version, authorisation. Returns true when it
// consumed the setup (successfully or not).
bool XServer::processSetup(Connection& c) {
    const std::span<const std::uint8_t> in(c.in.data() + c.inPos, c.in.size() - c.inPos);
    if (in.empty()) return false;
    if (in[0] == 'B') {
        c.out = failedSetup("only little-endian clients are served\n", true);
        drop(c, true);
        return true;
    }
    if (in[0] != 'l') {
        drop(c, false);  // not an X client
        return true;
    }
    if (in.size() < 12) return false;
    const std::uint16_t nameLen = bytes::get16(in, 6);
    const std::uint16_t dataLen = bytes::get16(in, 8);
    const std::size_t need = 12 + nameLen + bytes::pad4(nameLen) + dataLen + bytes::pad4(dataLen);
    if (in.size() < need) return false;
    const std::string_view name(reinterpret_cast<const char*>(in.data() + 12), nameLen);
    const std::size_t dataAt = 12 + nameLen + bytes::pad4(nameLen);
    const std::string_view data(reinterpret_cast<const char*>(in.data() + dataAt), dataLen);
    c.inPos += need;

    const std::uint16_t major = bytes::get16(in, 2);
    std::string_view refusal;
    if (major != 11) {
        refusal = "protocol version mismatch\n";
    } else if (!options_.cookie.empty()) {
        if (name.empty()) refusal = "No protocol specified\n";
        else if (name != kCookieName || data != options_.cookie) refusal = "Invalid MIT-MAGIC-COOKIE-1 key";
    }
    if (!refusal.empty()) {
        const auto failed = failedSetup(refusal, false);
        c.out.insert(c.out.end(), failed.begin(), failed.end());
        drop(c, true);
        return true;
    }
    const auto accepted = acceptedSetup(c.id);
    c.out.insert(c.out.end(), accepted.begin(), accepted.end());
    c.ready = true;
    ++accepted_;
    changed_.notify_all();
    return true;
}

void XServer::queueError(Connection& c, std::uint8_t code, std::uint8_t major, std::uint16_t minor,
                         std::uint32_t value) {
    std::vector<std::uint8_t> e(32, 0);
    e[1] = code;
    bytes::put16(e, 2, static_cast<std::uint16_t>(c.sequence));
    bytes::put32(e, 4, value);
    bytes::put16(e, 8, minor);
    e[10] = major;
    c.out.insert(c.out.end(), e.begin(), e.end());
}

// One request: its length (ordinary or big form), then the request itself. Returns true when
// a request was consumed.
bool XServer::processRequest(Connection& c) {
    const std::span<const std::uint8_t> in(c.in.data() + c.inPos, c.in.size() - c.inPos);
    if (in.size() < 4) return false;
    const std::uint8_t major = in[0];
    const std::uint8_t minor = in[1];
    std::size_t total = std::size_t{bytes::get16(in, 2)} * 4;
    std::size_t headerLen = 4;
    bool big = false;
    if (total == 0) {
        if (!c.bigEnabled) {
            // Without BIG-REQUESTS a length of 0 leaves no way to find the next request.
            ++c.sequence;
            queueError(c, kBadLength, major, minor, 0);
            drop(c, true);
            return true;
        }
        if (in.size() < 8) return false;
        const std::uint32_t units = bytes::get32(in, 4);
        if (units < 2 || units > kBigRequestMaxUnits) {
            ++c.sequence;
            queueError(c, kBadLength, major, minor, 0);
            drop(c, true);
            return true;
        }
        total = std::size_t{units} * 4;
        headerLen = 8;
        big = true;
    }
    if (in.size() < total) {
        c.in.reserve(c.inPos + total);
        return false;
    }
    ++c.sequence;
    std::vector<std::uint8_t> normal;
    if (!big && c.inPos == 0 && total == c.in.size()) {
        // The buffer holds exactly this request (the usual case for a client that waits for
        // answers): hand it over instead of copying it.
        normal = std::move(c.in);
        c.in.clear();
    } else {
        normal.reserve(total - headerLen + 4);
        normal.insert(normal.end(), in.begin(), in.begin() + 4);
        normal.insert(normal.end(), in.begin() + static_cast<std::ptrdiff_t>(headerLen),
                      in.begin() + static_cast<std::ptrdiff_t>(total));
        if (big) bytes::put16(normal, 2, 0);
        c.inPos += total;
    }

    const bool vendor = (major == kFileTransferOpcode && options_.fileTransferExtension) ||
                        (major == kPrintOpcode && options_.printExtension);
    if (vendor) {
        Request r;
        r.major = major;
        r.minor = minor;
        r.sequence = static_cast<std::uint16_t>(c.sequence);
        r.big = big;
        r.client = c.id;
        r.bytes = std::move(normal);
        if (handler_) {
            handler_(r);
            return true;
        }
        requests_.push_back(std::move(r));
        changed_.notify_all();
        return true;
    }
    handleCore(c, normal);
    if (c.out.size() - c.outPos > kOutputLimit) drop(c, false);
    return true;
}

void XServer::handleCore(Connection& c, std::span<const std::uint8_t> req) {
    const auto seq = static_cast<std::uint16_t>(c.sequence);
    const std::uint8_t major = req[0];
    if (major == kQueryExtension) {
        bytes::Reader r(req, 4);
        const std::uint16_t n = r.u16();
        r.skip(2);
        const std::string_view name = r.text(n);
        if (!r.ok()) {
            queueError(c, kBadLength, major, 0, 0);
            return;
        }
        std::uint8_t opcode = 0;
        if (name == kFileTransferName && options_.fileTransferExtension) opcode = kFileTransferOpcode;
        else if (name == kPrintName && options_.printExtension) opcode = kPrintOpcode;
        else if (name == kBigRequestsName && options_.bigRequests) opcode = kBigRequestsOpcode;
        auto reply = reply32(0, seq);
        reply[8] = opcode != 0 ? 1 : 0;
        reply[9] = opcode;
        c.out.insert(c.out.end(), reply.begin(), reply.end());
        return;
    }
    if (major == kGetInputFocus) {
        auto reply = reply32(1, seq);  // revert to PointerRoot
        bytes::put32(reply, 8, 1);     // focus: PointerRoot
        c.out.insert(c.out.end(), reply.begin(), reply.end());
        return;
    }
    if (major == kBigRequestsOpcode && options_.bigRequests && req[1] == 0) {
        auto reply = reply32(0, seq);
        bytes::put32(reply, 8, kBigRequestMaxUnits);
        c.out.insert(c.out.end(), reply.begin(), reply.end());
        c.bigEnabled = true;
        return;
    }
    const bool extension = major >= 128;
    queueError(c, kBadRequest, major, extension ? req[1] : 0, 0);
}

XServer::Connection* XServer::findClient(std::uint32_t id) const {
    for (auto& c : connections_) {
        if (c->id == id && c->ready && !c->closing && c->fd.valid()) return c.get();
    }
    return nullptr;
}

XServer::Connection* XServer::current() const {
    for (auto it = connections_.rbegin(); it != connections_.rend(); ++it) {
        if ((*it)->ready && !(*it)->closing && (*it)->fd.valid()) return it->get();
    }
    return nullptr;
}

bool XServer::enqueue(Connection* c, std::span<const std::uint8_t> data) { return enqueueParts(c, {data}); }

bool XServer::enqueueParts(Connection* c, std::initializer_list<std::span<const std::uint8_t>> parts) {
    if (!c) return false;
    std::size_t skip = 0;  // bytes of the parts already written
    if (c->pendingOut() == 0 && !c->closing && c->fd.valid() && parts.size() <= 4) {
        // Nothing is waiting before these bytes, so the calling thread may write them itself
        // (the socket does not block); only what the socket does not take is left to the
        // server thread. This saves copies and a thread switch per message on big transfers.
        iovec vector[4];
        std::size_t count = 0, total = 0;
        for (const auto& p : parts) {
            vector[count++] = {const_cast<std::uint8_t*>(p.data()), p.size()};
            total += p.size();
        }
        msghdr message{};
        message.msg_iov = vector;
        message.msg_iovlen = count;
        ssize_t n;
        do {
            n = ::sendmsg(c->fd.get(), &message, MSG_NOSIGNAL | MSG_DONTWAIT);
        } while (n < 0 && errno == EINTR);
        // EAGAIN (or a broken socket, which the server thread then notices): queue the rest.
        if (n > 0) skip = static_cast<std::size_t>(n);
        if (skip == total) return true;
    }
    for (const auto& p : parts) {
        const std::size_t drop = std::min(skip, p.size());
        skip -= drop;
        c->out.insert(c->out.end(), p.begin() + static_cast<std::ptrdiff_t>(drop), p.end());
    }
    wake();
    return true;
}

bool XServer::waitForClient(std::chrono::milliseconds timeout) {
    std::unique_lock lock(mutex_);
    if (!changed_.wait_for(lock, timeout, [&] { return current() != nullptr || accepted_ > reported_; })) return false;
    reported_ = accepted_;
    return true;
}

std::optional<Request> XServer::nextRequest(std::chrono::milliseconds timeout) {
    std::unique_lock lock(mutex_);
    if (!changed_.wait_for(lock, timeout, [&] { return !requests_.empty(); })) return std::nullopt;
    Request r = std::move(requests_.front());
    requests_.pop_front();
    return r;
}

bool XServer::isConnected(std::uint32_t client) const {
    std::lock_guard lock(mutex_);
    return findClient(client) != nullptr;
}

std::uint32_t XServer::clientsAccepted() const {
    std::lock_guard lock(mutex_);
    return accepted_;
}

bool XServer::sendGenericEvent(std::uint16_t eventType, std::span<const std::uint8_t> extra,
                               std::span<const std::uint8_t> header22) {
    std::lock_guard lock(mutex_);
    return queueGenericEvent(current(), eventType, extra, header22);
}

bool XServer::sendGenericEventTo(std::uint32_t client, std::uint16_t eventType, std::span<const std::uint8_t> extra,
                                 std::span<const std::uint8_t> header22) {
    std::lock_guard lock(mutex_);
    return queueGenericEvent(findClient(client), eventType, extra, header22);
}

bool XServer::queueGenericEvent(Connection* c, std::uint16_t eventType, std::span<const std::uint8_t> extra,
                                std::span<const std::uint8_t> header22) {
    if (!c) return false;
    const std::size_t padding = bytes::pad4(extra.size());
    const std::size_t padded = extra.size() + padding;
    if (padded / 4 > 0xFFFFFFFFu) return false;
    std::array<std::uint8_t, 32> header{};
    header[0] = 35;
    header[1] = kFileTransferOpcode;
    bytes::put16(header, 2, static_cast<std::uint16_t>(c->sequence));
    bytes::put32(header, 4, static_cast<std::uint32_t>(padded / 4));
    bytes::put16(header, 8, eventType);
    const std::size_t h = std::min<std::size_t>(header22.size(), 22);
    std::copy_n(header22.begin(), h, header.begin() + 10);
    static constexpr std::uint8_t kZeros[4] = {};
    return enqueueParts(c, {header, extra, std::span<const std::uint8_t>(kZeros, padding)});
}

bool XServer::sendRaw(std::span<const std::uint8_t> data) {
    std::lock_guard lock(mutex_);
    return enqueue(current(), data);
}

bool XServer::sendPrintReply(const Request& request, std::uint8_t code, std::string_view reason) {
    std::lock_guard lock(mutex_);
    Connection* c = findClient(request.client);
    if (!c) return false;
    std::vector<std::uint8_t> r;
    bytes::Writer w(r);
    const std::size_t padded = reason.size() + bytes::pad4(reason.size());
    w.u8(1).u8(code).u16(request.sequence).u32(static_cast<std::uint32_t>(padded / 4));
    w.u32(static_cast<std::uint32_t>(reason.size())).zeros(20).raw(reason).pad4();
    return enqueue(c, r);
}

bool XServer::sendError(const Request& request, std::uint8_t errorCode, std::uint32_t resourceId) {
    std::lock_guard lock(mutex_);
    Connection* c = findClient(request.client);
    if (!c) return false;
    std::vector<std::uint8_t> e(32, 0);
    e[1] = errorCode;
    bytes::put16(e, 2, request.sequence);
    bytes::put32(e, 4, resourceId);
    bytes::put16(e, 8, request.minor);
    e[10] = request.major;
    return enqueue(c, e);
}

void XServer::setRequestHandler(std::function<void(const Request&)> handler) {
    std::lock_guard lock(mutex_);
    handler_ = std::move(handler);
}

void XServer::closeClient() {
    std::lock_guard lock(mutex_);
    Connection* c = current();
    if (!c) return;
    drop(*c, true);
    changed_.notify_all();
    wake();
}

}  // namespace loopback
