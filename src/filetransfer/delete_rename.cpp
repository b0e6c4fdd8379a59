#include "filetransfer/delete_rename.h"

#include <string>

#include "common/log.h"
#include "common/bytes.h"
#include "common/terminal_hints.h"
#include "filetransfer/dispatch.h"
#include "filetransfer/framing.h"
#include "filetransfer/protocol.h"
#include "platform/platform.h"

namespace {

// A name is kept the way a C string would hold it: up to its first NUL byte.
std::string_view cString(std::string_view text) { return text.substr(0, text.find('\0')); }

// Removes what the path names without following a final symbolic link: the last component is
// looked up and removed in its parent directory, held open, so a name swapped for a link
// between the two is never followed. Trailing separators are dropped ("link/" would make the
// system look through the link).
bool removePath(const std::string& path) {
    // Never the whole file system, by any spelling of its root ("/", "/.", "/tmp/..").
    if (platform::isFileSystemRoot(path)) {
        platform::setLastError(platform::deniedErrorCode());
        return false;
    }
    std::string parentPath, name;
    platform::splitLastComponent(path, parentPath, name);
    platform::DirectoryHandle parent;
    if (!parent.open(parentPath)) return false;
    platform::Status st;
    if (parent.linkStatusAt(name, st) && st.kind == platform::Kind::Directory) return parent.removeTreeAt(name) != 0;
    return parent.unlinkAt(name);
}

// In a session the desktop drives, one line on the terminal for each delete or rename.
void showAction(Session& s, terminal::SessionAction action, const std::string& path, const std::string& newPath,
                bool failed, int error) {
    if (s.commandLineRun() || !s.display.enabled()) return;
    const std::string outcome = failed ? "failed: " + platform::errorText(error) : std::string();
    s.display.show(terminal::sessionActionLine(action, path, newPath, outcome));
}

}  // namespace

bool decodeDeleteRequest(std::span<const std::uint8_t> event, DeleteRequest& out) {
    bytes::Reader r(event, kGenericEventPayloadOffset);
    r.skip(2);
    out.length = r.u16();
    const std::string_view path = r.text(out.length);
    if (!r.ok()) return false;
    out.path = cString(path);
    return true;
}

bool decodeRenameRequest(std::span<const std::uint8_t> event, RenameRequest& out) {
    bytes::Reader r(event, kGenericEventPayloadOffset);
    out.oldLength = r.u16();
    out.newLength = r.u16();
    const std::string_view oldName = r.text(out.oldLength);
    const std::string_view newName = r.text(out.newLength);
    if (!r.ok()) return false;
    out.oldName = cString(oldName);
    out.newName = cString(newName);
    return true;
}

Outcome handleDeleteRequest(Session& session, std::span<const std::uint8_t> event) {
    logPrint(2, "Reading delete file request.\n");
    DeleteRequest request;
    if (!decodeDeleteRequest(event, request)) {
        logDroppedEvent(kDeleteFileRequest);
        return Outcome::goOn();
    }
    const std::string path(request.path);
    if (path.empty()) {
        // Nothing named: a failure, without asking the file system about an empty path.
        session.wire.sendStatus({}, kStatusDelete, true, platform::missingErrorCode());
        return Outcome::goOn();
    }
    const bool removed = removePath(path);
    const int error = removed ? 0 : platform::lastError();
    session.wire.sendStatus(path, kStatusDelete, !removed, error);
    showAction(session, terminal::SessionAction::Deleted, path, {}, !removed, error);
    return Outcome::goOn();
}

Outcome handleRenameRequest(Session& session, std::span<const std::uint8_t> event) {
    logPrint(2, "Reading rename file request.\n");
    RenameRequest request;
    if (!decodeRenameRequest(event, request)) {
        logDroppedEvent(kRenameFileRequest);
        return Outcome::goOn();
    }
    // A request without both names is left unanswered.
    if (request.oldLength == 0 || request.newLength == 0) return Outcome::goOn();
    const std::string oldName(request.oldName);
    const std::string newName(request.newName);
    // A rename acts on the names themselves: a final symbolic link is moved, never followed.
    const bool moved = platform::renameNoReplace(oldName, newName);
    const int error = moved ? 0 : platform::lastError();
    session.wire.sendStatus(oldName, kStatusRename, !moved, error);
    showAction(session, terminal::SessionAction::Renamed, oldName, newName, !moved, error);
    return Outcome::goOn();
}
