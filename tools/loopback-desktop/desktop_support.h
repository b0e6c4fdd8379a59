// Small helpers the desktop's parts share: names the client sends, counts in words, files.
#pragma once

#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <string>
#include <string_view>

namespace loopback::desk {

struct FileCloser {
    void operator()(std::FILE* f) const { std::fclose(f); }
};
using File = std::unique_ptr<std::FILE, FileCloser>;

// X errors the desktop answers malformed requests with.
inline constexpr std::uint8_t kBadRequest = 1;
inline constexpr std::uint8_t kBadLength = 16;

// The part after the last '/' or '\'.
std::string baseName(std::string_view path);
// A name from the client as a path inside a folder: separators of either kind, no root, no
// "." or ".." components.
std::filesystem::path insideFolder(std::string_view name);
// "1 file", "2 files", "3 directories".
std::string plural(std::size_t n, std::string_view what);

}  // namespace loopback::desk
