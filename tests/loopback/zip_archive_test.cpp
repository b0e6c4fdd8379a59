// The desktop's ZIP writers checked by other readers (unzip, bsdtar, and a walk through the
// local headers in the order a streaming unpacker meets them), and its reader fed by Info-ZIP.
#include "zip_archive.h"

#include "common/bytes.h"
#include "support/temp_dir.h"

#include <gtest/gtest.h>

#include <zlib.h>
#include <zstd.h>

#include <cstdlib>
#include <map>
#include <random>

namespace fs = std::filesystem;
using namespace loopback;
using testsupport::TempDir;

namespace {

// name -> content of every file; directories end in '/'.
std::map<std::string, std::string> makeTree(const fs::path& root) {
    std::map<std::string, std::string> files;
    std::mt19937 random(7);
    std::string big(300000, '\0');
    for (auto& ch : big) ch = static_cast<char>(random());
    files["a.txt"] = "hello\n";
    files["empty"] = "";
    files["sub/deeper/big.bin"] = big;
    files["sub/x"] = std::string(70000, 'x');
    for (const auto& [name, content] : files) {
        fs::create_directories((root / name).parent_path());
        testsupport::writeFile(root / name, content);
    }
    fs::create_directories(root / "emptydir");
    files["emptydir/"] = "";
    files["sub/"] = "";
    files["sub/deeper/"] = "";
    return files;
}

std::map<std::string, std::string> readTree(const fs::path& root) {
    std::map<std::string, std::string> out;
    for (auto it = fs::recursive_directory_iterator(root); it != fs::recursive_directory_iterator(); ++it) {
        const std::string name = fs::relative(it->path(), root).generic_string();
        if (it->is_directory()) out[name + "/"] = "";
        else out[name] = testsupport::readFile(it->path());
    }
    return out;
}

int shell(const std::string& command) { return std::system(command.c_str()); }

// Walks the archive from its first byte as a streaming unpacker does: local header, data (its
// end found by decoding, or by the header's size for stored entries), data descriptor when
// flagged, up to the central directory. Every entry's content is checked against its CRC.
std::map<std::string, std::string> walkStreaming(std::span<const std::uint8_t> zip) {
    std::map<std::string, std::string> out;
    std::size_t at = 0;
    for (;;) {
        bytes::Reader r(zip, at);
        const std::uint32_t signature = r.u32();
        if (signature == 0x02014b50) break;
        EXPECT_EQ(signature, 0x04034b50u) << "at " << at;
        if (signature != 0x04034b50) return {};
        r.skip(2);
        const std::uint16_t flags = r.u16(), method = r.u16();
        r.skip(4);
        std::uint32_t crc = r.u32(), csize = r.u32(), usize = r.u32();
        const std::uint16_t nameLen = r.u16(), extraLen = r.u16();
        const std::string name(r.text(nameLen));
        r.skip(extraLen);
        EXPECT_TRUE(r.ok());
        const std::size_t dataAt = r.position();
        std::string content;
        std::size_t consumed = 0;
        if (method == 0) {
            consumed = usize;
            EXPECT_LE(dataAt + consumed, zip.size());
            content.assign(reinterpret_cast<const char*>(zip.data() + dataAt), consumed);
        } else if (method == 8) {
            z_stream z{};
            inflateInit2(&z, -15);
            z.next_in = const_cast<std::uint8_t*>(zip.data() + dataAt);
            z.avail_in = static_cast<uInt>(zip.size() - dataAt);
            char buffer[65536];
            int rc = Z_OK;
            while (rc == Z_OK) {
                z.next_out = reinterpret_cast<Bytef*>(buffer);
                z.avail_out = sizeof buffer;
                rc = inflate(&z, Z_NO_FLUSH);
                content.append(buffer, sizeof buffer - z.avail_out);
            }
            EXPECT_EQ(rc, Z_STREAM_END) << name;
            consumed = z.total_in;
            inflateEnd(&z);
        } else if (method == 93) {
            consumed = ZSTD_findFrameCompressedSize(zip.data() + dataAt, zip.size() - dataAt);
            EXPECT_FALSE(ZSTD_isError(consumed)) << name;
            if (ZSTD_isError(consumed)) return {};
            content.resize(usize);
            EXPECT_EQ(ZSTD_decompress(content.data(), content.size(), zip.data() + dataAt, consumed), usize) << name;
        } else {
            ADD_FAILURE() << "method " << method;
            return {};
        }
        at = dataAt + consumed;
        if (flags & 0x0008) {
            bytes::Reader d(zip, at);
            EXPECT_EQ(d.u32(), 0x08074b50u) << name;
            crc = d.u32();
            csize = d.u32();
            usize = d.u32();
            EXPECT_TRUE(d.ok());
            at = d.position();
        }
        EXPECT_EQ(csize, consumed) << name;
        EXPECT_EQ(usize, content.size()) << name;
        EXPECT_EQ(crc, crc32(0, reinterpret_cast<const Bytef*>(content.data()), static_cast<uInt>(content.size()))) << name;
        out[name] = content;
    }
    return out;
}

}  // namespace

class ZipWriters : public ::testing::TestWithParam<ZipMethod> {};

TEST_P(ZipWriters, ArchivesReadBackByOtherReaders) {
    TempDir dir;
    const auto tree = makeTree(dir / "tree");
    PackResult packed;
    std::string error;
    ASSERT_TRUE(packDirectory(dir / "tree", GetParam(), packed, &error)) << error;
    EXPECT_EQ(packed.files, 4u);
    EXPECT_EQ(packed.directories, 3u);
    EXPECT_EQ(walkStreaming(packed.bytes), tree);

    const fs::path zip = dir / "tree.zip";
    testsupport::writeFile(zip, std::string(packed.bytes.begin(), packed.bytes.end()));
    EXPECT_EQ(shell("zipinfo -1 " + zip.string() + " >/dev/null"), 0);
    if (GetParam() == ZipMethod::Zstd) return;  // unzip and bsdtar here cannot decode method 93
    EXPECT_EQ(shell("unzip -tqq " + zip.string()), 0);
    fs::create_directories(dir / "out");
    ASSERT_EQ(shell("bsdtar -xf " + zip.string() + " -C " + (dir / "out").string()), 0);
    EXPECT_EQ(readTree(dir / "out"), tree);

    UnpackResult unpacked;
    ASSERT_TRUE(unpackArchive(packed.bytes, dir / "again", unpacked, &error)) << error;
    EXPECT_EQ(unpacked.files, 4u);
    EXPECT_EQ(readTree(dir / "again"), tree);
}

INSTANTIATE_TEST_SUITE_P(Methods, ZipWriters, ::testing::Values(ZipMethod::Deflate, ZipMethod::Store, ZipMethod::Zstd),
                         [](const auto& p) { return std::string(zipMethodName(p.param)); });

TEST(ZipWriters, EmptyAndMissingDirectories) {
    TempDir dir;
    fs::create_directories(dir / "none");
    PackResult packed;
    std::string error;
    for (const auto method : {ZipMethod::Deflate, ZipMethod::Zstd}) {
        ASSERT_TRUE(packDirectory(dir / "none", method, packed, &error)) << error;
        EXPECT_EQ(packed.bytes.size(), 22u);  // the end record alone
        EXPECT_EQ(bytes::get32(packed.bytes, 0), 0x06054b50u);
    }
    EXPECT_FALSE(packDirectory(dir / "missing", ZipMethod::Deflate, packed, &error));
    EXPECT_NE(error.find("missing"), std::string::npos);
}

TEST(ZipReader, UnpacksInfoZipArchives) {
    TempDir dir;
    const auto tree = makeTree(dir / "tree");
    ASSERT_EQ(shell("cd " + (dir / "tree").string() + " && zip -qr ../t.zip . && zip -qr0 ../s.zip ."), 0);
    for (const char* name : {"t.zip", "s.zip"}) {
        const std::string data = testsupport::readFile(dir / name);
        UnpackResult result;
        std::string error;
        ASSERT_TRUE(unpackArchive(std::span(reinterpret_cast<const std::uint8_t*>(data.data()), data.size()),
                                  dir / (std::string(name) + ".out"), result, &error))
            << error;
        EXPECT_EQ(readTree(dir / (std::string(name) + ".out")), tree);
    }
}

TEST(ZipReader, RefusesNamesThatLeaveTheTarget) {
    for (const std::string bad : {"../evil", "a/../../evil", "/abs/evil"}) {
        // One stored entry and its central directory, written by hand.
        std::vector<std::uint8_t> zip, central;
        const std::string content = "x";
        const auto crc = static_cast<std::uint32_t>(crc32(0, reinterpret_cast<const Bytef*>(content.data()), 1));
        const auto nameLen = static_cast<std::uint16_t>(bad.size());
        bytes::Writer(zip).u32(0x04034b50).u16(10).u16(0).u16(0).u32(0).u32(crc).u32(1).u32(1).u16(nameLen).u16(0).raw(bad).raw(content);
        bytes::Writer(central).u32(0x02014b50).u16(10).u16(10).u16(0).u16(0).u32(0).u32(crc).u32(1).u32(1).u16(nameLen)
            .u16(0).u16(0).u16(0).u16(0).u32(0).u32(0).raw(bad);
        const auto cdAt = static_cast<std::uint32_t>(zip.size());
        bytes::Writer(zip).raw(central).u32(0x06054b50).u16(0).u16(0).u16(1).u16(1)
            .u32(static_cast<std::uint32_t>(central.size())).u32(cdAt).u16(0);
        TempDir dir;
        UnpackResult result;
        std::string error;
        EXPECT_FALSE(unpackArchive(zip, dir / "target", result, &error)) << bad;
        EXPECT_FALSE(fs::exists(dir / "evil")) << bad;
        EXPECT_EQ(result.files, 0u);
    }
}
