// A scripted far side for the file-transfer tests: a loopback X server, varoft running against
// it, and helpers that send TransferRequest events and read back the requests varoft answers
// with, decoded field by field.
#pragma once

#include <chrono>
#include <cstdint>
#include <future>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <tuple>
#include <vector>

#include "support/process.h"
#include "far_protocol.h"
#include "x_server.h"

namespace fttest {

using Bytes = std::vector<std::uint8_t>;
using Env = std::map<std::string, std::optional<std::string>>;
using namespace std::chrono_literals;

// The requests varoft sends, with their whole size on the wire (padding included), and the
// events the far side sends.
struct Reply : loopback::TransferReply {
    std::size_t wireSize = 0;
};
using Status = loopback::TransferStatus;
using Event = loopback::TransferEvent;

// Every field of a reply but block C, for exact comparisons.
using Fields = std::tuple<int, int, int, int, std::uint64_t, std::string, std::string>;
inline Fields fieldsOf(const Reply& r) { return {r.direction, r.objectType, r.openFlag, r.kind, r.size, r.nameA, r.nameB}; }

// An event that carries the fields of `r` with another kind.
Event echo(const Reply& r, std::uint8_t kind);

Bytes bytesOf(std::string_view s);
// A deterministic pseudo-random block.
Bytes pattern(std::size_t size, std::uint32_t seed = 1);
// Expects a run that ended with exit status 0 and standard error ending in `tail`.
void expectEnd(const testsupport::RunResult& result, const std::string& tail);
bool contains(const std::string& text, const std::string& part);

class FarSide {
public:
    explicit FarSide(loopback::ServerOptions options = {});
    ~FarSide();

    bool ok() const { return server_ != nullptr; }
    const std::string& error() const { return error_; }
    loopback::XServer& server() { return *server_; }

    // Starts varoft with -display and the given arguments; its outcome is collected in the
    // background while the test plays the far side. Waits for the connection.
    bool start(std::vector<std::string> args, std::optional<std::string> input = {}, Env env = {});
    void setWorkingDirectory(std::string dir) { workingDirectory_ = std::move(dir); }
    void setFileSizeLimit(long bytes) { fileSizeLimit_ = bytes; }
    void signal(int number) { process_->signal(number); }
    // Waits for varoft to end.
    testsupport::RunResult finish(std::chrono::milliseconds timeout = 20000ms);
    // Ends a session the way the proxy does, by closing the connection, and waits.
    testsupport::RunResult close() {
        server_->closeClient();
        return finish();
    }

    bool send(const Event& e) { return server_->sendGenericEvent(90, loopback::encodeTransferEvent(e)); }
    bool sendPayload(std::uint16_t eventType, const Bytes& payload) {
        return server_->sendGenericEvent(eventType, payload);
    }

    // The next request of the extension, when it came in time and is of that type.
    std::optional<Reply> nextReply(std::chrono::milliseconds timeout = 10000ms);
    std::optional<Status> nextStatus(std::chrono::milliseconds timeout = 10000ms);
    // True when no request arrives within the time (used after events that get no answer).
    bool quiet(std::chrono::milliseconds timeout = 300ms);

    // Sends `e` and expects a reply of `kind` (an empty reply when none came).
    Reply ask(const Event& e, std::uint8_t kind);
    // Plays the receiving side: kind-5 events like `r` until kind 8. Every reply echoes r's
    // fields and carries 1..131072 bytes; counts the chunks.
    Bytes pull(const Reply& r, std::size_t* chunks = nullptr);
    // Plays the sending side: `content` as kind-4 events like `e` in chunks of `chunk` bytes,
    // each answered by an empty kind 5 echoing e's fields.
    void push(Event e, const Bytes& content, std::size_t chunk = 131072);

private:
    std::unique_ptr<loopback::XServer> server_;
    std::string error_;
    std::string workingDirectory_;
    long fileSizeLimit_ = 0;
    std::unique_ptr<testsupport::RunningProcess> process_;
    std::future<testsupport::RunResult> outcome_;
};

#define FAR_SIDE_OR_SKIP(far)                                                     \
    do {                                                                          \
        if (!(far).ok()) GTEST_SKIP() << "no loopback server: " << (far).error(); \
    } while (0)

}  // namespace fttest
