// Runs the varoft binary in print mode against the loopback desktop's X server and answers each
// print request from the test, checking the requests byte for byte and the messages exactly.
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <memory>
#include <optional>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "app/state.h"
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

// Text content of a given size that the classifier takes as text.
std::string textOfSize(std::size_t size) {
    std::string text(size, 'a');
    for (std::size_t i = 0; i < size; ++i) text[i] = static_cast<char>(i % 80 == 79 ? '\n' : 'a' + i % 26);
    return text;
}

class PrintRun : public ::testing::Test {
protected:
    void SetUp() override { startServer(loopback::ServerOptions{}); }

    void startServer(const loopback::ServerOptions& options) {
        std::string error;
        server = loopback::XServer::start(options, &error);
        ASSERT_TRUE(server) << error;
    }

    std::string put(const std::string& name, std::string_view content) {
        testsupport::writeFile(dir / name, content);
        return (dir / name).string();
    }

    void run(std::vector<std::string> files, const char* verbosity = "-v") {
        testsupport::RunOptions options;
        options.args = {"-print", "-display", server->displayName()};
        if (verbosity) options.args.emplace_back(verbosity);
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

    // Expects exactly `wire` as the next request and answers it.
    void expectAndAnswer(const Bytes& wire, std::uint8_t code = kPrintAccepted, std::string_view reason = {}) {
        auto request = next();
        ASSERT_TRUE(request) << "no request came";
        EXPECT_EQ(request->bytes.size(), wire.size());
        EXPECT_TRUE(request->bytes == wire) << "request differs";
        ASSERT_TRUE(server->sendPrintReply(*request, code, reason));
    }

    Bytes begin(std::string_view name, std::string_view data, bool partial) {
        return encodeFileBeginRequest(server->printOpcode(), name, bytesOf(data), partial);
    }
    Bytes cont(std::string_view data, bool more) {
        return encodeFileContinueRequest(server->printOpcode(), bytesOf(data), more);
    }

    testsupport::RunResult finish() {
        auto result = process->wait(20s);
        EXPECT_FALSE(result.timedOut);
        return result;
    }

    testsupport::TempDir dir;
    std::unique_ptr<loopback::XServer> server;
    std::unique_ptr<testsupport::RunningProcess> process;
};

TEST_F(PrintRun, EmptyAndOneByteFilesAreOneBeginEach) {
    const std::string empty = put("empty.txt", "");
    const std::string one = put("one.txt", "x");
    run({empty, one});
    // Written out once by hand: 9 name bytes, no data, 3 bytes of padding, 6 units.
    const Bytes emptyWire = {server->printOpcode(), 1, 6, 0, 0, 0, 9, 0, 0, 0, 0, 0,
                             'e', 'm', 'p', 't', 'y', '.', 't', 'x', 't', 0, 0, 0};
    ASSERT_EQ(begin("empty.txt", "", false), emptyWire);
    expectAndAnswer(emptyWire);
    expectAndAnswer(begin("one.txt", "x", false));
    const auto result = finish();
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_EQ(result.err, std::string(kBanner) + "Sending file " + empty + "\nFile successfully sent\n" +
                              "Sending file " + one + "\nFile successfully sent\n");
}

TEST_F(PrintRun, AnExactChunkEndsWithAnEmptyContinue) {
    const std::string text = textOfSize(kPrintChunkSize);
    run({put("exact.txt", text)});
    expectAndAnswer(begin("exact.txt", text, true));
    expectAndAnswer(cont("", false));
    EXPECT_EQ(finish().exitCode, 0);
}

TEST_F(PrintRun, ALongFileGoesInChunksWithTraces) {
    const std::string text = textOfSize(2 * kPrintChunkSize + 1234);
    const std::string path = put("long.ps", "%!PS-Adobe-3.0\n" + text.substr(15));
    const std::string sent = testsupport::readFile(path);
    run({path}, "-vvv");
    expectAndAnswer(begin("long.ps", sent.substr(0, kPrintChunkSize), true));
    expectAndAnswer(cont(sent.substr(kPrintChunkSize, kPrintChunkSize), true));
    expectAndAnswer(cont(sent.substr(2 * kPrintChunkSize), false));
    const auto result = finish();
    EXPECT_EQ(result.exitCode, 0);
    const std::string pattern =
        "Using filename: long.ps\nfopened " + path + "\n"
        "sendFileBegin Called, obj: 0x[0-9a-f]+, \n\tfilename: long.ps, \n\tdata, 0x[0-9a-f]+, \n\tdatalen: 60000,"
        "\n\tpartial, 1, \n\tp_real: 7\n"
        "Received File Begin Reply\n\tCode:\t0\n\tSequence:\t[0-9]+\n\tfollowing:\t0\n"
        "sendFileContinue called, obj:0x[0-9a-f]+\n\tdata:0x[0-9a-f]+\n\tdlen: 60000\n\tmore:1\n"
        "Received Continue Reply\n\tCode:\t0\n\tSequence:\t[0-9]+\n\tfollowing:\t0\n"
        "sendFileContinue called, obj:0x[0-9a-f]+\n\tdata:0x[0-9a-f]+\n\tdlen: 1234\n\tmore:0\n"
        "Received Continue Reply\n\tCode:\t0\n\tSequence:\t[0-9]+\n\tfollowing:\t0\n"
        "File successfully sent\n$";
    EXPECT_TRUE(std::regex_search(result.err, std::regex(pattern))) << result.err;
}

TEST_F(PrintRun, RejectionsWithAndWithoutReasonLetLaterFilesGo) {
    const std::string a = put("a.txt", "first");
    const std::string b = put("b.txt", "second");
    const std::string c = put("c.txt", "third");
    run({a, b, c}, "-vv");
    expectAndAnswer(begin("a.txt", "first", false), 1, "out of paper");
    expectAndAnswer(begin("b.txt", "second", false), 7);
    expectAndAnswer(begin("c.txt", "third", false));
    const auto result = finish();
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_NE(result.err.find("Received File Begin Reply\n\tCode:\t1\n"), std::string::npos) << result.err;
    EXPECT_NE(result.err.find("\tfollowing:\t3\n\tReason:\tout of paper\n"
                              "Server rejected file. Reason: \"out of paper\"\n"
                              "Error while sending file \"" + a + "\"\n"),
              std::string::npos)
        << result.err;
    // Without a reason the rejection line has no newline of its own.
    EXPECT_NE(result.err.find("\tfollowing:\t0\nServer rejected fileError while sending file \"" + b + "\"\n"),
              std::string::npos)
        << result.err;
    EXPECT_NE(result.err.find("Sending file " + c + "\n"), std::string::npos);
}

TEST_F(PrintRun, CodeTwoStopsTheLoopEvenMidFile) {
    const std::string text = textOfSize(kPrintChunkSize + 10);
    const std::string a = put("a.txt", text);
    const std::string b = put("b.txt", "never sent");
    run({a, b});
    expectAndAnswer(begin("a.txt", text.substr(0, kPrintChunkSize), true));
    expectAndAnswer(cont(text.substr(kPrintChunkSize), false), kPrintNoMoreFiles, "queue full");
    const auto result = finish();
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_EQ(result.err, std::string(kBanner) + "Sending file " + a +
                              "\nServer rejected file. Reason: \"queue full\"\n"
                              "Error while sending file \"" + a + "\"\nX Server will not accept more files\n");
}

TEST_F(PrintRun, AnXErrorIsPrintedAndTheNextFileStillGoes) {
    const std::string a = put("a.txt", "one");
    const std::string b = put("b.txt", "two");
    run({a, b});
    auto request = next();
    ASSERT_TRUE(request);
    ASSERT_TRUE(server->sendError(*request, 2, 0x1234));
    expectAndAnswer(begin("b.txt", "two", false));
    const auto result = finish();
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_EQ(result.err, std::string(kBanner) + "Sending file " + a + "\nX Protocol error Number: 2(Value)\n" +
                              "\tSequence: " + std::to_string(request->sequence) + "\n\tMajor, Minor: " +
                              std::to_string(server->printOpcode()) + ",1\n\tResource ID: 4660\n" +
                              "Error receiving File Begin reply\nError while sending file \"" + a + "\"\n" +
                              "Sending file " + b + "\nFile successfully sent\n");
}

TEST_F(PrintRun, RefusedNamesAreSkippedInOrder) {
    const std::string directory = (dir / "sub").string();
    ASSERT_EQ(::mkdir(directory.c_str(), 0700), 0);
    // A name that matches nothing is dropped while the command line is read (always shown); one
    // that is listed but cannot be examined, like a dangling link, reaches the loop.
    const std::string unmatched = (dir / "nothing.txt").string();
    const std::string dangling = (dir / "dangling.txt").string();
    ASSERT_EQ(::symlink((dir / "gone.txt").c_str(), dangling.c_str()), 0);
    const std::string fifo = (dir / "pipe").string();
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
    const std::string binary = put("image.gif", std::string("GIF89a\x01\x00\x01\x00\x00\x00", 12));
    const std::string good = put("good.txt", "printable");
    const std::vector<std::string> files = {directory, unmatched, dangling, fifo, binary, good};
    const std::string unmatchedLine = "\"" + unmatched + "\" file not found\n";

    run(files, "-q");
    expectAndAnswer(begin("good.txt", "printable", false));
    const auto quiet = finish();
    EXPECT_EQ(quiet.exitCode, 0);
    EXPECT_EQ(quiet.err, unmatchedLine);

    run(files);
    expectAndAnswer(begin("good.txt", "printable", false));
    const auto shown = finish();
    EXPECT_EQ(shown.exitCode, 0);
    EXPECT_EQ(shown.err, unmatchedLine + kBanner + "Sending file " + directory + "\n\"" + directory +
                             "\" is a directory, cannot send.\nSending file " + dangling + "\n\"" + dangling +
                             "\" file not found\nSending file " + fifo + "\n\"" + fifo +
                             "\" is not a regular file, cannot send\nSending file " + binary + "\n\"" + binary +
                             "\" is not a plain text or Postscript file and cannot be printed.\n"
                             "Sending file " + good + "\nFile successfully sent\n");
}

TEST_F(PrintRun, TheServerGoingAwayEndsWithAReplyFailure) {
    const std::string text = textOfSize(kPrintChunkSize + 1);
    const std::string a = put("a.txt", text);
    run({a});
    ASSERT_TRUE(next());
    server->closeClient();
    const auto result = finish();
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_EQ(result.err, std::string(kBanner) + "Sending file " + a + "\nError receiving File Begin reply\n" +
                              "Error while sending file \"" + a + "\"\n");
}

// Only a failed extension query counts as a missing extension; a server that answers "not
// present" lets the run go on, and libxcb then refuses to send the first request and closes the
// connection, so every file fails.
TEST_F(PrintRun, AnExtensionReportedAbsentFailsEveryFile) {
    loopback::ServerOptions options;
    options.printExtension = false;
    startServer(options);
    const std::string a = put("a.txt", "text");
    const std::string b = put("b.txt", "text");
    run({a, b});
    const auto result = finish();
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_EQ(result.err, std::string(kBanner) + "Sending file " + a + "\nError receiving File Begin reply\n" +
                              "Error while sending file \"" + a + "\"\nSending file " + b +
                              "\nError receiving File Begin reply\nError while sending file \"" + b + "\"\n");
}

// Standard input is not reachable from the command line, so this drives the sender in-process:
// a pipe stands in for standard input and another thread answers as the far side.
TEST_F(PrintRun, StandardInputTravelsUnderAGeneratedName) {
    const std::string text = textOfSize(kPrintChunkSize + 10000);
    int pipeFds[2];
    ASSERT_EQ(::pipe(pipeFds), 0);
    const int savedInput = ::dup(0);
    ASSERT_GE(savedInput, 0);
    ASSERT_EQ(::dup2(pipeFds[0], 0), 0);
    ::close(pipeFds[0]);
    // More than a pipe holds: the sender sees short reads before a chunk is full.
    std::thread writer([&] {
        std::size_t done = 0;
        while (done < text.size()) {
            const ssize_t n = ::write(pipeFds[1], text.data() + done, text.size() - done);
            if (n <= 0) break;
            done += static_cast<std::size_t>(n);
        }
        ::close(pipeFds[1]);
    });

    xcb_connection_t* connection = xcb_connect(server->displayName().c_str(), nullptr);
    ASSERT_EQ(xcb_connection_has_error(connection), 0);
    std::vector<loopback::Request> seen;
    std::thread farSide([&] {
        for (int i = 0; i < 2; ++i) {
            auto request = next();
            if (!request) return;
            server->sendPrintReply(*request, kPrintAccepted);
            seen.push_back(*request);
        }
    });
    const std::int32_t savedVerbosity = Verbosity;
    Verbosity = 0;
    const auto before = std::to_string(::time(nullptr));
    std::uint32_t more = 0;
    const int sent = sendPrintFile(connection, nullptr, more, ".txt", nullptr);
    Verbosity = savedVerbosity;
    farSide.join();
    writer.join();
    xcb_disconnect(connection);
    ::dup2(savedInput, 0);
    ::close(savedInput);

    EXPECT_EQ(sent, 1);
    EXPECT_EQ(more, 1u);
    ASSERT_EQ(seen.size(), 2u);
    const Bytes& first = seen[0].bytes;
    ASSERT_GE(first.size(), kPrintRequestFixedSize);
    const std::size_t nameLength = first[6] | (first[7] << 8);
    ASSERT_GE(first.size(), kPrintRequestFixedSize + nameLength);
    const std::string name(first.begin() + kPrintRequestFixedSize,
                           first.begin() + static_cast<std::ptrdiff_t>(kPrintRequestFixedSize + nameLength));
    const std::string stem = "stdin" + std::to_string(::getpid());
    ASSERT_EQ(name.substr(0, stem.size()), stem);
    EXPECT_GE(name.substr(stem.size(), name.size() - stem.size() - 4), before);
    EXPECT_EQ(name.substr(name.size() - 4), ".txt");
    EXPECT_TRUE(first == begin(name, text.substr(0, kPrintChunkSize), true));
    EXPECT_TRUE(seen[1].bytes == cont(text.substr(kPrintChunkSize), false));
}

}  // namespace
