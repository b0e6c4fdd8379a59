// The pieces of browsing that need no connection: where a request leads from the current browsing
// directory, item names, the root a delete never removes, and decoding of listing and rename
// events whose lengths lie.
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

struct Step {
    std::optional<std::string> current;
    std::string request;
    std::string expected;
};

TEST(BrowsingDirectory, EachRuleInItsOrder) {
    const std::string start = "/home/me/Documents";
    const std::vector<Step> steps = {
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
    for (const auto& s : steps) {
        SCOPED_TRACE((s.current ? "\"" + *s.current + "\"" : std::string("none")) + " + \"" + s.request + "\"");
        EXPECT_EQ(nextBrowsingDirectory(s.current, s.request, start), s.expected);
    }
}

TEST(BrowsingDirectory, PatternAndItemNames) {
    // The pattern names the directory in a failed listing's status.
    EXPECT_EQ(searchPattern("/home/me"), "/home/me/*");
    EXPECT_EQ(searchPattern("/"), "//*");

    EXPECT_EQ(entryItemName(0, "a.txt"), "0_a.txt");
    // Times before 1970 come out as the unsigned value of the difference.
    EXPECT_EQ(entryItemName(-1, "old"), "18446744073709551615_old");
    const std::string at(259, 'n');
    EXPECT_EQ(entryItemName(5, at), "5_" + at);
    EXPECT_EQ(entryItemName(5, at + "x"), "5_" + at);
}

TEST(DeleteGuard, TheRootIsRecognisedByAnySpelling) {
    for (const char* root : {"/", "//", "/.", "/./", "/..", "/tmp/..", "/tmp/../."})
        EXPECT_TRUE(platform::isFileSystemRoot(root)) << root;
    testsupport::TempDir dir;
    std::filesystem::create_directory_symlink("/", dir / "to-root");
    EXPECT_TRUE(platform::isFileSystemRoot((dir / "to-root").string()));
    for (const std::string& other : {std::string("/tmp"), dir.str(), dir.str() + "/missing", std::string()})
        EXPECT_FALSE(platform::isFileSystemRoot(other)) << other;
}

// An event as libxcb delivers it: 32 header bytes, the full sequence, then the two lengths and text.
Bytes eventWith(std::uint16_t first, std::uint16_t second, std::string_view text) {
    Bytes payload;
    bytes::Writer(payload).u16(first).u16(second).raw(text);
    Bytes event(36 + payload.size() + bytes::pad4(payload.size()), 0);
    event[0] = 35;
    std::copy(payload.begin(), payload.end(), event.begin() + 36);
    return event;
}

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

TEST(BrowsingEvents, LengthsAreBoundedByTheEvent) {
    EXPECT_EQ(listedPath(eventWith(4, 0, "/tmp")), "/tmp");
    EXPECT_EQ(listedPath(eventWith(0, 0, "")), "");
    // Stops at a NUL byte, as a C string would.
    EXPECT_EQ(listedPath(eventWith(6, 0, std::string_view("/a\0bcd", 6))), "/a");
    // The padding of the event counts as part of it: "/tm" has one padding byte after it.
    EXPECT_EQ(listedPath(eventWith(4, 0, "/tm")), "/tm");
    // Claims more than the event holds, or the event is too short for its lengths.
    EXPECT_FALSE(listedPath(eventWith(9, 0, "/tmp")));
    EXPECT_FALSE(listedPath(eventWith(0xFFFF, 0, "")));
    EXPECT_FALSE(listedPath(Bytes(32, 0)));
    EXPECT_FALSE(listedPath(Bytes(38, 0)));

    using Names = std::pair<std::string, std::string>;
    EXPECT_EQ(renamedNames(eventWith(3, 5, "oldnew.1")), Names("old", "new.1"));
    EXPECT_EQ(renamedNames(eventWith(3, 0, "old")), Names("old", ""));
    // Each fits on its own, together they do not.
    EXPECT_FALSE(renamedNames(eventWith(5, 5, "oldnew.1")));
    EXPECT_FALSE(renamedNames(eventWith(0xFFFF, 1, "a")));
    EXPECT_FALSE(renamedNames(Bytes(37, 0)));
}

}  // namespace
