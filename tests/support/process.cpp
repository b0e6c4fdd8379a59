#include "support/process.h"

#include <cerrno>
#include <csignal>
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

}  // namespace

RunningProcess::RunningProcess(const std::string& program, const RunOptions& options) {
    int out[2], err[2], in[2] = {-1, -1};
    if (::pipe2(out, O_CLOEXEC) != 0 || ::pipe2(err, O_CLOEXEC) != 0) return;
    if (options.input && ::pipe2(in, O_CLOEXEC) != 0) return;

    std::vector<std::string> argStore;
    argStore.push_back(options.argv0.empty() ? program : options.argv0);
    for (const auto& a : options.args) argStore.push_back(a);
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
        ::execve(program.c_str(), argv.data(), envp.data());
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
        feedInput();  // what fits now: a child may wait for its input before the test waits for it
    }
}

void RunningProcess::feedInput() {
    const ssize_t w = ::write(inFd_, input_.data() + inputDone_, input_.size() - inputDone_);
    if (w > 0) inputDone_ += static_cast<std::size_t>(w);
    if ((w < 0 && errno != EAGAIN) || inputDone_ == input_.size()) {
        ::close(inFd_);
        inFd_ = -1;
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
                feedInput();
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
