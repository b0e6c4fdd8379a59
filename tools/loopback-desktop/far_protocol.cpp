#include "far_protocol.h"

#include "common/bytes.h"

#include <algorithm>
#include <limits>

namespace loopback {

namespace {

std::string toString(std::string_view v) { return std::string(v); }

std::vector<std::uint8_t> toVector(std::span<const std::uint8_t> b) { return {b.begin(), b.end()}; }

// Lengths above 16 bits cannot be sent in the name fields; longer names are cut, as the
// client would see them anyway.
std::uint16_t len16(std::string_view s) {
    return static_cast<std::uint16_t>(std::min<std::size_t>(s.size(), std::numeric_limits<std::uint16_t>::max()));
}

}  // namespace

std::optional<TransferReplyView> viewTransferReply(std::span<const std::uint8_t> request) {
    bytes::Reader r(request, 4);
    TransferReplyView out;
    out.direction = r.u8();
    out.objectType = r.u8();
    out.openFlag = r.u8();
    out.kind = r.u8();
    out.size = r.u64();
    const std::uint16_t lenA = r.u16();
    const std::uint16_t lenB = r.u16();
    const std::uint32_t lenC = r.u32();
    out.nameA = r.text(lenA);
    out.nameB = r.text(lenB);
    out.block = r.bytes(lenC);
    if (!r.ok()) return std::nullopt;
    return out;
}

std::optional<TransferReply> decodeTransferReply(std::span<const std::uint8_t> request) {
    const auto view = viewTransferReply(request);
    if (!view) return std::nullopt;
    return TransferReply{view->direction, view->objectType, view->openFlag, view->kind, view->size,
                         toString(view->nameA), toString(view->nameB), toVector(view->block)};
}

std::optional<TransferStatus> decodeTransferStatus(std::span<const std::uint8_t> request) {
    bytes::Reader r(request, 4);
    TransferStatus out;
    out.requestKind = r.u8();
    out.status = r.u8();
    r.skip(2);
    const std::uint32_t pathLen = r.u32();
    const std::uint32_t errorLen = r.u32();
    out.path = toString(r.text(pathLen));
    out.error = toString(r.text(errorLen));
    if (!r.ok()) return std::nullopt;
    return out;
}

std::optional<ListItem> decodeListItem(std::span<const std::uint8_t> request) {
    bytes::Reader r(request, 4);
    ListItem out;
    const std::uint32_t nameLen = r.u32();
    out.size = r.u64();
    out.type = r.u8();
    r.skip(3 + 4);
    out.name = toString(r.text(nameLen));
    if (!r.ok()) return std::nullopt;
    return out;
}

std::optional<PrintChunk> decodePrintChunk(std::span<const std::uint8_t> request) {
    if (request.size() < 2) return std::nullopt;
    PrintChunk out;
    out.begin = request[1] == kPrintBegin;
    if (!out.begin && request[1] != kPrintContinue) return std::nullopt;
    bytes::Reader r(request, 4);
    out.more = r.u8();
    std::uint16_t nameLen = 0;
    if (out.begin) {
        r.skip(1);
        nameLen = r.u16();
    } else {
        r.skip(3);
    }
    const std::uint32_t dataLen = r.u32();
    out.name = toString(r.text(nameLen));
    out.data = toVector(r.bytes(dataLen));
    if (!r.ok()) return std::nullopt;
    return out;
}

std::vector<std::string> splitDriveList(std::span<const std::uint8_t> block) {
    std::vector<std::string> out;
    std::string current;
    for (const std::uint8_t b : block) {
        if (b == 0) {
            out.push_back(std::move(current));
            current.clear();
        } else {
            current.push_back(static_cast<char>(b));
        }
    }
    if (!current.empty()) out.push_back(std::move(current));
    return out;
}

std::vector<std::uint8_t> encodeTransferEvent(const TransferEvent& e) {
    const std::string_view a(e.nameA.data(), len16(e.nameA));
    const std::string_view b(e.nameB.data(), len16(e.nameB));
    std::vector<std::uint8_t> out;
    bytes::Writer w(out);
    w.u8(e.direction).u8(e.objectType).u8(e.openFlag).u8(e.kind).u64(e.size);
    w.u16(static_cast<std::uint16_t>(a.size())).u16(static_cast<std::uint16_t>(b.size()));
    w.u32(static_cast<std::uint32_t>(e.data.size()));
    w.raw(a).raw(b).raw(e.data);
    return out;
}

std::vector<std::uint8_t> encodeListDirectory(std::string_view path) {
    const std::string_view p = path.substr(0, len16(path));
    std::vector<std::uint8_t> out;
    bytes::Writer(out).u16(static_cast<std::uint16_t>(p.size())).u16(0).raw(p);
    return out;
}

std::vector<std::uint8_t> encodeDeleteFile(std::string_view path) {
    const std::string_view p = path.substr(0, len16(path));
    std::vector<std::uint8_t> out;
    bytes::Writer(out).u16(0).u16(static_cast<std::uint16_t>(p.size())).raw(p);
    return out;
}

std::vector<std::uint8_t> encodeRenameFile(std::string_view oldName, std::string_view newName) {
    const std::string_view o = oldName.substr(0, len16(oldName));
    const std::string_view n = newName.substr(0, len16(newName));
    std::vector<std::uint8_t> out;
    bytes::Writer(out).u16(static_cast<std::uint16_t>(o.size())).u16(static_cast<std::uint16_t>(n.size())).raw(o).raw(n);
    return out;
}

std::string transferKindName(std::uint8_t kind) {
    switch (kind) {
    case 0: return "start";
    case 1: return "exists";
    case 2: return "replace";
    case 3: return "open";
    case 4: return "data";
    case 5: return "next";
    case 6: return "no transfer";
    case 7: return "abort";
    case 8: return "end";
    case 9: return "session start";
    case 10: return "command-line start";
    case 13: return "session closed";
    case 14: return "refused: another session";
    case 15: return "refused: not supported";
    case 16: return "refused: suspended";
    case 17: return "refused: not allowed";
    default: return "kind " + std::to_string(kind);
    }
}

}  // namespace loopback
