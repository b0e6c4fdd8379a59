#include <gtest/gtest.h>

#include <sys/stat.h>

#include <filesystem>
#include <map>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "archive/dir_pack_stream.h"
#include "archive/stream.h"
#include "archive_support.h"
#include "common/bytes.h"
#include "support/temp_dir.h"

namespace {

using namespace archivetest;
namespace fs = std::filesystem;
using testsupport::TempDir;

// Reads the whole pack stream of `dir` in reads of `step` bytes, with `workers` threads (0: the
// machine's count) and an optional method callback.
Bytes packAll(const std::string& dir, std::int32_t step, unsigned workers = 0, PackMethodCallback method = nullptr) {
    MzStreamPtr stream(createDirPackStream());
    setDirPackStreamWorkers(stream.get(), workers);
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

// The tree our own unpack stream makes of a packed archive.
TreeImage unpacked(const Bytes& archive) {
    TempDir out;
    const auto outcome = unpackInto(archive, out.str(), fixedChunks(4096));
    EXPECT_EQ(outcome.firstFailure, 0);
    EXPECT_EQ(outcome.closeResult, 0);
    return imageOf(out.path());
}

// Files that span several blocks: a compressible one of 2.5 MiB, one of exactly 1 MiB (a whole
// number of blocks) and a stored one of 1.5 MiB.
void addLargeFiles(const fs::path& root) {
    std::string text;
    for (int i = 0; text.size() < 2621440; ++i) text += "block " + std::to_string(i * 7919 % 100003) + " spans workers\n";
    text.resize(2621440);
    testsupport::writeFile(root / "large.txt", text);
    testsupport::writeFile(root / "one-block.txt", text.substr(1000, 1 << 20));
    testsupport::writeFile(root / "large-stored.dat", text.substr(0, 1572864));
}
std::int32_t storeDatFiles(const char* name) {
    return std::string_view(name).ends_with(".dat") ? MZ_COMPRESS_METHOD_STORE : MZ_COMPRESS_METHOD_DEFLATE;
}

// Name and general-purpose flag of every central directory entry.
std::vector<std::pair<std::string, std::uint16_t>> centralEntries(const Bytes& archive) {
    std::vector<std::pair<std::string, std::uint16_t>> out;
    if (archive.size() < 22) return out;
    const std::span<const std::uint8_t> end(archive.data() + archive.size() - 22, 22);
    for (std::size_t at = bytes::get32(end, 16); at + 46 <= archive.size() && bytes::get32(archive, at) == 0x02014b50;) {
        const std::size_t nameSize = bytes::get16(archive, at + 28);
        out.emplace_back(std::string(archive.begin() + static_cast<std::ptrdiff_t>(at + 46),
                                     archive.begin() + static_cast<std::ptrdiff_t>(at + 46 + nameSize)),
                         bytes::get16(archive, at + 8));
        at += 46 + nameSize + bytes::get16(archive, at + 30) + bytes::get16(archive, at + 32);
    }
    return out;
}

TEST(PackStream, SameBytesWhateverTheWorkerCountAndReadSizes) {
    TempDir work;
    makeSampleTree(work.path());
    addLargeFiles(work / "a");
    const Bytes whole = packAll(work.str(), 1 << 24, 1, storeDatFiles);
    const std::pair<unsigned, std::int32_t> runs[] = {{2, 1}, {3, 7}, {2, 4096}, {1, 131072}, {3, 1 << 24}};
    for (const auto& [workers, step] : runs)
        EXPECT_EQ(packAll(work.str(), step, workers, storeDatFiles), whole) << workers << " workers, reads of " << step;
}

TEST(PackStream, PeersAndTheUnpackStreamRestoreThePackedTree) {
    if (!haveTool("unzip") || !haveTool("bsdtar") || !haveTool("python3"))
        GTEST_SKIP() << "unzip, bsdtar or python3 is not installed";
    TempDir work;
    makeSampleTree(work / "tree");
    testsupport::writeFile(work / "tree" / "a" / "empty", "");
    addLargeFiles(work / "tree" / "docs");
    const Bytes archive = packAll((work / "tree").string(), 131072, 2, storeDatFiles);
    testsupport::writeFile(work / "out.zip", std::string(archive.begin(), archive.end()));
    EXPECT_EQ(shell("unzip -tq out.zip >/dev/null && bsdtar -tf out.zip >/dev/null", work.str()), 0);
    ASSERT_EQ(shell("unzip -q out.zip -d x", work.str()), 0);
    EXPECT_EQ(imageOf(work / "x"), imageOf(work / "tree"));
    ASSERT_EQ(shell("mkdir y && bsdtar -xf out.zip -C y", work.str()), 0);
    EXPECT_EQ(imageOf(work / "y"), imageOf(work / "tree"));
    ASSERT_EQ(shell("python3 -c \"import zipfile, sys\nz = zipfile.ZipFile('out.zip')\n"
                    "sys.exit(z.testzip() is not None or z.extractall('p'))\"", work.str()), 0);
    EXPECT_EQ(imageOf(work / "p"), imageOf(work / "tree"));
    if (haveTool("7zz")) {
        ASSERT_EQ(shell("7zz x -bd -oz out.zip >/dev/null", work.str()), 0);
        EXPECT_EQ(imageOf(work / "z"), imageOf(work / "tree"));
    }
    EXPECT_EQ(unpacked(archive), imageOf(work / "tree"));
}

// Names that are UTF-8 (ASCII included) say so; other bytes go as they are with the flag clear.
TEST(PackStream, OnlyUtf8NamesCarryTheUtf8Flag) {
    TempDir work;
    const std::pair<std::string, bool> names[] = {
        {"plain.txt", true},         {"\xc3\xbcml\xc3\xa4ut", true}, {"\xf0\x9f\x93\x81 four", true},
        {"latin1 \xfc", false},      {"overlong \xc0\xaf", false},     {"surrogate \xed\xa0\x80", false},
        {"cut \xe2\x82", false},    {"beyond \xf4\x90\x80\x80", false},
    };
    for (const auto& [name, utf8] : names) testsupport::writeFile(work / name, name);
    const Bytes archive = packAll(work.str(), 4096);
    std::map<std::string, std::uint16_t> flags;
    for (const auto& [name, flag] : centralEntries(archive)) flags[name] = flag;
    for (const auto& [name, utf8] : names) {
        ASSERT_TRUE(flags.count(name)) << name;
        EXPECT_EQ((flags[name] & 0x0800) != 0, utf8) << name;
    }
    EXPECT_EQ(unpacked(archive).size(), std::size(names));
}

TEST(PackStream, OpeningChecksTheDirectoryAndAStreamIsReusable) {
    TempDir work;
    MzStreamPtr stream(createDirPackStream());
    void* s = stream.get();
    std::uint8_t buffer[1000];
    EXPECT_EQ(mz_stream_read(s, buffer, 1), MZ_STREAM_ERROR);
    EXPECT_EQ(mz_stream_open(s, (work / "missing").c_str(), MZ_OPEN_MODE_READ), MZ_OPEN_ERROR);
    // An empty directory is just the end record.
    ASSERT_EQ(mz_stream_open(s, work.str().c_str(), MZ_OPEN_MODE_READ), MZ_OK);
    ASSERT_EQ(mz_stream_read(s, buffer, sizeof buffer), 22);
    EXPECT_EQ(bytes::get32(buffer, 0), 0x06054b50u);
    EXPECT_EQ(mz_stream_read(s, buffer, sizeof buffer), MZ_END_OF_STREAM);
    EXPECT_EQ(mz_stream_read(s, buffer, sizeof buffer), MZ_END_OF_STREAM);
    EXPECT_EQ(mz_stream_close(s), MZ_OK);
    testsupport::writeFile(work / "file", "x");
    EXPECT_EQ(mz_stream_open(s, (work / "file").c_str(), MZ_OPEN_MODE_READ), MZ_OPEN_ERROR);
    // Closed early, then reused for a full archive.
    ASSERT_EQ(mz_stream_open(s, work.str().c_str(), MZ_OPEN_MODE_READ), MZ_OK);
    EXPECT_EQ(mz_stream_read(s, buffer, 1), 1);
    EXPECT_EQ(mz_stream_close(s), MZ_OK);
    ASSERT_EQ(mz_stream_open(s, work.str().c_str(), MZ_OPEN_MODE_READ), MZ_OK);
    Bytes out;
    for (std::int32_t n; (n = mz_stream_read(s, buffer, sizeof buffer)) > 0;) out.insert(out.end(), buffer, buffer + n);
    EXPECT_EQ(unpacked(out), (TreeImage{{"file", "x"}}));
}

TEST(PackStream, SpecialFilesAndLinkLoopsAreNotFollowed) {
    TempDir work;
    testsupport::writeFile(work / "real.txt", "real");
    ASSERT_EQ(::mkfifo((work / "fifo").c_str(), 0600), 0);
    fs::create_directory(work / "sub");
    fs::create_directory_symlink("..", work / "sub" / "loop");
    fs::create_symlink("real.txt", work / "alias.txt");
    EXPECT_EQ(unpacked(packAll(work.str(), 4096)), (TreeImage{{"alias.txt", "real"}, {"real.txt", "real"}, {"sub/", ""}}));
}

}  // namespace
