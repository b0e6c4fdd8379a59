// The two command-line grammars and wildcard expansion, driven in-process.
#include <gtest/gtest.h>

#include <filesystem>

#include "app/cli.h"
#include "app/state.h"
#include "support/temp_dir.h"

namespace {

using testsupport::TempDir;
using testsupport::writeFile;

// argv as the parsers see it: argv[0] is the program.
struct Args {
    std::vector<std::string> store;
    std::vector<char*> ptrs;
    explicit Args(std::vector<std::string> list) {
        store.emplace_back("varoft");
        for (auto& a : list) store.push_back(std::move(a));
        for (auto& s : store) ptrs.push_back(s.data());
        ptrs.push_back(nullptr);
    }
    int argc() const { return static_cast<int>(store.size()); }
    char** argv() { return ptrs.data(); }
};

struct TransferParse {
    bool ok = false;
    std::optional<std::string> display;
    std::int32_t verbosity = -7;
};

TransferParse parseTransfer(std::vector<std::string> list) {
    RunMode = -1;
    LocalPath = "stale";
    RemotePath = "stale";
    Args a(std::move(list));
    TransferParse r;
    r.ok = parseTransferOptions(a.argc(), a.argv(), &r.display, &r.verbosity);
    return r;
}

TEST(TransferGrammar, PutAndPutdTakeAnOptionalRemoteName) {
    auto r = parseTransfer({"-put", "a.txt", "-v"});
    ASSERT_TRUE(r.ok);
    EXPECT_EQ(RunMode, RunModePut);
    EXPECT_EQ(LocalPath, "a.txt");
    EXPECT_EQ(RemotePath, "?");
    EXPECT_EQ(r.verbosity, 2) << "the option after the local path is parsed as an option";

    r = parseTransfer({"-put", "a.txt", "b.txt"});
    ASSERT_TRUE(r.ok);
    EXPECT_EQ(RemotePath, "b.txt");

    r = parseTransfer({"-putd", "dir"});
    ASSERT_TRUE(r.ok);
    EXPECT_EQ(RunMode, RunModePutDir);
    EXPECT_EQ(RemotePath, "?");

    // A remote name is anything that does not begin with '-', even an empty argument.
    r = parseTransfer({"-put", "a.txt", ""});
    ASSERT_TRUE(r.ok);
    EXPECT_EQ(RemotePath, "");
}

TEST(TransferGrammar, GetFormsNeedBothPaths) {
    auto r = parseTransfer({"-get", "remote.pdf", "local.pdf"});
    ASSERT_TRUE(r.ok);
    EXPECT_EQ(RunMode, RunModeGet);
    EXPECT_EQ(RemotePath, "remote.pdf");
    EXPECT_EQ(LocalPath, "local.pdf");

    r = parseTransfer({"-getd", "R", "L"});
    ASSERT_TRUE(r.ok);
    EXPECT_EQ(RunMode, RunModeGetDir);

    EXPECT_FALSE(parseTransfer({"-get", "onlyone"}).ok);
    EXPECT_FALSE(parseTransfer({"-getd"}).ok);
    EXPECT_FALSE(parseTransfer({"-put"}).ok);
    EXPECT_FALSE(parseTransfer({"-open"}).ok);
}

TEST(TransferGrammar, LastTransferOptionWins) {
    auto r = parseTransfer({"-get", "r", "l", "-open", "doc.txt"});
    ASSERT_TRUE(r.ok);
    EXPECT_EQ(RunMode, RunModeOpen);
    EXPECT_EQ(LocalPath, "doc.txt");
}

TEST(TransferGrammar, DisplayAndVerbosity) {
    auto r = parseTransfer({"-d", ":3", "-display", ":4", "-vvv", "-q"});
    ASSERT_TRUE(r.ok);
    EXPECT_EQ(r.display, ":4");
    EXPECT_EQ(r.verbosity, 0);
    EXPECT_EQ(RunMode, RunModeNone);

    r = parseTransfer({"-vv"});
    EXPECT_EQ(r.verbosity, 3);
    r = parseTransfer({"-vvv"});
    EXPECT_EQ(r.verbosity, 4);
    r = parseTransfer({});
    ASSERT_TRUE(r.ok);
    EXPECT_EQ(r.verbosity, 1);
    EXPECT_FALSE(r.display);

    EXPECT_FALSE(parseTransfer({"-display"}).ok);
}

TEST(TransferGrammar, RejectsUnknownWordsButKeepsVerbositySoFar) {
    auto r = parseTransfer({"-vv", "-zzz"});
    EXPECT_FALSE(r.ok);
    EXPECT_EQ(r.verbosity, 3);
    EXPECT_FALSE(parseTransfer({"plain"}).ok);
    EXPECT_FALSE(parseTransfer({"-n", "3"}).ok) << "-n belongs to print mode only";
    EXPECT_FALSE(parseTransfer({"--"}).ok);
}

TEST(TransferGrammar, NullInputsFail) {
    std::optional<std::string> display;
    std::int32_t verbosity = 0;
    EXPECT_FALSE(parseTransferOptions(1, nullptr, &display, &verbosity));
    Args a({});
    EXPECT_FALSE(parseTransferOptions(a.argc(), a.argv(), nullptr, &verbosity));
    EXPECT_FALSE(parseTransferOptions(a.argc(), a.argv(), &display, nullptr));
}

class PrintGrammar : public ::testing::Test {
protected:
    void SetUp() override {
        std::filesystem::create_directory(dir / "docs");
        writeFile(dir / "docs" / "b.txt", "b");
        writeFile(dir / "docs" / "a.txt", "a");
        writeFile(dir / "docs" / ".hidden.txt", "h");
        writeFile(dir / "docs" / "c.pdf", "c");
        writeFile(dir / "single", "s");
    }

    bool parse(std::vector<std::string> list) {
        files.clear();
        Args a(std::move(list));
        return parsePrintOptions(a.argc(), a.argv(), &display, &verbosity, &files);
    }

    std::string path(const std::string& rel) const { return (dir / rel).string(); }

    TempDir dir;
    std::optional<std::string> display;
    std::int32_t verbosity = -7;
    std::vector<std::string> files;
};

TEST_F(PrintGrammar, WildcardsExpandInByteOrderWithTheirPrefix) {
    ASSERT_TRUE(parse({"-print", path("docs/*.txt")}));
    // fnmatch without flags: '*' matches a leading dot as well.
    EXPECT_EQ(files, (std::vector<std::string>{path("docs/.hidden.txt"), path("docs/a.txt"), path("docs/b.txt")}));

    ASSERT_TRUE(parse({path("single"), "-print", path("docs/c.*")}));
    EXPECT_EQ(files, (std::vector<std::string>{path("single"), path("docs/c.pdf")}));
}

TEST_F(PrintGrammar, UnmatchedArgumentsAreDroppedAndParsingGoesOn) {
    ::testing::internal::CaptureStderr();
    ASSERT_TRUE(parse({"-print", path("docs/*.doc"), path("single")}));
    const std::string err = ::testing::internal::GetCapturedStderr();
    EXPECT_EQ(err, "\"" + path("docs/*.doc") + "\" file not found\n");
    EXPECT_EQ(files, std::vector<std::string>{path("single")});
}

TEST_F(PrintGrammar, DoubleDashMakesEverythingAFileExceptPrint) {
    ::testing::internal::CaptureStderr();
    ASSERT_TRUE(parse({"-print", "-q", "--", "-print", "-q", "--version", path("single")}));
    const std::string err = ::testing::internal::GetCapturedStderr();
    EXPECT_EQ(verbosity, 0);
    EXPECT_EQ(files, std::vector<std::string>{path("single")});
    EXPECT_NE(err.find("\"-q\" file not found\n"), std::string::npos);
    EXPECT_NE(err.find("\"--version\" file not found\n"), std::string::npos);
    EXPECT_EQ(err.find("\"-print\""), std::string::npos);
}

TEST_F(PrintGrammar, OptionsAndErrors) {
    ASSERT_TRUE(parse({"-print", "-d", ":5", "-n", "12", "-vv", path("single")}));
    EXPECT_EQ(display, ":5");
    EXPECT_EQ(verbosity, 3);
    EXPECT_EQ(files.size(), 1u);

    EXPECT_FALSE(parse({"-print", "-l", path("single")})) << "-l is a transfer option";
    EXPECT_FALSE(parse({"-print", "-get", "a", "b"}));
    EXPECT_FALSE(parse({"-print", "-x"}));
    EXPECT_FALSE(parse({"-print", "-n"}));
    EXPECT_FALSE(parse({"-print", "-display"}));
    // After "--" the display option is a file name like any other.
    ::testing::internal::CaptureStderr();
    EXPECT_TRUE(parse({"-print", "--", "-display"}));
    ::testing::internal::GetCapturedStderr();
    EXPECT_FALSE(display);
}

TEST_F(PrintGrammar, LongArgumentsAreCutAt255Characters) {
    // The cut keeps a name that matches only in its first 255 characters.
    const std::string prefix = dir.str() + "/";
    const std::string name(255 - prefix.size(), 'n');
    writeFile(prefix + name, "x");
    std::string arg = prefix + name + "-this-part-is-cut";
    ASSERT_TRUE(parse({"-print", arg}));
    EXPECT_EQ(files, std::vector<std::string>{prefix + name});
}

TEST(ProgramName, IsTheTextAfterTheLastSeparator) {
    EXPECT_EQ(programBaseName("/usr/local/bin/varoft"), "varoft");
    EXPECT_EQ(programBaseName("varoft"), "varoft");
    EXPECT_EQ(programBaseName("./tools/"), "");
    EXPECT_EQ(programBaseName(nullptr), "varoft");
}

}  // namespace
