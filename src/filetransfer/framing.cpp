#include "filetransfer/framing.h"

#include <algorithm>
#include <cstdint>

#include "common/bytes.h"
#include "common/log.h"
#include "filetransfer/protocol.h"

namespace {

// The request length in 4-byte units, or 0 when it does not fit the 16-bit field.
void putLength(std::vector<std::uint8_t>& out) {
    const std::size_t units = out.size() / 4;
    bytes::put16(out, 2, units <= UINT16_MAX ? static_cast<std::uint16_t>(units) : 0);
}

// A name is kept the way a C string would hold it: up to its first NUL byte.
std::string cString(std::string_view text) { return std::string(text.substr(0, text.find('\0'))); }

}  // namespace

ReplyParts replyParts(const TransferHeader& header, std::span<const std::uint8_t> c) {
    ReplyParts parts;
    // The lengths live in 16-bit cells; the bytes sent follow the cells.
    const auto lengthA = static_cast<std::uint16_t>(header.nameA.size());
    const auto lengthB = static_cast<std::uint16_t>(header.nameB.size());
    parts.a = std::string_view(header.nameA).substr(0, lengthA);
    parts.b = std::string_view(header.nameB).substr(0, lengthB);
    if (header.direction != kDirectionFromDesktop) {
        // The length field is 32 bits wide; a block cannot come near that in one request.
        parts.c = c.first(std::min<std::size_t>(c.size(), UINT32_MAX));
    }
    parts.padding = bytes::pad4(parts.a.size() + parts.b.size() + parts.c.size());
    return parts;
}

std::array<std::uint8_t, kReplyFixedSize> encodeFileTransferReplyFixed(const TransferHeader& header,
                                                                       std::span<const std::uint8_t> c) {
    const ReplyParts parts = replyParts(header, c);
    std::array<std::uint8_t, kReplyFixedSize> fixed{};
    bytes::put8(fixed, 4, header.direction);
    bytes::put8(fixed, 5, header.objectType);
    bytes::put8(fixed, 6, header.openFlag);
    bytes::put8(fixed, 7, header.kind);
    bytes::put64(fixed, 8, header.size);
    bytes::put16(fixed, 16, static_cast<std::uint16_t>(parts.a.size()));
    bytes::put16(fixed, 18, static_cast<std::uint16_t>(parts.b.size()));
    bytes::put32(fixed, 20, static_cast<std::uint32_t>(parts.c.size()));
    return fixed;
}

std::vector<std::uint8_t> encodeFileTransferReply(std::uint8_t majorOpcode, const TransferHeader& header,
                                                  std::span<const std::uint8_t> c) {
    const ReplyParts parts = replyParts(header, c);
    const auto fixed = encodeFileTransferReplyFixed(header, c);
    std::vector<std::uint8_t> out;
    bytes::Writer w(out);
    w.raw(fixed).raw(parts.a).raw(parts.b).raw(parts.c).zeros(parts.padding);
    out[0] = majorOpcode;
    out[1] = kFileTransferReplyOpcode;
    putLength(out);
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
    putLength(out);
    return out;
}

std::array<std::uint8_t, kListItemFixedSize> encodeFileListItemFixed(const FileListItemFields& fields) {
    std::array<std::uint8_t, kListItemFixedSize> fixed{};
    bytes::put32(fixed, 4, static_cast<std::uint32_t>(fields.name.size()));
    bytes::put64(fixed, 8, fields.size);
    bytes::put8(fixed, 16, fields.type);
    return fixed;
}

std::vector<std::uint8_t> encodeFileListItem(std::uint8_t majorOpcode, const FileListItemFields& fields) {
    const auto fixed = encodeFileListItemFixed(fields);
    // Sized up front: the name is followed by zero padding to a multiple of 4.
    std::vector<std::uint8_t> out(fixed.size() + fields.name.size() + bytes::pad4(fields.name.size()), 0);
    std::copy(fixed.begin(), fixed.end(), out.begin());
    std::copy(fields.name.begin(), fields.name.end(), out.begin() + static_cast<std::ptrdiff_t>(fixed.size()));
    out[0] = majorOpcode;
    out[1] = kFileListItemOpcode;
    putLength(out);
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

bool decodeTransferRequest(std::span<const std::uint8_t> event, TransferRequest& out) {
    bytes::Reader r(event, kGenericEventPayloadOffset);
    TransferRequest t;
    t.header.direction = r.u8();
    t.header.objectType = r.u8();
    t.header.openFlag = r.u8();
    t.header.kind = r.u8();
    if (!r.ok()) return false;
    const std::uint8_t kind = t.header.kind;
    if (kind == kEventSessionClosed || (kind >= kEventRefusedFirst && kind <= kEventRefusedLast)) {
        out = std::move(t);  // nothing else of these events is read
        return true;
    }
    t.header.size = r.u64();
    const std::uint16_t lengthA = r.u16();
    const std::uint16_t lengthB = r.u16();
    const std::uint32_t dataLength = r.u32();
    if (!r.ok()) return false;

    t.hasNameA = lengthA >= 1 && lengthA <= kNameMax;
    t.hasNameB = lengthB >= 1 && lengthB <= kNameMax;
    const std::size_t names = r.position();
    const std::uint64_t available = event.size() - names;
    const std::uint64_t endA = lengthA;
    const std::uint64_t endB = endA + lengthB;
    const std::uint64_t endData = endB + dataLength;
    if (t.hasNameA && endA > available) return false;
    if (t.hasNameB && endB > available) return false;
    if (kind == kEventChunk && endData > available) return false;

    const char* base = reinterpret_cast<const char*>(event.data() + names);
    if (t.hasNameA) t.header.nameA = cString(std::string_view(base, lengthA));
    if (t.hasNameB) t.header.nameB = cString(std::string_view(base + endA, lengthB));
    if (kind == kEventChunk) t.data = event.subspan(names + endB, dataLength);
    out = std::move(t);
    return true;
}

void logDroppedEvent(std::uint16_t eventType) {
    logPrint(2, "Dropping event of type %d: its lengths exceed the event.\n", eventType);
}
