#include "filetransfer/staging.h"

#include <span>

#include "archive/mz_stream.h"
#include "platform/platform.h"

namespace {

enum class StageKind { None, File, Directory };

struct Stage {
    StageKind kind = StageKind::None;
    std::string target;     // links resolved
    std::string temporary;  // beside the target
    int slot = -1;          // its entry in the platform's registry of temporaries
    bool broken = false;
    std::string alsoReplaces;
};

Stage Current;
platform::TemporaryFile StagedFile;

// ---- the stream a staged file is written through ---------------------------------------------

std::int32_t stagedOpen(void*, const char*, std::int32_t) { return MZ_OPEN_ERROR; }
std::int32_t stagedIsOpen(void*) { return StagedFile.isOpen() ? MZ_OK : MZ_OPEN_ERROR; }

std::int32_t stagedWrite(void*, const void* buf, std::int32_t size) {
    if (size < 0) return MZ_PARAM_ERROR;
    const std::int64_t n = StagedFile.write(
        std::span<const std::uint8_t>(static_cast<const std::uint8_t*>(buf), static_cast<std::size_t>(size)));
    return n < 0 ? MZ_WRITE_ERROR : static_cast<std::int32_t>(n);
}

// The file gets the mode of a newly created one before it is closed; a close that reports a
// delayed write failure means it did not arrive whole.
std::int32_t stagedClose(void*) {
    if (!StagedFile.isOpen()) return MZ_OK;
    bool ok = StagedFile.setNewFileMode();
    int error = ok ? 0 : platform::lastError();
    if (!StagedFile.close() && ok) {
        ok = false;
        error = platform::lastError();
    }
    if (!ok) {
        Current.broken = true;
        platform::setLastError(error);
        return MZ_CLOSE_ERROR;
    }
    return MZ_OK;
}

const mz_stream_vtbl StagedFileTable = {stagedOpen, stagedIsOpen, nullptr, stagedWrite, nullptr, nullptr,
                                        stagedClose, nullptr, nullptr, nullptr, nullptr, nullptr};
mz_stream StagedFileStream = {&StagedFileTable, nullptr};

// The target as it will be replaced: links followed to the file they name.
bool resolveTarget(const std::string& target, std::string& resolved, int& error) {
    if (target.empty()) {
        error = platform::missingErrorCode();
        return false;
    }
    if (!platform::resolveFinalLinks(target, resolved)) {
        error = platform::lastError();
        return false;
    }
    return true;
}

// Registers the new temporary; called with the ending signals held back, so a signal never
// finds a temporary that is not registered.
bool remember(StageKind kind, const std::string& target, const std::string& temporary, int& error) {
    const int slot = platform::registerTemporary(temporary, kind == StageKind::Directory);
    if (slot < 0) {
        error = platform::nameTooLongErrorCode();
        return false;
    }
    Current = Stage{kind, target, temporary, slot, false, {}};
    return true;
}

void forget() {
    platform::forgetTemporary(Current.slot);
    Current = Stage{};
}

}  // namespace

bool stageFile(const std::string& target, void*& stream, int& error) {
    discardStage();
    std::string resolved;
    if (!resolveTarget(target, resolved, error)) return false;
    platform::Status st;
    if (platform::status(resolved, st)) {
        // What cannot be opened for writing today cannot be replaced either.
        if (st.kind == platform::Kind::Directory) {
            error = platform::isDirectoryErrorCode();
            return false;
        }
        if (!platform::isWritable(resolved)) {
            error = platform::lastError();
            return false;
        }
    }
    platform::TerminationBlock block;
    if (!StagedFile.create(platform::directoryOf(resolved))) {
        error = platform::lastError();
        return false;
    }
    if (!remember(StageKind::File, resolved, StagedFile.path(), error)) {
        platform::removeFile(StagedFile.path());
        StagedFile.close();
        return false;
    }
    stream = &StagedFileStream;
    return true;
}

bool stageDirectory(const std::string& target, std::string& temporary, int& error) {
    discardStage();
    std::string resolved;
    if (!resolveTarget(target, resolved, error)) return false;
    platform::Status st;
    if (platform::status(resolved, st) && st.kind != platform::Kind::Directory) {
        error = platform::existsErrorCode();  // what creating the directory would have said
        return false;
    }
    platform::TerminationBlock block;
    if (!platform::createTemporaryDirectory(platform::directoryOf(resolved), temporary)) {
        error = platform::lastError();
        return false;
    }
    if (!remember(StageKind::Directory, resolved, temporary, error)) {
        platform::removeDirectory(temporary);
        return false;
    }
    return true;
}

void stageAlsoReplaces(const std::string& tree) { Current.alsoReplaces = tree; }

bool stageActive() { return Current.kind != StageKind::None; }
bool isStagedFileStream(const void* stream) { return stream == &StagedFileStream; }
void markStageBroken() { Current.broken = true; }
bool stageBroken() { return Current.broken; }
const std::string& stagedTarget() { return Current.target; }

namespace {

// A directory moves into place in one step where the system can swap two paths; otherwise
// the old tree is renamed aside first (and back again if the new one cannot follow).
bool replaceDirectory(const std::string& temporary, const std::string& target, std::string& old, int& error) {
    platform::Status st;
    if (!platform::linkStatus(target, st)) {
        if (platform::replacePath(temporary, target)) {
            platform::forgetTemporary(Current.slot);
            return true;
        }
        error = platform::lastError();
        return false;
    }
    if (platform::exchangePaths(temporary, target)) {
        old = temporary;  // the old tree now has the temporary's name, still registered
        return true;
    }
    old = platform::unusedTemporaryName(platform::directoryOf(target));
    if (!platform::replacePath(target, old)) {
        error = platform::lastError();
        old.clear();
        return false;
    }
    const int slot = platform::registerTemporary(old, true);
    if (!platform::replacePath(temporary, target)) {
        error = platform::lastError();
        platform::replacePath(old, target);
        platform::forgetTemporary(slot);
        old.clear();
        return false;
    }
    platform::forgetTemporary(Current.slot);
    return true;
}

}  // namespace

bool commitStage(int& error) {
    if (Current.kind == StageKind::None) return true;
    if (Current.broken) {
        discardStage();
        return false;
    }
    bool moved = false;
    std::string old;
    {
        platform::TerminationBlock block;
        if (Current.kind == StageKind::File) {
            moved = platform::replacePath(Current.temporary, Current.target);
            if (moved) platform::forgetTemporary(Current.slot);
            else error = platform::lastError();
        } else {
            platform::setNewDirectoryMode(Current.temporary);
            moved = replaceDirectory(Current.temporary, Current.target, old, error);
        }
    }
    if (!moved) {
        discardStage();
        return false;
    }
    // The replaced tree goes only now that its replacement is in place.
    if (!old.empty()) platform::removeDirectoryTree(old);
    if (!Current.alsoReplaces.empty() && Current.alsoReplaces != Current.target)
        platform::removeDirectoryTree(Current.alsoReplaces);
    platform::removeTemporaries();  // whatever the removal left registered
    forget();
    return true;
}

void discardStage() {
    if (Current.kind == StageKind::None) return;
    StagedFile.close();
    platform::removeTemporaries();
    Current = Stage{};
}
