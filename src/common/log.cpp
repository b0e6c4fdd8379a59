#include "common/log.h"

#include <cstdarg>
#include <cstdio>
#include <string>

#include "common/terminal_display.h"
#include "platform/platform.h"

namespace {

std::int32_t Verbosity = 0;
std::string LogFilePath;  // empty: no log file

}  // namespace

void setLogVerbosity(std::int32_t verbosity) { Verbosity = verbosity; }
std::int32_t logVerbosity() { return Verbosity; }

void logPrint(int level, const char* format, ...) {
    if (level > Verbosity) return;
    if (!LogFilePath.empty()) {
        // Opened and closed for every line, so each message is on disk when this returns. The
        // file is never reached through a link, and only a regular file of this user's is
        // written; otherwise the line goes to standard error alone.
        std::va_list args;
        va_start(args, format);
        std::va_list copy;
        va_copy(copy, args);
        const int length = std::vsnprintf(nullptr, 0, format, copy);
        va_end(copy);
        if (length >= 0) {
            std::string text(static_cast<std::size_t>(length) + 1, '\0');
            std::vsnprintf(text.data(), text.size(), format, args);
            text.resize(static_cast<std::size_t>(length));
            platform::appendToLogFile(LogFilePath, text);
        }
        va_end(args);
    }
    // A progress line on the terminal goes first, so the line starts at the left edge.
    terminal::Display::clearShown();
    std::va_list args;
    va_start(args, format);
    std::vfprintf(stderr, format, args);
    va_end(args);
}

void enableLogFile() {
    LogFilePath = kLogFileLocation;
    platform::removeFile(LogFilePath);  // unlink: a link planted under the name goes, never its target
}
