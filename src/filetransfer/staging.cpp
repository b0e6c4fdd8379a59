#include "filetransfer/staging.h"

#include <span>

namespace {

std::int32_t stagedOpen(void*, const char*, std::int32_t) { return MZ_OPEN_ERROR; }

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

}  // namespace

// ---- the stream a staged file is written through ---------------------------------------------

std::int32_t Staging::streamIsOpen(void* stream) {
    return static_cast<FileStream*>(stream)->owner->file_.isOpen() ? MZ_OK : MZ_OPEN_ERROR;
}

std::int32_t Staging::streamWrite(void* stream, const void* buf, std::int32_t size) {
    if (size < 0) return MZ_PARAM_ERROR;
    const std::int64_t n = static_cast<FileStream*>(stream)->owner->file_.write(
        std::span<const std::uint8_t>(static_cast<const std::uint8_t*>(buf), static_cast<std::size_t>(size)));
    return n < 0 ? MZ_WRITE_ERROR : static_cast<std::int32_t>(n);
}

// The file gets the mode of a newly created one before it is closed; a close that reports a
// delayed write failure means it did not arrive whole.
std::int32_t Staging::streamClose(void* stream) {
    Staging& self = *static_cast<FileStream*>(stream)->owner;
    if (!self.file_.isOpen()) return MZ_OK;
    bool ok = self.file_.setNewFileMode();
    int error = ok ? 0 : platform::lastError();
    if (!self.file_.close() && ok) {
        ok = false;
        error = platform::lastError();
    }
    if (!ok) {
        self.current_.broken = true;
        platform::setLastError(error);
        return MZ_CLOSE_ERROR;
    }
    return MZ_OK;
}

Staging::Staging() : stream_{{nullptr, nullptr}, this} {
    static const mz_stream_vtbl table = {stagedOpen, streamIsOpen, nullptr, streamWrite, nullptr, nullptr,
                                         streamClose, nullptr, nullptr, nullptr, nullptr, nullptr};
    stream_.base.vtbl = &table;
}

// Registers the new temporary; called with the ending signals held back, so a signal never
// finds a temporary that is not registered.
bool Staging::remember(Kind kind, const std::string& target, const std::string& temporary, int& error) {
    const int slot = platform::registerTemporary(temporary, kind == Kind::Directory);
    if (slot < 0) {
        error = platform::nameTooLongErrorCode();
        return false;
    }
    current_ = Stage{kind, target, temporary, slot, false, {}};
    return true;
}

bool Staging::stageFile(const std::string& target, void*& stream, int& error) {
    discard();
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
    if (!file_.create(platform::directoryOf(resolved))) {
        error = platform::lastError();
        return false;
    }
    if (!remember(Kind::File, resolved, file_.path(), error)) {
        platform::removeFile(file_.path());
        file_.close();
        return false;
    }
    stream = &stream_;
    return true;
}

bool Staging::stageDirectory(const std::string& target, std::string& temporary, int& error) {
    discard();
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
    if (!remember(Kind::Directory, resolved, temporary, error)) {
        platform::removeDirectory(temporary);
        return false;
    }
    return true;
}

// A directory moves into place in one step where the system can swap two paths; otherwise
// the old tree is renamed aside first (and back again if the new one cannot follow).
bool Staging::replaceDirectory(const std::string& temporary, const std::string& target, std::string& old, int& error) {
    platform::Status st;
    if (!platform::linkStatus(target, st)) {
        if (platform::replacePath(temporary, target)) {
            platform::forgetTemporary(current_.slot);
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
    platform::forgetTemporary(current_.slot);
    return true;
}

bool Staging::commit(int& error) {
    if (current_.kind == Kind::None) return true;
    if (current_.broken) {
        discard();
        return false;
    }
    bool moved = false;
    std::string old;
    {
        platform::TerminationBlock block;
        if (current_.kind == Kind::File) {
            moved = platform::replacePath(current_.temporary, current_.target);
            if (moved) platform::forgetTemporary(current_.slot);
            else error = platform::lastError();
        } else {
            platform::setNewDirectoryMode(current_.temporary);
            moved = replaceDirectory(current_.temporary, current_.target, old, error);
        }
    }
    if (!moved) {
        discard();
        return false;
    }
    // The replaced tree goes only now that its replacement is in place.
    if (!old.empty()) platform::removeDirectoryTree(old);
    if (!current_.alsoReplaces.empty() && current_.alsoReplaces != current_.target)
        platform::removeDirectoryTree(current_.alsoReplaces);
    platform::removeTemporaries();  // whatever the removal left registered
    platform::forgetTemporary(current_.slot);
    current_ = Stage{};
    return true;
}

void Staging::discard() {
    if (current_.kind == Kind::None) return;
    file_.close();
    platform::removeTemporaries();
    current_ = Stage{};
}
