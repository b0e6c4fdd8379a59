#include "app/cli.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "app/log.h"
#include "app/state.h"
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

[[noreturn]] void versionAndExit() {
    printVersion();
    std::exit(0);
}

}  // namespace

void printVersion() { std::printf("%-10sVersion %s, GitHash %s\n", "varoft", "12.5.3.9413", VAROFT_GIT_HASH); }

std::string programBaseName(const char* path) {
    if (!path) return "varoft";
    const char* slash = std::strrchr(path, platform::kSeparator);
    return slash ? std::string(slash + 1) : std::string(path);
}

bool parseTransferOptions(int argc, char** argv, std::optional<std::string>* display, std::int32_t* verbosity) {
    if (!argv || !display || !verbosity) return false;
    RunMode = RunModeNone;
    display->reset();
    *verbosity = 1;
    if (argc < 2) return true;

    for (int i = 1; i < argc; ++i) {
        const char* arg = argv[i];
        if (!arg) return false;
        const bool hasNext = i + 1 < argc && argv[i + 1];
        if (is(arg, "-display") || is(arg, "-d")) {
            if (!hasNext) return false;
            *display = argv[++i];
        } else if (is(arg, "-print")) {
            // Print mode is chosen before this parser runs.
        } else if (is(arg, "-open")) {
            if (!hasNext) return false;
            RunMode = RunModeOpen;
            LocalPath = argv[++i];
        } else if (const int level = verbosityOption(arg); level >= 0) {
            *verbosity = level;
        } else if (is(arg, "-l")) {
            enableLogFile();
        } else if (is(arg, "--version")) {
            versionAndExit();
        } else if (is(arg, "-get") || is(arg, "-getd")) {
            if (i + 2 >= argc || !argv[i + 1] || !argv[i + 2]) return false;
            RunMode = is(arg, "-get") ? RunModeGet : RunModeGetDir;
            RemotePath = argv[++i];
            LocalPath = argv[++i];
        } else if (is(arg, "-put") || is(arg, "-putd")) {
            if (!hasNext) return false;
            RunMode = is(arg, "-put") ? RunModePut : RunModePutDir;
            LocalPath = argv[++i];
            if (i + 1 < argc && argv[i + 1] && argv[i + 1][0] != '-') {
                RemotePath = argv[++i];
            } else {
                RemotePath = "?";
            }
        } else {
            return false;
        }
    }
    return true;
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

bool parsePrintOptions(int argc, char** argv, std::optional<std::string>* display, std::int32_t* verbosity,
                       std::vector<std::string>* files) {
    if (!argv || !display || !verbosity || !files) return false;
    display->reset();
    *verbosity = 1;
    bool filesOnly = false;
    for (int i = 1; i < argc; ++i) {
        char* arg = argv[i];
        if (!arg) return false;
        if (!filesOnly && (is(arg, "-display") || is(arg, "-d"))) {
            if (i + 1 >= argc || !argv[i + 1]) return false;
            *display = argv[++i];
        } else if (is(arg, "-print")) {
            // The mode switch itself, wherever it stands.
        } else if (filesOnly || arg[0] != '-') {
            collectPrintArgument(arg, *files);
        } else if (const int level = verbosityOption(arg); level >= 0) {
            *verbosity = level;
        } else if (is(arg, "--version")) {
            versionAndExit();
        } else if (is(arg, "-n")) {
            // A count from older command lines, read and ignored.
            if (i + 1 >= argc || !argv[i + 1]) return false;
            (void)std::strtol(argv[++i], nullptr, 10);
        } else if (is(arg, "--")) {
            filesOnly = true;
        } else {
            return false;
        }
    }
    return true;
}
