// The desktop's zip writers, read back by Info-ZIP and libarchive.
#include "zip_archive.h"

#include "support/temp_dir.h"

#include <gtest/gtest.h>

#include <cstdlib>

namespace fs = std::filesystem;
using loopback::ZipMethod;

TEST(ZipWriters, ArchivesAreReadByOtherTools) {
    testsupport::TempDir dir;
    const fs::path tree = dir / "tree";
    fs::create_directories(tree / "sub" / "deeper");
    fs::create_directories(tree / "emptydir");
    testsupport::writeFile(tree / "a.txt", "hello\n");
    testsupport::writeFile(tree / "empty", "");
    std::string big(300000, '\0');  // several deflate blocks and zstd blocks
    for (std::size_t i = 0; i < big.size(); ++i) big[i] = static_cast<char>((i * 7919) >> 5);
    testsupport::writeFile(tree / "sub" / "deeper" / "big.bin", big);
    auto shell = [](const std::string& command) { return std::system(command.c_str()); };

    for (const auto method : {ZipMethod::Deflate, ZipMethod::Store, ZipMethod::Zstd}) {
        const std::string name = loopback::zipMethodName(method);
        loopback::PackResult packed;
        std::string error;
        ASSERT_TRUE(loopback::packDirectory(tree, method, packed, &error)) << error;
        const std::string zip = (dir / (name + ".zip")).string(), out = (dir / name).string();
        testsupport::writeFile(zip, std::string(packed.bytes.begin(), packed.bytes.end()));
        EXPECT_EQ(shell("zipinfo -1 " + zip + " >/dev/null"), 0) << name;
        if (method == ZipMethod::Zstd) continue;  // Info-ZIP and libarchive here cannot decode method 93
        EXPECT_EQ(shell("unzip -tqq " + zip), 0) << name;
        fs::create_directories(out);
        EXPECT_EQ(shell("bsdtar -xf " + zip + " -C " + out + " && diff -r " + tree.string() + " " + out), 0) << name;
    }
}
