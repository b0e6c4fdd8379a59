// Small helpers shared by the benchmark programs: whole reads and writes on a descriptor, and a
// child process started with its standard streams on /dev/null.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include <sys/resource.h>
#include <sys/types.h>

namespace bench {

// The whole of `n` bytes, or false when the descriptor ends or fails first.
bool readAll(int fd, std::uint8_t* data, std::size_t n);
bool writeAll(int fd, const std::uint8_t* data, std::size_t n);

// Starts args[0] with args; `extraEnv` entries ("NAME=value") replace or add to the environment.
pid_t spawn(const std::vector<std::string>& args, const std::vector<std::string>& extraEnv = {});
// Waits for the child; true when it exited with status 0. `usage` (optional) receives its
// resource use (CPU time, peak resident set).
bool reap(pid_t pid, rusage* usage = nullptr);

}  // namespace bench
