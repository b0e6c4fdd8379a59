// Runs a program as a child process with chosen arguments, environment and standard input, and
// collects what it printed and how it ended.
#pragma once

#include <chrono>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace testsupport {

struct RunOptions {
    std::vector<std::string> args;                        // argv[1..]
    std::string argv0;                                     // empty: the program path
    std::map<std::string, std::optional<std::string>> env; // set (value) or unset (nullopt)
    std::optional<std::string> input;                      // standard input; nullopt: /dev/null
    std::string workingDirectory;                          // empty: inherit
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

RunResult run(const std::string& program, const RunOptions& options);

// A child that keeps running while the test talks to it; see RunningProcess::wait.
class RunningProcess {
public:
    RunningProcess(const std::string& program, const RunOptions& options);
    ~RunningProcess();
    RunningProcess(const RunningProcess&) = delete;
    RunningProcess& operator=(const RunningProcess&) = delete;

    bool started() const { return pid_ > 0; }
    // Waits for the end (killing the child after the timeout) and returns its outcome.
    RunResult wait(std::chrono::milliseconds timeout = std::chrono::milliseconds(20000));
    void kill();
    void signal(int number);

private:
    void feedInput();

    int pid_ = -1;
    int outFd_ = -1;
    int errFd_ = -1;
    std::string input_;
    std::size_t inputDone_ = 0;
    int inFd_ = -1;
    bool done_ = false;
    RunResult result_;
};

// The varoft binary built beside the tests.
inline std::string varoftBinary() { return VAROFT_BINARY; }

}  // namespace testsupport
