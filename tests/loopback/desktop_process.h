// The loopback desktop program as a child process, and sparse files to move through it, for
// the tests that run it with the real varoft.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

namespace lbtest {

class DesktopProcess {
public:
    // Starts loopback-desktop with `args`, its output going to `log`; waits until it serves.
    DesktopProcess(const std::vector<std::string>& args, const std::filesystem::path& log);
    ~DesktopProcess();  // kills it when it is still running
    DesktopProcess(const DesktopProcess&) = delete;
    DesktopProcess& operator=(const DesktopProcess&) = delete;

    bool serving() const { return !display_.empty(); }
    const std::string& display() const { return display_; }  // ":N"
    // Its peak resident set so far (VmHWM), in KiB; -1 when it cannot be read.
    long peakKiB() const;
    // Sends SIGTERM and waits up to `limit` for the end; how long it took, or nullopt-like
    // (a negative duration) when it did not end in time.
    std::chrono::milliseconds terminate(std::chrono::milliseconds limit);

private:
    pid_t pid_ = -1;
    std::string display_;
};

// A sparse file of `size` bytes with a few 4 KiB patterned regions (at its start, across the
// 4 GiB border when it reaches it, and at its end) and holes elsewhere.
bool makeSparseFile(const std::filesystem::path& path, std::uint64_t size);
// Whether `path` has `size` bytes and the regions makeSparseFile patterned.
bool sameSparseContent(const std::filesystem::path& path, std::uint64_t size);

}  // namespace lbtest
