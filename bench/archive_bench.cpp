// Drives the archive streams the way a transfer does, for scripts/bench-archive.sh:
//   archive_bench pack <directory> <out.zip>     reads the pack stream in 131072-byte chunks
//   archive_bench unpack <archive.zip> <target>  writes the archive into the unpack stream
// Exit status 0 on success; the script times the run and measures its peak memory.
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include <fcntl.h>
#include <unistd.h>

#include "archive/dir_pack_stream.h"
#include "archive/dir_unpack_stream.h"
#include "archive/stream.h"

namespace {

constexpr std::int32_t kChunk = 131072;

int pack(const char* directory, const char* outPath) {
    MzStreamPtr stream(createDirPackStream());
    if (mz_stream_open(stream.get(), directory, MZ_OPEN_MODE_READ) != MZ_OK) {
        std::fprintf(stderr, "cannot open %s\n", directory);
        return 1;
    }
    const int out = ::open(outPath, O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (out < 0) return 1;
    std::vector<std::uint8_t> chunk(kChunk);
    for (;;) {
        const std::int32_t n = mz_stream_read(stream.get(), chunk.data(), kChunk);
        if (n == MZ_END_OF_STREAM) break;
        if (n < 0) {
            std::fprintf(stderr, "pack failed: %d\n", n);
            return 1;
        }
        if (::write(out, chunk.data(), static_cast<std::size_t>(n)) != n) return 1;
    }
    ::close(out);
    return mz_stream_close(stream.get()) == MZ_OK ? 0 : 1;
}

int unpack(const char* archivePath, const char* target) {
    MzStreamPtr stream(createDirUnpackStream());
    if (mz_stream_open(stream.get(), target, MZ_OPEN_MODE_WRITE | MZ_OPEN_MODE_CREATE) != MZ_OK) {
        std::fprintf(stderr, "cannot open %s\n", target);
        return 1;
    }
    const int in = ::open(archivePath, O_RDONLY);
    if (in < 0) return 1;
    std::vector<std::uint8_t> chunk(kChunk);
    for (;;) {
        const ssize_t n = ::read(in, chunk.data(), chunk.size());
        if (n <= 0) break;
        const std::int32_t rc = mz_stream_write(stream.get(), chunk.data(), static_cast<std::int32_t>(n));
        if (rc == MZ_END_OF_STREAM) break;  // the central directory: the tree is complete
        if (rc < 0) {
            std::fprintf(stderr, "unpack failed: %d\n", rc);
            return 1;
        }
    }
    ::close(in);
    const std::int32_t rc = mz_stream_close(stream.get());
    if (rc != MZ_OK) std::fprintf(stderr, "unpack close: %d\n", rc);
    return rc == MZ_OK ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc == 4 && std::strcmp(argv[1], "pack") == 0) return pack(argv[2], argv[3]);
    if (argc == 4 && std::strcmp(argv[1], "unpack") == 0) return unpack(argv[2], argv[3]);
    std::fprintf(stderr, "usage: %s pack <directory> <out.zip> | unpack <archive.zip> <target>\n", argv[0]);
    return 2;
}
