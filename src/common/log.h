// The program's one output channel, its threshold and the copy -l keeps in a file.
#pragma once

#include <cstdint>

#include "common/printf_format.h"

// Level 0 is always shown; 1 banner, usage and errors; 2 progress (-v); 3 detail (-vv);
// 4 request traces (-vvv). The format carries its own newline.
void logPrint(int level, const char* format, ...) VAROFT_PRINTF_FORMAT(2, 3);

// The threshold: messages above it are dropped. 0 until the driver sets it.
void setLogVerbosity(std::int32_t verbosity);
std::int32_t logVerbosity();

// The fixed place of the log file that -l turns on.
#ifdef _WIN32
inline constexpr const char* kLogFileLocation = "c:\\temp\\varoft.log";
#else
inline constexpr const char* kLogFileLocation = "/tmp/varoft.log";
#endif
// -l: remember the log file and delete any earlier one.
void enableLogFile();
