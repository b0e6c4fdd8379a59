// Listing a directory of many mixed files through varoft and the loopback desktop (every file
// opened and its first 512 bytes classified, one FileListItem per entry), beside `file -b` over
// the same files and `ls -l` of the directory.
//
//   listing_bench [--files N] [--runs N] [--dir DIR]
//
// Prints one table row per case with the best wall time of the runs and its ratio to the
// varoft listing. "varoft listing" is from the request to the last item; "varoft whole run"
// also counts starting the process, the session start and its end.
#include <sys/stat.h>
#include <sys/wait.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "common/bytes.h"
#include "far_protocol.h"
#include "bench_support.h"
#include "x_server.h"

extern char** environ;

namespace {

using bench::reap;
using bench::spawn;

using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

double since(Clock::time_point start) { return std::chrono::duration<double>(Clock::now() - start).count(); }

// ---- the directory -----------------------------------------------------------------------------

bool writeWhole(const std::string& path, const std::string& content) {
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (fd < 0) return false;
    const bool ok = ::write(fd, content.data(), content.size()) == static_cast<ssize_t>(content.size());
    return ::close(fd) == 0 && ok;
}

std::string randomBytes(std::size_t n, std::uint32_t seed) {
    std::string out(n, '\0');
    std::uint32_t x = seed * 2654435761u + 1;
    for (auto& c : out) {
        x ^= x << 13;
        x ^= x >> 17;
        x ^= x << 5;
        c = static_cast<char>(x);
    }
    return out;
}

// Plain text, UTF-8 text, PostScript, EPS, PDF, GIF and other binary files in turn, from a few
// hundred bytes to a few KiB.
constexpr const char* kKinds[] = {"notes", "r\xC3\xA9sum\xC3\xA9", "page", "figure", "paper", "image", "data"};
constexpr int kKindCount = sizeof kKinds / sizeof kKinds[0];

std::string fileName(const std::string& dir, int i) {
    return dir + "/" + kKinds[i % kKindCount] + "-" + std::to_string(i) + ".f";
}

std::string fileContent(int i) {
    const std::string line = "The quick brown fox jumps over the lazy dog, again and again.\n";
    const auto seed = static_cast<std::uint32_t>(i);
    std::string text;
    for (int k = 0; k < 8 + i % 40; ++k) text += line;
    switch (i % kKindCount) {
    case 0: return text;
    case 1: return "caf\xC3\xA9 cr\xC3\xA8me\n" + text;
    case 2: return "%!PS-Adobe-3.0\n%%Pages: 1\n" + text + "showpage\n";
    case 3: return "%!PS-Adobe-3.0 EPSF-3.0\n" + text;
    case 4: return "%PDF-1.7\n%\xE2\xE3\xCF\xD3\n" + randomBytes(2048 + static_cast<std::size_t>(i % 4096), seed);
    case 5: return "GIF89a" + randomBytes(1024 + static_cast<std::size_t>(i % 2048), seed);
    default: return randomBytes(512 + static_cast<std::size_t>(i % 8192), seed);
    }
}

bool makeFiles(const std::string& dir, int count) {
    for (int i = 0; i < count; ++i)
        if (!writeWhole(fileName(dir, i), fileContent(i))) return false;
    return true;
}

void removeFiles(const std::string& dir, int count) {
    for (int i = 0; i < count; ++i) ::unlink(fileName(dir, i).c_str());
    ::rmdir(dir.c_str());
}

// ---- child processes ---------------------------------------------------------------------------

// ---- the cases ---------------------------------------------------------------------------------

struct Outcome {
    bool ok = false;
    double seconds = 0;   // the listing itself (or the whole command for the peers)
    double whole = 0;     // varoft: from starting the process to its end
    std::size_t items = 0;
};

Outcome listThroughVaroft(const std::string& dir, const std::string& home) {
    Outcome out;
    std::string error;
    auto server = loopback::XServer::start({}, &error);
    if (!server) {
        std::fprintf(stderr, "listing_bench: %s\n", error.c_str());
        return out;
    }
    const auto begin = Clock::now();
    const pid_t pid = spawn({VAROFT_BINARY, "-display", server->displayName()}, {"HOME=" + home});
    bool ok = server->waitForClient(10s);
    const auto start = ok ? server->nextRequest(10s) : std::nullopt;
    ok = start && start->minor == loopback::kFileTransferReply;
    const auto listed = Clock::now();
    ok = ok && server->sendGenericEvent(loopback::kListDirectoryRequest, loopback::encodeListDirectory(dir));
    bool ended = false;
    while (ok && !ended) {
        const auto request = server->nextRequest(30s);
        if (!request || request->minor != loopback::kFileListItem) break;
        const auto item = loopback::decodeListItem(request->bytes);
        if (!item) break;
        ended = item->type == 0;
        if (item->type != 0 && item->type != 2) ++out.items;
    }
    out.seconds = since(listed);
    server->closeClient();
    out.ok = reap(pid) && ended;
    out.whole = since(begin);
    return out;
}

Outcome runCommand(const std::vector<std::string>& args) {
    Outcome out;
    const auto start = Clock::now();
    out.ok = reap(spawn(args));
    out.seconds = since(start);
    return out;
}

std::string findProgram(const char* name) {
    for (const char* dir : {"/usr/bin/", "/bin/", "/usr/local/bin/"}) {
        const std::string path = std::string(dir) + name;
        if (::access(path.c_str(), X_OK) == 0) return path;
    }
    return {};
}

}  // namespace

int main(int argc, char** argv) {
    int files = 10000;
    int runs = 3;
    std::string base = "/tmp";
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        const char* value = i + 1 < argc ? argv[i + 1] : nullptr;
        if (arg == "--files" && value) files = std::atoi(argv[++i]);
        else if (arg == "--runs" && value) runs = std::atoi(argv[++i]);
        else if (arg == "--dir" && value) base = argv[++i];
        else {
            std::fprintf(stderr, "usage: listing_bench [--files N] [--runs N] [--dir DIR]\n");
            return 2;
        }
    }
    if (files < 1 || runs < 1) return 2;
    const std::string fileTool = findProgram("file");
    const std::string lsTool = findProgram("ls");
    if (fileTool.empty() || lsTool.empty()) {
        std::fprintf(stderr, "listing_bench: needs file(1) and ls(1)\n");
        return 1;
    }

    std::string home = base + "/listing-bench-XXXXXX";
    if (!::mkdtemp(home.data())) {
        std::perror("listing_bench: mkdtemp");
        return 1;
    }
    const std::string dir = home + "/Documents";
    if (::mkdir(dir.c_str(), 0755) != 0 || !makeFiles(dir, files)) {
        std::fprintf(stderr, "listing_bench: cannot fill %s\n", dir.c_str());
        removeFiles(dir, files);
        ::rmdir(home.c_str());
        return 1;
    }
    std::vector<std::string> fileArgs = {fileTool, "-b"};
    for (int i = 0; i < files; ++i) fileArgs.push_back(fileName(dir, i));

    // One untimed round warms the page cache for all three.
    Outcome varoft = listThroughVaroft(dir, home);
    runCommand(fileArgs);
    runCommand({lsTool, "-l", dir});
    Outcome fileBest, lsBest;
    bool ok = varoft.ok;
    varoft = {};
    for (int r = 0; r < runs; ++r) {
        const Outcome v = listThroughVaroft(dir, home);
        const Outcome f = runCommand(fileArgs);
        const Outcome l = runCommand({lsTool, "-l", dir});
        ok = ok && v.ok && f.ok && l.ok && v.items == static_cast<std::size_t>(files) + 1;  // and ".."
        if (r == 0 || v.seconds < varoft.seconds) varoft = v;
        if (r == 0 || f.seconds < fileBest.seconds) fileBest = f;
        if (r == 0 || l.seconds < lsBest.seconds) lsBest = l;
    }
    removeFiles(dir, files);
    ::rmdir(home.c_str());
    if (!ok) {
        std::fprintf(stderr, "listing_bench: a run failed (items listed: %zu)\n", varoft.items);
        return 1;
    }

    std::printf("Listing %d mixed files (best of %d runs)\n\n", files, runs);
    std::printf("%-34s %10s %14s\n", "case", "seconds", "vs listing");
    std::printf("%-34s %10.4f %14s\n", "varoft listing (request->end)", varoft.seconds, "1.00x");
    std::printf("%-34s %10.4f %13.2fx\n", "varoft whole run (start->exit)", varoft.whole, varoft.whole / varoft.seconds);
    std::printf("%-34s %10.4f %13.2fx\n", "file -b (every file)", fileBest.seconds, fileBest.seconds / varoft.seconds);
    std::printf("%-34s %10.4f %13.2fx\n", "ls -l (the directory)", lsBest.seconds, lsBest.seconds / varoft.seconds);
    std::printf("\nvaroft listing is %.1fx faster than file -b (aim: at least 10x) and takes %.2fx the time of "
                "ls -l (aim: at most 3x).\n",
                fileBest.seconds / varoft.seconds, varoft.seconds / lsBest.seconds);
    return 0;
}
