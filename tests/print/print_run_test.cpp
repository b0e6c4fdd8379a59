// Runs the varoft binary in print mode against the loopback desktop's X server and answers each
// print request from the test, checking the requests byte for byte and the messages exactly.
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include "print/requests.h"
#include "support/process.h"
#include "support/temp_dir.h"
#include "x_server.h"

namespace {

using namespace std::chrono_literals;
using Bytes = std::vector<std::uint8_t>;

// Bytes of a file in one print request, as the far side expects them.
constexpr std::size_t kChunk = 60000;

// Text of a given size that the classifier takes as text.
std::string textOfSize(std::size_t size) {
    std::string text(size, 'a');
    for (std::size_t i = 0; i < size; ++i) text[i] = static_cast<char>(i % 80 == 79 ? '\n' : 'a' + i % 26);
    return text;
}

// Each name is looked at afresh: what cannot be printed is skipped without a request. Files of
// every size go in exact requests; rejections (with and without a reason) and X errors let later
// files go, until code 2 stops the loop, even in the middle of a file.
TEST(PrintRun, FilesGoInExactRequestsUntilCodeTwo) {
    std::string error;
    const auto server = loopback::XServer::start(loopback::ServerOptions{}, &error);
    ASSERT_TRUE(server) << error;
    const std::uint8_t opcode = server->printOpcode();
    testsupport::TempDir dir;
    const std::string exact = textOfSize(kChunk), longer = "%!PS-Adobe-3.0\n" + textOfSize(2 * kChunk + 1234);
    const std::pair<const char*, std::string> contents[] = {
        {"empty.txt", ""}, {"one.txt", "x"},     {"exact.txt", exact},  {"long.ps", longer},
        {"a.txt", "first"}, {"b.txt", "second"}, {"c.txt", "third"},   {"d.txt", "fourth"},
        {"e.txt", exact + "0123456789"},         {"f.txt", "never sent"}};
    const std::string refused[] = {dir.str(), (dir / "dangling.txt").string(), (dir / "pipe").string(),
                                   (dir / "image.gif").string()};
    ASSERT_EQ(::symlink((dir / "gone.txt").c_str(), refused[1].c_str()), 0);
    ASSERT_EQ(::mkfifo(refused[2].c_str(), 0600), 0);
    testsupport::writeFile(refused[3], std::string("GIF89a\x01\x00\x01\x00\x00\x00", 12));
    std::vector<std::string> files(std::begin(refused), std::end(refused));
    for (const auto& [name, content] : contents) {
        testsupport::writeFile(dir / name, content);
        files.push_back((dir / name).string());
    }
    testsupport::RunOptions options;
    options.args = {"-print", "-display", server->displayName(), "-v"};
    options.args.insert(options.args.end(), files.begin(), files.end());
    options.env["XAUTHORITY"] = (dir / "no-such-authority").string();
    testsupport::RunningProcess process(testsupport::varoftBinary(), options);

    // Expects exactly `wire` as the next print request (libxcb's own are answered by the server)
    // and answers it, with an X error when `xError` is set; returns its sequence number.
    const auto answer = [&](const Bytes& wire, std::uint8_t code = kPrintAccepted, std::string_view reason = {},
                            std::uint8_t xError = 0) -> std::uint16_t {
        std::optional<loopback::Request> request;
        while ((request = server->nextRequest(10s)) && request->major != opcode) {
        }
        EXPECT_TRUE(request) << "no request came";
        if (!request) return 0;
        EXPECT_TRUE(request->bytes == wire) << "request differs";
        EXPECT_TRUE(xError ? server->sendError(*request, xError, 0x1234) : server->sendPrintReply(*request, code, reason));
        return request->sequence;
    };
    const auto begin = [&](const char* name, std::string_view data, bool partial) {
        return encodeFileBeginRequest(opcode, name, Bytes(data.begin(), data.end()), partial);
    };
    const auto cont = [&](std::string_view data, bool more) {
        return encodeFileContinueRequest(opcode, Bytes(data.begin(), data.end()), more);
    };
    // Written out once by hand: 9 name bytes, no data, 3 bytes of padding, 6 units.
    answer({opcode, 1, 6, 0, 0, 0, 9, 0, 0, 0, 0, 0, 'e', 'm', 'p', 't', 'y', '.', 't', 'x', 't', 0, 0, 0});
    answer(begin("one.txt", "x", false));
    // A file of exactly one chunk ends with an empty continue.
    answer(begin("exact.txt", exact, true));
    answer(cont("", false));
    answer(begin("long.ps", longer.substr(0, kChunk), true));
    answer(cont(longer.substr(kChunk, kChunk), true));
    answer(cont(longer.substr(2 * kChunk), false));
    answer(begin("a.txt", "first", false), 1, "out of paper");
    answer(begin("b.txt", "second", false), 7);
    const std::uint16_t sequence = answer(begin("c.txt", "third", false), 0, {}, 2);
    answer(begin("d.txt", "fourth", false));
    answer(begin("e.txt", exact, true));
    answer(cont("0123456789", false), kPrintNoMoreFiles, "queue full");
    const auto result = process.wait(20s);
    EXPECT_EQ(result.exitCode, 0);
    std::string expected = "varoft - Varo File Transfer and Remote Print Utility, Version 12.5\n\n";
    const char* const refusals[] = {"\" is a directory, cannot send.\n", "\" file not found\n",
                                    "\" is not a regular file, cannot send\n",
                                    "\" is not a plain text or Postscript file and cannot be printed.\n"};
    for (int i = 0; i < 4; ++i) expected += "Sending file " + refused[i] + "\n\"" + refused[i] + refusals[i];
    for (int i = 4; i < 8; ++i) expected += "Sending file " + files[i] + "\nFile successfully sent\n";
    const auto failed = [&](int i) { return "Error while sending file \"" + files[i] + "\"\n"; };
    expected += "Sending file " + files[8] + "\nServer rejected file. Reason: \"out of paper\"\n" + failed(8) +
                // Without a reason the rejection line has no newline of its own.
                "Sending file " + files[9] + "\nServer rejected file" + failed(9) + "Sending file " + files[10] +
                "\nX Protocol error Number: 2(Value)\n\tSequence: " + std::to_string(sequence) + "\n\tMajor, Minor: " +
                std::to_string(opcode) + ",1\n\tResource ID: 4660\nError receiving File Begin reply\n" + failed(10) +
                "Sending file " + files[11] + "\nFile successfully sent\nSending file " + files[12] +
                "\nServer rejected file. Reason: \"queue full\"\n" + failed(12) + "X Server will not accept more files\n";
    EXPECT_EQ(result.err, expected);
}

}  // namespace
