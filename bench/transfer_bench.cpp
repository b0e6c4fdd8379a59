// Throughput of -put and -get through the loopback desktop on a Unix socket, beside the limit
// of the same lockstep exchange between two minimal processes that touch no disk.
//
//   transfer_bench [--size MiB] [--dir DIR] [--runs N] [--tree DIR]
//
// With --tree, -putd and -getd of that directory are measured beside the pack and unpack streams
// alone, the far side dropping (or supplying from memory) the archive bytes.
//
// Prints one table row per case: MB/s, the ratio to the limit, and for varoft its CPU time
// (user + system) and peak resident set size. Rows for reading and writing the file alone show
// what the local file system itself allows.
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <fcntl.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "archive/dir_pack_stream.h"
#include "archive/dir_unpack_stream.h"
#include "archive/stream.h"
#include "common/bytes.h"
#include "bench_support.h"
#include "x_server.h"

namespace {

using bench::spawn;

using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

constexpr std::size_t kChunk = 131072;

struct Outcome {
    bool ok = false;
    double seconds = 0;
    double cpuSeconds = 0;  // varoft's user + system time
    double peakMiB = 0;     // varoft's peak resident set
};

// ---- the far side's messages -------------------------------------------------------------------

std::vector<std::uint8_t> transferEvent(std::uint8_t direction, std::uint8_t kind, const std::string& a,
                                        const std::string& b, const std::uint8_t* data, std::size_t length,
                                        std::uint8_t objectType = 1) {
    std::vector<std::uint8_t> p;
    bytes::Writer w(p);
    w.u8(direction).u8(objectType).u8(0).u8(kind).u64(0);
    w.u16(static_cast<std::uint16_t>(a.size())).u16(static_cast<std::uint16_t>(b.size()));
    w.u32(static_cast<std::uint32_t>(length)).raw(a).raw(b);
    if (length) w.raw(std::span<const std::uint8_t>(data, length));
    return p;
}

// Kind byte and data length of a FileTransferReply request.
bool replyKind(const loopback::Request& r, std::uint8_t& kind, std::uint32_t& dataLength) {
    if (r.minor != 115 || r.bytes.size() < 24) return false;
    kind = r.bytes[7];
    dataLength = bytes::get32(r.bytes, 20);
    return true;
}

// ---- varoft as a child ---------------------------------------------------------------------------

bool reap(pid_t pid, Outcome& out) {
    rusage usage{};
    const bool ok = bench::reap(pid, &usage);
    out.cpuSeconds = static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
                     static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
    out.peakMiB = static_cast<double>(usage.ru_maxrss) / 1024.0;
    return ok;
}

// A loopback X server on a free display; null (and a line on stderr) when none can be started.
std::unique_ptr<loopback::XServer> startServer() {
    std::string error;
    auto server = loopback::XServer::start({}, &error);
    if (!server) std::fprintf(stderr, "bench: %s\n", error.c_str());
    return server;
}

// Waits for the far side, answering on the server thread, to say the exchange is over.
class Finish {
public:
    void set(bool ok) {
        std::lock_guard lock(mutex_);
        if (done_) return;
        done_ = true;
        ok_ = ok;
        at_ = Clock::now();
        cv_.notify_all();
    }
    bool wait(std::chrono::seconds timeout) {
        std::unique_lock lock(mutex_);
        return cv_.wait_for(lock, timeout, [&] { return done_; }) && ok_;
    }
    Clock::time_point at() const { return at_; }

private:
    std::mutex mutex_;
    std::condition_variable cv_;
    bool done_ = false, ok_ = false;
    Clock::time_point at_{};
};

// -put: the far side answers each chunk with the next request for one, on the server thread.
Outcome runPut(const std::string& file, std::uint64_t size) {
    Outcome out;
    auto server = startServer();
    if (!server) return out;
    loopback::XServer* far = server.get();
    const auto ask = transferEvent(1, 5, "?", file, nullptr, 0);
    std::uint64_t received = 0;
    Clock::time_point start{};
    Finish finish;
    far->setRequestHandler([&](const loopback::Request& r) {
        std::uint8_t kind = 0;
        std::uint32_t length = 0;
        if (!replyKind(r, kind, length)) return finish.set(false);
        if (kind == 10) start = Clock::now();
        else if (kind == 4) received += length;
        else return finish.set(kind == 8);
        if (!far->sendGenericEvent(90, ask)) finish.set(false);
    });
    const pid_t pid = spawn({VAROFT_BINARY, "-display", server->displayName(), "-put", file});
    const bool ok = finish.wait(120s);
    out.seconds = std::chrono::duration<double>(finish.at() - start).count();
    out.ok = reap(pid, out) && ok && received == size;
    return out;
}

// -get: the far side answers each acknowledgement with the next chunk, on the server thread.
Outcome runGet(const std::string& target, std::uint64_t size) {
    Outcome out;
    auto server = startServer();
    if (!server) return out;
    ::unlink(target.c_str());
    loopback::XServer* far = server.get();
    std::vector<std::uint8_t> chunk(kChunk);
    for (std::size_t i = 0; i < chunk.size(); ++i) chunk[i] = static_cast<std::uint8_t>(i * 131 + 7);
    // Every full chunk carries the same event; a far side reads its file into one buffer too.
    const auto fullChunk = transferEvent(2, 4, "remote.bin", target, chunk.data(), kChunk);
    std::uint64_t sent = 0;
    Clock::time_point start{};
    Finish finish;
    auto sendNext = [&] {
        if (sent == size) {
            finish.set(far->sendGenericEvent(90, transferEvent(2, 8, "remote.bin", target, nullptr, 0)));
            return;
        }
        const std::size_t n = static_cast<std::size_t>(std::min<std::uint64_t>(kChunk, size - sent));
        sent += n;
        const bool ok = n == kChunk ? far->sendGenericEvent(90, fullChunk)
                                    : far->sendGenericEvent(90, transferEvent(2, 4, "remote.bin", target, chunk.data(), n));
        if (!ok) finish.set(false);
    };
    far->setRequestHandler([&](const loopback::Request& r) {
        std::uint8_t kind = 0;
        std::uint32_t length = 0;
        if (!replyKind(r, kind, length)) return finish.set(false);
        if (kind == 10) start = Clock::now();
        else if (kind != 5) return finish.set(false);
        sendNext();
    });
    const pid_t pid = spawn({VAROFT_BINARY, "-display", server->displayName(), "-get", "remote.bin", target});
    const bool ok = finish.wait(120s);
    out.ok = reap(pid, out) && ok;  // varoft has closed the file when it ends
    out.seconds = std::chrono::duration<double>(Clock::now() - start).count();
    struct stat st {};
    out.ok = out.ok && ::stat(target.c_str(), &st) == 0 && static_cast<std::uint64_t>(st.st_size) == size;
    ::unlink(target.c_str());
    return out;
}

// ---- the limit: the same lockstep exchange between two minimal processes -----------------------

// One side asks with `askSize` bytes, the other answers with `answerSize`, `rounds` times.
Outcome runLimit(std::size_t askSize, std::size_t answerSize, std::uint64_t rounds) {
    Outcome out;
    int fds[2];
    if (::socketpair(AF_UNIX, SOCK_STREAM, 0, fds) != 0) return out;
    const pid_t pid = ::fork();
    if (pid == 0) {
        ::close(fds[0]);
        std::vector<std::uint8_t> ask(askSize), answer(answerSize, 0x5a);
        for (std::uint64_t i = 0; i < rounds; ++i)
            if (!bench::readAll(fds[1], ask.data(), ask.size()) || !bench::writeAll(fds[1], answer.data(), answer.size())) ::_exit(1);
        ::_exit(0);
    }
    ::close(fds[1]);
    std::vector<std::uint8_t> ask(askSize, 0xa5), answer(answerSize);
    const auto start = Clock::now();
    bool ok = true;
    for (std::uint64_t i = 0; ok && i < rounds; ++i)
        ok = bench::writeAll(fds[0], ask.data(), ask.size()) && bench::readAll(fds[0], answer.data(), answer.size());
    out.seconds = std::chrono::duration<double>(Clock::now() - start).count();
    ::close(fds[0]);
    Outcome child;
    out.ok = reap(pid, child) && ok;
    return out;
}

// The local file system alone: the same file read, or written, in chunk-sized blocks.
Outcome runDisk(const std::string& path, std::uint64_t size, bool write) {
    Outcome out;
    std::vector<std::uint8_t> block(kChunk, 0x33);
    const int fd = write ? ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644) : ::open(path.c_str(), O_RDONLY);
    if (fd < 0) return out;
    const auto start = Clock::now();
    bool ok = true;
    for (std::uint64_t done = 0; ok && done < size;) {
        const std::size_t n = static_cast<std::size_t>(std::min<std::uint64_t>(kChunk, size - done));
        ok = write ? bench::writeAll(fd, block.data(), n) : bench::readAll(fd, block.data(), n);
        done += n;
    }
    ok = ::close(fd) == 0 && ok;
    out.seconds = std::chrono::duration<double>(Clock::now() - start).count();
    out.ok = ok;
    if (write) ::unlink(path.c_str());
    return out;
}

bool makeSource(const std::string& path, std::uint64_t size) {
    struct stat st {};
    if (::stat(path.c_str(), &st) == 0 && static_cast<std::uint64_t>(st.st_size) == size) return true;
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (fd < 0) return false;
    std::vector<std::uint8_t> block(1 << 20);
    std::uint32_t x = 12345;
    bool ok = true;
    for (std::uint64_t done = 0; ok && done < size;) {
        for (auto& b : block) {
            x = x * 1103515245u + 12345u;
            b = static_cast<std::uint8_t>(x >> 16);
        }
        const std::size_t n = static_cast<std::size_t>(std::min<std::uint64_t>(block.size(), size - done));
        ok = bench::writeAll(fd, block.data(), n);
        done += n;
    }
    return ::close(fd) == 0 && ok;
}

void row(const char* name, const Outcome& o, std::uint64_t size, double limitSeconds, bool isVaroft) {
    const double mb = static_cast<double>(size) / 1e6;
    if (!o.ok) {
        std::printf("%-22s %10s\n", name, "FAILED");
        return;
    }
    std::printf("%-22s %10.1f %8.2f", name, mb / o.seconds, limitSeconds / o.seconds);
    if (isVaroft) std::printf(" %10.2f %10.1f", o.cpuSeconds, o.peakMiB);
    std::printf("\n");
}

// The best (fastest) of several runs.
template <typename F>
Outcome best(int runs, F f) {
    Outcome top;
    for (int i = 0; i < runs; ++i) {
        const Outcome o = f();
        if (!o.ok) return o;
        if (!top.ok || o.seconds < top.seconds) top = o;
    }
    return top;
}

// ---- directories: varoft -putd / -getd beside the pack and unpack streams alone ------------------

constexpr std::uint8_t kDirectory = 6;

// The archive is kept in a file, not in memory: a big resident buffer in this process would be
// counted in the peak RSS of every varoft forked from it.
struct ArchiveFile {
    std::string path;
    std::uint64_t size = 0;
};

// The pack stream read to its end in chunk-sized reads, writing the archive out when asked.
Outcome runPackAlone(const std::string& tree, const std::string* keepPath, std::uint64_t* produced = nullptr) {
    Outcome out;
    MzStreamPtr stream(createDirPackStream());
    const int keep = keepPath ? ::open(keepPath->c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644) : -1;
    std::vector<std::uint8_t> chunk(kChunk);
    std::uint64_t total = 0;
    bool ok = mz_stream_open(stream.get(), tree.c_str(), MZ_OPEN_MODE_READ) == MZ_OK;
    const auto start = Clock::now();
    while (ok) {
        const std::int32_t n = mz_stream_read(stream.get(), chunk.data(), static_cast<std::int32_t>(kChunk));
        if (n == MZ_END_OF_STREAM) break;
        ok = n >= 0 && (keep < 0 || bench::writeAll(keep, chunk.data(), static_cast<std::size_t>(n)));
        total += static_cast<std::uint64_t>(std::max(n, 0));
    }
    out.ok = mz_stream_close(stream.get()) == MZ_OK && ok;
    out.seconds = std::chrono::duration<double>(Clock::now() - start).count();
    if (keep >= 0) out.ok = ::close(keep) == 0 && out.ok;
    if (produced) *produced = total;
    return out;
}

// Calls `take` with each chunk of the archive file in turn; false when reading or `take` fails.
template <typename F>
bool forEachChunk(const ArchiveFile& zip, F take) {
    const int fd = ::open(zip.path.c_str(), O_RDONLY);
    if (fd < 0) return false;
    std::vector<std::uint8_t> chunk(kChunk);
    bool ok = true;
    for (std::uint64_t done = 0; ok && done < zip.size;) {
        const std::size_t n = static_cast<std::size_t>(std::min<std::uint64_t>(kChunk, zip.size - done));
        ok = bench::readAll(fd, chunk.data(), n) && take(chunk.data(), n);
        done += n;
    }
    ::close(fd);
    return ok;
}

// The unpack stream fed the archive in chunk-sized writes.
Outcome runUnpackAlone(const ArchiveFile& zip, const std::string& target) {
    Outcome out;
    std::error_code ec;
    std::filesystem::remove_all(target, ec);
    std::filesystem::create_directories(target, ec);
    MzStreamPtr stream(createDirUnpackStream());
    const auto start = Clock::now();
    if (mz_stream_open(stream.get(), target.c_str(), MZ_OPEN_MODE_WRITE | MZ_OPEN_MODE_CREATE) != MZ_OK) return out;
    const bool ok = forEachChunk(zip, [&](const std::uint8_t* data, std::size_t n) {
        const std::int32_t r = mz_stream_write(stream.get(), data, static_cast<std::int32_t>(n));
        // Bytes after the start of the central directory are taken as the end of the archive.
        return r == static_cast<std::int32_t>(n) || r == MZ_END_OF_STREAM;
    });
    out.ok = mz_stream_close(stream.get()) == MZ_OK && ok;
    out.seconds = std::chrono::duration<double>(Clock::now() - start).count();
    std::filesystem::remove_all(target, ec);
    return out;
}

// varoft -putd: the far side asks for chunks and drops them, as fast as they come.
Outcome runPutDir(const std::string& tree, std::uint64_t archiveSize) {
    Outcome out;
    auto server = startServer();
    if (!server) return out;
    const pid_t pid = spawn({VAROFT_BINARY, "-display", server->displayName(), "-putd", tree, "tree"});
    bool ok = server->waitForClient(10s);
    auto announce = ok ? server->nextRequest(10s) : std::nullopt;
    std::uint8_t kind = 0;
    std::uint32_t length = 0;
    ok = announce && replyKind(*announce, kind, length) && kind == 10;
    const auto ask = transferEvent(1, 5, "tree", tree, nullptr, 0, kDirectory);
    std::uint64_t received = 0;
    const auto start = Clock::now();
    while (ok) {
        if (!server->sendGenericEvent(90, ask)) break;
        auto reply = server->nextRequest(60s);
        if (!reply || !replyKind(*reply, kind, length) || kind == 8) break;
        received += length;
    }
    out.seconds = std::chrono::duration<double>(Clock::now() - start).count();
    out.ok = reap(pid, out) && ok && received == archiveSize;
    return out;
}

// varoft -getd: the far side sends the archive as fast as varoft takes it.
Outcome runGetDir(const ArchiveFile& zip, const std::string& target) {
    Outcome out;
    std::error_code ec;
    std::filesystem::remove_all(target, ec);
    auto server = startServer();
    if (!server) return out;
    const pid_t pid = spawn({VAROFT_BINARY, "-display", server->displayName(), "-getd", "tree", target});
    bool ok = server->waitForClient(10s);
    auto announce = ok ? server->nextRequest(10s) : std::nullopt;
    std::uint8_t kind = 0;
    std::uint32_t length = 0;
    ok = announce && replyKind(*announce, kind, length) && kind == 10;
    const auto start = Clock::now();
    ok = ok && forEachChunk(zip, [&](const std::uint8_t* data, std::size_t n) {
        if (!server->sendGenericEvent(90, transferEvent(2, 4, "tree", target, data, n, kDirectory))) return false;
        auto reply = server->nextRequest(60s);
        return reply && replyKind(*reply, kind, length) && kind == 5;
    });
    if (ok) ok = server->sendGenericEvent(90, transferEvent(2, 8, "tree", target, nullptr, 0, kDirectory));
    out.ok = reap(pid, out) && ok;  // varoft ends once it has unpacked the last chunk and said so
    out.seconds = std::chrono::duration<double>(Clock::now() - start).count();
    std::filesystem::remove_all(target, ec);
    return out;
}

// Rows for the directory cases: the stream alone is the reference (ratio = its time / ours).
void directoryRows(const std::string& tree, const std::string& dir, int runs) {
    ArchiveFile zip{dir + "/varoft-bench-tree.zip", 0};
    if (!runPackAlone(tree, &zip.path, &zip.size).ok) {
        std::printf("directory cases: cannot pack %s\n", tree.c_str());
        return;
    }
    const std::string target = dir + "/varoft-bench-tree-out";
    // The cases take turns, each after a sync: a run that writes the tree leaves hundreds of MB
    // of dirty pages whose write-back would otherwise land on whichever case comes next.
    auto synced = [](auto run) {
        return [run] {
            ::sync();
            return run();
        };
    };
    Outcome pack, putd, unpack, getd;
    auto keepBest = [](Outcome& top, const Outcome& o) {
        if (!o.ok || (top.ok && top.seconds <= o.seconds)) return;
        top = o;
    };
    for (int i = 0; i < runs; ++i) {
        keepBest(pack, synced([&] { return runPackAlone(tree, nullptr); })());
        keepBest(putd, synced([&] { return runPutDir(tree, zip.size); })());
        keepBest(unpack, synced([&] { return runUnpackAlone(zip, target); })());
        keepBest(getd, synced([&] { return runGetDir(zip, target); })());
    }
    ::unlink(zip.path.c_str());
    std::printf("\ndirectory %s as a %.1f MB archive, best of %d (ratio: the stream alone = 1.00)\n",
                tree.c_str(), static_cast<double>(zip.size) / 1e6, runs);
    std::printf("%-22s %10s %8s %10s %10s\n", "case", "MB/s", "ratio", "cpu s", "peak MiB");
    row("pack stream alone", pack, zip.size, pack.seconds, false);
    row("varoft -putd", putd, zip.size, pack.seconds, true);
    row("unpack stream alone", unpack, zip.size, unpack.seconds, false);
    row("varoft -getd", getd, zip.size, unpack.seconds, true);
}

}  // namespace

int main(int argc, char** argv) {
    std::uint64_t mib = 1024;
    std::string dir = "/tmp";
    int runs = 1;
    std::string tree;  // a directory for the -putd / -getd cases (none: they are left out)
    for (int i = 1; i + 1 < argc; i += 2) {
        if (!std::strcmp(argv[i], "--size")) mib = std::strtoull(argv[i + 1], nullptr, 10);
        else if (!std::strcmp(argv[i], "--dir")) dir = argv[i + 1];
        else if (!std::strcmp(argv[i], "--runs")) runs = std::atoi(argv[i + 1]);
        else if (!std::strcmp(argv[i], "--tree")) tree = argv[i + 1];
    }
    const std::uint64_t size = mib << 20;
    const std::uint64_t rounds = (size + kChunk - 1) / kChunk;
    const std::string source = dir + "/varoft-bench-source.bin";
    const std::string target = dir + "/varoft-bench-target.bin";
    if (!makeSource(source, size)) {
        std::fprintf(stderr, "bench: cannot write %s\n", source.c_str());
        return 1;
    }

    // -put: a small event asks, a chunk comes back. -get: a chunk goes out, a small reply comes back.
    const Outcome putLimit = best(runs, [&] { return runLimit(32 + 24 + 64, 24 + kChunk, rounds); });
    const Outcome getLimit = best(runs, [&] { return runLimit(32 + 24 + 64 + kChunk, 24 + 64, rounds); });
    const Outcome readDisk = best(runs, [&] { return runDisk(source, size, false); });
    const Outcome writeDisk = best(runs, [&] { return runDisk(target, size, true); });
    const Outcome put = best(runs, [&] { return runPut(source, size); });
    const Outcome get = best(runs, [&] { return runGet(target, size); });

    std::printf("transfer of %llu MiB in %llu chunks of %zu bytes, best of %d\n",
                static_cast<unsigned long long>(mib), static_cast<unsigned long long>(rounds), kChunk, runs);
    std::printf("%-22s %10s %8s %10s %10s\n", "case", "MB/s", "ratio", "cpu s", "peak MiB");
    row("limit (put exchange)", putLimit, size, putLimit.seconds, false);
    row("local read alone", readDisk, size, putLimit.seconds, false);
    row("varoft -put", put, size, putLimit.seconds, true);
    row("limit (get exchange)", getLimit, size, getLimit.seconds, false);
    row("local write alone", writeDisk, size, getLimit.seconds, false);
    row("varoft -get", get, size, getLimit.seconds, true);
    ::unlink(source.c_str());
    if (!tree.empty()) directoryRows(tree, dir, runs);
    return put.ok && get.ok && putLimit.ok && getLimit.ok ? 0 : 1;
}
