#include <gtest/gtest.h>

#include <zstd.h>

#include <filesystem>
#include <string>
#include <vector>

#include "archive/dir_unpack_stream.h"
#include "archive/mz_os.h"
#include "archive/mz_stream.h"
#include "archive_support.h"
#include "support/temp_dir.h"

namespace {

using namespace archivetest;
namespace fs = std::filesystem;
using testsupport::readFile;
using testsupport::TempDir;

std::string repeatText(std::size_t n) {
    std::string s;
    while (s.size() < n) s += "the quick brown fox " + std::to_string(s.size()) + "\n";
    s.resize(n);
    return s;
}

// One entry of each kind the stream extracts.
std::vector<HandEntry> mixedEntries() {
    std::vector<HandEntry> entries;
    entries.push_back({.name = "dir/", .data = ""});
    entries.push_back({.name = "dir/stored.txt", .data = "stored content\n"});
    entries.push_back({.name = "dir/deflated.txt", .data = repeatText(70000), .method = 8});
    entries.push_back({.name = "described.txt", .data = repeatText(3000), .method = 8, .descriptor = true});
    entries.push_back({.name = "zstd.txt", .data = repeatText(50000), .method = 93});
    entries.push_back({.name = "zstd-described.txt", .data = repeatText(100), .method = 93, .descriptor = true});
    entries.push_back({.name = "big64.txt", .data = repeatText(5000), .method = 8, .descriptor = true, .zip64 = true});
    entries.push_back({.name = "stored64.txt", .data = "zip64 sizes\n", .zip64 = true});
    return entries;
}

TreeImage expectedImage(const std::vector<HandEntry>& entries) {
    TreeImage image;
    for (const auto& e : entries) {
        if (!e.name.empty() && e.name.back() == '/') {
            image[e.name] = "";
        } else {
            image[e.name] = e.data;
        }
    }
    return image;
}

TEST(UnpackStream, ExtractsEveryMethodWithAnySplitOfTheBytes) {
    const auto entries = mixedEntries();
    const Bytes archive = buildArchive(entries);
    const TreeImage expected = expectedImage(entries);
    // Two writes, split at many offsets (the 1-byte chunking below cuts at every one).
    for (std::size_t cut = 0; cut <= archive.size(); cut += (cut < 100 || archive.size() - cut < 100) ? 1 : 89) {
        TempDir dir;
        bool first = true;
        const std::size_t firstSize = cut;
        const auto outcome = unpackInto(archive, dir.str(), [&] {
            if (first) {
                first = false;
                return firstSize == 0 ? archive.size() : firstSize;
            }
            return archive.size();
        });
        ASSERT_EQ(outcome.firstFailure, 0) << "cut at " << cut;
        ASSERT_EQ(outcome.closeResult, 0) << "cut at " << cut;
        ASSERT_EQ(imageOf(dir.path()), expected) << "cut at " << cut;
    }
}

TEST(UnpackStream, ExtractsInSmallAndRandomChunks) {
    const auto entries = mixedEntries();
    const Bytes archive = buildArchive(entries);
    for (const auto& chunker : {fixedChunks(1), fixedChunks(3), fixedChunks(29), randomChunks(7, 5000)}) {
        TempDir dir;
        const auto outcome = unpackInto(archive, dir.str(), chunker);
        ASSERT_EQ(outcome.firstFailure, 0);
        ASSERT_EQ(outcome.closeResult, 0);
        EXPECT_EQ(imageOf(dir.path()), expectedImage(entries));
    }
}

TEST(UnpackStream, WritesAfterTheCentralDirectoryReportTheEnd) {
    TempDir dir;
    const Bytes archive = buildArchive({{.name = "a.txt", .data = "a"}});
    struct Seen {
        std::string name = "unset";
        std::int64_t size = -1, done = -1;
        std::int32_t status = -1;
        int calls = 0;
    } seen;
    MzStreamPtr stream(createDirUnpackStream());
    setDirUnpackStreamProgress(
        stream.get(),
        [](void* user, const char* name, std::int64_t size, std::int64_t done, std::int32_t status) {
            auto* s = static_cast<Seen*>(user);
            s->name = name;
            s->size = size;
            s->done = done;
            s->status = status;
            ++s->calls;
        },
        &seen);
    ASSERT_EQ(mz_stream_open(stream.get(), dir.str().c_str(), MZ_OPEN_MODE_WRITE | MZ_OPEN_MODE_CREATE), MZ_OK);
    // Only the entry: in progress, named, complete.
    const std::size_t entryBytes = 30 + 5 + 1;
    EXPECT_EQ(mz_stream_write(stream.get(), archive.data(), static_cast<std::int32_t>(entryBytes)),
              static_cast<std::int32_t>(entryBytes));
    EXPECT_EQ(seen.status, 0);
    EXPECT_EQ(seen.name, "a.txt");
    EXPECT_EQ(seen.size, 1);
    EXPECT_EQ(seen.done, 1);
    // The central directory's first bytes end the archive; the call still takes them all.
    const auto rest = static_cast<std::int32_t>(archive.size() - entryBytes);
    EXPECT_EQ(mz_stream_write(stream.get(), archive.data() + entryBytes, 10), 10);
    EXPECT_EQ(seen.status, 1);
    EXPECT_EQ(seen.name, "");
    EXPECT_EQ(seen.size, 0);
    EXPECT_EQ(mz_stream_write(stream.get(), archive.data() + entryBytes + 10, rest - 10), MZ_END_OF_STREAM);
    EXPECT_EQ(seen.status, 1);
    EXPECT_EQ(seen.calls, 3);
    EXPECT_EQ(mz_stream_error(stream.get()), 0);
    EXPECT_EQ(mz_stream_close(stream.get()), 0);
    EXPECT_EQ(readFile(dir / "a.txt"), "a");
}

TEST(UnpackStream, AnArchiveWithoutEntriesEndsAtItsEndRecord) {
    TempDir dir;
    const auto outcome = unpackInto(buildArchive({}), dir.str(), fixedChunks(1));
    EXPECT_EQ(outcome.firstFailure, 0);
    EXPECT_EQ(outcome.closeResult, 0);
    EXPECT_TRUE(imageOf(dir.path()).empty());
}

TEST(UnpackStream, EveryOpenStartsAFreshArchive) {
    TempDir first, second;
    MzStreamPtr stream(createDirUnpackStream());
    for (const auto* target : {&first, &second}) {
        const Bytes archive = buildArchive({{.name = "f.txt", .data = target->str()}});
        ASSERT_EQ(mz_stream_open(stream.get(), target->str().c_str(), MZ_OPEN_MODE_WRITE | MZ_OPEN_MODE_CREATE),
                  MZ_OK);
        EXPECT_EQ(mz_stream_write(stream.get(), archive.data(), static_cast<std::int32_t>(archive.size())),
                  static_cast<std::int32_t>(archive.size()));
        EXPECT_EQ(mz_stream_close(stream.get()), MZ_OK);
        EXPECT_EQ(readFile(*target / "f.txt"), target->str());
    }
    // A failed archive does not poison the next one either.
    TempDir third;
    Bytes bad = toBytes("garbage that is not a zip archive at all");
    ASSERT_EQ(mz_stream_open(stream.get(), third.str().c_str(), MZ_OPEN_MODE_WRITE | MZ_OPEN_MODE_CREATE), MZ_OK);
    EXPECT_EQ(mz_stream_write(stream.get(), bad.data(), static_cast<std::int32_t>(bad.size())), MZ_FORMAT_ERROR);
    EXPECT_EQ(mz_stream_close(stream.get()), MZ_FORMAT_ERROR);
    const Bytes good = buildArchive({{.name = "ok", .data = "fine"}});
    ASSERT_EQ(mz_stream_open(stream.get(), third.str().c_str(), MZ_OPEN_MODE_WRITE | MZ_OPEN_MODE_CREATE), MZ_OK);
    EXPECT_EQ(mz_stream_write(stream.get(), good.data(), static_cast<std::int32_t>(good.size())),
              static_cast<std::int32_t>(good.size()));
    EXPECT_EQ(mz_stream_close(stream.get()), MZ_OK);
    EXPECT_EQ(readFile(third / "ok"), "fine");
}

TEST(UnpackStream, OpenChecksItsArguments) {
    TempDir dir;
    testsupport::writeFile(dir / "file", "x");
    MzStreamPtr stream(createDirUnpackStream());
    void* s = stream.get();
    const std::int32_t mode = MZ_OPEN_MODE_WRITE | MZ_OPEN_MODE_CREATE;
    EXPECT_EQ(mz_stream_open(s, nullptr, mode), MZ_PARAM_ERROR);
    EXPECT_EQ(mz_stream_open(s, dir.str().c_str(), mode | 0x1000000), MZ_INTERNAL_ERROR);
    EXPECT_EQ(mz_stream_open(s, "", mode), MZ_OPEN_ERROR);
    EXPECT_EQ(mz_stream_open(s, (dir / "file").c_str(), mode), MZ_OPEN_ERROR);
    EXPECT_EQ(mz_stream_open(s, (dir / "missing").c_str(), mode), MZ_OPEN_ERROR);
    EXPECT_EQ(mz_stream_is_open(s), MZ_OPEN_ERROR);
    EXPECT_EQ(mz_stream_write(s, "x", 1), MZ_STREAM_ERROR);
    ASSERT_EQ(mz_stream_open(s, dir.str().c_str(), mode), MZ_OK);
    EXPECT_EQ(mz_stream_is_open(s), MZ_OK);
    EXPECT_EQ(mz_stream_open(s, dir.str().c_str(), mode), MZ_PARAM_ERROR);
    EXPECT_EQ(mz_stream_write(s, "x", -1), MZ_PARAM_ERROR);
    EXPECT_EQ(mz_stream_tell(s), MZ_PARAM_ERROR);  // no tell, no seek
    // Opened but never written to: nothing is missing.
    EXPECT_EQ(mz_stream_close(s), MZ_OK);
}

TEST(UnpackStream, AnArchiveCutShortFailsAtClose) {
    // Entries only: wherever it stops, the central directory never comes.
    const Bytes archive = buildArchive(mixedEntries(), false);
    for (const std::size_t keep : {std::size_t{10}, std::size_t{200}, archive.size() / 2, archive.size() - 5,
                                   archive.size()}) {
        TempDir dir;
        const Bytes cut(archive.begin(), archive.begin() + static_cast<std::ptrdiff_t>(keep));
        const auto outcome = unpackInto(cut, dir.str(), fixedChunks(4096));
        EXPECT_EQ(outcome.firstFailure, 0) << keep;
        EXPECT_EQ(outcome.closeResult, MZ_FORMAT_ERROR) << keep;
    }
}

TEST(UnpackStream, CrcMismatchesAreStickyFailures) {
    for (const bool descriptor : {false, true}) {
        TempDir dir;
        const Bytes archive =
            buildArchive({{.name = "bad.txt", .data = repeatText(1000), .method = 8, .descriptor = descriptor,
                           .crc = 0x12345678},
                          {.name = "after.txt", .data = "never"}});
        MzStreamPtr stream(createDirUnpackStream());
        ASSERT_EQ(mz_stream_open(stream.get(), dir.str().c_str(), MZ_OPEN_MODE_WRITE | MZ_OPEN_MODE_CREATE), MZ_OK);
        EXPECT_EQ(mz_stream_write(stream.get(), archive.data(), static_cast<std::int32_t>(archive.size())),
                  MZ_CRC_ERROR);
        EXPECT_EQ(mz_stream_write(stream.get(), archive.data(), 1), MZ_CRC_ERROR);
        EXPECT_EQ(mz_stream_error(stream.get()), MZ_CRC_ERROR);
        EXPECT_EQ(mz_stream_close(stream.get()), MZ_CRC_ERROR);
        EXPECT_FALSE(fs::exists(dir / "after.txt"));
        // The partly written file stays.
        EXPECT_EQ(readFile(dir / "bad.txt"), repeatText(1000));
    }
}

TEST(UnpackStream, UnknownMethodsLeaveAnEmptyFile) {
    for (const std::uint16_t method : {std::uint16_t{12}, std::uint16_t{14}}) {
        TempDir dir;
        const Bytes archive = buildArchive({{.name = "odd.bin", .data = "payload", .method = method}});
        const auto outcome = unpackInto(archive, dir.str(), fixedChunks(131072));
        EXPECT_EQ(outcome.firstFailure, MZ_SUPPORT_ERROR);
        EXPECT_EQ(outcome.closeResult, MZ_SUPPORT_ERROR);
        ASSERT_TRUE(fs::exists(dir / "odd.bin"));
        EXPECT_EQ(fs::file_size(dir / "odd.bin"), 0u);
    }
}

TEST(UnpackStream, CorruptCompressedDataFails) {
    TempDir dir;
    Bytes garbage = toBytes("\xff\xff\xff\xff not a deflate stream");
    auto outcome = unpackInto(buildArchive({{.name = "x", .data = "abc", .method = 8, .payload = garbage}}),
                              dir.str(), fixedChunks(100));
    EXPECT_EQ(outcome.firstFailure, -3);  // zlib's data error
    Bytes notZstd = toBytes("this is no zstd frame");
    outcome = unpackInto(buildArchive({{.name = "y", .data = "abc", .method = 93, .payload = notZstd}}), dir.str(),
                         fixedChunks(100));
    EXPECT_EQ(outcome.firstFailure, -2);
}

// A zstd frame that declares its window instead of its content size.
Bytes zstdWithWindow(const std::string& data, int windowLog) {
    ZSTD_CCtx* context = ZSTD_createCCtx();
    ZSTD_CCtx_setParameter(context, ZSTD_c_windowLog, windowLog);
    ZSTD_CCtx_setParameter(context, ZSTD_c_contentSizeFlag, 0);
    Bytes out(ZSTD_compressBound(data.size()) + 64);
    // Streamed, so the compressor cannot shrink the window to the (unknown) size.
    ZSTD_inBuffer in{data.data(), data.size(), 0};
    ZSTD_outBuffer o{out.data(), out.size(), 0};
    ZSTD_compressStream2(context, &o, &in, ZSTD_e_continue);
    while (ZSTD_compressStream2(context, &o, &in, ZSTD_e_end) > 0) {
    }
    ZSTD_freeCCtx(context);
    out.resize(o.pos);
    return out;
}

TEST(UnpackStream, ZstdWindowsAreLimitedToEightMegabytes) {
    const std::string data = repeatText(10000);
    TempDir ok, refused;
    auto outcome = unpackInto(buildArchive({{.name = "w23", .data = data, .method = 93, .payload = zstdWithWindow(data, 23)}}),
                              ok.str(), fixedChunks(1000));
    EXPECT_EQ(outcome.closeResult, 0);
    EXPECT_EQ(readFile(ok / "w23"), data);
    outcome = unpackInto(buildArchive({{.name = "w24", .data = data, .method = 93, .payload = zstdWithWindow(data, 24)}}),
                         refused.str(), fixedChunks(1000));
    EXPECT_EQ(outcome.firstFailure, -2);
}

TEST(UnpackStream, ADataDescriptorCutByTheChunkBorderWaits) {
    // An entry with a descriptor whose signature is wrong.
    Bytes archive;
    appendEntry(archive, {.name = "d.txt", .data = "descriptor data", .method = 8, .descriptor = true});
    const std::size_t descriptorAt = archive.size() - 16;
    archive[descriptorAt] = 'X';
    const Bytes tail = toBytes(std::string(40, 'T'));
    for (const std::size_t left : {std::size_t{1}, std::size_t{16}, std::size_t{24}, std::size_t{25}, std::size_t{40}}) {
        TempDir dir;
        MzStreamPtr stream(createDirUnpackStream());
        ASSERT_EQ(mz_stream_open(stream.get(), dir.str().c_str(), MZ_OPEN_MODE_WRITE | MZ_OPEN_MODE_CREATE), MZ_OK);
        Bytes chunk(archive.begin(), archive.begin() + static_cast<std::ptrdiff_t>(descriptorAt));
        chunk.insert(chunk.end(), archive.begin() + static_cast<std::ptrdiff_t>(descriptorAt), archive.end());
        chunk.insert(chunk.end(), tail.begin(), tail.end());
        chunk.resize(descriptorAt + left);
        const auto rc = mz_stream_write(stream.get(), chunk.data(), static_cast<std::int32_t>(chunk.size()));
        if (left <= 24) {
            EXPECT_EQ(rc, static_cast<std::int32_t>(chunk.size())) << left;
        } else {
            EXPECT_EQ(rc, MZ_FORMAT_ERROR) << left;
        }
    }
}

TEST(UnpackStream, AnEmptyStoredEntryWaitsForADescriptor) {
    // Compressed size 0 without the descriptor flag still expects a descriptor after it.
    TempDir dir;
    auto outcome = unpackInto(buildArchive({{.name = "empty", .data = ""}, {.name = "next.txt", .data = "n"}}),
                              dir.str(), fixedChunks(131072));
    EXPECT_EQ(outcome.firstFailure, MZ_FORMAT_ERROR);
    EXPECT_TRUE(fs::exists(dir / "empty"));
    TempDir ok;
    outcome = unpackInto(buildArchive({{.name = "empty", .data = "", .descriptor = true}, {.name = "next.txt", .data = "n"}}),
                         ok.str(), fixedChunks(131072));
    EXPECT_EQ(outcome.firstFailure, 0);
    EXPECT_EQ(outcome.closeResult, 0);
    EXPECT_EQ(readFile(ok / "next.txt"), "n");
    EXPECT_EQ(readFile(ok / "empty"), "");
}

TEST(UnpackStream, NamesNeverLeaveTheTargetDirectory) {
    TempDir outer;
    const fs::path target = outer / "target";
    fs::create_directory(target);
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
    const auto outcome = unpackInto(buildArchive(entries), target.string(), fixedChunks(7));
    ASSERT_EQ(outcome.firstFailure, 0);
    EXPECT_EQ(outcome.closeResult, 0);
    for (const auto& [name, where] : cases) EXPECT_EQ(readFile(target / where), where) << name;
    EXPECT_TRUE(fs::is_directory(target / "up"));
    // Nothing appeared beside the target.
    std::vector<std::string> outside;
    for (const auto& e : fs::directory_iterator(outer.path())) outside.push_back(e.path().filename().string());
    EXPECT_EQ(outside, std::vector<std::string>{"target"});
}

TEST(UnpackStream, LinksInTheTargetAreNotFollowed) {
    TempDir outer;
    const fs::path target = outer / "target", elsewhere = outer / "elsewhere";
    fs::create_directory(target);
    fs::create_directory(elsewhere);
    testsupport::writeFile(elsewhere / "victim.txt", "untouched");
    fs::create_directory_symlink(elsewhere, target / "linkdir");
    fs::create_symlink(elsewhere / "victim.txt", target / "alias.txt");
    const std::vector<std::pair<std::string, std::int32_t>> cases = {
        {"linkdir/planted.txt", MZ_OPEN_ERROR},
        {"linkdir/deeper/planted.txt", MZ_OPEN_ERROR},
        {"alias.txt", MZ_OPEN_ERROR},
        {"linkdir/made/", MZ_EXIST_ERROR},
    };
    for (const auto& [name, code] : cases) {
        const auto outcome = unpackInto(buildArchive({{.name = name, .data = "planted"}}), target.string(), fixedChunks(64));
        EXPECT_EQ(outcome.firstFailure, code) << name;
    }
    std::vector<std::string> there;
    for (const auto& e : fs::directory_iterator(elsewhere)) there.push_back(e.path().filename().string());
    EXPECT_EQ(there, std::vector<std::string>{"victim.txt"});
    EXPECT_EQ(readFile(elsewhere / "victim.txt"), "untouched");
}

TEST(UnpackStream, NamesThatResolveToNothingFail) {
    for (const std::string name : {"..", "/", "./", "a/.."}) {
        TempDir dir;
        const auto outcome = unpackInto(buildArchive({{.name = name, .data = "x"}}), dir.str(), fixedChunks(64));
        EXPECT_EQ(outcome.firstFailure, MZ_INTERNAL_ERROR) << name;
    }
}

TEST(UnpackStream, DirectoriesComeFromTrailingSeparatorsAndParentsAreMade) {
    TempDir dir;
    const auto outcome = unpackInto(buildArchive({{.name = "plain/", .data = ""},
                                                  {.name = "windows\\", .data = ""},
                                                  {.name = "no/parents/given/f.txt", .data = "deep"}}),
                                    dir.str(), fixedChunks(5));
    EXPECT_EQ(outcome.closeResult, 0);
    EXPECT_TRUE(fs::is_directory(dir / "plain"));
    EXPECT_TRUE(fs::is_directory(dir / "windows"));
    EXPECT_EQ(readFile(dir / "no/parents/given/f.txt"), "deep");
}

TEST(UnpackStream, AFileWhereADirectoryMustGoFails) {
    TempDir dir;
    testsupport::writeFile(dir / "blocker", "x");
    const auto outcome = unpackInto(buildArchive({{.name = "blocker/inside/", .data = ""}}), dir.str(), fixedChunks(64));
    EXPECT_EQ(outcome.firstFailure, MZ_EXIST_ERROR);
}

TEST(UnpackStream, ProgressReportsFailures) {
    TempDir dir;
    std::vector<std::int32_t> statuses;
    MzStreamPtr stream(createDirUnpackStream());
    setDirUnpackStreamProgress(
        stream.get(),
        [](void* user, const char*, std::int64_t, std::int64_t, std::int32_t status) {
            static_cast<std::vector<std::int32_t>*>(user)->push_back(status);
        },
        &statuses);
    ASSERT_EQ(mz_stream_open(stream.get(), dir.str().c_str(), MZ_OPEN_MODE_WRITE | MZ_OPEN_MODE_CREATE), MZ_OK);
    const Bytes archive = buildArchive({{.name = "a", .data = "abc", .crc = 1}});
    EXPECT_EQ(mz_stream_write(stream.get(), archive.data(), 20), 20);
    EXPECT_EQ(mz_stream_write(stream.get(), archive.data() + 20, 100), MZ_CRC_ERROR);
    EXPECT_EQ(mz_stream_write(stream.get(), archive.data(), 1), MZ_CRC_ERROR);  // returns at once, no report
    EXPECT_EQ(statuses, (std::vector<std::int32_t>{0, 2}));
}

TEST(ZipAttributes, DirectoriesByHost) {
    EXPECT_EQ(mz_zip_attrib_is_dir(0x10, 0x0014), MZ_OK);            // MS-DOS
    EXPECT_NE(mz_zip_attrib_is_dir(0x410, 0x0014), MZ_OK);           // reparse point
    EXPECT_EQ(mz_zip_attrib_is_dir(0x10, 0x0A2D), MZ_OK);            // NTFS
    EXPECT_NE(mz_zip_attrib_is_dir(0x20, 0x0A2D), MZ_OK);
    EXPECT_EQ(mz_zip_attrib_is_dir(0x41ED0010, 0x031E), MZ_OK);      // Unix, mode in the high half
    EXPECT_NE(mz_zip_attrib_is_dir(0x81A40000, 0x031E), MZ_OK);
    EXPECT_EQ(mz_zip_attrib_is_dir(0040755, 0x0314), MZ_OK);         // Unix, mode alone
    EXPECT_EQ(mz_zip_attrib_is_dir(0x41ED0000, 0x0D00), MZ_OK);      // RISC OS
    EXPECT_EQ(mz_zip_attrib_is_dir(0x41ED0000, 0x1300), MZ_OK);      // OS X
    EXPECT_NE(mz_zip_attrib_is_dir(0xA1ED0000, 0x1300), MZ_OK);      // a symbolic link
    EXPECT_NE(mz_zip_attrib_is_dir(0x10, 0x0300), MZ_OK);            // DOS bit means nothing to Unix
    EXPECT_NE(mz_zip_attrib_is_dir(0x41ED0010, 0x0B00), MZ_OK);      // an unnamed host
}

}  // namespace
