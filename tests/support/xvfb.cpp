#include "support/xvfb.h"

#include <csignal>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <vector>

#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

namespace testsupport {

Xvfb::Xvfb(const std::string& extraArgs) {
    if (::access("/usr/bin/Xvfb", X_OK) != 0) {
        error_ = "Xvfb is not installed";
        return;
    }
    int fds[2];
    if (::pipe(fds) != 0) return;
    std::vector<std::string> args = {"Xvfb", "-displayfd", std::to_string(fds[1]), "-nolisten", "tcp", "-screen",
                                     "0", "64x64x24"};
    std::istringstream extra(extraArgs);
    for (std::string word; extra >> word;) args.push_back(word);
    std::vector<char*> argv;
    for (auto& a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    pid_ = ::fork();
    if (pid_ == 0) {
        ::close(fds[0]);
        ::execv("/usr/bin/Xvfb", argv.data());
        ::_exit(127);
    }
    ::close(fds[1]);
    std::string number;
    pollfd p{fds[0], POLLIN, 0};
    while (::poll(&p, 1, 10000) > 0) {
        char c;
        if (::read(fds[0], &c, 1) != 1 || c == '\n') break;
        number.push_back(c);
    }
    ::close(fds[0]);
    if (number.empty()) {
        error_ = "Xvfb did not start";
        return;
    }
    display_ = std::atoi(number.c_str());
}

Xvfb::~Xvfb() {
    if (pid_ > 0) {
        ::kill(pid_, SIGTERM);
        int status;
        ::waitpid(pid_, &status, 0);
    }
}

bool writeXauthority(const std::string& path, int display, const std::string& cookie) {
    char host[256] = {};
    ::gethostname(host, sizeof host - 1);
    auto field = [](std::string& out, const std::string& s) {
        out.push_back(static_cast<char>(s.size() >> 8));
        out.push_back(static_cast<char>(s.size() & 0xff));
        out += s;
    };
    std::string entry;
    entry.push_back(0x01);  // FamilyLocal, big-endian 256
    entry.push_back(0x00);
    field(entry, host);
    field(entry, std::to_string(display));
    field(entry, "MIT-MAGIC-COOKIE-1");
    field(entry, cookie);
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << entry;
    return static_cast<bool>(out);
}

}  // namespace testsupport
