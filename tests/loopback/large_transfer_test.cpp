// Files and directories over 4 GiB both ways between varoft and the loopback desktop (sparse
// files, stored entries: the bytes that matter are the sizes and the zip64 records).
#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include "support/loopback_desktop.h"
#include "support/temp_dir.h"

namespace {

namespace fs = std::filesystem;
constexpr std::uint64_t kSize = (std::uint64_t{9} << 30) / 2;  // 4.5 GiB

// Holes but for 4 KiB of pattern at the start, across the 4 GiB border and at the end.
constexpr std::uint64_t kRegions[] = {0, (std::uint64_t{1} << 32) - 2048, kSize - 4096};
std::string region(std::uint64_t offset) {
    std::string out(4096, '\0');
    for (std::size_t i = 0; i < out.size(); ++i) out[i] = static_cast<char>((offset >> 12) + i * 31 + 1);
    return out;
}

bool makeSparseFile(const fs::path& path) {
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    bool ok = fd >= 0 && ::ftruncate(fd, static_cast<off_t>(kSize)) == 0;
    for (const auto at : kRegions) ok = ok && ::pwrite(fd, region(at).data(), 4096, static_cast<off_t>(at)) == 4096;
    return ::close(fd) == 0 && ok;
}

// The size, the patterned regions and the hole before the last one.
bool sameSparseContent(const fs::path& path) {
    std::error_code ec;
    if (fs::file_size(path, ec) != kSize || ec) return false;
    const int fd = ::open(path.c_str(), O_RDONLY);
    std::string got(4096, '\0');
    bool same = fd >= 0;
    for (const auto at : kRegions)
        same = same && ::pread(fd, got.data(), 4096, static_cast<off_t>(at)) == 4096 && got == region(at);
    same = same && ::pread(fd, got.data(), 4096, static_cast<off_t>(kSize - 8192)) == 4096 && got == std::string(4096, '\0');
    ::close(fd);
    return same;
}

TEST(LoopbackDesktopLarge, OverFourGibibytesBothWays) {
    testsupport::TempDir dir;
    // varoft writes what it receives in full, one such file at a time.
    if (fs::space(dir.path()).available < kSize + (std::uint64_t{1} << 30))
        GTEST_SKIP() << "not enough free space under " << dir.str();
    for (const char* tree : {"desk/tree", "local/tree"}) fs::create_directories(dir / tree);
    for (const char* file : {"desk/big.bin", "desk/tree/big.bin", "local/big.bin", "local/tree/big.bin"})
        ASSERT_TRUE(makeSparseFile(dir / file)) << file;
    loopback::DesktopOptions options;
    options.folder = dir / "desk";
    options.zipMethod = loopback::ZipMethod::Store;
    testsupport::LoopbackDesktop desktop(options);
    ASSERT_TRUE(desktop.ok()) << desktop.error();

    const std::pair<std::vector<std::string>, fs::path> cases[] = {
        {{"-put", dir / "local" / "big.bin", "up.bin"}, dir / "desk" / "up.bin"},
        {{"-get", "big.bin", dir / "got.bin"}, dir / "got.bin"},
        {{"-putd", dir / "local" / "tree", "uptree"}, dir / "desk" / "uptree" / "big.bin"},
        {{"-getd", "tree", dir / "gottree"}, dir / "gottree" / "big.bin"},
    };
    for (const auto& [args, arrives] : cases) {
        SCOPED_TRACE(args[0]);
        testsupport::RunOptions run;
        run.timeout = std::chrono::seconds(600);
        const auto result = desktop.run(args, run);
        EXPECT_EQ(result.exitCode, 0) << result.err;
        EXPECT_TRUE(sameSparseContent(arrives));
        fs::remove(arrives);  // varoft's copies are not sparse: one at a time
    }
}

}  // namespace
