// Browsing, deleting and renaming driven by the far side: varoft runs without a transfer option
// against the loopback X server, its home is a scratch directory, and each test plays the far
// side's events and reads the FileListItem and FileTransferStatus requests that come back.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <map>
#include <tuple>

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

bool isZero(std::uint8_t b) { return b == 0; }

// One entry's item: its type (a class letter or 1 for a directory), size, and the "<time>" part.
using Shown = std::tuple<int, std::uint64_t, std::string>;

// What came back for one ListDirectoryRequest: the listed directory's item, the entries by
// their names after "<time>_", and whether the empty item ended the run; or a status instead.
struct Listing {
    std::optional<std::string> listed;
    std::map<std::string, Shown> entries;
    bool ended = false;
    std::optional<loopback::TransferStatus> status;
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
        Listing out;
        while (auto request = far.server().nextRequest(10000ms)) {
            const auto& b = request->bytes;
            if (request->minor == 119) {
                out.status = loopback::decodeTransferStatus(b);
                EXPECT_TRUE(out.status);
                return out;
            }
            const auto item = loopback::decodeListItem(b);
            EXPECT_EQ(request->minor, 116);
            EXPECT_TRUE(item);
            if (request->minor != 116 || !item) return out;
            // 24 fixed bytes with zeros after the type, the name, zero padding to a multiple of 4.
            const std::size_t nameEnd = 24 + bytes::get32(b, 4);
            EXPECT_EQ(b.size(), nameEnd + bytes::pad4(nameEnd)) << item->name;
            EXPECT_TRUE(std::all_of(b.begin() + 17, b.begin() + 24, isZero)) << item->name;
            EXPECT_TRUE(std::all_of(b.begin() + static_cast<std::ptrdiff_t>(nameEnd), b.end(), isZero)) << item->name;
            if (!out.listed) {
                EXPECT_EQ(item->type, 2);
                EXPECT_EQ(item->size, 0u);
                out.listed = item->name;
            } else if (item->type == 0) {
                EXPECT_EQ(item->name, "");
                EXPECT_EQ(item->size, 0u);
                out.ended = true;
                return out;
            } else {
                const auto cut = item->name.find('_');
                EXPECT_NE(cut, std::string::npos) << item->name;
                const std::string name = item->name.substr(cut + 1);
                EXPECT_EQ(out.entries.count(name), 0u) << "listed twice: " << name;
                out.entries[name] = {item->type, item->size, item->name.substr(0, cut)};
            }
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

    // Checks one status: its request kind, the path it names, and the system's text (empty: success).
    void expectStatus(const std::optional<loopback::TransferStatus>& s, int kind, const std::string& path,
                      const std::string& error) {
        ASSERT_TRUE(s) << path;
        EXPECT_EQ(s->requestKind, kind) << path;
        EXPECT_EQ(s->status, error.empty() ? 0 : 1) << path;
        EXPECT_EQ(s->path, path);
        EXPECT_EQ(s->error, error) << path;
    }

    testsupport::TempDir dir;
    fs::path home, docs;
    FarSide far;
};

// ---- what a listing holds ----------------------------------------------------------------------

TEST_F(Browse, ListingShowsVisibleEntriesFollowingLinksWithoutOpeningSpecialFiles) {
    makeFile(docs / "notes.txt", "plain words\n");
    makeFile(docs / "page.ps", "%!PS-Adobe-3.0\nshowpage\n");
    makeFile(docs / "paper.pdf", std::string("%PDF-1.7\n\x01\x02\x03\xff", 13));
    makeFile(docs / "tool.bin", std::string("\x7f" "ELF\x02\x01\x00\x00", 8));
    makeFile(docs / ".profile", "hidden\n");
    fs::create_directories(docs / ".cache" / "inner");
    fs::create_directories(docs / "sub");
    touch(docs / "sub", kTime + 1);
    // Links are followed, a dangling one shows its own time; a FIFO opened to be classified
    // would block the whole session.
    makeFile(dir / "target.txt", "linked text\n");
    fs::create_directories(dir / "target-dir");
    touch(dir / "target-dir", kTime + 5);
    fs::create_symlink(dir / "target.txt", docs / "to-file");
    fs::create_directory_symlink(dir / "target-dir", docs / "to-dir");
    fs::create_symlink(dir / "nowhere", docs / "dangling");
    touch(docs / "dangling", kTime + 9);
    ASSERT_EQ(::mkfifo((docs / "pipe").c_str(), 0600), 0);
    touch(docs / "pipe");
    // A sparse file above 4 GiB and the longest name this file system takes (names past 259 bytes
    // are cut, see the unit tests).
    const std::uint64_t big = (5ull << 30) + 3;
    testsupport::writeFile(docs / "sparse.img", "");
    ASSERT_EQ(::truncate((docs / "sparse.img").c_str(), static_cast<off_t>(big)), 0);
    touch(docs / "sparse.img");
    const long nameMax = ::pathconf(docs.c_str(), _PC_NAME_MAX);
    ASSERT_GT(nameMax, 4);
    const std::string longName = std::string(static_cast<std::size_t>(std::min<long>(nameMax, 259)) - 4, 'L') + ".txt";
    makeFile(docs / longName, "x\n");
    touch(home, kTime + 3);
    begin();

    const Listing l = list("");
    EXPECT_EQ(l.listed, docs.string());
    EXPECT_TRUE(l.ended);
    const std::string t = std::to_string(kTime);
    const std::map<std::string, Shown> expected = {
        {"notes.txt", {'t', 12, t}}, {"page.ps", {'p', 24, t}}, {"paper.pdf", {'a', 13, t}},
        {"tool.bin", {'b', 8, t}}, {"sub", {1, 0, std::to_string(kTime + 1)}},
        {"..", {1, 0, std::to_string(kTime + 3)}},  // the home directory
        {"to-file", {'t', 12, t}}, {"to-dir", {1, 0, std::to_string(kTime + 5)}},
        {"dangling", {'b', 0, std::to_string(kTime + 9)}}, {"pipe", {'b', 0, t}},
        {"sparse.img", {'b', big, t}}, {longName, {'t', 2, t}},
    };
    EXPECT_EQ(l.entries, expected);

    const auto result = end();
    EXPECT_EQ(result.exitCode, 0);
    // At -vvv each entry is traced when it is read, and again before its item goes out.
    EXPECT_EQ(count(result.err, " item:notes.txt\n"), 2u);
    EXPECT_EQ(count(result.err, " item:..\n"), 2u);
    EXPECT_EQ(count(result.err, " item:.profile\n"), 1u);
}

// ---- where a request leads -----------------------------------------------------------------------

TEST_F(Browse, RequestsLeadByTheRulesAndAFailureKeepsTheOldDirectory) {
    const fs::path alpha = docs / "projects" / "alpha";
    fs::create_directories(alpha);
    makeFile(docs / "plain.txt", "text\n");
    far.setWorkingDirectory(docs.string());
    begin({"-vv"});

    // A failure before anything was browsed leaves nothing browsed: ".." is then taken as it
    // stands, from the working directory.
    expectStatus(list("/no/such/place").status, 4, "/no/such/place/*", "No such file or directory");
    Listing l = list("..");
    EXPECT_EQ(l.listed, "..");
    EXPECT_EQ(l.entries.count("Documents"), 1u);

    EXPECT_EQ(list("").listed, docs.string());
    EXPECT_EQ(list("projects").listed, (docs / "projects").string());
    EXPECT_EQ(list("alpha").listed, alpha.string());
    EXPECT_EQ(list(alpha.string()).listed, alpha.string());  // the same directory, as it stands

    // Failed listings name the search pattern; the next request starts from the last good listing.
    expectStatus(list("missing").status, 4, (alpha / "missing").string() + "/*", "No such file or directory");
    EXPECT_EQ(list("..").listed, (docs / "projects").string());
    expectStatus(list((docs / "plain.txt").string()).status, 4, (docs / "plain.txt").string() + "/*",
                 "Not a directory");
    EXPECT_EQ(list("..").listed, docs.string());

    // ".." from a directory below the root leads to the root, which stays the root and offers no
    // ".."; a relative name there gets one slash.
    const std::string top = "/" + std::next(dir.path().begin())->string();
    EXPECT_EQ(list(top).listed, top);
    for (int twice = 0; twice < 2; ++twice) {
        l = list("..");
        EXPECT_EQ(l.listed, "/");
        EXPECT_EQ(l.entries.count(".."), 0u);
    }
    EXPECT_EQ(list(top.substr(1)).listed, top);

    // At -vv: the count and the pattern, and no item lines.
    const auto result = end();
    EXPECT_EQ(result.exitCode, 0);
    const std::string d = docs.string(), a = alpha.string();
    for (const std::string& lines : {
             std::string("gev->event_type = 91\nReading directory listing request.\n Got count=14\n"
                         " Current browsing dir:\n pDir:/no/such/place\n New browsing dir:/no/such/place\n"
                         "Sending failed file transfer status, error : No such file or directory\n"),
             " Got count=0\n Current browsing dir:..\n pDir:\n New browsing dir:" + d + "\n New browsing dir:" + d +
                 "/*\ngev->event_type = 91\nReading directory listing request.\n Got count=8\n Current browsing dir:" +
                 d + "\n pDir:projects\n",
             // The request that names the browsing directory is not traced as a new one.
             " Current browsing dir:" + a + "\n New browsing dir:" + a + "\n New browsing dir:" + a + "/*\n",
         })
        EXPECT_TRUE(contains(result.err, lines)) << lines << "\n---\n" << result.err;
    EXPECT_FALSE(contains(result.err, " item:"));
}

// ---- delete and rename -------------------------------------------------------------------------

TEST_F(Browse, DeleteNeverFollowsLinksAndRenameNeverReplaces) {
    makeFile(docs / "gone.txt", "bye\n");
    // A tree holding links to a directory and a file outside it, and links to a directory that
    // are deleted themselves, also when named with a trailing slash.
    const fs::path outside = dir / "outside", precious = outside / "deep" / "precious.txt", tree = docs / "tree";
    fs::create_directories(outside / "deep");
    makeFile(precious, "keep\n");
    fs::create_directories(tree / "a" / "b");
    makeFile(tree / "a" / "b" / "x.txt", "x");
    makeFile(tree / ".hidden", "h");
    fs::create_directory_symlink(outside, tree / "a" / "link-out");
    fs::create_symlink(precious, tree / "file-link");
    fs::create_directory_symlink(outside, docs / "out-link");
    fs::create_directory_symlink(outside, docs / "slash-link");
    fs::create_directories(docs / "locked");
    makeFile(docs / "locked" / "inside.txt", "stays\n");
    makeFile(docs / "draft.txt", "draft\n");
    makeFile(docs / "final.txt", "final\n");
    fs::create_directories(docs / "folder");
    fs::create_directories(docs / "taken");
    begin({"-v"});
    const std::string d = docs.string();

    // Events whose lengths claim more than they hold are dropped unanswered, and the session goes on.
    for (const auto& [type, first, second, text] : {std::tuple<std::uint16_t, std::uint16_t, std::uint16_t, std::string>{
             91, 200, 0, "/tmp"}, {75, 0, 300, d + "/gone.txt"}, {93, 8, 100, "gone.txtother"}}) {
        Bytes payload;
        bytes::Writer(payload).u16(first).u16(second).raw(text);
        ASSERT_TRUE(far.sendPayload(type, payload));
    }
    EXPECT_TRUE(far.quiet());
    EXPECT_TRUE(list(d).ended);

    // Delete: the path as requested, and the system's text on failure; an empty path names nothing.
    const std::vector<std::pair<std::string, std::string>> deletes = {
        {d + "/gone.txt", ""},         {tree.string(), ""},
        {d + "/out-link", ""},         {d + "/slash-link/", ""},
        {d + "/missing.txt", "No such file or directory"}, {"", "No such file or directory"},
        // A directory named by "." or ".." is refused before anything in it is touched.
        {d + "/locked/.", "Invalid argument"},
    };
    for (const auto& [path, error] : deletes) expectStatus(request(75, loopback::encodeDeleteFile(path)), 3, path, error);
    for (const char* name : {"gone.txt", "tree", "out-link", "slash-link"})
        EXPECT_FALSE(fs::exists(fs::symlink_status(docs / name))) << name;
    EXPECT_EQ(testsupport::readFile(precious), "keep\n");
    EXPECT_EQ(testsupport::readFile(docs / "locked" / "inside.txt"), "stays\n");
    if (::geteuid() != 0) {
        // The directory itself cannot be removed once its file stayed.
        fs::permissions(docs / "locked", fs::perms::owner_read | fs::perms::owner_exec);
        expectStatus(request(75, loopback::encodeDeleteFile(d + "/locked")), 3, d + "/locked", "Directory not empty");
        EXPECT_TRUE(fs::exists(docs / "locked" / "inside.txt"));
        fs::permissions(docs / "locked", fs::perms::owner_all);
    }

    // Rename: answered with the old name; an existing file or directory is never replaced.
    const std::vector<std::tuple<std::string, std::string, std::string>> renames = {
        {d + "/draft.txt", d + "/renamed.txt", ""},
        {d + "/renamed.txt", d + "/final.txt", "File exists"},
        {d + "/folder", d + "/taken", "File exists"},
        {d + "/folder", d + "/moved", ""},
        {d + "/absent", d + "/other", "No such file or directory"},
    };
    for (const auto& [from, to, error] : renames)
        expectStatus(request(93, loopback::encodeRenameFile(from, to)), 2, from, error);
    EXPECT_EQ(testsupport::readFile(docs / "renamed.txt"), "draft\n");
    EXPECT_EQ(testsupport::readFile(docs / "final.txt"), "final\n");
    EXPECT_TRUE(fs::is_directory(docs / "moved"));
    // Without both names nothing happens and nothing is answered.
    ASSERT_TRUE(far.sendPayload(93, loopback::encodeRenameFile(d + "/final.txt", "")));
    ASSERT_TRUE(far.sendPayload(93, loopback::encodeRenameFile("", d + "/new.txt")));
    EXPECT_TRUE(far.quiet());
    EXPECT_TRUE(fs::exists(docs / "final.txt"));
    EXPECT_FALSE(fs::exists(docs / "new.txt"));

    const auto result = end();
    EXPECT_EQ(result.exitCode, 0);
    for (const char* type : {"91", "75", "93"})
        EXPECT_TRUE(contains(result.err, std::string("Dropping event of type ") + type + ": its lengths exceed the event.\n"))
            << result.err;
    // At -v a listing shows its progress lines only.
    EXPECT_TRUE(contains(result.err, "Reading directory listing request.\n Current browsing dir:\n pDir:" + d +
                                         "\n New browsing dir:" + d + "\ngev->event_type = 75\n"
                                         "Reading delete file request.\nSending suceess file transfer status\n"))
        << result.err;
    EXPECT_TRUE(contains(result.err, "Sending failed file transfer status, error : No such file or directory\n"))
        << result.err;
    // The lying rename, five answered and two unanswered ones were all read.
    EXPECT_EQ(count(result.err, "Reading rename file request.\n"), 8u) << result.err;
}

}  // namespace
