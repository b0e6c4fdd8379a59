// The two command-line grammars: transfer mode and print mode.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

// Transfer mode. Fills RunMode, LocalPath and RemotePath (process-wide) and the two results;
// false means "show the usage". A null vector or result gives false. Verbosity is written as it
// is parsed, so a failure still reports what came before it.
bool parseTransferOptions(int argc, char** argv, std::optional<std::string>* display, std::int32_t* verbosity);

// Print mode: walks argv[1..] once; file arguments are expanded into `files`. False on a
// command-line error.
bool parsePrintOptions(int argc, char** argv, std::optional<std::string>* display, std::int32_t* verbosity,
                       std::vector<std::string>* files);

// Expands one file argument (cut to 255 characters in place) by the wildcard rules and appends
// the matches, each as its directory prefix plus the matching name. No match: the level-0
// "file not found" line.
void collectPrintArgument(char* arg, std::vector<std::string>& files);

// "varoft    Version 12.5.3.9413, GitHash <rev>" on standard output.
void printVersion();

// The process's base name for the banner: the text after the last separator.
std::string programBaseName(const char* path);
