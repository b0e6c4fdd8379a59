// Browsing of the local file system by the far side: each ListDirectoryRequest names a
// directory (absolute, relative to the one listed last, or ".."), which becomes the browsing
// directory and is answered with a run of FileListItem requests: the directory itself, one item
// per visible entry, and an empty item that ends the run. The handler is in dispatch.h.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

// Entry names longer than this many bytes are cut in their items.
inline constexpr std::size_t kEntryNameMax = 259;

// ---- the browsing directory ------------------------------------------------------------------

// The directory a request leads to from the current browsing directory (nullopt: none yet).
// `start` is the directory an empty request lists.
std::string nextBrowsingDirectory(const std::optional<std::string>& current, std::string_view request,
                                  std::string_view start);

// The search pattern of a directory: the directory followed by the separator and "*". It names
// the directory in a failed listing's status.
std::string searchPattern(std::string_view directory);

// Whether a listing of `directory` leaves out "..": only the root ("/"; on Windows a drive named
// without its backslash, "C:") has no parent to offer.
bool listsRoot(std::string_view directory);

// The name of an entry's item: "<mtime seconds since 1970>_<name>", the name cut at
// kEntryNameMax bytes.
std::string entryItemName(std::int64_t mtime, std::string_view name);

// ---- the request -----------------------------------------------------------------------------

// A ListDirectoryRequest as decoded; the view points into the event, up to its first NUL byte.
struct ListDirectoryRequest {
    std::uint16_t length = 0;  // the path length the event claims
    std::string_view path;     // empty: the starting directory
};

// Decodes the event as libxcb delivered it. False when the event is shorter than its fixed
// fields or its path length claims bytes it does not hold.
bool decodeListDirectoryRequest(std::span<const std::uint8_t> event, ListDirectoryRequest& out);
