// What the far side learns about this machine at the start of a session it drives: host name,
// user name and the visible drives, and the default local directory offered to it.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

struct Session;

// Fills the session's home directory and user name and sends the session start (reply kind 9).
void reportEnvironment(Session& session);

#ifndef _WIN32
// The drive list of the session start: the one root, followed by its terminator.
std::vector<std::uint8_t> driveList();
#endif

// The home directory of the directory modes: USERPROFILE (on POSIX else HOME), with no suffix.
std::string commandLineHomeDirectory();
