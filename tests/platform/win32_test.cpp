// What only the Windows build does: backslash paths, drive roots, browsing and print names; "*.*"
// searches, the system's wildcards and UTF-16 names; FormatMessageW texts; the drive report with
// its volume names and policy value; temporaries, the log file's text mode, names below a held
// directory.
#include <windows.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "filetransfer/listing.h"
#include "platform/platform.h"
#include "platform/win32.h"
#include "print/print_loop.h"

namespace {

namespace fs = std::filesystem;
using Names = std::vector<std::string>;

fs::path native(const std::string& utf8) { return fs::path(std::u8string(utf8.begin(), utf8.end())); }

// A fresh directory under the system's temporary directory, removed with everything in it.
struct Scratch {
    static inline int counter = 0;
    fs::path path = fs::temp_directory_path() /
                    ("varoft-win32-" + std::to_string(GetCurrentProcessId()) + "-" + std::to_string(counter++));
    Scratch() { fs::create_directories(path); }
    ~Scratch() { fs::remove_all(path, ignored); }
    std::string str() const {
        const std::u8string text = path.u8string();
        return {text.begin(), text.end()};
    }
    std::string operator/(const std::string& name) const { return str() + "\\" + name; }
    std::error_code ignored;
};

void write(const std::string& path, const std::string& text) { std::ofstream(native(path), std::ios::binary) << text; }

std::string read(const std::string& path) {
    std::ifstream in(native(path), std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

Names sorted(Names names) { return std::sort(names.begin(), names.end()), names; }

const std::string kAccent = "\xc3\xa9t\xc3\xa9";  // "été", two characters outside ASCII

TEST(Win32Paths, BackslashesAndDrivesSplitAsTheSystemReadsThem) {
    const std::tuple<std::string, std::string, std::string, std::string> cases[] = {
        // path, parent, last component, directory part
        {"C:\\x", "C:\\", "x", "C:\\"}, {"C:\\a\\b\\", "C:\\a", "b", "C:\\a\\b"}, {"C:/a/b", "C:/a", "b", "C:/a"},
        {"C:x", "C:", "x", "C:"},       {"\\x", "\\", "x", "\\"},                 {"x", ".", "x", ""},
        {"C:\\", "C:\\", "", "C:\\"},   {"C:", "C:", "", "C:"},
    };
    for (const auto& [path, parent, last, directory] : cases) {
        std::string gotParent, gotLast;
        platform::splitLastComponent(path, gotParent, gotLast);
        EXPECT_EQ(std::tie(gotParent, gotLast), std::tie(parent, last)) << path;
        EXPECT_EQ(platform::directoryOf(path), directory) << path;
    }
    for (const char* root : {"C:", "C:\\", "c:/", "C:\\windows\\..", "\\\\server\\share\\"}) {
        EXPECT_TRUE(platform::isFileSystemRoot(root)) << root;
        EXPECT_EQ(platform::removeDirectoryTree(root), 0) << root;
        EXPECT_EQ(platform::lastError(), ERROR_ACCESS_DENIED) << root;
    }
    for (const char* path : {"C:\\windows", "\\\\server\\share\\dir", "", "relative"})
        EXPECT_FALSE(platform::isFileSystemRoot(path)) << path;
}

// Browsing climbs and joins at backslashes, a drive named without its backslash offers no "..",
// and a printed file's name is cut at the last backslash only.
TEST(Win32Paths, BrowsingAndPrintNamesFollowTheBackslash) {
    const std::tuple<std::string, std::string, std::string> steps[] = {
        {"C:\\Users\\me", "..", "C:\\Users"}, {"C:\\Users", "..", "C:"}, {"C:", "..", "C:"},
        {"\\x", "..", ""},                    {"C:", "data", "C:\\data"}, {"/", "data", "/data"},
        {"", "data", "\\data"},               {"C:\\a", "D:\\b", "D:\\b"},
    };
    for (const auto& [current, request, next] : steps)
        EXPECT_EQ(nextBrowsingDirectory(current, request, "home"), next) << current << " + " << request;
    EXPECT_EQ(searchPattern("C:"), "C:\\*");
    EXPECT_TRUE(listsRoot("C:"));
    for (const char* directory : {"C:\\", "C:\\Users", "\\", ""}) EXPECT_FALSE(listsRoot(directory)) << directory;
    EXPECT_EQ(remotePrintName("C:\\dir\\a.txt"), "a.txt");
    EXPECT_EQ(remotePrintName("dir/a.txt"), "dir/a.txt");
}

TEST(Win32Errors, TextsComeFromTheMessageTableWithoutTheLineBreak) {
    const int notADirectory = platform::failureCode(platform::Failure::NotADirectory);
    for (const int code : {platform::missingErrorCode(), platform::existsErrorCode(), notADirectory,
                           platform::deviceNotReadyErrorCode()}) {
        const std::string text = platform::errorText(code);
        EXPECT_TRUE(!text.empty() && text.find_first_of("\r\n") == std::string::npos) << code << ": " << text;
    }
    // The error of the failing call itself, read right after it.
    Scratch dir;
    EXPECT_FALSE(platform::removeFile(dir / "missing.txt"));
    EXPECT_EQ(platform::lastError(), ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(platform::lastErrorText(), platform::errorText(ERROR_FILE_NOT_FOUND));
    // Invalid UTF-8 never reaches the system as a guessed name.
    EXPECT_FALSE(platform::makeDirectory(dir / "bad\xff"));
    EXPECT_EQ(platform::lastError(), ERROR_NO_UNICODE_TRANSLATION);
}

TEST(Win32Listing, StarDotStarSearchesUtf16NamesAndTheSystemsWildcards) {
    Scratch dir;
    for (const std::string& name : Names{"a.txt", "B.TXT", "noext", kAccent + ".txt", "secret"})
        write(dir / name, "abcd");
    SetFileAttributesW(native(dir / "secret").c_str(), FILE_ATTRIBUTE_HIDDEN);
    ASSERT_TRUE(platform::makeDirectory(dir / "sub"));

    platform::DirectoryReader reader;
    ASSERT_TRUE(reader.open(dir.str()));
    Names names;
    for (std::string name; reader.next(name);) names.push_back(name);
    EXPECT_EQ(platform::lastError(), 0);  // the end, not a failure
    EXPECT_EQ(sorted(names), (Names{".", "..", "B.TXT", "a.txt", "noext", "secret", "sub", kAccent + ".txt"}));
    EXPECT_TRUE(platform::hasHiddenAttribute(dir / "secret"));
    EXPECT_FALSE(platform::hasHiddenAttribute(dir / "a.txt"));

    // Case-insensitive, and "*.*" also matches a name without a dot.
    const std::string in = dir.str() + "\\";
    EXPECT_EQ(sorted(platform::matchNames(in, "*.txt")), (Names{"B.TXT", "a.txt", kAccent + ".txt"}));
    EXPECT_EQ(sorted(platform::matchNames(in, "*.*")),
              (Names{"B.TXT", "a.txt", "noext", "secret", "sub", kAccent + ".txt"}));

    platform::Status st;
    ASSERT_TRUE(platform::status(dir / (kAccent + ".txt"), st));
    EXPECT_EQ(st.kind, platform::Kind::Regular);
    EXPECT_EQ(st.size, 4u);
    EXPECT_LE(std::llabs(st.mtime - platform::currentTime()), 120);  // FILETIME made seconds since 1970
    platform::File file;
    EXPECT_FALSE(file.open(dir / "sub", platform::OpenMode::Read));  // a directory does not open as a file
}

TEST(Win32Changes, RenameNeverReplacesTreesGoWhole) {
    Scratch dir;
    write(dir / "old", "old");
    write(dir / "taken", "taken");
    EXPECT_FALSE(platform::renameNoReplace(dir / "old", dir / "taken"));
    EXPECT_EQ(platform::lastError(), platform::existsErrorCode());
    EXPECT_TRUE(platform::renameNoReplace(dir / "old", dir / kAccent));
    EXPECT_TRUE(platform::replacePath(dir / kAccent, dir / "taken"));
    EXPECT_EQ(read(dir / "taken"), "old");

    const std::string tree = dir / "tree";
    ASSERT_TRUE(platform::makeDirectory(tree));
    ASSERT_TRUE(platform::makeDirectory(tree + "\\deep"));
    write(tree + "\\deep\\file", "x");
    SetFileAttributesW(native(tree + "\\deep\\file").c_str(), FILE_ATTRIBUTE_HIDDEN);
    EXPECT_NE(platform::removeDirectoryTree(tree), 0);
    EXPECT_FALSE(platform::exists(tree));
}

TEST(Win32Drives, ReportStringsHiddenDrivesAndVolumeNames) {
    // A stand-in for the volumes: A: empty reader, C: hidden by the mask, D: no label,
    // E: refuses, F: labelled.
    auto lookup = [](const std::string& root, std::string& label) {
        switch (root[0]) {
            case 'A': SetLastError(ERROR_NOT_READY); return false;
            case 'E': SetLastError(ERROR_ACCESS_DENIED); return false;
            case 'D': label.clear(); return true;
            default: label = root[0] == 'C' ? "System" : "Data"; return true;
        }
    };
    std::vector<platform::DriveNote> notes;
    const auto list = platform::buildDriveList({"A:\\", "C:\\", "D:\\", "E:\\", "F:\\"}, 4, lookup, notes);
    EXPECT_EQ(std::string(list.begin(), list.end()), std::string(" (D:)\0Data (F:)\0", 16));
    using O = platform::DriveNote::Outcome;
    const std::tuple<O, std::string, int> want[] = {{O::NotReady, "A:\\", ERROR_NOT_READY}, {O::Hidden, "C:", 0},
        {O::Listed, " (D:)", 0}, {O::Failed, "E:\\", ERROR_ACCESS_DENIED}, {O::Listed, "Data (F:)", 0}};
    ASSERT_EQ(notes.size(), std::size(want));
    for (std::size_t i = 0; i < notes.size(); ++i)
        EXPECT_EQ(std::tie(notes[i].outcome, notes[i].text, notes[i].error), want[i]) << i;
    // Entries that would pass the 4,096 bytes are left out whole.
    auto longLabel = [](const std::string&, std::string& label) { return label.assign(250, 'x'), true; };
    std::vector<std::string> many;
    for (char c = 'A'; c <= 'Z'; ++c) many.push_back(std::string(1, c) + ":\\");
    EXPECT_EQ(platform::buildDriveList(many, 0, longLabel, notes).size(), 16u * 256u);

    // The real system: roots in "X:\" form, the system drive's volume answers.
    std::vector<std::string> real;
    ASSERT_TRUE(platform::logicalDriveRoots(real));
    for (const std::string& root : real) EXPECT_TRUE(root.size() == 3 && root.substr(1) == ":\\") << root;
    const char* systemDrive = platform::environment("SystemDrive");
    ASSERT_NE(systemDrive, nullptr);
    std::string label;
    EXPECT_TRUE(platform::volumeLabel(std::string(systemDrive) + "\\", label)) << platform::lastErrorText();

    // The policy value, set and removed again for this test.
    HKEY key = nullptr;
    ASSERT_EQ(RegCreateKeyExA(HKEY_CURRENT_USER, "Software\\Microsoft\\Windows\\CurrentVersion\\Policies\\Explorer", 0,
                              nullptr, 0, KEY_SET_VALUE, nullptr, &key, nullptr),
              ERROR_SUCCESS);
    const DWORD hideC = 4;
    RegSetValueExA(key, "NODRIVES", 0, REG_DWORD, reinterpret_cast<const BYTE*>(&hideC), sizeof hideC);
    EXPECT_EQ(platform::hiddenDriveMask(), 4u);
    RegSetValueExA(key, "NODRIVES", 0, REG_SZ, reinterpret_cast<const BYTE*>("4"), 2);
    EXPECT_EQ(platform::hiddenDriveMask(), 0u);  // not a DWORD: no policy
    RegDeleteValueA(key, "NODRIVES");
    EXPECT_EQ(platform::hiddenDriveMask(), 0u);
    RegCloseKey(key);
}

TEST(Win32Files, TemporariesLogFileAndNamesBelowAHeldDirectory) {
    Scratch dir;
    platform::TemporaryFile temporary;
    ASSERT_TRUE(temporary.create(dir.str()));
    EXPECT_EQ(platform::directoryOf(temporary.path()), dir.str());
    const std::string bytes = "line\n";
    EXPECT_EQ(temporary.write({reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size()}), 5);
    EXPECT_TRUE(temporary.setNewFileMode()) << platform::lastErrorText();
    EXPECT_TRUE(temporary.close());
    EXPECT_EQ(read(temporary.path()), "line\n");  // no text-mode translation of data

    // The log is a text file: "\r\n" line ends; a directory under its name is not written.
    EXPECT_TRUE(platform::appendToLogFile(dir / "varoft.log", "one\n"));
    EXPECT_TRUE(platform::appendToLogFile(dir / "varoft.log", "two\n"));
    EXPECT_EQ(read(dir / "varoft.log"), "one\r\ntwo\r\n");
    ASSERT_TRUE(platform::makeDirectory(dir / "dir.log"));
    EXPECT_FALSE(platform::appendToLogFile(dir / "dir.log", "x\n"));

    // Below a held directory: missing levels made, a file where a directory is expected and
    // names Windows would read differently refused; a read-only file in the way is replaced.
    platform::DirectoryHandle base, below;
    ASSERT_TRUE(base.open(dir.str()));
    ASSERT_TRUE(below.openBeneath(base, "a/b\\" + kAccent, true));
    write(dir / "plain", "");
    for (const char* bad : {"plain/x", "a/../b", "a/stream:x", "dots.", "a//b"}) {
        platform::DirectoryHandle refused;
        EXPECT_FALSE(refused.openBeneath(base, bad, true)) << bad;
    }
    const std::string inside = dir / ("a\\b\\" + kAccent + "\\f.txt");
    write(inside, "old");
    SetFileAttributesW(native(inside).c_str(), FILE_ATTRIBUTE_READONLY);
    platform::File created;
    ASSERT_TRUE(created.createNewAt(below, "f.txt")) << platform::lastErrorText();
    created.close();
    EXPECT_EQ(read(inside), "");
    EXPECT_FALSE(created.createNewAt(base, "a"));  // a directory stays
    below.close();
    EXPECT_NE(base.removeTreeAt("a"), 0);
    EXPECT_FALSE(platform::exists(dir / "a"));
}

}  // namespace
