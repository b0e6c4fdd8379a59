// The loopback desktop program with the real varoft: its memory stays flat however large the
// file, and SIGTERM ends it in the middle of a transfer.
#include "desktop_process.h"

#include "support/process.h"
#include "support/temp_dir.h"

#include <gtest/gtest.h>

#include <thread>

namespace fs = std::filesystem;
using namespace std::chrono_literals;

namespace {

constexpr std::uint64_t kGiB = std::uint64_t{1} << 30;

testsupport::RunResult varoft(const lbtest::DesktopProcess& desktop, std::vector<std::string> args) {
    testsupport::RunOptions options;
    options.args = {"-display", desktop.display()};
    options.args.insert(options.args.end(), args.begin(), args.end());
    options.timeout = 120s;
    return testsupport::run(testsupport::varoftBinary(), options);
}

}  // namespace

TEST(LoopbackDesktopProgram, MemoryStaysFlatForAGibibyteEachWay) {
    testsupport::TempDir dir;
    fs::create_directories(dir / "desk" / "tree");
    ASSERT_TRUE(lbtest::makeSparseFile(dir / "desk" / "big.bin", kGiB));
    ASSERT_TRUE(lbtest::makeSparseFile(dir / "desk" / "tree" / "big.bin", kGiB));
    lbtest::DesktopProcess desktop({"--folder", (dir / "desk").string(), "--zip-method", "store"}, dir / "log");
    ASSERT_TRUE(desktop.serving());

    EXPECT_EQ(varoft(desktop, {"-get", "big.bin", (dir / "got.bin").string()}).exitCode, 0);
    EXPECT_TRUE(lbtest::sameSparseContent(dir / "got.bin", kGiB));
    fs::remove(dir / "got.bin");
    EXPECT_EQ(varoft(desktop, {"-getd", "tree", (dir / "tree").string()}).exitCode, 0);
    EXPECT_TRUE(lbtest::sameSparseContent(dir / "tree" / "big.bin", kGiB));
    fs::remove_all(dir / "tree");
    EXPECT_EQ(varoft(desktop, {"-put", (dir / "desk" / "big.bin").string(), "up.bin"}).exitCode, 0);
    EXPECT_TRUE(lbtest::sameSparseContent(dir / "desk" / "up.bin", kGiB));

    const long peak = desktop.peakKiB();
    EXPECT_GT(peak, 0);
    EXPECT_LT(peak, 64 * 1024) << "KiB";
}

TEST(LoopbackDesktopProgram, SigtermEndsItDuringATransfer) {
    testsupport::TempDir dir;
    fs::create_directories(dir / "desk");
    ASSERT_TRUE(lbtest::makeSparseFile(dir / "desk" / "big.bin", kGiB));
    // Small chunks: the whole transfer would take many seconds.
    lbtest::DesktopProcess desktop({"--folder", (dir / "desk").string(), "--chunk-size", "4096"}, dir / "log");
    ASSERT_TRUE(desktop.serving());
    const std::string number = desktop.display().substr(1);

    testsupport::RunOptions options;
    options.args = {"-display", desktop.display(), "-get", "big.bin", (dir / "got.bin").string()};
    testsupport::RunningProcess client(testsupport::varoftBinary(), options);
    // The file arrives under a temporary name beside its target.
    const auto received = [&] {
        std::uintmax_t bytes = 0;
        std::error_code ec;
        for (const auto& entry : fs::directory_iterator(dir.path(), ec))
            if (entry.is_regular_file(ec) && entry.path().filename() != "log") bytes += entry.file_size(ec);
        return bytes;
    };
    for (int i = 0; i < 2000 && received() < 1000000; ++i) std::this_thread::sleep_for(5ms);
    ASSERT_GE(received(), 1000000u) << "the transfer did not get going";

    const auto took = desktop.terminate(5s);
    EXPECT_GE(took.count(), 0) << "still running after 5 s";
    EXPECT_LT(took.count(), 1000) << "ms";
    EXPECT_FALSE(fs::exists("/tmp/.X11-unix/X" + number));
    EXPECT_FALSE(fs::exists("/tmp/.X" + number + "-lock"));
    EXPECT_FALSE(client.wait(10s).timedOut);
}
