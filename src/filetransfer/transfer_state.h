// Process-wide state of the file-transfer side, shared by the session driver, the environment
// report and the request handlers. One transfer at a time, one thread.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include <xcb/xcb.h>

#include "common/options.h"

// What the command line asked for.
extern Options CommandLine;

// Default local directory offered to the far side, and the user's name.
extern std::string UserHomeDir;
extern std::string UserName;

// The three stream objects: created on first use, kept until the process ends.
extern void* FileStream;       // plain local files
extern void* DirPackStream;    // reading yields the ZIP bytes of a local directory
extern void* DirUnpackStream;  // ZIP bytes written to it become a local tree
// The stream of the transfer in progress (one of the three), null when none.
extern void* CurrentStream;

// Byte size of the local file being sent from the command line.
extern std::uint64_t LocalFileSize;

// The local path the user agreed to overwrite; empty when none. At most kKeepPathMax bytes.
inline constexpr std::size_t kKeepPathMax = 1023;
extern std::string KeepPath;
void setKeepPath(std::string_view path);

// The extension as libxcb reported it (findExtension).
extern const xcb_query_extension_reply_t* ExtensionInfo;

// Create the stream objects when they do not exist yet; false when that failed.
bool ensureFileStream();
bool ensureDirPackStream();
bool ensureDirUnpackStream();
