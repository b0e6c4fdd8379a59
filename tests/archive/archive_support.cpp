#include "archive_support.h"

#include <zlib.h>
#include <zstd.h>

#include <cstdlib>
#include <random>

#include <sys/wait.h>

#include "archive/dir_unpack_stream.h"
#include "archive/stream.h"
#include "common/bytes.h"
#include "platform/platform.h"
#include "support/temp_dir.h"

namespace archivetest {

Bytes toBytes(std::string_view s) { return Bytes(s.begin(), s.end()); }

void appendEntry(Bytes& out, const HandEntry& e) {
    Bytes payload = toBytes(e.data);
    if (e.payload) {
        payload = *e.payload;
    } else if (e.method == 8) {  // zlib's format less its 2-byte header and 4-byte checksum
        uLongf size = compressBound(static_cast<uLong>(e.data.size()));
        payload.resize(size);
        compress(payload.data(), &size, reinterpret_cast<const Bytef*>(e.data.data()), static_cast<uLong>(e.data.size()));
        payload = Bytes(payload.begin() + 2, payload.begin() + static_cast<std::ptrdiff_t>(size) - 4);
    } else if (e.method == 93) {
        payload.resize(ZSTD_compressBound(e.data.size()));
        payload.resize(ZSTD_compress(payload.data(), payload.size(), e.data.data(), e.data.size(), 3));
    }
    const std::uint32_t crc = e.crc.value_or(static_cast<std::uint32_t>(
        crc32(0, reinterpret_cast<const Bytef*>(e.data.data()), static_cast<uInt>(e.data.size()))));
    const std::uint64_t usize = e.descriptor ? 0 : e.data.size();
    const std::uint64_t csize = e.descriptor ? 0 : payload.size();
    bytes::Writer w(out);
    w.u32(0x04034b50).u16(e.zip64 ? 45 : 20).u16(e.descriptor ? 0x08 : 0).u16(e.method).u16(0).u16(0x21);
    w.u32(e.descriptor ? 0 : crc);
    w.u32(e.zip64 ? 0xFFFFFFFFu : static_cast<std::uint32_t>(csize));
    w.u32(e.zip64 ? 0xFFFFFFFFu : static_cast<std::uint32_t>(usize));
    w.u16(static_cast<std::uint16_t>(e.name.size())).u16(e.zip64 ? 20 : 0).raw(e.name);
    if (e.zip64) w.u16(1).u16(16).u64(usize).u64(csize);
    w.raw(payload);
    if (e.descriptor && e.zip64) w.u32(0x08074b50).u32(crc).u64(payload.size()).u64(e.data.size());
    if (e.descriptor && !e.zip64) {
        w.u32(0x08074b50).u32(crc).u32(static_cast<std::uint32_t>(payload.size()));
        w.u32(static_cast<std::uint32_t>(e.data.size()));
    }
}

Bytes buildArchive(const std::vector<HandEntry>& entries, bool withCentralDirectory) {
    Bytes out;
    for (const auto& e : entries) appendEntry(out, e);
    // The unpack stream stops at the first central directory record, so an empty central
    // directory (the end record alone) closes any archive.
    const auto start = static_cast<std::uint32_t>(out.size());
    if (withCentralDirectory) bytes::Writer(out).u32(0x06054b50).u32(0).u32(0).u32(0).u32(start).u16(0);
    return out;
}

std::string repeatText(std::size_t n) {
    std::string s;
    while (s.size() < n) s += "the quick brown fox " + std::to_string(s.size()) + "\n";
    s.resize(n);
    return s;
}

Chunker fixedChunks(std::size_t size) { return [size] { return size; }; }

Chunker randomChunks(std::uint32_t seed, std::size_t maxSize) {
    auto engine = std::make_shared<std::mt19937>(seed);
    return [engine, maxSize] { return std::uniform_int_distribution<std::size_t>(1, maxSize)(*engine); };
}

UnpackOutcome unpackInto(const Bytes& archive, const std::string& target, const Chunker& chunker, unsigned workers) {
    MzStreamPtr stream(createDirUnpackStream());
    setDirUnpackStreamWorkers(stream.get(), workers);
    UnpackOutcome outcome;
    outcome.firstFailure = mz_stream_open(stream.get(), target.c_str(), MZ_OPEN_MODE_WRITE | MZ_OPEN_MODE_CREATE);
    for (std::size_t at = 0; outcome.firstFailure == MZ_OK && at < archive.size();) {
        const std::size_t n = std::min(chunker(), archive.size() - at);
        const std::int32_t rc = mz_stream_write(stream.get(), archive.data() + at, static_cast<std::int32_t>(n));
        if (rc == MZ_END_OF_STREAM) break;
        outcome.firstFailure = std::min(rc, 0);
        if (rc < 0) outcome.failureText = platform::lastErrorText();
        at += n;
    }
    if (outcome.firstFailure == MZ_OK && endDirUnpackStreamWrites(stream.get())) {
        outcome.firstFailure = mz_stream_error(stream.get());
        outcome.failureText = platform::lastErrorText();
    }
    outcome.closeResult = mz_stream_close(stream.get());
    if (outcome.closeResult < 0 && outcome.failureText.empty()) outcome.failureText = platform::lastErrorText();
    return outcome;
}

int shell(const std::string& command, const std::string& directory) {
    const int status = std::system(("cd '" + directory + "' && " + command).c_str());
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

bool haveTool(const std::string& name) {
    return shell("command -v " + name + " >/dev/null 2>&1", "/") == 0;
}

TreeImage imageOf(const std::filesystem::path& root) {
    TreeImage image;
    std::error_code ec;
    for (auto it = std::filesystem::recursive_directory_iterator(root, ec);
         !ec && it != std::filesystem::recursive_directory_iterator(); it.increment(ec)) {
        const std::string rel = std::filesystem::relative(it->path(), root, ec).generic_string();
        const bool directory = it->is_directory(ec);
        image[directory ? rel + "/" : rel] = directory ? "" : testsupport::readFile(it->path());
    }
    return image;
}

void makeSampleTree(const std::filesystem::path& root) {
    namespace fs = std::filesystem;
    std::error_code ec;
    fs::create_directories(root / "a" / "b" / "c", ec);
    fs::create_directories(root / "emptydir", ec);
    fs::create_directories(root / "docs", ec);
    std::string text;
    for (int i = 0; i < 2000; ++i) text += "line " + std::to_string(i) + " of a text file that compresses well\n";
    testsupport::writeFile(root / "readme.txt", text);
    testsupport::writeFile(root / "a" / "b" / "c" / "deep.txt", "deep inside\n");
    testsupport::writeFile(root / "a" / "one byte", "x");
    std::mt19937 engine(12345);
    std::string binary(300000, '\0');
    for (auto& c : binary) c = static_cast<char>(engine());
    testsupport::writeFile(root / "a" / "random.bin", binary);
    std::string mixed;
    for (int i = 0; i < 20000; ++i) mixed += static_cast<char>(i % 7 == 0 ? engine() : 'a' + i % 5);
    testsupport::writeFile(root / "docs" / "mixed.dat", mixed);
    testsupport::writeFile(root / "docs" / "\xc3\xbcn\xc3\xaf c\xc3\xb6" "d\xc3\xa9.txt", "utf-8 name\n");
}
}  // namespace archivetest
