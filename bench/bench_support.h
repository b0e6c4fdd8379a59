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

// Medians and ranges of repeated measurements, and the one-line-per-figure rows that
// bench/table.py turns into the benchmark table:
//   row|<figure>|<unit>|<value per run, comma-separated>|<ratio per run, or empty>|<aim, or empty>
//   note|<text>
// A ratio above 1 is better than its reference; the aim is the smallest ratio that meets it.
void printRow(const std::string& figure, const std::string& unit, const std::vector<double>& values,
              const std::vector<double>& ratios = {}, double aim = 0);
void printNote(const std::string& text);
double median(std::vector<double> values);

// A loopback-desktop program serving one client, started with `args` (args[0] is its path). Once
// started, `display` is the display it serves (":N"); empty on failure.
struct Desktop {
    pid_t pid = -1;
    int output = -1;
    std::string display;
};
Desktop startDesktop(const std::vector<std::string>& args);
// Waits for it to end by itself after its client (or stops it first when `stop`); true when it
// ran and ended.
bool finishDesktop(Desktop& desktop, bool stop);

}  // namespace bench
