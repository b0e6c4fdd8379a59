#include "filetransfer/environment.h"

#include <initializer_list>
#include <string>
#include <string_view>

#include "common/log.h"
#include "filetransfer/framing.h"
#include "filetransfer/session.h"
#include "filetransfer/protocol.h"
#include "platform/platform.h"

namespace {

// The single root of the POSIX file system stands in for the drive letters.
constexpr const char* kRootDrive = "Root (/)";

const char* firstSet(std::initializer_list<const char*> names) {
    for (const char* name : names)
        if (const char* value = platform::environment(name)) return value;
    return nullptr;
}

}  // namespace

std::vector<std::uint8_t> driveList() {
    // Each entry is followed by its terminator, which is part of the list.
    const std::string_view entry(kRootDrive, std::char_traits<char>::length(kRootDrive) + 1);
    return std::vector<std::uint8_t>(entry.begin(), entry.end());
}

std::string commandLineHomeDirectory() {
    const char* home = firstSet({"USERPROFILE", "HOME"});
    return home ? std::string(home) : std::string();
}

void reportEnvironment(Session& session) {
    if (const char* profile = firstSet({"USERPROFILE", "HOME"})) {
        logPrint(2, "UserProfile = %s\n", profile);
        session.userHomeDir = std::string(profile) + "/Documents";
    } else {
        logPrint(1, "getenv(USERPROFILE) returned NULL\n");
        const char* drive = platform::environment("SystemDrive");
        session.userHomeDir = drive ? drive : "/";
    }

    const char* user = firstSet({"USERNAME", "USER", "LOGNAME"});
    session.userName = user ? user : "";

    // No hidden-drive policy exists here: the mask is always 0.
    const std::uint32_t hiddenDrives = 0;
    logPrint(2, "Hidden drives value = %d\n", static_cast<int>(hiddenDrives));
    const std::vector<std::uint8_t> drives = driveList();
    logPrint(2, "Drive = %s\n", kRootDrive);

    logPrint(2, "UserHomeDir = %s\n", session.userHomeDir.c_str());
    if (!session.userName.empty()) logPrint(2, "USERNAME = %s\n", session.userName.c_str());

    std::string host;
    if (platform::hostName(host)) logPrint(2, "HOSTNAME = %s\n", host.c_str());

    session.wire.sendReply(TransferHeader{kDirectionToDesktop, kObjectFile, 0, kReplySessionStart, 0, host,
                                          session.userName},
                           drives);
}
