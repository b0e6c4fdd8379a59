#include "far_side.h"

#include "common/bytes.h"

namespace fttest {

Bytes bytesOf(std::string_view s) { return Bytes(s.begin(), s.end()); }

Bytes pattern(std::size_t size, std::uint32_t seed) {
    Bytes out(size);
    std::uint32_t x = seed * 2654435761u + 1;
    for (auto& b : out) {
        x ^= x << 13;
        x ^= x >> 17;
        x ^= x << 5;
        b = static_cast<std::uint8_t>(x);
    }
    return out;
}

Bytes transferPayload(const Event& e, std::optional<std::uint16_t> lengthA, std::optional<std::uint16_t> lengthB,
                      std::optional<std::uint32_t> dataLength) {
    Bytes p;
    bytes::Writer w(p);
    w.u8(e.direction).u8(e.objectType).u8(e.openFlag).u8(e.kind).u64(e.size);
    w.u16(lengthA.value_or(static_cast<std::uint16_t>(e.a.size())));
    w.u16(lengthB.value_or(static_cast<std::uint16_t>(e.b.size())));
    w.u32(dataLength.value_or(static_cast<std::uint32_t>(e.data.size())));
    w.raw(e.a).raw(e.b).raw(e.data);
    return p;
}

std::map<std::string, std::optional<std::string>> quietEnvironment() {
    return {{"USERPROFILE", std::nullopt}, {"USERNAME", std::nullopt}, {"SystemDrive", std::nullopt},
            {"DISPLAY", std::nullopt},     {"HOME", "/home/tester"},   {"USER", "tester"},
            {"LOGNAME", "tester"}};
}

FarSide::FarSide(loopback::ServerOptions options) { server_ = loopback::XServer::start(options, &error_); }

FarSide::~FarSide() {
    if (process_ && outcome_.valid()) {
        process_->kill();
        outcome_.wait();
    }
}

bool FarSide::start(std::vector<std::string> args, std::optional<std::string> input,
                    std::map<std::string, std::optional<std::string>> env) {
    std::vector<std::string> all = {"-display", server_->displayName()};
    all.insert(all.end(), args.begin(), args.end());
    return launch(testsupport::varoftBinary(), std::move(all), std::move(input), std::move(env));
}

bool FarSide::startCommand(const std::string& program, std::vector<std::string> args) {
    return launch(program, std::move(args), std::nullopt, {});
}

bool FarSide::launch(const std::string& program, std::vector<std::string> args, std::optional<std::string> input,
                     std::map<std::string, std::optional<std::string>> env) {
    testsupport::RunOptions options;
    options.args = std::move(args);
    options.input = std::move(input);
    options.workingDirectory = workingDirectory_;
    options.env = quietEnvironment();
    for (auto& [k, v] : env) options.env[k] = v;
    process_ = std::make_unique<testsupport::RunningProcess>(program, options);
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

std::optional<Answer> FarSide::next(std::chrono::milliseconds timeout) {
    const auto request = server_->nextRequest(timeout);
    if (!request) return std::nullopt;
    const Bytes& b = request->bytes;
    Answer answer;
    answer.minor = request->minor;
    bytes::Reader r(b, 4);
    if (request->minor == 115) {
        Reply reply;
        reply.direction = r.u8();
        reply.objectType = r.u8();
        reply.openFlag = r.u8();
        reply.kind = r.u8();
        reply.size = r.u64();
        const std::uint16_t la = r.u16();
        const std::uint16_t lb = r.u16();
        const std::uint32_t lc = r.u32();
        reply.a = std::string(r.text(la));
        reply.b = std::string(r.text(lb));
        const auto c = r.bytes(lc);
        reply.c.assign(c.begin(), c.end());
        if (!r.ok()) return std::nullopt;
        reply.wireSize = b.size();
        answer.reply = std::move(reply);
    } else if (request->minor == 119) {
        Status status;
        status.requestKind = r.u8();
        status.failed = r.u8();
        status.reserved = r.u16();
        const std::uint32_t lp = r.u32();
        const std::uint32_t le = r.u32();
        status.path = std::string(r.text(lp));
        status.error = std::string(r.text(le));
        if (!r.ok()) return std::nullopt;
        status.wireSize = b.size();
        answer.status = std::move(status);
    }
    return answer;
}

std::optional<Reply> FarSide::nextReply(std::chrono::milliseconds timeout) {
    auto answer = next(timeout);
    if (!answer || !answer->reply) return std::nullopt;
    return std::move(answer->reply);
}

std::optional<Status> FarSide::nextStatus(std::chrono::milliseconds timeout) {
    auto answer = next(timeout);
    if (!answer || !answer->status) return std::nullopt;
    return std::move(answer->status);
}

bool FarSide::quiet(std::chrono::milliseconds timeout) { return !server_->nextRequest(timeout).has_value(); }

}  // namespace fttest
