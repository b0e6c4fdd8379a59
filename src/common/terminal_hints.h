// One-line hints for endings that are otherwise silent or cryptic, and the lines that tell a
// terminal user what the desktop did on this machine in a session it drives. Each returns the
// whole line with its newline. They are shown beside the documented output only when standard
// error is a terminal (and not under -q); never into the log file or a pipe. Every name in them
// is made printable first (terminal::printable), as some come from the far side.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace terminal {

// DISPLAY is not set and no -display was given.
std::string displayUnsetHint();

enum class Extension : std::uint8_t { FileTransfer, Print };
// The display answered but has no such extension: most likely not the proxy's display.
// `display` as the user named it (empty when it came from nowhere).
std::string missingExtensionHint(std::string_view display, Extension extension);

// A -getd target without a directory part ("newdir"), which is refused: suggests "./newdir".
std::string bareDirectoryTargetHint(std::string_view target);

// What was moving when the connection was lost.
enum class Direction : std::uint8_t {
    Receiving,  // -get, -getd, a store the desktop starts: the local target is left as it was
    Sending,    // -put, -putd, a fetch the desktop starts: the desktop may hold part of it
    Printing,   // -print, -open
};
struct LostTransfer {
    Direction direction = Direction::Receiving;
    std::string_view name;    // what was moving (the remote name when receiving); empty: nothing
    std::string_view target;  // the local target when receiving
    std::uint64_t done = 0;
    std::uint64_t total = 0;  // 0: not known
};
std::string lostConnectionHint(const LostTransfer& transfer);

// What the desktop did on this machine in a session it drives.
enum class SessionAction : std::uint8_t { Listed, Fetched, Stored, Deleted, Renamed };
// "desktop stored /home/u/a.txt (12 B in 0.0 s)": `newPath` only for Renamed; `outcome`, when
// given, follows in parentheses (a summary, "failed: ...", "aborted").
std::string sessionActionLine(SessionAction action, std::string_view path, std::string_view newPath = {},
                              std::string_view outcome = {});

}  // namespace terminal
