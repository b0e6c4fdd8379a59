// A received file or directory on its way in: it is written beside its target under a hidden
// temporary name and moved into place only once it arrived whole, so an abort, a refusal, a
// lost connection, a failed write or a signal leaves the target exactly as it was.
#pragma once

#include <string>

#include "archive/stream.h"
#include "platform/platform.h"

class Staging {
public:
    Staging();
    Staging(const Staging&) = delete;
    Staging& operator=(const Staging&) = delete;

    // Prepares a received file: the target's symbolic links are resolved, a temporary file is
    // created beside the file they name, and `stream` is set to a write-only stream into it.
    // False with the failing call's error in `error` (the target itself is never touched).
    bool stageFile(const std::string& target, void*& stream, int& error);
    // Prepares a received directory: a temporary directory beside the target (links resolved),
    // whose path `temporary` the unpack stream is opened on.
    bool stageDirectory(const std::string& target, std::string& temporary, int& error);
    // An existing directory that the staged one replaces besides its own target (removed only
    // after the new one is in place).
    void alsoReplaces(const std::string& tree) { current_.alsoReplaces = tree; }

    // Whether a file or directory is staged, and whether `stream` is the staged file's stream.
    bool active() const { return current_.kind != Kind::None; }
    bool isFileStream(const void* stream) const { return stream == &stream_; }
    // A write into the staged file or directory failed: it can no longer arrive whole.
    void markBroken() { current_.broken = true; }
    bool broken() const { return current_.broken; }
    // The path the staged file or directory will take (links resolved).
    const std::string& target() const { return current_.target; }

    // Moves what arrived into place, replacing what was there (a replaced tree is removed only
    // now). The staged file's stream must be closed first. False with the error when it could
    // not be moved; the temporaries are gone either way.
    bool commit(int& error);
    // Removes the temporaries; the target stays as it was.
    void discard();

private:
    enum class Kind { None, File, Directory };
    struct Stage {
        Kind kind = Kind::None;
        std::string target;     // links resolved
        std::string temporary;  // beside the target
        int slot = -1;          // its entry in the platform's registry of temporaries
        bool broken = false;
        std::string alsoReplaces;
    };
    // The stream a staged file is written through: the stream header, then its owner.
    struct FileStream {
        mz_stream base;
        Staging* owner;
    };

    static std::int32_t streamIsOpen(void* stream);
    static std::int32_t streamWrite(void* stream, const void* buf, std::int32_t size);
    static std::int32_t streamClose(void* stream);
    bool remember(Kind kind, const std::string& target, const std::string& temporary, int& error);
    bool replaceDirectory(const std::string& temporary, const std::string& target, std::string& old, int& error);

    Stage current_;
    platform::TemporaryFile file_;
    FileStream stream_;
};
