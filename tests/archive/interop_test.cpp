// Archives written by independent tools, unpacked by the unpack stream at several chunkings.
#include <gtest/gtest.h>

#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "archive/mz_stream.h"
#include "archive_support.h"
#include "support/temp_dir.h"

namespace {

using namespace archivetest;
namespace fs = std::filesystem;
using testsupport::TempDir;

struct Writer {
    const char* label;
    const char* tool;     // needed on PATH
    const char* command;  // run in the work directory; reads src/, writes out.zip
};

// Python's zipfile, to a file or to a pipe (where it writes data descriptors).
const char* const kPythonZip =
    "python3 - \"$MODE\" <<'EOF'\n"
    "import os, sys, zipfile\n"
    "mode = sys.argv[1]\n"
    "method = zipfile.ZIP_STORED if mode == 'stored' else zipfile.ZIP_DEFLATED\n"
    "out = sys.stdout.buffer if mode == 'pipe' else open('out.zip', 'wb')\n"
    "with zipfile.ZipFile(out, 'w', method) as z:\n"
    "    for root, dirs, files in os.walk('src'):\n"
    "        dirs.sort()\n"
    "        for d in dirs: z.write(os.path.join(root, d))\n"
    "        for f in sorted(files): z.write(os.path.join(root, f))\n"
    "EOF";

const Writer kWriters[] = {
    {"zip", "zip", "zip -qr out.zip src"},
    {"zip_piped", "zip", "zip -qr - src | cat > out.zip"},
    {"zip_stored", "zip", "zip -qr0 out.zip src"},
    {"zip_stored_piped", "zip", "zip -qr0 - src | cat > out.zip"},
    {"zip64", "zip", "zip -qr -fz out.zip src"},
    {"zip64_piped", "zip", "zip -qr -fz - src | cat > out.zip"},
    {"bsdtar", "bsdtar", "bsdtar --format zip -cf out.zip src"},
    {"bsdtar_stored", "bsdtar", "bsdtar --format zip --options zip:compression=store -cf out.zip src"},
    {"python", "python3", nullptr},
    {"python_stored", "python3", nullptr},
    {"python_piped", "python3", nullptr},
};

std::string commandFor(const Writer& w) {
    if (w.command) return w.command;
    const std::string label = w.label;
    const std::string mode = label == "python_stored" ? "stored" : label == "python_piped" ? "pipe" : "deflate";
    std::string cmd = std::string("MODE=") + mode + " " + kPythonZip;
    if (mode == "pipe") cmd = "( " + cmd + "\n) | cat > out.zip";
    return cmd;
}

struct Chunking {
    const char* label;
    Chunker (*make)();
};
const Chunking kChunkings[] = {
    {"bytes1", [] { return fixedChunks(1); }},
    {"odd4093", [] { return fixedChunks(4093); }},
    {"chunk131072", [] { return fixedChunks(131072); }},
    {"random", [] { return randomChunks(2024, 140000); }},
};

class ToolArchives : public ::testing::TestWithParam<std::tuple<int, int>> {
protected:
    static void SetUpTestSuite() {
        work_ = std::make_unique<TempDir>();
        makeSampleTree(work_->path() / "src");
    }
    static void TearDownTestSuite() { work_.reset(); }
    static inline std::unique_ptr<TempDir> work_;
};

TEST_P(ToolArchives, UnpackIntoTheSameTree) {
    const Writer& writer = kWriters[std::get<0>(GetParam())];
    const Chunking& chunking = kChunkings[std::get<1>(GetParam())];
    if (!haveTool(writer.tool)) GTEST_SKIP() << writer.tool << " is not installed";
    const fs::path dir = work_->path() / (std::string(writer.label) + "-" + chunking.label);
    fs::create_directories(dir);
    fs::copy(work_->path() / "src", dir / "src", fs::copy_options::recursive);
    ASSERT_EQ(shell(commandFor(writer), dir.string()), 0);
    const Bytes archive = readBytes(dir / "out.zip");
    ASSERT_GT(archive.size(), 1000u);

    const fs::path target = dir / "target";
    fs::create_directory(target);
    const auto outcome = unpackInto(archive, target.string(), chunking.make());
    EXPECT_EQ(outcome.firstFailure, 0);
    EXPECT_EQ(outcome.closeResult, 0);
    EXPECT_TRUE(outcome.reachedEnd || outcome.bytesWritten == archive.size());
    EXPECT_EQ(imageOf(target / "src"), imageOf(work_->path() / "src"));
}

INSTANTIATE_TEST_SUITE_P(Writers, ToolArchives,
                         ::testing::Combine(::testing::Range(0, static_cast<int>(std::size(kWriters))),
                                            ::testing::Range(0, static_cast<int>(std::size(kChunkings)))),
                         [](const auto& p) {
                             return std::string(kWriters[std::get<0>(p.param)].label) + "_" +
                                    kChunkings[std::get<1>(p.param)].label;
                         });

// The rule that an empty stored entry without a data descriptor waits for one makes such
// archives fail; Info-ZIP writes empty files that way when it can seek.
TEST(ToolArchiveRules, InfoZipEmptyFilesNeedTheStreamedForm) {
    if (!haveTool("zip")) GTEST_SKIP() << "zip is not installed";
    TempDir work;
    fs::create_directory(work / "src");
    testsupport::writeFile(work / "src" / "empty", "");
    testsupport::writeFile(work / "src" / "full", std::string(100, 'f'));
    ASSERT_EQ(shell("zip -qr seek.zip src/empty src/full && zip -qr - src/empty src/full | cat > piped.zip",
                    work.str()),
              0);
    TempDir a, b;
    EXPECT_EQ(unpackInto(readBytes(work / "seek.zip"), a.str(), fixedChunks(131072)).firstFailure, MZ_FORMAT_ERROR);
    const auto piped = unpackInto(readBytes(work / "piped.zip"), b.str(), fixedChunks(131072));
    EXPECT_EQ(piped.closeResult, 0);
    EXPECT_EQ(imageOf(b / "src"), imageOf(work / "src"));
}

}  // namespace
