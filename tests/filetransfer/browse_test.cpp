// Browsing, deleting and renaming in-process: where a request leads, what a listing holds, and
// that delete never follows a link and rename never replaces; the session is served through the
// dispatch against a recording wire, its home a scratch directory.
#include <gtest/gtest.h>

#include <filesystem>
#include <map>
#include <tuple>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "common/log.h"
#include "filetransfer/listing.h"
#include "platform/platform.h"
#include "recording_wire.h"
#include "support/temp_dir.h"

namespace {

using namespace fttest;
namespace fs = std::filesystem;

TEST(BrowsingDirectory, EachRuleInItsOrder) {
    const std::string start = "/home/me/Documents";
    const std::tuple<std::optional<std::string>, std::string, std::string> steps[] = {
        // An empty request: the starting directory, whatever was browsed before.
        {std::nullopt, "", start}, {"/srv", "", start},
        // Nothing browsed yet, or the request is the browsing directory: as it stands.
        {std::nullopt, "relative/dir", "relative/dir"}, {std::nullopt, "..", ".."}, {"docs", "docs", "docs"},
        // "..": cut at the last '/', never above the root.
        {"/home/me", "..", "/home"}, {"/home", "..", "/"}, {"/", "..", "/"}, {"/home/me/", "..", "/home/me"},
        {"docs", "..", "docs"},
        // Absolute requests and drive paths as they stand.
        {"/home", "/etc", "/etc"}, {"/home", "D:", "D:"}, {"/home", "D:\\data", "D:\\data"},
        // Relative names, with one '/' after the root.
        {"/home", "me", "/home/me"}, {"/", "home", "/home"}, {"", "home", "/home"}, {"/home", "...", "/home/..."},
    };
    for (const auto& [current, request, expected] : steps)
        EXPECT_EQ(nextBrowsingDirectory(current, request, start), expected) << current.value_or("none") << " + " << request;
    EXPECT_EQ(searchPattern("/"), "//*");
    // Times before 1970 come out as the unsigned value; names are cut at 259 bytes.
    EXPECT_EQ(entryItemName(-1, "old"), "18446744073709551615_old");
    EXPECT_EQ(entryItemName(5, std::string(260, 'n')), "5_" + std::string(259, 'n'));
}

TEST(DeleteGuard, TheRootIsRecognisedByAnySpelling) {
    for (const char* root : {"/", "//", "/.", "/./", "/..", "/tmp/..", "/tmp/../."})
        EXPECT_TRUE(platform::isFileSystemRoot(root)) << root;
    testsupport::TempDir dir;
    fs::create_directory_symlink("/", dir / "to-root");
    EXPECT_TRUE(platform::isFileSystemRoot((dir / "to-root").string()));
    for (const std::string& other : {std::string("/tmp"), dir.str() + "/missing", std::string()})
        EXPECT_FALSE(platform::isFileSystemRoot(other)) << other;
}

constexpr std::int64_t kTime = 1600000000;

// Sets the modification time of an entry itself (a link is not followed).
void touch(const fs::path& path, std::int64_t seconds = kTime) {
    const timespec times[2] = {{seconds, 0}, {seconds, 0}};
    ASSERT_EQ(::utimensat(AT_FDCWD, path.c_str(), times, AT_SYMLINK_NOFOLLOW), 0) << path;
}
void makeFile(const fs::path& path, std::string_view content) {
    testsupport::writeFile(path, content);
    touch(path);
}

// One entry's item: its type (a class letter or 1 for a directory), size, and the "<time>" part.
using Shown = std::tuple<int, std::uint64_t, std::string>;
struct Listing {
    std::optional<std::string> listed;
    std::map<std::string, Shown> entries;
    bool ended = false;
    std::optional<Sent> status;
};

class Browse : public ::testing::Test {
protected:
    void SetUp() override {
        docs = dir / "Documents";
        fs::create_directories(docs);
        s.session.userHomeDir = docs.string();
        setLogVerbosity(1);
    }
    void TearDown() override { setLogVerbosity(0); }

    Listing list(std::string_view path) {
        s.send(kListDirectoryRequest, loopback::encodeListDirectory(path));
        Listing out;
        for (const Sent& item : s.wire.take()) {
            EXPECT_FALSE(out.ended || out.status) << "after the end: " << item.path;
            if (item.minor == kFileTransferStatusOpcode) out.status = item;
            else if (!out.listed) {
                out.listed = item.path;
                EXPECT_EQ(std::tie(item.type, item.size), std::make_tuple(std::uint8_t{2}, std::uint64_t{0}));
            } else if (item.type == kItemEnd) out.ended = item.path.empty() && item.size == 0;
            else {
                const auto cut = item.path.find('_');
                const std::string name = item.path.substr(cut + 1);
                EXPECT_EQ(out.entries.count(name), 0u) << "listed twice: " << name;
                out.entries[name] = {item.type, item.size, item.path.substr(0, cut)};
            }
        }
        return out;
    }
    static void expectStatus(const Sent& st, int kind, const std::string& path, const std::string& error) {
        EXPECT_EQ(std::tie(st.minor, st.requestKind, st.failed, st.path, st.error),
                  std::make_tuple(119, kind, !error.empty(), path, error));
    }

    testsupport::TempDir dir;
    fs::path docs;
    Served s;
};

TEST_F(Browse, ListingShowsVisibleEntriesFollowingLinksWithoutOpeningSpecialFiles) {
    makeFile(docs / "notes.txt", "plain words\n");
    makeFile(docs / "page.ps", "%!PS-Adobe-3.0\nshowpage\n");
    makeFile(docs / "paper.pdf", std::string("%PDF-1.7\n\x01\x02\x03\xff", 13));
    makeFile(docs / "tool.bin", std::string("\x7f" "ELF\x02\x01\x00\x00", 8));
    makeFile(docs / ".profile", "hidden\n");
    makeFile(docs / "empty.txt", "");
    makeFile(docs / "late.txt", std::string(600, 'z') + '\0');  // only the first 512 bytes are looked at
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
    const std::uint64_t big = (5ull << 30) + 3;  // sparse, above 4 GiB
    testsupport::writeFile(docs / "sparse.img", "");
    ASSERT_EQ(::truncate((docs / "sparse.img").c_str(), static_cast<off_t>(big)), 0);
    touch(docs / "sparse.img");
    touch(dir.path(), kTime + 3);

    setLogVerbosity(4);
    testing::internal::CaptureStderr();
    const Listing l = list("");
    const std::string err = testing::internal::GetCapturedStderr();
    EXPECT_EQ(l.listed, docs.string());
    EXPECT_TRUE(l.ended);
    const std::string t = std::to_string(kTime);
    const std::map<std::string, Shown> expected = {
        {"notes.txt", {'t', 12, t}}, {"page.ps", {'p', 24, t}}, {"paper.pdf", {'a', 13, t}},
        {"tool.bin", {'b', 8, t}}, {"empty.txt", {'t', 0, t}}, {"late.txt", {'t', 601, t}},
        {"sub", {1, 0, std::to_string(kTime + 1)}},
        {"..", {1, 0, std::to_string(kTime + 3)}}, {"to-file", {'t', 12, t}},
        {"to-dir", {1, 0, std::to_string(kTime + 5)}}, {"dangling", {'b', 0, std::to_string(kTime + 9)}},
        {"pipe", {'b', 0, t}}, {"sparse.img", {'b', big, t}},
    };
    EXPECT_EQ(l.entries, expected);
    // At -vvv each entry is traced when it is read, and again before its item goes out.
    for (const auto& [line, times] : {std::pair{" item:notes.txt\n", 2}, {" item:..\n", 2}, {" item:.profile\n", 1}}) {
        std::size_t n = 0;
        for (auto at = err.find(line); at != std::string::npos; at = err.find(line, at + 1)) ++n;
        EXPECT_EQ(n, static_cast<std::size_t>(times)) << line;
    }
}

TEST_F(Browse, RequestsLeadByTheRulesAndAFailureKeepsTheOldDirectory) {
    const fs::path alpha = docs / "projects" / "alpha";
    fs::create_directories(alpha);
    makeFile(docs / "plain.txt", "text\n");
    setLogVerbosity(3);
    testing::internal::CaptureStderr();
    // A failure before anything was browsed leaves nothing browsed.
    expectStatus(*list("/no/such/place").status, 4, "/no/such/place/*", "No such file or directory");
    EXPECT_FALSE(s.session.browsingDirectory);
    EXPECT_EQ(list("").listed, docs.string());
    EXPECT_EQ(list("projects").listed, (docs / "projects").string());
    EXPECT_EQ(list("alpha").listed, alpha.string());
    EXPECT_EQ(list(alpha.string()).listed, alpha.string());  // the same directory, as it stands
    // Failed listings name the search pattern; the next request starts from the last good listing.
    expectStatus(*list("missing").status, 4, (alpha / "missing").string() + "/*", "No such file or directory");
    EXPECT_EQ(list("..").listed, (docs / "projects").string());
    expectStatus(*list((docs / "plain.txt").string()).status, 4, (docs / "plain.txt").string() + "/*",
                 "Not a directory");
    EXPECT_EQ(list("..").listed, docs.string());
    const std::string err = testing::internal::GetCapturedStderr();
    // ".." from a directory below the root leads to the root, which offers no "..".
    const std::string top = "/" + std::next(dir.path().begin())->string();
    EXPECT_EQ(list(top).listed, top);
    for (int twice = 0; twice < 2; ++twice) {
        const Listing l = list("..");
        EXPECT_EQ(l.listed, "/");
        EXPECT_EQ(l.entries.count(".."), 0u);
    }
    EXPECT_EQ(list(top.substr(1)).listed, top);  // a relative name at the root gets one slash
    const std::string d = docs.string(), a = alpha.string();
    for (const std::string& lines : {
             std::string("gev->event_type = 91\nReading directory listing request.\n Got count=14\n"
                         " Current browsing dir:\n pDir:/no/such/place\n New browsing dir:/no/such/place\n"
                         "Sending failed file transfer status, error : No such file or directory\n"),
             " Got count=0\n Current browsing dir:\n pDir:\n New browsing dir:" + d + "\n New browsing dir:" + d +
                 "/*\ngev->event_type = 91\nReading directory listing request.\n Got count=8\n Current browsing dir:" +
                 d + "\n pDir:projects\n",
             // The request that names the browsing directory is not traced as a new one.
             " Current browsing dir:" + a + "\n New browsing dir:" + a + "\n New browsing dir:" + a + "/*\n"})
        EXPECT_NE(err.find(lines), std::string::npos) << lines << "\n---\n" << err;
}

TEST_F(Browse, DeleteNeverFollowsLinksAndRenameNeverReplaces) {
    makeFile(docs / "gone.txt", "bye\n");
    // A tree holding links to a directory and a file outside it, and links to a directory that
    // are deleted themselves, also when named with a trailing slash.
    const fs::path outside = dir / "outside", precious = outside / "deep" / "precious.txt", tree = docs / "tree";
    fs::create_directories(outside / "deep");
    makeFile(precious, "keep\n");
    fs::create_directories(tree / "a" / "b");
    makeFile(tree / "a" / "b" / "x.txt", "x");
    fs::create_directory_symlink(outside, tree / "a" / "link-out");
    fs::create_symlink(precious, tree / "file-link");
    fs::create_directory_symlink(outside, docs / "out-link");
    fs::create_directory_symlink(outside, docs / "slash-link");
    fs::create_directories(docs / "locked");
    makeFile(docs / "locked" / "inside.txt", "stays\n");
    for (const char* name : {"draft.txt", "final.txt"}) makeFile(docs / name, name);
    fs::create_directories(docs / "folder");
    fs::create_directories(docs / "taken");
    const std::string d = docs.string();

    // Delete: the path as requested, and the system's text on failure; an empty path names nothing.
    const std::pair<std::string, std::string> deletes[] = {
        {d + "/gone.txt", ""}, {tree.string(), ""}, {d + "/out-link", ""}, {d + "/slash-link/", ""},
        {d + "/missing.txt", "No such file or directory"}, {"", "No such file or directory"},
        {d + "/locked/.", "Invalid argument"},  // "." or ".." is refused before anything in it goes
        {"/", "Permission denied"},
    };
    for (const auto& [path, error] : deletes) expectStatus(s.ask(75, loopback::encodeDeleteFile(path)), 3, path, error);
    for (const char* name : {"gone.txt", "tree", "out-link", "slash-link"})
        EXPECT_FALSE(fs::exists(fs::symlink_status(docs / name))) << name;
    EXPECT_EQ(testsupport::readFile(precious), "keep\n");
    EXPECT_EQ(testsupport::readFile(docs / "locked" / "inside.txt"), "stays\n");
    if (::geteuid() != 0) {
        // The directory itself cannot be removed once its file stayed.
        fs::permissions(docs / "locked", fs::perms::owner_read | fs::perms::owner_exec);
        expectStatus(s.ask(75, loopback::encodeDeleteFile(d + "/locked")), 3, d + "/locked", "Directory not empty");
        fs::permissions(docs / "locked", fs::perms::owner_all);
    }

    // Rename: answered with the old name; an existing file or directory is never replaced.
    const std::tuple<std::string, std::string, std::string> renames[] = {
        {d + "/draft.txt", d + "/renamed.txt", ""},
        {d + "/renamed.txt", d + "/final.txt", "File exists"},
        {d + "/folder", d + "/taken", "File exists"},
        {d + "/folder", d + "/moved", ""},
        {d + "/absent", d + "/other", "No such file or directory"},
    };
    for (const auto& [from, to, error] : renames)
        expectStatus(s.ask(93, loopback::encodeRenameFile(from, to)), 2, from, error);
    EXPECT_EQ(testsupport::readFile(docs / "renamed.txt"), "draft.txt");
    EXPECT_EQ(testsupport::readFile(docs / "final.txt"), "final.txt");
    EXPECT_TRUE(fs::is_directory(docs / "moved"));
    // Without both names nothing happens and nothing is answered.
    EXPECT_EQ(s.ask(93, loopback::encodeRenameFile(d + "/final.txt", "")).minor, 0);
    EXPECT_EQ(s.ask(93, loopback::encodeRenameFile("", d + "/new.txt")).minor, 0);
    EXPECT_TRUE(fs::exists(docs / "final.txt"));
}

}  // namespace
