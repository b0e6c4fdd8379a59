#include "app/cli.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "common/log.h"
#include "platform/platform.h"

namespace {

bool is(const char* arg, const char* option) { return std::strcmp(arg, option) == 0; }

// -q, -v, -vv, -vvv; -1 for anything else.
int verbosityOption(const char* arg) {
    if (is(arg, "-q")) return 0;
    if (is(arg, "-v")) return 2;
    if (is(arg, "-vv")) return 3;
    if (is(arg, "-vvv")) return 4;
    return -1;
}

}  // namespace

void printVersion() { std::printf("%-10sVersion %s, GitHash %s\n", "varoft", "12.5.3.9413", VAROFT_GIT_HASH); }

std::string programBaseName(const char* path) {
    if (!path) return "varoft";
    const char* slash = std::strrchr(path, platform::kSeparator);
    return slash ? std::string(slash + 1) : std::string(path);
}

ParseResult parseTransferOptions(int argc, char** argv, Options& out) {
    out = Options{};
    if (!argv) return ParseResult::Usage;
    if (argc < 2) return ParseResult::Run;

    for (int i = 1; i < argc; ++i) {
        const char* arg = argv[i];
        if (!arg) return ParseResult::Usage;
        const bool hasNext = i + 1 < argc && argv[i + 1];
        if (is(arg, "-display") || is(arg, "-d")) {
            if (!hasNext) return ParseResult::Usage;
            out.display = argv[++i];
        } else if (is(arg, "-print")) {
            // Print mode is chosen before this parser runs.
        } else if (is(arg, "-open")) {
            if (!hasNext) return ParseResult::Usage;
            out.runMode = RunMode::Open;
            out.localPath = argv[++i];
        } else if (const int level = verbosityOption(arg); level >= 0) {
            out.verbosity = level;
        } else if (is(arg, "-l")) {
            out.logFile = true;
        } else if (is(arg, "--version")) {
            return ParseResult::Version;
        } else if (is(arg, "-get") || is(arg, "-getd")) {
            if (i + 2 >= argc || !argv[i + 1] || !argv[i + 2]) return ParseResult::Usage;
            out.runMode = is(arg, "-get") ? RunMode::Get : RunMode::GetDir;
            out.remotePath = argv[++i];
            out.localPath = argv[++i];
        } else if (is(arg, "-put") || is(arg, "-putd")) {
            if (!hasNext) return ParseResult::Usage;
            out.runMode = is(arg, "-put") ? RunMode::Put : RunMode::PutDir;
            out.localPath = argv[++i];
            if (i + 1 < argc && argv[i + 1] && argv[i + 1][0] != '-') {
                out.remotePath = argv[++i];
            } else {
                out.remotePath = "?";
            }
        } else {
            return ParseResult::Usage;
        }
    }
    return ParseResult::Run;
}

void collectPrintArgument(char* arg, std::vector<std::string>& files) {
    if (std::strlen(arg) > 255) arg[255] = '\0';
    const std::string text(arg);
    const std::size_t cut = text.rfind(platform::kSeparator);
    const std::string prefix = cut == std::string::npos ? std::string() : text.substr(0, cut + 1);
    const std::string pattern = cut == std::string::npos ? text : text.substr(cut + 1);

    const std::vector<std::string> names = platform::matchNames(prefix, pattern);
    if (names.empty()) {
        logPrint(0, "\"%s\" file not found\n", arg);
        return;
    }
    for (const auto& name : names) files.push_back(prefix + name);
}

ParseResult parsePrintOptions(int argc, char** argv, Options& out) {
    out = Options{};
    if (!argv) return ParseResult::Usage;
    bool filesOnly = false;
    for (int i = 1; i < argc; ++i) {
        char* arg = argv[i];
        if (!arg) return ParseResult::Usage;
        if (!filesOnly && (is(arg, "-display") || is(arg, "-d"))) {
            if (i + 1 >= argc || !argv[i + 1]) return ParseResult::Usage;
            out.display = argv[++i];
        } else if (is(arg, "-print")) {
            // The mode switch itself, wherever it stands.
        } else if (filesOnly || arg[0] != '-') {
            collectPrintArgument(arg, out.printFiles);
        } else if (const int level = verbosityOption(arg); level >= 0) {
            out.verbosity = level;
        } else if (is(arg, "--version")) {
            return ParseResult::Version;
        } else if (is(arg, "-n")) {
            // A count from older command lines, read and ignored.
            if (i + 1 >= argc || !argv[i + 1]) return ParseResult::Usage;
            (void)std::strtol(argv[++i], nullptr, 10);
        } else if (is(arg, "--")) {
            filesOnly = true;
        } else {
            return ParseResult::Usage;
        }
    }
    return ParseResult::Run;
}
