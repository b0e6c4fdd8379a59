// Process-wide state that the command line fills and the rest of the program reads.
// One run, one thread: these are written before any work starts.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

// The threshold of logPrint: messages above it are dropped. 0 until the driver sets it.
extern std::int32_t Verbosity;
// Where -l sends a copy of every shown message; empty means no log file.
extern std::string LogFilePath;

enum RunModes : std::int32_t {
    RunModeNone = 0,     // the far side drives a session
    RunModeGet = 1,      // -get
    RunModePut = 2,      // -put
    RunModeGetDir = 3,   // -getd
    RunModePutDir = 4,   // -putd
    RunModeOpen = 5,     // -open
};
extern std::int32_t RunMode;
extern std::string LocalPath;
extern std::string RemotePath;

// Print mode: the files to send, in command-line order.
extern std::vector<std::string> PrintFileList;
// Cleared by the print request layer when the far side will take no more files.
extern std::uint32_t MoreFilesAccepted;
