// The transfer handler in-process: a session served through the dispatch against a recording
// wire and a scratch directory, in both the far side's sessions and command-line runs.
#include <gtest/gtest.h>

#include <filesystem>

#include "archive/archive_support.h"
#include "archive/dir_unpack_stream.h"
#include "common/log.h"
#include "filetransfer/session.h"
#include "recording_wire.h"
#include "support/temp_dir.h"

namespace {

using namespace fttest;
namespace fs = std::filesystem;
using loopback::TransferEvent;
using testsupport::readFile;
using testsupport::writeFile;

TransferEvent ev(std::uint8_t direction, std::uint8_t objectType, std::uint8_t kind, std::string b = {},
                 std::string a = "desk.txt") {
    return TransferEvent{direction, objectType, 0, kind, 0, std::move(a), std::move(b), {}};
}
Bytes pattern(std::size_t size) { return archivetest::toBytes(archivetest::repeatText(size)); }
using Fields = std::tuple<int, int, int, int, std::uint64_t, std::string, std::string>;
Fields fieldsOf(const Sent& s) {
    const TransferHeader& h = s.header;
    return {h.direction, h.objectType, h.openFlag, h.kind, h.size, h.nameA, h.nameB};
}

// Plays the receiving side: kind-5 events until the reply of kind 8; counts the chunks.
Bytes pull(Served& s, TransferEvent e, int* chunks = nullptr) {
    e.kind = kEventNextChunk;
    Bytes out;
    for (int n = 0; n < 100000; ++n) {
        const Sent r = s.ask(e);
        if (r.header.kind != kReplyChunk) {
            EXPECT_EQ(r.header.kind, kReplyEnd);
            if (chunks) *chunks = n;
            return out;
        }
        EXPECT_TRUE(!r.block.empty() && r.block.size() <= 131072);
        out.insert(out.end(), r.block.begin(), r.block.end());
    }
    ADD_FAILURE() << "no end";
    return out;
}

// Plays the sending side: kind-4 events of `chunk` bytes, each answered by kind 5 after a flush.
void push(Served& s, TransferEvent e, const Bytes& content, std::size_t chunk = 131072) {
    e.kind = kEventChunk;
    for (std::size_t at = 0; at < content.size(); at += chunk) {
        e.data.assign(content.begin() + static_cast<std::ptrdiff_t>(at),
                      content.begin() + static_cast<std::ptrdiff_t>(std::min(content.size(), at + chunk)));
        const int flushes = s.wire.flushes;
        EXPECT_EQ(s.ask(e).header.kind, kReplyChunkStored);
        EXPECT_EQ(s.wire.flushes, flushes + 1) << "the answer goes out before the write";
    }
}

class Handlers : public ::testing::Test {
protected:
    void SetUp() override { setLogVerbosity(1); }
    void TearDown() override { setLogVerbosity(0); }
    std::string at(const std::string& name) const { return (dir / name).string(); }
    testsupport::TempDir dir;
};

// Copies (object type 1) keep their file, moves (2) remove it when the fetch ends; an abort of a
// move removes it too. Completion and abort get no reply; afterwards nothing is in progress.
TEST_F(Handlers, FetchSendsTheSizeThenTheChunks) {
    Served s;
    const std::tuple<std::size_t, std::uint8_t, std::uint8_t> cases[] = {
        {0, 1, 8}, {131072, 1, 8}, {2 * 131072 + 5, 1, 8}, {8, 2, 8}, {3, 3, 7}, {3, 1, 7}};
    for (const auto& [size, objectType, end] : cases) {
        SCOPED_TRACE(testing::Message() << size << " " << int(objectType) << " " << int(end));
        const Bytes content = pattern(size);
        const std::string file = at("f" + std::to_string(size));
        writeFile(file, std::string(content.begin(), content.end()));
        const Sent opened = s.ask(ev(1, objectType, 0, file));
        EXPECT_EQ(fieldsOf(opened), Fields(1, objectType, 0, 3, size, "desk.txt", file));
        int chunks = 0;
        if (end == 8) {
            EXPECT_EQ(pull(s, ev(1, objectType, 5, file), &chunks), content);
            EXPECT_EQ(chunks, (size + 131071) / 131072) << "chunks of 131072 bytes";
        }
        s.transfer(ev(1, objectType, end, file));
        EXPECT_TRUE(s.wire.take().empty());
        EXPECT_EQ(fs::exists(file), objectType == 1);
        EXPECT_EQ(s.ask(ev(1, 1, 5, file)).header.kind, kReplyNoTransfer);
    }
}

// An existing file gets kind 1 and is replaced on kind 2 only, and only when the new one
// arrived whole: before the end, or after an abort, the old one is there. Nothing is left
// beside the files.
TEST_F(Handlers, StoreReplacesOnlyWhatArrivedWhole) {
    Served s;
    for (const auto& [existing, abort] : {std::pair{true, true}, std::pair{true, false}, std::pair{false, false}}) {
        SCOPED_TRACE(testing::Message() << existing << abort);
        const std::string file = at(existing ? "old" : "new");
        if (existing) {
            writeFile(file, "old");
            EXPECT_EQ(s.ask(ev(2, 1, 0, file)).header.kind, kReplyTargetExists);
        }
        EXPECT_EQ(fieldsOf(s.ask(ev(2, 1, existing ? 2 : 0, file))), Fields(2, 1, 0, 3, 0, "desk.txt", file));
        const Bytes content = existing ? archivetest::toBytes("new") : pattern(300000);
        push(s, ev(2, 1, 4, file), content, 65536 + 3);
        EXPECT_EQ(fs::exists(file) ? readFile(file) : "-", existing ? "old" : "-");
        s.transfer(ev(2, 1, abort ? 7 : 8, file));
        EXPECT_TRUE(s.wire.take().empty());
        EXPECT_EQ(archivetest::toBytes(readFile(file)), abort ? archivetest::toBytes("old") : content);
        EXPECT_EQ(s.ask(ev(2, 1, 4, file)).header.kind, kReplyNoTransfer);
    }
    EXPECT_EQ(testsupport::namesIn(dir.path()), (std::vector<std::string>{"new", "old"}));
}

// A failure is reported with the error of the call that failed, whatever came between.
TEST_F(Handlers, LocalFailuresAreStatusesWithTheSystemsText) {
    Served s;
    fs::create_directories(dir / "a-directory");
    const std::tuple<std::uint8_t, std::string, std::uint8_t, std::string> cases[] = {
        {1, at("missing.txt"), kStatusTransfer, "No such file or directory"},
        {2, at("no/such/f"), kStatusTransferTarget, "No such file or directory"},
        {2, at("a-directory"), kStatusTransferTarget, "Is a directory"},
        {1, at(std::string(300, 'n')), kStatusTransfer, "File name too long"},
    };
    for (const auto& [direction, path, kind, error] : cases) {
        const Sent st = s.ask(ev(direction, 1, 2, path));
        EXPECT_EQ(std::tie(st.minor, st.requestKind, st.failed, st.path, st.error),
                  std::make_tuple(std::uint16_t{119}, kind, true, path, error));
    }
}

// Events out of order get their fixed answers; names of length 0 or above 1023 are not taken:
// the earlier ones stay.
TEST_F(Handlers, EventsOutOfOrderAndNamesThatAreKept) {
    Served s;
    EXPECT_EQ(fieldsOf(s.ask(ev(2, 1, 4, "/x"))), Fields(2, 1, 0, 6, 0, "desk.txt", "/x"));
    EXPECT_EQ(s.ask(ev(1, 1, 5, "/x")).header.kind, kReplyNoTransfer);
    for (const int k : {1, 3, 6, 9, 12, 18, 255}) {
        const Sent r = s.ask(ev(1, 1, static_cast<std::uint8_t>(k), "/x"));
        EXPECT_EQ(std::tie(r.header.kind, r.block), std::make_tuple(std::uint8_t{4}, Bytes{})) << k;
    }
    const std::string file = at("f");
    writeFile(file, "abc");
    s.ask(ev(1, 1, 0, file, "first-a"));
    Sent r = s.ask(ev(1, 1, 5, "", ""));  // both empty: the earlier names stay
    EXPECT_EQ(std::tie(r.header.nameA, r.header.nameB, r.block), std::make_tuple("first-a", file, archivetest::toBytes("abc")));
    r = s.ask(ev(1, 1, 11, file, std::string(1024, 'z')));  // an unknown kind ends the transfer
    EXPECT_EQ(std::tie(r.header.kind, r.header.nameA, r.header.nameB), std::make_tuple(8, "first-a", file));
    // Names of 1023 bytes are taken (up to a NUL byte); 1024 bytes are not.
    const std::string a = std::string(1020, 'y') + '\0' + "xy", b = "/" + std::string(1022, 'b');
    r = s.ask(ev(1, 1, 9, b, a));
    EXPECT_EQ(std::tie(r.header.nameA, r.header.nameB), std::make_tuple(std::string(1020, 'y'), b));
    r = s.ask(ev(1, 1, 9, b + "c", a + "c"));
    EXPECT_EQ(std::tie(r.header.nameA, r.header.nameB), std::make_tuple(std::string(1020, 'y'), b));
}

// Events of other types or extensions, non-generic events and events whose lengths lie are
// dropped unanswered; the session goes on and nothing of them reaches the file.
TEST_F(Handlers, EventsThatLieAreDropped) {
    setLogVerbosity(2);
    Served s;
    const std::string file = at("target");
    s.ask(ev(2, 1, 0, file));
    TransferEvent chunk = ev(2, 1, 4, file);
    chunk.data = archivetest::toBytes("abcd");
    Bytes longData = loopback::encodeTransferEvent(chunk), longName = longData;
    bytes::put32(longData, 16, 1u << 20);
    bytes::put16(longName, 12, 900);
    Bytes notGeneric = eventOf(90, longData);
    notGeneric[0] = 34;
    testing::internal::CaptureStderr();
    dispatchEvent(s.session, kExtension, eventOf(90, loopback::encodeTransferEvent(chunk), 99));
    dispatchEvent(s.session, kExtension, std::span<const std::uint8_t>(eventOf(90, {})).first(31));
    dispatchEvent(s.session, kExtension, notGeneric);
    s.send(92, loopback::encodeTransferEvent(chunk));
    for (const Bytes& lie : {longData, longName, Bytes{2, 1, 0, 4, 0, 0, 0, 0}, Bytes{}}) s.send(90, lie);
    const std::string err = testing::internal::GetCapturedStderr();
    EXPECT_TRUE(s.wire.take().empty());
    EXPECT_EQ(s.ask(chunk).header.kind, kReplyChunkStored);
    s.transfer(ev(2, 1, 8, file));
    EXPECT_EQ(readFile(file), "abcd");
    std::string dropped;
    for (int i = 0; i < 4; ++i) dropped += "gev->event_type = 90\nReading file transfer request.\n"
                                           "Dropping event of type 90: its lengths exceed the event.\n";
    EXPECT_EQ(err, "Skipping gev->extension = 99.\ngev->event_type = 92\n" + dropped);
}

// The session end and the refusals end the run whatever it is doing; what a receive wrote so
// far goes with its temporary, a file being sent stays.
TEST_F(Handlers, SessionEndAndRefusalsEndTheRun) {
    const std::pair<std::uint8_t, std::string> cases[] = {
        {13, "File Transfer session was closed.\n"},
        {14, "Failed to connect. Another File Transfer session is running.\n"},
        {15, "Failed to connect. Varo Client does not support file transfer.\n"},
        {16, "Failed, because the session is suspended. Please resume the session and try again.\n"},
        {17, "Failed. The remote printing and /or file transfer are not allowed for this session.\n"},
    };
    for (const auto& [kind, message] : cases) {
        SCOPED_TRACE(int(kind));
        Served s;
        const std::string sent = at("sent"), received = at("received");
        writeFile(sent, "abc");
        s.ask(ev(1, 1, 0, sent));
        s.ask(ev(2, 1, 0, received));
        push(s, ev(2, 1, 4, received), archivetest::toBytes("part"));
        testing::internal::CaptureStderr();
        const Outcome o = s.transfer(ev(2, 1, kind));
        EXPECT_EQ(testing::internal::GetCapturedStderr(), message);
        EXPECT_TRUE(o.end && o.status == 0);
        EXPECT_TRUE(s.wire.take().empty());
        EXPECT_EQ(finishRun(s.session, o), 0);
        EXPECT_EQ(testsupport::namesIn(dir.path()), std::vector<std::string>{"sent"});
    }
}

// A command-line run: the local side is prepared and the run announced, or a local error ends
// it before any request.
TEST_F(Handlers, CommandLineRunsStartAndEnd) {
    writeFile(dir / "plain", "12345");
    fs::create_directories(dir / "a-directory" / "sub");
    const std::string plain = at("plain"), directory = at("a-directory");
    struct Case {
        RunMode mode;
        std::string local, remote, message;
        Fields announced = {};
    } cases[] = {
        {RunMode::Put, plain, "?", "", Fields(1, 1, 0, 10, 5, "?", plain)},
        {RunMode::Open, plain, "ignored", "", Fields(1, 0, 1, 10, 5, "plain", plain)},
        {RunMode::PutDir, directory, "Desktop/copy", "", Fields(1, 6, 0, 10, 0, "Desktop/copy", directory)},
        {RunMode::Get, at("new.bin"), "r.bin", "", Fields(2, 1, 0, 10, 0, "r.bin", at("new.bin"))},
        {RunMode::GetDir, at("new-dir"), "R", "", Fields(2, 6, 0, 10, 0, "R", at("new-dir"))},
        {RunMode::Put, "/nonexistent/v/f.txt", "?", "Unable to open local file: /nonexistent/v/f.txt.\n"},
        {RunMode::Open, directory, "?", "Unable to open local file: " + directory + ".\n"},
        {RunMode::Get, "/nonexistent/v/x", "r", "Unable to open local file for writting: /nonexistent/v/x.\n"},
        {RunMode::Get, directory, "r", "Unable to open local file for writting: " + directory + ".\n"},
        {RunMode::PutDir, plain, "r", plain + " is not a directory: \n"},
        {RunMode::PutDir, "/nonexistent/v", "r", "Unable to open local directory: /nonexistent/v.\n"},
        {RunMode::GetDir, "newdir", "r", "Wrong local path: newdir \n"},
        {RunMode::GetDir, "/nonexistent/v/newdir", "r", "Wrong local path: /nonexistent/v \n"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.local);
        Options options;
        options.runMode = c.mode;
        options.localPath = c.local;
        options.remotePath = c.remote;
        Served s(options);
        testing::internal::CaptureStderr();
        const Outcome o = startRun(s.session);
        EXPECT_EQ(testing::internal::GetCapturedStderr(), c.message);
        EXPECT_EQ(o.end, !c.message.empty());
        const auto sent = s.wire.take();
        ASSERT_EQ(sent.size(), c.message.empty() ? 1u : 0u);
        if (!c.message.empty()) continue;
        EXPECT_EQ(fieldsOf(sent[0]), c.announced);
        // A receive the far side aborts ends the run and leaves nothing; the other endings are
        // the end-to-end runs'.
        if (c.mode != RunMode::Get && c.mode != RunMode::GetDir) continue;
        testing::internal::CaptureStderr();
        EXPECT_TRUE(s.transfer(ev(2, sent[0].header.objectType, 7)).end);
        EXPECT_EQ(testing::internal::GetCapturedStderr(), "File Transfer aborted by remote.\n");
        EXPECT_FALSE(fs::exists(c.local));
    }
}

// Directories both ways in one session: the tree packed here is unpacked into a temporary and
// replaces nothing until it arrived whole; damaged or cut archives and names that name no
// directory fail without leaving anything.
TEST_F(Handlers, DirectoriesRoundTrip) {
    archivetest::makeSampleTree(dir / "source");
    Served s;
    const std::string source = at("source");
    EXPECT_EQ(fieldsOf(s.ask(ev(1, 6, 0, source))), Fields(1, 6, 0, 3, 0, "desk.txt", source));
    const Bytes archive = pull(s, ev(1, 6, 5, source));
    Sent done = s.ask(ev(1, 6, 8, source));
    EXPECT_EQ(std::tie(done.minor, done.requestKind, done.failed, done.path),
              std::make_tuple(std::uint16_t{119}, std::uint8_t{1}, false, ""));

    // The first ".zip" ends the name; one without a separator or ".zip" gets no answer.
    const std::string copy = at("copy.zip/x.zip");
    for (const std::string& b : {std::string("pics.zip"), at("pics")}) EXPECT_EQ(s.ask(ev(2, 6, 0, b)).minor, 0);
    EXPECT_EQ(s.ask(ev(2, 6, 0, copy)).header.kind, kReplyOpened);
    push(s, ev(2, 6, 4, copy), archive, 1000);
    EXPECT_FALSE(fs::exists(dir / "copy"));
    done = s.ask(ev(2, 6, 8, copy));
    EXPECT_EQ(std::tie(done.requestKind, done.failed, done.path), std::make_tuple(std::uint8_t{1}, false, at("copy")));
    EXPECT_EQ(archivetest::imageOf(dir / "copy"), archivetest::imageOf(dir / "source"));

    // An existing tree is replaced on kind 2 only; a cut archive leaves it as it was.
    EXPECT_EQ(s.ask(ev(2, 6, 0, at("copy.zip"))).header.kind, kReplyTargetExists);
    EXPECT_EQ(s.ask(ev(2, 6, 2, at("copy.zip"))).header.kind, kReplyOpened);
    push(s, ev(2, 6, 4, at("copy.zip")), Bytes(archive.begin(), archive.begin() + 300));
    done = s.ask(ev(2, 6, 8, at("copy.zip")));
    EXPECT_EQ(std::tie(done.requestKind, done.failed, done.path, done.error),
              std::make_tuple(std::uint8_t{1}, true, at("copy"), "Bad message"));
    EXPECT_EQ(archivetest::imageOf(dir / "copy"), archivetest::imageOf(dir / "source"));
    EXPECT_EQ(testsupport::namesIn(dir.path()), (std::vector<std::string>{"copy", "source"}));

    // A damaged last entry of an archive that never reaches its central directory is logged and
    // reported as in order, also when worker threads still held it as the chunks stopped.
    const Bytes damaged = archivetest::buildArchive(
        {{.name = "a", .data = archivetest::repeatText(5000), .method = 8}, {.name = "b", .data = "bytes", .method = 8, .crc = 1}}, false);
    for (const unsigned workers : {1u, 3u}) {
        ASSERT_TRUE(s.session.ensureUnpackStream());
        setDirUnpackStreamWorkers(s.session.unpackStream.get(), workers);
        EXPECT_EQ(s.ask(ev(2, 6, 0, at("copy.zip"))).header.kind, kReplyTargetExists);
        EXPECT_EQ(s.ask(ev(2, 6, 2, at("copy.zip"))).header.kind, kReplyOpened);
        testing::internal::CaptureStderr();
        push(s, ev(2, 6, 4, at("copy.zip")), damaged);
        done = s.ask(ev(2, 6, 8, at("copy.zip")));
        EXPECT_EQ(testing::internal::GetCapturedStderr(), "Unable to write to local " + at("copy") + ": Bad message\n") << workers;
        EXPECT_EQ(std::tie(done.failed, done.error), std::make_tuple(true, "Bad message")) << workers;
        EXPECT_EQ(archivetest::imageOf(dir / "copy"), archivetest::imageOf(dir / "source")) << workers;
    }

    // Kind 2 before any kind 0 has no directory path: nothing around the process is touched.
    Served fresh;
    testing::internal::CaptureStderr();
    done = fresh.ask(ev(2, 6, 2, at("source.zip")));
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "Unable to create directory : No such file or directory (2)\n");
    EXPECT_EQ(std::tie(done.requestKind, done.failed, done.path), std::make_tuple(std::uint8_t{1}, true, ""));
    EXPECT_EQ(s.ask(ev(1, 6, 0, at("missing"))).requestKind, kStatusTransfer);
}

}  // namespace
