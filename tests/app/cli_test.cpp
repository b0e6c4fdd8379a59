// The two command-line grammars and wildcard expansion, driven in-process.
#include <gtest/gtest.h>

#include <filesystem>

#include "app/cli.h"
#include "support/temp_dir.h"

namespace {

using testsupport::TempDir;
using testsupport::writeFile;

// Runs a parser on argv as it sees it: argv[0] is the program.
template <typename Parse>
ParseResult parseWith(Parse parse, std::vector<std::string> args, Options& out) {
    args.insert(args.begin(), "varoft");
    std::vector<char*> argv;
    for (auto& a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    return parse(static_cast<int>(args.size()), argv.data(), out);
}
Options parsed;
ParseResult transfer(std::vector<std::string> list) { return parseWith(parseTransferOptions, std::move(list), parsed); }

constexpr auto Ok = ParseResult::Run;
constexpr auto Usage = ParseResult::Usage;

TEST(TransferGrammar, ModesPathsAndOptions) {
    struct Case {
        std::vector<std::string> args;
        ParseResult result;
        RunMode mode;
        std::string local, remote;
        std::int32_t verbosity;
    };
    const Case cases[] = {
        {{}, Ok, RunMode::None, "", "", 1},
        {{"-put", "a.txt", "-v"}, Ok, RunMode::Put, "a.txt", "?", 2},  // what follows is an option
        {{"-put", "a.txt", "b.txt"}, Ok, RunMode::Put, "a.txt", "b.txt", 1},
        {{"-put", "a.txt", ""}, Ok, RunMode::Put, "a.txt", "", 1},      // an empty remote name is a name
        {{"-putd", "dir"}, Ok, RunMode::PutDir, "dir", "?", 1},
        {{"-get", "remote.pdf", "local.pdf"}, Ok, RunMode::Get, "local.pdf", "remote.pdf", 1},
        {{"-getd", "R", "L", "-vv"}, Ok, RunMode::GetDir, "L", "R", 3},
        {{"-get", "r", "l", "-open", "doc.txt"}, Ok, RunMode::Open, "doc.txt", "r", 1},  // the last one wins
        {{"-d", ":3", "-vvv", "-q"}, Ok, RunMode::None, "", "", 0},
        {{"-vvv"}, Ok, RunMode::None, "", "", 4},
        {{"-vv", "-zzz"}, Usage, RunMode::None, "", "", 3},  // the verbosity so far is kept
        {{"-get", "onlyone"}, Usage, RunMode::None, "", "", 1},
        {{"-getd"}, Usage, RunMode::None, "", "", 1},
        {{"-put"}, Usage, RunMode::None, "", "", 1},
        {{"-open"}, Usage, RunMode::None, "", "", 1},
        {{"-display"}, Usage, RunMode::None, "", "", 1},
        {{"plain"}, Usage, RunMode::None, "", "", 1},
        {{"-n", "3"}, Usage, RunMode::None, "", "", 1},  // print mode only
        {{"--"}, Usage, RunMode::None, "", "", 1},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::PrintToString(c.args));
        EXPECT_EQ(transfer(c.args), c.result);
        EXPECT_EQ(parsed.runMode, c.mode);
        EXPECT_EQ(parsed.localPath, c.local);
        EXPECT_EQ(parsed.remotePath, c.remote);
        EXPECT_EQ(parsed.verbosity, c.verbosity);
    }
    EXPECT_EQ(transfer({"-d", ":3", "-display", ":4", "-l"}), Ok);
    EXPECT_EQ(parsed.display, ":4");
    EXPECT_TRUE(parsed.logFile);
    EXPECT_EQ(transfer({"-l", "--version", "-zzz"}), ParseResult::Version);  // nothing after it is read
    EXPECT_TRUE(parsed.logFile);
    EXPECT_EQ(parseTransferOptions(1, nullptr, parsed), Usage);
}

class PrintGrammar : public ::testing::Test {
protected:
    void SetUp() override {
        std::filesystem::create_directory(dir / "docs");
        for (const char* name : {"docs/b.txt", "docs/a.txt", "docs/.hidden.txt", "docs/c.pdf", "single"})
            writeFile(dir / name, "x");
    }
    ParseResult parse(std::vector<std::string> list) { return parseWith(parsePrintOptions, std::move(list), options); }
    std::string path(const std::string& rel) const { return (dir / rel).string(); }
    std::vector<std::string> paths(std::initializer_list<const char*> rel) const {
        std::vector<std::string> out;
        for (const char* r : rel) out.push_back(path(r));
        return out;
    }

    TempDir dir;
    Options options;
};

TEST_F(PrintGrammar, FilesOptionsAndErrors) {
    // fnmatch without flags: '*' matches a leading dot as well; matches come in byte order.
    EXPECT_EQ(parse({"-print", path("docs/*.txt")}), Ok);
    EXPECT_EQ(options.printFiles, paths({"docs/.hidden.txt", "docs/a.txt", "docs/b.txt"}));
    EXPECT_EQ(parse({path("single"), "-print", "-d", ":5", "-n", "12", "-vv", path("docs/c.*")}), Ok);
    EXPECT_EQ(options.printFiles, paths({"single", "docs/c.pdf"}));
    EXPECT_EQ(options.display, ":5");
    EXPECT_EQ(options.verbosity, 3);

    // Unmatched arguments are reported and dropped; after "--" everything but -print is a file.
    ::testing::internal::CaptureStderr();
    EXPECT_EQ(parse({"-print", path("docs/*.doc"), "-q", "--", "-print", "-display", "--version", path("single")}), Ok);
    EXPECT_EQ(::testing::internal::GetCapturedStderr(), "\"" + path("docs/*.doc") +
                                                             "\" file not found\n\"-display\" file not found\n"
                                                             "\"--version\" file not found\n");
    EXPECT_EQ(options.printFiles, paths({"single"}));
    EXPECT_EQ(options.verbosity, 0);
    EXPECT_FALSE(options.display);

    for (const auto& args : std::vector<std::vector<std::string>>{
             {"-print", "-l", path("single")}, {"-print", "-get", "a", "b"}, {"-print", "-x"}, {"-print", "-n"},
             {"-print", "-display"}})
        EXPECT_EQ(parse(args), Usage) << testing::PrintToString(args);
    EXPECT_EQ(parse({"-print", "--version", "-x"}), ParseResult::Version);
}

TEST_F(PrintGrammar, LongArgumentsAreCutAt255Characters) {
    // The cut keeps a name that matches only in its first 255 characters.
    const std::string prefix = dir.str() + "/";
    const std::string name(255 - prefix.size(), 'n');
    writeFile(prefix + name, "x");
    EXPECT_EQ(parse({"-print", prefix + name + "-this-part-is-cut"}), Ok);
    EXPECT_EQ(options.printFiles, std::vector<std::string>{prefix + name});
}

TEST(ProgramName, IsTheTextAfterTheLastSeparator) {
    EXPECT_EQ(programBaseName("/usr/local/bin/varoft"), "varoft");
    EXPECT_EQ(programBaseName("./tools/"), "");
    EXPECT_EQ(programBaseName(nullptr), "varoft");
}

}  // namespace
