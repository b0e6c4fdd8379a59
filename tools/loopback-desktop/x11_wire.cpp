#include "x11_wire.h"

#include "common/bytes.h"

#include <algorithm>

namespace loopback::x11 {

namespace {

constexpr std::string_view kVendor = "varoft loopback desktop";

}  // namespace

SetupParse parseSetup(std::span<const std::uint8_t> in, Setup& out) {
    if (in.empty()) return SetupParse::NeedMore;
    if (in[0] == 'B') return SetupParse::BigEndian;
    if (in[0] != 'l') return SetupParse::NotX;
    if (in.size() < 12) return SetupParse::NeedMore;
    const std::uint16_t nameLen = bytes::get16(in, 6);
    const std::uint16_t dataLen = bytes::get16(in, 8);
    const std::size_t need = 12 + nameLen + bytes::pad4(nameLen) + dataLen + bytes::pad4(dataLen);
    if (in.size() < need) return SetupParse::NeedMore;
    const std::size_t dataAt = 12 + nameLen + bytes::pad4(nameLen);
    out.length = need;
    out.protocolMajor = bytes::get16(in, 2);
    out.authName = std::string_view(reinterpret_cast<const char*>(in.data() + 12), nameLen);
    out.authData = std::string_view(reinterpret_cast<const char*>(in.data() + dataAt), dataLen);
    return SetupParse::Complete;
}

std::vector<std::uint8_t> failedSetup(std::string_view reason, bool bigEndian) {
    std::vector<std::uint8_t> out;
    const std::size_t n = std::min<std::size_t>(reason.size(), 255);
    const auto units = static_cast<std::uint16_t>((n + bytes::pad4(n)) / 4);
    auto u16 = [&](std::uint16_t v) {
        if (bigEndian) {
            out.push_back(static_cast<std::uint8_t>(v >> 8));
            out.push_back(static_cast<std::uint8_t>(v));
        } else {
            out.push_back(static_cast<std::uint8_t>(v));
            out.push_back(static_cast<std::uint8_t>(v >> 8));
        }
    };
    out.push_back(0);  // Failed
    out.push_back(static_cast<std::uint8_t>(n));
    u16(11);
    u16(0);
    u16(units);
    bytes::Writer w(out);
    w.raw(reason.substr(0, n)).pad4();
    return out;
}

std::vector<std::uint8_t> acceptedSetup(std::uint32_t clientId) {
    // One screen of 1024x768 at depth 24 with one TrueColor visual; pixmap formats for depths
    // 1 and 24.
    constexpr std::uint32_t kRoot = 0x000000FF, kColormap = 0x00000020, kVisual = 0x00000021;
    std::vector<std::uint8_t> body;
    bytes::Writer w(body);
    const std::uint32_t base = ((clientId % 1000u) + 1u) << 21;
    w.u32(12000000).u32(base).u32(0x001FFFFF).u32(256);
    w.u16(static_cast<std::uint16_t>(kVendor.size())).u16(65535);
    w.u8(1).u8(2);  // screens, pixmap formats
    w.u8(0).u8(0).u8(32).u8(32).u8(8).u8(255).zeros(4);
    w.raw(kVendor).pad4();
    w.u8(1).u8(1).u8(32).zeros(5);
    w.u8(24).u8(32).u8(32).zeros(5);
    // screen
    w.u32(kRoot).u32(kColormap).u32(0x00FFFFFF).u32(0).u32(0);
    w.u16(1024).u16(768).u16(271).u16(203).u16(1).u16(1);
    w.u32(kVisual).u8(0).u8(0).u8(24).u8(2);
    // depth 24 with its visual, depth 1 without visuals
    w.u8(24).u8(0).u16(1).zeros(4);
    w.u32(kVisual).u8(4).u8(8).u16(256).u32(0x00FF0000).u32(0x0000FF00).u32(0x000000FF).zeros(4);
    w.u8(1).u8(0).u16(0).zeros(4);

    std::vector<std::uint8_t> out;
    bytes::Writer h(out);
    h.u8(1).u8(0).u16(11).u16(0).u16(static_cast<std::uint16_t>(body.size() / 4)).raw(body);
    return out;
}

FrameParse parseRequestFrame(std::span<const std::uint8_t> in, bool bigEnabled, std::uint32_t maxBigUnits,
                             RequestFrame& frame) {
    frame = {};
    if (in.size() < 4) return FrameParse::NeedMore;
    frame.total = std::size_t{bytes::get16(in, 2)} * 4;
    if (frame.total == 0) {
        // Without BIG-REQUESTS a length of 0 leaves no way to find the next request.
        if (!bigEnabled) return FrameParse::BadLength;
        if (in.size() < 8) return FrameParse::NeedMore;
        const std::uint32_t units = bytes::get32(in, 4);
        if (units < 2 || units > maxBigUnits) return FrameParse::BadLength;
        frame.total = std::size_t{units} * 4;
        frame.headerLen = 8;
        frame.big = true;
    }
    return in.size() < frame.total ? FrameParse::NeedMore : FrameParse::Complete;
}

Packet reply(std::uint8_t data1, std::uint16_t sequence) {
    Packet r{};
    r[0] = 1;
    r[1] = data1;
    bytes::put16(r, 2, sequence);
    return r;
}

Packet error(std::uint8_t code, std::uint16_t sequence, std::uint32_t value, std::uint16_t minor, std::uint8_t major) {
    Packet e{};
    e[1] = code;
    bytes::put16(e, 2, sequence);
    bytes::put32(e, 4, value);
    bytes::put16(e, 8, minor);
    e[10] = major;
    return e;
}

Packet genericEventHeader(std::uint8_t extension, std::uint16_t sequence, std::uint16_t eventType,
                          std::size_t paddedBytes, std::span<const std::uint8_t> header22) {
    Packet header{};
    header[0] = kGenericEvent;
    header[1] = extension;
    bytes::put16(header, 2, sequence);
    bytes::put32(header, 4, static_cast<std::uint32_t>(paddedBytes / 4));
    bytes::put16(header, 8, eventType);
    const std::size_t h = std::min<std::size_t>(header22.size(), 22);
    std::copy_n(header22.begin(), h, header.begin() + 10);
    return header;
}

}  // namespace loopback::x11
