// Runs a program as a child process with chosen arguments, environment and standard input, and
// collects what it printed and how it ended. Its input and output are files of a scratch
// directory, so the child never waits for the test to read or write.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "support/temp_dir.h"

namespace testsupport {

struct RunOptions {
    std::vector<std::string> args;                        // argv[1..]
    std::string argv0;                                     // empty: the program path
    std::map<std::string, std::optional<std::string>> env; // set (value) or unset (nullopt)
    std::optional<std::string> input;                      // standard input; nullopt: /dev/null
    std::chrono::milliseconds timeout{20000};
    long fileSizeLimit = 0;                                // > 0: RLIMIT_FSIZE, writes past it fail (EFBIG)
};

struct RunResult {
    int exitCode = -1;   // -1 when killed by a signal or timed out
    int signal = 0;
    bool timedOut = false;
    std::string out;
    std::string err;
};

// A child that keeps running while the test talks to it; killed if the test does not wait.
class RunningProcess {
public:
    RunningProcess(const std::string& program, const RunOptions& options);
    ~RunningProcess();
    RunningProcess(const RunningProcess&) = delete;
    RunningProcess& operator=(const RunningProcess&) = delete;

    bool started() const { return pid_ > 0; }
    // Waits for the end (killing the child after the timeout) and returns its outcome.
    RunResult wait(std::chrono::milliseconds timeout = std::chrono::milliseconds(20000));
    void signal(int number);

private:
    TempDir files_;
    pid_t pid_ = -1;
};

inline RunResult run(const std::string& program, const RunOptions& options) {
    return RunningProcess(program, options).wait(options.timeout);
}

// The varoft binary built beside the tests.
inline std::string varoftBinary() { return VAROFT_BINARY; }

}  // namespace testsupport
