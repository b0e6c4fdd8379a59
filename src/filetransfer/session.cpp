#include "filetransfer/session.h"

#include <cstdio>
#include <string>

#include "archive/dir_pack_stream.h"
#include "archive/dir_unpack_stream.h"
#include "archive/stream.h"
#include "archive/file_stream.h"
#include "common/log.h"
#include "common/terminal_hints.h"
#include "filetransfer/dispatch.h"
#include "filetransfer/environment.h"
#include "filetransfer/protocol.h"
#include "filetransfer/staging.h"
#include "platform/platform.h"

// ---- the session object ----------------------------------------------------------------------

StreamObject::~StreamObject() {
    if (stream_) mz_stream_delete(&stream_);
}

bool StreamObject::ensure(void* (*create)()) {
    if (!stream_) stream_ = create();
    return stream_ != nullptr;
}

Session::Session(Options opts, Wire& w) : options(std::move(opts)), wire(w), staging(std::make_unique<Staging>()) {}
Session::~Session() = default;

namespace {

// The entry a directory stream is packing or unpacking, beside the progress figures (the
// transfer's own byte count drives those).
void showEntry(void* display, const char* entryName, std::int64_t, std::int64_t, std::int32_t) {
    static_cast<terminal::Display*>(display)->setEntry(entryName ? entryName : "");
}

}  // namespace

bool Session::ensureFileStream() { return fileStream.ensure(mz_stream_os_create); }
// The pack stream deflates every file (no method callback).
bool Session::ensurePackStream() {
    if (!packStream.ensure(createDirPackStream)) return false;
    setDirPackStreamCallbacks(packStream.get(), nullptr, showEntry, &display);
    return true;
}
bool Session::ensureUnpackStream() {
    if (!unpackStream.ensure(createDirUnpackStream)) return false;
    setDirUnpackStreamProgress(unpackStream.get(), showEntry, &display);
    return true;
}

void Session::closeCurrentStream() {
    if (current) {
        const auto* table = static_cast<mz_stream*>(current)->vtbl;
        if (table && table->close && table->is_open && mz_stream_is_open(current) == MZ_OK) mz_stream_close(current);
    }
    current = nullptr;
}

// ---- preparing a command-line run ------------------------------------------------------------

namespace {

Outcome failLocal(const char* format, const std::string& path) {
    logPrint(1, format, path.c_str());
    return Outcome::endRun();
}

// The overwrite question: only a lower-case 'n' refuses; anything else, end of input included,
// accepts and remembers the path as the one the user agreed to replace.
Outcome askOverwrite(Session& s, const char* question) {
    logPrint(1, question, s.options.localPath.c_str());
    const int answer = std::getchar();
    if (answer == 'n') {
        logPrint(1, "File Transfer abort.\n");
        return Outcome::endRun();
    }
    s.setKeepPath(s.options.localPath);
    return Outcome::goOn();
}

// -put and -open: the local file opened for reading, its size taken.
Outcome openLocalSource(Session& s) {
    const std::string& path = s.options.localPath;
    if (!s.ensureFileStream() || mz_stream_open(s.fileStream.get(), path.c_str(), MZ_OPEN_MODE_READ) != MZ_OK)
        return failLocal("Unable to open local file: %s.\n", path);
    void* stream = s.fileStream.get();
    if (mz_stream_seek(stream, 0, MZ_SEEK_END) != MZ_OK) return failLocal("Unable to open local file: %s.\n", path);
    const std::int64_t size = mz_stream_tell(stream);
    if (size < 0 || mz_stream_seek(stream, 0, MZ_SEEK_SET) != MZ_OK)
        return failLocal("Unable to open local file: %s.\n", path);
    s.localFileSize = static_cast<std::uint64_t>(size);
    s.current = stream;
    return Outcome::goOn();
}

// The last component of a path, after the later of its last backslash and last slash.
std::string lastComponent(const std::string& path) {
    const std::size_t cut = path.find_last_of("\\/");
    return cut == std::string::npos ? path : path.substr(cut + 1);
}

Outcome announce(Session& s, std::uint8_t direction, std::uint8_t objectType, std::uint8_t openFlag,
                 std::uint64_t size) {
    s.display.start(size);
    s.wire.sendReply(TransferHeader{direction, objectType, openFlag, kReplyCommandLineStart, size,
                                    s.options.remotePath, s.options.localPath});
    return Outcome::goOn();
}

// The file is received into a temporary beside the target, which it replaces only once it
// arrived whole. A device or FIFO the user names is written directly: it holds nothing to lose.
Outcome prepareGet(Session& s) {
    const std::string& path = s.options.localPath;
    {
        platform::File existing;
        if (existing.open(path, platform::OpenMode::Read)) {
            existing.close();
            if (const Outcome o = askOverwrite(s, "Local File %s exists, overwrite it [y/n]?"); o.end) return o;
        }
    }
    std::string resolved;
    platform::Status st;
    if (platform::resolveFinalLinks(path, resolved) && platform::status(resolved, st) &&
        st.kind == platform::Kind::Other) {
        if (!s.ensureFileStream() ||
            mz_stream_open(s.fileStream.get(), path.c_str(), MZ_OPEN_MODE_WRITE | MZ_OPEN_MODE_CREATE) != MZ_OK)
            return failLocal("Unable to open local file for writting: %s.\n", path);
        s.current = s.fileStream.get();
    } else {
        void* stream = nullptr;
        int error = 0;
        if (!s.staging->stageFile(path, stream, error))
            return failLocal("Unable to open local file for writting: %s.\n", path);
        s.current = stream;
    }
    return announce(s, kDirectionFromDesktop, kObjectFile, 0, 0);
}

Outcome preparePut(Session& s) {
    if (const Outcome o = openLocalSource(s); o.end) return o;
    return announce(s, kDirectionToDesktop, kObjectFile, 0, s.localFileSize);
}

Outcome prepareOpen(Session& s) {
    if (const Outcome o = openLocalSource(s); o.end) return o;
    s.options.remotePath = lastComponent(s.options.localPath);
    return announce(s, kDirectionToDesktop, kObjectOpenFile, 1, s.localFileSize);
}

Outcome prepareGetDirectory(Session& s) {
    const std::string& path = s.options.localPath;
    const std::size_t cut = path.find_last_of("\\/");
    if (cut == std::string::npos) {
        failLocal("Wrong local path: %s \n", path);
        s.display.show(terminal::bareDirectoryTargetHint(path));
        return Outcome::endRun();
    }
    // A directory straight under the root has the root as its parent.
    const std::string parent = cut == 0 ? path.substr(0, 1) : path.substr(0, cut);
    if (!platform::exists(parent)) return failLocal("Wrong local path: %s \n", parent);

    if (platform::isDirectory(path)) {
        if (const Outcome o = askOverwrite(s, "Local Directory %s exists, overwrite it [y/n]?"); o.end) return o;
    }
    // The tree is unpacked into a temporary directory beside the target; it replaces the target
    // (an existing tree included) only once it arrived whole.
    std::string temporary;
    int error = 0;
    const bool staged = s.staging->stageDirectory(path, temporary, error);
    if (!staged) {
        logPrint(1, "Unable to create directory %s: %s (%d)\n", path.c_str(), platform::errorText(error).c_str(),
                 error);
    }
    const bool made = s.ensureUnpackStream();
    if (!staged || !made ||
        mz_stream_open(s.unpackStream.get(), temporary.c_str(), MZ_OPEN_MODE_WRITE | MZ_OPEN_MODE_CREATE) != MZ_OK) {
        if (staged) error = made ? platform::lastError() : platform::outOfMemoryErrorCode();
        mz_stream_close(s.unpackStream.get());
        s.staging->discard();
        s.wire.sendStatus(path, kStatusTransferTarget, true, error);
        return Outcome::endRun();
    }
    s.current = s.unpackStream.get();
    return announce(s, kDirectionFromDesktop, kObjectDirectory, 0, 0);
}

Outcome preparePutDirectory(Session& s) {
    const std::string& path = s.options.localPath;
    platform::Status st;
    if (!platform::status(path, st)) return failLocal("Unable to open local directory: %s.\n", path);
    if (st.kind != platform::Kind::Directory) return failLocal("%s is not a directory: \n", path);
    if (!s.ensurePackStream() || mz_stream_open(s.packStream.get(), path.c_str(), MZ_OPEN_MODE_READ) != MZ_OK)
        return failLocal("Unable to open local directory: %s.\n", path);
    s.current = s.packStream.get();
    return announce(s, kDirectionToDesktop, kObjectDirectory, 0, 0);
}

// What was moving when the connection went, for the hint. A command-line run knows its names
// before any event has brought them.
terminal::LostTransfer lostTransfer(Session& s) {
    terminal::LostTransfer lost;
    if (!s.current || !s.display.running()) return lost;
    const TransferHeader& h = s.transfer.header;
    const bool receiving = s.commandLineRun() ? s.options.runMode == RunMode::Get || s.options.runMode == RunMode::GetDir
                                              : h.direction == kDirectionFromDesktop;
    lost.direction = receiving ? terminal::Direction::Receiving : terminal::Direction::Sending;
    if (s.commandLineRun()) {
        lost.name = receiving ? s.options.remotePath : s.options.localPath;
    } else {
        lost.name = receiving && !h.nameA.empty() ? h.nameA : h.nameB;
    }
    if (s.staging->active()) lost.target = s.staging->target();
    else lost.target = s.commandLineRun() ? s.options.localPath : h.nameB;
    lost.done = s.display.done();
    lost.total = s.display.total();
    s.display.drop();
    return lost;
}

}  // namespace

Outcome startRun(Session& s) {
    logPrint(2, "Sending request to Proxy/Desktop to start file transfer process.\n");
    const RunMode mode = s.options.runMode;
    if (mode == RunMode::GetDir || mode == RunMode::PutDir) s.userHomeDir = commandLineHomeDirectory();
    switch (mode) {
        case RunMode::None: reportEnvironment(s); return Outcome::goOn();
        case RunMode::Get: return prepareGet(s);
        case RunMode::Put: return preparePut(s);
        case RunMode::Open: return prepareOpen(s);
        case RunMode::GetDir: return prepareGetDirectory(s);
        case RunMode::PutDir: return preparePutDirectory(s);
    }
    logPrint(1, "Unsupported File Transfer mode\n");
    return Outcome::endRun();
}

int finishRun(Session& s, Outcome outcome) {
    endUnpackWrites(s);
    if (outcome.end) {
        // What is still queued goes out; a receive that did not complete leaves its target as it was.
        s.wire.flush();
        platform::removeTemporaries();
        return outcome.status;
    }
    // The connection went. A receive in progress leaves its target as it was; on a terminal
    // (and only there) one line says what was under way.
    if (s.display.enabled()) s.display.show(terminal::lostConnectionHint(lostTransfer(s)));
    s.staging->discard();
    platform::removeTemporaries();
    return 0;
}
