#include "archive/zip_records.h"

#include <algorithm>
#include <ctime>

#include "archive/zip_format.h"
#include "common/bytes.h"

namespace ziprec {
namespace {

using namespace zipformat;
constexpr std::uint16_t kHostUnix = 3 << 8;
constexpr std::uint16_t kVersionStored = 10;
constexpr std::uint16_t kVersionDeflate = 20;
constexpr std::uint16_t kVersionZip64 = 45;
constexpr std::uint16_t kTimeExtraId = 0x5455;
constexpr std::uint8_t kTimeExtraModified = 0x01;
constexpr std::uint16_t kEscape16 = 0xFFFF;
constexpr std::uint32_t kModeDirectory = 0040755;
constexpr std::uint32_t kModeFile = 0100644;

std::uint16_t flagOf(const Entry& e) {
    return static_cast<std::uint16_t>((e.directory ? 0 : kFlagDescriptor) | (isUtf8(e.name) ? kFlagUtf8 : 0));
}
std::uint16_t methodOf(const Entry& e) { return e.directory || e.stored ? 0 : 8; }
std::uint16_t versionOf(const Entry& e, bool zip64) {
    if (zip64) return kVersionZip64;
    return e.stored ? kVersionStored : kVersionDeflate;
}
std::uint32_t fit32(std::uint64_t v) { return v >= kEscape32 ? kEscape32 : static_cast<std::uint32_t>(v); }

// The extended time stamp: the modification time alone, as seconds in 32 bits.
void appendTimeExtra(bytes::Writer& w, std::int64_t mtime) {
    const auto t = static_cast<std::uint32_t>(std::clamp<std::int64_t>(mtime, INT32_MIN, INT32_MAX));
    w.u16(kTimeExtraId).u16(5).u8(kTimeExtraModified).u32(t);
}

}  // namespace

bool isUtf8(std::string_view text) {
    std::size_t i = 0;
    while (i < text.size()) {
        const auto c = static_cast<std::uint8_t>(text[i]);
        std::size_t extra = 0;
        std::uint32_t min = 0;
        std::uint32_t cp = 0;
        if (c < 0x80) {
            ++i;
            continue;
        } else if ((c & 0xE0) == 0xC0) {
            extra = 1, min = 0x80, cp = c & 0x1Fu;
        } else if ((c & 0xF0) == 0xE0) {
            extra = 2, min = 0x800, cp = c & 0x0Fu;
        } else if ((c & 0xF8) == 0xF0) {
            extra = 3, min = 0x10000, cp = c & 0x07u;
        } else {
            return false;
        }
        if (text.size() - i <= extra) return false;
        for (std::size_t k = 1; k <= extra; ++k) {
            const auto next = static_cast<std::uint8_t>(text[i + k]);
            if ((next & 0xC0) != 0x80) return false;
            cp = (cp << 6) | (next & 0x3Fu);
        }
        // Overlong forms, UTF-16 surrogates and values past U+10FFFF are not UTF-8.
        if (cp < min || (cp >= 0xD800 && cp <= 0xDFFF) || cp > 0x10FFFF) return false;
        i += extra + 1;
    }
    return true;
}

std::uint32_t dosDateTime(std::int64_t seconds) {
    const std::time_t t = static_cast<std::time_t>(seconds);
    const std::tm* local = std::localtime(&t);
    if (!local || local->tm_year < 80) return (1u << 21) | (1u << 16);  // 1980-01-01 00:00
    if (local->tm_year > 207) return (127u << 25) | (12u << 21) | (31u << 16) | (23u << 11) | (59u << 5) | 29u;
    return (static_cast<std::uint32_t>(local->tm_year - 80) << 25) | (static_cast<std::uint32_t>(local->tm_mon + 1) << 21) |
           (static_cast<std::uint32_t>(local->tm_mday) << 16) | (static_cast<std::uint32_t>(local->tm_hour) << 11) |
           (static_cast<std::uint32_t>(local->tm_min) << 5) | static_cast<std::uint32_t>(local->tm_sec / 2);
}

void appendLocalHeader(Bytes& out, const Entry& e) {
    bytes::Writer w(out);
    // A stored file's sizes come first (a streaming reader needs them to find the data's end);
    // a deflated file's are unknown and follow in the descriptor.
    const std::uint64_t size = e.stored ? e.storedSize : 0;
    w.u32(kLocalHeaderSignature).u16(versionOf(e, e.zip64)).u16(flagOf(e)).u16(methodOf(e));
    w.u32(e.dosTime).u32(0);
    w.u32(e.zip64 ? kEscape32 : static_cast<std::uint32_t>(size));
    w.u32(e.zip64 ? kEscape32 : static_cast<std::uint32_t>(size));
    w.u16(static_cast<std::uint16_t>(e.name.size())).u16(static_cast<std::uint16_t>((e.zip64 ? 20 : 0) + 9));
    w.raw(e.name);
    if (e.zip64) w.u16(kZip64ExtraId).u16(16).u64(size).u64(size);
    appendTimeExtra(w, e.mtime);
}

void appendDescriptor(Bytes& out, const Entry& e) {
    bytes::Writer w(out);
    w.u32(kDescriptorSignature).u32(e.crc);
    if (e.zip64) {
        w.u64(e.compressedSize).u64(e.uncompressedSize);
    } else {
        w.u32(static_cast<std::uint32_t>(e.compressedSize)).u32(static_cast<std::uint32_t>(e.uncompressedSize));
    }
}

void appendCentralHeader(Bytes& out, const Entry& e) {
    // A zip64 entry gives both sizes in its extra record; any entry whose local header lies
    // past 4 GiB gives its offset there.
    const bool sizes64 = e.zip64;
    const bool offset64 = e.offset >= kEscape32;
    const std::uint16_t extra64 = static_cast<std::uint16_t>((sizes64 ? 16 : 0) + (offset64 ? 8 : 0));
    const bool zip64 = extra64 != 0;
    bytes::Writer w(out);
    const std::uint16_t version = versionOf(e, zip64);
    w.u32(kCentralHeaderSignature).u16(static_cast<std::uint16_t>(kHostUnix | version)).u16(version);
    w.u16(flagOf(e)).u16(methodOf(e)).u32(e.dosTime).u32(e.crc);
    w.u32(sizes64 ? kEscape32 : fit32(e.compressedSize)).u32(sizes64 ? kEscape32 : fit32(e.uncompressedSize));
    w.u16(static_cast<std::uint16_t>(e.name.size())).u16(static_cast<std::uint16_t>((zip64 ? 4 + extra64 : 0) + 9));
    w.u16(0).u16(0).u16(0);  // comment length, disk, internal attributes
    w.u32((e.directory ? kModeDirectory : kModeFile) << 16).u32(offset64 ? kEscape32 : static_cast<std::uint32_t>(e.offset));
    w.raw(e.name);
    if (zip64) {
        w.u16(kZip64ExtraId).u16(extra64);
        if (sizes64) w.u64(e.uncompressedSize).u64(e.compressedSize);
        if (offset64) w.u64(e.offset);
    }
    appendTimeExtra(w, e.mtime);
}

void appendEndRecords(Bytes& out, std::uint64_t entries, std::uint64_t directoryOffset, std::uint64_t directorySize) {
    bytes::Writer w(out);
    const bool zip64 = entries >= kEscape16 || directoryOffset >= kEscape32 || directorySize >= kEscape32;
    if (zip64) {
        const std::uint64_t zip64End = directoryOffset + directorySize;
        w.u32(kZip64EndSignature).u64(44).u16(kHostUnix | kVersionZip64).u16(kVersionZip64).u32(0).u32(0);
        w.u64(entries).u64(entries).u64(directorySize).u64(directoryOffset);
        w.u32(kZip64LocatorSignature).u32(0).u64(zip64End).u32(1);
    }
    const auto count = static_cast<std::uint16_t>(std::min<std::uint64_t>(entries, kEscape16));
    w.u32(kEndSignature).u16(0).u16(0).u16(count).u16(count);
    w.u32(fit32(directorySize)).u32(fit32(directoryOffset)).u16(0);
}

}  // namespace ziprec
