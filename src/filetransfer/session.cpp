#include "filetransfer/session.h"

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>

#include <xcb/xcbext.h>

#include "common/log.h"
#include "common/log.h"
#include "archive/mz_stream.h"
#include "filetransfer/delete_rename.h"
#include "filetransfer/environment.h"
#include "filetransfer/framing.h"
#include "filetransfer/listing.h"
#include "filetransfer/progress.h"
#include "filetransfer/protocol.h"
#include "filetransfer/staging.h"
#include "filetransfer/transfer.h"
#include "filetransfer/transfer_state.h"
#include "platform/platform.h"

xcb_extension_t FileTransferExtension = {kFileTransferExtensionName, 0};

void closeCurrentStream() {
    if (CurrentStream) {
        const auto* table = static_cast<mz_stream*>(CurrentStream)->vtbl;
        if (table && table->close && table->is_open && mz_stream_is_open(CurrentStream) == MZ_OK)
            mz_stream_close(CurrentStream);
    }
    CurrentStream = nullptr;
}

void endTransferProcess(xcb_connection_t* connection) {
    xcb_flush(connection);
    platform::removeTemporaries();  // a receive that did not complete leaves its target as it was
    std::exit(0);
}

namespace {

[[noreturn]] void failLocal(xcb_connection_t* connection, const char* format, const std::string& path) {
    logPrint(1, format, path.c_str());
    endTransferProcess(connection);
}

// The overwrite question: only a lower-case 'n' refuses; anything else, end of input included,
// accepts and remembers the path as the one the user agreed to replace.
void askOverwrite(xcb_connection_t* connection, const char* question) {
    logPrint(1, question, CommandLine.localPath.c_str());
    const int answer = std::getchar();
    if (answer == 'n') {
        logPrint(1, "File Transfer abort.\n");
        endTransferProcess(connection);
    }
    setKeepPath(CommandLine.localPath);
}

// -put and -open: the local file opened for reading, its size taken.
void openLocalSource(xcb_connection_t* connection) {
    if (!ensureFileStream() || mz_stream_open(FileStream, CommandLine.localPath.c_str(), MZ_OPEN_MODE_READ) != MZ_OK)
        failLocal(connection, "Unable to open local file: %s.\n", CommandLine.localPath);
    if (mz_stream_seek(FileStream, 0, MZ_SEEK_END) != MZ_OK)
        failLocal(connection, "Unable to open local file: %s.\n", CommandLine.localPath);
    const std::int64_t size = mz_stream_tell(FileStream);
    if (size < 0 || mz_stream_seek(FileStream, 0, MZ_SEEK_SET) != MZ_OK)
        failLocal(connection, "Unable to open local file: %s.\n", CommandLine.localPath);
    LocalFileSize = static_cast<std::uint64_t>(size);
    CurrentStream = FileStream;
}

// The last component of a path, after the later of its last backslash and last slash.
std::string lastComponent(const std::string& path) {
    const std::size_t cut = path.find_last_of("\\/");
    return cut == std::string::npos ? path : path.substr(cut + 1);
}

void announce(xcb_connection_t* connection, std::uint8_t direction, std::uint8_t objectType, std::uint8_t openFlag,
              std::uint64_t size) {
    startProgress(CommandLine.localPath, size);
    FileTransferReplyFields fields;
    fields.direction = direction;
    fields.objectType = objectType;
    fields.openFlag = openFlag;
    fields.kind = kReplyCommandLineStart;
    fields.size = size;
    fields.a = CommandLine.remotePath;
    fields.b = CommandLine.localPath;
    sendFileTransferReply(connection, fields);
}

// The file is received into a temporary beside the target, which it replaces only once it
// arrived whole. A device or FIFO the user names is written directly: it holds nothing to lose.
void prepareGet(xcb_connection_t* connection) {
    {
        platform::File existing;
        if (existing.open(CommandLine.localPath, platform::OpenMode::Read)) {
            existing.close();
            askOverwrite(connection, "Local File %s exists, overwrite it [y/n]?");
        }
    }
    std::string resolved;
    platform::Status st;
    if (platform::resolveFinalLinks(CommandLine.localPath, resolved) && platform::status(resolved, st) &&
        st.kind == platform::Kind::Other) {
        if (!ensureFileStream() ||
            mz_stream_open(FileStream, CommandLine.localPath.c_str(), MZ_OPEN_MODE_WRITE | MZ_OPEN_MODE_CREATE) != MZ_OK)
            failLocal(connection, "Unable to open local file for writting: %s.\n", CommandLine.localPath);
        CurrentStream = FileStream;
    } else {
        void* stream = nullptr;
        int error = 0;
        if (!stageFile(CommandLine.localPath, stream, error))
            failLocal(connection, "Unable to open local file for writting: %s.\n", CommandLine.localPath);
        CurrentStream = stream;
    }
    announce(connection, kDirectionFromDesktop, kObjectFile, 0, 0);
}

void preparePut(xcb_connection_t* connection) {
    openLocalSource(connection);
    announce(connection, kDirectionToDesktop, kObjectFile, 0, LocalFileSize);
}

void prepareOpen(xcb_connection_t* connection) {
    openLocalSource(connection);
    CommandLine.remotePath = lastComponent(CommandLine.localPath);
    announce(connection, kDirectionToDesktop, kObjectOpenFile, 1, LocalFileSize);
}

void prepareGetDirectory(xcb_connection_t* connection) {
    const std::size_t cut = CommandLine.localPath.find_last_of("\\/");
    if (cut == std::string::npos) failLocal(connection, "Wrong local path: %s \n", CommandLine.localPath);
    // A directory straight under the root has the root as its parent.
    const std::string parent = cut == 0 ? CommandLine.localPath.substr(0, 1) : CommandLine.localPath.substr(0, cut);
    if (!platform::exists(parent)) failLocal(connection, "Wrong local path: %s \n", parent);

    if (platform::isDirectory(CommandLine.localPath))
        askOverwrite(connection, "Local Directory %s exists, overwrite it [y/n]?");
    // The tree is unpacked into a temporary directory beside the target; it replaces the target
    // (an existing tree included) only once it arrived whole.
    std::string temporary;
    int error = 0;
    const bool staged = stageDirectory(CommandLine.localPath, temporary, error);
    if (!staged) {
        logPrint(1, "Unable to create directory %s: %s (%d)\n", CommandLine.localPath.c_str(), platform::errorText(error).c_str(),
                 error);
    }
    const bool made = ensureDirUnpackStream();
    if (!staged || !made ||
        mz_stream_open(DirUnpackStream, temporary.c_str(), MZ_OPEN_MODE_WRITE | MZ_OPEN_MODE_CREATE) != MZ_OK) {
        if (staged) error = made ? platform::lastError() : platform::outOfMemoryErrorCode();
        mz_stream_close(DirUnpackStream);
        discardStage();
        platform::setLastError(error);
        sendFileTransferStatus(connection, CommandLine.localPath, kStatusTransferTarget, true);
        endTransferProcess(connection);
    }
    CurrentStream = DirUnpackStream;
    announce(connection, kDirectionFromDesktop, kObjectDirectory, 0, 0);
}

void preparePutDirectory(xcb_connection_t* connection) {
    platform::Status st;
    if (!platform::status(CommandLine.localPath, st)) failLocal(connection, "Unable to open local directory: %s.\n", CommandLine.localPath);
    if (st.kind != platform::Kind::Directory) failLocal(connection, "%s is not a directory: \n", CommandLine.localPath);
    if (!ensureDirPackStream() || mz_stream_open(DirPackStream, CommandLine.localPath.c_str(), MZ_OPEN_MODE_READ) != MZ_OK)
        failLocal(connection, "Unable to open local directory: %s.\n", CommandLine.localPath);
    CurrentStream = DirPackStream;
    announce(connection, kDirectionToDesktop, kObjectDirectory, 0, 0);
}

struct EventDeleter {
    void operator()(xcb_generic_event_t* event) const { std::free(event); }
};
using EventPtr = std::unique_ptr<xcb_generic_event_t, EventDeleter>;

void serveEvents(xcb_connection_t* connection) {
    for (;;) {
        xcb_flush(connection);
        if (xcb_connection_has_error(connection)) return;
        EventPtr event(xcb_wait_for_event(connection));
        if (!event) return;
        if (event->response_type != kGenericEvent) continue;
        const auto buffer = genericEventBytes(event.get());
        const auto header = decodeGenericEventHeader(buffer);
        if (!header) continue;
        if (header->extension != ExtensionInfo->major_opcode) {
            logPrint(2, "Skipping gev->extension = %d.\n", header->extension);
            continue;
        }
        logPrint(2, "gev->event_type = %d\n", header->eventType);
        switch (header->eventType) {
            case kDeleteFileRequest: handleDeleteRequest(connection, buffer); break;
            case kTransferRequest: handleTransferRequest(connection, buffer); break;
            case kListDirectoryRequest: handleListingRequest(connection, buffer); break;
            case kRenameFileRequest: handleRenameRequest(connection, buffer); break;
            default: break;  // not served: dropped without an answer
        }
    }
}

}  // namespace

int runFileTransfer(xcb_connection_t* connection, const Options& options) {
    CommandLine = options;
    if (!findExtension(connection)) {
        logPrint(1, "X Server does not support the \"%s\" extension\n", kFileTransferExtensionName);
        return 0;
    }
    logPrint(2, "Sending request to Proxy/Desktop to start file transfer process.\n");
    if (CommandLine.runMode == RunMode::GetDir || CommandLine.runMode == RunMode::PutDir) UserHomeDir = commandLineHomeDirectory();

    switch (CommandLine.runMode) {
        case RunMode::None: reportEnvironment(connection); break;
        case RunMode::Get: prepareGet(connection); break;
        case RunMode::Put: preparePut(connection); break;
        case RunMode::Open: prepareOpen(connection); break;
        case RunMode::GetDir: prepareGetDirectory(connection); break;
        case RunMode::PutDir: preparePutDirectory(connection); break;
        default:
            logPrint(1, "Unsupported File Transfer mode\n");
            endTransferProcess(connection);
    }
    serveEvents(connection);
    // The connection went. A receive in progress leaves its target as it was; on a terminal
    // (and only there) one line says so.
    if (CurrentStream && logVerbosity() >= 1 && platform::standardErrorIsTerminal()) {
        finishProgress();
        const std::string line = stageActive() ? "The connection was lost: the transfer did not complete and " +
                                                     stagedTarget() + " is unchanged.\n"
                                               : "The connection was lost: the transfer did not complete.\n";
        platform::writeStandardError(line);
    }
    discardStage();
    platform::removeTemporaries();
    return 0;
}
