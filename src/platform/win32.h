// What only the Windows build asks of the system, beside the common interface of platform.h:
// a UTF-8 argument vector, binary standard streams, and the drives, volume names and
// hidden-drive policy of the environment report. Implemented in win32.cpp; this header
// includes no system header, so it may be included anywhere a _WIN32 block needs it.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace platform {

// The program's arguments as UTF-8, taken from the UTF-16 command line
// (CommandLineToArgvW(GetCommandLineW())), program name first. When the system will not split
// the command line, argv as the runtime passed it (in the ANSI code page).
std::vector<std::string> utf8Arguments(int argc, char** argv);

// Whether the entry itself (a link is not followed) carries the hidden attribute; false when it
// cannot be examined.
bool hasHiddenAttribute(const std::string& path);

// Puts standard input, output and error in binary mode, so that "\n" is written as one byte
// and standard input is read as it comes (a print job from a pipe keeps its bytes).
void useBinaryStandardStreams();

// ---- drives of the environment report -------------------------------------------------------

// The drive roots ("C:\\", "D:\\", ...) in the order GetLogicalDriveStringsA returns them
// (buffer of 511 characters). False, with lastError(), when it returns 0.
bool logicalDriveRoots(std::vector<std::string>& roots);
// The DWORD "NODRIVES" under the current user's
// "Software\Microsoft\Windows\CurrentVersion\Policies\Explorer"; 0 when the key or the value
// is missing or of another type. Bit i hides drive 'A' + i.
std::uint32_t hiddenDriveMask();
// The volume label of a drive root (GetVolumeInformationA, 260-byte name buffer). False, with
// lastError(), when the volume does not answer.
bool volumeLabel(const std::string& root, std::string& label);
// The error of a drive that is not ready (an empty card reader): 21.
int deviceNotReadyErrorCode();

// What happened to one drive while the report was built, for the caller's log lines.
struct DriveNote {
    enum class Outcome : std::uint8_t { Listed, Hidden, NotReady, Failed };
    Outcome outcome = Outcome::Listed;
    // Listed: the entry ("System (C:)"); Hidden: the letter and colon ("C:"); NotReady and
    // Failed: the whole root ("E:\\").
    std::string text;
    int error = 0;      // the system error of NotReady and Failed
};

// Asks for a root's volume label; volumeLabel unless a test stands in for it.
using VolumeLookup = std::function<bool(const std::string& root, std::string& label)>;

// Builds block C of the environment message from the roots: for each root whose volume
// answers and whose drive bit is clear in hiddenMask, the entry "%s (%s)" (label, letter and
// colon) followed by its terminator. An entry that would not fit whole within 4,096 bytes is
// left out. `notes` receives one note per root, in order.
std::vector<std::uint8_t> buildDriveList(const std::vector<std::string>& roots, std::uint32_t hiddenMask,
                                         const VolumeLookup& lookup, std::vector<DriveNote>& notes);

}  // namespace platform
