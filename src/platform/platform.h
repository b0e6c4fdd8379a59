// Everything varoft asks of the operating system. One implementation per platform lives
// beside this header (posix.cpp here); nothing outside src/platform includes a system header
// that exists on one platform only.
//
// Paths are UTF-8 byte strings. Calls that fail leave their error code readable through
// lastError() until the next platform call, as errno / GetLastError do.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace platform {

// The separator this platform joins paths with.
#ifdef _WIN32
inline constexpr char kSeparator = '\\';
#else
inline constexpr char kSeparator = '/';
#endif

// ---- errors ---------------------------------------------------------------------------------

// The error code of the most recent failing platform call (errno on POSIX).
int lastError();
void setLastError(int code);
// The system's text for an error code ("No such file or directory").
std::string errorText(int code);
// Shorthand for errorText(lastError()); call it right after the failing call.
std::string lastErrorText();

// ---- file status ----------------------------------------------------------------------------

enum class Kind : std::uint8_t { Missing, Regular, Directory, Symlink, Other };

struct Status {
    Kind kind = Kind::Missing;
    std::uint64_t size = 0;
    std::int64_t mtime = 0;  // last write, whole seconds since 1970-01-01
};

// Follows symbolic links. False (kind Missing) when the path cannot be examined.
bool status(const std::string& path, Status& out);
// Does not follow a final symbolic link (it is reported as Kind::Symlink).
bool linkStatus(const std::string& path, Status& out);
bool isDirectory(const std::string& path);
bool exists(const std::string& path);
// Whether the path names the root directory of the file system, however it is spelt ("/",
// "/.", "/tmp/..").
bool isFileSystemRoot(const std::string& path);

// ---- changes to the file system -------------------------------------------------------------

bool removeFile(const std::string& path);       // fails on a directory
bool removeDirectory(const std::string& path);  // empty directories only
bool makeDirectory(const std::string& path);    // one level; fails when it exists
// Moves from -> to; never replaces an existing target (fails with the "exists" error).
bool renameNoReplace(const std::string& from, const std::string& to);
// The error codes for a path that does not exist and for an operation that is not allowed;
// callers that refuse a request themselves set one of them before reporting the failure.
int missingErrorCode();
int deniedErrorCode();

// ---- directory listing ----------------------------------------------------------------------

// Lists the names of one directory in the order the system returns them, "." and ".."
// included when the system reports them.
class DirectoryReader {
public:
    DirectoryReader() = default;
    ~DirectoryReader();
    DirectoryReader(const DirectoryReader&) = delete;
    DirectoryReader& operator=(const DirectoryReader&) = delete;
    DirectoryReader(DirectoryReader&& other) noexcept;
    DirectoryReader& operator=(DirectoryReader&& other) noexcept;

    bool open(const std::string& path);
    bool isOpen() const { return handle_ != nullptr; }
    // Next name, or false at the end (lastError() is 0 then) or on failure.
    bool next(std::string& name);
    void close();

private:
    void* handle_ = nullptr;
};

// Names in `directory` (the current directory when empty) other than "." and ".." that match
// the shell pattern, in byte order.
std::vector<std::string> matchNames(const std::string& directory, const std::string& pattern);

// ---- raw files ------------------------------------------------------------------------------

enum class OpenMode : std::uint8_t {
    Read,           // existing file, read only (opening never waits on a FIFO)
    ReadRegular,    // as Read, but anything other than a regular file is refused at open
    WriteTruncate,  // create or truncate, write only
    ReadWrite,      // create if missing, keep contents
    Append,         // create if missing, writes go to the end
};
enum class SeekOrigin : std::uint8_t { Set, Current, End };

class DirectoryHandle;  // see "paths resolved below a directory held open"

class File {
public:
    File() = default;
    ~File();
    File(const File&) = delete;
    File& operator=(const File&) = delete;
    File(File&& other) noexcept;
    File& operator=(File&& other) noexcept;

    bool open(const std::string& path, OpenMode mode);
    // Creates `name` in the directory as a new file, write only (0666 less the umask), never
    // writing through anything: a non-directory that holds the name (a file, a hard link, a
    // FIFO, a device, a symbolic link) is unlinked first. A directory there fails (EISDIR).
    bool createNewAt(const DirectoryHandle& directory, const std::string& name);
    bool isOpen() const { return fd_ >= 0; }
    // Byte count (0 at the end of the file) or -1 on failure.
    std::int64_t read(std::span<std::uint8_t> into);
    // Bytes written (all of them unless it failed) or -1 on failure.
    std::int64_t write(std::span<const std::uint8_t> bytes);
    // New position or -1.
    std::int64_t seek(std::int64_t offset, SeekOrigin origin);
    std::int64_t tell();
    // False when closing reported an error (a delayed write failure, say).
    bool close();

private:
    friend class FilePipe;
    int fd_ = -1;
};

// A kernel pipe that takes a file's bytes without copying them into this process and hands them
// on to a socket (splice on Linux): a large send then costs no copy here. Where the system has no
// such path, open() fails and the caller reads into memory as before.
class FilePipe {
public:
    FilePipe() = default;
    ~FilePipe();
    FilePipe(const FilePipe&) = delete;
    FilePipe& operator=(const FilePipe&) = delete;

    // A pipe that holds at least `capacity` bytes; false where there is none.
    bool open(std::size_t capacity);
    bool isOpen() const { return read_ >= 0; }
    void close();
    // Moves the file's next bytes (at most `limit`, from its position) behind what the pipe
    // holds, as File::read reads them: the count, 0 at the end of the file, -1 on failure; or
    // kCannotMove when this file's bytes do not travel this way, with nothing taken.
    static constexpr std::int64_t kCannotMove = -2;
    std::int64_t fill(File& file, std::size_t limit);
    // `count` zero bytes behind what the pipe holds.
    bool fillZeros(std::size_t count);
    std::size_t held() const { return held_; }
    // Writes everything the pipe holds to the socket, waiting while a non-blocking one is full.
    // A failure may have sent part of it, and the bytes that follow could no longer be told
    // apart: the socket is then shut down both ways and the pipe closed.
    bool drainTo(int socket);

private:
    int read_ = -1;
    int write_ = -1;
    std::size_t held_ = 0;
};

// Reads from the process's standard input, which stays open for the whole run: byte count,
// 0 at its end, -1 on failure.
std::int64_t readStandardInput(std::span<std::uint8_t> into);

// ---- process and environment ----------------------------------------------------------------

// The value of an environment variable, or nullptr when it is not set.
const char* environment(const char* name);
// The machine's host name; false when the system would not tell.
bool hostName(std::string& out);
std::uint32_t processId();
std::int64_t currentTime();  // seconds since 1970-01-01
bool standardErrorIsTerminal();

// ---- paths resolved below a directory held open (extraction, delete, rename) -----------------
//
// A directory is held by a descriptor, and names are looked up in it one component at a time
// without following symbolic links, so the kernel keeps every lookup below it whatever is
// renamed or replaced meanwhile. Where the kernel resolves a whole relative path under those
// rules in one call, it is used.

class DirectoryHandle {
public:
    DirectoryHandle() = default;
    ~DirectoryHandle();
    DirectoryHandle(const DirectoryHandle&) = delete;
    DirectoryHandle& operator=(const DirectoryHandle&) = delete;
    DirectoryHandle(DirectoryHandle&& other) noexcept;
    DirectoryHandle& operator=(DirectoryHandle&& other) noexcept;

    // Opens a directory by its path as the user named it (links on the way are followed).
    bool open(const std::string& path);
    // Opens `relative` below `base`: '/'-separated components, none of them empty, "." or "..".
    // No symbolic link is followed; a component that is anything but a directory fails with
    // ENOTDIR. With `create`, missing directories are made (0777 less the umask). An empty
    // `relative` opens `base` itself.
    bool openBeneath(const DirectoryHandle& base, const std::string& relative, bool create);
    bool isOpen() const { return fd_ >= 0; }
    void close();

    // What `name` in this directory is, without following a symbolic link.
    bool linkStatusAt(const std::string& name, Status& out) const;
    // Removes the non-directory `name` (a link itself, never what it points to).
    bool unlinkAt(const std::string& name) const;
    // Removes the directory `name` with everything in it. Each directory of the tree is opened
    // from its parent's descriptor without following links, so one swapped for a link while
    // it is walked is never entered; links inside are removed, never followed. Refuses "",
    // "." and ".." (EINVAL). Non-zero when `name` itself was removed; the error code is then
    // that of the last failing call.
    int removeTreeAt(const std::string& name) const;

private:
    friend class File;
    int fd_ = -1;
};

// The error codes for failures that no system call reports, so that their text describes them.
enum class Failure : std::uint8_t {
    DamagedData,      // a check sum or the layout of received data is wrong ("Bad message")
    Unsupported,      // a method or feature this program does not have
    NotPermitted,     // a name that would reach outside the place it must stay in
    OutOfMemory,      // more memory than allowed or available
    InvalidArgument,  // a request that makes no sense
    NotADirectory,    // also what openBeneath reports for a name held by a non-directory
};
int failureCode(Failure failure);

// Splits `path` at its last separator, dropping trailing separators first: "a/b/" -> "a", "b";
// "name" -> ".", "name"; "/name" -> "/", "name". The last part is empty for the root.
void splitLastComponent(const std::string& path, std::string& parent, std::string& last);

// Removes a directory with everything in it, as removeTreeAt from its parent's descriptor.
// Refuses "" and the root under any spelling (EACCES), a last component "." or ".." (EINVAL),
// and anything that is not a directory itself, a link to one included (ENOTDIR). Non-zero
// when the directory itself was removed.
int removeDirectoryTree(const std::string& path);

}  // namespace platform

// ==== Receiving without loss: temporaries, replacement, signals, the log file ================
// A received file or directory is written under a temporary name beside its target and moved
// into place only once it arrived whole. The temporaries are registered here so that SIGINT,
// SIGTERM and SIGHUP remove them before the process ends as the signal would.

namespace platform {

// A file created new for writing, never through a link.
class TemporaryFile {
public:
    TemporaryFile() = default;
    ~TemporaryFile();
    TemporaryFile(const TemporaryFile&) = delete;
    TemporaryFile& operator=(const TemporaryFile&) = delete;

    // Creates a file with a hidden name unique to this run in `directory` (the current
    // directory when empty): mode 0600, O_EXCL, O_NOFOLLOW. Its path is path() afterwards.
    bool create(const std::string& directory);
    bool isOpen() const { return fd_ >= 0; }
    const std::string& path() const { return path_; }
    // Bytes written (all of them) or -1 on failure.
    std::int64_t write(std::span<const std::uint8_t> bytes);
    // Gives the file the permission bits a newly created file gets (0666 less the umask).
    bool setNewFileMode();
    // False when closing reported an error (a delayed write failure).
    bool close();

private:
    int fd_ = -1;
    std::string path_;
};

// Creates a directory with a hidden name unique to this run in `directory`, mode 0700.
bool createTemporaryDirectory(const std::string& directory, std::string& path);
// A hidden name unique to this run in `directory` that does not exist yet.
std::string unusedTemporaryName(const std::string& directory);
// Gives a directory the permission bits a newly created one gets (0777 less the umask).
bool setNewDirectoryMode(const std::string& path);
// The directory part of a path ("" when it has none, "/" for a name straight under the root).
std::string directoryOf(const std::string& path);
// Follows the path's final component while it is a symbolic link (relative link texts are
// taken from the link's own directory); the path itself when it is not a link.
bool resolveFinalLinks(const std::string& path, std::string& out);
// Whether the calling user may write to the existing file.
bool isWritable(const std::string& path);
// rename(2): replaces `to` (a file, or an empty directory).
bool replacePath(const std::string& from, const std::string& to);
// Swaps two existing paths in one step; false (with the error) where the system cannot.
bool exchangePaths(const std::string& a, const std::string& b);
int nameTooLongErrorCode();
int existsErrorCode();
int isDirectoryErrorCode();
int outOfMemoryErrorCode();
int damagedDataErrorCode();  // "Bad message"

// The signals that end a run (SIGINT, SIGTERM, SIGHUP) remove every registered temporary and
// then end the process with the default action, so its status names the signal. SIGPIPE is
// ignored: a far side that goes away shows up as a failed write, not a killed process.
void installTerminationHandling();
// Registers a temporary; the number identifies it, -1 when the path is too long to register.
int registerTemporary(const std::string& path, bool directory);
void forgetTemporary(int id);
// Removes every registered temporary (files unlinked, directories with everything in them).
void removeTemporaries();

// Holds the ending signals back for its lifetime (around renames that must not be cut in two).
class TerminationBlock {
public:
    TerminationBlock();
    ~TerminationBlock();
    TerminationBlock(const TerminationBlock&) = delete;
    TerminationBlock& operator=(const TerminationBlock&) = delete;

private:
    alignas(16) unsigned char saved_[256];  // the previous signal mask
};

// Appends to the log file: opened without following a link (created 0600), written only when
// it is a regular file owned by this user. False when nothing was written.
bool appendToLogFile(const std::string& path, std::string_view text);
// Writes straight to standard error (not through the log).
void writeStandardError(std::string_view text);

}  // namespace platform

// ==== The terminal and the clock (the progress display) ======================================

namespace platform {

// Columns of the terminal standard error is written to (TIOCGWINSZ); 80 when it is not a
// terminal or does not say. Asked afresh on every call, so a resized terminal is followed.
unsigned terminalColumns();
// Whether the terminal on standard error acts on escape sequences (erase to the end of the line).
// A Windows console is switched to do so where it can be.
bool terminalTakesEscapes();
// Milliseconds from a clock that never goes back (not the time of day).
std::uint64_t monotonicMilliseconds();

}  // namespace platform
