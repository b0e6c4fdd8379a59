// The two sides' archives meet: what the desktop packs goes through the client's streaming
// unpack stream chunk by chunk, and what the client's pack stream yields unpacks on the desktop.
#include "zip_archive.h"

#include "archive/dir_pack_stream.h"
#include "archive/dir_unpack_stream.h"
#include "archive/mz_stream.h"
#include "support/temp_dir.h"

#include <gtest/gtest.h>

#include <map>

namespace fs = std::filesystem;
using namespace loopback;
using testsupport::TempDir;

namespace {

void makeTree(const fs::path& root) {
    fs::create_directories(root / "docs" / "old");
    fs::create_directories(root / "nothing");
    testsupport::writeFile(root / "readme.txt", "read me\n");
    testsupport::writeFile(root / "docs" / "empty.txt", "");
    std::string big(200000, '\0');
    for (std::size_t i = 0; i < big.size(); ++i) big[i] = static_cast<char>((i * 7919) >> 5);
    testsupport::writeFile(root / "docs" / "old" / "big.bin", big);
}

std::map<std::string, std::string> readTree(const fs::path& root) {
    std::map<std::string, std::string> out;
    for (auto it = fs::recursive_directory_iterator(root); it != fs::recursive_directory_iterator(); ++it) {
        const std::string name = fs::relative(it->path(), root).generic_string();
        out[it->is_directory() ? name + "/" : name] = it->is_directory() ? "" : testsupport::readFile(it->path());
    }
    return out;
}

}  // namespace

class DesktopArchivesOnTheClient : public ::testing::TestWithParam<ZipMethod> {};

TEST_P(DesktopArchivesOnTheClient, UnpackChunkByChunk) {
    TempDir dir;
    makeTree(dir / "tree");
    PackResult packed;
    std::string error;
    ASSERT_TRUE(packDirectory(dir / "tree", GetParam(), packed, &error)) << error;
    for (const std::size_t chunk : {std::size_t{131072}, std::size_t{777}}) {
        const fs::path target = dir / ("out" + std::to_string(chunk));
        fs::create_directories(target);
        void* stream = createDirUnpackStream();
        ASSERT_TRUE(stream);
        ASSERT_EQ(mz_stream_open(stream, target.c_str(), MZ_OPEN_MODE_WRITE | MZ_OPEN_MODE_CREATE), 0);
        for (std::size_t at = 0; at < packed.bytes.size(); at += chunk) {
            const auto n = static_cast<std::int32_t>(std::min(chunk, packed.bytes.size() - at));
            const std::int32_t rc = mz_stream_write(stream, packed.bytes.data() + at, n);
            ASSERT_TRUE(rc == n || rc == MZ_END_OF_STREAM) << "at " << at << ": " << rc;
        }
        EXPECT_EQ(mz_stream_close(stream), 0);
        mz_stream_delete(&stream);
        EXPECT_EQ(readTree(target), readTree(dir / "tree")) << "chunks of " << chunk;
    }
}

INSTANTIATE_TEST_SUITE_P(Methods, DesktopArchivesOnTheClient,
                         ::testing::Values(ZipMethod::Deflate, ZipMethod::Store, ZipMethod::Zstd),
                         [](const auto& p) { return std::string(zipMethodName(p.param)); });

TEST(ClientArchivesOnTheDesktop, PackStreamOutputUnpacks) {
    TempDir dir;
    makeTree(dir / "tree");
    void* stream = createDirPackStream();
    ASSERT_TRUE(stream);
    ASSERT_EQ(mz_stream_open(stream, (dir / "tree").c_str(), MZ_OPEN_MODE_READ), 0);
    std::vector<std::uint8_t> zip;
    std::vector<std::uint8_t> buffer(131072);
    for (;;) {
        const std::int32_t n = mz_stream_read(stream, buffer.data(), static_cast<std::int32_t>(buffer.size()));
        if (n == MZ_END_OF_STREAM) break;
        ASSERT_GT(n, 0);
        zip.insert(zip.end(), buffer.begin(), buffer.begin() + n);
    }
    mz_stream_close(stream);
    mz_stream_delete(&stream);
    UnpackResult result;
    std::string error;
    ASSERT_TRUE(unpackArchive(zip, dir / "out", result, &error)) << error;
    EXPECT_EQ(readTree(dir / "out"), readTree(dir / "tree"));
}
