// Browsing, deleting and renaming driven by the far side: varoft runs without a transfer option
// against the loopback X server, its home is a scratch directory, and each test plays the far
// side's events and reads the FileListItem and FileTransferStatus requests that come back.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <map>
#include <thread>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "common/bytes.h"
#include "far_protocol.h"
#include "far_side.h"
#include "support/process.h"
#include "support/temp_dir.h"

namespace {

using namespace fttest;
namespace fs = std::filesystem;

constexpr std::int64_t kTime = 1600000000;  // the modification time given to test entries

bool contains(const std::string& text, const std::string& part) { return text.find(part) != std::string::npos; }

std::size_t count(const std::string& text, const std::string& part) {
    std::size_t n = 0;
    for (auto at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) ++n;
    return n;
}

// Sets the modification time of an entry itself (a link is not followed).
void touch(const fs::path& path, std::int64_t seconds = kTime) {
    const timespec times[2] = {{seconds, 0}, {seconds, 0}};
    ASSERT_EQ(::utimensat(AT_FDCWD, path.c_str(), times, AT_SYMLINK_NOFOLLOW), 0) << path;
}

void makeFile(const fs::path& path, std::string_view content) {
    testsupport::writeFile(path, content);
    touch(path);
}

// What came back for one ListDirectoryRequest.
struct Listing {
    std::optional<loopback::ListItem> first;             // the listed directory
    std::map<std::string, loopback::ListItem> entries;  // by the entry name after "<time>_"
    std::map<std::string, std::string> times;            // the "<time>" part of each entry
    std::vector<std::string> order;                      // item names as sent
    bool ended = false;                                  // the empty terminating item came
    bool wellFormed = true;                              // every item's fixed bytes and padding
    std::optional<loopback::TransferStatus> status;      // instead of items
};

class Browse : public ::testing::Test {
protected:
    void SetUp() override {
        home = dir / "home";
        docs = home / "Documents";
        fs::create_directories(docs);
    }

    void begin(std::vector<std::string> args = {"-vvv"}) {
        if (!far.ok()) GTEST_SKIP() << "no loopback server: " << far.error();
        ASSERT_TRUE(far.start(std::move(args), std::nullopt, {{"HOME", home.string()}}));
        const auto start = far.nextReply();
        ASSERT_TRUE(start);
        ASSERT_EQ(start->kind, 9);
    }

    testsupport::RunResult end() {
        far.server().closeClient();
        return far.finish();
    }

    Listing list(std::string_view path) {
        EXPECT_TRUE(far.sendPayload(91, loopback::encodeListDirectory(path)));
        return collect();
    }

    Listing collect() {
        Listing out;
        while (auto request = far.server().nextRequest(10000ms)) {
            if (request->minor == 119) {
                out.status = loopback::decodeTransferStatus(request->bytes);
                EXPECT_TRUE(out.status);
                return out;
            }
            EXPECT_EQ(request->minor, 116);
            if (request->minor != 116) return out;
            const auto& b = request->bytes;
            const auto item = loopback::decodeListItem(b);
            EXPECT_TRUE(item);
            if (!item) return out;
            const std::size_t nameLength = bytes::get32(b, 4);
            if (b.size() != 24 + nameLength + (4 - nameLength % 4) % 4 ||
                std::any_of(b.begin() + 17, b.begin() + 24, [](std::uint8_t x) { return x != 0; }) ||
                std::any_of(b.begin() + 24 + static_cast<std::ptrdiff_t>(nameLength), b.end(),
                            [](std::uint8_t x) { return x != 0; }))
                out.wellFormed = false;
            if (!out.first) {
                EXPECT_EQ(item->type, 2);
                EXPECT_EQ(item->size, 0u);
                out.first = *item;
                continue;
            }
            if (item->type == 0) {
                EXPECT_EQ(item->name, "");
                EXPECT_EQ(item->size, 0u);
                out.ended = true;
                return out;
            }
            out.order.push_back(item->name);
            const auto cut = item->name.find('_');
            EXPECT_NE(cut, std::string::npos) << item->name;
            if (cut == std::string::npos) continue;
            const std::string name = item->name.substr(cut + 1);
            EXPECT_EQ(out.entries.count(name), 0u) << "listed twice: " << name;
            out.entries[name] = *item;
            out.times[name] = item->name.substr(0, cut);
        }
        ADD_FAILURE() << "the listing did not end";
        return out;
    }

    std::optional<loopback::TransferStatus> request(std::uint16_t type, const Bytes& payload) {
        EXPECT_TRUE(far.sendPayload(type, payload));
        const auto r = far.server().nextRequest(10000ms);
        EXPECT_TRUE(r);
        if (!r) return std::nullopt;
        EXPECT_EQ(r->minor, 119);
        return loopback::decodeTransferStatus(r->bytes);
    }
    std::optional<loopback::TransferStatus> remove(std::string_view path) {
        return request(75, loopback::encodeDeleteFile(path));
    }
    std::optional<loopback::TransferStatus> rename(std::string_view from, std::string_view to) {
        return request(93, loopback::encodeRenameFile(from, to));
    }

    testsupport::TempDir dir;
    fs::path home, docs;
    FarSide far;
};

void expectEntry(const Listing& l, const std::string& name, std::uint8_t type, std::uint64_t size,
                 std::optional<std::int64_t> time = kTime) {
    SCOPED_TRACE(name);
    const auto it = l.entries.find(name);
    ASSERT_NE(it, l.entries.end());
    EXPECT_EQ(it->second.type, type) << char(it->second.type);
    EXPECT_EQ(it->second.size, size);
    if (time) {
        EXPECT_EQ(l.times.at(name), std::to_string(*time));
    }
}

// ---- what a listing holds ----------------------------------------------------------------------

TEST_F(Browse, StartingDirectoryWithClassesSizesTimesAndNoHiddenEntries) {
    makeFile(docs / "notes.txt", "plain words\n");
    makeFile(docs / "page.ps", "%!PS-Adobe-3.0\nshowpage\n");
    makeFile(docs / "figure.eps", "%!PS-Adobe-3.0 EPSF-3.0\n");
    makeFile(docs / "paper.pdf", std::string("%PDF-1.7\n\x01\x02\x03\xff", 13));
    makeFile(docs / "image.gif", std::string("GIF89a\x01\x00\x01\x00\x80\x00", 12));
    makeFile(docs / "empty", "");
    makeFile(docs / "tool.bin", std::string("\x7f" "ELF\x02\x01\x00\x00", 8));
    makeFile(docs / ".profile", "hidden\n");
    fs::create_directories(docs / ".cache" / "inner");
    fs::create_directories(docs / "sub");
    touch(docs / "sub", kTime + 1);
    touch(docs, kTime + 2);
    touch(home, kTime + 3);
    begin();

    const Listing l = list("");
    ASSERT_TRUE(l.first) << (l.status ? l.status->error : "");
    EXPECT_EQ(l.first->name, docs.string());
    EXPECT_TRUE(l.ended);
    EXPECT_TRUE(l.wellFormed);
    expectEntry(l, "notes.txt", 't', 12);
    expectEntry(l, "page.ps", 'p', 24);
    expectEntry(l, "figure.eps", 'p', 24);
    expectEntry(l, "paper.pdf", 'a', 13);
    expectEntry(l, "image.gif", 'b', 12);
    expectEntry(l, "empty", 't', 0);
    expectEntry(l, "tool.bin", 'b', 8);
    expectEntry(l, "sub", 1, 0, kTime + 1);
    expectEntry(l, "..", 1, 0, kTime + 3);  // the home directory
    EXPECT_EQ(l.entries.count("."), 0u);
    EXPECT_EQ(l.entries.count(".profile"), 0u);
    EXPECT_EQ(l.entries.count(".cache"), 0u);
    EXPECT_EQ(l.entries.size(), 9u);

    const auto result = end();
    EXPECT_EQ(result.exitCode, 0);
    // Each entry is traced when it is read, and again before its item goes out.
    EXPECT_EQ(count(result.err, " item:notes.txt\n"), 2u);
    EXPECT_EQ(count(result.err, " item:..\n"), 2u);
    EXPECT_EQ(count(result.err, " item:.profile\n"), 1u);
    EXPECT_EQ(count(result.err, " item:.\n"), 1u);
}

TEST_F(Browse, LinksFollowedSpecialFilesNeverOpened) {
    makeFile(dir / "target.txt", "linked text\n");
    fs::create_directories(dir / "target-dir");
    touch(dir / "target-dir", kTime + 5);
    fs::create_symlink(dir / "target.txt", docs / "to-file");
    fs::create_directory_symlink(dir / "target-dir", docs / "to-dir");
    fs::create_symlink(dir / "nowhere", docs / "dangling");
    touch(docs / "dangling", kTime + 9);
    ASSERT_EQ(::mkfifo((docs / "pipe").c_str(), 0600), 0);
    touch(docs / "pipe");
    fs::create_symlink(docs / "pipe", docs / "to-pipe");
    begin();

    // A FIFO opened for classification would block the whole session here.
    const Listing l = list("");
    ASSERT_TRUE(l.ended);
    expectEntry(l, "to-file", 't', 12);
    expectEntry(l, "to-dir", 1, 0, kTime + 5);
    expectEntry(l, "dangling", 'b', 0, kTime + 9);  // the link's own time
    expectEntry(l, "pipe", 'b', 0);
    expectEntry(l, "to-pipe", 'b', 0);
    // The session goes on.
    EXPECT_TRUE(list("").ended);
    EXPECT_EQ(end().exitCode, 0);
}

TEST_F(Browse, SizeAbove4GiBAndLongNames) {
    const std::uint64_t big = (5ull << 30) + 3;
    {
        const fs::path sparse = docs / "sparse.img";
        testsupport::writeFile(sparse, "");
        ASSERT_EQ(::truncate(sparse.c_str(), static_cast<off_t>(big)), 0);
        touch(sparse);
    }
    // The longest name this file system takes; anything past 259 bytes is cut (unit-tested).
    const long nameMax = ::pathconf(docs.c_str(), _PC_NAME_MAX);
    ASSERT_GT(nameMax, 0);
    const std::string longName = std::string(static_cast<std::size_t>(std::min<long>(nameMax, 259)) - 4, 'L') + ".txt";
    makeFile(docs / longName, "x\n");
    const std::string utf8Name = "r\xC3\xA9sum\xC3\xA9 \xE2\x82\xAC.txt";
    makeFile(docs / utf8Name, "caf\xC3\xA9\n");
    begin();

    const Listing l = list("");
    ASSERT_TRUE(l.ended);
    expectEntry(l, "sparse.img", 'b', big);
    expectEntry(l, longName, 't', 2);
    expectEntry(l, utf8Name, 't', 6);
    EXPECT_TRUE(l.wellFormed);
    end();
}

// ---- where a request leads -----------------------------------------------------------------------

TEST_F(Browse, ParentRelativeAbsoluteAndRoot) {
    fs::create_directories(docs / "projects" / "alpha");
    makeFile(docs / "projects" / "alpha" / "readme.txt", "read me\n");
    begin();

    EXPECT_EQ(list("").first->name, docs.string());
    Listing l = list("projects");
    ASSERT_TRUE(l.first);
    EXPECT_EQ(l.first->name, (docs / "projects").string());
    expectEntry(l, "alpha", 1, 0, std::nullopt);
    l = list("alpha");
    EXPECT_EQ(l.first->name, (docs / "projects" / "alpha").string());
    expectEntry(l, "readme.txt", 't', 8);
    // The same directory again, as it stands.
    EXPECT_EQ(list((docs / "projects" / "alpha").string()).first->name, (docs / "projects" / "alpha").string());

    // ".." climbs one level at a time up to the root, which stays the root.
    std::string expected = (docs / "projects" / "alpha").string();
    while (expected != "/") {
        const auto cut = expected.rfind('/');
        expected = cut == 0 ? "/" : expected.substr(0, cut);
        l = list("..");
        ASSERT_TRUE(l.first) << expected;
        EXPECT_EQ(l.first->name, expected);
        EXPECT_EQ(l.entries.count(".."), expected == "/" ? 0u : 1u) << expected;
    }
    l = list("..");
    EXPECT_EQ(l.first->name, "/");
    EXPECT_EQ(l.entries.count(".."), 0u);

    // A relative name at the root gets one slash.
    const std::string top = *std::next(dir.path().begin());  // first component below "/"
    l = list(top);
    ASSERT_TRUE(l.first);
    EXPECT_EQ(l.first->name, "/" + top);

    // An absolute request replaces the browsing directory whatever it was.
    l = list(home.string());
    EXPECT_EQ(l.first->name, home.string());
    expectEntry(l, "Documents", 1, 0, std::nullopt);
    EXPECT_EQ(end().exitCode, 0);
}

TEST_F(Browse, FailedListingKeepsTheOldDirectory) {
    makeFile(docs / "plain.txt", "text\n");
    fs::create_directories(docs / "there");
    begin();
    ASSERT_TRUE(list("").ended);

    Listing l = list("missing");
    ASSERT_TRUE(l.status);
    EXPECT_FALSE(l.first);
    EXPECT_EQ(l.status->requestKind, 4);
    EXPECT_EQ(l.status->status, 1);
    EXPECT_EQ(l.status->path, (docs / "missing").string() + "/*");
    EXPECT_EQ(l.status->error, "No such file or directory");

    // The next relative request starts from where the last good listing was.
    l = list("there");
    ASSERT_TRUE(l.first);
    EXPECT_EQ(l.first->name, (docs / "there").string());

    l = list((docs / "plain.txt").string());
    ASSERT_TRUE(l.status);
    EXPECT_EQ(l.status->path, (docs / "plain.txt").string() + "/*");
    EXPECT_EQ(l.status->error, "Not a directory");
    if (::geteuid() != 0) {
        fs::create_directories(docs / "closed");
        fs::permissions(docs / "closed", fs::perms::none);
        l = list((docs / "closed").string());
        ASSERT_TRUE(l.status);
        EXPECT_EQ(l.status->error, "Permission denied");
        fs::permissions(docs / "closed", fs::perms::owner_all);
    }
    EXPECT_EQ(list("..").first->name, docs.string());
    end();
}

TEST_F(Browse, FirstRequestFailingLeavesNothingBrowsed) {
    far.setWorkingDirectory(docs.string());
    begin();
    Listing l = list("/no/such/place");
    ASSERT_TRUE(l.status);
    EXPECT_EQ(l.status->path, "/no/such/place/*");
    // Still nothing browsed: a relative request is taken as it stands (from the working
    // directory), not joined to the failed one.
    l = list("..");
    ASSERT_TRUE(l.first);
    EXPECT_EQ(l.first->name, "..");
    EXPECT_EQ(l.entries.count("Documents"), 1u);
    end();
}

// ---- messages and events that lie --------------------------------------------------------------

TEST_F(Browse, LogLinesAtEachLevel) {
    makeFile(docs / "only.txt", "1\n");
    begin({"-vvv"});
    ASSERT_TRUE(list("").ended);
    ASSERT_TRUE(list("nothing-here").status);
    auto result = end();
    const std::string d = docs.string();
    EXPECT_TRUE(contains(result.err, "gev->event_type = 91\n"
                                     "Reading directory listing request.\n"
                                     " Got count=0\n"
                                     " Current browsing dir:\n"
                                     " pDir:\n"
                                     " New browsing dir:" + d + "\n"
                                     " New browsing dir:" + d + "/*\n"
                                     " item:"))
        << result.err;
    EXPECT_TRUE(contains(result.err, "Reading directory listing request.\n"
                                     " Got count=12\n"
                                     " Current browsing dir:" + d + "\n"
                                     " pDir:nothing-here\n"
                                     " New browsing dir:" + d + "/nothing-here\n"
                                     "Sending failed file transfer status, error : No such file or directory\n"))
        << result.err;

    // -v shows the progress lines only; -vv adds the count and the pattern, not the items.
    for (const bool detail : {false, true}) {
        SCOPED_TRACE(detail ? "-vv" : "-v");
        FarSide quieter;
        ASSERT_TRUE(quieter.start({detail ? "-vv" : "-v"}, std::nullopt, {{"HOME", home.string()}}));
        ASSERT_TRUE(quieter.nextReply());
        ASSERT_TRUE(quieter.sendPayload(91, loopback::encodeListDirectory(d)));
        // The directory, "..", only.txt and the end.
        for (int items = 0; items < 4; ++items) ASSERT_TRUE(quieter.server().nextRequest(10000ms));
        quieter.server().closeClient();
        result = quieter.finish();
        EXPECT_TRUE(contains(result.err, "Reading directory listing request.\n" +
                                             std::string(detail ? " Got count=" + std::to_string(d.size()) + "\n" : "") +
                                             " Current browsing dir:\n"
                                             " pDir:" + d + "\n"
                                             " New browsing dir:" + d + "\n" +
                                             (detail ? " New browsing dir:" + d + "/*\n" : "")))
            << result.err;
        EXPECT_EQ(contains(result.err, "Got count"), detail) << result.err;
        EXPECT_EQ(count(result.err, " New browsing dir:"), detail ? 2u : 1u) << result.err;
        EXPECT_FALSE(contains(result.err, " item:")) << result.err;
    }
}

TEST_F(Browse, LyingLengthsAreDroppedAndTheSessionGoesOn) {
    makeFile(docs / "keep.txt", "keep\n");
    begin({"-v"});
    Bytes listing;
    bytes::Writer(listing).u16(200).u16(0).raw(std::string_view("/tmp"));
    Bytes removal;
    bytes::Writer(removal).u16(0).u16(300).raw((docs / "keep.txt").string());
    Bytes renaming;
    bytes::Writer(renaming).u16(8).u16(100).raw(std::string_view("keep.txtother"));
    ASSERT_TRUE(far.sendPayload(91, listing));
    ASSERT_TRUE(far.sendPayload(75, removal));
    ASSERT_TRUE(far.sendPayload(93, renaming));
    EXPECT_TRUE(far.quiet());
    EXPECT_TRUE(fs::exists(docs / "keep.txt"));
    EXPECT_TRUE(list("").ended);
    const auto result = end();
    for (const char* type : {"91", "75", "93"})
        EXPECT_TRUE(contains(result.err, std::string("Dropping event of type ") + type + ": its lengths exceed the event.\n"))
            << result.err;
}

// ---- delete ------------------------------------------------------------------------------------

TEST_F(Browse, DeleteFilesTreesAndLinks) {
    makeFile(docs / "gone.txt", "bye\n");
    // A tree holding a link to a directory outside it, and a link to a file outside it.
    const fs::path outside = dir / "outside";
    fs::create_directories(outside / "deep");
    makeFile(outside / "deep" / "precious.txt", "keep\n");
    const fs::path tree = docs / "tree";
    fs::create_directories(tree / "a" / "b");
    makeFile(tree / "a" / "b" / "x.txt", "x");
    makeFile(tree / ".hidden", "h");
    fs::create_directory_symlink(outside, tree / "a" / "link-out");
    fs::create_symlink(outside / "deep" / "precious.txt", tree / "file-link");
    // Links to a directory, deleted themselves, also when named with a trailing slash.
    fs::create_directory_symlink(outside, docs / "out-link");
    fs::create_directory_symlink(outside, docs / "slash-link");
    begin();

    auto status = remove((docs / "gone.txt").string());
    ASSERT_TRUE(status);
    EXPECT_EQ(status->requestKind, 3);
    EXPECT_EQ(status->status, 0);
    EXPECT_EQ(status->path, (docs / "gone.txt").string());
    EXPECT_EQ(status->error, "");
    EXPECT_FALSE(fs::exists(docs / "gone.txt"));

    status = remove(tree.string());
    ASSERT_TRUE(status);
    EXPECT_EQ(status->status, 0);
    EXPECT_FALSE(fs::exists(fs::symlink_status(tree)));
    EXPECT_EQ(testsupport::readFile(outside / "deep" / "precious.txt"), "keep\n");

    status = remove((docs / "out-link").string());
    ASSERT_TRUE(status);
    EXPECT_EQ(status->status, 0);
    EXPECT_FALSE(fs::exists(fs::symlink_status(docs / "out-link")));
    EXPECT_TRUE(fs::exists(outside / "deep" / "precious.txt"));

    status = remove((docs / "slash-link").string() + "/");
    ASSERT_TRUE(status);
    EXPECT_EQ(status->status, 0);
    EXPECT_EQ(status->path, (docs / "slash-link").string() + "/");
    EXPECT_FALSE(fs::exists(fs::symlink_status(docs / "slash-link")));
    EXPECT_EQ(testsupport::readFile(outside / "deep" / "precious.txt"), "keep\n");

    const auto result = end();
    EXPECT_TRUE(contains(result.err, "gev->event_type = 75\n"
                                     "Reading delete file request.\n"
                                     "Sending suceess file transfer status\n"))
        << result.err;
}

TEST_F(Browse, DeleteFailuresAnswerWithTheSystemText) {
    fs::create_directories(docs / "locked");
    makeFile(docs / "locked" / "inside.txt", "stays\n");
    begin();

    auto status = remove((docs / "missing.txt").string());
    ASSERT_TRUE(status);
    EXPECT_EQ(status->requestKind, 3);
    EXPECT_EQ(status->status, 1);
    EXPECT_EQ(status->path, (docs / "missing.txt").string());
    EXPECT_EQ(status->error, "No such file or directory");

    // No path at all: a failure that names nothing.
    status = remove("");
    ASSERT_TRUE(status);
    EXPECT_EQ(status->status, 1);
    EXPECT_EQ(status->path, "");
    EXPECT_FALSE(status->error.empty());

    if (::geteuid() != 0) {
        fs::permissions(docs / "locked", fs::perms::owner_read | fs::perms::owner_exec);
        status = remove((docs / "locked").string());
        ASSERT_TRUE(status);
        EXPECT_EQ(status->status, 1);
        // The directory itself could not be removed once its file stayed.
        EXPECT_EQ(status->error, "Directory not empty");
        EXPECT_TRUE(fs::exists(docs / "locked" / "inside.txt"));
        fs::permissions(docs / "locked", fs::perms::owner_all);
    }
    const auto result = end();
    EXPECT_TRUE(contains(result.err, "Sending failed file transfer status, error : No such file or directory\n"))
        << result.err;
}

// ---- rename ------------------------------------------------------------------------------------

TEST_F(Browse, RenameMovesButNeverReplaces) {
    makeFile(docs / "draft.txt", "draft\n");
    makeFile(docs / "final.txt", "final\n");
    fs::create_directories(docs / "folder");
    fs::create_directories(docs / "taken");
    begin();

    auto status = rename((docs / "draft.txt").string(), (docs / "renamed.txt").string());
    ASSERT_TRUE(status);
    EXPECT_EQ(status->requestKind, 2);
    EXPECT_EQ(status->status, 0);
    EXPECT_EQ(status->path, (docs / "draft.txt").string());
    EXPECT_EQ(testsupport::readFile(docs / "renamed.txt"), "draft\n");
    EXPECT_FALSE(fs::exists(docs / "draft.txt"));

    status = rename((docs / "renamed.txt").string(), (docs / "final.txt").string());
    ASSERT_TRUE(status);
    EXPECT_EQ(status->status, 1);
    EXPECT_EQ(status->path, (docs / "renamed.txt").string());
    EXPECT_EQ(status->error, "File exists");
    EXPECT_EQ(testsupport::readFile(docs / "final.txt"), "final\n");
    EXPECT_EQ(testsupport::readFile(docs / "renamed.txt"), "draft\n");

    status = rename((docs / "folder").string(), (docs / "taken").string());
    ASSERT_TRUE(status);
    EXPECT_EQ(status->status, 1);
    EXPECT_TRUE(fs::is_directory(docs / "folder"));

    status = rename((docs / "folder").string(), (docs / "moved").string());
    ASSERT_TRUE(status);
    EXPECT_EQ(status->status, 0);
    EXPECT_TRUE(fs::is_directory(docs / "moved"));

    status = rename((docs / "absent").string(), (docs / "other").string());
    ASSERT_TRUE(status);
    EXPECT_EQ(status->status, 1);
    EXPECT_EQ(status->error, "No such file or directory");

    // Without both names nothing happens and nothing is answered.
    ASSERT_TRUE(far.sendPayload(93, loopback::encodeRenameFile((docs / "final.txt").string(), "")));
    ASSERT_TRUE(far.sendPayload(93, loopback::encodeRenameFile("", (docs / "new.txt").string())));
    EXPECT_TRUE(far.quiet());
    EXPECT_TRUE(fs::exists(docs / "final.txt"));
    EXPECT_FALSE(fs::exists(docs / "new.txt"));

    const auto result = end();
    EXPECT_EQ(count(result.err, "Reading rename file request.\n"), 7u) << result.err;
}

// ---- the loopback-desktop program browsing ---------------------------------------------------

TEST(BrowseProgram, ScriptedSessionPrintsWhatComesBack) {
    testsupport::TempDir dir;
    const fs::path home = dir / "home";
    const fs::path docs = home / "Documents";
    fs::create_directories(docs / "reports");
    makeFile(docs / "notes.txt", "hello\n");
    makeFile(docs / "reports" / "q3.ps", "%!PS-Adobe-3.0\n");
    makeFile(home / "todo.txt", "x\n");
    makeFile(home / ".bashrc", "secret\n");
    fs::create_directories(dir / "desk");
    const fs::path script = dir / "browse.txt";
    testsupport::writeFile(script, "# a user looking around their home\n"
                                   "list\n"
                                   "list reports\n"
                                   "list ..\n"
                                   "list ..\n"
                                   "rename " + (home / "todo.txt").string() + " " + (home / "done.txt").string() + "\n"
                                   "delete " + (docs / "reports").string() + "\n"
                                   "list nowhere\n"
                                   "close\n");

    // A display number away from the automatic range, free at this moment.
    int display = -1;
    for (int i = 0; i < 50 && display < 0; ++i) {
        loopback::ServerOptions probe;
        probe.display = 450 + (::getpid() + i) % 50;
        std::string error;
        if (loopback::XServer::start(probe, &error)) display = probe.display;
    }
    ASSERT_GE(display, 0);
    testsupport::RunOptions desktopRun;
    desktopRun.args = {"--display", std::to_string(display), "--folder", (dir / "desk").string(),
                       "--script", script.string(), "--once"};
    testsupport::RunningProcess desktop(LOOPBACK_DESKTOP_BINARY, desktopRun);
    ASSERT_TRUE(desktop.started());
    const std::string socket = "/tmp/.X11-unix/X" + std::to_string(display);
    for (int attempt = 0; attempt < 200 && !fs::exists(socket); ++attempt) std::this_thread::sleep_for(25ms);

    testsupport::RunOptions varoftRun;
    varoftRun.args = {"-display", ":" + std::to_string(display)};
    varoftRun.env = quietEnvironment();
    varoftRun.env["HOME"] = home.string();
    const auto client = testsupport::run(testsupport::varoftBinary(), varoftRun);
    EXPECT_EQ(client.exitCode, 0);
    EXPECT_TRUE(contains(client.err, "File Transfer session was closed.\n")) << client.err;
    const auto result = desktop.wait();
    EXPECT_EQ(result.exitCode, 0);

    const std::string t = std::to_string(kTime);
    const std::string& out = result.out;
    for (const std::string& line : {
             "desktop: listing " + docs.string() + "\n",
             "desktop:   text 6 " + t + "_notes.txt\n",
             "desktop: listing " + (docs / "reports").string() + "\n",
             "desktop:   ps   15 " + t + "_q3.ps\n",
             "desktop: listing " + home.string() + "\n",
             "desktop:   text 2 " + t + "_todo.txt\n",
             "desktop: status for request kind 2: success (" + (home / "todo.txt").string() + ")\n",
             "desktop: status for request kind 3: success (" + (docs / "reports").string() + ")\n",
             "desktop: status for request kind 4: failure \"No such file or directory\" (" +
                 (home / "nowhere").string() + "/*)\n",
         })
        EXPECT_TRUE(contains(out, line)) << line << out;
    EXPECT_EQ(count(out, "desktop: end of listing\n"), 4u) << out;
    EXPECT_FALSE(contains(out, ".bashrc")) << out;
    EXPECT_TRUE(fs::exists(home / "done.txt"));
    EXPECT_FALSE(fs::exists(docs / "reports"));
}

}  // namespace
