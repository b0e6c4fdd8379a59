// Removing a local directory tree: everything inside goes, symbolic links are removed without
// being followed, and the empty path, the root and what is not a directory are refused.
#include <gtest/gtest.h>

#include <filesystem>

#include "platform/platform.h"
#include "support/temp_dir.h"

namespace {

namespace fs = std::filesystem;

TEST(RemoveDirectoryTree, RemovesEverythingInsideButFollowsNoLink) {
    testsupport::TempDir dir;
    const fs::path root = dir / "tree", outside = dir / "outside";
    fs::create_directories(root / "a" / "b" / "c");
    fs::create_directories(root / "empty");
    fs::create_directories(outside / "inner");
    testsupport::writeFile(root / ".hidden", "2");
    testsupport::writeFile(root / "a" / "b" / "c" / "deep.bin", "3");
    testsupport::writeFile(outside / "keep.txt", "keep");
    fs::create_directory_symlink(outside, root / "link-to-dir");
    fs::create_symlink(outside / "keep.txt", root / "link-to-file");
    fs::create_symlink(dir / "nowhere", root / "dangling");
    fs::create_directory_symlink(outside, dir / "top-link");
    EXPECT_EQ(platform::removeDirectoryTree((dir / "top-link").string()), 0);  // a link as the tree is not entered
    EXPECT_NE(platform::removeDirectoryTree(root.string()), 0);
    EXPECT_FALSE(fs::exists(root));
    EXPECT_EQ(testsupport::readFile(outside / "keep.txt"), "keep");
    EXPECT_TRUE(fs::is_directory(outside / "inner"));
    for (const std::string& path : {std::string(), std::string("/"), std::string("//"), (outside / "keep.txt").string(), (dir / "missing").string()})
        EXPECT_EQ(platform::removeDirectoryTree(path), 0) << path;
    EXPECT_TRUE(fs::exists(outside / "keep.txt"));
}

}  // namespace
