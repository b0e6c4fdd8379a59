// The POSIX implementation of the platform interface (Linux first).
#include "platform/platform.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>
#include <csignal>
#include <ctime>

#include <dirent.h>
#include <fcntl.h>
#include <fnmatch.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/types.h>
#include <unistd.h>
#if __has_include(<linux/openat2.h>)
#include <linux/openat2.h>
#if defined(SYS_openat2)
#define VAROFT_HAVE_OPENAT2 1
#endif
#endif


#ifndef RENAME_NOREPLACE
#define RENAME_NOREPLACE (1 << 0)
#endif
#ifndef RENAME_EXCHANGE
#define RENAME_EXCHANGE (1 << 1)
#endif

namespace platform {

int lastError() { return errno; }
void setLastError(int code) { errno = code; }

std::string errorText(int code) {
    char buffer[256];
    // GNU strerror_r may return a static string instead of filling the buffer.
    const char* text = strerror_r(code, buffer, sizeof buffer);
    return text ? std::string(text) : std::string();
}

std::string lastErrorText() { return errorText(errno); }

namespace {

Kind kindOf(mode_t mode) {
    if (S_ISREG(mode)) return Kind::Regular;
    if (S_ISDIR(mode)) return Kind::Directory;
    if (S_ISLNK(mode)) return Kind::Symlink;
    return Kind::Other;
}

bool fill(int rc, const struct stat& st, Status& out) {
    if (rc != 0) {
        out = Status{};
        return false;
    }
    out.kind = kindOf(st.st_mode);
    out.size = static_cast<std::uint64_t>(st.st_size);
    out.mtime = static_cast<std::int64_t>(st.st_mtime);
    return true;
}

}  // namespace

bool status(const std::string& path, Status& out) {
    struct stat st {};
    return fill(::stat(path.c_str(), &st), st, out);
}

bool linkStatus(const std::string& path, Status& out) {
    struct stat st {};
    return fill(::lstat(path.c_str(), &st), st, out);
}

bool isDirectory(const std::string& path) {
    Status st;
    return status(path, st) && st.kind == Kind::Directory;
}

bool exists(const std::string& path) {
    Status st;
    return status(path, st);
}

bool isFileSystemRoot(const std::string& path) {
    struct stat st {}, root {};
    return ::stat(path.c_str(), &st) == 0 && ::stat("/", &root) == 0 && st.st_dev == root.st_dev &&
           st.st_ino == root.st_ino;
}

bool removeFile(const std::string& path) { return ::unlink(path.c_str()) == 0; }
bool removeDirectory(const std::string& path) { return ::rmdir(path.c_str()) == 0; }
bool makeDirectory(const std::string& path) { return ::mkdir(path.c_str(), 0777) == 0; }
int missingErrorCode() { return ENOENT; }
int deniedErrorCode() { return EACCES; }

bool renameNoReplace(const std::string& from, const std::string& to) {
    if (::syscall(SYS_renameat2, AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), RENAME_NOREPLACE) == 0)
        return true;
    if (errno != EINVAL && errno != ENOSYS) return false;
    // The file system refuses the flag: a hard link cannot replace anything either.
    struct stat st {};
    if (::lstat(from.c_str(), &st) != 0) return false;
    if (S_ISDIR(st.st_mode)) {
        errno = EEXIST;
        if (::lstat(to.c_str(), &st) == 0) return false;
        errno = 0;
        return ::rename(from.c_str(), to.c_str()) == 0;
    }
    if (::link(from.c_str(), to.c_str()) != 0) return false;
    if (::unlink(from.c_str()) != 0) {
        const int saved = errno;
        ::unlink(to.c_str());
        errno = saved;
        return false;
    }
    return true;
}

// ---- DirectoryReader ------------------------------------------------------------------------

DirectoryReader::~DirectoryReader() { close(); }

DirectoryReader::DirectoryReader(DirectoryReader&& other) noexcept : handle_(other.handle_) {
    other.handle_ = nullptr;
}

DirectoryReader& DirectoryReader::operator=(DirectoryReader&& other) noexcept {
    if (this != &other) {
        close();
        handle_ = other.handle_;
        other.handle_ = nullptr;
    }
    return *this;
}

bool DirectoryReader::open(const std::string& path) {
    close();
    handle_ = ::opendir(path.c_str());
    return handle_ != nullptr;
}

bool DirectoryReader::next(std::string& name) {
    if (!handle_) {
        errno = EBADF;
        return false;
    }
    errno = 0;
    const dirent* entry = ::readdir(static_cast<DIR*>(handle_));
    if (!entry) return false;
    name.assign(entry->d_name);
    return true;
}

void DirectoryReader::close() {
    if (handle_) {
        const int saved = errno;
        ::closedir(static_cast<DIR*>(handle_));
        errno = saved;
        handle_ = nullptr;
    }
}

std::vector<std::string> matchNames(const std::string& directory, const std::string& pattern) {
    std::vector<std::string> names;
    DirectoryReader reader;
    if (!reader.open(directory.empty() ? std::string(".") : directory)) return names;
    std::string name;
    while (reader.next(name)) {
        if (name == "." || name == "..") continue;
        if (::fnmatch(pattern.c_str(), name.c_str(), 0) == 0) names.push_back(name);
    }
    std::sort(names.begin(), names.end(),
              [](const std::string& a, const std::string& b) { return std::strcmp(a.c_str(), b.c_str()) < 0; });
    return names;
}

// ---- File -----------------------------------------------------------------------------------

File::~File() { close(); }

File::File(File&& other) noexcept : fd_(other.fd_) { other.fd_ = -1; }

File& File::operator=(File&& other) noexcept {
    if (this != &other) {
        close();
        fd_ = other.fd_;
        other.fd_ = -1;
    }
    return *this;
}

bool File::open(const std::string& path, OpenMode mode) {
    close();
    int flags = O_CLOEXEC;
    switch (mode) {
        // Non-blocking only while opening: a FIFO without a writer would otherwise hold the
        // open forever. Reads block as usual once the descriptor is set back below.
        case OpenMode::Read:
        case OpenMode::ReadRegular: flags |= O_RDONLY | O_NONBLOCK; break;
        case OpenMode::WriteTruncate: flags |= O_WRONLY | O_CREAT | O_TRUNC; break;
        case OpenMode::ReadWrite: flags |= O_RDWR | O_CREAT; break;
        case OpenMode::Append: flags |= O_WRONLY | O_CREAT | O_APPEND; break;
    }
    fd_ = ::open(path.c_str(), flags, 0666);
    if (fd_ < 0) return false;
    if (mode == OpenMode::Read || mode == OpenMode::ReadRegular) {
        // A directory opens fine for reading on POSIX; a file stream on it is useless. The type
        // is judged on the open descriptor, so a name swapped after an earlier check changes
        // nothing.
        struct stat st {};
        int refused = 0;
        if (::fstat(fd_, &st) != 0) refused = errno;
        else if (S_ISDIR(st.st_mode)) refused = EISDIR;
        else if (mode == OpenMode::ReadRegular && !S_ISREG(st.st_mode)) refused = EINVAL;
        if (refused == 0 && ::fcntl(fd_, F_SETFL, ::fcntl(fd_, F_GETFL) & ~O_NONBLOCK) != 0) refused = errno;
        if (refused != 0) {
            ::close(fd_);
            fd_ = -1;
            errno = refused;
            return false;
        }
    }
    return true;
}

std::int64_t File::read(std::span<std::uint8_t> into) {
    if (fd_ < 0) {
        errno = EBADF;
        return -1;
    }
    for (;;) {
        const ssize_t n = ::read(fd_, into.data(), into.size());
        if (n >= 0) return n;
        if (errno != EINTR) return -1;
    }
}

std::int64_t File::write(std::span<const std::uint8_t> bytes) {
    if (fd_ < 0) {
        errno = EBADF;
        return -1;
    }
    std::size_t done = 0;
    while (done < bytes.size()) {
        const ssize_t n = ::write(fd_, bytes.data() + done, bytes.size() - done);
        if (n < 0) {
            if (errno == EINTR) continue;
            return -1;
        }
        done += static_cast<std::size_t>(n);
    }
    return static_cast<std::int64_t>(done);
}

std::int64_t File::seek(std::int64_t offset, SeekOrigin origin) {
    if (fd_ < 0) {
        errno = EBADF;
        return -1;
    }
    const int whence = origin == SeekOrigin::Set ? SEEK_SET : origin == SeekOrigin::Current ? SEEK_CUR : SEEK_END;
    return ::lseek(fd_, static_cast<off_t>(offset), whence);
}

std::int64_t File::tell() { return seek(0, SeekOrigin::Current); }

bool File::close() {
    if (fd_ < 0) return true;
    const int rc = ::close(fd_);
    fd_ = -1;
    return rc == 0;
}

// ---- a file's bytes on their way to a socket ----------------------------------------------------

FilePipe::~FilePipe() { close(); }

bool FilePipe::open(std::size_t capacity) {
    close();
    int fds[2];
    if (::pipe2(fds, O_CLOEXEC) != 0) return false;
    read_ = fds[0];
    write_ = fds[1];
    // The default pipe holds 64 KiB; a larger one may be refused by the system's limits.
    const int wanted = static_cast<int>(std::min<std::size_t>(capacity, INT32_MAX));
    if (::fcntl(write_, F_GETPIPE_SZ) < wanted && ::fcntl(write_, F_SETPIPE_SZ, wanted) < wanted) {
        const int saved = errno;
        close();
        errno = saved;
        return false;
    }
    return true;
}

void FilePipe::close() {
    if (read_ >= 0) ::close(read_);
    if (write_ >= 0) ::close(write_);
    read_ = write_ = -1;
    held_ = 0;
}

std::int64_t FilePipe::fill(File& file, std::size_t limit) {
    if (read_ < 0 || file.fd_ < 0) {
        errno = EBADF;
        return -1;
    }
    for (;;) {
        const ssize_t n = ::splice(file.fd_, nullptr, write_, nullptr, limit, 0);
        if (n >= 0) {
            held_ += static_cast<std::size_t>(n);
            return n;
        }
        if (errno == EINTR) continue;
        // A file system or file kind that cannot splice says so before it takes anything.
        if (errno == EINVAL || errno == ENOSYS || errno == EOPNOTSUPP) return kCannotMove;
        return -1;
    }
}

bool FilePipe::fillZeros(std::size_t count) {
    static const std::uint8_t zeros[8] = {};
    while (count > 0) {
        const ssize_t n = ::write(write_, zeros, std::min(count, sizeof zeros));
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        held_ += static_cast<std::size_t>(n);
        count -= static_cast<std::size_t>(n);
    }
    return true;
}

bool FilePipe::drainTo(int socket) {
    while (held_ > 0) {
        const ssize_t n = ::splice(read_, nullptr, socket, nullptr, held_, 0);
        if (n > 0) {
            held_ -= static_cast<std::size_t>(n);
            continue;
        }
        if (n < 0 && errno == EINTR) continue;
        if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
            pollfd writable{socket, POLLOUT, 0};
            if (::poll(&writable, 1, -1) >= 0 || errno == EINTR) continue;
        }
        const int saved = errno;
        ::shutdown(socket, SHUT_RDWR);
        close();
        errno = saved;
        return false;
    }
    return true;
}

std::int64_t readStandardInput(std::span<std::uint8_t> into) {
    for (;;) {
        const ssize_t n = ::read(STDIN_FILENO, into.data(), into.size());
        if (n >= 0) return n;
        if (errno != EINTR) return -1;
    }
}

// ---- process and environment ----------------------------------------------------------------

const char* environment(const char* name) { return std::getenv(name); }

bool hostName(std::string& out) {
    char buffer[256] = {};
    if (::gethostname(buffer, sizeof buffer - 1) != 0) {
        out.clear();
        return false;
    }
    out.assign(buffer);
    return true;
}

std::uint32_t processId() { return static_cast<std::uint32_t>(::getpid()); }
std::int64_t currentTime() { return static_cast<std::int64_t>(std::time(nullptr)); }
bool standardErrorIsTerminal() { return ::isatty(STDERR_FILENO) == 1; }

}  // namespace platform

// ==== Receiving without loss: temporaries, replacement, signals, the log file ================

namespace platform {

namespace {

mode_t currentUmask() {
    const mode_t mask = ::umask(0);
    ::umask(mask);
    return mask;
}

std::string joinName(const std::string& directory, const std::string& name) {
    if (directory.empty()) return name;
    if (directory.back() == '/') return directory + name;
    return directory + "/" + name;
}

// Hidden names unique to the run: the process id and a counter.
std::string nextTemporaryName(const std::string& directory) {
    static unsigned counter = 0;
    char name[64];
    std::snprintf(name, sizeof name, ".varoft-%ld-%u.part", static_cast<long>(::getpid()), counter++);
    return joinName(directory, name);
}

constexpr int kNameAttempts = 1000;

// ---- the registry of temporaries ------------------------------------------------------------

constexpr std::size_t kTemporarySlots = 4;
constexpr std::size_t kTemporaryPathMax = 4608;

struct TemporarySlot {
    volatile sig_atomic_t used = 0;
    volatile sig_atomic_t directory = 0;
    char path[kTemporaryPathMax] = {};
};

TemporarySlot Temporaries[kTemporarySlots];

// Removes a directory and everything in it using only calls that are safe in a signal handler:
// one descriptor at a time, down into a directory that is not empty and back up by "..".
// Never follows a symbolic link; gives up after a bounded number of steps (entries it cannot
// remove stay).
void removeTreeSafely(const char* path) {
    int fd = ::open(path, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    if (fd < 0) {
        if (errno == ENOTDIR || errno == ELOOP) ::unlink(path);
        else ::rmdir(path);
        return;
    }
    struct stat top {};
    if (::fstat(fd, &top) != 0) {
        ::close(fd);
        return;
    }
    alignas(8) static char buffer[8192];
    for (int steps = 0; steps < (1 << 16); ++steps) {
        bool descended = false;
        ::lseek(fd, 0, SEEK_SET);
        while (!descended) {
            const long n = ::syscall(SYS_getdents64, fd, buffer, sizeof buffer);
            if (n <= 0) break;
            for (long at = 0; at < n && !descended;) {
                const auto* entry = reinterpret_cast<const struct dirent64*>(buffer + at);
                at += entry->d_reclen;
                const char* name = entry->d_name;
                if (name[0] == '.' && (name[1] == '\0' || (name[1] == '.' && name[2] == '\0'))) continue;
                if (::unlinkat(fd, name, 0) == 0) continue;
                if (errno != EISDIR && errno != EPERM) continue;
                if (::unlinkat(fd, name, AT_REMOVEDIR) == 0) continue;
                if (errno != ENOTEMPTY && errno != EEXIST) continue;
                const int child = ::openat(fd, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
                if (child < 0) continue;
                ::close(fd);
                fd = child;
                descended = true;
            }
        }
        if (descended) continue;
        struct stat here {};
        if (::fstat(fd, &here) != 0 || (here.st_dev == top.st_dev && here.st_ino == top.st_ino)) break;
        const int parent = ::openat(fd, "..", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        ::close(fd);
        if (parent < 0) return;
        fd = parent;
    }
    ::close(fd);
    ::rmdir(path);
}

void removeRegistered() {
    for (TemporarySlot& slot : Temporaries) {
        if (!slot.used) continue;
        if (slot.directory) removeTreeSafely(slot.path);
        else ::unlink(slot.path);
        slot.used = 0;
    }
}

sigset_t endingSignals() {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGTERM);
    sigaddset(&set, SIGHUP);
    return set;
}

void onEndingSignal(int signal) {
    removeRegistered();
    struct sigaction standard {};
    standard.sa_handler = SIG_DFL;
    sigemptyset(&standard.sa_mask);
    ::sigaction(signal, &standard, nullptr);
    sigset_t only;
    sigemptyset(&only);
    sigaddset(&only, signal);
    ::sigprocmask(SIG_UNBLOCK, &only, nullptr);
    ::raise(signal);
}

}  // namespace

TemporaryFile::~TemporaryFile() { close(); }

bool TemporaryFile::create(const std::string& directory) {
    close();
    for (int attempt = 0; attempt < kNameAttempts; ++attempt) {
        std::string path = nextTemporaryName(directory);
        fd_ = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
        if (fd_ >= 0) {
            path_ = std::move(path);
            return true;
        }
        if (errno != EEXIST) return false;
    }
    return false;
}

std::int64_t TemporaryFile::write(std::span<const std::uint8_t> bytes) {
    if (fd_ < 0) {
        errno = EBADF;
        return -1;
    }
    std::size_t done = 0;
    while (done < bytes.size()) {
        const ssize_t n = ::write(fd_, bytes.data() + done, bytes.size() - done);
        if (n < 0) {
            if (errno == EINTR) continue;
            return -1;
        }
        done += static_cast<std::size_t>(n);
    }
    return static_cast<std::int64_t>(done);
}

bool TemporaryFile::setNewFileMode() { return fd_ >= 0 && ::fchmod(fd_, 0666 & ~currentUmask()) == 0; }

bool TemporaryFile::close() {
    if (fd_ < 0) return true;
    const int rc = ::close(fd_);
    fd_ = -1;
    return rc == 0;
}

bool createTemporaryDirectory(const std::string& directory, std::string& path) {
    for (int attempt = 0; attempt < kNameAttempts; ++attempt) {
        path = nextTemporaryName(directory);
        if (::mkdir(path.c_str(), 0700) == 0) return true;
        if (errno != EEXIST) return false;
    }
    return false;
}

std::string unusedTemporaryName(const std::string& directory) {
    std::string path;
    struct stat st {};
    for (int attempt = 0; attempt < kNameAttempts; ++attempt) {
        path = nextTemporaryName(directory);
        if (::lstat(path.c_str(), &st) != 0 && errno == ENOENT) break;
    }
    return path;
}

bool setNewDirectoryMode(const std::string& path) { return ::chmod(path.c_str(), 0777 & ~currentUmask()) == 0; }

std::string directoryOf(const std::string& path) {
    const std::size_t cut = path.rfind('/');
    if (cut == std::string::npos) return std::string();
    return cut == 0 ? std::string("/") : path.substr(0, cut);
}

bool resolveFinalLinks(const std::string& path, std::string& out) {
    std::string current = path;
    for (int hops = 0; hops < 40; ++hops) {
        struct stat st {};
        if (::lstat(current.c_str(), &st) != 0 || !S_ISLNK(st.st_mode)) {
            out = current;
            return true;
        }
        std::string text(static_cast<std::size_t>(st.st_size > 0 ? st.st_size : 255) + 1, '\0');
        const ssize_t n = ::readlink(current.c_str(), text.data(), text.size());
        if (n < 0) return false;
        if (static_cast<std::size_t>(n) >= text.size()) {
            errno = ENAMETOOLONG;
            return false;
        }
        text.resize(static_cast<std::size_t>(n));
        current = !text.empty() && text[0] == '/' ? text : joinName(directoryOf(current), text);
    }
    errno = ELOOP;
    return false;
}

bool isWritable(const std::string& path) { return ::faccessat(AT_FDCWD, path.c_str(), W_OK, AT_EACCESS) == 0; }

bool replacePath(const std::string& from, const std::string& to) { return ::rename(from.c_str(), to.c_str()) == 0; }

bool exchangePaths(const std::string& a, const std::string& b) {
    return ::syscall(SYS_renameat2, AT_FDCWD, a.c_str(), AT_FDCWD, b.c_str(), RENAME_EXCHANGE) == 0;
}

int nameTooLongErrorCode() { return ENAMETOOLONG; }
int existsErrorCode() { return EEXIST; }
int isDirectoryErrorCode() { return EISDIR; }
int outOfMemoryErrorCode() { return ENOMEM; }
int damagedDataErrorCode() { return EBADMSG; }

void installTerminationHandling() {
    ::signal(SIGPIPE, SIG_IGN);
    struct sigaction action {};
    action.sa_handler = onEndingSignal;
    action.sa_mask = endingSignals();
    for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
        struct sigaction previous {};
        // A signal the run was started with ignored (nohup, a background job) stays ignored.
        if (::sigaction(signal, nullptr, &previous) == 0 && previous.sa_handler == SIG_IGN) continue;
        ::sigaction(signal, &action, nullptr);
    }
}

int registerTemporary(const std::string& path, bool directory) {
    if (path.size() >= kTemporaryPathMax) return -1;
    for (std::size_t i = 0; i < kTemporarySlots; ++i) {
        TemporarySlot& slot = Temporaries[i];
        if (slot.used) continue;
        std::memcpy(slot.path, path.c_str(), path.size() + 1);
        slot.directory = directory ? 1 : 0;
        std::atomic_signal_fence(std::memory_order_seq_cst);
        slot.used = 1;
        return static_cast<int>(i);
    }
    return -1;
}

void forgetTemporary(int id) {
    if (id >= 0 && static_cast<std::size_t>(id) < kTemporarySlots) Temporaries[id].used = 0;
}

void removeTemporaries() {
    TerminationBlock block;
    removeRegistered();
}

static_assert(sizeof(sigset_t) <= 256, "TerminationBlock keeps the mask in 256 bytes");

TerminationBlock::TerminationBlock() {
    const sigset_t set = endingSignals();
    ::sigprocmask(SIG_BLOCK, &set, reinterpret_cast<sigset_t*>(saved_));
}

TerminationBlock::~TerminationBlock() {
    const int saved = errno;
    ::sigprocmask(SIG_SETMASK, reinterpret_cast<const sigset_t*>(saved_), nullptr);
    errno = saved;
}

bool appendToLogFile(const std::string& path, std::string_view text) {
    // Non-blocking so that a FIFO planted under the name cannot hold the run.
    const int fd = ::open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK, 0600);
    if (fd < 0) return false;
    struct stat st {};
    bool ok = ::fstat(fd, &st) == 0 && S_ISREG(st.st_mode) && st.st_uid == ::geteuid();
    std::size_t done = 0;
    while (ok && done < text.size()) {
        const ssize_t n = ::write(fd, text.data() + done, text.size() - done);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) ok = false;
        else done += static_cast<std::size_t>(n);
    }
    ::close(fd);
    return ok;
}

void writeStandardError(std::string_view text) {
    std::size_t done = 0;
    while (done < text.size()) {
        const ssize_t n = ::write(STDERR_FILENO, text.data() + done, text.size() - done);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return;
        done += static_cast<std::size_t>(n);
    }
}

}  // namespace platform

// ---- paths resolved below a directory held open ------------------------------------------------

namespace platform {

namespace {

// Handles only look names up; reading a directory opens it again for reading.
#ifdef O_PATH
constexpr int kLookupFlags = O_PATH;
#else
constexpr int kLookupFlags = O_RDONLY;
#endif

void closeKeepingError(int fd) {
    const int saved = errno;
    ::close(fd);
    errno = saved;
}

// The directory `name` in `dirfd`, never through a symbolic link; anything else is ENOTDIR.
int openDirectoryAt(int dirfd, const char* name, int access) {
    const int fd = ::openat(dirfd, name, access | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    if (fd < 0) {
        if (errno == ELOOP) errno = ENOTDIR;  // a link where a directory was expected
        return -1;
    }
    struct stat st {};
    if (::fstat(fd, &st) != 0 || !S_ISDIR(st.st_mode)) {
        closeKeepingError(fd);
        errno = ENOTDIR;
        return -1;
    }
    return fd;
}

#ifdef VAROFT_HAVE_OPENAT2
bool kernelHasOpenat2 = true;

// The kernel's own walk of a whole relative path: below dirfd, no link anywhere. -1 with
// ENOSYS when the kernel lacks the call.
int openBeneathAtOnce(int dirfd, const std::string& relative) {
    if (!kernelHasOpenat2) {
        errno = ENOSYS;
        return -1;
    }
    open_how how{};
    how.flags = static_cast<std::uint64_t>(kLookupFlags | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    how.resolve = RESOLVE_BENEATH | RESOLVE_NO_SYMLINKS | RESOLVE_NO_MAGICLINKS;
    const long fd = ::syscall(SYS_openat2, dirfd, relative.c_str(), &how, sizeof how);
    if (fd < 0) {
        if (errno == ENOSYS) kernelHasOpenat2 = false;
        if (errno == ELOOP) errno = ENOTDIR;
        return -1;
    }
    struct stat st {};
    if (::fstat(static_cast<int>(fd), &st) != 0 || !S_ISDIR(st.st_mode)) {
        closeKeepingError(static_cast<int>(fd));
        errno = ENOTDIR;
        return -1;
    }
    return static_cast<int>(fd);
}
#endif

// Removes everything inside the directory open as dirfd (readable). The names are read first,
// the removals follow, so the listing is not disturbed by them.
void removeContents(int dirfd) {
    std::vector<std::string> names;
    {
        const int listing = ::fcntl(dirfd, F_DUPFD_CLOEXEC, 0);
        if (listing < 0) return;
        DIR* dir = ::fdopendir(listing);
        if (!dir) {
            closeKeepingError(listing);
            return;
        }
        while (const dirent* entry = ::readdir(dir)) {
            const std::string_view name(entry->d_name);
            if (name != "." && name != "..") names.emplace_back(name);
        }
        const int saved = errno;
        ::closedir(dir);
        errno = saved;
    }
    for (const std::string& name : names) {
        struct stat st {};
        if (::fstatat(dirfd, name.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0) continue;
        if (!S_ISDIR(st.st_mode)) {
            ::unlinkat(dirfd, name.c_str(), 0);  // a link goes itself, never what it names
            continue;
        }
        const int child = openDirectoryAt(dirfd, name.c_str(), O_RDONLY);
        if (child < 0) continue;  // swapped for something else meanwhile: not entered
        removeContents(child);
        closeKeepingError(child);
        ::unlinkat(dirfd, name.c_str(), AT_REMOVEDIR);
    }
}

}  // namespace

DirectoryHandle::~DirectoryHandle() { close(); }

DirectoryHandle::DirectoryHandle(DirectoryHandle&& other) noexcept : fd_(other.fd_) { other.fd_ = -1; }

DirectoryHandle& DirectoryHandle::operator=(DirectoryHandle&& other) noexcept {
    if (this != &other) {
        close();
        fd_ = other.fd_;
        other.fd_ = -1;
    }
    return *this;
}

void DirectoryHandle::close() {
    if (fd_ >= 0) closeKeepingError(fd_);
    fd_ = -1;
}

bool DirectoryHandle::open(const std::string& path) {
    close();
    fd_ = ::open(path.c_str(), kLookupFlags | O_DIRECTORY | O_CLOEXEC);
    return fd_ >= 0;
}

bool DirectoryHandle::openBeneath(const DirectoryHandle& base, const std::string& relative, bool create) {
    close();
    if (base.fd_ < 0) {
        errno = EBADF;
        return false;
    }
    if (relative.empty()) {
        fd_ = ::fcntl(base.fd_, F_DUPFD_CLOEXEC, 0);
        return fd_ >= 0;
    }
#ifdef VAROFT_HAVE_OPENAT2
    fd_ = openBeneathAtOnce(base.fd_, relative);
    if (fd_ >= 0) return true;
    // Missing directories are made by the walk below; a race with a rename asks for a retry.
    if (errno != ENOSYS && errno != EAGAIN && !(create && errno == ENOENT)) return false;
#endif
    // One component at a time, each looked up in the directory before it.
    int at = base.fd_;
    std::size_t from = 0;
    while (from <= relative.size()) {
        std::size_t end = relative.find('/', from);
        if (end == std::string::npos) end = relative.size();
        const std::string part = relative.substr(from, end - from);
        from = end + 1;
        if (part.empty() || part == "." || part == "..") {
            if (at != base.fd_) closeKeepingError(at);
            errno = EINVAL;
            return false;
        }
        int next = openDirectoryAt(at, part.c_str(), kLookupFlags);
        if (next < 0 && errno == ENOENT && create) {
            // Made here, or by someone else meanwhile: either way it is looked up again.
            if (::mkdirat(at, part.c_str(), 0777) == 0 || errno == EEXIST)
                next = openDirectoryAt(at, part.c_str(), kLookupFlags);
        }
        if (at != base.fd_) closeKeepingError(at);
        if (next < 0) return false;
        at = next;
    }
    fd_ = at;
    return true;
}

bool DirectoryHandle::linkStatusAt(const std::string& name, Status& out) const {
    struct stat st {};
    return fill(::fstatat(fd_, name.c_str(), &st, AT_SYMLINK_NOFOLLOW), st, out);
}

bool DirectoryHandle::unlinkAt(const std::string& name) const { return ::unlinkat(fd_, name.c_str(), 0) == 0; }

int DirectoryHandle::removeTreeAt(const std::string& name) const {
    if (name.empty() || name == "." || name == "..") {
        errno = EINVAL;
        return 0;
    }
    const int top = openDirectoryAt(fd_, name.c_str(), O_RDONLY);
    if (top < 0) return 0;
    removeContents(top);
    closeKeepingError(top);
    return ::unlinkat(fd_, name.c_str(), AT_REMOVEDIR) == 0 ? 1 : 0;
}

bool File::createNewAt(const DirectoryHandle& directory, const std::string& name) {
    close();
    // O_EXCL never opens what exists, a link included; what holds the name goes first. A few
    // rounds, in case something else keeps putting the name back.
    for (int round = 0; round < 4; ++round) {
        fd_ = ::openat(directory.fd_, name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0666);
        if (fd_ >= 0) return true;
        if (errno != EEXIST) return false;
        // A directory fails here (EISDIR) and stays.
        if (::unlinkat(directory.fd_, name.c_str(), 0) != 0 && errno != ENOENT) return false;
    }
    errno = EEXIST;
    return false;
}

int failureCode(Failure failure) {
    switch (failure) {
        case Failure::DamagedData: return EBADMSG;
        case Failure::Unsupported: return EOPNOTSUPP;
        case Failure::NotPermitted: return EPERM;
        case Failure::OutOfMemory: return ENOMEM;
        case Failure::NotADirectory: return ENOTDIR;
        case Failure::InvalidArgument: break;
    }
    return EINVAL;
}

void splitLastComponent(const std::string& path, std::string& parent, std::string& last) {
    const std::size_t keep = path.find_last_not_of('/');
    if (keep == std::string::npos) {
        parent = path.empty() ? "." : "/";
        last.clear();
        return;
    }
    const std::string trimmed = path.substr(0, keep + 1);
    const std::size_t slash = trimmed.rfind('/');
    if (slash == std::string::npos) {
        parent = ".";
        last = trimmed;
    } else {
        parent = slash == 0 ? "/" : trimmed.substr(0, slash);
        last = trimmed.substr(slash + 1);
    }
}

int removeDirectoryTree(const std::string& path) {
    // Never "", and never the root under any spelling ("/", "//", "/.", "/tmp/..").
    if (path.find_first_not_of('/') == std::string::npos || isFileSystemRoot(path)) {
        errno = EACCES;
        return 0;
    }
    std::string parentPath, name;
    splitLastComponent(path, parentPath, name);
    DirectoryHandle parent;
    if (!parent.open(parentPath)) return 0;
    return parent.removeTreeAt(name);
}

}  // namespace platform

// ==== The terminal and the clock ==============================================================

namespace platform {

unsigned terminalColumns() {
    struct winsize size {};
    if (::ioctl(STDERR_FILENO, TIOCGWINSZ, &size) != 0 || size.ws_col == 0) return 80;
    return size.ws_col;
}

bool terminalTakesEscapes() { return true; }

std::uint64_t monotonicMilliseconds() {
    struct timespec now {};
    ::clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<std::uint64_t>(now.tv_sec) * 1000u + static_cast<std::uint64_t>(now.tv_nsec) / 1000000u;
}

}  // namespace platform
