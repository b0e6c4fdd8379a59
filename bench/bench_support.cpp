#include "bench_support.h"

#include <algorithm>

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

}  // namespace bench
