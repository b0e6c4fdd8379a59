// Files and directories over 4 GiB both ways between varoft and the loopback desktop program
// (sparse files, stored entries: the bytes that matter are the sizes and the zip64 records).
#include "desktop_process.h"

#include "support/process.h"
#include "support/temp_dir.h"

#include <gtest/gtest.h>

namespace fs = std::filesystem;
using namespace std::chrono_literals;

TEST(LoopbackDesktopLarge, OverFourGibibytesBothWays) {
    constexpr std::uint64_t kSize = (std::uint64_t{9} << 30) / 2;  // 4.5 GiB
    testsupport::TempDir dir;
    // varoft writes what it receives in full, one such file at a time.
    if (fs::space(dir.path()).available < kSize + (std::uint64_t{1} << 30))
        GTEST_SKIP() << "not enough free space under " << dir.str();
    fs::create_directories(dir / "desk" / "tree");
    fs::create_directories(dir / "local" / "tree");
    ASSERT_TRUE(lbtest::makeSparseFile(dir / "desk" / "big.bin", kSize));
    ASSERT_TRUE(lbtest::makeSparseFile(dir / "desk" / "tree" / "big.bin", kSize));
    ASSERT_TRUE(lbtest::makeSparseFile(dir / "local" / "big.bin", kSize));
    ASSERT_TRUE(lbtest::makeSparseFile(dir / "local" / "tree" / "big.bin", kSize));
    lbtest::DesktopProcess desktop({"--folder", (dir / "desk").string(), "--zip-method", "store"}, dir / "log");
    ASSERT_TRUE(desktop.serving());

    struct Case {
        std::vector<std::string> args;
        fs::path arrives;  // the big file where it ends up
    };
    const std::vector<Case> cases = {
        {{"-put", (dir / "local" / "big.bin").string(), "up.bin"}, dir / "desk" / "up.bin"},
        {{"-get", "big.bin", (dir / "got.bin").string()}, dir / "got.bin"},
        {{"-putd", (dir / "local" / "tree").string(), "uptree"}, dir / "desk" / "uptree" / "big.bin"},
        {{"-getd", "tree", (dir / "gottree").string()}, dir / "gottree" / "big.bin"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.args[0]);
        testsupport::RunOptions options;
        options.args = {"-display", desktop.display()};
        options.args.insert(options.args.end(), c.args.begin(), c.args.end());
        options.timeout = 600s;
        const auto result = testsupport::run(testsupport::varoftBinary(), options);
        EXPECT_EQ(result.exitCode, 0) << result.err;
        EXPECT_TRUE(lbtest::sameSparseContent(c.arrives, kSize));
        fs::remove(c.arrives);  // varoft's copies are not sparse: one at a time
    }
    EXPECT_LT(desktop.peakKiB(), 64 * 1024) << "KiB";
}
