// Path and directory helpers of the zip library's interface, as the archive streams use them.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

// Host systems in the high byte of "version made by".
inline constexpr std::uint8_t MZ_HOST_SYSTEM_MSDOS = 0;
inline constexpr std::uint8_t MZ_HOST_SYSTEM_UNIX = 3;
inline constexpr std::uint8_t MZ_HOST_SYSTEM_WINDOWS_NTFS = 10;
inline constexpr std::uint8_t MZ_HOST_SYSTEM_RISCOS = 13;
inline constexpr std::uint8_t MZ_HOST_SYSTEM_OSX_DARWIN = 19;

// MZ_OK when the external attributes, read for the host named in version_madeby, describe a
// directory: DOS and NTFS hosts by the directory bit 0x10 without the reparse bit 0x400; Unix,
// RISC OS and macOS hosts by the Unix file type (taken from the high 16 bits when the value is
// above 0xFFFF). MZ_EXIST_ERROR otherwise.
std::int32_t mz_zip_attrib_is_dir(std::uint32_t attrib, std::int32_t version_madeby);

// Resolves an archive entry name to a relative path that stays below the directory it is joined
// to: '\\' and '/' both separate; empty and "." components are dropped; ".." drops the previous
// component and never climbs above the start; the result is joined with '/'. The name stops at
// its first NUL byte. An empty result means the name names nothing below the start.
std::string mz_path_resolve(std::string_view name);
