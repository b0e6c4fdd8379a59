// Feeds arbitrary bytes to the unpack stream in chunkings chosen by the input's first bytes, and
// checks after every run that nothing was created outside the target directory.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>

#include "archive/dir_unpack_stream.h"
#include "archive/mz_stream.h"

namespace {

namespace fs = std::filesystem;

struct Place {
    fs::path outer;   // holds only the target
    fs::path target;
    void* stream = nullptr;
};

Place& place() {
    static Place p = [] {
        Place made;
        std::string templ = (fs::temp_directory_path() / "varoft-fuzz-XXXXXX").string();
        if (!::mkdtemp(templ.data())) std::abort();
        made.outer = templ;
        made.target = made.outer / "target";
        fs::create_directory(made.target);
        made.stream = createDirUnpackStream();  // lives for the process, as in the program
        std::atexit([] {
            std::error_code ec;
            fs::remove_all(place().outer, ec);
        });
        return made;
    }();
    return p;
}

void emptyTarget(const Place& p) {
    std::error_code ec;
    for (const auto& entry : fs::directory_iterator(p.outer, ec)) {
        if (entry.path() != p.target) {
            std::fprintf(stderr, "created outside the target: %s\n", entry.path().c_str());
            std::abort();
        }
    }
    for (const auto& entry : fs::directory_iterator(p.target, ec)) fs::remove_all(entry.path(), ec);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size < 5) return 0;
    Place& p = place();
    const std::uint8_t mode = data[0] % 4;
    std::uint32_t state = static_cast<std::uint32_t>(data[1]) | (static_cast<std::uint32_t>(data[2]) << 8) |
                          (static_cast<std::uint32_t>(data[3]) << 16) | (static_cast<std::uint32_t>(data[4]) << 24);
    data += 5;
    size -= 5;
    if (mz_stream_open(p.stream, p.target.c_str(), MZ_OPEN_MODE_WRITE | MZ_OPEN_MODE_CREATE) != MZ_OK) std::abort();
    std::size_t at = 0;
    while (at < size) {
        state = state * 1664525u + 1013904223u;
        std::size_t n;
        switch (mode) {
            case 0: n = size; break;
            case 1: n = 1; break;
            case 2: n = 1 + (state >> 16) % 64; break;
            default: n = 1 + (state >> 8) % 8192; break;
        }
        n = std::min(n, size - at);
        const std::int32_t rc = mz_stream_write(p.stream, data + at, static_cast<std::int32_t>(n));
        if (rc < 0) break;
        if (rc != static_cast<std::int32_t>(n)) std::abort();  // a healthy write takes the whole chunk
        at += n;
    }
    mz_stream_close(p.stream);
    emptyTarget(p);
    return 0;
}
