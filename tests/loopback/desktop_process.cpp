#include "desktop_process.h"

#include <cerrno>
#include <csignal>
#include <fstream>
#include <regex>
#include <sstream>
#include <thread>

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;

namespace lbtest {

namespace {

constexpr std::uint64_t kRegion = 4096;

std::vector<std::uint64_t> regionOffsets(std::uint64_t size) {
    std::vector<std::uint64_t> at = {0};
    if (size > (std::uint64_t{1} << 32) + kRegion) at.push_back((std::uint64_t{1} << 32) - kRegion / 2);
    if (size >= 2 * kRegion) at.push_back(size - kRegion);
    return at;
}

std::vector<char> region(std::uint64_t offset) {
    std::vector<char> out(kRegion);
    for (std::size_t i = 0; i < out.size(); ++i) out[i] = static_cast<char>((offset >> 12) + i * 31 + 1);
    return out;
}

}  // namespace

DesktopProcess::DesktopProcess(const std::vector<std::string>& args, const std::filesystem::path& log) {
    std::vector<std::string> all = {LOOPBACK_DESKTOP_BINARY};
    all.insert(all.end(), args.begin(), args.end());
    std::vector<char*> argv;
    for (auto& a : all) argv.push_back(a.data());
    argv.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 1, log.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    posix_spawn_file_actions_adddup2(&actions, 1, 2);
    // Under AddressSanitizer its quarantine of freed blocks (256 MiB by default) would count as
    // the desktop's own memory; a small one keeps the peak about what the desktop holds.
    std::vector<std::string> env;
    std::string asan = "ASAN_OPTIONS=";
    for (char** e = environ; *e; ++e) {
        const std::string entry = *e;
        if (entry.rfind(asan, 0) == 0) asan = entry + ":";
        else env.push_back(entry);
    }
    env.push_back(asan + "quarantine_size_mb=8");
    std::vector<char*> envp;
    for (auto& e : env) envp.push_back(e.data());
    envp.push_back(nullptr);
    const int rc = posix_spawn(&pid_, argv[0], &actions, nullptr, argv.data(), envp.data());
    posix_spawn_file_actions_destroy(&actions);
    if (rc != 0) {
        pid_ = -1;
        return;
    }
    const std::regex serving("serving (:[0-9]+)");
    for (int i = 0; i < 200 && display_.empty(); ++i) {
        std::ifstream in(log);
        std::stringstream text;
        text << in.rdbuf();
        std::smatch m;
        const std::string s = text.str();
        if (std::regex_search(s, m, serving)) display_ = m[1];
        else std::this_thread::sleep_for(std::chrono::milliseconds(25));
    }
}

DesktopProcess::~DesktopProcess() {
    if (pid_ <= 0) return;
    ::kill(pid_, SIGKILL);
    ::waitpid(pid_, nullptr, 0);
}

long DesktopProcess::peakKiB() const {
    std::ifstream in("/proc/" + std::to_string(pid_) + "/status");
    for (std::string line; std::getline(in, line);) {
        if (line.rfind("VmHWM:", 0) == 0) return std::stol(line.substr(6));
    }
    return -1;
}

std::chrono::milliseconds DesktopProcess::terminate(std::chrono::milliseconds limit) {
    const auto start = std::chrono::steady_clock::now();
    if (pid_ <= 0 || ::kill(pid_, SIGTERM) != 0) return std::chrono::milliseconds(-1);
    while (std::chrono::steady_clock::now() - start < limit) {
        if (::waitpid(pid_, nullptr, WNOHANG) == pid_) {
            pid_ = -1;
            return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start);
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return std::chrono::milliseconds(-1);
}

bool makeSparseFile(const std::filesystem::path& path, std::uint64_t size) {
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (fd < 0) return false;
    bool ok = ::ftruncate(fd, static_cast<off_t>(size)) == 0;
    for (const auto at : regionOffsets(size)) {
        const auto bytes = region(at);
        ok = ok && ::pwrite(fd, bytes.data(), bytes.size(), static_cast<off_t>(at)) == static_cast<ssize_t>(bytes.size());
    }
    return ::close(fd) == 0 && ok;
}

bool sameSparseContent(const std::filesystem::path& path, std::uint64_t size) {
    std::error_code ec;
    if (std::filesystem::file_size(path, ec) != size || ec) return false;
    const int fd = ::open(path.c_str(), O_RDONLY);
    if (fd < 0) return false;
    bool same = true;
    // The patterned regions, and a stretch of what must be a hole before the last one.
    for (const auto at : regionOffsets(size)) {
        std::vector<char> got(kRegion);
        same = same && ::pread(fd, got.data(), got.size(), static_cast<off_t>(at)) == static_cast<ssize_t>(got.size()) &&
               got == region(at);
        if (at >= kRegion) {
            same = same && ::pread(fd, got.data(), got.size(), static_cast<off_t>(at - kRegion)) == static_cast<ssize_t>(got.size()) &&
                   got == std::vector<char>(kRegion, 0);
        }
    }
    ::close(fd);
    return same;
}

}  // namespace lbtest
