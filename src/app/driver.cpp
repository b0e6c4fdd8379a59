#include "app/driver.h"

#include <cstring>
#include <optional>
#include <string>

#include <xcb/xcb.h>

#include "app/cli.h"
#include "common/log.h"
#include "common/options.h"
#include "common/terminal_display.h"
#include "common/terminal_hints.h"
#include "filetransfer/session.h"
#include "filetransfer/xcb_wire.h"
#include "platform/platform.h"
#include "print/print_loop.h"

namespace {

// The longest local path the protocol's 1024-byte fields hold.
constexpr std::size_t kLocalPathMax = 1023;

constexpr const char* kUsage =
    "Usage:  varoft [OPTION]\n\nOptions:\n"
    "  -q                           - quiet\n"
    "  -v                           - verbose\n"
    "  -vv                          - very_verbose\n"
    "  -display <display>           - varoproxy to connect to\n"
    "  -get <RemoteFile  LocalFile> - copy a remote file (from User Desktop) to a local file\n"
    "  -put <LocalFile> [RemoteFile] - copy a local file to a remote file (to User Desktop) \n"
    "  -getd <RemoteDir  LocalDir>  - copy a remote directory (from User Desktop) to a local one\n"
    "  -putd <LocalDir  RemoteDir>  - copy a local directory to a remote one (to User Desktop) \n"
    "  -print <File1 File2 ...>     - send a local file(s) for printing (to User Desktop) \n"
    "  -open <File>                 - send a local file for opening (to User Desktop) \n";

void printBanner(const std::string& program) {
    logPrint(1, "%s - Varo File Transfer and Remote Print Utility, Version 12.5\n\n", program.c_str());
}

void printUsage() { logPrint(1, "%s", kUsage); }

// A command-line error: banner and usage at the given verbosity; the run ends with 0.
int commandLineError(const std::string& program, std::int32_t verbosity) {
    setLogVerbosity(verbosity);
    printBanner(program);
    printUsage();
    return 0;
}

// A parsed command line: the banner and, at -vv, what was understood.
void printStartup(const std::string& program, std::int32_t verbosity, const std::optional<std::string>& display) {
    setLogVerbosity(verbosity);
    printBanner(program);
    logPrint(3, "Command line processed\n");
    logPrint(3, "Verbosity level: %d\n", verbosity);
    if (display) logPrint(3, "Display is: %s\n", display->c_str());
}

// The display as the user gave it, for messages ("(null)" when none was given).
const char* shown(const std::optional<std::string>& display) { return display ? display->c_str() : "(null)"; }

// The hint for a display that could not be reached because none was named.
void hintWhenNoDisplay(const std::optional<std::string>& display) {
    const char* variable = platform::environment("DISPLAY");
    if (!display && (!variable || *variable == '\0')) terminal::hint(terminal::displayUnsetHint());
}

// The display as the hints name it: the one given, else DISPLAY.
std::string displayName(const std::optional<std::string>& display) {
    const char* variable = platform::environment("DISPLAY");
    return display ? *display : variable ? variable : "";
}

// Owns the one X connection of the run.
struct Connection {
    xcb_connection_t* handle = nullptr;
    explicit Connection(const std::optional<std::string>& display)
        : handle(xcb_connect(display ? display->c_str() : nullptr, nullptr)) {}
    ~Connection() {
        if (handle) xcb_disconnect(handle);
    }
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;
};

int runPrintMode(int argc, char** argv, const std::string& program) {
    Options options;
    switch (parsePrintOptions(argc, argv, options)) {
        case ParseResult::Run: break;
        case ParseResult::Version: printVersion(); return 0;
        case ParseResult::Usage: return commandLineError(program, 1);  // whatever -q said
    }
    const std::optional<std::string>& display = options.display;
    printStartup(program, options.verbosity, display);
    if (options.printFiles.empty()) {
        printUsage();
        return 1;
    }
    logPrint(3, "%d files to print:\n", static_cast<int>(options.printFiles.size()));
    for (const auto& file : options.printFiles) logPrint(3, "\t%s\n", file.c_str());

    Connection connection(display);
    if (!connection.handle) return 1;
    if (const int error = xcb_connection_has_error(connection.handle); error != 0) {
        if (error == XCB_CONN_ERROR) logPrint(1, "Could not connect to display: %s\n", shown(display));
        else logPrint(1, "xcb_connection_has_error() returned %d\n", error);
        hintWhenNoDisplay(display);
        return 1;
    }
    const xcb_query_extension_reply_t* extension = xcb_get_extension_data(connection.handle, &ThinPrintExtension);
    if (!extension) logPrint(1, "X Server does not support the \"%s\" extension\n", kThinPrintExtensionName);
    if (!extension || !extension->present) {
        terminal::hint(terminal::missingExtensionHint(displayName(display), terminal::Extension::Print));
    }
    if (!extension) return 1;
    terminal::Display progress;
    if (terminal::wanted() && extension->present) progress.enable();
    runPrintLoop(connection.handle, options.printFiles, &progress);
    return 0;
}

int runTransferMode(int argc, char** argv, const std::string& program) {
    Options options;
    const ParseResult parsed = parseTransferOptions(argc, argv, options);
    if (options.logFile) enableLogFile();
    if (parsed == ParseResult::Version) {
        printVersion();
        return 0;
    }
    if (parsed == ParseResult::Usage) return commandLineError(program, options.verbosity);
    const std::optional<std::string>& display = options.display;
    printStartup(program, options.verbosity, display);
    // The far side's names are cut to 1023 bytes; a cut local path could name an unrelated
    // sibling, so a longer one is never acted on.
    if (options.runMode != RunMode::None && options.localPath.size() > kLocalPathMax) {
        logPrint(1, "%s: File name too long\n", options.localPath.c_str());
        return 0;
    }

    Connection connection(display);
    if (!connection.handle) return 1;
    switch (xcb_connection_has_error(connection.handle)) {
        case 0:
        {
            // The session and its wire go before the connection does.
            XcbWire wire(connection.handle);
            Session session(std::move(options), wire);
            if (terminal::wanted()) session.display.enable();
            return runFileTransfer(connection.handle, session);
        }
        case XCB_CONN_CLOSED_MEM_INSUFFICIENT:
            logPrint(1, "Could not connect to display: %s, insufficient memory.\n", shown(display));
            break;
        case XCB_CONN_CLOSED_PARSE_ERR:
            logPrint(1, "Could not connect to display: %s, parse error.\n", shown(display));
            break;
        case XCB_CONN_CLOSED_INVALID_SCREEN:
            logPrint(1, "Could not connect to display: %s, invalid screen.\n", shown(display));
            break;
        default:
            logPrint(1, "Could not connect to display: %s\n", shown(display));
            break;
    }
    hintWhenNoDisplay(display);
    return 1;
}

}  // namespace

int runMain(int argc, char** argv) {
    if (argc < 1 || !argv) {
        static char* none[] = {nullptr};
        argc = 0;
        argv = none;
    }
    platform::installTerminationHandling();
    const std::string program = programBaseName(argc > 0 ? argv[0] : nullptr);
    bool printMode = false;
    for (int i = 1; i < argc && !printMode; ++i) printMode = argv[i] && std::strcmp(argv[i], "-print") == 0;
    return printMode ? runPrintMode(argc, argv, program) : runTransferMode(argc, argv, program);
}
