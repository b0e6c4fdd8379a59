// A file's bytes through the kernel pipe to a socket: every chunk arrives whole, in order and
// with the padding put behind it, even through a non-blocking socket that is full most of the
// time, and the end of the file reads as 0.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>
#include <thread>

#include "platform/platform.h"
#include "support/temp_dir.h"

namespace {

TEST(FilePipe, ChunksReachAFullNonBlockingSocketWholeAndInOrder) {
    testsupport::TempDir dir;
    std::string content(300001, '\0');
    for (std::size_t i = 0; i < content.size(); ++i) content[i] = static_cast<char>(i * 7 + i / 4093);
    testsupport::writeFile(dir / "source.bin", content);
    platform::File file;
    ASSERT_TRUE(file.open((dir / "source.bin").string(), platform::OpenMode::Read));
    platform::FilePipe pipe;
    if (!pipe.open(2 * 131072)) GTEST_SKIP() << "no pipe of that size here";

    int ends[2];
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
    const int small = 4096;
    ::setsockopt(ends[0], SOL_SOCKET, SO_SNDBUF, &small, sizeof small);
    ::fcntl(ends[0], F_SETFL, ::fcntl(ends[0], F_GETFL) | O_NONBLOCK);
    std::string received;
    std::thread reader([&] {
        char buffer[1000];  // small reads, so the sender finds the socket full again and again
        for (ssize_t n; (n = ::read(ends[1], buffer, sizeof buffer)) > 0;) received.append(buffer, static_cast<std::size_t>(n));
    });

    for (std::int64_t n; (n = pipe.fill(file, 131072)) != 0;) {
        ASSERT_GT(n, 0);
        const std::size_t padding = (4 - static_cast<std::size_t>(n) % 4) % 4;
        ASSERT_TRUE(pipe.fillZeros(padding));
        EXPECT_EQ(pipe.held(), static_cast<std::size_t>(n) + padding);
        ASSERT_TRUE(pipe.drainTo(ends[0]));
        EXPECT_EQ(pipe.held(), 0u);
    }
    ::close(ends[0]);
    reader.join();
    ::close(ends[1]);
    std::string expected;
    for (std::size_t at = 0; at < content.size(); at += 131072) {
        const std::string piece = content.substr(at, 131072);
        expected += piece + std::string((4 - piece.size() % 4) % 4, '\0');
    }
    EXPECT_TRUE(received == expected) << received.size() << " bytes received, " << expected.size() << " expected";
}

}  // namespace
