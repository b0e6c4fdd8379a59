// The command-line runs end to end: varoft against a scripted far side that plays the
// desktop's part of -put, -open, -get and their local errors.
#include <gtest/gtest.h>

#include <csignal>
#include <filesystem>

#include <sys/stat.h>

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

// -get: chunks of any size; only a lower-case n refuses to overwrite. The file arrives under a
// temporary name and replaces the target (the file a link names) only once complete: every
// other ending (an abort before or after data, a refusal, a lost connection, a signal, a failed
// write) leaves the old file byte for byte, or no file, and nothing else in the directory.
TEST(FileTransferCommandLine, GetReplacesTheTargetOnlyOnceTheFileArrivedWhole) {
    enum End { Complete, Abort, Refuse, Lose, Signal, Declined };
    struct Case {
        std::size_t size, chunk = 131072;
        bool existing = false;
        std::optional<std::string> input = {};
        End end = Complete;
        int how = 0;        // the refusal's kind, the signal
        bool link = false;  // the local path is a symbolic link to the file
        long limit = 0;     // writes past this size fail
    } cases[] = {
        {0}, {1}, {131072}, {3 * 131072 + 17}, {200000, 4093},
        {3, 131072, true, "y"}, {3, 131072, true, "n", Declined}, {3, 131072, true, "N"}, {3, 131072, true, "\n"},
        {3, 131072, true, "nope\n", Declined}, {3, 131072, true, std::nullopt}, {5000, 131072, true, "y", Complete, 0, true},
        {1000, 131072, false, {}, Abort}, {0, 131072, true, "y", Abort}, {300000, 131072, true, "y", Abort},
        {300000, 131072, true, "y", Refuse, 14}, {300000, 131072, true, "y", Refuse, 15},
        {300000, 131072, true, "y", Refuse, 16}, {300000, 131072, false, {}, Refuse, 17},
        {300000, 131072, true, "y", Lose}, {300000, 131072, true, "y", Signal, SIGINT},
        {300000, 131072, true, "y", Signal, SIGTERM}, {300000, 131072, false, {}, Signal, SIGHUP},
        {300000, 131072, true, "y", Complete, 0, false, 200000},
    };
    const mode_t mask = ::umask(0);
    ::umask(mask);
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << c.size << " " << c.input.value_or("(end of input)") << " " << c.end << " "
                                        << c.how << " " << c.limit);
        FarSide far;
        FAR_SIDE_OR_SKIP(far);
        far.setFileSizeLimit(c.limit);
        testsupport::TempDir dir;
        const std::string local = (dir / "received.bin").string();
        const fs::path file = c.link ? dir / "real.bin" : fs::path(local);
        if (c.link) fs::create_symlink("real.bin", local);
        if (c.existing) testsupport::writeFile(file, "old");
        const Bytes content = pattern(c.size, 7);
        ASSERT_TRUE(far.start({"-get", "remote.bin", local}, c.input));
        testsupport::RunResult result;
        std::string tail = "File Transfer completed.\n";
        if (c.end != Declined) {
            const auto announce = far.nextReply();
            ASSERT_TRUE(announce);
            EXPECT_EQ(fieldsOf(*announce), Fields(2, 1, 0, 10, 0, "remote.bin", local));
            Event data = echo(*announce, 4);
            data.size = c.size;
            if (c.size > 0) far.push(data, content, c.chunk);
            switch (c.end) {
                case Complete: ASSERT_TRUE(far.send(echo(*announce, 8))); break;
                case Abort: ASSERT_TRUE(far.send(echo(*announce, 7))); tail = "File Transfer aborted by remote.\n"; break;
                case Refuse:
                    ASSERT_TRUE(far.send(Event{2, 1, 0, static_cast<std::uint8_t>(c.how), 0, {}, {}, {}}));
                    tail = "Failed";
                    break;
                case Signal: far.signal(c.how); break;
                default: break;
            }
            if (c.end != Signal && c.end != Lose) {
                EXPECT_TRUE(far.quiet());
            }
            result = c.end == Lose ? far.close() : far.finish();
        } else {
            EXPECT_TRUE(far.quiet());
            result = far.finish();
            tail = "File Transfer abort.\n";
        }
        const std::string question = c.existing ? "Local File " + local + " exists, overwrite it [y/n]?" : "";
        if (c.limit > 0) tail = "Unable to write to local " + local + ": File too large\n" + tail;
        if (c.end == Signal) {
            EXPECT_EQ(result.signal, c.how) << "ended as the signal would";
        } else if (c.end == Lose || c.end == Refuse) {
            EXPECT_EQ(result.exitCode, 0);
            EXPECT_TRUE(contains(result.err, question + (c.end == Lose ? "" : tail))) << result.err;
            EXPECT_FALSE(contains(result.err, "connection was lost")) << "that line is for terminals only";
        } else {
            expectEnd(result, question + tail);
        }
        const bool arrived = c.end == Complete && c.limit == 0;
        std::vector<std::string> names;
        if (c.link) names = {"real.bin", "received.bin"};
        else if (arrived || c.existing) names = {"received.bin"};
        EXPECT_EQ(testsupport::namesIn(dir.path()), names) << "no temporary is left behind";
        if (arrived) {
            EXPECT_EQ(bytesOf(testsupport::readFile(file)), content);
            EXPECT_EQ(fs::status(file).permissions(), static_cast<fs::perms>(0666 & ~mask));
            EXPECT_EQ(fs::is_symlink(local), c.link);
        } else if (c.existing) {
            EXPECT_EQ(testsupport::readFile(file), "old");
        }
    }
}

// A link planted under the log's name while the run is under way is never written through:
// the lines after it go to standard error only.
TEST(FileTransferCommandLine, LogLinkPlantedDuringTheRunIsNotFollowed) {
    const fs::path log = "/tmp/varoft.log";
    FarSide far;
    FAR_SIDE_OR_SKIP(far);
    testsupport::TempDir dir;
    testsupport::writeFile(dir / "victim", "mine");
    const std::string local = (dir / "received.bin").string();
    ASSERT_TRUE(far.start({"-l", "-v", "-get", "remote.bin", local}));
    const auto announce = far.nextReply();
    ASSERT_TRUE(announce);
    fs::remove(log);
    fs::create_symlink(dir / "victim", log);
    far.push(echo(*announce, 4), bytesOf("data"));
    ASSERT_TRUE(far.send(echo(*announce, 8)));
    expectEnd(far.finish(), "File Transfer completed.\n");
    EXPECT_EQ(testsupport::readFile(dir / "victim"), "mine");
    EXPECT_TRUE(fs::is_symlink(log));
    fs::remove(log);
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
