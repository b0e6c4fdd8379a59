#include <gtest/gtest.h>

#include <sys/stat.h>

#include <filesystem>
#include <string>
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

// Reads the whole pack stream of `dir` in reads of `step` bytes.
Bytes packAll(const std::string& dir, std::int32_t step) {
    MzStreamPtr stream(createDirPackStream());
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

TEST(PackStream, SmallReadsYieldTheSameBytesAsOneLargeRead) {
    TempDir work;
    makeSampleTree(work.path());
    const Bytes whole = packAll(work.str(), 1 << 24);
    for (const std::int32_t step : {1, 7, 4096}) EXPECT_EQ(packAll(work.str(), step), whole) << step;
}

// Every name that is valid UTF-8 carries the UTF-8 flag, plain ASCII included; one that is not
// keeps its bytes with the flag clear, so strict readers take the whole archive.
constexpr const char* kCheckNameFlags = R"(python3 -c "
import zipfile
def utf8(raw):
    try:
        raw.decode('utf-8')
        return True
    except UnicodeDecodeError:
        return False
with zipfile.ZipFile('out.zip') as z:
    for i in z.infolist():
        flagged = bool(i.flag_bits & 0x800)
        assert flagged == utf8(i.filename.encode('utf-8' if flagged else 'cp437')), i.filename
        z.read(i)  # the local header's name and flag must agree with the central one
")";

TEST(PackStream, PeersAndTheUnpackStreamRestoreThePackedTree) {
    if (!haveTool("unzip") || !haveTool("bsdtar") || !haveTool("python3"))
        GTEST_SKIP() << "unzip, bsdtar or python3 is not installed";
    TempDir work;
    makeSampleTree(work / "tree");
    testsupport::writeFile(work / "tree" / "a" / "empty", "");
    testsupport::writeFile(work / "tree" / "a" / "latin-1 \xe9t\xe9", "not UTF-8\n");
    const Bytes archive = packAll((work / "tree").string(), 131072);
    testsupport::writeFile(work / "out.zip", std::string(archive.begin(), archive.end()));
    EXPECT_EQ(shell("unzip -tq out.zip && bsdtar -tf out.zip >/dev/null", work.str()), 0);
    EXPECT_EQ(shell(kCheckNameFlags, work.str()), 0);
    ASSERT_EQ(shell("unzip -q out.zip -d x && mkdir y && LC_ALL=C.UTF-8 bsdtar -xf out.zip -C y", work.str()), 0);
    EXPECT_EQ(imageOf(work / "x"), imageOf(work / "tree"));
    EXPECT_EQ(imageOf(work / "y"), imageOf(work / "tree"));
    EXPECT_EQ(unpacked(archive), imageOf(work / "tree"));
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
