// Helpers of the archive tests: hand-built ZIP bytes, driving the unpack stream in chunkings,
// running the peer tools, and comparing directory trees.
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace archivetest {

using Bytes = std::vector<std::uint8_t>;
Bytes toBytes(std::string_view s);

// One entry of a hand-built archive.
struct HandEntry {
    std::string name;
    std::string data;                    // uncompressed content
    std::uint16_t method = 0;            // 0 stored, 8 deflate, 93 zstd, anything else as given
    std::optional<Bytes> payload;        // the stored bytes; default: data compressed by method
    bool descriptor = false;             // flag bit 3, zero sizes and CRC in the header, descriptor after
    bool zip64 = false;                  // a zip64 extra record (and a 64-bit descriptor)
    std::optional<std::uint32_t> crc;    // default: CRC-32 of data
};

// Local header + payload (+ descriptor) of one entry.
void appendEntry(Bytes& out, const HandEntry& entry);
// The entries, then (optionally) an empty central directory: its end record alone.
Bytes buildArchive(const std::vector<HandEntry>& entries, bool withCentralDirectory = true);

std::string repeatText(std::size_t n);

// Chunk sizes: a function returning the next chunk size.
using Chunker = std::function<std::size_t()>;
Chunker fixedChunks(std::size_t size);
Chunker randomChunks(std::uint32_t seed, std::size_t maxSize);

struct UnpackOutcome {
    // The first negative write result but the end, or the failure the end of the writes met; 0
    // when none.
    std::int32_t firstFailure = 0;
    std::int32_t closeResult = 0;
    std::string failureText;        // the system's error text right after the first failing call
};
// Opens a fresh unpack stream on `target` (with that many decoding threads, 0: the machine's),
// writes the archive in the chunking until the end of the archive or the first failure, ends
// the writes and closes it.
UnpackOutcome unpackInto(const Bytes& archive, const std::string& target, const Chunker& chunker, unsigned workers = 0);

// Runs a shell command line in `directory`; its exit code.
int shell(const std::string& command, const std::string& directory);
bool haveTool(const std::string& name);

// path (relative, '/'-separated, directories end in '/') -> content
using TreeImage = std::map<std::string, std::string>;
TreeImage imageOf(const std::filesystem::path& root);

// A sample tree of nested directories, text, binary and compressible files, a UTF-8 name and an
// empty directory; no empty files.
void makeSampleTree(const std::filesystem::path& root);

}  // namespace archivetest
