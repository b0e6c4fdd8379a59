// Archives written by independent tools, unpacked by the unpack stream at several chunkings.
#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "archive_support.h"
#include "support/temp_dir.h"

namespace {

using namespace archivetest;
namespace fs = std::filesystem;

// Each command runs in a directory holding src/ and writes out.zip; the first word is the tool.
// Writing to a pipe makes zip use data descriptors.
const std::pair<const char*, const char*> kWriters[] = {
    {"zip", "zip -qr out.zip src"},
    {"zip_piped", "zip -qr - src | cat > out.zip"},
    {"zip_stored", "zip -qr0 out.zip src"},
    {"zip_stored_piped", "zip -qr0 - src | cat > out.zip"},
    {"zip64", "zip -qr -fz out.zip src"},
    {"zip64_piped", "zip -qr -fz - src | cat > out.zip"},
    {"bsdtar", "bsdtar --format zip -cf out.zip src"},
    {"bsdtar_stored", "bsdtar --format zip --options zip:compression=store -cf out.zip src"},
    {"python", "python3 -c \"import os, zipfile\nwith zipfile.ZipFile('out.zip', 'w', zipfile.ZIP_DEFLATED) as z:\n"
               "    for root, dirs, files in os.walk('src'):\n"
               "        for name in dirs + files: z.write(os.path.join(root, name))\""},
};
const std::pair<const char*, Chunker> kChunkings[] = {
    {"bytes1", fixedChunks(1)},
    {"odd4093", fixedChunks(4093)},
    {"chunk131072", fixedChunks(131072)},
    {"random", randomChunks(2024, 140000)},
};

class ToolArchives : public ::testing::TestWithParam<std::tuple<int, int>> {};

TEST_P(ToolArchives, UnpackIntoTheSameTree) {
    const auto& [label, command] = kWriters[std::get<0>(GetParam())];
    const std::string tool = std::string(command).substr(0, std::string(command).find(' '));
    if (!haveTool(tool)) GTEST_SKIP() << tool << " is not installed";
    testsupport::TempDir work;
    makeSampleTree(work / "src");
    fs::create_directory(work / "target");
    ASSERT_EQ(shell(command, work.str()), 0);
    const auto outcome = unpackInto(toBytes(testsupport::readFile(work / "out.zip")), (work / "target").string(),
                                    kChunkings[std::get<1>(GetParam())].second);
    EXPECT_EQ(outcome.firstFailure, 0);
    EXPECT_EQ(outcome.closeResult, 0);
    EXPECT_EQ(imageOf(work / "target" / "src"), imageOf(work / "src"));
}

INSTANTIATE_TEST_SUITE_P(Writers, ToolArchives,
                         ::testing::Combine(::testing::Range(0, static_cast<int>(std::size(kWriters))),
                                            ::testing::Range(0, static_cast<int>(std::size(kChunkings)))),
                         [](const auto& p) {
                             return std::string(kWriters[std::get<0>(p.param)].first) + "_" +
                                    kChunkings[std::get<1>(p.param)].first;
                         });

}  // namespace
