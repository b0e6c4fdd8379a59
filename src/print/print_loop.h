// Print mode: hands every file of the list to the far side's print service.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include <xcb/xcb.h>

#include "print/requests.h"

namespace terminal {
class Display;
}

// Bytes of a file carried by one request.
inline constexpr std::size_t kPrintChunkSize = 60000;

// Sends the files in order; stops early when the far side takes no more files. `display`, when
// given, shows each file's progress and summary and says when the connection went.
void runPrintLoop(xcb_connection_t* connection, const std::vector<std::string>& files,
                  terminal::Display* display = nullptr);

// Sends one file (standard input when `path` is null) in chunks of kPrintChunkSize bytes.
// `moreFilesAccepted` is set to 1 once the source is open and cleared when the far side wants
// no more files. Standard input travels as prefix + suffix, or "stdin" + process id + time +
// suffix without a prefix. 1 on success, 0 on any failure. `display`, when given, follows the
// bytes sent (the transfer is left running for the caller to end).
int sendPrintFile(xcb_connection_t* connection, const char* path, std::uint32_t& moreFilesAccepted,
                  const char* suffix, const char* prefix, terminal::Display* display = nullptr);

// The name a local file travels under: the part after its last separator (a backslash on Windows).
std::string remotePrintName(std::string_view path);
// The name standard input travels under.
std::string standardInputPrintName(const char* suffix, const char* prefix, std::uint32_t processId,
                                   std::int64_t time);
