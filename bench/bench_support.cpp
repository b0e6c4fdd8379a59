#include "bench_support.h"

#include <algorithm>
#include <csignal>
#include <cstdio>

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;

namespace bench {

bool readAll(int fd, std::uint8_t* data, std::size_t n) {
    while (n > 0) {
        const ssize_t got = ::read(fd, data, n);
        if (got <= 0) return false;
        data += got;
        n -= static_cast<std::size_t>(got);
    }
    return true;
}

bool writeAll(int fd, const std::uint8_t* data, std::size_t n) {
    while (n > 0) {
        const ssize_t put = ::write(fd, data, n);
        if (put <= 0) return false;
        data += put;
        n -= static_cast<std::size_t>(put);
    }
    return true;
}

pid_t spawn(const std::vector<std::string>& args, const std::vector<std::string>& extraEnv) {
    std::vector<std::string> env;
    for (char** e = environ; *e; ++e) {
        const std::string entry = *e;
        const bool replaced = std::any_of(extraEnv.begin(), extraEnv.end(), [&](const std::string& x) {
            return entry.compare(0, x.find('=') + 1, x, 0, x.find('=') + 1) == 0;
        });
        if (!replaced) env.push_back(entry);
    }
    env.insert(env.end(), extraEnv.begin(), extraEnv.end());
    std::vector<char*> argv, envp;
    for (const auto& a : args) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    for (const auto& e : env) envp.push_back(const_cast<char*>(e.c_str()));
    envp.push_back(nullptr);
    const pid_t pid = ::fork();
    if (pid == 0) {
        const int devnull = ::open("/dev/null", O_RDWR);
        ::dup2(devnull, 0);
        ::dup2(devnull, 1);
        ::dup2(devnull, 2);
        ::execve(argv[0], argv.data(), envp.data());
        ::_exit(127);
    }
    return pid;
}

bool reap(pid_t pid, rusage* usage) {
    int status = 0;
    rusage ignored{};
    if (::wait4(pid, &status, 0, usage ? usage : &ignored) != pid) return false;
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

namespace {

std::string joined(const std::vector<double>& values, const char* format) {
    std::string out;
    char cell[64];
    for (const double v : values) {
        std::snprintf(cell, sizeof cell, format, v);
        out += (out.empty() ? "" : ",") + std::string(cell);
    }
    return out;
}

}  // namespace

void printRow(const std::string& figure, const std::string& unit, const std::vector<double>& values,
              const std::vector<double>& ratios, double aim) {
    const std::string aimText = aim > 0 ? joined({aim}, "%.2f") : "";
    std::printf("row|%s|%s|%s|%s|%s\n", figure.c_str(), unit.c_str(), joined(values, "%.6g").c_str(),
                joined(ratios, "%.4f").c_str(), aimText.c_str());
    std::fflush(stdout);
}

void printNote(const std::string& text) {
    std::printf("note|%s\n", text.c_str());
    std::fflush(stdout);
}

double median(std::vector<double> values) {
    if (values.empty()) return 0;
    std::sort(values.begin(), values.end());
    const std::size_t n = values.size();
    return n % 2 ? values[n / 2] : (values[n / 2 - 1] + values[n / 2]) / 2;
}

Desktop startDesktop(const std::vector<std::string>& args) {
    Desktop desktop;
    int out[2];
    if (::pipe2(out, O_CLOEXEC) != 0) return desktop;
    std::vector<char*> argv;
    for (const auto& a : args) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    desktop.pid = ::fork();
    if (desktop.pid == 0) {
        const int devnull = ::open("/dev/null", O_RDWR);
        ::dup2(devnull, 0);
        ::dup2(out[1], 1);
        ::dup2(devnull, 2);
        ::execv(argv[0], argv.data());
        ::_exit(127);
    }
    ::close(out[1]);
    desktop.output = out[0];
    if (desktop.pid < 0) return desktop;
    // "loopback-desktop: serving :N (folder ...)" comes once clients can connect.
    std::string seen;
    char c;
    while (desktop.display.empty() && ::read(out[0], &c, 1) == 1) {
        if (c != '\n') {
            seen.push_back(c);
            continue;
        }
        const auto at = seen.find("serving :");
        if (at != std::string::npos) desktop.display = seen.substr(at + 8, seen.find(' ', at + 8) - (at + 8));
        seen.clear();
    }
    return desktop;
}

bool finishDesktop(Desktop& desktop, bool stop) {
    if (desktop.pid <= 0) return false;
    if (stop) ::kill(desktop.pid, SIGTERM);
    char c;
    while (::read(desktop.output, &c, 1) == 1) {
    }
    ::close(desktop.output);
    const bool ok = reap(desktop.pid);
    desktop.pid = -1;
    return ok;
}

}  // namespace bench
