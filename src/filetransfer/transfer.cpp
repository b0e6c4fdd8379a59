#include "filetransfer/transfer.h"

#include <algorithm>
#include <climits>
#include <memory>
#include <new>
#include <string>
#include <vector>

#include "common/log.h"
#include "archive/mz_stream.h"
#include "common/bytes.h"
#include "filetransfer/framing.h"
#include "filetransfer/progress.h"
#include "filetransfer/protocol.h"
#include "filetransfer/session.h"
#include "filetransfer/staging.h"
#include "filetransfer/transfer_state.h"
#include "platform/platform.h"

namespace {

// The transfer in progress; it survives from one event to the next.
struct TransferState {
    std::uint8_t direction = 0;
    std::uint8_t objectType = 0;
    std::uint8_t openFlag = 0;
    std::uint8_t kind = 0;
    std::uint64_t size = 0;
    std::string nameA;
    std::string nameB;
    std::string directoryPath;  // a received directory: name B without its ".zip" ending
    bool finish = false;        // a command-line send reached its end: exit after the reply
    bool writeFailureLogged = false;
    int writeError = 0;         // the error of the first failed write of a receive
};

TransferState Transfer;

// A name is kept the way a C string would hold it: up to its first NUL byte.
void storeName(std::string& into, std::string_view name) { into.assign(name.substr(0, name.find('\0'))); }

bool isMoveObject(std::uint8_t objectType) {
    return objectType == kObjectMoveFile || objectType == kObjectMoveFileToo;
}

void sendReply(xcb_connection_t* connection, std::uint8_t kind, std::span<const std::uint8_t> data = {}) {
    Transfer.kind = kind;
    FileTransferReplyFields fields;
    fields.direction = Transfer.direction;
    fields.objectType = Transfer.objectType;
    fields.openFlag = Transfer.openFlag;
    fields.kind = kind;
    fields.size = Transfer.size;
    fields.a = Transfer.nameA;
    fields.b = Transfer.nameB;
    fields.c = data;
    sendFileTransferReply(connection, fields);
    if (Transfer.finish) {
        xcb_flush(connection);
        finishProgress();
        logPrint(1, "File Transfer completed.\n");
        endTransferProcess(connection);
    }
}

// Status requests name the local side in the error text, so the platform error must survive
// whatever cleanup comes between the failing call and the status.
void sendFailedStatusAfter(xcb_connection_t* connection, std::string_view path, std::uint8_t requestKind,
                           int savedError) {
    platform::setLastError(savedError);
    sendFileTransferStatus(connection, path, requestKind, true);
}

// ---- starting --------------------------------------------------------------------------------

void startSending(xcb_connection_t* connection) {
    const bool directory = Transfer.objectType == kObjectDirectory;
    const bool made = directory ? ensureDirPackStream() : ensureFileStream();
    void* stream = directory ? DirPackStream : FileStream;
    if (!made || mz_stream_open(stream, Transfer.nameB.c_str(), MZ_OPEN_MODE_READ) != MZ_OK) {
        sendFileTransferStatus(connection, Transfer.nameB, kStatusTransfer, true);
        return;
    }
    CurrentStream = stream;
    Transfer.writeFailureLogged = false;
    Transfer.writeError = 0;
    if (directory) {
        Transfer.size = 0;
    } else {
        const auto* table = static_cast<mz_stream*>(stream)->vtbl;
        if (table->seek && mz_stream_is_open(stream) == MZ_OK) {
            mz_stream_seek(stream, 0, MZ_SEEK_END);
            const std::int64_t end = mz_stream_tell(stream);
            Transfer.size = end > 0 ? static_cast<std::uint64_t>(end) : 0;
            mz_stream_seek(stream, 0, MZ_SEEK_SET);
        }
    }
    startProgress(Transfer.nameB, Transfer.size);
    sendReply(connection, kReplyOpened);
}

// A received file is written beside its target and replaces it only once it arrived whole (a
// kind-2 replace therefore deletes nothing at its start).
void startReceivingFile(xcb_connection_t* connection) {
    if (Transfer.kind != kEventStartReplacing) {
        platform::File existing;
        if (existing.open(Transfer.nameB, platform::OpenMode::Read)) {
            existing.close();
            sendReply(connection, kReplyTargetExists);
            return;
        }
    }
    if (isStagedFileStream(CurrentStream)) CurrentStream = nullptr;
    void* stream = nullptr;
    int error = 0;
    if (!stageFile(Transfer.nameB, stream, error)) {
        sendFailedStatusAfter(connection, Transfer.nameB, kStatusTransferTarget, error);
        return;
    }
    CurrentStream = stream;
    Transfer.writeFailureLogged = false;
    Transfer.writeError = 0;
    startProgress(Transfer.nameB, Transfer.size);
    sendReply(connection, kReplyOpened);
}

// A received directory is unpacked into a temporary directory beside its target; the tree it
// replaces (kind 2, or the one the user agreed to overwrite) goes only once it arrived whole.
void startReceivingDirectory(xcb_connection_t* connection) {
    std::string replaced;
    if (Transfer.kind != kEventStartReplacing) {
        if (Transfer.nameB.find_first_of("\\/") == std::string::npos) return;
        std::string path = Transfer.nameB.substr(0, kNameMax);
        const std::size_t zip = path.find(".zip");
        if (zip == std::string::npos) return;
        path.resize(zip);
        Transfer.directoryPath = path;
        if (!KeepPath.empty()) {
            // The tree the user agreed to overwrite is set aside for removal after arrival; one
            // that could not even be renamed could not be removed either.
            if (!platform::isWritable(platform::directoryOf(KeepPath).empty() ? std::string(".")
                                                                              : platform::directoryOf(KeepPath))) {
                logPrint(1, "Cannot remove directory %s\nFile Transfer abort.\n", KeepPath.c_str());
                endTransferProcess(connection);
            }
            replaced = KeepPath;
            KeepPath.clear();
        }
        if (Transfer.directoryPath != replaced && platform::isDirectory(Transfer.directoryPath)) {
            sendReply(connection, kReplyTargetExists);
            return;
        }
    }

    const bool made = ensureDirUnpackStream();
    std::string temporary;
    int error = 0;
    const bool staged = stageDirectory(Transfer.directoryPath, temporary, error);
    if (!staged) {
        logPrint(1, "Unable to create directory %s: %s (%d)\n", Transfer.directoryPath.c_str(),
                 platform::errorText(error).c_str(), error);
    } else {
        stageAlsoReplaces(replaced);
    }
    if (staged && made &&
        mz_stream_open(DirUnpackStream, temporary.c_str(), MZ_OPEN_MODE_WRITE | MZ_OPEN_MODE_CREATE) == MZ_OK) {
        CurrentStream = DirUnpackStream;
        Transfer.writeFailureLogged = false;
    Transfer.writeError = 0;
        startProgress(Transfer.directoryPath, 0);
        sendReply(connection, kReplyOpened);
        return;
    }
    if (staged) error = made ? platform::lastError() : platform::outOfMemoryErrorCode();
    mz_stream_close(DirUnpackStream);
    if (CurrentStream == DirUnpackStream) CurrentStream = nullptr;
    discardStage();
    sendFailedStatusAfter(connection, Transfer.directoryPath, kStatusTransferTarget, error);
    if (CommandLine.runMode != RunMode::None) endTransferProcess(connection);
}

// ---- ending the current stream ---------------------------------------------------------------

// The first failure of a received file is logged once (decision on failed writes).
void logWriteFailure(const std::string& path, int error) {
    if (Transfer.writeFailureLogged) return;
    Transfer.writeFailureLogged = true;
    logPrint(1, "Unable to write to local %s: %s\n", path.c_str(), platform::errorText(error).c_str());
}

// Closes the current stream. A received file or directory that arrived whole (every write
// succeeded; for a directory, the unpack stream's is_open and close succeeded) is moved into
// place; anything else is discarded. False when a receive did not arrive whole, with the error.
bool settleCurrentStream(int& error) {
    void* stream = CurrentStream;
    if (!stream || (!isStagedFileStream(stream) && stream != DirUnpackStream) || !stageActive()) {
        closeCurrentStream();
        return true;
    }
    CurrentStream = nullptr;
    platform::setLastError(0);
    const bool open = mz_stream_is_open(stream) == MZ_OK;
    const bool closed = mz_stream_close(stream) == MZ_OK;
    error = platform::lastError();
    if (stageBroken() && Transfer.writeError != 0) error = Transfer.writeError;  // the reason of the first failure
    else if (error == 0) error = platform::damagedDataErrorCode();                // a failure no call reported
    const std::string target = stagedTarget();
    if (!open || !closed || stageBroken()) {
        if (open && !closed && isStagedFileStream(stream)) logWriteFailure(target, error);
        discardStage();
        return false;
    }
    if (!commitStage(error)) {
        logWriteFailure(target, error);
        return false;
    }
    return true;
}

// Closes the current stream and drops whatever a receive left in its temporaries.
void discardCurrentStream() {
    discardStage();
    closeCurrentStream();
}

// ---- moving data -----------------------------------------------------------------------------

// The first failed write of a transfer is logged; the far side is still told the chunk was taken.
void writeChunk(std::span<const std::uint8_t> data) {
    std::size_t done = 0;
    bool failed = false;
    int error = 0;
    std::int32_t result = 0;
    while (done < data.size() && !failed) {
        const std::size_t piece = std::min<std::size_t>(data.size() - done, INT32_MAX);
        platform::setLastError(0);
        result = mz_stream_write(CurrentStream, data.data() + done, static_cast<std::int32_t>(piece));
        error = platform::lastError();
        // Bytes after the central directory are not a failure: the archive already ended.
        if (result != static_cast<std::int32_t>(piece) && result != MZ_END_OF_STREAM) failed = true;
        done += piece;
    }
    if (failed) {
        markStageBroken();
        if (Transfer.writeError == 0) Transfer.writeError = error != 0 ? error : platform::damagedDataErrorCode();
    }
    if (failed && !Transfer.writeFailureLogged) {
        Transfer.writeFailureLogged = true;
        const std::string& path =
            Transfer.objectType == kObjectDirectory && !Transfer.directoryPath.empty() ? Transfer.directoryPath
                                                                                      : Transfer.nameB;
        const std::string text = error != 0 ? platform::errorText(error) : "stream error " + std::to_string(result);
        logPrint(1, "Unable to write to local %s: %s\n", path.c_str(), text.c_str());
    }
    addProgress(data.size());
}

void receiveChunk(xcb_connection_t* connection, std::span<const std::uint8_t> data) {
    KeepPath.clear();
    if (!CurrentStream) {
        sendReply(connection, kReplyNoTransfer);
        return;
    }
    // The answer never depends on the write, so it goes out first: the far side sends the next
    // chunk while this one is written.
    sendReply(connection, kReplyChunkStored);
    xcb_flush(connection);
    if (!data.empty()) writeChunk(data);
}

// The source is exhausted (or the transfer was ended another way): close it, answer kind 8.
void endSending(xcb_connection_t* connection) {
    int error = 0;
    settleCurrentStream(error);
    Transfer.kind = kReplyEnd;
    if (isMoveObject(Transfer.objectType)) platform::removeFile(Transfer.nameB);
    if (CommandLine.runMode != RunMode::None) Transfer.finish = true;
    sendReply(connection, kReplyEnd);
}

void sendChunk(xcb_connection_t* connection) {
    KeepPath.clear();
    if (!CurrentStream) {
        sendReply(connection, kReplyNoTransfer);
        return;
    }
    std::unique_ptr<std::uint8_t[]> chunk(new (std::nothrow) std::uint8_t[kChunkSize]);
    const std::int32_t count =
        chunk ? mz_stream_read(CurrentStream, chunk.get(), static_cast<std::int32_t>(kChunkSize)) : MZ_MEM_ERROR;
    if (count <= 0) {
        endSending(connection);
        return;
    }
    addProgress(static_cast<std::uint64_t>(count));
    sendReply(connection, kReplyChunk, std::span<const std::uint8_t>(chunk.get(), static_cast<std::size_t>(count)));
}

// ---- endings ---------------------------------------------------------------------------------

void complete(xcb_connection_t* connection) {
    KeepPath.clear();
    const bool unpacking = CurrentStream && CurrentStream == DirUnpackStream;
    int error = 0;
    const bool whole = settleCurrentStream(error);
    if (Transfer.objectType == kObjectDirectory) {
        // Only the unpack stream has an outcome to report; a directory sent from here, or no
        // transfer at all, reports success.
        if (unpacking && !whole) sendFailedStatusAfter(connection, Transfer.directoryPath, kStatusTransferTarget, error);
        else sendFileTransferStatus(connection, Transfer.directoryPath, kStatusTransferTarget, false);
        Transfer.directoryPath.clear();
    }
    finishProgress();
    if (CommandLine.runMode != RunMode::None) {
        logPrint(1, "File Transfer completed.\n");
        endTransferProcess(connection);
    }
}

// An abort removes what the documents remove (the source of a move, the file the user agreed
// to replace when it is a move, an empty directory named like the archive); what arrived so far
// is only in the temporaries, which go, so the target stays as it was.
void abortTransfer(xcb_connection_t* connection) {
    if (CurrentStream) {
        // The local side is cleaned up while the stream is still open; only then is it closed.
        if (Transfer.direction == kDirectionFromDesktop) {
            if (KeepPath == Transfer.nameB) {
                if (isMoveObject(Transfer.objectType)) platform::removeFile(Transfer.nameB);
            } else if (Transfer.objectType == kObjectDirectory) {
                platform::removeDirectory(Transfer.nameB);
            }
            discardStage();
        } else if (Transfer.direction == kDirectionToDesktop) {
            if (isMoveObject(Transfer.objectType)) platform::removeFile(Transfer.nameB);
        }
        discardCurrentStream();
    }
    KeepPath.clear();
    finishProgress();
    if (CommandLine.runMode != RunMode::None) {
        logPrint(1, "File Transfer aborted by remote.\n");
        endTransferProcess(connection);
    }
}

[[noreturn]] void refuse(xcb_connection_t* connection, std::uint8_t kind) {
    static const char* const messages[] = {
        "Failed to connect. Another File Transfer session is running.\n",
        "Failed to connect. Varo Client does not support file transfer.\n",
        "Failed, because the session is suspended. Please resume the session and try again.\n",
        "Failed. The remote printing and /or file transfer are not allowed for this session.\n",
    };
    finishProgress();
    logPrint(1, "%s", messages[kind - kEventRefusedFirst]);
    // What a -get received so far is only in its temporary, which goes; the target stays.
    discardCurrentStream();
    endTransferProcess(connection);
}

}  // namespace

bool decodeTransferRequest(std::span<const std::uint8_t> event, TransferRequest& out) {
    bytes::Reader r(event, kGenericEventPayloadOffset);
    TransferRequest t;
    t.direction = r.u8();
    t.objectType = r.u8();
    t.openFlag = r.u8();
    t.kind = r.u8();
    if (!r.ok()) return false;
    if (t.kind == kEventSessionClosed || (t.kind >= kEventRefusedFirst && t.kind <= kEventRefusedLast)) {
        out = t;  // nothing else of these events is read
        return true;
    }
    t.size = r.u64();
    t.lengthA = r.u16();
    t.lengthB = r.u16();
    t.dataLength = r.u32();
    if (!r.ok()) return false;

    t.hasNameA = t.lengthA >= 1 && t.lengthA <= kNameMax;
    t.hasNameB = t.lengthB >= 1 && t.lengthB <= kNameMax;
    const std::size_t names = r.position();
    const std::uint64_t available = event.size() - names;
    const std::uint64_t endA = t.lengthA;
    const std::uint64_t endB = endA + t.lengthB;
    const std::uint64_t endData = endB + t.dataLength;
    if (t.hasNameA && endA > available) return false;
    if (t.hasNameB && endB > available) return false;
    if (t.kind == kEventChunk && endData > available) return false;

    const char* base = reinterpret_cast<const char*>(event.data() + names);
    if (t.hasNameA) t.nameA = std::string_view(base, t.lengthA);
    if (t.hasNameB) t.nameB = std::string_view(base + endA, t.lengthB);
    if (t.kind == kEventChunk) t.data = event.subspan(names + endB, t.dataLength);
    out = t;
    return true;
}

void handleTransferRequest(xcb_connection_t* connection, std::span<const std::uint8_t> event) {
    logPrint(2, "Reading file transfer request.\n");
    TransferRequest request;
    if (!decodeTransferRequest(event, request)) {
        logDroppedEvent(kTransferRequest);
        return;
    }
    Transfer.direction = request.direction;
    Transfer.objectType = request.objectType;
    Transfer.openFlag = request.openFlag;
    Transfer.kind = request.kind;
    if (request.kind == kEventSessionClosed) {
        finishProgress();
        logPrint(1, "File Transfer session was closed.\n");
        endTransferProcess(connection);
    }
    if (request.kind >= kEventRefusedFirst && request.kind <= kEventRefusedLast) refuse(connection, request.kind);

    Transfer.size = request.size;
    if (request.hasNameA) storeName(Transfer.nameA, request.nameA);
    if (request.hasNameB) storeName(Transfer.nameB, request.nameB);

    switch (request.kind) {
        case kEventStart:
        case kEventStartReplacing:
            if (Transfer.direction == kDirectionToDesktop) startSending(connection);
            else if (Transfer.objectType != kObjectDirectory) startReceivingFile(connection);
            else startReceivingDirectory(connection);
            break;
        case kEventChunk: receiveChunk(connection, request.data); break;
        case kEventNextChunk: sendChunk(connection); break;
        case kEventAbort: abortTransfer(connection); break;
        case kEventCompleted: complete(connection); break;
        default:
            if (CurrentStream) endSending(connection);
            else sendReply(connection, kReplyChunk);
            break;
    }
}
