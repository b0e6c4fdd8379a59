#include <gtest/gtest.h>

#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "archive/dir_pack_stream.h"
#include "archive/mz_stream.h"
#include "archive_support.h"
#include "common/bytes.h"
#include "support/temp_dir.h"

namespace {

using namespace archivetest;
namespace fs = std::filesystem;
using testsupport::TempDir;

// Reads the whole pack stream of `dir` in reads of `step` bytes.
Bytes packAll(const std::string& dir, std::int32_t step, PackMethodCallback method = nullptr) {
    MzStreamPtr stream(createDirPackStream());
    setDirPackStreamCallbacks(stream.get(), method, nullptr, nullptr);
    Bytes out;
    EXPECT_EQ(mz_stream_open(stream.get(), dir.c_str(), MZ_OPEN_MODE_READ), MZ_OK);
    std::vector<std::uint8_t> buffer(static_cast<std::size_t>(step));
    for (std::int32_t n; (n = mz_stream_read(stream.get(), buffer.data(), step)) > 0;)
        out.insert(out.end(), buffer.begin(), buffer.begin() + n);
    EXPECT_EQ(mz_stream_tell(stream.get()), static_cast<std::int64_t>(out.size()));
    EXPECT_EQ(mz_stream_close(stream.get()), MZ_OK);
    return out;
}

// Name -> method of every central directory entry, read through the end record.
std::map<std::string, std::uint16_t> centralEntries(const Bytes& archive) {
    std::map<std::string, std::uint16_t> entries;
    bytes::Reader end(archive, archive.size() - 22);
    if (archive.size() < 22 || end.u32() != 0x06054b50) return entries;
    end.skip(6);
    const std::uint16_t count = end.u16();
    end.skip(4);
    bytes::Reader r(archive, end.u32());
    for (std::uint16_t i = 0; i < count && r.ok() && r.u32() == 0x02014b50; ++i) {
        r.skip(6);
        const std::uint16_t method = r.u16();
        r.skip(16);
        const std::uint16_t nameLength = r.u16(), extraLength = r.u16(), commentLength = r.u16();
        r.skip(12);
        entries[std::string(r.text(nameLength))] = method;
        r.skip(extraLength + commentLength);
    }
    return entries;
}

TEST(PackStream, SmallReadsYieldTheSameBytesAsOneLargeRead) {
    TempDir work;
    makeSampleTree(work.path());
    const Bytes whole = packAll(work.str(), 1 << 24);
    for (const std::int32_t step : {1, 7, 4096}) EXPECT_EQ(packAll(work.str(), step), whole) << step;
}

TEST(PackStream, PeersAndTheUnpackStreamRestoreThePackedTree) {
    if (!haveTool("unzip") || !haveTool("bsdtar")) GTEST_SKIP() << "unzip or bsdtar is not installed";
    TempDir work;
    makeSampleTree(work / "tree");
    testsupport::writeFile(work / "tree" / "a" / "empty", "");
    const Bytes archive = packAll((work / "tree").string(), 131072);
    testsupport::writeFile(work / "out.zip", std::string(archive.begin(), archive.end()));
    EXPECT_EQ(shell("unzip -tq out.zip && bsdtar -tf out.zip >/dev/null", work.str()), 0);
    ASSERT_EQ(shell("unzip -q out.zip -d x", work.str()), 0);
    EXPECT_EQ(imageOf(work / "x"), imageOf(work / "tree"));
    for (const auto& chunker : {fixedChunks(1), randomChunks(3, 70000)}) {
        TempDir out;
        const auto outcome = unpackInto(archive, out.str(), chunker);
        EXPECT_EQ(outcome.firstFailure, 0);
        EXPECT_EQ(outcome.closeResult, 0);
        EXPECT_EQ(imageOf(out.path()), imageOf(work / "tree"));
    }
}

TEST(PackStream, AnEmptyDirectoryIsJustTheEndRecord) {
    TempDir work;
    MzStreamPtr stream(createDirPackStream());
    ASSERT_EQ(mz_stream_open(stream.get(), work.str().c_str(), MZ_OPEN_MODE_READ), MZ_OK);
    std::uint8_t buffer[100];
    ASSERT_EQ(mz_stream_read(stream.get(), buffer, sizeof buffer), 22);
    EXPECT_EQ(bytes::get32(buffer, 0), 0x06054b50u);
    EXPECT_EQ(mz_stream_read(stream.get(), buffer, sizeof buffer), MZ_END_OF_STREAM);
    EXPECT_EQ(mz_stream_read(stream.get(), buffer, sizeof buffer), MZ_END_OF_STREAM);
}

TEST(PackStream, TheMethodCallbackChoosesOrLeavesOut) {
    TempDir work;
    for (const char* name : {"keep.txt", "raw.bin", "skip.tmp", "new.zst", "skipdir.tmp/inside.txt"}) {
        fs::create_directories((work / name).parent_path());
        testsupport::writeFile(work / name, std::string(5000, name[0]));
    }
    const auto entries = centralEntries(packAll(work.str(), 131072, [](const char* name) -> std::int32_t {
        const std::string n = name;
        return n.ends_with(".tmp") ? -1 : n.ends_with(".bin") ? 0 : n.ends_with(".zst") ? 93 : 8;
    }));
    // zstd is written as deflate.
    EXPECT_EQ(entries, (std::map<std::string, std::uint16_t>{{"keep.txt", 8}, {"raw.bin", 0}, {"new.zst", 8}}));
}

TEST(PackStream, ProgressFollowsFilesInSteps) {
    TempDir work;
    std::string big(300000, '\0');
    std::mt19937 engine(99);  // incompressible, so output keeps pace with input
    for (auto& c : big) c = static_cast<char>(engine());
    testsupport::writeFile(work / "big.bin", big);
    std::vector<std::tuple<std::string, std::int64_t, std::int64_t, std::int32_t>> seen;
    MzStreamPtr stream(createDirPackStream());
    setDirPackStreamCallbacks(
        stream.get(), nullptr,
        [](void* user, const char* name, std::int64_t size, std::int64_t done, std::int32_t status) {
            static_cast<decltype(seen)*>(user)->emplace_back(name, size, done, status);
        },
        &seen);
    ASSERT_EQ(mz_stream_open(stream.get(), work.str().c_str(), MZ_OPEN_MODE_READ), MZ_OK);
    std::uint8_t buffer[512];
    while (mz_stream_read(stream.get(), buffer, sizeof buffer) > 0) {
    }
    ASSERT_GE(seen.size(), 4u);
    EXPECT_EQ(seen.back(), std::make_tuple(std::string(), 0, 0, 1));
    seen.pop_back();
    // The file goes to the writer in steps of 65535 bytes; a read ends after some step.
    for (const auto& [name, size, done, status] : seen) {
        EXPECT_EQ(std::tie(name, size, status), std::make_tuple("big.bin", 300000, 0));
        EXPECT_TRUE(done % 65535 == 0 || done == 300000) << done;
    }
    EXPECT_EQ(std::get<2>(seen.back()), 300000);
}

TEST(PackStream, OpenChecksItsArguments) {
    TempDir work;
    testsupport::writeFile(work / "file", "x");
    MzStreamPtr stream(createDirPackStream());
    void* s = stream.get();
    std::uint8_t buffer[1000];
    EXPECT_EQ(mz_stream_read(s, buffer, 1), MZ_STREAM_ERROR);
    EXPECT_EQ(mz_stream_open(s, nullptr, MZ_OPEN_MODE_READ), MZ_PARAM_ERROR);
    EXPECT_EQ(mz_stream_open(s, work.str().c_str(), MZ_OPEN_MODE_READ | 0x1000000), MZ_INTERNAL_ERROR);
    EXPECT_EQ(mz_stream_open(s, (work / "missing").c_str(), MZ_OPEN_MODE_READ), MZ_OPEN_ERROR);
    EXPECT_EQ(mz_stream_open(s, (work / "file").c_str(), MZ_OPEN_MODE_READ), MZ_OPEN_ERROR);
    ASSERT_EQ(mz_stream_open(s, work.str().c_str(), MZ_OPEN_MODE_READ), MZ_OK);
    EXPECT_EQ(mz_stream_open(s, work.str().c_str(), MZ_OPEN_MODE_READ), MZ_OPEN_ERROR);
    EXPECT_EQ(mz_stream_read(s, buffer, -1), MZ_PARAM_ERROR);
    EXPECT_EQ(mz_stream_seek(s, 0, MZ_SEEK_SET), MZ_PARAM_ERROR);
    // Closed early, then reused for a full archive.
    EXPECT_EQ(mz_stream_read(s, buffer, 1), 1);
    EXPECT_EQ(mz_stream_close(s), MZ_OK);
    EXPECT_EQ(mz_stream_is_open(s), MZ_OPEN_ERROR);
    ASSERT_EQ(mz_stream_open(s, work.str().c_str(), MZ_OPEN_MODE_READ), MZ_OK);
    EXPECT_EQ(mz_stream_tell(s), 0);
    Bytes out;
    for (std::int32_t n; (n = mz_stream_read(s, buffer, sizeof buffer)) > 0;) out.insert(out.end(), buffer, buffer + n);
    EXPECT_EQ(centralEntries(out), (std::map<std::string, std::uint16_t>{{"file", 8}}));
}

TEST(PackStream, SpecialFilesAndLinkLoopsAreNotFollowed) {
    TempDir work;
    testsupport::writeFile(work / "real.txt", "real");
    ASSERT_EQ(::mkfifo((work / "fifo").c_str(), 0600), 0);
    fs::create_directory(work / "sub");
    fs::create_directory_symlink("..", work / "sub" / "loop");
    fs::create_symlink("real.txt", work / "alias.txt");
    std::vector<std::string> names;
    for (const auto& e : centralEntries(packAll(work.str(), 4096))) names.push_back(e.first);
    EXPECT_EQ(names, (std::vector<std::string>{"alias.txt", "real.txt", "sub/"}));
}

}  // namespace
