#include "app/log.h"

#include <cstdarg>
#include <cstdio>

#include "app/state.h"
#include "platform/platform.h"

void logPrint(int level, const char* format, ...) {
    if (level > Verbosity) return;
    if (!LogFilePath.empty()) {
        // Opened and closed for every line, so each message is on disk when this returns.
        if (std::FILE* file = std::fopen(LogFilePath.c_str(), "a+")) {
            std::va_list args;
            va_start(args, format);
            std::vfprintf(file, format, args);
            va_end(args);
            std::fclose(file);
        }
    }
    std::va_list args;
    va_start(args, format);
    std::vfprintf(stderr, format, args);
    va_end(args);
}

void enableLogFile() {
    LogFilePath = kLogFileLocation;
    platform::removeFile(LogFilePath);
}
