#include "far_side.h"

#include <gtest/gtest.h>

#include <random>
#include <tuple>


namespace fttest {

Bytes bytesOf(std::string_view s) { return Bytes(s.begin(), s.end()); }

Bytes pattern(std::size_t size, std::uint32_t seed) {
    std::minstd_rand next(seed);
    Bytes out(size);
    for (auto& b : out) b = static_cast<std::uint8_t>(next() >> 7);
    return out;
}

bool contains(const std::string& text, const std::string& part) { return text.find(part) != std::string::npos; }


void expectEnd(const testsupport::RunResult& result, const std::string& tail) {
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_FALSE(result.timedOut);
    EXPECT_TRUE(result.err.size() >= tail.size() && result.err.compare(result.err.size() - tail.size(), tail.size(), tail) == 0)
        << result.err;
}

Event echo(const Reply& r, std::uint8_t kind) {
    return Event{r.direction, r.objectType, r.openFlag, kind, r.size, r.nameA, r.nameB, {}};
}

FarSide::FarSide(loopback::ServerOptions options) { server_ = loopback::XServer::start(options, &error_); }

FarSide::~FarSide() {
    if (process_ && outcome_.valid()) {
        process_->kill();
        outcome_.wait();
    }
}

bool FarSide::start(std::vector<std::string> args, std::optional<std::string> input, Env env) {
    testsupport::RunOptions options;
    options.args = {"-display", server_->displayName()};
    options.args.insert(options.args.end(), args.begin(), args.end());
    options.input = std::move(input);
    options.workingDirectory = workingDirectory_;
    options.fileSizeLimit = fileSizeLimit_;
    // An environment that keeps varoft's report predictable and away from the tester's settings.
    options.env = {{"USERPROFILE", std::nullopt}, {"USERNAME", std::nullopt}, {"SystemDrive", std::nullopt},
                   {"DISPLAY", std::nullopt},     {"HOME", "/home/tester"},   {"USER", "tester"},
                   {"LOGNAME", "tester"}};
    for (auto& [k, v] : env) options.env[k] = v;
    process_ = std::make_unique<testsupport::RunningProcess>(testsupport::varoftBinary(), options);
    if (!process_->started()) return false;
    auto* process = process_.get();
    outcome_ = std::async(std::launch::async, [process] { return process->wait(std::chrono::milliseconds(60000)); });
    return server_->waitForClient(10000ms);
}

testsupport::RunResult FarSide::finish(std::chrono::milliseconds timeout) {
    if (!outcome_.valid()) return {};
    if (outcome_.wait_for(timeout) != std::future_status::ready) process_->kill();
    return outcome_.get();
}

std::optional<Reply> FarSide::nextReply(std::chrono::milliseconds timeout) {
    const auto request = server_->nextRequest(timeout);
    if (!request || request->minor != loopback::kFileTransferReply) return std::nullopt;
    const auto reply = loopback::decodeTransferReply(request->bytes);
    if (!reply) return std::nullopt;
    return Reply{*reply, request->bytes.size()};
}

std::optional<Status> FarSide::nextStatus(std::chrono::milliseconds timeout) {
    const auto request = server_->nextRequest(timeout);
    if (!request || request->minor != loopback::kFileTransferStatus) return std::nullopt;
    const auto status = loopback::decodeTransferStatus(request->bytes);
    if (!status) return std::nullopt;
    return *status;
}

bool FarSide::quiet(std::chrono::milliseconds timeout) { return !server_->nextRequest(timeout).has_value(); }

Reply FarSide::ask(const Event& e, std::uint8_t kind) {
    EXPECT_TRUE(send(e));
    auto reply = nextReply();
    EXPECT_TRUE(reply) << "no reply to kind " << int(e.kind);
    if (!reply) return {};
    EXPECT_EQ(reply->kind, kind);
    return *reply;
}

Bytes FarSide::pull(const Reply& r, std::size_t* chunks) {
    Bytes received;
    for (std::size_t n = 0;; ++n) {
        const auto reply = (send(echo(r, 5)), nextReply());
        EXPECT_TRUE(reply);
        if (!reply || n > 10000) break;
        EXPECT_EQ(std::tie(reply->direction, reply->objectType, reply->openFlag, reply->size, reply->nameA, reply->nameB),
                  std::tie(r.direction, r.objectType, r.openFlag, r.size, r.nameA, r.nameB));
        EXPECT_EQ(reply->wireSize % 4, 0u);
        if (reply->kind == 8) {
            EXPECT_TRUE(reply->block.empty());
            if (chunks) *chunks = n;
            break;
        }
        EXPECT_EQ(reply->kind, 4);
        EXPECT_GT(reply->block.size(), 0u);
        EXPECT_LE(reply->block.size(), 131072u);
        received.insert(received.end(), reply->block.begin(), reply->block.end());
    }
    return received;
}

void FarSide::push(Event e, const Bytes& content, std::size_t chunk) {
    e.kind = 4;
    std::size_t offset = 0;
    do {
        const std::size_t n = std::min(chunk, content.size() - offset);
        e.data.assign(content.begin() + static_cast<std::ptrdiff_t>(offset),
                      content.begin() + static_cast<std::ptrdiff_t>(offset + n));
        const Reply reply = ask(e, 5);
        EXPECT_EQ(std::tie(reply.direction, reply.objectType, reply.size, reply.nameA, reply.nameB),
                  std::tie(e.direction, e.objectType, e.size, e.nameA, e.nameB));
        EXPECT_TRUE(reply.block.empty());
        offset += n;
    } while (offset < content.size());
}

}  // namespace fttest
