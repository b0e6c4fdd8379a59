// A small X server for one machine: it speaks just enough of the X11 protocol for libxcb and the
// two vendor extensions (file transfer and print), and hands every vendor request to the code
// that drives it (a test, or the loopback desktop program).
//
// One server thread accepts connections and reads and answers the core requests itself
// (QueryExtension, GetInputFocus, BigReqEnable; anything else gets BadRequest). The driving
// thread takes the vendor requests from a queue and answers them through the send* calls; all
// output of a connection goes through one buffer that only the server thread writes out, so
// the order of replies, errors and events is the order in which they were produced.
#pragma once

#include "display_socket.h"

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <initializer_list>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

namespace loopback {

struct ServerOptions {
    int display = -1;                 // -1: the first free number from 40 up
    bool tcp = false;                 // also listen on 127.0.0.1:6000+N
    std::string cookie;               // MIT-MAGIC-COOKIE-1 data; empty: no authorisation check
    bool fileTransferExtension = true, printExtension = true, bigRequests = true;
};

// One vendor request as the server reads it, a view into its input buffer that lasts until the
// request handler returns (see XServer::setRequestHandler).
struct RequestView {
    std::uint8_t major = 0, minor = 0;
    std::uint16_t sequence = 0;
    bool big = false;
    std::uint32_t client = 0;
    std::span<const std::uint8_t> bytes;  // in ordinary form, as Request::bytes
};

// One vendor request as the client sent it.
struct Request {
    std::uint8_t major = 0, minor = 0;
    std::uint16_t sequence = 0;       // its sequence number (low 16 bits, as on the wire)
    bool big = false;                 // sent in the BIG-REQUESTS form
    std::uint32_t client = 0;         // which connection sent it (see XServer::sendGenericEventTo)
    // The whole request in ordinary form: the 4-byte header (major, minor, length), then the
    // body. For a big request the 32-bit length word is taken out, so every field sits at the
    // offset it has in the ordinary form; the length field then holds 0 and the real length is
    // bytes.size().
    std::vector<std::uint8_t> bytes;

    operator RequestView() const { return {major, minor, sequence, big, client, bytes}; }
};

// Major opcodes the server hands out.
inline constexpr std::uint8_t kFileTransferOpcode = 140;
inline constexpr std::uint8_t kPrintOpcode = 141;
inline constexpr std::uint8_t kBigRequestsOpcode = 142;
// Longest request accepted in the big form, in 4-byte units (16 MiB).
inline constexpr std::uint32_t kBigRequestMaxUnits = 4194303;

class XServer {
public:
    // Binds the display and starts the server thread. Null (and *error set) on failure.
    static std::unique_ptr<XServer> start(const ServerOptions& options, std::string* error);
    ~XServer();  // stops the server, closes every connection, removes the socket and lock
    XServer(const XServer&) = delete;
    XServer& operator=(const XServer&) = delete;

    int display() const { return display_; }
    std::string displayName() const { return ":" + std::to_string(display_); }
    std::uint8_t fileTransferOpcode() const { return kFileTransferOpcode; }
    std::uint8_t printOpcode() const { return kPrintOpcode; }

    // True when a client is connected, or when one finished the handshake since the last call
    // (even if it has gone again since: a quick client may connect, send and leave before the
    // caller looks). Waits up to `timeout` for either.
    bool waitForClient(std::chrono::milliseconds timeout);
    // The next vendor request of any client, in the order read; nullopt after `timeout`.
    std::optional<Request> nextRequest(std::chrono::milliseconds timeout);
    // Whether the client with this id is still connected (and not being closed).
    bool isConnected(std::uint32_t client) const;
    // Number of clients that have finished the handshake so far.
    std::uint32_t clientsAccepted() const;

    // A generic event of the file-transfer extension to the current client: event type, bytes
    // 10..31 (zero-filled when shorter, cut at 22), and the bytes that follow byte 32 on the wire
    // (padded to a multiple of 4 here). Its sequence is that of the last request read.
    bool sendGenericEvent(std::uint16_t eventType, std::span<const std::uint8_t> extra,
                          std::span<const std::uint8_t> header22 = {});
    // The same to one client by its id (Request::client); false when it is not connected.
    bool sendGenericEventTo(std::uint32_t client, std::uint16_t eventType, std::span<const std::uint8_t> extra,
                            std::span<const std::uint8_t> header22 = {});
    // Anything, as is, to the current client.
    bool sendRaw(std::span<const std::uint8_t> bytes);
    // The reply to a print request: code, and a reason text carried after byte 32.
    bool sendPrintReply(const RequestView& request, std::uint8_t code, std::string_view reason = {});
    // An X error for a request.
    bool sendError(const RequestView& request, std::uint8_t errorCode, std::uint32_t resourceId = 0);
    // Hands every vendor request to `handler` on the server thread, as it is read, instead of
    // queueing it for nextRequest. The request's bytes are a view into the input buffer, not a
    // copy; they are valid until the handler returns. The handler may answer at once through
    // the send* calls (it must not wait for anything). A far side that answers this way pays
    // no copy and no thread switch per message (the Desktop's RequestInbox does, for a file's
    // data chunks). Set it before the client connects; null goes back to the queue, and once
    // the call returns the old handler is not running.
    void setRequestHandler(std::function<void(const RequestView&)> handler);
    // Makes every nextRequest and waitForClient return at once (nothing, false) from now on:
    // for a far side that is told to stop while it waits.
    void interruptWaits();
    // Drops the current client once what was queued for it is written (or after a short grace).
    void closeClient();

private:
    struct Connection;
    XServer() = default;
    void run();
    void wake();
    void acceptFrom(int listenFd);
    void readFrom(Connection& c);
    void writeTo(Connection& c);
    void process(Connection& c);
    bool processSetup(Connection& c);
    bool processRequest(Connection& c);
    void handleCore(Connection& c, std::span<const std::uint8_t> req);
    void queueError(Connection& c, std::uint8_t code, std::uint8_t major, std::uint16_t minor);
    void drop(Connection& c, bool afterFlush);
    Connection* findClient(std::uint32_t id) const;
    Connection* current() const;
    bool enqueue(Connection* c, std::span<const std::uint8_t> bytes);
    bool enqueueParts(Connection* c, std::initializer_list<std::span<const std::uint8_t>> parts);
    bool queueGenericEvent(Connection* c, std::uint16_t eventType, std::span<const std::uint8_t> extra,
                           std::span<const std::uint8_t> header22);

    ServerOptions options_;
    int display_ = -1;
    std::unique_ptr<DisplayBinding> binding_;  // the listening sockets, lock and socket files
    Fd wakeRead_, wakeWrite_;
    std::thread thread_;
    bool stopping_ = false;

    // Recursive: a request handler runs under it on the server thread and may call send*.
    mutable std::recursive_mutex mutex_;
    std::condition_variable_any changed_;
    std::function<void(const RequestView&)> handler_;
    std::vector<std::unique_ptr<Connection>> connections_;
    std::deque<Request> requests_;
    std::uint32_t nextId_ = 1;
    std::uint32_t accepted_ = 0;
    std::uint32_t reported_ = 0;  // accepted_ as of the last successful waitForClient
    bool interrupted_ = false;
};

}  // namespace loopback
