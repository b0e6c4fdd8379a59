#include "support/process.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>

#include <fcntl.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;

namespace testsupport {

namespace {

void setNonBlocking(int fd) { ::fcntl(fd, F_SETFL, ::fcntl(fd, F_GETFL) | O_NONBLOCK); }

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
    int out[2], err[2], in[2] = {-1, -1};
    if (::pipe2(out, O_CLOEXEC) != 0 || ::pipe2(err, O_CLOEXEC) != 0) return;
    if (options.input && ::pipe2(in, O_CLOEXEC) != 0) return;

    std::string executable = program;
    std::vector<std::string> argStore = commandLine(executable, options);
    std::vector<char*> argv;
    for (auto& a : argStore) argv.push_back(a.data());
    argv.push_back(nullptr);

    std::map<std::string, std::string> envMap;
    for (char** e = environ; *e; ++e) {
        const char* eq = std::strchr(*e, '=');
        if (eq) envMap[std::string(*e, static_cast<std::size_t>(eq - *e))] = eq + 1;
    }
    for (const auto& [k, v] : options.env) {
        if (v) envMap[k] = *v;
        else envMap.erase(k);
    }
    std::vector<std::string> envStore;
    for (const auto& [k, v] : envMap) envStore.push_back(k + "=" + v);
    std::vector<char*> envp;
    for (auto& e : envStore) envp.push_back(e.data());
    envp.push_back(nullptr);

    // A child that exits before reading all its input must not take the test down with it.
    ::signal(SIGPIPE, SIG_IGN);
    pid_ = ::fork();
    if (pid_ == 0) {
        ::signal(SIGPIPE, SIG_DFL);
        if (options.input) {
            ::dup2(in[0], 0);
        } else {
            const int devnull = ::open("/dev/null", O_RDONLY);
            ::dup2(devnull, 0);
        }
        ::dup2(out[1], 1);
        ::dup2(err[1], 2);
        if (options.fileSizeLimit > 0) {
            const rlimit limit{static_cast<rlim_t>(options.fileSizeLimit), static_cast<rlim_t>(options.fileSizeLimit)};
            ::setrlimit(RLIMIT_FSIZE, &limit);
            ::signal(SIGXFSZ, SIG_IGN);
        }
        if (!options.workingDirectory.empty() && ::chdir(options.workingDirectory.c_str()) != 0) ::_exit(127);
        ::execve(executable.c_str(), argv.data(), envp.data());
        ::_exit(127);
    }
    ::close(out[1]);
    ::close(err[1]);
    outFd_ = out[0];
    errFd_ = err[0];
    setNonBlocking(outFd_);
    setNonBlocking(errFd_);
    if (options.input) {
        ::close(in[0]);
        inFd_ = in[1];
        input_ = *options.input;
        setNonBlocking(inFd_);
    }
}

RunningProcess::~RunningProcess() {
    if (!done_) {
        kill();
        wait(std::chrono::milliseconds(5000));
    }
}

void RunningProcess::kill() { signal(SIGKILL); }

void RunningProcess::signal(int number) {
    if (pid_ > 0 && !done_) ::kill(pid_, number);
}

RunResult RunningProcess::wait(std::chrono::milliseconds timeout) {
    if (done_ || pid_ <= 0) return result_;
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    std::size_t inputDone = 0;
    char buffer[65536];
    while (outFd_ >= 0 || errFd_ >= 0) {
        pollfd fds[3];
        int n = 0;
        if (outFd_ >= 0) fds[n++] = {outFd_, POLLIN, 0};
        if (errFd_ >= 0) fds[n++] = {errFd_, POLLIN, 0};
        if (inFd_ >= 0) fds[n++] = {inFd_, POLLOUT, 0};
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0) {
            result_.timedOut = true;
            ::kill(pid_, SIGKILL);
            break;
        }
        if (::poll(fds, static_cast<nfds_t>(n), static_cast<int>(left.count())) < 0 && errno != EINTR) break;
        for (int i = 0; i < n; ++i) {
            if (fds[i].revents == 0) continue;
            if (fds[i].fd == inFd_) {
                const ssize_t w = ::write(inFd_, input_.data() + inputDone, input_.size() - inputDone);
                if (w > 0) inputDone += static_cast<std::size_t>(w);
                if (w < 0 || inputDone == input_.size()) {
                    ::close(inFd_);
                    inFd_ = -1;
                }
                continue;
            }
            const ssize_t r = ::read(fds[i].fd, buffer, sizeof buffer);
            if (r > 0) {
                (fds[i].fd == outFd_ ? result_.out : result_.err).append(buffer, static_cast<std::size_t>(r));
            } else if (r == 0 || (errno != EAGAIN && errno != EINTR)) {
                int& fd = fds[i].fd == outFd_ ? outFd_ : errFd_;
                ::close(fd);
                fd = -1;
            }
        }
    }
    if (inFd_ >= 0) ::close(inFd_);
    if (outFd_ >= 0) ::close(outFd_);
    if (errFd_ >= 0) ::close(errFd_);
    inFd_ = outFd_ = errFd_ = -1;
    int status = 0;
    ::waitpid(pid_, &status, 0);
    if (WIFEXITED(status)) result_.exitCode = WEXITSTATUS(status);
    if (WIFSIGNALED(status)) result_.signal = WTERMSIG(status);
    done_ = true;
    return result_;
}

RunResult run(const std::string& program, const RunOptions& options) {
    RunningProcess process(program, options);
    return process.wait(options.timeout);
}

}  // namespace testsupport
