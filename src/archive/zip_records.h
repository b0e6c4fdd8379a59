// The records of a ZIP archive as the pack stream writes them: local header, data descriptor,
// central directory header and the end records (zip64 forms where sizes, offsets or the entry
// count need them). Every field is encoded in little-endian, one by one.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace ziprec {

using Bytes = std::vector<std::uint8_t>;

// One entry, as far as its records need it.
struct Entry {
    std::string name;           // '/'-separated; a directory's ends in '/'
    bool directory = false;     // stored, no data, no descriptor
    bool stored = false;        // a file of method 0 (else deflate)
    bool zip64 = false;         // the file may pass 4 GiB: zip64 extra and a 64-bit descriptor
    std::uint32_t dosTime = 0;  // MS-DOS date (high 16 bits) and time (low 16 bits)
    std::int64_t mtime = 0;     // seconds since 1970, for the extended time stamp
    std::uint64_t storedSize = 0;  // a stored file's size, known before its data
    // Known once the data is written.
    std::uint32_t crc = 0;
    std::uint64_t compressedSize = 0;
    std::uint64_t uncompressedSize = 0;
    std::uint64_t offset = 0;  // of the local header
};

// Whether the bytes are well-formed UTF-8 (plain ASCII included): such names carry flag 0x0800,
// others are stored as they are with the flag clear.
bool isUtf8(std::string_view text);
// The local-time MS-DOS date and time of a time stamp, clamped to 1980..2107.
std::uint32_t dosDateTime(std::int64_t seconds);

void appendLocalHeader(Bytes& out, const Entry& e);
// After a file's data: its CRC-32 and sizes (64-bit for a zip64 entry).
void appendDescriptor(Bytes& out, const Entry& e);
void appendCentralHeader(Bytes& out, const Entry& e);
// The end of central directory record, preceded by the zip64 end record and its locator when
// the count or a position does not fit the classic record.
void appendEndRecords(Bytes& out, std::uint64_t entries, std::uint64_t directoryOffset, std::uint64_t directorySize);

}  // namespace ziprec
