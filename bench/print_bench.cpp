// Printing a large PDF with varoft against a minimal X server that only answers (so the figure is
// varoft's own) and through the loopback-desktop program, beside the lockstep limit of the same
// exchange between two minimal processes (see print_lockstep.cpp).
// Usage: print_bench [MiB] [runs]      (default: 1024 MiB, 5 runs)
// Every case runs once per run, in an order reversed every other run; the output is rows for
// bench/table.py (see bench_support.h), each ratio taken within a run. The file is written under
// $TMPDIR (/var/tmp when unset).
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <vector>

#include "bench_support.h"
#include "print_answer.h"
#include "print_lockstep.h"
#include "print/print_loop.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr const char* kVaroft = VAROFT_BINARY;
constexpr const char* kLoopbackDesktop = LOOPBACK_DESKTOP_BINARY;

// A PDF-looking file of `size` bytes: the signature, then bytes no text test accepts.
bool writePdf(const std::string& path, std::uint64_t size) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    const std::string head = "%PDF-1.7\n%\xE2\xE3\xCF\xD3\n";
    out.write(head.data(), static_cast<std::streamsize>(head.size()));
    std::vector<char> block(1 << 20);
    std::uint32_t x = 2463534242u;
    for (char& c : block) {
        x ^= x << 13, x ^= x >> 17, x ^= x << 5;
        c = static_cast<char>(x);
    }
    std::uint64_t left = size - head.size();
    while (left > 0) {
        const std::size_t n = left < block.size() ? static_cast<std::size_t>(left) : block.size();
        out.write(block.data(), static_cast<std::streamsize>(n));
        left -= n;
    }
    return static_cast<bool>(out.flush());
}

struct Run {
    double seconds = -1;     // from start to exit
    double cpuSeconds = 0;   // varoft's own user + system time
};

double toSeconds(const timeval& t) { return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_usec) / 1e6; }

// Runs varoft on the file with the display given; `answer` tells whether the far side saw the
// job complete.
Run timeVaroft(const std::string& display, const std::string& file, const std::function<bool()>& answer) {
    const auto start = Clock::now();
    const pid_t pid = bench::spawn({kVaroft, "-print", "-q", "-display", display, file});
    const bool complete = answer();
    rusage usage{};
    const bool ok = bench::reap(pid, &usage);
    const auto end = Clock::now();
    if (!complete || !ok) {
        std::fprintf(stderr, "print_bench: the print run on %s failed\n", display.c_str());
        return {};
    }
    return {std::chrono::duration<double>(end - start).count(), toSeconds(usage.ru_utime) + toSeconds(usage.ru_stime)};
}

// The loopback-desktop program as a separate process, keeping the job in its print folder.
Run throughLoopbackDesktop(const std::string& dir, const std::string& file, std::uint64_t size) {
    const std::string printFolder = dir + "/printed";
    bench::Desktop desktop = bench::startDesktop(
        {kLoopbackDesktop, "--folder", dir + "/desktop", "--print-folder", printFolder, "--once"});
    Run run;
    if (!desktop.display.empty()) run = timeVaroft(desktop.display, file, [] { return true; });
    // It ends by itself after its one client; without one it would wait for ever.
    bench::finishDesktop(desktop, run.seconds <= 0);
    std::error_code ec;
    const auto kept = std::filesystem::file_size(printFolder + "/bench.pdf", ec);
    std::filesystem::remove(printFolder + "/bench.pdf", ec);
    if (run.seconds > 0 && kept != size) {
        std::fprintf(stderr, "print_bench: the loopback desktop did not keep the whole file\n");
        return {};
    }
    return run;
}

// Timed by the answerer, from the first print request to the answer to the last chunk.
Run throughMinimalAnswerer(const std::string& file) {
    const MinimalAnswerer answerer = startMinimalAnswerer();
    if (answerer.pid <= 0) return {};
    double seconds = -1;
    Run run = timeVaroft(":" + std::to_string(answerer.display), file, [&] {
        seconds = finishMinimalAnswerer(answerer);
        return seconds > 0;
    });
    if (run.seconds > 0) run.seconds = seconds;
    return run;
}

// The file alone: read from the page cache in chunk-sized reads, as the print job takes it.
double readSeconds(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::vector<char> chunk(kPrintChunkSize);
    const auto start = Clock::now();
    while (in.read(chunk.data(), static_cast<std::streamsize>(chunk.size())) || in.gcount() > 0) {
    }
    return in.eof() ? std::chrono::duration<double>(Clock::now() - start).count() : -1;
}

struct Series {
    std::vector<double> seconds, cpu;
    bool failed = false;
    void add(double wall, double cpuSeconds = 0) {
        if (wall <= 0) failed = true;
        seconds.push_back(wall > 0 ? wall : 0);
        cpu.push_back(cpuSeconds);
    }
    void add(const Run& r) { add(r.seconds, r.cpuSeconds); }
    std::vector<double> rates(std::uint64_t bytes) const {
        std::vector<double> out;
        for (const double s : seconds) out.push_back(s > 0 ? static_cast<double>(bytes) / 1e6 / s : 0);
        return out;
    }
    // Per run: the slower reference's seconds over ours.
    std::vector<double> ratios(const Series& reference, const Series* other = nullptr) const {
        std::vector<double> out;
        for (std::size_t i = 0; i < seconds.size(); ++i) {
            const double slower = std::max(reference.seconds[i], other ? other->seconds[i] : 0.0);
            out.push_back(seconds[i] > 0 ? slower / seconds[i] : 0);
        }
        return out;
    }
};

}  // namespace

int main(int argc, char** argv) {
    const std::uint64_t size = (argc > 1 ? std::strtoull(argv[1], nullptr, 10) : 1024) * 1024 * 1024;
    const int runs = argc > 2 ? std::atoi(argv[2]) : 5;
    if (size == 0 || runs < 1) {
        std::fprintf(stderr, "usage: print_bench [MiB] [runs]\n");
        return 2;
    }
    const char* tmp = std::getenv("TMPDIR");
    std::string dirTemplate = std::string(tmp && *tmp ? tmp : "/var/tmp") + "/varoft-print-bench-XXXXXX";
    if (!::mkdtemp(dirTemplate.data())) return 1;
    const std::string dir = dirTemplate;
    const std::string file = dir + "/bench.pdf";
    if (!writePdf(file, size)) return 1;

    Series limit, fileRead, minimal, desktop;
    const std::vector<std::function<void()>> cases = {
        [&] { limit.add(lockstepSeconds(size)); },
        [&] { fileRead.add(readSeconds(file)); },
        [&] { minimal.add(throughMinimalAnswerer(file)); },
        [&] { desktop.add(throughLoopbackDesktop(dir, file, size)); },
    };
    for (int run = 0; run < runs; ++run) {
        std::fprintf(stderr, "run %d of %d ...\n", run + 1, runs);
        for (std::size_t i = 0; i < cases.size(); ++i) cases[run % 2 ? cases.size() - 1 - i : i]();
    }
    std::error_code ec;
    std::filesystem::remove_all(dir, ec);

    const std::string mib = " (" + std::to_string(size >> 20) + " MiB)";
    bench::printRow("lockstep limit, print exchange" + mib, "MB/s", limit.rates(size));
    bench::printRow("print vs limit, minimal X server", "MB/s", minimal.rates(size), minimal.ratios(limit), 0.85);
    // The limit's chunks come from memory; a real job takes every byte from the file once.
    bench::printRow("file read alone (cached)", "MB/s", fileRead.rates(size));
    bench::printRow("print vs min(limit, file read), minimal X", "MB/s", minimal.rates(size),
                    minimal.ratios(limit, &fileRead));
    bench::printRow("print vs limit, loopback desktop", "MB/s", desktop.rates(size), desktop.ratios(limit));
    char note[160];
    std::snprintf(note, sizeof note, "varoft CPU s (median) printing: %.3f (minimal X server), %.3f (loopback desktop)",
                  bench::median(minimal.cpu), bench::median(desktop.cpu));
    bench::printNote(note);
    return limit.failed || fileRead.failed || minimal.failed || desktop.failed ? 1 : 0;
}
