// The command-line runs end to end: varoft against a scripted far side that plays the
// desktop's part of -put, -open, -get and their local errors.
#include <gtest/gtest.h>

#include <filesystem>

#include "far_side.h"
#include "support/temp_dir.h"

namespace {

using namespace fttest;
namespace fs = std::filesystem;

bool endsWith(const std::string& text, const std::string& tail) {
    return text.size() >= tail.size() && text.compare(text.size() - tail.size(), tail.size(), tail) == 0;
}

void writeBytes(const fs::path& path, const Bytes& data) {
    testsupport::writeFile(path, std::string_view(reinterpret_cast<const char*>(data.data()), data.size()));
}

Bytes readBytes(const fs::path& path) { return bytesOf(testsupport::readFile(path)); }

#define START_OR_SKIP(far)                                              \
    do {                                                                \
        if (!(far).ok()) GTEST_SKIP() << "no loopback server: " << (far).error(); \
    } while (0)

// ---- -put and -open --------------------------------------------------------------------------

// Plays the desktop's side of a send: kind-5 events until varoft answers kind 8.
Bytes pullAll(FarSide& far, const Reply& announce, std::size_t* chunks) {
    Bytes received;
    *chunks = 0;
    for (int guard = 0; guard < 10000; ++guard) {
        Event e;
        e.direction = announce.direction;
        e.objectType = announce.objectType;
        e.openFlag = announce.openFlag;
        e.kind = 5;
        e.size = announce.size;
        e.a = announce.a;
        e.b = announce.b;
        EXPECT_TRUE(far.send(e));
        const auto reply = far.nextReply();
        EXPECT_TRUE(reply);
        if (!reply) break;
        EXPECT_EQ(reply->direction, announce.direction);
        EXPECT_EQ(reply->objectType, announce.objectType);
        EXPECT_EQ(reply->openFlag, announce.openFlag);
        EXPECT_EQ(reply->size, announce.size);
        EXPECT_EQ(reply->a, announce.a);
        EXPECT_EQ(reply->b, announce.b);
        EXPECT_EQ(reply->wireSize % 4, 0u);
        if (reply->kind == 8) {
            EXPECT_TRUE(reply->c.empty());
            break;
        }
        EXPECT_EQ(reply->kind, 4);
        EXPECT_GT(reply->c.size(), 0u);
        EXPECT_LE(reply->c.size(), 131072u);
        received.insert(received.end(), reply->c.begin(), reply->c.end());
        ++*chunks;
    }
    return received;
}

class PutSizes : public ::testing::TestWithParam<std::size_t> {};

TEST_P(PutSizes, SendsTheFileInChunksAndExitsAfterTheLastReply) {
    FarSide far;
    START_OR_SKIP(far);
    testsupport::TempDir dir;
    const Bytes content = pattern(GetParam());
    writeBytes(dir / "source.bin", content);
    const std::string local = (dir / "source.bin").string();

    ASSERT_TRUE(far.start({"-put", local}));
    const auto announce = far.nextReply();
    ASSERT_TRUE(announce);
    EXPECT_EQ(announce->direction, 1);
    EXPECT_EQ(announce->objectType, 1);
    EXPECT_EQ(announce->openFlag, 0);
    EXPECT_EQ(announce->kind, 10);
    EXPECT_EQ(announce->size, content.size());
    EXPECT_EQ(announce->a, "?");
    EXPECT_EQ(announce->b, local);
    EXPECT_TRUE(announce->c.empty());

    std::size_t chunks = 0;
    const Bytes received = pullAll(far, *announce, &chunks);
    EXPECT_EQ(received, content);
    EXPECT_EQ(chunks, (content.size() + 131071) / 131072);

    const auto result = far.finish();
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_TRUE(endsWith(result.err, "File Transfer completed.\n")) << result.err;
    EXPECT_TRUE(fs::exists(local));  // a plain send keeps its source
}

INSTANTIATE_TEST_SUITE_P(FileTransferPut, PutSizes,
                         ::testing::Values(0, 1, 131072, 3 * 131072 + 17),
                         [](const auto& param) { return "Bytes" + std::to_string(param.param); });

TEST(FileTransferPut, RemoteNameIsSentAsGiven) {
    FarSide far;
    START_OR_SKIP(far);
    testsupport::TempDir dir;
    testsupport::writeFile(dir / "a.txt", "abc");
    ASSERT_TRUE(far.start({"-put", (dir / "a.txt").string(), "Documents/b.txt"}));
    const auto announce = far.nextReply();
    ASSERT_TRUE(announce);
    EXPECT_EQ(announce->a, "Documents/b.txt");
    EXPECT_EQ(announce->size, 3u);
    std::size_t chunks = 0;
    EXPECT_EQ(pullAll(far, *announce, &chunks), bytesOf("abc"));
    EXPECT_EQ(far.finish().exitCode, 0);
}

TEST(FileTransferOpen, SendsTheBaseNameWithTheOpenFlag) {
    FarSide far;
    START_OR_SKIP(far);
    testsupport::TempDir dir;
    fs::create_directories(dir / "sub");
    testsupport::writeFile(dir / "sub" / "report.pdf", "%PDF-1.4");
    const std::string local = (dir / "sub" / "report.pdf").string();
    ASSERT_TRUE(far.start({"-open", local}));
    const auto announce = far.nextReply();
    ASSERT_TRUE(announce);
    EXPECT_EQ(announce->direction, 1);
    EXPECT_EQ(announce->objectType, 0);
    EXPECT_EQ(announce->openFlag, 1);
    EXPECT_EQ(announce->kind, 10);
    EXPECT_EQ(announce->size, 8u);
    EXPECT_EQ(announce->a, "report.pdf");
    EXPECT_EQ(announce->b, local);
    std::size_t chunks = 0;
    EXPECT_EQ(pullAll(far, *announce, &chunks), bytesOf("%PDF-1.4"));
    const auto result = far.finish();
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_TRUE(endsWith(result.err, "File Transfer completed.\n"));
}

TEST(FileTransferOpen, ARelativeNameWithoutSeparatorIsSentWhole) {
    FarSide far;
    START_OR_SKIP(far);
    testsupport::TempDir dir;
    testsupport::writeFile(dir / "c.txt", "x");
    far.setWorkingDirectory(dir.str());
    ASSERT_TRUE(far.start({"-open", "c.txt"}));
    const auto announce = far.nextReply();
    ASSERT_TRUE(announce);
    EXPECT_EQ(announce->a, "c.txt");
    EXPECT_EQ(announce->b, "c.txt");
    std::size_t chunks = 0;
    EXPECT_EQ(pullAll(far, *announce, &chunks), bytesOf("x"));
    EXPECT_EQ(far.finish().exitCode, 0);
}

TEST(FileTransferPut, MissingLocalFileIsALocalError) {
    FarSide far;
    START_OR_SKIP(far);
    ASSERT_TRUE(far.start({"-put", "/nonexistent/varoft/file.txt"}));
    EXPECT_TRUE(far.quiet());
    const auto result = far.finish();
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_TRUE(endsWith(result.err, "Unable to open local file: /nonexistent/varoft/file.txt.\n")) << result.err;
}

TEST(FileTransferPut, SessionClosedByTheDesktopEndsTheRun) {
    FarSide far;
    START_OR_SKIP(far);
    testsupport::TempDir dir;
    testsupport::writeFile(dir / "a", "abc");
    ASSERT_TRUE(far.start({"-put", (dir / "a").string()}));
    ASSERT_TRUE(far.nextReply());
    Event e;
    e.kind = 13;
    ASSERT_TRUE(far.send(e));
    EXPECT_TRUE(far.quiet());
    const auto result = far.finish();
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_TRUE(endsWith(result.err, "File Transfer session was closed.\n"));
    EXPECT_TRUE(fs::exists(dir / "a"));
}

// The progress line of long transfers appears only on a terminal, and is wiped before the
// closing message; otherwise standard error carries the documented lines alone.
TEST(FileTransferPut, ProgressLineOnlyOnATerminal) {
    testsupport::TempDir dir;
    const std::string local = (dir / "big.bin").string();
    testsupport::writeFile(local, std::string(20u << 20, 'p'));
    for (const bool terminal : {false, true}) {
        SCOPED_TRACE(terminal);
        if (terminal && !fs::exists("/usr/bin/script")) GTEST_SKIP() << "no script(1) for a terminal";
        FarSide far;
        START_OR_SKIP(far);
        const std::string command =
            testsupport::varoftBinary() + " -display " + far.server().displayName() + " -put " + local;
        ASSERT_TRUE(terminal ? far.startCommand("/usr/bin/script", {"-qec", command, "/dev/null"})
                             : far.start({"-put", local}));
        const auto announce = far.nextReply();
        ASSERT_TRUE(announce);
        std::size_t chunks = 0;
        EXPECT_EQ(pullAll(far, *announce, &chunks).size(), 20u << 20);
        const auto result = far.finish();
        EXPECT_EQ(result.exitCode, 0);
        const std::string shown = result.err + result.out;  // script(1) relays the terminal on stdout
        if (terminal) {
            EXPECT_NE(shown.find(local + ": 20.0 MiB (100%)"), std::string::npos) << testing::PrintToString(shown);
            EXPECT_NE(shown.find("\rFile Transfer completed."), std::string::npos) << shown;  // line wiped first
        } else {
            EXPECT_EQ(shown.find('\r'), std::string::npos);
            EXPECT_TRUE(endsWith(result.err, "File Transfer completed.\n"));
        }
    }
}

// ---- -get ------------------------------------------------------------------------------------

// Plays the desktop's side of a -get: the data as kind-4 events, each answered by kind 5.
void pushAll(FarSide& far, const Reply& announce, const Bytes& content, std::size_t chunkSize) {
    std::size_t offset = 0;
    do {
        const std::size_t n = std::min(chunkSize, content.size() - offset);
        Event e;
        e.direction = 2;
        e.objectType = 1;
        e.kind = 4;
        e.size = content.size();
        e.a = announce.a;
        e.b = announce.b;
        e.data.assign(content.begin() + static_cast<std::ptrdiff_t>(offset),
                      content.begin() + static_cast<std::ptrdiff_t>(offset + n));
        ASSERT_TRUE(far.send(e));
        const auto reply = far.nextReply();
        ASSERT_TRUE(reply);
        EXPECT_EQ(reply->kind, 5);
        EXPECT_EQ(reply->direction, 2);
        EXPECT_EQ(reply->size, content.size());
        EXPECT_EQ(reply->a, announce.a);
        EXPECT_EQ(reply->b, announce.b);
        EXPECT_TRUE(reply->c.empty());
        offset += n;
    } while (offset < content.size());
}

void sendKind(FarSide& far, std::uint8_t kind, const Reply& announce) {
    Event e;
    e.direction = announce.direction;
    e.objectType = announce.objectType;
    e.kind = kind;
    e.a = announce.a;
    e.b = announce.b;
    ASSERT_TRUE(far.send(e));
}

class GetSizes : public ::testing::TestWithParam<std::size_t> {};

TEST_P(GetSizes, StoresEveryChunkAndEndsAtCompletion) {
    FarSide far;
    START_OR_SKIP(far);
    testsupport::TempDir dir;
    const std::string local = (dir / "received.bin").string();
    const Bytes content = pattern(GetParam(), 7);

    ASSERT_TRUE(far.start({"-get", "remote.bin", local}));
    const auto announce = far.nextReply();
    ASSERT_TRUE(announce);
    EXPECT_EQ(announce->direction, 2);
    EXPECT_EQ(announce->objectType, 1);
    EXPECT_EQ(announce->openFlag, 0);
    EXPECT_EQ(announce->kind, 10);
    EXPECT_EQ(announce->size, 0u);
    EXPECT_EQ(announce->a, "remote.bin");
    EXPECT_EQ(announce->b, local);

    pushAll(far, *announce, content, 131072);
    sendKind(far, 8, *announce);
    EXPECT_TRUE(far.quiet());
    const auto result = far.finish();
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_TRUE(endsWith(result.err, "File Transfer completed.\n")) << result.err;
    EXPECT_EQ(readBytes(local), content);
}

INSTANTIATE_TEST_SUITE_P(FileTransferGet, GetSizes,
                         ::testing::Values(0, 1, 131072, 3 * 131072 + 17),
                         [](const auto& param) { return "Bytes" + std::to_string(param.param); });

TEST(FileTransferGet, ChunksOfAnySizeAreTaken) {
    FarSide far;
    START_OR_SKIP(far);
    testsupport::TempDir dir;
    const std::string local = (dir / "odd.bin").string();
    const Bytes content = pattern(200000, 3);
    ASSERT_TRUE(far.start({"-get", "r", local}));
    const auto announce = far.nextReply();
    ASSERT_TRUE(announce);
    pushAll(far, *announce, content, 4093);
    sendKind(far, 8, *announce);
    EXPECT_EQ(far.finish().exitCode, 0);
    EXPECT_EQ(readBytes(local), content);
}

struct PromptCase {
    const char* name;
    std::optional<std::string> input;
    bool overwrites;
};

class GetPrompt : public ::testing::TestWithParam<PromptCase> {};

TEST_P(GetPrompt, OnlyALowerCaseNRefuses) {
    FarSide far;
    START_OR_SKIP(far);
    testsupport::TempDir dir;
    const std::string local = (dir / "exists.txt").string();
    testsupport::writeFile(local, "old contents");

    ASSERT_TRUE(far.start({"-get", "remote.txt", local}, GetParam().input));
    if (GetParam().overwrites) {
        const auto announce = far.nextReply();
        ASSERT_TRUE(announce);
        EXPECT_EQ(announce->kind, 10);
        pushAll(far, *announce, bytesOf("new"), 131072);
        sendKind(far, 8, *announce);
    } else {
        EXPECT_TRUE(far.quiet());  // refused before anything is announced
    }
    const auto result = far.finish();
    EXPECT_EQ(result.exitCode, 0);
    const std::string question = "Local File " + local + " exists, overwrite it [y/n]?";
    EXPECT_NE(result.err.find(question), std::string::npos) << result.err;
    if (GetParam().overwrites) {
        EXPECT_TRUE(endsWith(result.err, question + "File Transfer completed.\n")) << result.err;
        EXPECT_EQ(testsupport::readFile(local), "new");
    } else {
        EXPECT_TRUE(endsWith(result.err, question + "File Transfer abort.\n")) << result.err;
        EXPECT_EQ(testsupport::readFile(local), "old contents");
    }
}

INSTANTIATE_TEST_SUITE_P(FileTransferGet, GetPrompt,
                         ::testing::Values(PromptCase{"Yes", "y", true}, PromptCase{"No", "n", false},
                                           PromptCase{"UpperCaseN", "N", true},
                                           PromptCase{"Newline", "\n", true},
                                           PromptCase{"NoFollowedByMore", "nope\n", false},
                                           PromptCase{"EndOfInput", std::nullopt, true}),
                         [](const auto& param) { return std::string(param.param.name); });

TEST(FileTransferGet, AbortRemovesThePartialFile) {
    FarSide far;
    START_OR_SKIP(far);
    testsupport::TempDir dir;
    const std::string local = (dir / "partial.bin").string();
    ASSERT_TRUE(far.start({"-get", "r", local}));
    const auto announce = far.nextReply();
    ASSERT_TRUE(announce);
    pushAll(far, *announce, pattern(1000), 131072);
    sendKind(far, 7, *announce);
    EXPECT_TRUE(far.quiet());
    const auto result = far.finish();
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_TRUE(endsWith(result.err, "File Transfer aborted by remote.\n")) << result.err;
    EXPECT_FALSE(fs::exists(local));
}

TEST(FileTransferGet, AbortBeforeAnyDataKeepsAFileTheUserAgreedToReplace) {
    FarSide far;
    START_OR_SKIP(far);
    testsupport::TempDir dir;
    const std::string local = (dir / "kept.txt").string();
    testsupport::writeFile(local, "old");
    ASSERT_TRUE(far.start({"-get", "missing-on-desktop", local}, "y"));
    const auto announce = far.nextReply();
    ASSERT_TRUE(announce);
    sendKind(far, 7, *announce);
    const auto result = far.finish();
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_TRUE(endsWith(result.err, "File Transfer aborted by remote.\n"));
    EXPECT_TRUE(fs::exists(local));  // opened for writing, so now empty, but not removed
}

TEST(FileTransferGet, RefusalsEndTheRunAndRemoveTheLocalFile) {
    const char* messages[] = {
        "Failed to connect. Another File Transfer session is running.\n",
        "Failed to connect. Varo Client does not support file transfer.\n",
        "Failed, because the session is suspended. Please resume the session and try again.\n",
        "Failed. The remote printing and /or file transfer are not allowed for this session.\n",
    };
    for (int kind = 14; kind <= 17; ++kind) {
        SCOPED_TRACE(kind);
        FarSide far;
        START_OR_SKIP(far);
        testsupport::TempDir dir;
        const std::string local = (dir / "target").string();
        ASSERT_TRUE(far.start({"-get", "r", local}));
        const auto announce = far.nextReply();
        ASSERT_TRUE(announce);
        Event e;
        e.kind = static_cast<std::uint8_t>(kind);
        ASSERT_TRUE(far.send(e));
        EXPECT_TRUE(far.quiet());
        const auto result = far.finish();
        EXPECT_EQ(result.exitCode, 0);
        EXPECT_TRUE(endsWith(result.err, messages[kind - 14])) << result.err;
        EXPECT_FALSE(fs::exists(local));
    }
}

TEST(FileTransferGet, UnwritableTargetIsALocalError) {
    testsupport::TempDir dir;
    fs::create_directories(dir / "a-directory");
    // A directory is not a file that exists (no prompt), and cannot be written either.
    for (const std::string& target : {std::string("/nonexistent/varoft/x.bin"), (dir / "a-directory").string()}) {
        SCOPED_TRACE(target);
        FarSide far;
        START_OR_SKIP(far);
        ASSERT_TRUE(far.start({"-get", "r", target}));
        EXPECT_TRUE(far.quiet());
        const auto result = far.finish();
        EXPECT_EQ(result.exitCode, 0);
        EXPECT_EQ(result.err.find("overwrite"), std::string::npos);
        EXPECT_TRUE(endsWith(result.err, "Unable to open local file for writting: " + target + ".\n")) << result.err;
    }
}

TEST(FileTransferGet, FailedWritesAreLoggedOnceAndStillAcknowledged) {
    if (!fs::exists("/dev/full")) GTEST_SKIP() << "no /dev/full";
    FarSide far;
    START_OR_SKIP(far);
    // /dev/full exists, so the prompt comes first; every write then fails with "no space".
    ASSERT_TRUE(far.start({"-get", "r", "/dev/full"}, "y"));
    const auto announce = far.nextReply();
    ASSERT_TRUE(announce);
    pushAll(far, *announce, pattern(3000), 1000);  // three chunks, each still answered kind 5
    sendKind(far, 8, *announce);
    const auto result = far.finish();
    EXPECT_EQ(result.exitCode, 0);
    const std::string line = "Unable to write to local /dev/full: No space left on device\n";
    const auto first = result.err.find(line);
    ASSERT_NE(first, std::string::npos) << result.err;
    EXPECT_EQ(result.err.find(line, first + 1), std::string::npos);
    EXPECT_TRUE(endsWith(result.err, "File Transfer completed.\n"));
}

// ---- directories: local errors ---------------------------------------------------------------

TEST(FileTransferDirectories, LocalErrorsOfTheDirectoryModes) {
    testsupport::TempDir dir;
    testsupport::writeFile(dir / "plain", "x");
    const std::string plain = (dir / "plain").string();
    struct Case {
        std::vector<std::string> args;
        std::string tail;
    } cases[] = {
        {{"-putd", plain, "remote"}, plain + " is not a directory: \n"},
        {{"-putd", "/nonexistent/varoft", "remote"}, "Unable to open local directory: /nonexistent/varoft.\n"},
        {{"-getd", "remote", "newdir"}, "Wrong local path: newdir \n"},
        {{"-getd", "remote", "/nonexistent/varoft/newdir"}, "Wrong local path: /nonexistent/varoft \n"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.args[0] + " " + c.args[c.args.size() - 1]);
        FarSide far;
        START_OR_SKIP(far);
        ASSERT_TRUE(far.start(c.args));
        EXPECT_TRUE(far.quiet(200ms));
        const auto result = far.finish();
        EXPECT_EQ(result.exitCode, 0);
        EXPECT_TRUE(endsWith(result.err, c.tail)) << result.err;
    }
}

TEST(FileTransferSetup, AnExtensionTheServerCallsAbsentEndsTheRunSilently) {
    // libxcb still hands back the server's answer (present = 0); the first request then puts
    // the connection into error and the event loop ends without a message.
    loopback::ServerOptions options;
    options.fileTransferExtension = false;
    FarSide far(options);
    START_OR_SKIP(far);
    testsupport::TempDir dir;
    testsupport::writeFile(dir / "a", "x");
    ASSERT_TRUE(far.start({"-put", (dir / "a").string()}));
    EXPECT_TRUE(far.quiet(200ms));
    const auto result = far.finish();
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_FALSE(result.timedOut);
    EXPECT_TRUE(endsWith(result.err, "Version 12.5\n\n")) << result.err;
}

}  // namespace
