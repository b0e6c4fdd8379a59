#include "filetransfer/framing.h"

#include <algorithm>
#include <cstdint>
#include <string>

#include <xcb/xcbext.h>

#include "common/log.h"
#include "common/bytes.h"
#include "filetransfer/protocol.h"
#include "filetransfer/transfer_state.h"
#include "platform/platform.h"

namespace {

constexpr std::uint8_t kZeros[4] = {0, 0, 0, 0};

// One part of a request vector (struct iovec comes with libxcb's header).

iovec part(const void* data, std::size_t length) {
    return iovec{const_cast<void*>(data), length};
}

}  // namespace

ReplyParts replyParts(const FileTransferReplyFields& fields) {
    ReplyParts parts;
    // The lengths live in 16-bit cells; the bytes sent follow the cells.
    const auto lengthA = static_cast<std::uint16_t>(fields.a.size());
    const auto lengthB = static_cast<std::uint16_t>(fields.b.size());
    parts.a = fields.a.substr(0, lengthA);
    parts.b = fields.b.substr(0, lengthB);
    if (fields.direction != 2) {
        // The length field is 32 bits wide; a block cannot come near that in one request.
        parts.c = fields.c.first(std::min<std::size_t>(fields.c.size(), UINT32_MAX));
    }
    parts.padding = bytes::pad4(parts.a.size() + parts.b.size() + parts.c.size());
    return parts;
}

std::array<std::uint8_t, kReplyFixedSize> encodeFileTransferReplyFixed(const FileTransferReplyFields& fields) {
    const ReplyParts parts = replyParts(fields);
    std::array<std::uint8_t, kReplyFixedSize> fixed{};
    bytes::put8(fixed, 4, fields.direction);
    bytes::put8(fixed, 5, fields.objectType);
    bytes::put8(fixed, 6, fields.openFlag);
    bytes::put8(fixed, 7, fields.kind);
    bytes::put64(fixed, 8, fields.size);
    bytes::put16(fixed, 16, static_cast<std::uint16_t>(parts.a.size()));
    bytes::put16(fixed, 18, static_cast<std::uint16_t>(parts.b.size()));
    bytes::put32(fixed, 20, static_cast<std::uint32_t>(parts.c.size()));
    return fixed;
}

std::vector<std::uint8_t> encodeFileTransferReply(std::uint8_t majorOpcode, const FileTransferReplyFields& fields) {
    const ReplyParts parts = replyParts(fields);
    const auto fixed = encodeFileTransferReplyFixed(fields);
    std::vector<std::uint8_t> out;
    bytes::Writer w(out);
    w.raw(fixed).raw(parts.a).raw(parts.b).raw(parts.c).zeros(parts.padding);
    out[0] = majorOpcode;
    out[1] = kFileTransferReplyOpcode;
    const std::size_t units = out.size() / 4;
    bytes::put16(out, 2, units <= UINT16_MAX ? static_cast<std::uint16_t>(units) : 0);
    return out;
}

std::array<std::uint8_t, kStatusFixedSize> encodeFileTransferStatusFixed(std::uint8_t requestKind, bool failed,
                                                                        std::uint32_t pathLength,
                                                                        std::uint32_t errorLength) {
    std::array<std::uint8_t, kStatusFixedSize> fixed{};
    bytes::put8(fixed, 4, requestKind);
    bytes::put8(fixed, 5, failed ? 1 : 0);
    bytes::put16(fixed, 6, 0);
    bytes::put32(fixed, 8, pathLength);
    bytes::put32(fixed, 12, errorLength);
    return fixed;
}

std::vector<std::uint8_t> encodeFileTransferStatus(std::uint8_t majorOpcode, std::uint8_t requestKind, bool failed,
                                                   std::string_view path, std::string_view errorText) {
    const auto fixed = encodeFileTransferStatusFixed(requestKind, failed, static_cast<std::uint32_t>(path.size()),
                                                     static_cast<std::uint32_t>(errorText.size()));
    std::vector<std::uint8_t> out;
    bytes::Writer w(out);
    w.raw(fixed).raw(path).raw(errorText).zeros(bytes::pad4(path.size() + errorText.size()));
    out[0] = majorOpcode;
    out[1] = kFileTransferStatusOpcode;
    const std::size_t units = out.size() / 4;
    bytes::put16(out, 2, units <= UINT16_MAX ? static_cast<std::uint16_t>(units) : 0);
    return out;
}

std::optional<GenericEventHeader> decodeGenericEventHeader(std::span<const std::uint8_t> buffer) {
    if (buffer.size() < 32) return std::nullopt;
    bytes::Reader r(buffer);
    GenericEventHeader h;
    h.responseType = r.u8();
    h.extension = r.u8();
    h.sequence = r.u16();
    h.length = r.u32();
    h.eventType = r.u16();
    return h;
}

std::span<const std::uint8_t> genericEventBytes(const xcb_generic_event_t* event) {
    const auto* bytes = reinterpret_cast<const std::uint8_t*>(event);
    const auto header = decodeGenericEventHeader(std::span<const std::uint8_t>(bytes, 32));
    return {bytes, genericEventBufferSize(header ? header->length : 0)};
}

const xcb_query_extension_reply_t* findExtension(xcb_connection_t* connection) {
    ExtensionInfo = xcb_get_extension_data(connection, &FileTransferExtension);
    return ExtensionInfo;
}

void sendFileTransferReply(xcb_connection_t* connection, const FileTransferReplyFields& fields) {
    logPrint(2, "Sending file transfer reply.\n");
    const ReplyParts parts = replyParts(fields);
    auto fixed = encodeFileTransferReplyFixed(fields);
    // Two leading slots belong to libxcb (it may prepend the BIG-REQUESTS length there).
    iovec vector[2 + 6];
    vector[2] = part(fixed.data(), fixed.size());
    vector[3] = part(kZeros, 0);
    vector[4] = part(parts.a.data(), parts.a.size());
    vector[5] = part(parts.b.data(), parts.b.size());
    vector[6] = part(parts.c.data(), parts.c.size());
    vector[7] = part(kZeros, parts.padding);
    static const xcb_protocol_request_t request = {6, &FileTransferExtension, kFileTransferReplyOpcode, 1};
    xcb_send_request(connection, 0, vector + 2, &request);
}

void sendFileTransferStatus(xcb_connection_t* connection, std::string_view path, std::uint8_t requestKind,
                            bool failed) {
    std::string errorText;
    if (failed) errorText = platform::lastErrorText();
    auto fixed = encodeFileTransferStatusFixed(requestKind, failed, static_cast<std::uint32_t>(path.size()),
                                               static_cast<std::uint32_t>(errorText.size()));
    iovec vector[2 + 5];
    vector[2] = part(fixed.data(), fixed.size());
    vector[3] = part(kZeros, 0);
    vector[4] = part(path.data(), path.size());
    vector[5] = part(errorText.data(), errorText.size());
    vector[6] = part(kZeros, bytes::pad4(path.size() + errorText.size()));
    static const xcb_protocol_request_t request = {5, &FileTransferExtension, kFileTransferStatusOpcode, 1};
    xcb_send_request(connection, 0, vector + 2, &request);
    if (failed) logPrint(2, "Sending failed file transfer status, error : %s\n", errorText.c_str());
    else logPrint(2, "Sending suceess file transfer status\n");
}

void logDroppedEvent(std::uint16_t eventType) {
    logPrint(2, "Dropping event of type %d: its lengths exceed the event.\n", eventType);
}
