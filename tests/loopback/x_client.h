// Helpers for talking to the loopback X server from tests: a libxcb connection that sends the
// vendor extensions' requests, and a raw socket for bytes no proper client would send.
#pragma once

#include "x_server.h"

#include <xcb/xcb.h>
#include <xcb/xcbext.h>

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace loopbacktest {

inline xcb_extension_t fileTransferExtension{"QRV_ThinFileTransfer12", 0};
inline xcb_extension_t printExtension{"QRV_ThinPrint12", 0};

struct XcbDeleter {
    void operator()(xcb_connection_t* c) const { xcb_disconnect(c); }
};
using Connection = std::unique_ptr<xcb_connection_t, XcbDeleter>;

Connection connect(const std::string& display);

// Sends a request of `extension` (null: a core request with major opcode `opcode`) whose
// body after the 4-byte header is `body` (padded here). Returns the sequence number.
unsigned sendRequest(xcb_connection_t* c, xcb_extension_t* extension, std::uint8_t opcode,
                     std::span<const std::uint8_t> body, bool isVoid, bool checked);

// A socket to the display's Unix socket, optionally already through the handshake.
class RawClient {
public:
    explicit RawClient(int display);
    ~RawClient();
    RawClient(const RawClient&) = delete;
    RawClient& operator=(const RawClient&) = delete;

    bool connected() const { return fd_ >= 0; }
    bool send(std::span<const std::uint8_t> bytes);
    bool send(std::string_view text);
    void shutdownWrite();
    // Sends a little-endian setup without authorisation and reads the whole answer.
    std::optional<std::vector<std::uint8_t>> handshake();
    // Reads exactly n bytes; nullopt on end of stream or when nothing comes for 10 s.
    std::optional<std::vector<std::uint8_t>> read(std::size_t n);
    // Reads a setup answer (8-byte head plus its length).
    std::optional<std::vector<std::uint8_t>> readSetupAnswer(bool bigEndian = false);
    // True when the server closes the connection (reading whatever comes first).
    bool closedByServer();

private:
    int fd_ = -1;
};

}  // namespace loopbacktest
