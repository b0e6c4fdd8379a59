#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

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
Bytes packAll(const std::string& dir, std::int32_t step, PackMethodCallback method = nullptr,
              std::int32_t* endResult = nullptr) {
    MzStreamPtr stream(createDirPackStream());
    setDirPackStreamCallbacks(stream.get(), method, nullptr, nullptr);
    Bytes out;
    if (mz_stream_open(stream.get(), dir.c_str(), MZ_OPEN_MODE_READ) != MZ_OK) return out;
    std::vector<std::uint8_t> buffer(static_cast<std::size_t>(step));
    for (;;) {
        const std::int32_t n = mz_stream_read(stream.get(), buffer.data(), step);
        if (n <= 0) {
            if (endResult) *endResult = n;
            break;
        }
        out.insert(out.end(), buffer.begin(), buffer.begin() + n);
    }
    EXPECT_EQ(mz_stream_tell(stream.get()), static_cast<std::int64_t>(out.size()));
    EXPECT_EQ(mz_stream_close(stream.get()), MZ_OK);
    return out;
}

struct CentralEntry {
    std::string name;
    std::uint16_t method;
};

// The entries of the central directory, read through the end record (no archive comment).
std::vector<CentralEntry> centralEntries(const Bytes& archive) {
    std::vector<CentralEntry> entries;
    if (archive.size() < 22) return entries;
    bytes::Reader end(archive, archive.size() - 22);
    if (end.u32() != 0x06054b50) return entries;
    end.skip(6);
    const std::uint16_t count = end.u16();
    end.skip(4);
    bytes::Reader r(archive, end.u32());
    for (std::uint16_t i = 0; i < count && r.ok(); ++i) {
        if (r.u32() != 0x02014b50) break;
        r.skip(6);
        const std::uint16_t method = r.u16();
        r.skip(16);
        const std::uint16_t nameLength = r.u16(), extraLength = r.u16(), commentLength = r.u16();
        r.skip(12);
        entries.push_back({std::string(r.text(nameLength)), method});
        r.skip(extraLength + commentLength);
    }
    return entries;
}

TEST(PackStream, PeersReadWhatItWrites) {
    if (!haveTool("unzip") || !haveTool("bsdtar")) GTEST_SKIP() << "unzip or bsdtar is not installed";
    TempDir work;
    makeSampleTree(work / "tree");
    testsupport::writeFile(work / "tree" / "empty.txt", "");
    const Bytes archive = packAll((work / "tree").string(), 131072);
    ASSERT_GT(archive.size(), 100u);
    testsupport::writeFile(work / "out.zip", std::string(archive.begin(), archive.end()));
    EXPECT_EQ(shell("unzip -tq out.zip", work.str()), 0);
    EXPECT_EQ(shell("bsdtar -tf out.zip >/dev/null", work.str()), 0);
    fs::create_directory(work / "x");
    ASSERT_EQ(shell("unzip -q ../out.zip", (work / "x").string()), 0);
    EXPECT_EQ(imageOf(work / "x"), imageOf(work / "tree"));
}

TEST(PackStream, SmallReadsYieldTheSameBytesAsOneLargeRead) {
    TempDir work;
    makeSampleTree(work / "tree");
    const Bytes whole = packAll((work / "tree").string(), 1 << 24);
    for (const std::int32_t step : {1, 7, 4096, 131072}) EXPECT_EQ(packAll((work / "tree").string(), step), whole) << step;
}

TEST(PackStream, TheUnpackStreamRestoresThePackedTree) {
    TempDir work;
    makeSampleTree(work / "tree");
    testsupport::writeFile(work / "tree" / "a" / "empty", "");
    const Bytes archive = packAll((work / "tree").string(), 65536);
    for (const auto& chunker : {fixedChunks(1), fixedChunks(131072), randomChunks(3, 70000)}) {
        TempDir out;
        const auto outcome = unpackInto(archive, out.str(), chunker);
        ASSERT_EQ(outcome.firstFailure, 0);
        ASSERT_EQ(outcome.closeResult, 0);
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
    EXPECT_EQ(mz_stream_close(stream.get()), MZ_OK);
}

TEST(PackStream, NamesAreRelativeAndTheWalkIsDepthFirst) {
    TempDir work;
    makeSampleTree(work / "tree");
    const auto entries = centralEntries(packAll((work / "tree").string() + "/", 131072));
    ASSERT_EQ(entries.size(), imageOf(work / "tree").size());
    for (std::size_t i = 0; i < entries.size(); ++i) {
        const std::string& name = entries[i].name;
        EXPECT_NE(name.front(), '/') << name;
        EXPECT_EQ(name.find('\\'), std::string::npos) << name;
        EXPECT_EQ(name.find("tree"), std::string::npos) << name;
        if (name.back() != '/') continue;
        // Everything below a directory follows it before anything else.
        std::size_t j = i + 1;
        while (j < entries.size() && entries[j].name.starts_with(name)) ++j;
        for (std::size_t k = j; k < entries.size(); ++k) EXPECT_FALSE(entries[k].name.starts_with(name)) << name;
    }
}

TEST(PackStream, TheMethodCallbackChoosesOrLeavesOut) {
    TempDir work;
    testsupport::writeFile(work / "keep.txt", std::string(5000, 'k'));
    testsupport::writeFile(work / "raw.bin", std::string(5000, 'r'));
    testsupport::writeFile(work / "skip.tmp", "gone");
    testsupport::writeFile(work / "new.zst", std::string(5000, 'z'));
    fs::create_directory(work / "skipdir.tmp");
    testsupport::writeFile(work / "skipdir.tmp" / "inside.txt", "gone too");
    const auto entries = centralEntries(packAll(work.str(), 131072, [](const char* name) -> std::int32_t {
        const std::string n = name;
        if (n.ends_with(".tmp")) return -1;
        if (n.ends_with(".bin")) return 0;
        if (n.ends_with(".zst")) return 93;
        return 8;
    }));
    std::map<std::string, std::uint16_t> methods;
    for (const auto& e : entries) methods[e.name] = e.method;
    EXPECT_EQ(methods, (std::map<std::string, std::uint16_t>{{"keep.txt", 8}, {"raw.bin", 0}, {"new.zst", 8}}));
}

TEST(PackStream, ProgressFollowsFilesInSteps) {
    TempDir work;
    std::string big(300000, '\0');
    std::mt19937 engine(99);  // incompressible, so output keeps pace with input
    for (auto& c : big) c = static_cast<char>(engine());
    testsupport::writeFile(work / "big.bin", big);
    struct Seen {
        std::vector<std::int64_t> done;
        std::vector<std::int32_t> statuses;
        std::string lastName;
    } seen;
    MzStreamPtr stream(createDirPackStream());
    setDirPackStreamCallbacks(
        stream.get(), nullptr,
        [](void* user, const char* name, std::int64_t size, std::int64_t done, std::int32_t status) {
            auto* s = static_cast<Seen*>(user);
            if (status == 0 && std::string(name) == "big.bin") {
                EXPECT_EQ(size, 300000);
                if (s->done.empty() || s->done.back() != done) s->done.push_back(done);
            }
            s->statuses.push_back(status);
            s->lastName = name;
        },
        &seen);
    ASSERT_EQ(mz_stream_open(stream.get(), work.str().c_str(), MZ_OPEN_MODE_READ), MZ_OK);
    std::uint8_t buffer[512];
    while (mz_stream_read(stream.get(), buffer, sizeof buffer) > 0) {
    }
    ASSERT_FALSE(seen.done.empty());
    EXPECT_EQ(seen.done.back(), 300000);
    // The file goes to the writer in steps of 65535 bytes; a read ends after some step.
    for (const auto done : seen.done) EXPECT_TRUE(done % 65535 == 0 || done == 300000) << done;
    EXPECT_GE(seen.done.size(), 3u);
    EXPECT_EQ(seen.statuses.back(), 1);
    EXPECT_EQ(seen.lastName, "");
}

TEST(PackStream, OpenChecksItsArguments) {
    TempDir work;
    testsupport::writeFile(work / "file", "x");
    MzStreamPtr stream(createDirPackStream());
    void* s = stream.get();
    std::uint8_t byte;
    EXPECT_EQ(mz_stream_read(s, &byte, 1), MZ_STREAM_ERROR);
    EXPECT_EQ(mz_stream_open(s, nullptr, MZ_OPEN_MODE_READ), MZ_PARAM_ERROR);
    EXPECT_EQ(mz_stream_open(s, work.str().c_str(), MZ_OPEN_MODE_READ | 0x1000000), MZ_INTERNAL_ERROR);
    EXPECT_EQ(mz_stream_open(s, (work / "missing").c_str(), MZ_OPEN_MODE_READ), MZ_OPEN_ERROR);
    EXPECT_EQ(mz_stream_open(s, (work / "file").c_str(), MZ_OPEN_MODE_READ), MZ_OPEN_ERROR);
    ASSERT_EQ(mz_stream_open(s, work.str().c_str(), MZ_OPEN_MODE_READ), MZ_OK);
    EXPECT_EQ(mz_stream_open(s, work.str().c_str(), MZ_OPEN_MODE_READ), MZ_OPEN_ERROR);
    EXPECT_EQ(mz_stream_read(s, &byte, -1), MZ_PARAM_ERROR);
    EXPECT_EQ(mz_stream_seek(s, 0, MZ_SEEK_SET), MZ_PARAM_ERROR);
    // Closed early, then reused for a full archive.
    EXPECT_EQ(mz_stream_read(s, &byte, 1), 1);
    EXPECT_EQ(mz_stream_close(s), MZ_OK);
    EXPECT_EQ(mz_stream_is_open(s), MZ_OPEN_ERROR);
    ASSERT_EQ(mz_stream_open(s, work.str().c_str(), MZ_OPEN_MODE_READ), MZ_OK);
    EXPECT_EQ(mz_stream_tell(s), 0);
    Bytes out;
    std::uint8_t buffer[1000];
    for (std::int32_t n; (n = mz_stream_read(s, buffer, sizeof buffer)) > 0;) out.insert(out.end(), buffer, buffer + n);
    ASSERT_EQ(centralEntries(out).size(), 1u);
    EXPECT_EQ(centralEntries(out)[0].name, "file");
}

TEST(PackStream, SpecialFilesAndLinkLoopsAreNotFollowed) {
    TempDir work;
    testsupport::writeFile(work / "real.txt", "real");
    ASSERT_EQ(::mkfifo((work / "fifo").c_str(), 0600), 0);
    fs::create_directory(work / "sub");
    fs::create_directory_symlink("..", work / "sub" / "loop");
    fs::create_symlink("real.txt", work / "alias.txt");
    std::vector<std::string> names;
    for (const auto& e : centralEntries(packAll(work.str(), 4096))) names.push_back(e.name);
    std::sort(names.begin(), names.end());
    EXPECT_EQ(names, (std::vector<std::string>{"alias.txt", "real.txt", "sub/"}));
}

}  // namespace
