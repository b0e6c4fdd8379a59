#include "filetransfer/environment.h"

#include <initializer_list>
#include <string>
#include <string_view>

#include "common/log.h"
#include "filetransfer/framing.h"
#include "filetransfer/session.h"
#include "filetransfer/protocol.h"
#include "platform/platform.h"
#ifdef _WIN32
#include "platform/win32.h"
#endif

namespace {

#ifdef _WIN32
const char* profileDirectory() { return platform::environment("USERPROFILE"); }
const char* userNameVariable() { return platform::environment("USERNAME"); }
// The home directory when neither USERPROFILE nor SystemDrive is set.
constexpr const char* kNoHome = "";

// The drive list of the session start from the system's drive roots, the hidden-drive policy
// and the volume labels, with a log line for each drive.
std::vector<std::uint8_t> reportDrives() {
    std::vector<std::string> roots;
    if (!platform::logicalDriveRoots(roots)) {
        logPrint(1, "GetLogicalDriveStringsA() failed, err = %d\n", platform::lastError());
        return {};
    }
    const std::uint32_t hiddenDrives = platform::hiddenDriveMask();
    logPrint(2, "Hidden drives value = %d\n", static_cast<int>(hiddenDrives));
    std::vector<platform::DriveNote> notes;
    std::vector<std::uint8_t> drives = platform::buildDriveList(roots, hiddenDrives, platform::volumeLabel, notes);
    using Outcome = platform::DriveNote::Outcome;
    for (const platform::DriveNote& note : notes) {
        const char* text = note.text.c_str();
        switch (note.outcome) {
            case Outcome::Listed: logPrint(2, "Drive = %s\n", text); break;
            case Outcome::Hidden: logPrint(2, "Drive = %s is hidden.\n", text); break;
            case Outcome::NotReady: logPrint(1, "Drive = %s, The device is not ready.\n", text); break;
            case Outcome::Failed:
                logPrint(1, "GetVolumeInformationA() failed, Drive = %s, err = %d\n", text, note.error);
                break;
        }
    }
    return drives;
}
#else
const char* firstSet(std::initializer_list<const char*> names) {
    for (const char* name : names)
        if (const char* value = platform::environment(name)) return value;
    return nullptr;
}

const char* profileDirectory() { return firstSet({"USERPROFILE", "HOME"}); }
const char* userNameVariable() { return firstSet({"USERNAME", "USER", "LOGNAME"}); }
constexpr const char* kNoHome = "/";

// The single root of the POSIX file system stands in for the drive letters.
constexpr const char* kRootDrive = "Root (/)";

std::vector<std::uint8_t> reportDrives() {
    // No hidden-drive policy exists here: the mask is always 0.
    logPrint(2, "Hidden drives value = %d\n", 0);
    logPrint(2, "Drive = %s\n", kRootDrive);
    return driveList();
}
#endif

}  // namespace

#ifndef _WIN32
std::vector<std::uint8_t> driveList() {
    // Each entry is followed by its terminator, which is part of the list.
    const std::string_view entry(kRootDrive, std::char_traits<char>::length(kRootDrive) + 1);
    return std::vector<std::uint8_t>(entry.begin(), entry.end());
}
#endif

std::string commandLineHomeDirectory() {
    const char* home = profileDirectory();
    return home ? std::string(home) : std::string();
}

void reportEnvironment(Session& session) {
    if (const char* profile = profileDirectory()) {
        logPrint(2, "UserProfile = %s\n", profile);
        session.userHomeDir = std::string(profile) + platform::kSeparator + "Documents";
    } else {
        logPrint(1, "getenv(USERPROFILE) returned NULL\n");
        const char* drive = platform::environment("SystemDrive");
        session.userHomeDir = drive ? drive : kNoHome;
    }

    const char* user = userNameVariable();
    session.userName = user ? user : "";

    const std::vector<std::uint8_t> drives = reportDrives();

    logPrint(2, "UserHomeDir = %s\n", session.userHomeDir.c_str());
    if (!session.userName.empty()) logPrint(2, "USERNAME = %s\n", session.userName.c_str());

    std::string host;
    if (platform::hostName(host)) logPrint(2, "HOSTNAME = %s\n", host.c_str());

    session.wire.sendReply(TransferHeader{kDirectionToDesktop, kObjectFile, 0, kReplySessionStart, 0, host,
                                          session.userName},
                           drives);
}
