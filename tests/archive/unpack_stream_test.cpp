#include <gtest/gtest.h>

#include <sys/stat.h>

#include <filesystem>
#include <iterator>
#include <optional>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "archive/dir_unpack_stream.h"
#include "archive/stream.h"
#include "archive_support.h"
#include "common/bytes.h"
#include "support/temp_dir.h"

namespace {

using namespace archivetest;
namespace fs = std::filesystem;
using testsupport::readFile;
using testsupport::TempDir;

constexpr std::int32_t kWriteMode = MZ_OPEN_MODE_WRITE | MZ_OPEN_MODE_CREATE;

std::string repeatText(std::size_t n) {
    std::string s;
    while (s.size() < n) s += "the quick brown fox " + std::to_string(s.size()) + "\n";
    s.resize(n);
    return s;
}

// A zstd frame that declares a window of 2^windowLog bytes instead of its content size and holds
// the data in one raw block.
Bytes zstdWithWindow(const std::string& data, int windowLog) {
    Bytes out;
    bytes::Writer(out).u32(0xFD2FB528).u8(0).u8(static_cast<std::uint8_t>((windowLog - 10) << 3))
        .u16(static_cast<std::uint16_t>(data.size() << 3 | 1)).u8(static_cast<std::uint8_t>(data.size() >> 13)).raw(data);
    return out;
}

// One entry of each kind the stream extracts.
std::vector<HandEntry> mixedEntries() {
    return {
        {.name = "dir/", .data = ""},
        {.name = "dir/stored.txt", .data = "stored content\n"},
        {.name = "empty.txt", .data = "", .descriptor = true},
        {.name = "dir/deflated.txt", .data = repeatText(70000), .method = 8},
        {.name = "described.txt", .data = repeatText(3000), .method = 8, .descriptor = true},
        {.name = "zstd.txt", .data = repeatText(50000), .method = 93},
        {.name = "zstd-described.txt", .data = repeatText(100), .method = 93, .descriptor = true},
        // The largest window allowed: 8 MiB.
        {.name = "zstd-window.txt", .data = repeatText(10000), .method = 93,
         .payload = zstdWithWindow(repeatText(10000), 23)},
        {.name = "big64.txt", .data = repeatText(5000), .method = 8, .descriptor = true, .zip64 = true},
        {.name = "stored64.txt", .data = "zip64 sizes\n", .zip64 = true},
    };
}

// A fresh unpack stream opened on `dir`.
MzStreamPtr openOn(const std::string& dir) {
    MzStreamPtr stream(createDirUnpackStream());
    EXPECT_EQ(mz_stream_open(stream.get(), dir.c_str(), kWriteMode), MZ_OK);
    return stream;
}

std::int32_t write(const MzStreamPtr& stream, std::span<const std::uint8_t> bytes) {
    return mz_stream_write(stream.get(), bytes.data(), static_cast<std::int32_t>(bytes.size()));
}

TEST(UnpackStream, ExtractsEveryKindAtAnyChunking) {
    const auto entries = mixedEntries();
    const Bytes archive = buildArchive(entries);
    TreeImage expected;
    for (const auto& e : entries) expected[e.name] = e.data;
    std::vector<Chunker> chunkers = {fixedChunks(1), fixedChunks(3), fixedChunks(29), randomChunks(7, 5000)};
    // Two writes, cut at every offset near the ends and at every 89th one in between.
    for (std::size_t cut = 1; cut < archive.size(); cut += (cut < 100 || archive.size() - cut < 100) ? 1 : 89)
        chunkers.push_back([cut, first = true]() mutable { return std::exchange(first, false) ? cut : SIZE_MAX; });
    for (std::size_t i = 0; i < chunkers.size(); ++i) {
        TempDir dir;
        const auto outcome = unpackInto(archive, dir.str(), chunkers[i]);
        ASSERT_EQ(outcome.firstFailure, 0) << "chunking " << i;
        ASSERT_EQ(outcome.closeResult, 0) << "chunking " << i;
        ASSERT_EQ(imageOf(dir.path()), expected) << "chunking " << i;
    }
}

TEST(UnpackStream, TheCentralDirectoryEndsTheArchive) {
    TempDir dir;
    const auto stream = openOn(dir.str());
    const Bytes archive = buildArchive({{.name = "a.txt", .data = "a"}});
    const std::span<const std::uint8_t> bytes(archive);
    const std::size_t entryBytes = 30 + 5 + 1;
    EXPECT_EQ(write(stream, bytes.first(entryBytes)), static_cast<std::int32_t>(entryBytes));
    // The central directory's first bytes end the archive; the call still takes them all.
    EXPECT_EQ(write(stream, bytes.subspan(entryBytes, 10)), 10);
    EXPECT_EQ(write(stream, bytes.subspan(entryBytes + 10)), MZ_END_OF_STREAM);
    // Whatever follows is counted and dropped: the stream's memory stays flat.
    const Bytes junk(1 << 20, 'j');
    for (int i = 0; i < 32; ++i) ASSERT_EQ(write(stream, junk), MZ_END_OF_STREAM);
    EXPECT_EQ(dirUnpackStreamDroppedBytes(stream.get()), static_cast<std::int64_t>(archive.size() - entryBytes - 4 + 32 * junk.size()));
    EXPECT_LT(dirUnpackStreamHeldBytes(stream.get()), 4096);
    EXPECT_EQ(mz_stream_error(stream.get()), 0);
    EXPECT_EQ(mz_stream_close(stream.get()), 0);
    EXPECT_EQ(readFile(dir / "a.txt"), "a");

    // Nothing but the end record.
    TempDir empty;
    EXPECT_EQ(unpackInto(buildArchive({}), empty.str(), fixedChunks(1)).closeResult, 0);
    EXPECT_TRUE(imageOf(empty.path()).empty());
}

TEST(UnpackStream, OpeningChecksTheTargetAndStartsAFreshArchive) {
    TempDir dir;
    MzStreamPtr stream(createDirUnpackStream());
    void* s = stream.get();
    EXPECT_EQ(mz_stream_open(s, (dir / "missing").c_str(), kWriteMode), MZ_OPEN_ERROR);
    EXPECT_EQ(mz_stream_write(s, "x", 1), MZ_STREAM_ERROR);
    // Opened but never written to: nothing is missing.
    ASSERT_EQ(mz_stream_open(s, dir.str().c_str(), kWriteMode), MZ_OK);
    EXPECT_EQ(mz_stream_close(s), MZ_OK);
    // A good archive, a failed one, and a good one again on the same stream.
    for (const auto& [archive, result] : {std::pair(buildArchive({{.name = "one", .data = "1"}}), MZ_OK),
                                          std::pair(toBytes("garbage that is not a zip archive"), MZ_FORMAT_ERROR),
                                          std::pair(buildArchive({{.name = "two", .data = "2"}}), MZ_OK)}) {
        ASSERT_EQ(mz_stream_open(s, dir.str().c_str(), kWriteMode), MZ_OK);
        EXPECT_EQ(write(stream, archive), result == MZ_OK ? static_cast<std::int32_t>(archive.size()) : result);
        EXPECT_EQ(mz_stream_close(s), result);
    }
    EXPECT_EQ(imageOf(dir.path()), (TreeImage{{"one", "1"}, {"two", "2"}}));
}

TEST(UnpackStream, AnArchiveCutShortFailsAtClose) {
    // Entries only: wherever it stops, the central directory never comes.
    const Bytes archive = buildArchive(mixedEntries(), false);
    for (const std::size_t keep : {std::size_t{10}, std::size_t{200}, archive.size() / 2, archive.size() - 5, archive.size()}) {
        TempDir dir;
        const auto outcome = unpackInto(Bytes(archive.begin(), archive.begin() + static_cast<std::ptrdiff_t>(keep)),
                                        dir.str(), fixedChunks(4096));
        EXPECT_EQ(outcome.firstFailure, 0) << keep;
        EXPECT_EQ(outcome.closeResult, MZ_FORMAT_ERROR) << keep;
        EXPECT_EQ(outcome.failureText, "Bad message") << keep;
    }
}

TEST(UnpackStream, BadEntriesFailWithTheirOwnCode) {
    const std::string text = repeatText(10000);
    struct Case {
        HandEntry entry;
        std::int32_t code;
        std::optional<std::string> left;  // what stays in the entry's file, if it is made
        const char* text;                 // the system's error text the failure leaves
    };
    const char* damaged = "Bad message";
    const char* outside = "Operation not permitted";
    const std::vector<Case> cases = {
        {{.name = "crc", .data = text, .method = 8, .crc = 0x12345678}, MZ_CRC_ERROR, text, damaged},
        {{.name = "crc-described", .data = text, .method = 8, .descriptor = true, .crc = 1}, MZ_CRC_ERROR, text, damaged},
        {{.name = "m12", .data = "payload", .method = 12}, MZ_SUPPORT_ERROR, "", "Operation not supported"},
        {{.name = "m14", .data = "payload", .method = 14}, MZ_SUPPORT_ERROR, "", "Operation not supported"},
        {{.name = "deflate", .data = "abc", .method = 8, .payload = toBytes("\xff\xff\xff\xff no deflate")}, -3, "", damaged},
        {{.name = "zstd", .data = "abc", .method = 93, .payload = toBytes("this is no zstd frame")}, -2, "", damaged},
        // A 16 MiB window is more than the stream accepts.
        {{.name = "w24", .data = text, .method = 93, .payload = zstdWithWindow(text, 24)}, -2, "", "Cannot allocate memory"},
        // An empty stored entry without the descriptor flag still waits for a descriptor.
        {{.name = "empty"}, MZ_FORMAT_ERROR, "", damaged},
        {{.name = "blocker/inside/"}, MZ_EXIST_ERROR, std::nullopt, "Not a directory"},
        {{.name = "blocker/inside"}, MZ_OPEN_ERROR, std::nullopt, "Not a directory"},
        // Names that resolve to nothing below the target.
        {{.name = ".."}, MZ_INTERNAL_ERROR, std::nullopt, outside},
        {{.name = "/"}, MZ_INTERNAL_ERROR, std::nullopt, outside},
        {{.name = "./"}, MZ_INTERNAL_ERROR, std::nullopt, outside},
        {{.name = "a/.."}, MZ_INTERNAL_ERROR, std::nullopt, outside},
    };
    for (const auto& [entry, code, left, failureText] : cases) {
        TempDir dir;
        testsupport::writeFile(dir / "blocker", "x");
        // The entry after the bad one is never made; the failure is kept to the close.
        const auto outcome = unpackInto(buildArchive({entry, {.name = "next.txt", .data = "n"}}), dir.str(), fixedChunks(64));
        EXPECT_EQ(outcome.firstFailure, code) << entry.name;
        EXPECT_EQ(outcome.closeResult, code) << entry.name;
        EXPECT_EQ(outcome.failureText, failureText) << entry.name;
        TreeImage expected{{"blocker", "x"}};
        if (left) expected[entry.name] = *left;
        EXPECT_EQ(imageOf(dir.path()), expected) << entry.name;
    }
}

TEST(UnpackStream, ADataDescriptorCutByTheChunkBorderWaits) {
    // An entry whose descriptor signature is wrong, followed by other bytes: the stream can only
    // tell once it holds the 24 bytes a zip64 descriptor may take.
    Bytes archive;
    appendEntry(archive, {.name = "d.txt", .data = "descriptor data", .method = 8, .descriptor = true});
    const std::size_t descriptorAt = archive.size() - 16;
    archive[descriptorAt] = 'X';
    archive.resize(archive.size() + 40, 'T');
    for (const std::size_t left : {1, 16, 24, 25, 40}) {
        TempDir dir;
        const auto stream = openOn(dir.str());
        const std::int32_t expected = left <= 24 ? static_cast<std::int32_t>(descriptorAt + left) : MZ_FORMAT_ERROR;
        EXPECT_EQ(write(stream, std::span(archive).first(descriptorAt + left)), expected) << left;
        // A failure is returned again by every later write.
        if (expected < 0) {
            EXPECT_EQ(write(stream, std::span(archive).first(1)), expected) << left;
        }
    }
}

TEST(UnpackStream, NamesNeverLeaveTheTargetDirectory) {
    TempDir outer;
    const fs::path target = outer / "target", elsewhere = outer / "elsewhere";
    fs::create_directories(elsewhere);
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"../evil.txt", "evil.txt"},
        {"a/../../x.txt", "x.txt"},
        {"a/../../../b/../../y.txt", "y.txt"},
        {"/etc/abs.txt", "etc/abs.txt"},
        {"//double//slash.txt", "double/slash.txt"},
        {"..\\..\\back.txt", "back.txt"},
        {"dir\\sub\\win.txt", "dir/sub/win.txt"},
        {"./here/./dot.txt", "here/dot.txt"},
        {"\\\\server\\share.txt", "server/share.txt"},
    };
    std::vector<HandEntry> entries;
    for (const auto& [name, where] : cases) entries.push_back({.name = name, .data = where});
    entries.push_back({.name = "../../up/", .data = ""});
    entries.push_back({.name = "windows\\", .data = ""});
    fs::create_directories(target);
    const auto outcome = unpackInto(buildArchive(entries), target.string(), fixedChunks(7));
    EXPECT_EQ(outcome.firstFailure, 0);
    EXPECT_EQ(outcome.closeResult, 0);
    for (const auto& [name, where] : cases) EXPECT_EQ(readFile(target / where), where) << name;
    EXPECT_TRUE(fs::is_directory(target / "up"));
    EXPECT_TRUE(fs::is_directory(target / "windows"));

    // What already holds a name in the target is never written through, nor opened: a link to a
    // file outside, a hard link to one and a FIFO (an open would wait for a writer forever) each
    // give way to a new file. A link on the way to a name is not followed.
    testsupport::writeFile(elsewhere / "victim.txt", "untouched");
    fs::create_directory_symlink(elsewhere, target / "linkdir");
    fs::create_symlink(elsewhere / "victim.txt", target / "alias.txt");
    fs::create_hard_link(elsewhere / "victim.txt", target / "hard.txt");
    ASSERT_EQ(::mkfifo((target / "fifo").c_str(), 0600), 0);
    for (const auto& [name, code] : std::vector<std::pair<std::string, std::int32_t>>{
             {"linkdir/planted.txt", MZ_OPEN_ERROR},
             {"linkdir/deeper/planted.txt", MZ_OPEN_ERROR},
             {"linkdir/made/", MZ_EXIST_ERROR},
             {"alias.txt", MZ_OK},
             {"hard.txt", MZ_OK},
             {"fifo", MZ_OK}}) {
        EXPECT_EQ(unpackInto(buildArchive({{.name = name, .data = "planted"}}), target.string(), fixedChunks(64)).firstFailure,
                  code)
            << name;
        if (code == MZ_OK) {
            EXPECT_TRUE(fs::is_regular_file(fs::symlink_status(target / name))) << name;
            EXPECT_EQ(readFile(target / name), "planted") << name;
        }
    }
    // Nothing appeared beside the target or in the other directory.
    EXPECT_EQ(std::distance(fs::directory_iterator(outer.path()), fs::directory_iterator()), 2);
    EXPECT_EQ(imageOf(elsewhere), (TreeImage{{"victim.txt", "untouched"}}));
}

}  // namespace
