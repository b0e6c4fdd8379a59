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
#include <span>
#include <string>
#include <vector>

#include "support/process.h"
#include "x_server.h"

namespace fttest {

using Bytes = std::vector<std::uint8_t>;
using namespace std::chrono_literals;

// A FileTransferReply as the far side received it.
struct Reply {
    std::uint8_t direction = 0, objectType = 0, openFlag = 0, kind = 0;
    std::uint64_t size = 0;
    std::string a, b;
    Bytes c;
    std::size_t wireSize = 0;  // the whole request, padding included
};

// A FileTransferStatus as the far side received it.
struct Status {
    std::uint8_t requestKind = 0, failed = 0;
    std::uint16_t reserved = 0;
    std::string path, error;
    std::size_t wireSize = 0;
};

// One request of the extension: exactly one of the two is set.
struct Answer {
    std::optional<Reply> reply;
    std::optional<Status> status;
    std::uint8_t minor = 0;
};

// The fields of a TransferRequest event.
struct Event {
    std::uint8_t direction = 2, objectType = 1, openFlag = 0, kind = 0;
    std::uint64_t size = 0;
    std::string a, b;
    Bytes data;
};

// Payload of a TransferRequest (wire bytes after byte 32); lengths may be overridden to lie.
Bytes transferPayload(const Event& e, std::optional<std::uint16_t> lengthA = {},
                      std::optional<std::uint16_t> lengthB = {}, std::optional<std::uint32_t> dataLength = {});

Bytes bytesOf(std::string_view s);
// A deterministic pseudo-random block.
Bytes pattern(std::size_t size, std::uint32_t seed = 1);

class FarSide {
public:
    explicit FarSide(loopback::ServerOptions options = {});
    ~FarSide();

    bool ok() const { return server_ != nullptr; }
    const std::string& error() const { return error_; }
    loopback::XServer& server() { return *server_; }

    // Starts varoft with -display and the given arguments; its outcome is collected in the
    // background while the test plays the far side. Waits for the connection.
    bool start(std::vector<std::string> args, std::optional<std::string> input = {},
               std::map<std::string, std::optional<std::string>> env = {});
    // Runs `program` with exactly these arguments instead of varoft (a wrapper that runs it).
    bool startCommand(const std::string& program, std::vector<std::string> args);
    void setWorkingDirectory(std::string dir) { workingDirectory_ = std::move(dir); }
    // Waits for varoft to end.
    testsupport::RunResult finish(std::chrono::milliseconds timeout = 20000ms);

    bool send(const Event& e) { return server_->sendGenericEvent(90, transferPayload(e)); }
    bool sendPayload(std::uint16_t eventType, const Bytes& payload) {
        return server_->sendGenericEvent(eventType, payload);
    }

    // The next request of the extension (nullopt when none came in time).
    std::optional<Answer> next(std::chrono::milliseconds timeout = 10000ms);
    std::optional<Reply> nextReply(std::chrono::milliseconds timeout = 10000ms);
    std::optional<Status> nextStatus(std::chrono::milliseconds timeout = 10000ms);
    // True when no request arrives within the time (used after events that get no answer).
    bool quiet(std::chrono::milliseconds timeout = 300ms);

private:
    bool launch(const std::string& program, std::vector<std::string> args, std::optional<std::string> input,
                std::map<std::string, std::optional<std::string>> env);

    std::unique_ptr<loopback::XServer> server_;
    std::string error_;
    std::string workingDirectory_;
    std::unique_ptr<testsupport::RunningProcess> process_;
    std::future<testsupport::RunResult> outcome_;
};

// Environment that keeps varoft's report predictable and away from the tester's settings.
std::map<std::string, std::optional<std::string>> quietEnvironment();

}  // namespace fttest
