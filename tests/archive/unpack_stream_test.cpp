// The unpack stream whole, on scratch directories: what extraction makes, where, and which write
// reports a failure. How records are read is the parser's test (record_parser_test.cpp).
#include <gtest/gtest.h>

#include <sys/stat.h>

#include <filesystem>
#include <iterator>
#include <optional>
#include <span>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "archive/dir_unpack_stream.h"
#include "archive/stream.h"
#include "archive_support.h"
#include "common/bytes.h"
#include "platform/platform.h"
#include "support/temp_dir.h"

namespace {

using namespace archivetest;
namespace fs = std::filesystem;
using testsupport::readFile;
using testsupport::TempDir;

constexpr std::int32_t kWriteMode = MZ_OPEN_MODE_WRITE | MZ_OPEN_MODE_CREATE;

// A fresh unpack stream opened on `dir`.
MzStreamPtr openOn(const std::string& dir) {
    MzStreamPtr stream(createDirUnpackStream());
    EXPECT_EQ(mz_stream_open(stream.get(), dir.c_str(), kWriteMode), MZ_OK);
    return stream;
}

std::int32_t write(const MzStreamPtr& stream, std::span<const std::uint8_t> bytes) {
    return mz_stream_write(stream.get(), bytes.data(), static_cast<std::int32_t>(bytes.size()));
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
    const Bytes archive = buildArchive({{.name = "d/a.txt", .data = repeatText(9000), .method = 8},
                                        {.name = "b.txt", .data = repeatText(700), .method = 8, .descriptor = true}},
                                       false);
    for (const std::size_t keep : {std::size_t{10}, std::size_t{200}, archive.size() / 2, archive.size() - 5, archive.size()}) {
        TempDir dir;
        const auto outcome = unpackInto(Bytes(archive.begin(), archive.begin() + static_cast<std::ptrdiff_t>(keep)),
                                        dir.str(), fixedChunks(4096));
        EXPECT_EQ(outcome.firstFailure, 0) << keep;
        EXPECT_EQ(outcome.closeResult, MZ_FORMAT_ERROR) << keep;
        EXPECT_EQ(outcome.failureText, "Bad message") << keep;
    }
}

TEST(UnpackStream, AFailureIsReportedByTheWriteThatMetIt) {
    const std::string text = repeatText(10000);
    struct Case {
        HandEntry entry;
        std::int32_t code;
        std::optional<std::string> left;  // what stays in the entry's file, if it is made
        const char* text;                 // the system's error text the failure leaves
    };
    const std::vector<Case> cases = {
        {{.name = "crc", .data = text, .method = 8, .descriptor = true, .crc = 0x12345678}, MZ_CRC_ERROR, text, "Bad message"},
        {{.name = "m12", .data = "payload", .method = 12}, MZ_SUPPORT_ERROR, "", "Operation not supported"},
        {{.name = "blocker/inside/"}, MZ_EXIST_ERROR, std::nullopt, "Not a directory"},
        {{.name = "blocker/inside"}, MZ_OPEN_ERROR, std::nullopt, "Not a directory"},
        {{.name = ".."}, MZ_INTERNAL_ERROR, std::nullopt, "Operation not permitted"},
    };
    for (const auto& [entry, code, left, failureText] : cases) {
        TempDir dir;
        testsupport::writeFile(dir / "blocker", "x");
        Bytes archive;
        appendEntry(archive, entry);
        const std::size_t firstWrite = archive.size();
        archive = buildArchive({entry, {.name = "next.txt", .data = "n"}});
        // The write that carried the bad entry fails; so does every later one, and the close.
        const auto stream = openOn(dir.str());
        EXPECT_EQ(write(stream, std::span(archive).first(firstWrite)), code) << entry.name;
        EXPECT_EQ(platform::lastErrorText(), failureText) << entry.name;
        EXPECT_EQ(write(stream, std::span(archive).subspan(firstWrite)), code) << entry.name;
        EXPECT_EQ(mz_stream_close(stream.get()), code) << entry.name;
        EXPECT_EQ(platform::lastErrorText(), failureText) << entry.name;
        // The entry after the bad one is never made.
        TreeImage expected{{"blocker", "x"}};
        if (left) expected[entry.name] = *left;
        EXPECT_EQ(imageOf(dir.path()), expected) << entry.name;
    }
}

TEST(UnpackStream, WorkersChangeNothing) {
    // Entries decoded apart, several at once, give the same tree and failure as reading in order,
    // in any chunking: also where the 30th entry's header lies about its sizes (its bytes are then
    // read again, in order), where it is damaged or cannot be made, and where the archive ends.
    std::vector<HandEntry> entries;
    for (std::size_t i = 0; i < 300; ++i)
        entries.push_back({.name = "d" + std::to_string(i % 3) + "/f" + std::to_string(i), .data = repeatText(1 + 977 * (i % 41)),
                           .method = static_cast<std::uint16_t>(i % 4 == 0 ? 0 : 8)});
    entries[20] = {.name = "d1/sub/"};
    const Bytes sound = buildArchive(entries);
    const std::size_t at = buildArchive({entries.begin(), entries.begin() + 30}, false).size();
    const auto changed = [&](std::size_t offset, std::int64_t by) {
        Bytes archive = sound;
        bytes::put32(archive, at + offset, static_cast<std::uint32_t>(bytes::get32(archive, at + offset) + by));
        return archive;
    };
    // Compressed size short, uncompressed size short and long, the CRC-32, compressed size long (by
    // a whole record), the data, the end, a parent that is a file.
    std::vector<Bytes> archives = {sound, changed(18, -40), changed(22, -500), changed(22, 7), changed(14, 1),
                                   changed(18, static_cast<std::int64_t>(buildArchive({entries[30]}, false).size())),
                                   changed(200, 0x55555555), Bytes(sound.begin(), sound.begin() + static_cast<std::ptrdiff_t>(at + 300))};
    entries[30].name = "d0/f3/x";
    archives.push_back(buildArchive(entries));
    for (const auto& archive : archives) {
        for (const std::size_t chunk : {std::size_t{3000}, std::size_t{65536}, archive.size()}) {
            const auto chunker = [&] { return chunk == archive.size() ? fixedChunks(chunk) : randomChunks(7, chunk); };
            TempDir inOrder, apart;
            const auto expected = unpackInto(archive, inOrder.str(), chunker(), 1);
            const auto outcome = unpackInto(archive, apart.str(), chunker(), 3);
            EXPECT_EQ(std::tie(outcome.firstFailure, outcome.closeResult, outcome.failureText),
                      std::tie(expected.firstFailure, expected.closeResult, expected.failureText))
                << &archive - archives.data() << " in chunks of " << chunk;
            EXPECT_EQ(imageOf(apart.path()), imageOf(inOrder.path())) << &archive - archives.data() << " in chunks of " << chunk;
        }
    }
}

TEST(UnpackStream, NamesNeverLeaveTheTargetDirectory) {
    TempDir outer;
    const fs::path target = outer / "target", elsewhere = outer / "elsewhere";
    fs::create_directories(elsewhere);
    // How names resolve is the parser's test; here, what already holds a name in the target is
    // never written through, nor opened: a link to a file outside, a hard link to one and a FIFO
    // (an open would wait for a writer forever) each give way to a new file. A link on the way to
    // a name is not followed.
    fs::create_directories(target);
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
