#include "support/process.h"

#include <csignal>
#include <cstdlib>
#include <cstring>
#include <thread>

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;

namespace testsupport {

namespace {

// The argument vector of a run. VAROFT_TEST_PROGRAM puts another build in varoft's place
// (varoft.exe), started through VAROFT_TEST_LAUNCHER when that is set (wine64; `program` then
// names what is executed); a display ":N" given to it becomes VAROFT_TEST_DISPLAY_HOST:N, as only
// TCP reaches the loopback server from there.
std::vector<std::string> commandLine(std::string& program, const RunOptions& options) {
    const char* other = std::getenv("VAROFT_TEST_PROGRAM");
    if (!other || program != varoftBinary()) {
        std::vector<std::string> line = {options.argv0.empty() ? program : options.argv0};
        line.insert(line.end(), options.args.begin(), options.args.end());
        return line;
    }
    std::vector<std::string> line;
    if (const char* launcher = std::getenv("VAROFT_TEST_LAUNCHER")) line.emplace_back(launcher);
    line.emplace_back(other);
    program = line.front();
    const char* host = std::getenv("VAROFT_TEST_DISPLAY_HOST");
    for (std::size_t i = 0; i < options.args.size(); ++i) {
        const bool display = i > 0 && (options.args[i - 1] == "-display" || options.args[i - 1] == "-d");
        line.push_back((display && host && options.args[i].rfind(':', 0) == 0 ? host : "") + options.args[i]);
    }
    return line;
}

}  // namespace

RunningProcess::RunningProcess(const std::string& program, const RunOptions& options) {
    std::string executable = program;
    std::vector<std::string> argStore = commandLine(executable, options);
    std::map<std::string, std::string> envMap;
    for (char** e = environ; *e; ++e) {
        if (const char* eq = std::strchr(*e, '=')) envMap[std::string(*e, static_cast<std::size_t>(eq - *e))] = eq + 1;
    }
    for (const auto& [k, v] : options.env) {
        if (v) envMap[k] = *v;
        else envMap.erase(k);
    }
    std::vector<std::string> envStore;
    for (const auto& [k, v] : envMap) envStore.push_back(k + "=" + v);
    std::vector<char*> argv, envp;
    for (auto& a : argStore) argv.push_back(a.data());
    for (auto& e : envStore) envp.push_back(e.data());
    argv.push_back(nullptr);
    envp.push_back(nullptr);
    writeFile(files_ / "in", options.input.value_or(""));
    const std::string in = options.input ? (files_ / "in").string() : "/dev/null";
    const std::string out = (files_ / "out").string(), err = (files_ / "err").string();

    pid_ = ::fork();
    if (pid_ != 0) return;
    // The child: only calls that are safe after a fork of a process with threads.
    const int fds[3] = {::open(in.c_str(), O_RDONLY | O_CLOEXEC), ::open(out.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600),
                        ::open(err.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600)};
    for (int i = 0; i < 3; ++i) ::dup2(fds[i], i);
    if (options.fileSizeLimit > 0) {
        const rlimit limit{static_cast<rlim_t>(options.fileSizeLimit), static_cast<rlim_t>(options.fileSizeLimit)};
        ::setrlimit(RLIMIT_FSIZE, &limit);
        ::signal(SIGXFSZ, SIG_IGN);
    }
    ::execve(executable.c_str(), argv.data(), envp.data());
    ::_exit(127);
}

RunningProcess::~RunningProcess() {
    if (pid_ <= 0) return;
    ::kill(pid_, SIGKILL);
    ::waitpid(pid_, nullptr, 0);
}

void RunningProcess::signal(int number) {
    if (pid_ > 0) ::kill(pid_, number);
}

RunResult RunningProcess::wait(std::chrono::milliseconds timeout) {
    RunResult result;
    if (pid_ <= 0) return result;
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    int status = 0;
    while (::waitpid(pid_, &status, WNOHANG) == 0) {
        if (std::chrono::steady_clock::now() > deadline) {
            result.timedOut = true;
            ::kill(pid_, SIGKILL);
            ::waitpid(pid_, &status, 0);
            break;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    pid_ = -1;
    if (WIFEXITED(status)) result.exitCode = WEXITSTATUS(status);
    if (WIFSIGNALED(status)) result.signal = WTERMSIG(status);
    result.out = readFile(files_ / "out");
    result.err = readFile(files_ / "err");
    return result;
}

}  // namespace testsupport
