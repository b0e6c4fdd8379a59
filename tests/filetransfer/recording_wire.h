// The session in-process: a Wire that records what the handlers send, events built the way
// libxcb delivers them, and a session served by the dispatch in a scratch directory.
#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "common/bytes.h"
#include "far_protocol.h"
#include "filetransfer/dispatch.h"
#include "filetransfer/protocol.h"
#include "filetransfer/wire.h"

namespace fttest {

using Bytes = std::vector<std::uint8_t>;

// One request as the handlers sent it: a reply (header, block), a status (path, requestKind,
// failed, error text) or a list item (size, type, name).
struct Sent {
    std::uint16_t minor = 0;  // 115, 116 or 119
    TransferHeader header;
    Bytes block;
    std::string path;
    std::uint8_t requestKind = 0;
    bool failed = false;
    std::string error;
    std::uint64_t size = 0;
    std::uint8_t type = 0;
};

class RecordingWire : public Wire {
public:
    std::vector<Sent> sent;
    int flushes = 0;
    // Takes what was sent so far.
    std::vector<Sent> take() { return std::exchange(sent, {}); }

protected:
    void writeReply(const TransferHeader& header, std::span<const std::uint8_t> data) override {
        sent.push_back({.minor = kFileTransferReplyOpcode, .header = header, .block = Bytes(data.begin(), data.end())});
    }
    void writeStatus(std::string_view path, std::uint8_t kind, bool failed, std::string_view error) override {
        sent.push_back({.minor = kFileTransferStatusOpcode, .path = std::string(path), .requestKind = kind,
                        .failed = failed, .error = std::string(error)});
    }
    void writeListItem(const FileListItemFields& item) override {
        sent.push_back({.minor = kFileListItemOpcode, .path = std::string(item.name), .size = item.size, .type = item.type});
    }
    void writeFlush() override { ++flushes; }
};

inline constexpr std::uint8_t kExtension = 140;

// A generic event as libxcb hands it over: 32 bytes, the full sequence, the payload padded.
inline Bytes eventOf(std::uint16_t type, const Bytes& payload, std::uint8_t extension = kExtension) {
    Bytes b;
    const std::size_t padded = payload.size() + bytes::pad4(payload.size());
    bytes::Writer(b).u8(kGenericEvent).u8(extension).u16(1).u32(static_cast<std::uint32_t>(padded / 4)).u16(type)
        .zeros(26).raw(payload).zeros(padded - payload.size());
    return b;
}

// A session served in-process: events go through the dispatch, answers are recorded.
struct Served {
    explicit Served(Options options = {}) : session(std::move(options), wire) {}
    Outcome send(std::uint16_t type, const Bytes& payload) { return dispatchEvent(session, kExtension, eventOf(type, payload)); }
    Outcome transfer(const loopback::TransferEvent& e) { return send(kTransferRequest, loopback::encodeTransferEvent(e)); }
    // Sends the event and returns the one request it was answered with (minor 0: none or several).
    Sent ask(std::uint16_t type, const Bytes& payload) {
        send(type, payload);
        auto answers = wire.take();
        return answers.size() == 1 ? answers.front() : Sent{};
    }
    Sent ask(const loopback::TransferEvent& e) { return ask(kTransferRequest, loopback::encodeTransferEvent(e)); }
    RecordingWire wire;
    Session session;
};

}  // namespace fttest
