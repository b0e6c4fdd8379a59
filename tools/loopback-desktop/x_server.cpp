#include "x_server.h"

#include "common/bytes.h"
#include "x11_wire.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

namespace loopback {

namespace {

// What one read asks the socket for at least; a request larger than that grows the buffer.
constexpr std::size_t kReadChunk = 262144;
// Stop reading from a client that does not read its answers once this much is pending, and
// drop it when it has far more.
constexpr std::size_t kOutputBackpressure = 1u << 20;
constexpr std::size_t kOutputLimit = 64u << 20;
constexpr std::size_t kMaxConnections = 64;
constexpr auto kCloseGrace = std::chrono::seconds(5);

// A connection's input: the socket is read straight into it, and requests are parsed where
// they lie. It grows only when one request is larger than it is, and moves the bytes of an
// incomplete request to its front only when they would not fit behind them.
class InputBuffer {
public:
    std::span<std::uint8_t> pending() { return {data_.get() + start_, end_ - start_}; }
    void consume(std::size_t n) {
        start_ += n;
        if (start_ == end_) start_ = end_ = 0;
    }
    // Free space behind the pending bytes, enough for `whole` bytes of them (the size of the
    // request they begin, when known) and at least one read.
    std::span<std::uint8_t> room(std::size_t whole) {
        const std::size_t have = end_ - start_;
        const std::size_t need = std::max(whole, have + kReadChunk / 4);
        if (capacity_ < need) {
            const std::size_t grown = std::max({need, kReadChunk, capacity_ * 2});
            auto bigger = std::make_unique<std::uint8_t[]>(grown);
            if (have) std::memcpy(bigger.get(), data_.get() + start_, have);
            data_ = std::move(bigger);
            capacity_ = grown;
            start_ = 0;
            end_ = have;
        } else if (capacity_ - start_ < need) {
            std::memmove(data_.get(), data_.get() + start_, have);
            start_ = 0;
            end_ = have;
        }
        return {data_.get() + end_, capacity_ - end_};
    }
    void filled(std::size_t n) { end_ += n; }

private:
    std::unique_ptr<std::uint8_t[]> data_;
    std::size_t capacity_ = 0, start_ = 0, end_ = 0;
};

}  // namespace

struct XServer::Connection {
    Fd fd;
    std::uint32_t id = 0;
    bool ready = false;       // handshake done
    bool closing = false;     // nothing more is served; half-closed once the output is written
    bool halfClosed = false;  // our side is shut; closed when the client ends or at closeBy
    std::chrono::steady_clock::time_point closeBy{};
    bool bigEnabled = false;
    std::uint32_t sequence = 0;  // requests read so far
    InputBuffer in;
    std::size_t incomplete = 0;  // size of the request the pending input begins, when known
    std::vector<std::uint8_t> out;
    std::size_t outPos = 0;
    std::size_t pendingOut() const { return out.size() - outPos; }
    void queue(std::span<const std::uint8_t> bytes) { out.insert(out.end(), bytes.begin(), bytes.end()); }
};

std::unique_ptr<XServer> XServer::start(const ServerOptions& options, std::string* error) {
    std::signal(SIGPIPE, SIG_IGN);
    std::unique_ptr<XServer> server(new XServer());
    server->options_ = options;
    auto binding = std::make_unique<DisplayBinding>();
    // A test run whose program under test reaches displays over TCP only (varoft.exe under Wine;
    // see tests/support/process.cpp) has every server listen there too.
    const bool tcp = options.tcp || std::getenv("VAROFT_TEST_DISPLAY_HOST") != nullptr;
    if (!DisplayBinding::take(options.display, tcp, *binding, error)) return nullptr;
    int pipeFds[2];
    if (::pipe2(pipeFds, O_CLOEXEC | O_NONBLOCK) != 0) {
        if (error) *error = std::string("pipe: ") + std::strerror(errno);
        return nullptr;
    }
    server->wakeRead_ = Fd(pipeFds[0]);
    server->wakeWrite_ = Fd(pipeFds[1]);
    server->display_ = binding->display();
    server->binding_ = std::move(binding);
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
    binding_.reset();  // closes the listeners, removes the socket and lock files
}

void XServer::wake() {
    const std::uint8_t b = 1;
    [[maybe_unused]] const ssize_t n = ::write(wakeWrite_.get(), &b, 1);  // a full pipe is awake already
}

void XServer::run() {
    std::vector<pollfd> fds;
    std::vector<Connection*> polled;
    const auto& listeners = binding_->listeners();
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
            fds.push_back({wakeRead_.get(), POLLIN, 0});
            for (const auto& fd : listeners) fds.push_back({fd.get(), POLLIN, 0});
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
            while (::read(wakeRead_.get(), drain, sizeof drain) > 0) {
            }
        }
        for (std::size_t i = 0; i < listeners.size(); ++i) {
            if (fds[1 + i].revents & POLLIN) acceptFrom(listeners[i].get());
        }
        std::lock_guard lock(mutex_);
        for (std::size_t i = 0; i < polled.size(); ++i) {
            Connection& c = *polled[i];
            const short re = fds[1 + listeners.size() + i].revents;
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
    const std::span<std::uint8_t> room = c.in.room(c.incomplete);
    const ssize_t got = ::recv(c.fd.get(), room.data(), room.size(), 0);
    if (got == 0 || (got < 0 && errno != EAGAIN && errno != EINTR)) {
        c.fd.reset();  // the client went away (or broke): forget what it left half-sent
        return;
    }
    if (got < 0) return;
    if (c.closing) return;  // nothing more is served; wait for the client's end
    c.in.filled(static_cast<std::size_t>(got));
    process(c);
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
    x11::Setup setup;
    switch (x11::parseSetup(c.in.pending(), setup)) {
    case x11::SetupParse::NeedMore: return false;
    case x11::SetupParse::BigEndian:
        c.out = x11::failedSetup("only little-endian clients are served\n", true);
        drop(c, true);
        return true;
    case x11::SetupParse::NotX: drop(c, false); return true;
    case x11::SetupParse::Complete: break;
    }
    std::string_view refusal;
    if (setup.protocolMajor != 11) {
        refusal = "protocol version mismatch\n";
    } else if (!options_.cookie.empty()) {
        if (setup.authName.empty()) refusal = "No protocol specified\n";
        else if (setup.authName != x11::kCookieName || setup.authData != options_.cookie) refusal = "Invalid MIT-MAGIC-COOKIE-1 key";
    }
    c.in.consume(setup.length);
    if (!refusal.empty()) {
        c.queue(x11::failedSetup(refusal, false));
        drop(c, true);
        return true;
    }
    c.queue(x11::acceptedSetup(c.id));
    c.ready = true;
    ++accepted_;
    changed_.notify_all();
    return true;
}

void XServer::queueError(Connection& c, std::uint8_t code, std::uint8_t major, std::uint16_t minor) {
    c.queue(x11::error(code, static_cast<std::uint16_t>(c.sequence), 0, minor, major));
}

// One request, parsed where it lies in the input buffer. Returns true when a request was
// consumed.
bool XServer::processRequest(Connection& c) {
    const std::span<std::uint8_t> in = c.in.pending();
    x11::RequestFrame frame;
    const x11::FrameParse parsed = x11::parseRequestFrame(in, c.bigEnabled, kBigRequestMaxUnits, frame);
    if (parsed == x11::FrameParse::NeedMore) {
        c.incomplete = frame.total;
        return false;
    }
    c.incomplete = 0;
    const std::uint8_t major = in[0];
    const std::uint8_t minor = in[1];
    ++c.sequence;
    if (parsed == x11::FrameParse::BadLength) {
        queueError(c, x11::kBadLength, major, minor);
        drop(c, true);
        return true;
    }
    // The ordinary form of a big request: its 4-byte header moved over the length word, with
    // the length field 0, so the body follows the header as in an ordinary request.
    std::span<std::uint8_t> request = in.first(frame.total);
    if (frame.big) {
        request = request.subspan(4);
        request[0] = major;
        request[1] = minor;
        bytes::put16(request, 2, 0);
    }
    const bool vendor = (major == kFileTransferOpcode && options_.fileTransferExtension) ||
                        (major == kPrintOpcode && options_.printExtension);
    if (vendor) {
        const RequestView view{major, minor, static_cast<std::uint16_t>(c.sequence), frame.big, c.id, request};
        if (handler_) {
            handler_(view);
        } else {
            requests_.push_back(Request{view.major, view.minor, view.sequence, view.big, view.client,
                                        std::vector<std::uint8_t>(request.begin(), request.end())});
            changed_.notify_all();
        }
    } else {
        handleCore(c, request);
        if (c.pendingOut() > kOutputLimit) drop(c, false);
    }
    c.in.consume(frame.total);
    return true;
}

void XServer::handleCore(Connection& c, std::span<const std::uint8_t> req) {
    const auto seq = static_cast<std::uint16_t>(c.sequence);
    const std::uint8_t major = req[0];
    if (major == x11::kQueryExtension) {
        bytes::Reader r(req, 4);
        const std::uint16_t n = r.u16();
        r.skip(2);
        const std::string_view name = r.text(n);
        if (!r.ok()) {
            queueError(c, x11::kBadLength, major, 0);
            return;
        }
        std::uint8_t opcode = 0;
        if (name == x11::kFileTransferName && options_.fileTransferExtension) opcode = kFileTransferOpcode;
        else if (name == x11::kPrintName && options_.printExtension) opcode = kPrintOpcode;
        else if (name == x11::kBigRequestsName && options_.bigRequests) opcode = kBigRequestsOpcode;
        auto reply = x11::reply(0, seq);
        reply[8] = opcode != 0 ? 1 : 0;
        reply[9] = opcode;
        c.queue(reply);
        return;
    }
    if (major == x11::kGetInputFocus) {
        auto reply = x11::reply(1, seq);  // revert to PointerRoot
        bytes::put32(reply, 8, 1);        // focus: PointerRoot
        c.queue(reply);
        return;
    }
    if (major == kBigRequestsOpcode && options_.bigRequests && req[1] == 0) {
        auto reply = x11::reply(0, seq);
        bytes::put32(reply, 8, kBigRequestMaxUnits);
        c.queue(reply);
        c.bigEnabled = true;
        return;
    }
    const bool extension = major >= 128;
    queueError(c, x11::kBadRequest, major, extension ? req[1] : 0);
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
        c->queue(p.subspan(drop));
    }
    wake();
    return true;
}

bool XServer::waitForClient(std::chrono::milliseconds timeout) {
    std::unique_lock lock(mutex_);
    if (!changed_.wait_for(lock, timeout, [&] { return interrupted_ || current() != nullptr || accepted_ > reported_; }))
        return false;
    if (interrupted_) return false;
    reported_ = accepted_;
    return true;
}

std::optional<Request> XServer::nextRequest(std::chrono::milliseconds timeout) {
    std::unique_lock lock(mutex_);
    if (!changed_.wait_for(lock, timeout, [&] { return interrupted_ || !requests_.empty(); }) || interrupted_)
        return std::nullopt;
    Request r = std::move(requests_.front());
    requests_.pop_front();
    return r;
}

void XServer::interruptWaits() {
    std::lock_guard lock(mutex_);
    interrupted_ = true;
    changed_.notify_all();
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
    const auto header = x11::genericEventHeader(kFileTransferOpcode, static_cast<std::uint16_t>(c->sequence), eventType,
                                                padded, header22);
    static constexpr std::uint8_t kZeros[4] = {};
    return enqueueParts(c, {header, extra, std::span<const std::uint8_t>(kZeros, padding)});
}

bool XServer::sendRaw(std::span<const std::uint8_t> data) {
    std::lock_guard lock(mutex_);
    return enqueue(current(), data);
}

bool XServer::sendPrintReply(const RequestView& request, std::uint8_t code, std::string_view reason) {
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

bool XServer::sendError(const RequestView& request, std::uint8_t errorCode, std::uint32_t resourceId) {
    std::lock_guard lock(mutex_);
    Connection* c = findClient(request.client);
    if (!c) return false;
    return enqueue(c, x11::error(errorCode, request.sequence, resourceId, request.minor, request.major));
}

void XServer::setRequestHandler(std::function<void(const RequestView&)> handler) {
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
