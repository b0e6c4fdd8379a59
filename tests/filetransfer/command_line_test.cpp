// The command-line runs end to end: varoft against a scripted far side that plays the
// desktop's part of -put, -open, -get and their local errors.
#include <gtest/gtest.h>

#include <filesystem>

#include "far_side.h"
#include "support/temp_dir.h"

namespace {

using namespace fttest;
namespace fs = std::filesystem;

TEST(FileTransferCommandLine, SendModesAnnounceThenSendEveryChunk) {
    testsupport::TempDir dir;
    // The command line (its local path relative to the working directory), then the size and
    // the announced object type, open flag and name A.
    const std::tuple<std::vector<std::string>, std::size_t, int, int, std::string> cases[] = {
        {{"-put", "empty.bin"}, 0, 1, 0, "?"},
        {{"-put", "one.bin"}, 1, 1, 0, "?"},
        {{"-put", "exact.bin", "Documents/b.txt"}, 131072, 1, 0, "Documents/b.txt"},
        {{"-put", (dir / "several.bin").string()}, 3 * 131072 + 17, 1, 0, "?"},
        {{"-open", "sub/report.pdf"}, 8, 0, 1, "report.pdf"},
        {{"-open", "c.txt"}, 1, 0, 1, "c.txt"},
    };
    fs::create_directories(dir / "sub");
    for (const auto& [args, size, objectType, openFlag, a] : cases) {
        const std::string& local = args[1];
        SCOPED_TRACE(local);
        FarSide far;
        FAR_SIDE_OR_SKIP(far);
        const Bytes content = pattern(size);
        testsupport::writeFile(dir / local, std::string(content.begin(), content.end()));
        far.setWorkingDirectory(dir.str());
        ASSERT_TRUE(far.start(args));
        const auto announce = far.nextReply();
        ASSERT_TRUE(announce);
        EXPECT_EQ(fieldsOf(*announce), Fields(1, objectType, openFlag, 10, size, a, local));
        EXPECT_TRUE(announce->block.empty());
        std::size_t chunks = 0;
        EXPECT_EQ(far.pull(*announce, &chunks), content);
        EXPECT_EQ(chunks, (size + 131071) / 131072);
        expectEnd(far.finish(), "File Transfer completed.\n");
        EXPECT_TRUE(fs::exists(dir / local));  // a send keeps its source
    }
}

// -get: chunks of any size; only a lower-case n refuses to overwrite; an abort removes a
// partial file, but not the file the user agreed to replace (opened, so now empty).
TEST(FileTransferCommandLine, GetStoresEveryChunkAsksBeforeOverwritingAndObeysAnAbort) {
    enum Left { Content, Old, Empty, Gone };
    struct Case {
        std::size_t size, chunk = 131072;
        bool existing = false;
        std::optional<std::string> input = {};
        std::uint8_t end = 8;
        Left left = Content;
    } cases[] = {
        {0}, {1}, {131072}, {3 * 131072 + 17}, {200000, 4093},
        {3, 131072, true, "y"}, {3, 131072, true, "n", 8, Old}, {3, 131072, true, "N"}, {3, 131072, true, "\n"},
        {3, 131072, true, "nope\n", 8, Old}, {3, 131072, true, std::nullopt},
        {1000, 131072, false, {}, 7, Gone}, {0, 131072, true, "y", 7, Empty},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << c.size << " " << c.input.value_or("(end of input)"));
        FarSide far;
        FAR_SIDE_OR_SKIP(far);
        testsupport::TempDir dir;
        const std::string local = (dir / "received.bin").string();
        if (c.existing) testsupport::writeFile(local, "old");
        const Bytes content = pattern(c.size, 7);
        ASSERT_TRUE(far.start({"-get", "remote.bin", local}, c.input));
        if (c.left != Old) {
            const auto announce = far.nextReply();
            ASSERT_TRUE(announce);
            EXPECT_EQ(fieldsOf(*announce), Fields(2, 1, 0, 10, 0, "remote.bin", local));
            Event data = echo(*announce, 4);
            data.size = c.size;
            if (c.left != Empty) far.push(data, content, c.chunk);
            ASSERT_TRUE(far.send(echo(*announce, c.end)));
        }
        EXPECT_TRUE(far.quiet());
        const std::string question = c.existing ? "Local File " + local + " exists, overwrite it [y/n]?" : "";
        const char* tail = c.left == Old ? "File Transfer abort.\n"
                           : c.end == 8  ? "File Transfer completed.\n"
                                         : "File Transfer aborted by remote.\n";
        expectEnd(far.finish(), question + tail);
        EXPECT_EQ(fs::exists(local), c.left != Gone);
        const std::string left = c.left == Content ? std::string(content.begin(), content.end()) : c.left == Old ? "old" : "";
        EXPECT_EQ(c.left == Gone ? "" : testsupport::readFile(local), left);
    }
}

TEST(FileTransferCommandLine, SessionEndAndRefusalsEndTheRun) {
    const std::pair<std::uint8_t, std::string> cases[] = {
        {13, "File Transfer session was closed.\n"},
        {14, "Failed to connect. Another File Transfer session is running.\n"},
        {15, "Failed to connect. Varo Client does not support file transfer.\n"},
        {16, "Failed, because the session is suspended. Please resume the session and try again.\n"},
        {17, "Failed. The remote printing and /or file transfer are not allowed for this session.\n"},
    };
    for (const auto& [kind, message] : cases) {
        SCOPED_TRACE(int(kind));
        FarSide far;
        FAR_SIDE_OR_SKIP(far);
        testsupport::TempDir dir;
        // A session keeps the file it was sending; a -get removes the file it created.
        const std::string local = (dir / "file").string();
        if (kind == 13) testsupport::writeFile(local, "abc");
        ASSERT_TRUE(far.start(kind == 13 ? std::vector<std::string>{} : std::vector<std::string>{"-get", "r", local}));
        ASSERT_TRUE(far.nextReply());
        if (kind == 13) far.ask(Event{1, 1, 0, 0, 0, "desk", local, {}}, 3);
        ASSERT_TRUE(far.send(Event{2, 1, 0, kind, 0, {}, {}, {}}));
        EXPECT_TRUE(far.quiet());
        expectEnd(far.finish(), message);
        EXPECT_EQ(fs::exists(local), kind == 13);
    }
}

TEST(FileTransferCommandLine, LocalErrorsEndTheRunBeforeAnyRequest) {
    testsupport::TempDir dir;
    testsupport::writeFile(dir / "plain", "x");
    fs::create_directories(dir / "a-directory");
    const std::string plain = (dir / "plain").string(), directory = (dir / "a-directory").string();
    struct Case {
        std::vector<std::string> args;
        std::string tail;
        bool extension = true;
    } cases[] = {
        {{"-put", "/nonexistent/varoft/file.txt"}, "Unable to open local file: /nonexistent/varoft/file.txt.\n"},
        {{"-get", "r", "/nonexistent/varoft/x.bin"}, "Unable to open local file for writting: /nonexistent/varoft/x.bin.\n"},
        // A directory is not a file that exists (no prompt), and cannot be written either.
        {{"-get", "r", directory}, "Unable to open local file for writting: " + directory + ".\n"},
        {{"-putd", plain, "remote"}, plain + " is not a directory: \n"},
        {{"-putd", "/nonexistent/varoft", "remote"}, "Unable to open local directory: /nonexistent/varoft.\n"},
        {{"-getd", "remote", "newdir"}, "Wrong local path: newdir \n"},
        {{"-getd", "remote", "/nonexistent/varoft/newdir"}, "Wrong local path: /nonexistent/varoft \n"},
        // The server calls the extension absent: the first request puts the connection into
        // error and the event loop ends without a message.
        {{"-put", plain}, "Version 12.5\n\n", false},
    };
    for (const auto& [args, tail, extension] : cases) {
        SCOPED_TRACE(args[0] + " " + args.back());
        loopback::ServerOptions options;
        options.fileTransferExtension = extension;
        FarSide far(options);
        FAR_SIDE_OR_SKIP(far);
        ASSERT_TRUE(far.start(args));
        EXPECT_TRUE(far.quiet(200ms));
        const auto result = far.finish();
        expectEnd(result, tail);
        EXPECT_FALSE(contains(result.err, "overwrite"));
    }
}

}  // namespace
