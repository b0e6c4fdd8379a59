// varoft itself against a scripted far side on the loopback X server, a handful of runs per mode:
// they prove the binary, the libxcb framing both ways, the prompt on standard input, signals,
// lost connections and failing writes, which the in-process tests cannot reach.
#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <unistd.h>

#include <sys/stat.h>

#include "archive/archive_support.h"
#include "far_side.h"
#include "zip_archive.h"
#include "support/temp_dir.h"

namespace {

using namespace fttest;
namespace fs = std::filesystem;

std::string hostName() {
    char buffer[256] = {};
    ::gethostname(buffer, sizeof buffer - 1);
    return buffer;
}

// A session the far side drives: the start report, a fetch, a store, a listing, a delete and a
// rename over the connection, and an event that lies, which is dropped.
TEST(EndToEnd, SessionServesTheFarSide) {
    FarSide far;
    FAR_SIDE_OR_SKIP(far);
    testsupport::TempDir dir;
    fs::create_directories(dir / "Documents");
    ASSERT_TRUE(far.start({"-vv"}, std::nullopt, {{"HOME", dir.str()}}));
    const auto start = far.nextReply();
    ASSERT_TRUE(start);
    EXPECT_EQ(fieldsOf(*start), Fields(1, 1, 0, 9, 0, hostName(), "tester"));
    EXPECT_EQ(start->block, bytesOf(std::string_view("Root (/)\0", 9)));

    const std::string file = (dir / "Documents" / "abc.txt").string();
    const Bytes content = pattern(131072 + 5, 3);
    const Reply opened = far.ask(Event{2, 1, 0, 0, 0, "desk", file, {}}, 3);
    Event chunk = echo(opened, 4);
    EXPECT_TRUE(far.sendPayload(90, Bytes{2, 1, 0, 4, 0, 0}));  // too short: dropped
    far.push(chunk, content, 100000);
    far.send(echo(opened, 8));
    EXPECT_TRUE(far.quiet());
    EXPECT_EQ(far.pull(far.ask(Event{1, 1, 0, 0, 0, "desk", file, {}}, 3)), content);

    ASSERT_TRUE(far.sendPayload(91, loopback::encodeListDirectory("")));
    std::vector<std::string> items;
    while (auto request = far.server().nextRequest(10000ms)) {
        const auto item = loopback::decodeListItem(request->bytes);
        ASSERT_TRUE(item);
        items.push_back(std::to_string(item->type) + " " + std::to_string(item->size) + " " +
                        item->name.substr(item->name.find('_') + 1));
        if (item->type == 0) break;
    }
    std::sort(items.begin(), items.end());
    EXPECT_EQ(items, (std::vector<std::string>{"0 0 ", "1 0 ..", "2 0 " + (dir / "Documents").string(), "98 131077 abc.txt"}));
    ASSERT_TRUE(far.sendPayload(93, loopback::encodeRenameFile(file, file + ".old")));
    EXPECT_EQ(far.nextStatus().value_or(Status{}).path, file);
    ASSERT_TRUE(far.sendPayload(75, loopback::encodeDeleteFile(file)));
    EXPECT_EQ(far.nextStatus().value_or(Status{}).error, "No such file or directory");
    EXPECT_TRUE(fs::exists(file + ".old"));

    const auto result = far.close();
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_TRUE(contains(result.err, "Sending request to Proxy/Desktop to start file transfer process.\n"
                                     "UserProfile = " + dir.str() + "\nHidden drives value = 0\nDrive = Root (/)\n"
                                     "UserHomeDir = " + dir.str() + "/Documents\nUSERNAME = tester\n"
                                     "HOSTNAME = " + hostName() + "\nSending file transfer reply.\n"))
        << result.err;
    EXPECT_TRUE(contains(result.err, "Dropping event of type 90: its lengths exceed the event.\n"));
}

TEST(EndToEnd, SendModesAnnounceThenSendEveryChunk) {
    testsupport::TempDir dir;
    // The command line (its local path relative to the working directory), then the size and
    // the announced object type, open flag and name A.
    const std::tuple<std::vector<std::string>, std::size_t, int, int, std::string> cases[] = {
        {{"-put", "empty.bin"}, 0, 1, 0, "?"},
        {{"-put", "exact.bin", "Documents/b.txt"}, 131072, 1, 0, "Documents/b.txt"},
        {{"-put", (dir / "several.bin").string()}, 3 * 131072 + 17, 1, 0, "?"},
        {{"-open", "sub/report.pdf"}, 8, 0, 1, "report.pdf"},
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
// temporary name and replaces the target (the file a link names) only once complete: the endings
// only a real run meets (a refusal on standard input, a lost connection, a signal, a failed write)
// leave the old file byte for byte, or no file, and nothing else in the directory (an abort is
// the in-process handler tests' case).
TEST(EndToEnd, GetReplacesTheTargetOnlyOnceTheFileArrivedWhole) {
    enum End { Complete, Lose, Signal, Declined };
    struct Case {
        std::size_t size, chunk = 131072;
        bool existing = false;
        std::optional<std::string> input = {};
        End end = Complete;
        int how = 0;        // the refusal's kind, the signal
        bool link = false;  // the local path is a symbolic link to the file
        long limit = 0;     // writes past this size fail
    } cases[] = {
        {200000, 4093}, {3, 131072, true, "nope\n", Declined}, {3, 131072, true, std::nullopt},
        {5000, 131072, true, "y", Complete, 0, true}, {300000, 131072, true, "y", Lose}, {300000, 131072, false, {}, Signal, SIGHUP},
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
        } else if (c.end == Lose) {
            EXPECT_EQ(result.exitCode, 0);
            EXPECT_TRUE(contains(result.err, question)) << result.err;
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

// A server that calls the extension absent still answers the lookup: only a lookup that fails
// counts as a missing extension, so the run goes on until its first request breaks the
// connection, and ends without a message.
TEST(EndToEnd, ExtensionReportedAbsent) {
    loopback::ServerOptions options;
    options.fileTransferExtension = false;
    FarSide far(options);
    FAR_SIDE_OR_SKIP(far);
    ASSERT_TRUE(far.start({"-put", "/etc/hostname"}));
    EXPECT_TRUE(far.quiet(200ms));
    expectEnd(far.finish(), "Version 12.5\n\n");
}

// A link planted under the log's name while the run is under way is never written through:
// the lines after it go to standard error only.
TEST(EndToEnd, LogLinkPlantedDuringTheRunIsNotFollowed) {
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

void expectStatus(FarSide& far, std::uint8_t requestKind, bool failed, const std::string& path) {
    const auto status = far.nextStatus();
    ASSERT_TRUE(status);
    EXPECT_EQ(std::tie(status->requestKind, status->status, status->path),
              std::make_tuple(requestKind, std::uint8_t{failed}, path));
    EXPECT_TRUE(failed || status->error.empty()) << status->error;
}

// A sample tree; archives are packed and unpacked the way the desktop does it.
class Directories : public ::testing::Test {
protected:
    void SetUp() override {
        FAR_SIDE_OR_SKIP(far);
        archivetest::makeSampleTree(dir / "source");
        archive = pack(loopback::ZipMethod::Deflate);
    }
    Bytes pack(loopback::ZipMethod method) {
        loopback::PackResult packed;
        EXPECT_TRUE(loopback::packDirectory(dir / "source", method, packed, nullptr));
        return packed.bytes;
    }
    void expectSourceTree(const fs::path& root) {
        EXPECT_EQ(archivetest::imageOf(root), archivetest::imageOf(dir / "source"));
    }
    void expectSourceTree(const Bytes& zip) {
        loopback::UnpackResult unpacked;
        std::string error;
        ASSERT_TRUE(loopback::unpackArchive(zip, dir / "unpacked", unpacked, &error)) << error;
        expectSourceTree(dir / "unpacked");
    }

    FarSide far;
    testsupport::TempDir dir;
    Bytes archive;
};

// -getd: the tree is unpacked beside the target and replaces it (an existing tree the user
// agreed to overwrite included) only once it arrived whole. A signal or damaged data leave the
// target as it was, and nothing beside it.
TEST_F(Directories, GetDirectoryReplacesTheTargetOnlyOnceTheTreeArrivedWhole) {
    enum End { Complete, Signal, Damaged };
    struct Case {
        std::string name;
        bool existing;
        End end;
        int how = 0;  // the signal
    } cases[] = {
        {"replaced", true, Complete}, {"interrupted", true, Signal, SIGINT}, {"damaged", true, Damaged},
    };
    const Bytes damaged = archivetest::buildArchive({{"good.txt", "fine", 8, {}, false, false, {}}, {"bad.txt", "data", 8, {}, false, false, 1}});
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const fs::path parent = dir / ("in-" + c.name);
        fs::create_directories(parent);
        const std::string local = (parent / "tree").string();
        if (c.existing) {
            fs::create_directories(parent / "tree" / "sub");
            testsupport::writeFile(parent / "tree" / "sub" / "old.txt", "old");
        }
        const auto before = archivetest::imageOf(local);
        FarSide side;
        ASSERT_TRUE(side.start({"-getd", "Desktop/project", local}, "y"));
        const std::string question = c.existing ? "Local Directory " + local + " exists, overwrite it [y/n]?" : "";
        testsupport::RunResult result;
        std::string tail = "File Transfer completed.\n";
        {
            const auto announce = side.nextReply();
            ASSERT_TRUE(announce);
            EXPECT_EQ(fieldsOf(*announce), Fields(2, 6, 0, 10, 0, "Desktop/project", local));
            EXPECT_FALSE(fs::exists(local) && !c.existing) << "nothing under the target's name before arrival";
            side.push(echo(*announce, 4), c.end == Damaged ? damaged : archive);
            switch (c.end) {
                case Signal: side.signal(c.how); break;
                default:
                    side.send(echo(*announce, 8));
                    // The directory path comes from a kind 0 only.
                    expectStatus(side, 1, c.end == Damaged, "");
                    break;
            }
            result = side.finish();
        }
        if (c.end == Signal) EXPECT_EQ(result.signal, c.how);
        else expectEnd(result, tail);
        EXPECT_TRUE(contains(result.err, "Version 12.5\n\n" + question)) << result.err;
        EXPECT_EQ(contains(result.err, "Unable to write to local " + local + ": "), c.end == Damaged) << result.err;
        const bool arrived = c.end == Complete;
        EXPECT_EQ(testsupport::namesIn(parent), arrived || c.existing ? std::vector<std::string>{"tree"}
                                                                      : std::vector<std::string>{})
            << "no temporary is left behind";
        if (arrived) {
            expectSourceTree(local);
        } else if (c.existing) {
            EXPECT_EQ(archivetest::imageOf(local), before);
        }
    }
}

// -putd: the tree is packed and sent, and stays.
TEST_F(Directories, PutDirectoryFromTheCommandLine) {
    const std::string local = (dir / "source").string();
    ASSERT_TRUE(far.start({"-putd", local, "Desktop/copy"}));
    const auto announce = far.nextReply();
    ASSERT_TRUE(announce);
    EXPECT_EQ(fieldsOf(*announce), Fields(1, 6, 0, 10, 0, "Desktop/copy", local));
    expectSourceTree(far.pull(*announce));
    expectEnd(far.finish(), "File Transfer completed.\n");
    expectSourceTree(local);
}

}  // namespace
