#include "archive_support.h"

#include <zlib.h>
#include <zstd.h>

#include <cstdlib>
#include <fstream>
#include <random>

#include "archive/dir_unpack_stream.h"
#include "archive/mz_stream.h"
#include "common/bytes.h"
#include "support/process.h"
#include "support/temp_dir.h"

namespace archivetest {

Bytes toBytes(std::string_view s) { return Bytes(s.begin(), s.end()); }
Bytes readBytes(const std::filesystem::path& path) { return toBytes(testsupport::readFile(path)); }

namespace {

Bytes deflateRaw(std::string_view data) {
    z_stream z{};
    deflateInit2(&z, 6, Z_DEFLATED, -15, 8, Z_DEFAULT_STRATEGY);
    Bytes out(deflateBound(&z, static_cast<uLong>(data.size())) + 16);
    z.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(data.data()));
    z.avail_in = static_cast<uInt>(data.size());
    z.next_out = out.data();
    z.avail_out = static_cast<uInt>(out.size());
    deflate(&z, Z_FINISH);
    out.resize(z.total_out);
    deflateEnd(&z);
    return out;
}

Bytes zstdCompress(std::string_view data) {
    Bytes out(ZSTD_compressBound(data.size()));
    out.resize(ZSTD_compress(out.data(), out.size(), data.data(), data.size(), 3));
    return out;
}

void appendCentralDirectory(Bytes& out, const std::vector<std::string>& names) {
    bytes::Writer w(out);
    const std::size_t start = out.size();
    for (const auto& name : names) {
        w.u32(0x02014b50).u16(0x031e).u16(20).u16(0).u16(0).u16(0).u16(0).u32(0).u32(0).u32(0);
        w.u16(static_cast<std::uint16_t>(name.size())).u16(0).u16(0).u16(0).u16(0).u32(0).u32(0).raw(name);
    }
    const std::size_t size = out.size() - start;
    w.u32(0x06054b50).u16(0).u16(0).u16(static_cast<std::uint16_t>(names.size()));
    w.u16(static_cast<std::uint16_t>(names.size())).u32(static_cast<std::uint32_t>(size));
    w.u32(static_cast<std::uint32_t>(start)).u16(0);
}

}  // namespace

void appendEntry(Bytes& out, const HandEntry& e) {
    Bytes payload;
    if (e.payload) {
        payload = *e.payload;
    } else if (e.method == 8) {
        payload = deflateRaw(e.data);
    } else if (e.method == 93) {
        payload = zstdCompress(e.data);
    } else {
        payload = toBytes(e.data);
    }
    const std::uint32_t crc = e.crc.value_or(static_cast<std::uint32_t>(
        crc32(0, reinterpret_cast<const Bytef*>(e.data.data()), static_cast<uInt>(e.data.size()))));
    const std::uint64_t usize = e.descriptor ? 0 : e.data.size();
    const std::uint64_t csize = e.descriptor ? 0 : payload.size();
    Bytes extra;
    if (e.zip64) {
        bytes::Writer x(extra);
        x.u16(1).u16(16).u64(usize).u64(csize);
    }
    bytes::Writer w(out);
    w.u32(0x04034b50).u16(e.zip64 ? 45 : 20).u16(e.descriptor ? 0x08 : 0).u16(e.method).u16(0).u16(0x21);
    w.u32(e.descriptor ? 0 : crc);
    w.u32(e.zip64 ? 0xFFFFFFFFu : static_cast<std::uint32_t>(csize));
    w.u32(e.zip64 ? 0xFFFFFFFFu : static_cast<std::uint32_t>(usize));
    w.u16(static_cast<std::uint16_t>(e.name.size())).u16(static_cast<std::uint16_t>(extra.size()));
    w.raw(e.name).raw(extra).raw(payload);
    if (e.descriptor) {
        w.u32(0x08074b50).u32(crc);
        if (e.zip64) {
            w.u64(payload.size()).u64(e.data.size());
        } else {
            w.u32(static_cast<std::uint32_t>(payload.size())).u32(static_cast<std::uint32_t>(e.data.size()));
        }
    }
}

Bytes buildArchive(const std::vector<HandEntry>& entries, bool withCentralDirectory) {
    Bytes out;
    std::vector<std::string> names;
    for (const auto& e : entries) {
        appendEntry(out, e);
        names.push_back(e.name);
    }
    if (withCentralDirectory) appendCentralDirectory(out, names);
    return out;
}

Chunker fixedChunks(std::size_t size) {
    return [size] { return size; };
}

Chunker randomChunks(std::uint32_t seed, std::size_t maxSize) {
    auto engine = std::make_shared<std::mt19937>(seed);
    return [engine, maxSize] {
        return std::uniform_int_distribution<std::size_t>(1, maxSize)(*engine);
    };
}

UnpackOutcome unpackInto(const Bytes& archive, const std::string& target, const Chunker& chunker) {
    UnpackOutcome outcome;
    MzStreamPtr stream(createDirUnpackStream());
    const std::int32_t opened =
        mz_stream_open(stream.get(), target.c_str(), MZ_OPEN_MODE_WRITE | MZ_OPEN_MODE_CREATE);
    if (opened != MZ_OK) {
        outcome.firstFailure = opened;
        return outcome;
    }
    std::size_t at = 0;
    while (at < archive.size()) {
        const std::size_t n = std::min(chunker(), archive.size() - at);
        const std::int32_t rc = mz_stream_write(stream.get(), archive.data() + at, static_cast<std::int32_t>(n));
        if (rc < 0) {
            if (rc != MZ_END_OF_STREAM) outcome.firstFailure = rc;
            break;
        }
        at += n;
    }
    outcome.closeResult = mz_stream_close(stream.get());
    return outcome;
}

int shell(const std::string& command, const std::string& directory) {
    testsupport::RunOptions options;
    options.args = {"-c", command};
    options.workingDirectory = directory;
    options.timeout = std::chrono::milliseconds(120000);
    const auto result = testsupport::run("/bin/sh", options);
    if (result.exitCode != 0) std::fprintf(stderr, "command failed: %s\n%s", command.c_str(), result.err.c_str());
    return result.exitCode;
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
        if (it->is_directory(ec)) {
            image[rel + "/"] = "";
        } else {
            image[rel] = testsupport::readFile(it->path());
        }
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
