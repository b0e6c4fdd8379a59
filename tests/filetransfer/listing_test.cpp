// The pieces of browsing that need no connection: the FileListItem bytes, where a request leads
// from the current browsing directory, item names, and decoding of listing and rename events when
// their lengths lie.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "common/bytes.h"
#include "filetransfer/delete_rename.h"
#include "filetransfer/listing.h"
#include "platform/platform.h"
#include "support/temp_dir.h"

namespace {

using Bytes = std::vector<std::uint8_t>;

// An event as libxcb delivers it: 32 header bytes, the full sequence, then the payload.
Bytes eventWith(const Bytes& payload) {
    Bytes event(36 + payload.size() + bytes::pad4(payload.size()), 0);
    event[0] = 35;
    std::copy(payload.begin(), payload.end(), event.begin() + 36);
    return event;
}

Bytes lengthsAndText(std::uint16_t first, std::uint16_t second, std::string_view text) {
    Bytes p;
    bytes::Writer(p).u16(first).u16(second).raw(text);
    return p;
}

// ---- FileListItem ----------------------------------------------------------------------------

TEST(FileListItem, FieldsSitAtTheirOffsetsAndTheNameIsPadded) {
    for (const std::string name : {"", "a", "abcd", "12345_x.txt"}) {
        SCOPED_TRACE(name);
        const auto out = encodeFileListItem(0x91, {0x0123456789ABCDEFull, 't', name});
        ASSERT_EQ(out.size() % 4, 0u);
        EXPECT_EQ(out.size(), 24 + name.size() + (4 - name.size() % 4) % 4);
        EXPECT_EQ(out[0], 0x91);
        EXPECT_EQ(out[1], 116);
        EXPECT_EQ(bytes::get16(out, 2), out.size() / 4);
        EXPECT_EQ(bytes::get32(out, 4), name.size());
        EXPECT_EQ(bytes::get64(out, 8), 0x0123456789ABCDEFull);
        EXPECT_EQ(out[16], 't');
        for (std::size_t i = 17; i < 24; ++i) EXPECT_EQ(out[i], 0) << i;
        EXPECT_EQ(std::string(out.begin() + 24, out.begin() + 24 + static_cast<std::ptrdiff_t>(name.size())), name);
        for (std::size_t i = 24 + name.size(); i < out.size(); ++i) EXPECT_EQ(out[i], 0) << i;
    }
}

// ---- the next browsing directory ---------------------------------------------------------------

struct Step {
    std::optional<std::string> current;
    std::string request;
    std::string expected;
};

TEST(BrowsingDirectory, EachRuleInItsOrder) {
    const std::string start = "/home/me/Documents";
    const std::vector<Step> steps = {
        // empty request: the starting directory, whatever was browsed before
        {std::nullopt, "", start},
        {"/srv", "", start},
        // nothing browsed yet, or the request is the browsing directory: as it stands
        {std::nullopt, "relative/dir", "relative/dir"},
        {std::nullopt, "..", ".."},
        {"/srv/data", "/srv/data", "/srv/data"},
        {"docs", "docs", "docs"},
        // "..": cut at the last '/'
        {"/home/me", "..", "/home"},
        {"/home", "..", "/"},
        {"/", "..", "/"},
        {"/home/me/", "..", "/home/me"},
        {"docs", "..", "docs"},
        // absolute requests and drive paths as they stand
        {"/home", "/etc", "/etc"},
        {"/home", "/home/me", "/home/me"},
        {"/home", "D:", "D:"},
        {"/home", "D:\\data", "D:\\data"},
        // relative names
        {"/home", "me", "/home/me"},
        {"/", "home", "/home"},
        {"", "home", "/home"},
        {"/home", "me/Documents", "/home/me/Documents"},
        {"/home", "...", "/home/..."},
        {"/home", ".hidden", "/home/.hidden"},
    };
    for (const auto& s : steps) {
        SCOPED_TRACE((s.current ? "\"" + *s.current + "\"" : std::string("none")) + " + \"" + s.request + "\"");
        EXPECT_EQ(nextBrowsingDirectory(s.current, s.request, start), s.expected);
    }
}

TEST(BrowsingDirectory, PatternAndRoot) {
    EXPECT_EQ(searchPattern("/home/me"), "/home/me/*");
    EXPECT_EQ(searchPattern("/"), "//*");
    EXPECT_EQ(searchPattern(""), "/*");
    EXPECT_TRUE(listsRoot("/"));
    EXPECT_TRUE(listsRoot("//"));
    EXPECT_TRUE(listsRoot(""));
    EXPECT_FALSE(listsRoot("/home"));
    EXPECT_FALSE(listsRoot("C:"));
}

TEST(BrowsingDirectory, ItemNamesCarryTheTimeAndAtMost259BytesOfTheName) {
    EXPECT_EQ(entryItemName(0, "a.txt"), "0_a.txt");
    EXPECT_EQ(entryItemName(1700000000, "r\xC3\xA9sum\xC3\xA9.txt"), "1700000000_r\xC3\xA9sum\xC3\xA9.txt");
    // Times before 1970 come out as the unsigned value of the difference.
    EXPECT_EQ(entryItemName(-1, "old"), "18446744073709551615_old");
    const std::string at(259, 'n');
    EXPECT_EQ(entryItemName(5, at), "5_" + at);
    EXPECT_EQ(entryItemName(5, at + "x"), "5_" + at);
    EXPECT_EQ(entryItemName(5, std::string(300, 'n')), "5_" + at);
}

// ---- decoding the events ---------------------------------------------------------------------

// The decoders' views point into the event, so these copy what they found while it lives.
std::optional<std::string> listedPath(const Bytes& event) {
    ListDirectoryRequest request;
    if (!decodeListDirectoryRequest(event, request)) return std::nullopt;
    return std::string(request.path);
}

std::optional<std::pair<std::string, std::string>> renamedNames(const Bytes& event) {
    RenameRequest request;
    if (!decodeRenameRequest(event, request)) return std::nullopt;
    return std::make_pair(std::string(request.oldName), std::string(request.newName));
}

TEST(BrowsingEvents, ListingPathIsBoundedByTheEvent) {
    EXPECT_EQ(listedPath(eventWith(lengthsAndText(4, 0, "/tmp"))), "/tmp");
    EXPECT_EQ(listedPath(eventWith(lengthsAndText(0, 0, ""))), "");
    // Stops at a NUL byte, as a C string would.
    EXPECT_EQ(listedPath(eventWith(lengthsAndText(6, 0, std::string_view("/a\0bcd", 6)))), "/a");
    // The padding of the event counts as part of it: "/tm" has one padding byte after it.
    EXPECT_EQ(listedPath(eventWith(lengthsAndText(4, 0, "/tm"))), "/tm");
    // Claims more than the event holds, or the event is too short for its lengths.
    EXPECT_FALSE(listedPath(eventWith(lengthsAndText(9, 0, "/tmp"))));
    EXPECT_FALSE(listedPath(eventWith(lengthsAndText(0xFFFF, 0, ""))));
    EXPECT_FALSE(listedPath(Bytes(32, 0)));
    EXPECT_FALSE(listedPath(Bytes(38, 0)));
}

TEST(BrowsingEvents, RenameNamesTogetherAreBoundedByTheEvent) {
    EXPECT_EQ(renamedNames(eventWith(lengthsAndText(3, 5, "oldnew.1"))), std::make_pair(std::string("old"), std::string("new.1")));
    EXPECT_EQ(renamedNames(eventWith(lengthsAndText(3, 0, "old"))), std::make_pair(std::string("old"), std::string()));
    // Each fits on its own, together they do not.
    EXPECT_FALSE(renamedNames(eventWith(lengthsAndText(5, 5, "oldnew.1"))));
    EXPECT_FALSE(renamedNames(eventWith(lengthsAndText(0xFFFF, 1, "a"))));
    EXPECT_FALSE(renamedNames(Bytes(37, 0)));
}

// ---- the root a delete must never remove ----------------------------------------------------------

TEST(DeleteGuard, TheRootIsRecognisedByAnySpelling) {
    for (const char* root : {"/", "//", "/.", "/./", "/..", "/tmp/..", "/tmp/../."})
        EXPECT_TRUE(platform::isFileSystemRoot(root)) << root;
    testsupport::TempDir dir;
    std::filesystem::create_directory_symlink("/", dir / "to-root");
    EXPECT_TRUE(platform::isFileSystemRoot((dir / "to-root").string()));
    for (const std::string& other : {std::string("/tmp"), dir.str(), dir.str() + "/missing", std::string()})
        EXPECT_FALSE(platform::isFileSystemRoot(other)) << other;
}

}  // namespace
