// What the command line asks for: the value the two parsers return and the driver hands on.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

enum class RunMode : std::int32_t {
    None = 0,    // the far side drives a session
    Get = 1,     // -get
    Put = 2,     // -put
    GetDir = 3,  // -getd
    PutDir = 4,  // -putd
    Open = 5,    // -open
};

struct Options {
    RunMode runMode = RunMode::None;
    std::string localPath;
    std::string remotePath;               // "?" when -put or -putd give none
    std::vector<std::string> printFiles;  // print mode, in command-line order
    std::optional<std::string> display;
    std::int32_t verbosity = 1;
    bool logFile = false;                 // -l
};
