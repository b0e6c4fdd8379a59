// The two command-line grammars: transfer mode and print mode.
#pragma once

#include <string>
#include <vector>

#include "common/options.h"

enum class ParseResult {
    Run,      // the options are complete
    Usage,    // a command-line error: show the usage
    Version,  // --version: print the version and end
};

// Transfer mode: fills the run mode, the paths, the display, the verbosity and the log flag.
// The verbosity and the log flag are kept as they are parsed, so a failure still reports what
// came before it. A null vector gives Usage.
ParseResult parseTransferOptions(int argc, char** argv, Options& out);

// Print mode: walks argv[1..] once; file arguments are expanded into out.printFiles.
ParseResult parsePrintOptions(int argc, char** argv, Options& out);

// Expands one file argument (cut to 255 characters in place) by the wildcard rules and appends
// the matches, each as its directory prefix plus the matching name. No match: the level-0
// "file not found" line.
void collectPrintArgument(char* arg, std::vector<std::string>& files);

// "varoft    Version 12.5.3.9413, GitHash <rev>" on standard output.
void printVersion();

// The process's base name for the banner: the text after the last separator.
std::string programBaseName(const char* path);
