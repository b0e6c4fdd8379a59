// Removing a local directory tree: everything inside goes, symbolic links are removed without
// being followed, and the empty path and the root are refused.
#include <gtest/gtest.h>

#include <filesystem>

#include "filetransfer/transfer.h"
#include "support/temp_dir.h"

namespace {

namespace fs = std::filesystem;

TEST(RemoveDirectoryTree, RemovesNestedFilesAndHiddenEntries) {
    testsupport::TempDir dir;
    const fs::path root = dir / "tree";
    fs::create_directories(root / "a" / "b" / "c");
    fs::create_directories(root / "empty");
    testsupport::writeFile(root / "top.txt", "1");
    testsupport::writeFile(root / ".hidden", "2");
    testsupport::writeFile(root / "a" / "b" / "c" / "deep.bin", "3");
    EXPECT_NE(removeDirectoryTree(root.string()), 0);
    EXPECT_FALSE(fs::exists(root));
}

TEST(RemoveDirectoryTree, LinksAreRemovedNotFollowed) {
    testsupport::TempDir dir;
    const fs::path outside = dir / "outside";
    fs::create_directories(outside / "inner");
    testsupport::writeFile(outside / "keep.txt", "keep");
    const fs::path root = dir / "tree";
    fs::create_directories(root);
    fs::create_directory_symlink(outside, root / "link-to-dir");
    fs::create_symlink(outside / "keep.txt", root / "link-to-file");
    fs::create_symlink(dir / "nowhere", root / "dangling");
    EXPECT_NE(removeDirectoryTree(root.string()), 0);
    EXPECT_FALSE(fs::exists(root));
    EXPECT_EQ(testsupport::readFile(outside / "keep.txt"), "keep");
    EXPECT_TRUE(fs::is_directory(outside / "inner"));

    // A link given as the tree itself is not entered.
    fs::create_directory_symlink(outside, dir / "top-link");
    EXPECT_EQ(removeDirectoryTree((dir / "top-link").string()), 0);
    EXPECT_TRUE(fs::exists(outside / "keep.txt"));
}

TEST(RemoveDirectoryTree, RefusesTheEmptyPathTheRootAndNonDirectories) {
    EXPECT_EQ(removeDirectoryTree(""), 0);
    EXPECT_EQ(removeDirectoryTree("/"), 0);
    EXPECT_EQ(removeDirectoryTree("//"), 0);
    testsupport::TempDir dir;
    testsupport::writeFile(dir / "file", "x");
    EXPECT_EQ(removeDirectoryTree((dir / "file").string()), 0);
    EXPECT_TRUE(fs::exists(dir / "file"));
    EXPECT_EQ(removeDirectoryTree((dir / "missing").string()), 0);
}

}  // namespace
