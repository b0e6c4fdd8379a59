#include "filetransfer/xcb_wire.h"

#include <cstdlib>
#include <memory>

#include <xcb/xcbext.h>

#include "common/bytes.h"
#include "common/log.h"
#include "common/terminal_hints.h"
#include "filetransfer/dispatch.h"
#include "filetransfer/protocol.h"
#include "filetransfer/session.h"
#include "platform/platform.h"

namespace {

// The extension's descriptor: libxcb keeps what it learns about it here, for the whole process.
xcb_extension_t FileTransferExtension = {kFileTransferExtensionName, 0};

constexpr std::uint8_t kZeros[4] = {0, 0, 0, 0};

// One part of a request vector (struct iovec comes with libxcb's header).
// Its length is a size_t on POSIX and an int in libxcb's Windows header.
iovec part(const void* data, std::size_t length) {
    return iovec{const_cast<void*>(data), static_cast<decltype(iovec::iov_len)>(length)};
}

// The whole buffer of a generic event that libxcb handed over (its real size follows from the
// length field, which libxcb itself used to read the event).
std::span<const std::uint8_t> genericEventBytes(const xcb_generic_event_t* event) {
    const auto* bytes = reinterpret_cast<const std::uint8_t*>(event);
    const auto header = decodeGenericEventHeader(std::span<const std::uint8_t>(bytes, 32));
    return {bytes, genericEventBufferSize(header ? header->length : 0)};
}

struct EventDeleter {
    void operator()(xcb_generic_event_t* event) const { std::free(event); }
};
using EventPtr = std::unique_ptr<xcb_generic_event_t, EventDeleter>;

// Flushes, waits for the next event, hands generic events to the dispatch. Returns when the
// connection goes (go on: the run did not end itself) or a handler ends the run.
Outcome serveEvents(xcb_connection_t* connection, Session& session, std::uint8_t extension) {
    for (;;) {
        session.wire.flush();
        if (xcb_connection_has_error(connection)) return Outcome::goOn();
        EventPtr event(xcb_wait_for_event(connection));
        if (!event) return Outcome::goOn();
        if (event->response_type != kGenericEvent) continue;
        const Outcome outcome = dispatchEvent(session, extension, genericEventBytes(event.get()));
        if (outcome.end) return outcome;
    }
}

}  // namespace

// Two leading slots of every vector belong to libxcb (it may prepend the BIG-REQUESTS length).

void XcbWire::writeReply(const TransferHeader& header, std::span<const std::uint8_t> data) {
    const ReplyParts parts = replyParts(header, data);
    auto fixed = encodeFileTransferReplyFixed(header, data);
    iovec vector[2 + 6];
    vector[2] = part(fixed.data(), fixed.size());
    vector[3] = part(kZeros, 0);
    vector[4] = part(parts.a.data(), parts.a.size());
    vector[5] = part(parts.b.data(), parts.b.size());
    vector[6] = part(parts.c.data(), parts.c.size());
    vector[7] = part(kZeros, parts.padding);
    static const xcb_protocol_request_t request = {6, &FileTransferExtension, kFileTransferReplyOpcode, 1};
    xcb_send_request(connection_, 0, vector + 2, &request);
}

void XcbWire::writeStatus(std::string_view path, std::uint8_t requestKind, bool failed, std::string_view errorText) {
    auto fixed = encodeFileTransferStatusFixed(requestKind, failed, static_cast<std::uint32_t>(path.size()),
                                               static_cast<std::uint32_t>(errorText.size()));
    iovec vector[2 + 5];
    vector[2] = part(fixed.data(), fixed.size());
    vector[3] = part(kZeros, 0);
    vector[4] = part(path.data(), path.size());
    vector[5] = part(errorText.data(), errorText.size());
    vector[6] = part(kZeros, bytes::pad4(path.size() + errorText.size()));
    static const xcb_protocol_request_t request = {5, &FileTransferExtension, kFileTransferStatusOpcode, 1};
    xcb_send_request(connection_, 0, vector + 2, &request);
}

void XcbWire::writeListItem(const FileListItemFields& item) {
    auto fixed = encodeFileListItemFixed(item);
    iovec vector[2 + 4];
    vector[2] = part(fixed.data(), fixed.size());
    vector[3] = part(kZeros, 0);
    vector[4] = part(item.name.data(), item.name.size());
    vector[5] = part(kZeros, bytes::pad4(item.name.size()));
    static const xcb_protocol_request_t request = {4, &FileTransferExtension, kFileListItemOpcode, 1};
    xcb_send_request(connection_, 0, vector + 2, &request);
}

void XcbWire::writeFlush() { xcb_flush(connection_); }

std::int64_t XcbWire::writeReplyFromFile(const TransferHeader& header, platform::File& file, std::size_t limit) {
    if (!pipeTried_) {
        pipeTried_ = true;
        pipe_.open(2 * limit);  // room for the pages a chunk spans and its padding
    }
    // The request is written out here in its ordinary form; one that would need another form,
    // or that drops block C (direction 2), goes the usual way.
    const ReplyParts names = replyParts(header, {});
    const std::size_t longest = kReplyFixedSize + names.a.size() + names.b.size() + limit + 3;
    const xcb_query_extension_reply_t* extension = xcb_get_extension_data(connection_, &FileTransferExtension);
    if (!pipe_.isOpen() || !extension || !extension->present || header.direction == kDirectionFromDesktop ||
        longest / 4 > xcb_get_setup(connection_)->maximum_request_length)
        return Wire::writeReplyFromFile(header, file, limit);

    const std::int64_t count = pipe_.fill(file, limit);
    if (count == platform::FilePipe::kCannotMove) return Wire::writeReplyFromFile(header, file, limit);
    if (count <= 0) return count;
    logPrint(2, "Sending file transfer reply.\n");
    const auto length = static_cast<std::size_t>(count);
    const std::size_t variable = names.a.size() + names.b.size() + length;
    const std::size_t padding = bytes::pad4(variable);
    if (!pipe_.fillZeros(padding)) {
        pipe_.close();
        return -1;
    }
    // libxcb numbers the request and writes its head (raw: the opcodes and length are set here);
    // the block and the padding follow straight from the pipe once the head is out.
    auto fixed = encodeFileTransferReplyFixed(header, {});
    bytes::put8(fixed, 0, extension->major_opcode);
    bytes::put8(fixed, 1, kFileTransferReplyOpcode);
    bytes::put16(fixed, 2, static_cast<std::uint16_t>((kReplyFixedSize + variable + padding) / 4));
    bytes::put32(fixed, 20, static_cast<std::uint32_t>(length));
    iovec vector[2 + 3];
    vector[2] = part(fixed.data(), fixed.size());
    vector[3] = part(names.a.data(), names.a.size());
    vector[4] = part(names.b.data(), names.b.size());
    static const xcb_protocol_request_t request = {3, &FileTransferExtension, kFileTransferReplyOpcode, 1};
    if (xcb_send_request(connection_, XCB_REQUEST_RAW, vector + 2, &request) == 0 || xcb_flush(connection_) <= 0) {
        pipe_.close();  // the connection broke: the run ends on it
        return count;
    }
    pipe_.drainTo(xcb_get_file_descriptor(connection_));  // on failure the connection is shut: the run ends
    return count;
}

int runFileTransfer(xcb_connection_t* connection, Session& session) {
    // Null when libxcb gives nothing; the reply's present flag is not consulted.
    const xcb_query_extension_reply_t* extension = xcb_get_extension_data(connection, &FileTransferExtension);
    if (!extension) logPrint(1, "X Server does not support the \"%s\" extension\n", kFileTransferExtensionName);
    if (!extension || !extension->present) {
        // Most likely not the proxy's display. The run goes on as it always did where the
        // extension was only reported absent, but nothing more is shown about a transfer that
        // cannot start.
        const char* display = session.options.display ? session.options.display->c_str() : platform::environment("DISPLAY");
        session.display.show(terminal::missingExtensionHint(display ? display : "", terminal::Extension::FileTransfer));
        session.display.disable();
    }
    if (!extension) return 0;
    Outcome outcome = startRun(session);
    if (!outcome.end) outcome = serveEvents(connection, session, extension->major_opcode);
    return finishRun(session, outcome);
}
