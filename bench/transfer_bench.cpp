// Throughput of varoft -put and -get against a minimal X server that only answers (so the figure
// is varoft's own) and through the loopback-desktop program, beside the limit of the same
// lockstep exchange between two minimal processes that touch no disk, and beside the local file
// system alone: for -put the source read from the page cache, for -get the write speed.
//
//   transfer_bench [--size MiB] [--dir DIR] [--runs N] [--tree DIR]
//
// With --tree, -putd and -getd of that directory are measured beside the pack and unpack streams
// alone, the far side dropping (or supplying from memory) the archive bytes.
//
// Every case runs once per run, in an order reversed every other run, each after a sync; the
// output is rows for bench/table.py (see bench_support.h): the medians and ranges of the runs,
// and each ratio taken within a run.
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <fcntl.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <algorithm>
#include <string>
#include <vector>

#include "archive/dir_pack_stream.h"
#include "archive/dir_unpack_stream.h"
#include "archive/stream.h"
#include "common/bytes.h"
#include "bench_support.h"
#include "x_server.h"
#include "transfer_answer.h"

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
bool replyKind(const loopback::RequestView& r, std::uint8_t& kind, std::uint32_t& dataLength) {
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

// varoft against the minimal X server, which times the transfer itself.
Outcome runMinimal(bool get, const std::string& file, std::uint64_t size) {
    Outcome out;
    if (get) ::unlink(file.c_str());
    const bench::TransferAnswerer answerer = bench::startTransferAnswerer(get, size);
    if (answerer.pid <= 0) return out;
    const std::string display = ":" + std::to_string(answerer.display);
    const pid_t pid = get ? spawn({VAROFT_BINARY, "-display", display, "-get", "remote.bin", file})
                          : spawn({VAROFT_BINARY, "-display", display, "-put", file});
    const bool ok = reap(pid, out);
    out.seconds = bench::finishTransferAnswerer(answerer, size);
    out.ok = ok && out.seconds > 0;
    if (get) {
        struct stat st {};
        out.ok = out.ok && ::stat(file.c_str(), &st) == 0 && static_cast<std::uint64_t>(st.st_size) == size;
        ::unlink(file.c_str());
    }
    return out;
}

// varoft through the loopback-desktop program, from varoft's start to its end: -put stores the
// file in the desktop's folder as put.bin, -get takes remote.bin from it.
Outcome runDesktop(bool get, const std::string& file, const std::string& folder, std::uint64_t size) {
    Outcome out;
    if (get) ::unlink(file.c_str());
    bench::Desktop desktop = bench::startDesktop({LOOPBACK_DESKTOP_BINARY, "--folder", folder, "--once"});
    if (desktop.display.empty()) {
        bench::finishDesktop(desktop, true);
        return out;
    }
    const auto start = Clock::now();
    const pid_t pid = get ? spawn({VAROFT_BINARY, "-display", desktop.display, "-get", "remote.bin", file})
                          : spawn({VAROFT_BINARY, "-display", desktop.display, "-put", file, "put.bin"});
    const bool ok = reap(pid, out);
    out.seconds = std::chrono::duration<double>(Clock::now() - start).count();
    out.ok = bench::finishDesktop(desktop, !ok) && ok;
    const std::string written = get ? file : folder + "/put.bin";
    struct stat st {};
    out.ok = out.ok && ::stat(written.c_str(), &st) == 0 && static_cast<std::uint64_t>(st.st_size) == size;
    ::unlink(written.c_str());
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

// Medians and ranges of several runs of each case, and ratios taken within each run.
struct Series {
    std::vector<double> seconds, cpu, peak;
    bool failed = false;
    void add(const Outcome& o) {
        if (!o.ok) failed = true;
        seconds.push_back(o.ok ? o.seconds : 0);
        cpu.push_back(o.cpuSeconds);
        peak.push_back(o.peakMiB);
    }
    std::vector<double> rates(std::uint64_t bytes) const {
        std::vector<double> out;
        for (const double s : seconds) out.push_back(s > 0 ? static_cast<double>(bytes) / 1e6 / s : 0);
        return out;
    }
    // Per run: the reference's seconds (the slower of the given references) over ours.
    std::vector<double> ratios(std::initializer_list<const Series*> references) const {
        std::vector<double> out;
        for (std::size_t i = 0; i < seconds.size(); ++i) {
            double reference = 0;
            for (const Series* r : references) reference = std::max(reference, r->seconds[i]);
            out.push_back(seconds[i] > 0 ? reference / seconds[i] : 0);
        }
        return out;
    }
};

// Runs each case once per run, after a sync (a case that writes leaves dirty pages whose
// write-back would otherwise land on the next), in an order reversed every other run.
void runInTurns(int runs, std::vector<std::function<void()>> cases) {
    for (int run = 0; run < runs; ++run) {
        std::fprintf(stderr, "run %d of %d ...\n", run + 1, runs);
        for (std::size_t i = 0; i < cases.size(); ++i) {
            ::sync();
            cases[run % 2 ? cases.size() - 1 - i : i]();
        }
    }
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
        bench::printNote("directory cases: cannot pack " + tree);
        return;
    }
    const std::string target = dir + "/varoft-bench-tree-out";
    Series pack, putd, unpack, getd;
    runInTurns(runs, {[&] { pack.add(runPackAlone(tree, nullptr)); }, [&] { putd.add(runPutDir(tree, zip.size)); },
                      [&] { unpack.add(runUnpackAlone(zip, target)); }, [&] { getd.add(runGetDir(zip, target)); }});
    ::unlink(zip.path.c_str());
    bench::printRow("pack stream alone (" + std::to_string(zip.size / 1000000) + " MB zip)", "MB/s", pack.rates(zip.size));
    bench::printRow("-putd vs the pack stream alone", "MB/s", putd.rates(zip.size), putd.ratios({&pack}));
    bench::printRow("unpack stream alone", "MB/s", unpack.rates(zip.size));
    bench::printRow("-getd vs the unpack stream alone", "MB/s", getd.rates(zip.size), getd.ratios({&unpack}));
}

}  // namespace

int main(int argc, char** argv) {
    std::uint64_t mib = 1024;
    const char* tmp = std::getenv("TMPDIR");
    std::string dir = tmp && *tmp ? tmp : "/var/tmp";
    int runs = 5;
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
    const std::string folder = dir + "/varoft-bench-desktop";
    std::error_code ec;
    std::filesystem::create_directories(folder, ec);
    ::unlink((folder + "/remote.bin").c_str());
    if (!makeSource(source, size) || ::link(source.c_str(), (folder + "/remote.bin").c_str()) != 0) {
        std::fprintf(stderr, "bench: cannot write %s\n", source.c_str());
        return 1;
    }

    // -put: a small event asks, a chunk comes back. -get: a chunk goes out, a small reply comes back.
    Series putLimit, fileRead, put, putDesktop, getLimit, disk, get, getDesktop;
    runInTurns(runs, {
        [&] { putLimit.add(runLimit(32 + 24 + 64, 24 + kChunk, rounds)); },
        [&] { fileRead.add(runDisk(source, size, false)); },
        [&] { put.add(runMinimal(false, source, size)); },
        [&] { putDesktop.add(runDesktop(false, source, folder, size)); },
        [&] { getLimit.add(runLimit(32 + 24 + 64 + kChunk, 24 + 64, rounds)); },
        [&] { disk.add(runDisk(target, size, true)); },
        [&] { get.add(runMinimal(true, target, size)); },
        [&] { getDesktop.add(runDesktop(true, target, folder, size)); },
    });
    ::unlink(source.c_str());
    std::filesystem::remove_all(folder, ec);

    const std::string mb = " (" + std::to_string(mib) + " MiB)";
    bench::printRow("lockstep limit, put exchange" + mb, "MB/s", putLimit.rates(size));
    bench::printRow("-put vs limit, minimal X server", "MB/s", put.rates(size), put.ratios({&putLimit}), 0.85);
    // The limit's chunks come from memory; a real send takes every byte from the file once (the
    // far side copies them out of the page cache), which alone can be slower than the limit.
    bench::printRow("file read alone (" + dir + ", cached)", "MB/s", fileRead.rates(size));
    bench::printRow("-put vs min(limit, file read), minimal X", "MB/s", put.rates(size), put.ratios({&putLimit, &fileRead}));
    bench::printRow("-put vs limit, loopback desktop", "MB/s", putDesktop.rates(size), putDesktop.ratios({&putLimit}), 0.80);
    bench::printRow("lockstep limit, get exchange", "MB/s", getLimit.rates(size));
    bench::printRow("disk write alone (" + dir + ")", "MB/s", disk.rates(size));
    bench::printRow("-get vs min(limit, disk), minimal X", "MB/s", get.rates(size), get.ratios({&getLimit, &disk}), 0.85);
    bench::printRow("-get vs min(limit, disk), desktop", "MB/s", getDesktop.rates(size), getDesktop.ratios({&getLimit, &disk}));
    char note[200];
    std::snprintf(note, sizeof note, "varoft CPU s (median), minimal X server: -put %.2f, -get %.2f; peak RSS %.1f / %.1f MiB",
                  bench::median(put.cpu), bench::median(get.cpu), *std::max_element(put.peak.begin(), put.peak.end()),
                  *std::max_element(get.peak.begin(), get.peak.end()));
    bench::printNote(note);
    if (!tree.empty()) directoryRows(tree, dir, runs);
    const bool failed = putLimit.failed || fileRead.failed || put.failed || putDesktop.failed || getLimit.failed || disk.failed ||
                        get.failed || getDesktop.failed;
    if (failed) std::fprintf(stderr, "bench: a transfer case failed\n");
    return failed ? 1 : 0;
}
