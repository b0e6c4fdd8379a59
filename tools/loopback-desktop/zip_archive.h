// Directories as ZIP archives, the way the desktop sends and receives them. Deflate and stored
// archives are written by libarchive; archives with zstd entries (method 93) are written here,
// since libarchive has no zstd entries. Reading goes through libarchive's central-directory
// reader.
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace loopback {

enum class ZipMethod { Deflate, Store, Zstd };

std::optional<ZipMethod> parseZipMethod(std::string_view name);  // "deflate", "store", "zstd"
const char* zipMethodName(ZipMethod method);

struct PackResult {
    std::vector<std::uint8_t> bytes;
    std::size_t files = 0, directories = 0;
};

// The tree under `dir` as a ZIP archive: entry names relative to `dir` with '/' separators,
// directories as "name/" entries, in name order. Symbolic links and special files are left
// out. False (and *error) when `dir` is not a readable directory or a file cannot be read.
bool packDirectory(const std::filesystem::path& dir, ZipMethod method, PackResult& out, std::string* error);

struct UnpackResult {
    std::size_t files = 0, directories = 0;
    std::uint64_t bytes = 0;
};

// Extracts a whole archive under `target` (created when missing). Entry names that would leave
// `target` (absolute, or climbing with "..") are refused.
bool unpackArchive(std::span<const std::uint8_t> zip, const std::filesystem::path& target, UnpackResult& out,
                   std::string* error);

}  // namespace loopback
