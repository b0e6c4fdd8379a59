// Directories as ZIP archives, the way the desktop sends and receives them, as streams: memory
// stays flat whatever the size of the files.
//
// Packing writes the records itself, one entry after another: a local header, the data (stored,
// deflated with zlib, or zstd frames as method 93), a data descriptor, and at the end the
// central directory; zip64 records wherever a size or an offset needs them. Unpacking reads the
// local headers as the bytes come, through libarchive's streaming reader.
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace loopback {

enum class ZipMethod { Deflate, Store, Zstd };

std::optional<ZipMethod> parseZipMethod(std::string_view name);  // "deflate", "store", "zstd"
const char* zipMethodName(ZipMethod method);

// The tree under a directory as a ZIP archive read chunk by chunk: entry names relative to the
// directory with '/' separators, directories as "name/" entries, in name order. Symbolic links
// and special files are left out.
class ZipPackStream {
public:
    ZipPackStream();
    ~ZipPackStream();
    ZipPackStream(const ZipPackStream&) = delete;
    ZipPackStream& operator=(const ZipPackStream&) = delete;

    // False (and *error) when `dir` is not a readable directory.
    bool open(const std::filesystem::path& dir, ZipMethod method, std::string* error);
    // Fills `into` with the next archive bytes and says how many (0 at the end); nullopt (and
    // *error) when a file cannot be read or changed its size while it was packed.
    std::optional<std::size_t> read(std::span<std::uint8_t> into, std::string* error);
    std::size_t files() const;
    std::size_t directories() const;

private:
    struct State;
    std::unique_ptr<State> state_;
};

struct UnpackResult {
    std::size_t files = 0, directories = 0;
    std::uint64_t bytes = 0;
};

// The next bytes of an archive as they come: a view valid until the next call, empty at the
// end, nullopt to give up (the unpacking then fails with "cut short").
using ArchiveSource = std::function<std::optional<std::span<const std::uint8_t>>()>;

// Extracts an archive as it comes under `target` (created when missing), every file written
// as its bytes arrive (zero blocks left as holes). Reading stops at the central directory.
// Entry names that would leave `target` (absolute, or climbing with "..") are refused.
bool unpackStream(const ArchiveSource& next, const std::filesystem::path& target, UnpackResult& out,
                  std::string* error);

}  // namespace loopback
