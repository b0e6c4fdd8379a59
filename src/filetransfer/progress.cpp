#include "filetransfer/progress.h"

#include <cstdio>

#include "common/log.h"
#include "platform/platform.h"

namespace {

// Transfers shorter than this never show a line.
constexpr std::uint64_t kShowFrom = 8u << 20;
constexpr std::uint64_t kStep = 4u << 20;

struct Progress {
    bool active = false;
    bool shown = false;
    std::string name;
    std::uint64_t total = 0;
    std::uint64_t done = 0;
    std::uint64_t lastShown = 0;
};

Progress Line;

void draw() {
    const double mib = static_cast<double>(Line.done) / (1024.0 * 1024.0);
    if (Line.total > 0) {
        const double percent = 100.0 * static_cast<double>(Line.done) / static_cast<double>(Line.total);
        std::fprintf(stderr, "\r%s: %.1f MiB (%.0f%%)  ", Line.name.c_str(), mib, percent > 100.0 ? 100.0 : percent);
    } else {
        std::fprintf(stderr, "\r%s: %.1f MiB  ", Line.name.c_str(), mib);
    }
    std::fflush(stderr);
    Line.shown = true;
    Line.lastShown = Line.done;
}

}  // namespace

void startProgress(const std::string& name, std::uint64_t total) {
    finishProgress();
    Line = Progress{};
    Line.active = logVerbosity() >= 1 && platform::standardErrorIsTerminal();
    Line.name = name;
    Line.total = total;
}

void addProgress(std::uint64_t bytes) {
    if (!Line.active) return;
    Line.done += bytes;
    if (Line.done >= kShowFrom && Line.done - Line.lastShown >= kStep) draw();
}

void finishProgress() {
    if (Line.shown) {
        // Wipe the line so the next message starts on a clean one.
        const std::size_t width = Line.name.size() + 32;
        std::fprintf(stderr, "\r%*s\r", static_cast<int>(width), "");
        std::fflush(stderr);
    }
    Line = Progress{};
}
