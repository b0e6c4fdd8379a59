// Runs the varoft binary in print mode against the loopback desktop's X server and answers each
// print request from the test, checking the requests byte for byte and the messages exactly.
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "print/print_loop.h"
#include "print/requests.h"
#include "support/process.h"
#include "support/temp_dir.h"
#include "x_server.h"

namespace {

using namespace std::chrono_literals;
using Bytes = std::vector<std::uint8_t>;

constexpr const char* kBanner = "varoft - Varo File Transfer and Remote Print Utility, Version 12.5\n\n";

Bytes bytesOf(std::string_view text) { return Bytes(text.begin(), text.end()); }

// Bytes of a file in one print request, as the far side expects them.
constexpr std::size_t kChunk = 60000;

// Text content of a given size that the classifier takes as text.
std::string textOfSize(std::size_t size) {
    std::string text(size, 'a');
    for (std::size_t i = 0; i < size; ++i) text[i] = static_cast<char>(i % 80 == 79 ? '\n' : 'a' + i % 26);
    return text;
}

class PrintRun : public ::testing::Test {
protected:
    void SetUp() override {
        std::string error;
        server = loopback::XServer::start(loopback::ServerOptions{}, &error);
        ASSERT_TRUE(server) << error;
    }

    std::string put(const std::string& name, std::string_view content) {
        testsupport::writeFile(dir / name, content);
        return (dir / name).string();
    }

    void run(std::vector<std::string> files, const char* verbosity = "-v") {
        testsupport::RunOptions options;
        options.args = {"-print", "-display", server->displayName(), verbosity};
        options.args.insert(options.args.end(), files.begin(), files.end());
        options.env["XAUTHORITY"] = (dir / "no-such-authority").string();
        process = std::make_unique<testsupport::RunningProcess>(testsupport::varoftBinary(), options);
        ASSERT_TRUE(process->started());
    }

    // The next print request; other requests (libxcb's own) are answered by the server itself.
    std::optional<loopback::Request> next() {
        for (;;) {
            auto request = server->nextRequest(10s);
            if (!request || request->major == server->printOpcode()) return request;
        }
    }

    // Expects exactly `wire` as the next request and answers it (with an X error when `xError`
    // is set); returns the request's sequence number.
    std::uint16_t answer(const Bytes& wire, std::uint8_t code = kPrintAccepted, std::string_view reason = {},
                         std::uint8_t xError = 0) {
        auto request = next();
        EXPECT_TRUE(request) << "no request came";
        if (!request) return 0;
        EXPECT_EQ(request->bytes.size(), wire.size());
        EXPECT_TRUE(request->bytes == wire) << "request differs";
        EXPECT_TRUE(xError ? server->sendError(*request, xError, 0x1234) : server->sendPrintReply(*request, code, reason));
        return request->sequence;
    }

    Bytes begin(std::string_view name, std::string_view data, bool partial) {
        return encodeFileBeginRequest(server->printOpcode(), name, bytesOf(data), partial);
    }
    Bytes cont(std::string_view data, bool more) {
        return encodeFileContinueRequest(server->printOpcode(), bytesOf(data), more);
    }

    // Waits for the run to end, expects exit code 0 and returns what it wrote to standard error.
    std::string finish() {
        auto result = process->wait(20s);
        EXPECT_FALSE(result.timedOut);
        EXPECT_EQ(result.exitCode, 0);
        return result.err;
    }

    testsupport::TempDir dir;
    std::unique_ptr<loopback::XServer> server;
    std::unique_ptr<testsupport::RunningProcess> process;
};

TEST_F(PrintRun, FilesOfEverySizeGoInExactRequests) {
    const std::string exact = textOfSize(kChunk);
    const std::string longer = "%!PS-Adobe-3.0\n" + textOfSize(2 * kChunk + 1234);
    const std::vector<std::string> files = {put("empty.txt", ""), put("one.txt", "x"), put("exact.txt", exact),
                                            put("long.ps", longer)};
    run(files);
    // Written out once by hand: 9 name bytes, no data, 3 bytes of padding, 6 units.
    answer({server->printOpcode(), 1, 6, 0, 0, 0, 9, 0, 0, 0, 0, 0, 'e', 'm', 'p', 't', 'y', '.', 't', 'x', 't', 0, 0, 0});
    answer(begin("one.txt", "x", false));
    // A file of exactly one chunk ends with an empty continue.
    answer(begin("exact.txt", exact, true));
    answer(cont("", false));
    answer(begin("long.ps", longer.substr(0, kChunk), true));
    answer(cont(longer.substr(kChunk, kChunk), true));
    answer(cont(longer.substr(2 * kChunk), false));
    std::string expected = kBanner;
    for (const auto& file : files) expected += "Sending file " + file + "\nFile successfully sent\n";
    EXPECT_EQ(finish(), expected);
}

TEST_F(PrintRun, RejectionsAndXErrorsLetLaterFilesGoUntilCodeTwo) {
    const std::string text = textOfSize(kChunk + 10);
    const std::vector<std::string> files = {put("a.txt", "first"), put("b.txt", "second"), put("c.txt", "third"),
                                            put("d.txt", "fourth"), put("e.txt", text), put("f.txt", "never sent")};
    run(files);
    answer(begin("a.txt", "first", false), 1, "out of paper");
    answer(begin("b.txt", "second", false), 7);
    const std::uint16_t sequence = answer(begin("c.txt", "third", false), 0, {}, 2);
    answer(begin("d.txt", "fourth", false));
    // Code 2 stops the loop, even in the middle of a file.
    answer(begin("e.txt", text.substr(0, kChunk), true));
    answer(cont(text.substr(kChunk), false), kPrintNoMoreFiles, "queue full");
    const auto failed = [&](int i) { return "Error while sending file \"" + files[i] + "\"\n"; };
    EXPECT_EQ(finish(),
              std::string(kBanner) + "Sending file " + files[0] + "\nServer rejected file. Reason: \"out of paper\"\n" +
                  failed(0) +
                  // Without a reason the rejection line has no newline of its own.
                  "Sending file " + files[1] + "\nServer rejected file" + failed(1) +
                  "Sending file " + files[2] + "\nX Protocol error Number: 2(Value)\n\tSequence: " +
                  std::to_string(sequence) + "\n\tMajor, Minor: " + std::to_string(server->printOpcode()) +
                  ",1\n\tResource ID: 4660\nError receiving File Begin reply\n" + failed(2) +
                  "Sending file " + files[3] + "\nFile successfully sent\n" +
                  "Sending file " + files[4] + "\nServer rejected file. Reason: \"queue full\"\n" + failed(4) +
                  "X Server will not accept more files\n");
}

// Standard input is not reachable from the command line, so this drives the sender in-process:
// a pipe stands in for standard input and another thread answers as the far side.
TEST_F(PrintRun, StandardInputTravelsUnderAGeneratedName) {
    const std::string text = textOfSize(kChunk + 10000);
    int pipeFds[2];
    ASSERT_EQ(::pipe(pipeFds), 0);
    const int savedInput = ::dup(0);
    ASSERT_EQ(::dup2(pipeFds[0], 0), 0);
    ::close(pipeFds[0]);
    // More than a pipe holds: the sender sees short reads before a chunk is full.
    std::thread writer([&] {
        EXPECT_EQ(::write(pipeFds[1], text.data(), text.size()), static_cast<ssize_t>(text.size()));
        ::close(pipeFds[1]);
    });
    std::vector<loopback::Request> seen;
    std::thread farSide([&] {
        for (int i = 0; i < 2; ++i) {
            if (auto request = next(); request && server->sendPrintReply(*request, kPrintAccepted)) seen.push_back(*request);
        }
    });
    xcb_connection_t* connection = xcb_connect(server->displayName().c_str(), nullptr);
    EXPECT_EQ(xcb_connection_has_error(connection), 0);
    const std::int64_t before = ::time(nullptr);
    std::uint32_t more = 0;
    EXPECT_EQ(sendPrintFile(connection, nullptr, more, ".txt", nullptr), 1);
    const std::int64_t after = ::time(nullptr);
    farSide.join();
    writer.join();
    xcb_disconnect(connection);
    ::dup2(savedInput, 0);
    ::close(savedInput);

    EXPECT_EQ(more, 1u);
    ASSERT_EQ(seen.size(), 2u);
    bool named = false;  // "stdin", the process id, the time and the suffix
    for (std::int64_t t = before; t <= after; ++t) {
        const auto name = standardInputPrintName(".txt", nullptr, static_cast<std::uint32_t>(::getpid()), t);
        named = named || seen[0].bytes == begin(name, text.substr(0, kChunk), true);
    }
    EXPECT_TRUE(named);
    EXPECT_TRUE(seen[1].bytes == cont(text.substr(kChunk), false));
}

}  // namespace
