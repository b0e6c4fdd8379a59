// Feeds arbitrary bytes to the unpack stream in chunkings chosen by the input's first bytes, into
// a target that may already hold traps under the names the seed archives use (a hard link to a
// file outside, a FIFO, links to that file and to a directory outside), and checks after every
// run that nothing outside the target was created, changed or removed, and that worker threads
// changed nothing (tree, results, error). With bit 2 of the first byte set, the bytes go to the
// parser alone, which must hand over only names that stay below the target and only bytes that
// fit the room it was given.
#include <sys/stat.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <string>
#include <tuple>

#include "archive/dir_unpack_stream.h"
#include "archive/local_record_parser.h"
#include "archive/stream.h"
#include "outside.h"

namespace {

namespace fs = std::filesystem;

// The target, a file outside it that must stay as it is and a directory outside it that must
// stay empty; one unpack stream lives for the process, as in the program.
struct Place {
    fs::path outer = outside::makePlace("varoft-fuzz");
    fs::path target = outer / "target", victim = outer / "victim", elsewhere = outer / "elsewhere";
    void* stream = createDirUnpackStream();
    Place() {
        fs::create_directory(target);
        fs::create_directory(elsewhere);
        outside::writeText(victim);
    }
};

Place& place() {
    static Place p;
    return p;
}

// Layout bit 0: files in the way of the seeds' entries; bit 1: links to a directory outside in
// place of the seeds' directories.
void plantTraps(const Place& p, unsigned layout) {
    std::error_code ec;
    const fs::path src = p.target / "src";
    fs::create_directories(src / "sub", ec);
    if (layout & 1) {
        fs::create_hard_link(p.victim, src / "text.txt", ec);
        ::mkfifo((src / "sub" / "random.bin").c_str(), 0600);
        fs::create_symlink(p.victim, src / "sub" / "name with space.txt", ec);
        fs::create_symlink(p.victim, p.target / "z.txt", ec);
        ::mkfifo((p.target / "zd.txt").c_str(), 0600);
    }
    if (layout & 2) {
        fs::create_directory_symlink(p.elsewhere, src / "sub" / "deeper", ec);
        fs::create_directory_symlink(p.elsewhere, src / "emptydir", ec);
    }
}

void checkOutsideAndEmptyTarget(const Place& p) {
    outside::check(p.outer, {p.target, p.victim, p.elsewhere}, {p.victim});
    std::error_code ec;
    if (!fs::is_empty(p.elsewhere, ec)) outside::touched(p.elsewhere);
    for (const auto& entry : fs::directory_iterator(p.target, ec)) fs::remove_all(entry.path(), ec);
}

// Every name below the root with its kind, and a regular file's bytes.
std::map<std::string, std::string> imageOf(const fs::path& root) {
    std::map<std::string, std::string> image;
    std::error_code ec;
    for (auto it = fs::recursive_directory_iterator(root, ec); !ec && it != fs::recursive_directory_iterator(); it.increment(ec)) {
        const fs::file_type type = it->symlink_status(ec).type();
        std::ifstream in(type == fs::file_type::regular ? it->path() : fs::path(), std::ios::binary);
        image[it->path().string()] = std::to_string(static_cast<int>(type)) + std::string(std::istreambuf_iterator<char>(in), {});
    }
    return image;
}

void broken(const char* what) {
    std::fprintf(stderr, "parser broke its promise: %s\n", what);
    std::abort();
}

struct CheckingSink : RecordSink {
    std::uint8_t block[4096];
    bool inFile = false;
    static void checkPath(const std::string& path) {
        if (path.empty() || path.find('\\') != std::string::npos) broken(path.c_str());
        for (std::size_t from = 0; from <= path.size();) {
            const std::size_t end = std::min(path.find('/', from), path.size());
            const std::string part = path.substr(from, end - from);
            if (part.empty() || part == "." || part == ".." || part.find('\0') != std::string::npos) broken(path.c_str());
            from = end + 1;
        }
    }
    bool directory(const LocalEntry&, const std::string& path) override {
        if (inFile) broken("a directory inside a file");
        checkPath(path);
        return true;
    }
    bool beginFile(const LocalEntry&, const std::string& path, bool) override {
        checkPath(path);
        inFile = true;
        return true;
    }
    std::span<std::uint8_t> room() override { return block; }
    bool fill(std::size_t count) override {
        if (!inFile || count > sizeof block) broken("bytes outside a file or beyond the room");
        return true;
    }
    bool endFile() override {
        if (!inFile) broken("the end of no file");
        inFile = false;
        return true;
    }
};

void parseAlone(const std::uint8_t* data, std::size_t size, std::size_t chunk) {
    LocalRecordParser parser;
    CheckingSink sink;
    if (parser.start() != MZ_OK) std::abort();
    for (std::size_t at = 0; at < size; at += chunk) {
        const std::size_t n = std::min(chunk, size - at);
        const std::int32_t rc = parser.write({data + at, n}, sink);
        if (rc < 0) break;
        if (rc != static_cast<std::int32_t>(n)) std::abort();
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size < 5) return 0;
    Place& p = place();
    const std::uint8_t mode = data[0] % 4;
    std::uint32_t state = static_cast<std::uint32_t>(data[1]) | (static_cast<std::uint32_t>(data[2]) << 8) |
                          (static_cast<std::uint32_t>(data[3]) << 16) | (static_cast<std::uint32_t>(data[4]) << 24);
    const unsigned layout = data[1] % 4;
    data += 5;
    size -= 5;
    if (data[-5] & 4) {
        parseAlone(data, size, 1 + (state >> 8) % 8192);
        return 0;
    }
    const auto run = [&](unsigned workers, std::uint32_t chunking) {
        plantTraps(p, layout);
        setDirUnpackStreamWorkers(p.stream, workers);
        if (mz_stream_open(p.stream, p.target.c_str(), MZ_OPEN_MODE_WRITE | MZ_OPEN_MODE_CREATE) != MZ_OK) std::abort();
        std::int32_t first = 0;  // what the writes, or the end of them, returned first
        for (std::size_t at = 0; at < size && first == 0;) {
            chunking = chunking * 1664525u + 1013904223u;
            const std::size_t chunk[] = {size, 1, 1 + (chunking >> 16) % 64, 1 + (chunking >> 8) % 8192};
            const std::size_t n = std::min(chunk[mode], size - at);
            const std::int32_t rc = mz_stream_write(p.stream, data + at, static_cast<std::int32_t>(n));
            if (rc >= 0 && rc != static_cast<std::int32_t>(n)) std::abort();  // a healthy write takes the whole chunk
            first = std::min(rc, 0);
            at += n;
        }
        if (first == 0 && endDirUnpackStreamWrites(p.stream)) first = mz_stream_error(p.stream);
        const std::int32_t rc = mz_stream_close(p.stream);
        auto outcome = std::make_tuple(first, rc, dirUnpackStreamSystemError(p.stream), imageOf(p.target));
        checkOutsideAndEmptyTarget(p);
        return outcome;
    };
    if (run(1, state) != run(3, state)) broken("decoding on workers changed the outcome");
    return 0;
}
