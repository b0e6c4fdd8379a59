// Moving one file or one directory between this machine and the desktop, one chunk per event
// and reply; the far side drives every step with TransferRequest events.
#include <algorithm>
#include <climits>
#include <memory>
#include <new>
#include <string>

#include "archive/dir_unpack_stream.h"
#include "archive/file_stream.h"
#include "archive/stream.h"
#include "common/log.h"
#include "common/terminal_hints.h"
#include "filetransfer/dispatch.h"
#include "filetransfer/protocol.h"
#include "filetransfer/staging.h"
#include "platform/platform.h"

namespace {

bool isMoveObject(std::uint8_t objectType) {
    return objectType == kObjectMoveFile || objectType == kObjectMoveFileToo;
}

// The local path of the transfer: a received directory's without its ".zip" ending.
const std::string& localPath(const TransferState& t) {
    return t.header.objectType == kObjectDirectory && !t.directoryPath.empty() ? t.directoryPath : t.header.nameB;
}

// In a session the desktop drives, one line on the terminal for each transfer it makes, with
// its outcome.
void showTransfer(Session& s, std::string_view outcome) {
    if (s.commandLineRun() || !s.display.enabled()) return;
    const auto action = s.transfer.header.direction == kDirectionToDesktop ? terminal::SessionAction::Fetched
                                                                            : terminal::SessionAction::Stored;
    s.display.show(terminal::sessionActionLine(action, localPath(s.transfer), {}, outcome));
}

void showFailedTransfer(Session& s, int error) { showTransfer(s, "failed: " + platform::errorText(error)); }

// Answers with the transfer's header and the given kind. A command-line send that reached its
// end (finish) ends the run once the answer is out.
Outcome sendReply(Session& s, std::uint8_t kind, std::span<const std::uint8_t> data = {}) {
    s.transfer.header.kind = kind;
    s.wire.sendReply(s.transfer.header, data);
    if (!s.transfer.finish) return Outcome::goOn();
    s.wire.flush();
    s.display.finish();
    logPrint(1, "File Transfer completed.\n");
    return Outcome::endRun();
}

// ---- starting --------------------------------------------------------------------------------

Outcome startSending(Session& s) {
    TransferState& t = s.transfer;
    const bool directory = t.header.objectType == kObjectDirectory;
    const bool made = directory ? s.ensurePackStream() : s.ensureFileStream();
    void* stream = directory ? s.packStream.get() : s.fileStream.get();
    if (!made || mz_stream_open(stream, t.header.nameB.c_str(), MZ_OPEN_MODE_READ) != MZ_OK) {
        const int error = platform::lastError();
        s.wire.sendStatus(t.header.nameB, kStatusTransfer, true, error);
        showFailedTransfer(s, error);
        return Outcome::goOn();
    }
    s.current = stream;
    t.writeFailureLogged = false;
    t.writeError = 0;
    if (directory) {
        t.header.size = 0;
    } else {
        const auto* table = static_cast<mz_stream*>(stream)->vtbl;
        if (table->seek && mz_stream_is_open(stream) == MZ_OK) {
            mz_stream_seek(stream, 0, MZ_SEEK_END);
            const std::int64_t end = mz_stream_tell(stream);
            t.header.size = end > 0 ? static_cast<std::uint64_t>(end) : 0;
            mz_stream_seek(stream, 0, MZ_SEEK_SET);
        }
    }
    s.display.start(t.header.size);
    return sendReply(s, kReplyOpened);
}

// A received file is written beside its target and replaces it only once it arrived whole (a
// kind-2 replace therefore deletes nothing at its start).
Outcome startReceivingFile(Session& s) {
    TransferState& t = s.transfer;
    if (t.header.kind != kEventStartReplacing) {
        platform::File existing;
        if (existing.open(t.header.nameB, platform::OpenMode::Read)) {
            existing.close();
            return sendReply(s, kReplyTargetExists);
        }
    }
    if (s.staging->isFileStream(s.current)) s.current = nullptr;
    void* stream = nullptr;
    int error = 0;
    if (!s.staging->stageFile(t.header.nameB, stream, error)) {
        s.wire.sendStatus(t.header.nameB, kStatusTransferTarget, true, error);
        showFailedTransfer(s, error);
        return Outcome::goOn();
    }
    s.current = stream;
    t.writeFailureLogged = false;
    t.writeError = 0;
    s.display.start(t.header.size);
    return sendReply(s, kReplyOpened);
}

// A received directory is unpacked into a temporary directory beside its target; the tree it
// replaces (kind 2, or the one the user agreed to overwrite) goes only once it arrived whole.
Outcome startReceivingDirectory(Session& s) {
    TransferState& t = s.transfer;
    std::string replaced;
    if (t.header.kind != kEventStartReplacing) {
        if (t.header.nameB.find_first_of("\\/") == std::string::npos) return Outcome::goOn();
        std::string path = t.header.nameB.substr(0, kNameMax);
        const std::size_t zip = path.find(".zip");
        if (zip == std::string::npos) return Outcome::goOn();
        path.resize(zip);
        t.directoryPath = path;
        if (!s.keepPath.empty()) {
            // The tree the user agreed to overwrite is set aside for removal after arrival; one
            // that could not even be renamed could not be removed either.
            const std::string parent = platform::directoryOf(s.keepPath);
            if (!platform::isWritable(parent.empty() ? std::string(".") : parent)) {
                logPrint(1, "Cannot remove directory %s\nFile Transfer abort.\n", s.keepPath.c_str());
                return Outcome::endRun();
            }
            replaced = s.keepPath;
            s.keepPath.clear();
        }
        if (t.directoryPath != replaced && platform::isDirectory(t.directoryPath))
            return sendReply(s, kReplyTargetExists);
    }

    const bool made = s.ensureUnpackStream();
    void* unpack = s.unpackStream.get();
    std::string temporary;
    int error = 0;
    const bool staged = s.staging->stageDirectory(t.directoryPath, temporary, error);
    if (!staged) {
        logPrint(1, "Unable to create directory %s: %s (%d)\n", t.directoryPath.c_str(),
                 platform::errorText(error).c_str(), error);
    } else {
        s.staging->alsoReplaces(replaced);
    }
    if (staged && made && mz_stream_open(unpack, temporary.c_str(), MZ_OPEN_MODE_WRITE | MZ_OPEN_MODE_CREATE) == MZ_OK) {
        s.current = unpack;
        t.writeFailureLogged = false;
        t.writeError = 0;
        s.display.start(0);
        return sendReply(s, kReplyOpened);
    }
    if (staged) error = made ? platform::lastError() : platform::outOfMemoryErrorCode();
    mz_stream_close(unpack);
    if (s.current == unpack) s.current = nullptr;
    s.staging->discard();
    s.wire.sendStatus(t.directoryPath, kStatusTransferTarget, true, error);
    showFailedTransfer(s, error);
    return s.commandLineRun() ? Outcome::endRun() : Outcome::goOn();
}

// ---- ending the current stream ---------------------------------------------------------------

// The first failure of a received file is logged once (decision on failed writes).
void logWriteFailure(TransferState& t, const std::string& path, const std::string& reason) {
    if (t.writeFailureLogged) return;
    t.writeFailureLogged = true;
    logPrint(1, "Unable to write to local %s: %s\n", path.c_str(), reason.c_str());
}

// Closes the current stream. A received file or directory that arrived whole (every write
// succeeded; for a directory, the unpack stream's is_open and close succeeded) is moved into
// place; anything else is discarded. False when a receive did not arrive whole, with the error.
bool settleCurrentStream(Session& s, int& error) {
    Staging& stage = *s.staging;
    void* stream = s.current;
    if (!stream || (!stage.isFileStream(stream) && stream != s.unpackStream.get()) || !stage.active()) {
        s.closeCurrentStream();
        return true;
    }
    s.current = nullptr;
    platform::setLastError(0);
    const bool open = mz_stream_is_open(stream) == MZ_OK;
    const bool closed = mz_stream_close(stream) == MZ_OK;
    error = platform::lastError();
    if (stage.broken() && s.transfer.writeError != 0) error = s.transfer.writeError;  // the first failure's reason
    else if (error == 0) error = platform::damagedDataErrorCode();                    // a failure no call reported
    const std::string target = stage.target();
    if (!open || !closed || stage.broken()) {
        if (open && !closed && stage.isFileStream(stream)) logWriteFailure(s.transfer, target, platform::errorText(error));
        stage.discard();
        return false;
    }
    if (!stage.commit(error)) {
        logWriteFailure(s.transfer, target, platform::errorText(error));
        return false;
    }
    return true;
}

// Closes the current stream and drops whatever a receive left in its temporaries.
void discardCurrentStream(Session& s) {
    s.staging->discard();
    s.closeCurrentStream();
}

// ---- moving data -----------------------------------------------------------------------------

// The first failed write of a transfer is logged; the far side is still told the chunk was taken.
void noteWriteFailure(Session& s, int error, std::int32_t result) {
    TransferState& t = s.transfer;
    s.staging->markBroken();
    if (t.writeError == 0) t.writeError = error != 0 ? error : platform::damagedDataErrorCode();
    logWriteFailure(t, localPath(t), error != 0 ? platform::errorText(error) : "stream error " + std::to_string(result));
}

void writeChunk(Session& s, std::span<const std::uint8_t> data) {
    std::size_t done = 0;
    bool failed = false;
    int error = 0;
    std::int32_t result = 0;
    while (done < data.size() && !failed) {
        const std::size_t piece = std::min<std::size_t>(data.size() - done, INT32_MAX);
        platform::setLastError(0);
        result = mz_stream_write(s.current, data.data() + done, static_cast<std::int32_t>(piece));
        error = platform::lastError();
        // Bytes after the central directory are not a failure: the archive already ended.
        if (result != static_cast<std::int32_t>(piece) && result != MZ_END_OF_STREAM) failed = true;
        done += piece;
    }
    if (failed) noteWriteFailure(s, error, result);
    s.display.setTotal(s.transfer.header.size);  // a -get learns the size from the events
    s.display.add(data.size());
}

Outcome receiveChunk(Session& s, std::span<const std::uint8_t> data) {
    s.keepPath.clear();
    if (!s.current) return sendReply(s, kReplyNoTransfer);
    // The answer never depends on the write, so it goes out first: the far side sends the next
    // chunk while this one is written.
    const Outcome outcome = sendReply(s, kReplyChunkStored);
    s.wire.flush();
    if (!data.empty()) writeChunk(s, data);
    return outcome;
}

// The source is exhausted (or the transfer was ended another way): close it, answer kind 8.
Outcome endSending(Session& s) {
    int error = 0;
    settleCurrentStream(s, error);
    s.transfer.header.kind = kReplyEnd;
    if (isMoveObject(s.transfer.header.objectType)) platform::removeFile(s.transfer.header.nameB);
    if (s.commandLineRun()) s.transfer.finish = true;
    return sendReply(s, kReplyEnd);
}

Outcome sendChunk(Session& s) {
    s.keepPath.clear();
    if (!s.current) return sendReply(s, kReplyNoTransfer);
    // A plain file's bytes go out as they are read, through the wire's own way when it has one.
    if (platform::File* file = mz_stream_os_file(s.current)) {
        s.transfer.header.kind = kReplyChunk;
        const std::int64_t count = s.wire.sendReplyFromFile(s.transfer.header, *file, kChunkSize);
        if (count <= 0) return endSending(s);
        s.display.add(static_cast<std::uint64_t>(count));
        return Outcome::goOn();
    }
    if (!s.chunkBuffer) s.chunkBuffer.reset(new (std::nothrow) std::uint8_t[kChunkSize]);
    std::uint8_t* chunk = s.chunkBuffer.get();
    const std::int32_t count =
        chunk ? mz_stream_read(s.current, chunk, static_cast<std::int32_t>(kChunkSize)) : MZ_MEM_ERROR;
    if (count <= 0) return endSending(s);
    s.display.add(static_cast<std::uint64_t>(count));
    return sendReply(s, kReplyChunk, std::span<const std::uint8_t>(chunk, static_cast<std::size_t>(count)));
}

// ---- endings ---------------------------------------------------------------------------------

Outcome complete(Session& s) {
    TransferState& t = s.transfer;
    s.keepPath.clear();
    const bool unpacking = s.current && s.current == s.unpackStream.get();
    int error = 0;
    const bool whole = settleCurrentStream(s, error);
    if (s.display.running()) {
        const std::string summary = s.display.end();
        if (!s.commandLineRun()) {
            if (whole) showTransfer(s, summary);
            else showFailedTransfer(s, error);
        } else if (whole) {
            s.display.show(summary + "\n");
        }
    }
    if (t.header.objectType == kObjectDirectory) {
        // Only the unpack stream has an outcome to report; a directory sent from here, or no
        // transfer at all, reports success.
        const bool failed = unpacking && !whole;
        s.wire.sendStatus(t.directoryPath, kStatusTransferTarget, failed, failed ? error : 0);
        t.directoryPath.clear();
    }
    if (!s.commandLineRun()) return Outcome::goOn();
    logPrint(1, "File Transfer completed.\n");
    return Outcome::endRun();
}

// An abort removes what the far side's rules remove (the source of a move, the file the user
// agreed to replace when it is a move, an empty directory named like the archive); what arrived
// so far is only in the temporaries, which go, so the target stays as it was.
Outcome abortTransfer(Session& s) {
    const TransferHeader& h = s.transfer.header;
    if (s.current) {
        // The local side is cleaned up while the stream is still open; only then is it closed.
        if (h.direction == kDirectionFromDesktop) {
            if (s.keepPath == h.nameB) {
                if (isMoveObject(h.objectType)) platform::removeFile(h.nameB);
            } else if (h.objectType == kObjectDirectory) {
                platform::removeDirectory(h.nameB);
            }
            s.staging->discard();
        } else if (h.direction == kDirectionToDesktop) {
            if (isMoveObject(h.objectType)) platform::removeFile(h.nameB);
        }
        discardCurrentStream(s);
    }
    s.keepPath.clear();
    if (s.display.running()) {
        s.display.drop();
        showTransfer(s, "aborted");
    }
    if (!s.commandLineRun()) return Outcome::goOn();
    logPrint(1, "File Transfer aborted by remote.\n");
    return Outcome::endRun();
}

Outcome refuse(Session& s, std::uint8_t kind) {
    static const char* const messages[] = {
        "Failed to connect. Another File Transfer session is running.\n",
        "Failed to connect. Varo Client does not support file transfer.\n",
        "Failed, because the session is suspended. Please resume the session and try again.\n",
        "Failed. The remote printing and /or file transfer are not allowed for this session.\n",
    };
    s.display.drop();
    logPrint(1, "%s", messages[kind - kEventRefusedFirst]);
    // What a -get received so far is only in its temporary, which goes; the target stays.
    discardCurrentStream(s);
    return Outcome::endRun();
}

}  // namespace

void endUnpackWrites(Session& s) {
    void* stream = s.current;
    if (!stream || stream != s.unpackStream.get()) return;
    platform::setLastError(0);
    if (endDirUnpackStreamWrites(stream)) noteWriteFailure(s, platform::lastError(), mz_stream_error(stream));
}

Outcome handleTransferRequest(Session& s, std::span<const std::uint8_t> event) {
    logPrint(2, "Reading file transfer request.\n");
    TransferRequest request;
    if (!decodeTransferRequest(event, request)) {
        logDroppedEvent(kTransferRequest);
        return Outcome::goOn();
    }
    TransferHeader& h = s.transfer.header;
    h.direction = request.header.direction;
    h.objectType = request.header.objectType;
    h.openFlag = request.header.openFlag;
    h.kind = request.header.kind;
    if (h.kind != kEventChunk && h.kind != kEventNextChunk) endUnpackWrites(s);
    if (h.kind == kEventSessionClosed) {
        s.display.drop();
        logPrint(1, "File Transfer session was closed.\n");
        return Outcome::endRun();
    }
    if (h.kind >= kEventRefusedFirst && h.kind <= kEventRefusedLast) return refuse(s, h.kind);

    h.size = request.header.size;
    if (request.hasNameA) h.nameA = std::move(request.header.nameA);
    if (request.hasNameB) h.nameB = std::move(request.header.nameB);

    switch (h.kind) {
        case kEventStart:
        case kEventStartReplacing:
            if (h.direction == kDirectionToDesktop) return startSending(s);
            if (h.objectType != kObjectDirectory) return startReceivingFile(s);
            return startReceivingDirectory(s);
        case kEventChunk: return receiveChunk(s, request.data);
        case kEventNextChunk: return sendChunk(s);
        case kEventAbort: return abortTransfer(s);
        case kEventCompleted: return complete(s);
        default:
            if (s.current) return endSending(s);
            return sendReply(s, kReplyChunk);
    }
}
