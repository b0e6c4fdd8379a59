// The Windows implementation of the platform interface.
//
// Paths stay UTF-8 inside the program; every wide system call gets their UTF-16 form
// (MultiByteToWideChar, code page 65001, invalid UTF-8 refused with
// ERROR_NO_UNICODE_TRANSLATION rather than guessed at) and names read from the system come
// back through WideCharToMultiByte. Error codes are the thread's GetLastError values and their
// texts the system's own message table (FormatMessageW).
//
// Where the POSIX build uses a descriptor, this one keeps a kernel HANDLE in the same int:
// kernel handles are 32-bit values on 64-bit Windows (only the low 32 bits are significant and
// a handle may be sign-extended back), so nothing is lost.
#include <winsock2.h>
#include <windows.h>
#include <aclapi.h>
#include <shellapi.h>

#include <fcntl.h>
#include <io.h>

#include <algorithm>
#include <initializer_list>
#include <climits>
#include <cstdio>
#include <cstring>
#include <cwchar>
#include <map>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/platform.h"
#include "platform/win32.h"

namespace platform {

namespace {

// Restores the thread's last error when it goes out of scope: clean-up calls made after a
// failure must not replace the failure's code.
class KeepError {
public:
    KeepError() : saved_(GetLastError()) {}
    ~KeepError() { SetLastError(saved_); }
    KeepError(const KeepError&) = delete;
    KeepError& operator=(const KeepError&) = delete;

private:
    DWORD saved_;
};

bool toWide(std::string_view text, std::wstring& out) {
    out.clear();
    if (text.empty()) return true;
    if (text.size() > static_cast<std::size_t>(INT_MAX)) {
        SetLastError(ERROR_FILENAME_EXCED_RANGE);
        return false;
    }
    const int length = static_cast<int>(text.size());
    const int n = MultiByteToWideChar(CP_UTF8, MB_ERR_INVALID_CHARS, text.data(), length, nullptr, 0);
    if (n <= 0) return false;
    out.resize(static_cast<std::size_t>(n));
    if (MultiByteToWideChar(CP_UTF8, MB_ERR_INVALID_CHARS, text.data(), length, out.data(), n) != n) return false;
    return true;
}

std::string toUtf8(const wchar_t* text, std::size_t length) {
    if (length == 0 || length > static_cast<std::size_t>(INT_MAX)) return std::string();
    const int in = static_cast<int>(length);
    const int n = WideCharToMultiByte(CP_UTF8, 0, text, in, nullptr, 0, nullptr, nullptr);
    if (n <= 0) return std::string();
    std::string out(static_cast<std::size_t>(n), '\0');
    WideCharToMultiByte(CP_UTF8, 0, text, in, out.data(), n, nullptr, nullptr);
    return out;
}

std::string toUtf8(const wchar_t* text) { return toUtf8(text, std::wcslen(text)); }

bool isSeparator(char c) { return c == '\\' || c == '/'; }
bool isSeparator(wchar_t c) { return c == L'\\' || c == L'/'; }

bool hasDrive(std::string_view path) {
    return path.size() >= 2 && path[1] == ':' &&
           ((path[0] >= 'A' && path[0] <= 'Z') || (path[0] >= 'a' && path[0] <= 'z'));
}

// directory + '\\' + name; no separator after one that is there already, and none after a bare
// drive ("C:" + "x" is "C:x", the drive's current directory, as the name was meant).
std::string joinName(const std::string& directory, const std::string& name) {
    if (directory.empty()) return name;
    if (isSeparator(directory.back()) || (directory.size() == 2 && hasDrive(directory))) return directory + name;
    return directory + "\\" + name;
}

// The search for every entry of a directory: "%s\\*.*".
std::string searchPattern(const std::string& directory) { return joinName(directory, "*.*"); }

// ---- handles kept in an int -----------------------------------------------------------------

bool adopt(HANDLE handle, int& out) {
    if (handle == INVALID_HANDLE_VALUE || handle == nullptr) return false;
    const auto value = reinterpret_cast<std::intptr_t>(handle);
    if (value < 0 || value > INT_MAX) {
        CloseHandle(handle);
        SetLastError(ERROR_TOO_MANY_OPEN_FILES);
        return false;
    }
    out = static_cast<int>(value);
    return true;
}

HANDLE handleOf(int value) { return reinterpret_cast<HANDLE>(static_cast<std::intptr_t>(value)); }

void closeKeepingError(HANDLE handle) {
    KeepError keep;
    CloseHandle(handle);
}

// ---- handles closed before the temporaries are removed --------------------------------------
// The system removes no directory while a handle without FILE_SHARE_DELETE is open on it, and
// (on some file systems) none that holds a deleted file still open. The console-event handler
// therefore closes the directories DirectoryHandles hold and the files made below them first.
// It does so once it has the termination guard: the extraction's thread works only while its
// caller holds a TerminationBlock, so none of these handles is in use then. It keeps their
// lock, so none is closed twice or taken anew before the process ends.

// A lock made in place on first use and never destroyed: a critical section may not be copied
// once initialised, and the process ends holding these.
struct ProcessLock {
    ProcessLock() { InitializeCriticalSection(&section); }
    CRITICAL_SECTION section;
};

CRITICAL_SECTION& heldLock() {
    static ProcessLock lock;
    return lock.section;
}

std::vector<HANDLE>& heldHandles() {
    static std::vector<HANDLE> held;
    return held;
}

// adopt, and the handle listed among the held ones.
bool hold(HANDLE handle, int& out) {
    if (!adopt(handle, out)) return false;
    EnterCriticalSection(&heldLock());
    heldHandles().push_back(handle);
    LeaveCriticalSection(&heldLock());
    return true;
}

// Closes a handle kept in an int, listed among the held ones or not; false when closing failed.
bool release(int& value) {
    EnterCriticalSection(&heldLock());
    auto& held = heldHandles();
    held.erase(std::remove(held.begin(), held.end(), handleOf(value)), held.end());
    const bool ok = CloseHandle(handleOf(value)) != 0;
    LeaveCriticalSection(&heldLock());
    value = -1;
    return ok;
}

// ---- times and kinds ------------------------------------------------------------------------

constexpr std::uint64_t kTicksPerSecond = 10000000ULL;         // FILETIME counts 100 ns
constexpr std::int64_t kSecondsFrom1601To1970 = 11644473600LL;

std::int64_t unixSeconds(const FILETIME& time) {
    const std::uint64_t ticks = (static_cast<std::uint64_t>(time.dwHighDateTime) << 32) | time.dwLowDateTime;
    return static_cast<std::int64_t>(ticks / kTicksPerSecond) - kSecondsFrom1601To1970;
}

std::uint64_t sizeOf(DWORD high, DWORD low) { return (static_cast<std::uint64_t>(high) << 32) | low; }

// A reparse point that stands for another name (a symbolic link, a junction) is a link; other
// reparse points (deduplicated or cloud files, say) are the file itself.
bool isLinkTag(DWORD tag) { return IsReparseTagNameSurrogate(tag) != 0; }

// The attributes of a path itself, never what a link names: GetFileAttributesExW, or the
// directory search's record for a file the system keeps open (a page file). The reparse tag is
// set for a reparse point, 0 otherwise.
bool attributesOf(const std::wstring& path, WIN32_FILE_ATTRIBUTE_DATA& data, DWORD& tag) {
    tag = 0;
    // Wildcards would make the directory search below match other names ("\\?\" is no wildcard).
    const std::size_t from = path.rfind(L"\\\\?\\", 0) == 0 ? 4 : 0;
    if (path.find_first_of(L"*?", from) != std::wstring::npos) {
        SetLastError(ERROR_INVALID_NAME);
        return false;
    }
    const bool got = GetFileAttributesExW(path.c_str(), GetFileExInfoStandard, &data) != 0;
    if (got && !(data.dwFileAttributes & FILE_ATTRIBUTE_REPARSE_POINT)) return true;
    if (!got && GetLastError() != ERROR_SHARING_VIOLATION) return false;
    WIN32_FIND_DATAW found;
    const HANDLE search = FindFirstFileW(path.c_str(), &found);
    if (search == INVALID_HANDLE_VALUE) return got;
    FindClose(search);
    if (!got) {
        data.dwFileAttributes = found.dwFileAttributes;
        data.ftCreationTime = found.ftCreationTime;
        data.ftLastAccessTime = found.ftLastAccessTime;
        data.ftLastWriteTime = found.ftLastWriteTime;
        data.nFileSizeHigh = found.nFileSizeHigh;
        data.nFileSizeLow = found.nFileSizeLow;
    }
    if (data.dwFileAttributes & FILE_ATTRIBUTE_REPARSE_POINT) tag = found.dwReserved0;
    return true;
}

bool linkStatusWide(const std::wstring& path, Status& out) {
    WIN32_FILE_ATTRIBUTE_DATA data{};
    DWORD tag = 0;
    if (!attributesOf(path, data, tag)) {
        out = Status{};
        return false;
    }
    const DWORD attributes = data.dwFileAttributes;
    if ((attributes & FILE_ATTRIBUTE_REPARSE_POINT) && isLinkTag(tag)) out.kind = Kind::Symlink;
    else if (attributes & FILE_ATTRIBUTE_DIRECTORY) out.kind = Kind::Directory;
    else if (attributes & FILE_ATTRIBUTE_DEVICE) out.kind = Kind::Other;
    else out.kind = Kind::Regular;
    out.size = out.kind == Kind::Directory ? 0 : sizeOf(data.nFileSizeHigh, data.nFileSizeLow);
    out.mtime = unixSeconds(data.ftLastWriteTime);
    return true;
}

constexpr DWORD kShareAll = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;

// What the system answers for a directory where a file is expected (DeleteFileW, CreateFileW).
constexpr DWORD kDirectoryNotSupported = ERROR_ACCESS_DENIED;

// The final path of an open handle, "\\?\C:\dir" form (long paths and exact names accepted).
bool finalPath(HANDLE handle, std::wstring& out) {
    out.assign(MAX_PATH, L'\0');
    for (int round = 0; round < 3; ++round) {
        const DWORD n = GetFinalPathNameByHandleW(handle, out.data(), static_cast<DWORD>(out.size()),
                                                  FILE_NAME_NORMALIZED | VOLUME_NAME_DOS);
        if (n == 0) return false;
        if (n < out.size()) {
            out.resize(n);
            return true;
        }
        out.assign(static_cast<std::size_t>(n) + 1, L'\0');
    }
    SetLastError(ERROR_FILENAME_EXCED_RANGE);
    return false;
}

// The "\\?\" form the system gives back, as a user would write it.
std::wstring plainPath(const std::wstring& path) {
    if (path.rfind(L"\\\\?\\UNC\\", 0) == 0) return L"\\\\" + path.substr(8);
    if (path.rfind(L"\\\\?\\", 0) == 0 && path.size() >= 6 && path[5] == L':') return path.substr(4);
    return path;
}

}  // namespace

// ---- errors ---------------------------------------------------------------------------------

int lastError() { return static_cast<int>(GetLastError()); }
void setLastError(int code) { SetLastError(static_cast<DWORD>(code)); }

// The system's message-table text in the default language. The table ends each text with a line
// break, which is dropped so that the text fits in a line of its own ("Access is denied.").
std::string errorText(int code) {
    KeepError keep;
    wchar_t* buffer = nullptr;
    const DWORD n = FormatMessageW(
        FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS, nullptr,
        static_cast<DWORD>(code), MAKELANGID(LANG_NEUTRAL, SUBLANG_DEFAULT), reinterpret_cast<wchar_t*>(&buffer), 0,
        nullptr);
    if (n == 0 || buffer == nullptr) return std::string();
    std::size_t length = n;
    while (length > 0 && (buffer[length - 1] == L'\r' || buffer[length - 1] == L'\n')) --length;
    std::string text = toUtf8(buffer, length);
    LocalFree(buffer);
    return text;
}

std::string lastErrorText() { return errorText(lastError()); }

// ---- file status ----------------------------------------------------------------------------

// Follows links: the file a handle opens is the one described. A file no handle can be opened
// on (one the system keeps open, or no right to its attributes) is described by its own entry.
bool status(const std::string& path, Status& out) {
    out = Status{};
    std::wstring wide;
    if (!toWide(path, wide)) return false;
    if (wide.empty()) {
        SetLastError(ERROR_PATH_NOT_FOUND);
        return false;
    }
    const HANDLE handle = CreateFileW(wide.c_str(), FILE_READ_ATTRIBUTES, kShareAll, nullptr, OPEN_EXISTING,
                                      FILE_FLAG_BACKUP_SEMANTICS, nullptr);
    if (handle == INVALID_HANDLE_VALUE) {
        const DWORD error = GetLastError();
        if ((error == ERROR_SHARING_VIOLATION || error == ERROR_ACCESS_DENIED) && linkStatusWide(wide, out) &&
            out.kind != Kind::Symlink)
            return true;
        out = Status{};
        SetLastError(error);
        return false;
    }
    BY_HANDLE_FILE_INFORMATION info{};
    const DWORD type = GetFileType(handle);
    const bool described = GetFileInformationByHandle(handle, &info) != 0;
    closeKeepingError(handle);
    if (!described) {
        if (type == FILE_TYPE_DISK) return false;
        out.kind = Kind::Other;
        return true;
    }
    if (info.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) out.kind = Kind::Directory;
    else out.kind = type == FILE_TYPE_DISK ? Kind::Regular : Kind::Other;
    out.size = out.kind == Kind::Directory ? 0 : sizeOf(info.nFileSizeHigh, info.nFileSizeLow);
    out.mtime = unixSeconds(info.ftLastWriteTime);
    return true;
}

bool linkStatus(const std::string& path, Status& out) {
    std::wstring wide;
    if (!toWide(path, wide)) {
        out = Status{};
        return false;
    }
    return linkStatusWide(wide, out);
}

bool isDirectory(const std::string& path) {
    Status st;
    return status(path, st) && st.kind == Kind::Directory;
}

bool exists(const std::string& path) {
    Status st;
    return status(path, st);
}

// A drive ("C:", "C:\", "C:/.", "C:\tmp\.."), the root of a share ("\\server\share\") or a
// volume mounted on a folder.
bool isFileSystemRoot(const std::string& path) {
    if (path.size() == 2 && hasDrive(path)) return true;
    std::wstring wide;
    if (path.empty() || !toWide(path, wide)) return false;
    std::wstring full(32768, L'\0');
    const DWORD n = GetFullPathNameW(wide.c_str(), static_cast<DWORD>(full.size()), full.data(), nullptr);
    if (n == 0 || n >= full.size()) return false;
    full.resize(n);
    if (!isSeparator(full.back())) full.push_back(L'\\');
    if (full.size() == 3 && full[1] == L':') return true;
    if (full.rfind(L"\\\\", 0) == 0) {
        // \\server\share\ : four separators and nothing after the last
        const auto separators = std::count_if(full.begin(), full.end(), [](wchar_t c) { return isSeparator(c); });
        if (separators == 4) return true;
    }
    std::wstring volume(full.size() + 1, L'\0');
    if (GetVolumePathNameW(full.c_str(), volume.data(), static_cast<DWORD>(volume.size())) != 0) {
        volume.resize(std::wcslen(volume.c_str()));
        if (CompareStringOrdinal(full.c_str(), -1, volume.c_str(), -1, TRUE) == CSTR_EQUAL) return true;
    }
    return false;
}

// ---- changes to the file system -------------------------------------------------------------

bool removeFile(const std::string& path) {
    std::wstring wide;
    return toWide(path, wide) && DeleteFileW(wide.c_str()) != 0;
}

bool removeDirectory(const std::string& path) {
    std::wstring wide;
    return toWide(path, wide) && RemoveDirectoryW(wide.c_str()) != 0;
}

bool makeDirectory(const std::string& path) {
    std::wstring wide;
    return toWide(path, wide) && CreateDirectoryW(wide.c_str(), nullptr) != 0;
}

// MoveFileW's own semantics: files may move to another volume, an existing target is never
// replaced (ERROR_ALREADY_EXISTS).
bool renameNoReplace(const std::string& from, const std::string& to) {
    std::wstring wideFrom, wideTo;
    return toWide(from, wideFrom) && toWide(to, wideTo) &&
           MoveFileExW(wideFrom.c_str(), wideTo.c_str(), MOVEFILE_COPY_ALLOWED) != 0;
}

int missingErrorCode() { return ERROR_FILE_NOT_FOUND; }
int deniedErrorCode() { return ERROR_ACCESS_DENIED; }

// ---- directory listing ----------------------------------------------------------------------

namespace {

struct Search {
    HANDLE handle = INVALID_HANDLE_VALUE;
    WIN32_FIND_DATAW record{};
    bool pending = false;  // the record of FindFirstFileW is not handed out yet
};

}  // namespace

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

// Searches "%s\\*.*". A directory in which the search finds nothing at all (an empty drive
// root has no "." and "..") is open and empty.
bool DirectoryReader::open(const std::string& path) {
    close();
    if (path.empty()) {
        SetLastError(ERROR_PATH_NOT_FOUND);
        return false;
    }
    std::wstring pattern;
    if (!toWide(searchPattern(path), pattern)) return false;
    auto* search = new Search;
    search->handle = FindFirstFileW(pattern.c_str(), &search->record);
    if (search->handle == INVALID_HANDLE_VALUE) {
        const DWORD error = GetLastError();
        if (error != ERROR_FILE_NOT_FOUND || !isDirectory(path)) {
            delete search;
            SetLastError(error);
            return false;
        }
    } else {
        search->pending = true;
    }
    handle_ = search;
    return true;
}

bool DirectoryReader::next(std::string& name) {
    auto* search = static_cast<Search*>(handle_);
    if (!search) {
        SetLastError(ERROR_INVALID_HANDLE);
        return false;
    }
    if (!search->pending) {
        if (search->handle == INVALID_HANDLE_VALUE || !FindNextFileW(search->handle, &search->record)) {
            if (search->handle == INVALID_HANDLE_VALUE || GetLastError() == ERROR_NO_MORE_FILES) SetLastError(0);
            return false;
        }
    }
    search->pending = false;
    name = toUtf8(search->record.cFileName);
    return true;
}

void DirectoryReader::close() {
    auto* search = static_cast<Search*>(handle_);
    if (!search) return;
    KeepError keep;
    if (search->handle != INVALID_HANDLE_VALUE) FindClose(search->handle);
    delete search;
    handle_ = nullptr;
}

// The search itself matches: FindFirstFileW on directory + pattern, so '*' and '?' behave as
// the system's own wildcards (short names included), and the names come in the order the
// search returns them.
std::vector<std::string> matchNames(const std::string& directory, const std::string& pattern) {
    std::vector<std::string> names;
    std::wstring wide;
    if (pattern.empty() || !toWide(joinName(directory, pattern), wide)) return names;
    WIN32_FIND_DATAW record;
    const HANDLE search = FindFirstFileW(wide.c_str(), &record);
    if (search == INVALID_HANDLE_VALUE) return names;
    do {
        std::string name = toUtf8(record.cFileName);
        if (name != "." && name != "..") names.push_back(std::move(name));
    } while (FindNextFileW(search, &record));
    FindClose(search);
    return names;
}

// ---- File -----------------------------------------------------------------------------------

namespace {

std::int64_t readHandle(HANDLE handle, std::span<std::uint8_t> into) {
    const DWORD want = static_cast<DWORD>(std::min<std::size_t>(into.size(), 1u << 30));
    DWORD got = 0;
    if (ReadFile(handle, into.data(), want, &got, nullptr)) return got;
    const DWORD error = GetLastError();
    // The writer of a pipe has gone: that is its end.
    if (error == ERROR_BROKEN_PIPE || error == ERROR_HANDLE_EOF) {
        SetLastError(0);
        return 0;
    }
    return -1;
}

std::int64_t writeHandle(HANDLE handle, std::span<const std::uint8_t> bytes) {
    std::size_t done = 0;
    while (done < bytes.size()) {
        const DWORD want = static_cast<DWORD>(std::min<std::size_t>(bytes.size() - done, 1u << 30));
        DWORD wrote = 0;
        if (!WriteFile(handle, bytes.data() + done, want, &wrote, nullptr)) return -1;
        if (wrote == 0) {
            SetLastError(ERROR_WRITE_FAULT);
            return -1;
        }
        done += wrote;
    }
    return static_cast<std::int64_t>(done);
}

}  // namespace

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
    std::wstring wide;
    if (!toWide(path, wide)) return false;
    DWORD access = GENERIC_READ;
    DWORD disposition = OPEN_EXISTING;
    DWORD share = kShareAll;
    switch (mode) {
        case OpenMode::Read:
        case OpenMode::ReadRegular: break;
        case OpenMode::WriteTruncate:
            access = GENERIC_WRITE;
            disposition = CREATE_ALWAYS;
            share = FILE_SHARE_READ | FILE_SHARE_DELETE;
            break;
        case OpenMode::ReadWrite:
            access = GENERIC_READ | GENERIC_WRITE;
            disposition = OPEN_ALWAYS;
            share = FILE_SHARE_READ | FILE_SHARE_DELETE;
            break;
        case OpenMode::Append:
            // Without FILE_WRITE_DATA every write goes to the end of the file.
            access = FILE_APPEND_DATA | FILE_READ_ATTRIBUTES | SYNCHRONIZE;
            disposition = OPEN_ALWAYS;
            share = FILE_SHARE_READ | FILE_SHARE_DELETE;
            break;
    }
    // A directory does not open without FILE_FLAG_BACKUP_SEMANTICS: it is refused here.
    const HANDLE handle =
        CreateFileW(wide.c_str(), access, share, nullptr, disposition, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (handle == INVALID_HANDLE_VALUE) return false;
    if (mode == OpenMode::ReadRegular && GetFileType(handle) != FILE_TYPE_DISK) {
        CloseHandle(handle);
        SetLastError(ERROR_INVALID_PARAMETER);
        return false;
    }
    return adopt(handle, fd_);
}

std::int64_t File::read(std::span<std::uint8_t> into) {
    if (fd_ < 0) {
        SetLastError(ERROR_INVALID_HANDLE);
        return -1;
    }
    return readHandle(handleOf(fd_), into);
}

std::int64_t File::write(std::span<const std::uint8_t> bytes) {
    if (fd_ < 0) {
        SetLastError(ERROR_INVALID_HANDLE);
        return -1;
    }
    return writeHandle(handleOf(fd_), bytes);
}

std::int64_t File::seek(std::int64_t offset, SeekOrigin origin) {
    if (fd_ < 0) {
        SetLastError(ERROR_INVALID_HANDLE);
        return -1;
    }
    const DWORD method = origin == SeekOrigin::Set       ? FILE_BEGIN
                         : origin == SeekOrigin::Current ? FILE_CURRENT
                                                         : FILE_END;
    LARGE_INTEGER distance{};
    distance.QuadPart = offset;
    LARGE_INTEGER position{};
    if (!SetFilePointerEx(handleOf(fd_), distance, &position, method)) return -1;
    return position.QuadPart;
}

std::int64_t File::tell() { return seek(0, SeekOrigin::Current); }

bool File::close() { return fd_ < 0 || release(fd_); }

// A file's bytes always pass through memory here: there is no pipe that hands them on.
FilePipe::~FilePipe() { close(); }

bool FilePipe::open(std::size_t) {
    SetLastError(ERROR_NOT_SUPPORTED);
    return false;
}

void FilePipe::close() { held_ = 0; }

std::int64_t FilePipe::fill(File&, std::size_t) { return kCannotMove; }

bool FilePipe::fillZeros(std::size_t) {
    SetLastError(ERROR_NOT_SUPPORTED);
    return false;
}

bool FilePipe::drainTo(int) {
    SetLastError(ERROR_NOT_SUPPORTED);
    return held_ == 0;
}

std::int64_t readStandardInput(std::span<std::uint8_t> into) {
    const HANDLE input = GetStdHandle(STD_INPUT_HANDLE);
    if (input == INVALID_HANDLE_VALUE || input == nullptr) {
        SetLastError(ERROR_INVALID_HANDLE);
        return -1;
    }
    return readHandle(input, into);
}

// ---- process and environment ----------------------------------------------------------------

// Read in the wide form and handed on as UTF-8. The text stays valid until the same name is
// looked up again with a changed value.
const char* environment(const char* name) {
    std::wstring wideName;
    if (!name || !toWide(name, wideName) || wideName.empty()) return nullptr;
    const DWORD size = GetEnvironmentVariableW(wideName.c_str(), nullptr, 0);
    if (size == 0) return nullptr;
    std::wstring value(size, L'\0');
    const DWORD length = GetEnvironmentVariableW(wideName.c_str(), value.data(), size);
    if (length >= size) return nullptr;
    value.resize(length);
    static std::map<std::string, std::string> values;
    std::string& kept = values[name];
    std::string text = toUtf8(value.data(), value.size());
    if (kept != text) kept = std::move(text);
    return kept.c_str();
}

bool hostName(std::string& out) {
    static const bool started = [] {
        WSADATA data;
        return WSAStartup(MAKEWORD(2, 2), &data) == 0;
    }();
    char buffer[256] = {};
    if (!started || ::gethostname(buffer, static_cast<int>(sizeof buffer - 1)) != 0) {
        out.clear();
        return false;
    }
    out.assign(buffer);
    return true;
}

std::uint32_t processId() { return static_cast<std::uint32_t>(GetCurrentProcessId()); }

std::int64_t currentTime() {
    FILETIME now;
    GetSystemTimeAsFileTime(&now);
    return unixSeconds(now);
}

bool standardErrorIsTerminal() {
    DWORD mode = 0;
    return GetConsoleMode(GetStdHandle(STD_ERROR_HANDLE), &mode) != 0;
}

unsigned terminalColumns() {
    CONSOLE_SCREEN_BUFFER_INFO info;
    if (!GetConsoleScreenBufferInfo(GetStdHandle(STD_ERROR_HANDLE), &info)) return 80;
    const int columns = info.srWindow.Right - info.srWindow.Left + 1;
    return columns > 0 ? static_cast<unsigned>(columns) : 80;
}

bool terminalTakesEscapes() {
    const HANDLE console = GetStdHandle(STD_ERROR_HANDLE);
    DWORD mode = 0;
    if (!GetConsoleMode(console, &mode)) return false;
    return (mode & ENABLE_VIRTUAL_TERMINAL_PROCESSING) != 0 ||
           SetConsoleMode(console, mode | ENABLE_VIRTUAL_TERMINAL_PROCESSING) != 0;
}

std::uint64_t monotonicMilliseconds() { return GetTickCount64(); }

std::vector<std::string> utf8Arguments(int argc, char** argv) {
    std::vector<std::string> arguments;
    int count = 0;
    wchar_t** wide = CommandLineToArgvW(GetCommandLineW(), &count);
    if (wide) {
        for (int i = 0; i < count; ++i) arguments.push_back(toUtf8(wide[i]));
        LocalFree(wide);
        return arguments;
    }
    for (int i = 0; i < argc && argv && argv[i]; ++i) arguments.emplace_back(argv[i]);
    return arguments;
}

bool hasHiddenAttribute(const std::string& path) {
    std::wstring wide;
    WIN32_FILE_ATTRIBUTE_DATA data{};
    DWORD tag = 0;
    return toWide(path, wide) && attributesOf(wide, data, tag) && (data.dwFileAttributes & FILE_ATTRIBUTE_HIDDEN);
}

void useBinaryStandardStreams() {
    std::fflush(stdout);
    std::fflush(stderr);
    _setmode(_fileno(stdin), _O_BINARY);
    _setmode(_fileno(stdout), _O_BINARY);
    _setmode(_fileno(stderr), _O_BINARY);
}

// ---- drives ---------------------------------------------------------------------------------

bool logicalDriveRoots(std::vector<std::string>& roots) {
    roots.clear();
    char buffer[512] = {};
    const DWORD n = GetLogicalDriveStringsA(511, buffer);
    if (n == 0) return false;
    for (std::size_t at = 0; at < sizeof buffer && buffer[at] != '\0';) {
        const std::size_t length = strnlen(buffer + at, sizeof buffer - at);
        roots.emplace_back(buffer + at, length);
        at += length + 1;
    }
    return true;
}

std::uint32_t hiddenDriveMask() {
    DWORD value = 0;
    DWORD size = sizeof value;
    if (RegGetValueA(HKEY_CURRENT_USER, "Software\\Microsoft\\Windows\\CurrentVersion\\Policies\\Explorer", "NODRIVES",
                     RRF_RT_DWORD | RRF_ZEROONFAILURE, nullptr, &value, &size) != ERROR_SUCCESS)
        value = 0;
    return static_cast<std::uint32_t>(value);
}

bool volumeLabel(const std::string& root, std::string& label) {
    char name[260] = {};
    if (!GetVolumeInformationA(root.c_str(), name, sizeof name, nullptr, nullptr, nullptr, nullptr, 0)) {
        label.clear();
        return false;
    }
    label.assign(name, strnlen(name, sizeof name));
    return true;
}

int deviceNotReadyErrorCode() { return ERROR_NOT_READY; }

std::vector<std::uint8_t> buildDriveList(const std::vector<std::string>& roots, std::uint32_t hiddenMask,
                                         const VolumeLookup& lookup, std::vector<DriveNote>& notes) {
    constexpr std::size_t kListBytes = 4096;
    std::vector<std::uint8_t> list;
    for (const std::string& root : roots) {
        std::string label;
        if (!lookup(root, label)) {
            const int error = lastError();
            const auto outcome =
                error == deviceNotReadyErrorCode() ? DriveNote::Outcome::NotReady : DriveNote::Outcome::Failed;
            notes.push_back({outcome, root, error});
            continue;
        }
        const std::size_t colon = root.find(':');
        const std::string drive = colon == std::string::npos ? root : root.substr(0, colon + 1);
        // Bit i for drive 'A' + i; a root that names no letter is never hidden.
        const int index = root.empty() ? -1 : (root[0] & ~0x20) - 'A';
        const std::uint32_t bit = index >= 0 && index < 32 ? std::uint32_t{1} << index : 0;
        if (bit & hiddenMask) {
            notes.push_back({DriveNote::Outcome::Hidden, drive, 0});
            continue;
        }
        const std::string entry = label + " (" + drive + ")";
        if (list.size() + entry.size() + 1 <= kListBytes) {
            list.insert(list.end(), entry.begin(), entry.end());
            list.push_back(0);
        }
        notes.push_back({DriveNote::Outcome::Listed, entry, 0});
    }
    return list;
}

}  // namespace platform

// ==== Receiving without loss: temporaries, replacement, console events, the log file ==========

namespace platform {

namespace {

// Hidden names unique to the run: the process id and a counter.
std::string nextTemporaryName(const std::string& directory) {
    static unsigned counter = 0;
    char name[64];
    std::snprintf(name, sizeof name, ".varoft-%lu-%u.part", static_cast<unsigned long>(GetCurrentProcessId()),
                  counter++);
    return joinName(directory, name);
}

constexpr int kNameAttempts = 1000;

// ---- the registry of temporaries ------------------------------------------------------------
// Console events (Ctrl-C, Ctrl-Break, closing the window, logoff, shutdown) arrive on a thread
// of their own. The registry and every TerminationBlock share one lock: the event's handler
// takes it, so it waits for a rename in progress, and never gives it back, so the main thread
// starts nothing new before the process ends.

CRITICAL_SECTION& guard() {
    static ProcessLock lock;
    return lock.section;
}

constexpr std::size_t kTemporarySlots = 4;

struct TemporarySlot {
    bool used = false;
    bool directory = false;
    std::string path;
};

TemporarySlot Temporaries[kTemporarySlots];


int removeTreeByPath(const std::string& path);

void removeRegistered() {
    for (TemporarySlot& slot : Temporaries) {
        if (!slot.used) continue;
        if (slot.directory) {
            removeTreeByPath(slot.path);
        } else {
            // Opened with FILE_SHARE_DELETE: a file still open goes when its handle closes.
            std::wstring wide;
            if (toWide(slot.path, wide)) DeleteFileW(wide.c_str());
        }
        slot.used = false;
    }
}

BOOL WINAPI onConsoleEvent(DWORD event) {
    switch (event) {
        case CTRL_C_EVENT:
        case CTRL_BREAK_EVENT:
        case CTRL_CLOSE_EVENT:
        case CTRL_LOGOFF_EVENT:
        case CTRL_SHUTDOWN_EVENT: break;
        default: return FALSE;
    }
    EnterCriticalSection(&guard());
    EnterCriticalSection(&heldLock());
    for (const HANDLE held : heldHandles()) CloseHandle(held);
    heldHandles().clear();
    removeRegistered();
    // Not handled here: the system's default handler ends the process as the event does.
    return FALSE;
}

}  // namespace

TemporaryFile::~TemporaryFile() { close(); }

// CREATE_NEW never opens what exists, and with FILE_FLAG_OPEN_REPARSE_POINT a link planted
// under the name is not followed. The file is hidden until setNewFileMode. Other programs may
// read it, and it may be deleted while open (the console-event handler does).
bool TemporaryFile::create(const std::string& directory) {
    close();
    for (int attempt = 0; attempt < kNameAttempts; ++attempt) {
        std::string path = nextTemporaryName(directory);
        std::wstring wide;
        if (!toWide(path, wide)) return false;
        const HANDLE handle =
            CreateFileW(wide.c_str(), GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_DELETE, nullptr, CREATE_NEW,
                        FILE_ATTRIBUTE_HIDDEN | FILE_FLAG_OPEN_REPARSE_POINT, nullptr);
        if (adopt(handle, fd_)) {
            path_ = std::move(path);
            return true;
        }
        const DWORD error = GetLastError();
        if (error != ERROR_FILE_EXISTS && error != ERROR_ALREADY_EXISTS) return false;
    }
    return false;
}

std::int64_t TemporaryFile::write(std::span<const std::uint8_t> bytes) {
    if (fd_ < 0) {
        SetLastError(ERROR_INVALID_HANDLE);
        return -1;
    }
    return writeHandle(handleOf(fd_), bytes);
}

// A new file's attributes: the hidden attribute goes. Its access rights are those the
// directory passes on, as for any file created there.
bool TemporaryFile::setNewFileMode() {
    if (fd_ < 0) {
        SetLastError(ERROR_INVALID_HANDLE);
        return false;
    }
    FILE_BASIC_INFO info{};
    info.FileAttributes = FILE_ATTRIBUTE_NORMAL;
    return SetFileInformationByHandle(handleOf(fd_), FileBasicInfo, &info, sizeof info) != 0;
}

bool TemporaryFile::close() {
    if (fd_ < 0) return true;
    const bool ok = CloseHandle(handleOf(fd_)) != 0;
    fd_ = -1;
    return ok;
}

bool createTemporaryDirectory(const std::string& directory, std::string& path) {
    for (int attempt = 0; attempt < kNameAttempts; ++attempt) {
        path = nextTemporaryName(directory);
        std::wstring wide;
        if (!toWide(path, wide)) return false;
        if (CreateDirectoryW(wide.c_str(), nullptr)) {
            SetFileAttributesW(wide.c_str(), FILE_ATTRIBUTE_HIDDEN);
            return true;
        }
        if (GetLastError() != ERROR_ALREADY_EXISTS) return false;
    }
    return false;
}

std::string unusedTemporaryName(const std::string& directory) {
    std::string path;
    for (int attempt = 0; attempt < kNameAttempts; ++attempt) {
        path = nextTemporaryName(directory);
        std::wstring wide;
        if (!toWide(path, wide)) break;
        if (GetFileAttributesW(wide.c_str()) == INVALID_FILE_ATTRIBUTES && GetLastError() == ERROR_FILE_NOT_FOUND)
            break;
    }
    return path;
}

bool setNewDirectoryMode(const std::string& path) {
    std::wstring wide;
    if (!toWide(path, wide)) return false;
    const DWORD attributes = GetFileAttributesW(wide.c_str());
    if (attributes == INVALID_FILE_ATTRIBUTES) return false;
    DWORD kept = attributes & ~static_cast<DWORD>(FILE_ATTRIBUTE_HIDDEN | FILE_ATTRIBUTE_DIRECTORY);
    if (kept == 0) kept = FILE_ATTRIBUTE_NORMAL;
    return SetFileAttributesW(wide.c_str(), kept) != 0;
}

// The directory part: "" when there is none, "C:\" or "\" for a name straight under a root,
// "C:" for "C:name".
std::string directoryOf(const std::string& path) {
    const std::size_t start = hasDrive(path) ? 2 : 0;
    const std::size_t cut = path.find_last_of("\\/");
    if (cut == std::string::npos || cut < start) return start == 2 ? path.substr(0, 2) : std::string();
    return cut == start ? path.substr(0, cut + 1) : path.substr(0, cut);
}

// A link (symbolic link or junction) as the final component is resolved to the path of what it
// names, through the system's own resolution of an open handle. A link whose target is missing
// stays as it is: it is the link itself that is replaced then.
bool resolveFinalLinks(const std::string& path, std::string& out) {
    Status st;
    if (!linkStatus(path, st) || st.kind != Kind::Symlink) {
        out = path;
        return true;
    }
    std::wstring wide;
    if (!toWide(path, wide)) return false;
    const HANDLE handle = CreateFileW(wide.c_str(), FILE_READ_ATTRIBUTES, kShareAll, nullptr, OPEN_EXISTING,
                                      FILE_FLAG_BACKUP_SEMANTICS, nullptr);
    if (handle == INVALID_HANDLE_VALUE) {
        out = path;
        return true;
    }
    std::wstring resolved;
    const bool got = finalPath(handle, resolved);
    closeKeepingError(handle);
    if (!got) return false;
    resolved = plainPath(resolved);
    out = toUtf8(resolved.data(), resolved.size());
    return true;
}

// Whether the file opens for writing: its read-only attribute, its access rights and the sharing
// of those that hold it open all count.
bool isWritable(const std::string& path) {
    std::wstring wide;
    if (!toWide(path, wide)) return false;
    const HANDLE handle =
        CreateFileW(wide.c_str(), FILE_WRITE_DATA, kShareAll, nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (handle == INVALID_HANDLE_VALUE) return false;
    CloseHandle(handle);
    return true;
}

// Replaces a file; a directory target is refused by the system (ERROR_ACCESS_DENIED), unlike
// rename(2) with an empty one.
bool replacePath(const std::string& from, const std::string& to) {
    std::wstring wideFrom, wideTo;
    return toWide(from, wideFrom) && toWide(to, wideTo) &&
           MoveFileExW(wideFrom.c_str(), wideTo.c_str(), MOVEFILE_REPLACE_EXISTING) != 0;
}

// The system has no call that swaps two directories in one step.
bool exchangePaths(const std::string&, const std::string&) {
    SetLastError(ERROR_NOT_SUPPORTED);
    return false;
}

int nameTooLongErrorCode() { return ERROR_FILENAME_EXCED_RANGE; }
int existsErrorCode() { return ERROR_ALREADY_EXISTS; }
int isDirectoryErrorCode() { return kDirectoryNotSupported; }
int outOfMemoryErrorCode() { return ERROR_NOT_ENOUGH_MEMORY; }
int damagedDataErrorCode() { return ERROR_INVALID_DATA; }

void installTerminationHandling() {
    guard();
    heldLock();
    SetConsoleCtrlHandler(onConsoleEvent, TRUE);
}

int registerTemporary(const std::string& path, bool directory) {
    TerminationBlock block;
    for (std::size_t i = 0; i < kTemporarySlots; ++i) {
        TemporarySlot& slot = Temporaries[i];
        if (slot.used) continue;
        slot.path = path;
        slot.directory = directory;
        slot.used = true;
        return static_cast<int>(i);
    }
    return -1;
}

void forgetTemporary(int id) {
    TerminationBlock block;
    if (id >= 0 && static_cast<std::size_t>(id) < kTemporarySlots) Temporaries[id].used = false;
}

void removeTemporaries() {
    TerminationBlock block;
    removeRegistered();
}

// Holds the console-event handler back; nested blocks on one thread are fine.
TerminationBlock::TerminationBlock() : saved_{} {
    KeepError keep;
    EnterCriticalSection(&guard());
}

TerminationBlock::~TerminationBlock() {
    KeepError keep;
    LeaveCriticalSection(&guard());
}

namespace {

// Whether the file's owner is this user (or the owner this user's new files get, the
// Administrators group for an elevated administrator).
bool ownedByCurrentUser(HANDLE file) {
    PSID owner = nullptr;
    PSECURITY_DESCRIPTOR descriptor = nullptr;
    if (GetSecurityInfo(file, SE_FILE_OBJECT, OWNER_SECURITY_INFORMATION, &owner, nullptr, nullptr, nullptr,
                        &descriptor) != ERROR_SUCCESS)
        return false;
    bool mine = false;
    HANDLE token = nullptr;
    if (owner && OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY, &token)) {
        for (const TOKEN_INFORMATION_CLASS kind : {TokenUser, TokenOwner}) {
            alignas(8) unsigned char buffer[512];
            DWORD size = 0;
            if (!GetTokenInformation(token, kind, buffer, sizeof buffer, &size)) continue;
            const PSID sid = kind == TokenUser ? reinterpret_cast<TOKEN_USER*>(buffer)->User.Sid
                                               : reinterpret_cast<TOKEN_OWNER*>(buffer)->Owner;
            if (sid && EqualSid(owner, sid)) mine = true;
        }
        CloseHandle(token);
    }
    LocalFree(descriptor);
    return mine;
}

}  // namespace

// The log is a text file: each "\n" is written as "\r\n", as a text-mode stream writes it. It is
// opened without following a link planted under its name, and written only while it is a plain
// file of this user's.
bool appendToLogFile(const std::string& path, std::string_view text) {
    std::wstring wide;
    if (!toWide(path, wide)) return false;
    const DWORD access = FILE_APPEND_DATA | FILE_READ_ATTRIBUTES | READ_CONTROL | SYNCHRONIZE;
    const HANDLE handle = CreateFileW(wide.c_str(), access, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_ALWAYS,
                                      FILE_ATTRIBUTE_NORMAL | FILE_FLAG_OPEN_REPARSE_POINT, nullptr);
    if (handle == INVALID_HANDLE_VALUE) return false;
    BY_HANDLE_FILE_INFORMATION info{};
    bool ok = GetFileType(handle) == FILE_TYPE_DISK && GetFileInformationByHandle(handle, &info) &&
              !(info.dwFileAttributes & (FILE_ATTRIBUTE_DIRECTORY | FILE_ATTRIBUTE_REPARSE_POINT)) &&
              ownedByCurrentUser(handle);
    if (ok) {
        std::string lines;
        lines.reserve(text.size() + text.size() / 16);
        for (const char c : text) {
            if (c == '\n') lines.push_back('\r');
            lines.push_back(c);
        }
        ok = writeHandle(handle, std::span<const std::uint8_t>(reinterpret_cast<const std::uint8_t*>(lines.data()),
                                                               lines.size())) >= 0;
    }
    CloseHandle(handle);
    return ok;
}

void writeStandardError(std::string_view text) {
    const HANDLE error = GetStdHandle(STD_ERROR_HANDLE);
    if (error == INVALID_HANDLE_VALUE || error == nullptr) return;
    std::fflush(stderr);
    writeHandle(error, std::span<const std::uint8_t>(reinterpret_cast<const std::uint8_t*>(text.data()), text.size()));
}

}  // namespace platform

// ---- paths resolved below a directory held open ------------------------------------------------
//
// Windows has no openat(2) in its documented calls. The nearest equivalent used here:
// - a DirectoryHandle is a handle on the directory opened without FILE_SHARE_DELETE, so while
//   it is held neither the directory nor any directory above it can be renamed or removed (the
//   system refuses to rename a directory with an open handle below it);
// - a name below it is the handle's own final path (GetFinalPathNameByHandleW) joined with the
//   name, and each component is opened with FILE_FLAG_OPEN_REPARSE_POINT and accepted only as a
//   plain directory: no symbolic link or junction is ever passed through;
// - removal walks with handles held the same way and removes a link itself (RemoveDirectoryW
//   or DeleteFileW on it), never what it names.
// What is weaker than on Linux: the lookup is by path, not relative to the handle, so it relies
// on the system's refusal to rename held directories (some file systems and remote shares do
// not enforce it); a component's type is judged on the handle opened for it, but the creation
// of a file or directory happens by path after that. Names that Windows cannot hold as
// written ("a:b" would name a stream, trailing dots and blanks are dropped by the system) are
// refused with ERROR_INVALID_NAME.

namespace platform {

namespace {

bool validComponent(const std::string& name) {
    if (name.empty() || name == "." || name == "..") {
        SetLastError(ERROR_INVALID_PARAMETER);
        return false;
    }
    if (name.find_first_of("\\/:") != std::string::npos || name.back() == '.' || name.back() == ' ') {
        SetLastError(ERROR_INVALID_NAME);
        return false;
    }
    return true;
}

HANDLE openDirectoryHandle(const std::wstring& path, bool followLink) {
    return CreateFileW(path.c_str(), FILE_LIST_DIRECTORY | FILE_READ_ATTRIBUTES | SYNCHRONIZE,
                       FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING,
                       FILE_FLAG_BACKUP_SEMANTICS | (followLink ? 0 : FILE_FLAG_OPEN_REPARSE_POINT), nullptr);
}

// A directory that is no reparse point; anything else fails with ERROR_DIRECTORY.
bool isPlainDirectory(HANDLE handle) {
    BY_HANDLE_FILE_INFORMATION info{};
    if (!GetFileInformationByHandle(handle, &info)) return false;
    if ((info.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) && !(info.dwFileAttributes & FILE_ATTRIBUTE_REPARSE_POINT))
        return true;
    SetLastError(ERROR_DIRECTORY);
    return false;
}

// The path of `name` in the directory held by `handle`.
bool pathBelow(HANDLE handle, const std::string& name, std::wstring& out) {
    std::wstring wideName;
    if (!finalPath(handle, out) || !toWide(name, wideName)) return false;
    if (out.empty() || !isSeparator(out.back())) out.push_back(L'\\');
    out += wideName;
    return true;
}

// The plain directory at `path`, never through a link: a handle, or INVALID_HANDLE_VALUE.
HANDLE openPlainDirectory(const std::wstring& path) {
    const HANDLE handle = openDirectoryHandle(path, false);
    if (handle == INVALID_HANDLE_VALUE) return handle;
    if (!isPlainDirectory(handle)) {
        closeKeepingError(handle);
        return INVALID_HANDLE_VALUE;
    }
    return handle;
}

// Removes what holds `path`, a link itself and never what it names; plain directories are left.
bool removeEntry(const std::wstring& path, DWORD attributes) {
    if (attributes & FILE_ATTRIBUTE_REPARSE_POINT)
        return (attributes & FILE_ATTRIBUTE_DIRECTORY) ? RemoveDirectoryW(path.c_str()) != 0
                                                       : DeleteFileW(path.c_str()) != 0;
    if (attributes & FILE_ATTRIBUTE_DIRECTORY) {
        SetLastError(kDirectoryNotSupported);
        return false;
    }
    return DeleteFileW(path.c_str()) != 0;
}

// Removes everything inside the directory held by `directory`: the names are read first
// ("%s\\*.*"), the removals follow. A file that cannot be deleted stays (and its directory with
// it).
void removeContents(HANDLE directory) {
    std::wstring base;
    if (!finalPath(directory, base)) return;
    if (!isSeparator(base.back())) base.push_back(L'\\');
    std::vector<std::pair<std::wstring, DWORD>> entries;
    WIN32_FIND_DATAW record;
    const HANDLE search = FindFirstFileW((base + L"*.*").c_str(), &record);
    if (search == INVALID_HANDLE_VALUE) return;
    do {
        const std::wstring_view name(record.cFileName);
        if (name != L"." && name != L"..") entries.emplace_back(base + record.cFileName, record.dwFileAttributes);
    } while (FindNextFileW(search, &record));
    FindClose(search);
    for (const auto& [path, attributes] : entries) {
        if ((attributes & FILE_ATTRIBUTE_DIRECTORY) && !(attributes & FILE_ATTRIBUTE_REPARSE_POINT)) {
            const HANDLE child = openPlainDirectory(path);
            if (child == INVALID_HANDLE_VALUE) continue;  // swapped for something else meanwhile: not entered
            removeContents(child);
            CloseHandle(child);
            RemoveDirectoryW(path.c_str());
        } else {
            removeEntry(path, attributes);
        }
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
    KeepError keep;
    if (fd_ >= 0) release(fd_);
}

bool DirectoryHandle::open(const std::string& path) {
    close();
    std::wstring wide;
    if (!toWide(path, wide)) return false;
    if (wide.empty()) {
        SetLastError(ERROR_PATH_NOT_FOUND);
        return false;
    }
    const HANDLE handle = openDirectoryHandle(wide, true);
    if (handle == INVALID_HANDLE_VALUE) return false;
    BY_HANDLE_FILE_INFORMATION info{};
    if (!GetFileInformationByHandle(handle, &info) || !(info.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY)) {
        CloseHandle(handle);
        SetLastError(ERROR_DIRECTORY);
        return false;
    }
    return hold(handle, fd_);
}

bool DirectoryHandle::openBeneath(const DirectoryHandle& base, const std::string& relative, bool create) {
    close();
    if (base.fd_ < 0) {
        SetLastError(ERROR_INVALID_HANDLE);
        return false;
    }
    HANDLE at = INVALID_HANDLE_VALUE;
    if (!DuplicateHandle(GetCurrentProcess(), handleOf(base.fd_), GetCurrentProcess(), &at, 0, FALSE,
                         DUPLICATE_SAME_ACCESS))
        return false;
    std::size_t from = 0;
    while (!relative.empty() && from <= relative.size()) {
        std::size_t end = relative.find_first_of("\\/", from);
        if (end == std::string::npos) end = relative.size();
        const std::string part = relative.substr(from, end - from);
        from = end + 1;
        std::wstring path;
        if (!validComponent(part) || !pathBelow(at, part, path)) {
            closeKeepingError(at);
            return false;
        }
        HANDLE next = openPlainDirectory(path);
        if (next == INVALID_HANDLE_VALUE && create &&
            (GetLastError() == ERROR_FILE_NOT_FOUND || GetLastError() == ERROR_PATH_NOT_FOUND)) {
            // Made here, or by someone else meanwhile: either way it is looked at again.
            if (CreateDirectoryW(path.c_str(), nullptr) || GetLastError() == ERROR_ALREADY_EXISTS)
                next = openPlainDirectory(path);
        }
        closeKeepingError(at);
        if (next == INVALID_HANDLE_VALUE) return false;
        at = next;
    }
    return hold(at, fd_);
}

bool DirectoryHandle::linkStatusAt(const std::string& name, Status& out) const {
    std::wstring path;
    if (fd_ < 0 || !validComponent(name) || !pathBelow(handleOf(fd_), name, path)) {
        if (fd_ < 0) SetLastError(ERROR_INVALID_HANDLE);
        out = Status{};
        return false;
    }
    return linkStatusWide(path, out);
}

bool DirectoryHandle::unlinkAt(const std::string& name) const {
    std::wstring path;
    if (fd_ < 0) {
        SetLastError(ERROR_INVALID_HANDLE);
        return false;
    }
    if (!validComponent(name) || !pathBelow(handleOf(fd_), name, path)) return false;
    const DWORD attributes = GetFileAttributesW(path.c_str());
    if (attributes == INVALID_FILE_ATTRIBUTES) return false;
    return removeEntry(path, attributes);
}

int DirectoryHandle::removeTreeAt(const std::string& name) const {
    if (fd_ < 0) {
        SetLastError(ERROR_INVALID_HANDLE);
        return 0;
    }
    std::wstring path;
    if (!validComponent(name) || !pathBelow(handleOf(fd_), name, path)) return 0;
    const HANDLE top = openPlainDirectory(path);
    if (top == INVALID_HANDLE_VALUE) return 0;
    removeContents(top);
    CloseHandle(top);
    return RemoveDirectoryW(path.c_str()) ? 1 : 0;
}

// CREATE_NEW with FILE_FLAG_OPEN_REPARSE_POINT never opens what exists; what holds the name
// goes first (a link itself, a read-only file too), a plain directory stays.
bool File::createNewAt(const DirectoryHandle& directory, const std::string& name) {
    close();
    if (directory.fd_ < 0) {
        SetLastError(ERROR_INVALID_HANDLE);
        return false;
    }
    std::wstring path;
    if (!validComponent(name) || !pathBelow(handleOf(directory.fd_), name, path)) return false;
    for (int round = 0; round < 4; ++round) {
        const HANDLE handle = CreateFileW(path.c_str(), GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_DELETE, nullptr,
                                          CREATE_NEW, FILE_ATTRIBUTE_NORMAL | FILE_FLAG_OPEN_REPARSE_POINT, nullptr);
        if (hold(handle, fd_)) return true;
        const DWORD error = GetLastError();
        const DWORD attributes = GetFileAttributesW(path.c_str());
        if (attributes == INVALID_FILE_ATTRIBUTES) {
            SetLastError(error);
            if (error == ERROR_FILE_EXISTS || error == ERROR_ALREADY_EXISTS) continue;  // gone meanwhile
            return false;
        }
        if ((attributes & FILE_ATTRIBUTE_DIRECTORY) && !(attributes & FILE_ATTRIBUTE_REPARSE_POINT)) {
            SetLastError(kDirectoryNotSupported);
            return false;
        }
        if (error != ERROR_FILE_EXISTS && error != ERROR_ALREADY_EXISTS) {
            SetLastError(error);
            return false;
        }
        if (!removeEntry(path, attributes)) {
            if (GetLastError() != ERROR_ACCESS_DENIED || !(attributes & FILE_ATTRIBUTE_READONLY) ||
                (attributes & FILE_ATTRIBUTE_REPARSE_POINT))
                return false;
            if (!SetFileAttributesW(path.c_str(), attributes & ~static_cast<DWORD>(FILE_ATTRIBUTE_READONLY)) ||
                !DeleteFileW(path.c_str()))
                return false;
        }
    }
    SetLastError(ERROR_FILE_EXISTS);
    return false;
}

int failureCode(Failure failure) {
    switch (failure) {
        case Failure::DamagedData: return ERROR_INVALID_DATA;
        case Failure::Unsupported: return ERROR_NOT_SUPPORTED;
        case Failure::NotPermitted: return ERROR_ACCESS_DENIED;
        case Failure::OutOfMemory: return ERROR_NOT_ENOUGH_MEMORY;
        case Failure::NotADirectory: return ERROR_DIRECTORY;
        case Failure::InvalidArgument: break;
    }
    return ERROR_INVALID_PARAMETER;
}

// Both '\\' and '/' separate; a drive prefix stays with the parent: "C:\x" -> "C:\", "x";
// "C:x" -> "C:", "x"; "\x" -> "\", "x"; "a\b\" -> "a", "b"; "x" -> ".", "x".
void splitLastComponent(const std::string& path, std::string& parent, std::string& last) {
    const std::size_t start = hasDrive(path) ? 2 : 0;
    const std::size_t keep = path.find_last_not_of("\\/");
    if (keep == std::string::npos || keep < start) {
        // Only a root: "\", "C:", "C:\".
        if (path.empty()) parent = ".";
        else if (start == 2) parent = path.size() > 2 ? path.substr(0, 2) + "\\" : path.substr(0, 2);
        else parent = "\\";
        last.clear();
        return;
    }
    const std::string trimmed = path.substr(0, keep + 1);
    const std::size_t cut = trimmed.find_last_of("\\/");
    if (cut == std::string::npos || cut < start) {
        parent = start == 2 ? trimmed.substr(0, 2) : std::string(".");
        last = trimmed.substr(start);
    } else {
        parent = cut == start ? trimmed.substr(0, cut + 1) : trimmed.substr(0, cut);
        last = trimmed.substr(cut + 1);
    }
}

// Removes a directory with everything in it, from its parent held open. Refuses "" and every
// root ("C:", "C:\", "\\server\share", a mounted volume's folder) with ERROR_ACCESS_DENIED,
// "." and ".." with ERROR_INVALID_PARAMETER, and anything that is not a plain directory (a
// junction or a directory link included) with ERROR_DIRECTORY.
int removeDirectoryTree(const std::string& path) {
    if (path.find_first_not_of("\\/") == std::string::npos || isFileSystemRoot(path)) {
        SetLastError(ERROR_ACCESS_DENIED);
        return 0;
    }
    std::string parentPath, name;
    splitLastComponent(path, parentPath, name);
    DirectoryHandle parent;
    if (!parent.open(parentPath)) return 0;
    return parent.removeTreeAt(name);
}

namespace {

int removeTreeByPath(const std::string& path) { return removeDirectoryTree(path); }

}  // namespace

}  // namespace platform
