// The loopback-desktop program: its options and one served client.
#include "far_protocol.h"
#include "x_client.h"
#include "x_server.h"

#include "common/bytes.h"
#include "support/process.h"
#include "support/temp_dir.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdlib>
#include <thread>

using namespace std::chrono_literals;
using testsupport::RunOptions;

TEST(LoopbackDesktopProgram, RefusesBadOptions) {
    for (const auto& args : {std::vector<std::string>{"--chunk-size", "0"},
                                                {"--zip-method", "lzma"},
                                                {"--refuse", "12"},
                                                {"--cookie", "abc"},
                                                {"--display"},
                                                {"--frobnicate"}}) {
        RunOptions options;
        options.args = args;
        const auto result = testsupport::run(LOOPBACK_DESKTOP_BINARY, options);
        EXPECT_EQ(result.exitCode, 2) << args[0];
        EXPECT_NE(result.err.find("usage: loopback-desktop"), std::string::npos) << args[0];
    }
}

TEST(LoopbackDesktopProgram, ServesOneClientAndSaysWhatHappened) {
    // A display number away from the automatic range, free at this moment.
    int display = -1;
    for (int i = 0; i < 50 && display < 0; ++i) {
        loopback::ServerOptions probe;
        probe.display = 400 + (::getpid() + i) % 50;
        std::string error;
        if (loopback::XServer::start(probe, &error)) display = probe.display;
    }
    ASSERT_GE(display, 0);
    testsupport::TempDir dir;
    std::filesystem::create_directories(dir / "desk");
    testsupport::writeFile(dir / "desk" / "hello.txt", "hello");
    RunOptions options;
    options.args = {"--display", std::to_string(display), "--folder", (dir / "desk").string(), "--once"};
    testsupport::RunningProcess program(LOOPBACK_DESKTOP_BINARY, options);
    ASSERT_TRUE(program.started());

    loopbacktest::Connection c;
    for (int attempt = 0; attempt < 200; ++attempt) {  // until the program listens
        c = loopbacktest::connect(":" + std::to_string(display));
        if (xcb_connection_has_error(c.get()) == 0) break;
        std::this_thread::sleep_for(25ms);
    }
    ASSERT_EQ(xcb_connection_has_error(c.get()), 0);

    std::vector<std::uint8_t> body;
    bytes::Writer(body).u8(2).u8(1).u8(0).u8(10).u64(0).u16(9).u16(6).u32(0).raw("hello.txt").raw("/tmp/h");
    loopbacktest::sendRequest(c.get(), &loopbacktest::fileTransferExtension, loopback::kFileTransferReply, body, true, false);
    xcb_flush(c.get());
    std::vector<std::uint8_t> kinds;
    while (kinds.empty() || kinds.back() == 4) {
        xcb_generic_event_t* ev = xcb_wait_for_event(c.get());
        ASSERT_TRUE(ev);
        kinds.push_back(reinterpret_cast<const std::uint8_t*>(ev)[39]);
        std::free(ev);
        if (kinds.back() == 4) {
            body[3] = 5;
            loopbacktest::sendRequest(c.get(), &loopbacktest::fileTransferExtension, loopback::kFileTransferReply, body,
                                      true, false);
            xcb_flush(c.get());
        }
    }
    EXPECT_EQ(kinds, (std::vector<std::uint8_t>{4, 8}));
    c.reset();

    const auto result = program.wait();
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_NE(result.out.find("loopback-desktop: serving :" + std::to_string(display)), std::string::npos) << result.out;
    EXPECT_NE(result.out.find("desktop: sent hello.txt (5 bytes in 1 chunk)"), std::string::npos) << result.out;
    EXPECT_NE(result.out.find("desktop: client 1 gone"), std::string::npos) << result.out;
}
