#include "print/requests.h"

#include <xcb/xcbext.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "common/log.h"
#include "common/bytes.h"
#include "platform/platform.h"

xcb_extension_t ThinPrintExtension = {kThinPrintExtensionName, 0};

namespace {

constexpr std::size_t kMaxChunk = 0xFFFF;

std::uint16_t lengthInUnits(std::size_t nameLength, std::size_t dataLength) {
    const std::size_t total = kPrintRequestFixedSize + nameLength + dataLength + printRequestPadding(nameLength, dataLength);
    return static_cast<std::uint16_t>(total / 4);
}

// Which request a reply answers, for the messages.
struct RequestKind {
    std::uint8_t opcode;
    const char* receivedLine;
    const char* failureLine;
};
constexpr RequestKind kBegin{kFileBeginOpcode, "Received File Begin Reply\n", "Error receiving File Begin reply\n"};
constexpr RequestKind kContinue{kFileContinueOpcode, "Received Continue Reply\n", "Error receiving File Continue reply\n"};

struct FreeDeleter {
    void operator()(void* p) const { std::free(p); }
};

constexpr const char* kCoreErrorNames[] = {
    "Success", "Request", "Value",    "Window", "Pixmap",    "Atom",     "Cursor", "Font",   "Match",
    "Drawable", "Access", "Alloc",    "Colormap", "GContext", "IDChoice", "Name",   "Length", "Implementation",
};
constexpr std::size_t kCoreErrorCount = sizeof kCoreErrorNames / sizeof kCoreErrorNames[0];

// Sends one request (its iovec list after the two slots libxcb reserves for itself) and waits for
// the answer; reports it and returns 1 for an acceptance. With `piped`, the list is the head of
// the request in its final form (raw for libxcb) and the rest follows from the pipe.
int exchange(xcb_connection_t* connection, const RequestKind& kind, std::span<iovec> parts,
             std::uint32_t& moreFilesAccepted, platform::FilePipe* piped = nullptr) {
    const xcb_protocol_request_t request{parts.size() - 2, &ThinPrintExtension, kind.opcode, 0};
    const int flags = XCB_REQUEST_CHECKED | (piped ? XCB_REQUEST_RAW : 0);
    unsigned int sequence = xcb_send_request(connection, flags, parts.data() + 2, &request);
    // On a failure here the connection is shut: nothing is waited for.
    if (piped && sequence != 0 && (xcb_flush(connection) <= 0 || !piped->drainTo(xcb_get_file_descriptor(connection))))
        sequence = 0;
    std::unique_ptr<void, FreeDeleter> reply;
    if (sequence != 0 && xcb_connection_has_error(connection) == 0) {
        xcb_generic_error_t* rawError = nullptr;
        reply.reset(xcb_wait_for_reply(connection, sequence, &rawError));
        const std::unique_ptr<xcb_generic_error_t, FreeDeleter> error(rawError);
        if (error) printXError(*error);
    }
    if (!reply) {
        logPrint(2, "%s", kind.failureLine);
        return 0;
    }

    // libxcb hands over the whole reply: the header and `following` 4-byte units after it.
    const auto* header = static_cast<const std::uint8_t*>(reply.get());
    const std::uint32_t following = bytes::get32(std::span<const std::uint8_t>(header, kPrintReplyHeaderSize), 4);
    const std::span<const std::uint8_t> whole(header, kPrintReplyHeaderSize + std::size_t{following} * 4);
    PrintReply answer;
    decodePrintReply(whole, answer);

    logPrint(3, "%s", kind.receivedLine);
    logPrint(3, "\tCode:\t%d\n", answer.code);
    logPrint(3, "\tSequence:\t%d\n", answer.sequence);
    logPrint(3, "\tfollowing:\t%d\n", static_cast<int>(answer.following));
    if (answer.hasReason) logPrint(3, "\tReason:\t%s\n", answer.reason.c_str());

    if (answer.code == kPrintAccepted) return 1;
    if (answer.code == kPrintNoMoreFiles) moreFilesAccepted = 0;
    if (answer.hasReason) logPrint(1, "Server rejected file. Reason: \"%s\"\n", answer.reason.c_str());
    else logPrint(1, "Server rejected file");
    return 0;
}

}  // namespace

std::size_t printRequestPadding(std::size_t nameLength, std::size_t dataLength) {
    return bytes::pad4(nameLength + dataLength);
}

PrintRequestFixed encodeFileBeginFixed(std::uint8_t majorOpcode, bool partial, std::uint16_t nameLength,
                                       std::uint32_t dataLength) {
    PrintRequestFixed fixed{};
    bytes::put8(fixed, 0, majorOpcode);
    bytes::put8(fixed, 1, kFileBeginOpcode);
    bytes::put16(fixed, 2, lengthInUnits(nameLength, dataLength));
    bytes::put8(fixed, 4, partial ? 1 : 0);
    bytes::put8(fixed, 5, 0);
    bytes::put16(fixed, 6, nameLength);
    bytes::put32(fixed, 8, dataLength);
    return fixed;
}

PrintRequestFixed encodeFileContinueFixed(std::uint8_t majorOpcode, bool more, std::uint32_t dataLength) {
    PrintRequestFixed fixed{};
    bytes::put8(fixed, 0, majorOpcode);
    bytes::put8(fixed, 1, kFileContinueOpcode);
    bytes::put16(fixed, 2, lengthInUnits(0, dataLength));
    bytes::put8(fixed, 4, more ? 1 : 0);
    bytes::put8(fixed, 5, 0);
    bytes::put16(fixed, 6, 0);
    bytes::put32(fixed, 8, dataLength);
    return fixed;
}

std::vector<std::uint8_t> encodeFileBeginRequest(std::uint8_t majorOpcode, std::string_view name,
                                                 std::span<const std::uint8_t> data, bool partial) {
    const auto nameLength = static_cast<std::uint16_t>(name.size());
    const auto fixed = encodeFileBeginFixed(majorOpcode, partial, nameLength, static_cast<std::uint32_t>(data.size()));
    std::vector<std::uint8_t> out;
    out.reserve(kPrintRequestFixedSize + nameLength + data.size() + 3);
    bytes::Writer(out).raw(fixed).raw(name.substr(0, nameLength)).raw(data).zeros(
        printRequestPadding(nameLength, data.size()));
    return out;
}

std::vector<std::uint8_t> encodeFileContinueRequest(std::uint8_t majorOpcode, std::span<const std::uint8_t> data,
                                                    bool more) {
    const auto fixed = encodeFileContinueFixed(majorOpcode, more, static_cast<std::uint32_t>(data.size()));
    std::vector<std::uint8_t> out;
    out.reserve(kPrintRequestFixedSize + data.size() + 3);
    bytes::Writer(out).raw(fixed).raw(data).zeros(printRequestPadding(0, data.size()));
    return out;
}

bool decodePrintReply(std::span<const std::uint8_t> reply, PrintReply& out) {
    out = PrintReply{};
    bytes::Reader header(reply);
    header.skip(1);  // reply type
    out.code = header.u8();
    out.sequence = header.u16();
    out.following = header.u32();
    const auto reasonLength = static_cast<std::int32_t>(header.u32());
    if (!header.ok() || !header.skip(kPrintReplyHeaderSize - header.position())) return false;
    if (out.following == 0) return true;
    out.hasReason = true;
    if (reasonLength > 0) {
        bytes::Reader body(reply, kPrintReplyHeaderSize);
        const std::size_t wanted = static_cast<std::size_t>(reasonLength);
        out.reason.assign(body.text(std::min(wanted, body.remaining())));
        // The reason is a terminated string: it ends at its first NUL byte.
        out.reason.resize(std::strlen(out.reason.c_str()));
    }
    return true;
}

std::vector<std::uint8_t> encodePrintReply(std::uint8_t code, std::uint16_t sequence, std::string_view reason) {
    const std::size_t body = reason.size() + bytes::pad4(reason.size());
    std::vector<std::uint8_t> out;
    out.reserve(kPrintReplyHeaderSize + body);
    bytes::Writer(out)
        .u8(1)
        .u8(code)
        .u16(sequence)
        .u32(static_cast<std::uint32_t>(body / 4))
        .u32(static_cast<std::uint32_t>(reason.size()))
        .zeros(20)
        .raw(reason)
        .pad4();
    return out;
}

namespace {

// A chunk's bytes: in memory, or `length` of them waiting in a pipe.
struct Chunk {
    const std::uint8_t* bytes = nullptr;
    platform::FilePipe* pipe = nullptr;
    std::size_t length = 0;
};

// The major opcode for a request written in its final form, or 0 (the zeros behind a piped
// chunk could not be added: nothing is sent).
std::uint8_t prepareFinalForm(xcb_connection_t* connection, const Chunk& chunk, std::size_t padding) {
    if (!chunk.pipe) return 0;
    const xcb_query_extension_reply_t* extension = xcb_get_extension_data(connection, &ThinPrintExtension);
    return extension && chunk.pipe->fillZeros(padding) ? extension->major_opcode : 0;
}

int sendBegin(xcb_connection_t* connection, const char* name, const Chunk& data, int partial,
              std::uint32_t& moreFilesAccepted) {
    const auto nameLength = static_cast<std::uint16_t>(std::strlen(name));
    const auto dataLength = static_cast<std::uint16_t>(std::min(data.length, kMaxChunk));
    logPrint(4,
             "sendFileBegin Called, obj: %p, \n\tfilename: %s, \n\tdata, %p, \n\tdatalen: %d,\n\tpartial, %d, "
             "\n\tp_real: %d\n",
             static_cast<void*>(connection), name, static_cast<const void*>(data.bytes), dataLength, partial,
             nameLength);
    const std::size_t padding = printRequestPadding(nameLength, dataLength);
    const std::uint8_t major = prepareFinalForm(connection, data, padding);
    if (data.pipe && major == 0) return 0;
    auto fixed = encodeFileBeginFixed(major, partial != 0, nameLength, dataLength);
    iovec parts[2 + 5] = {};
    parts[2] = {fixed.data(), fixed.size()};
    parts[3] = {const_cast<char*>(name), nameLength};
    parts[4] = {const_cast<std::uint8_t*>(data.bytes), dataLength};
    parts[5] = {nullptr, static_cast<decltype(iovec::iov_len)>(padding)};  // libxcb supplies the zeros
    // A piped chunk's bytes and zeros follow from the pipe.
    return exchange(connection, kBegin, std::span<iovec>(parts).first(data.pipe ? 4 : 6), moreFilesAccepted, data.pipe);
}

int sendContinue(xcb_connection_t* connection, const Chunk& data, int more, std::uint32_t& moreFilesAccepted) {
    const auto dataLength = static_cast<std::uint16_t>(std::min(data.length, kMaxChunk));
    logPrint(4, "sendFileContinue called, obj:%p\n\tdata:%p\n\tdlen: %d\n\tmore:%d\n", static_cast<void*>(connection),
             static_cast<const void*>(data.bytes), dataLength, more);
    const std::size_t padding = printRequestPadding(0, dataLength);
    const std::uint8_t major = prepareFinalForm(connection, data, padding);
    if (data.pipe && major == 0) return 0;
    auto fixed = encodeFileContinueFixed(major, more != 0, dataLength);
    iovec parts[2 + 3] = {};
    parts[2] = {fixed.data(), fixed.size()};
    parts[3] = {const_cast<std::uint8_t*>(data.bytes), dataLength};
    parts[4] = {nullptr, static_cast<decltype(iovec::iov_len)>(padding)};
    return exchange(connection, kContinue, std::span<iovec>(parts).first(data.pipe ? 3 : 5), moreFilesAccepted,
                    data.pipe);
}

}  // namespace

int sendFileBegin(xcb_connection_t* connection, const char* name, std::span<const std::uint8_t> data, int partial,
                  std::uint32_t& moreFilesAccepted) {
    return sendBegin(connection, name, {data.data(), nullptr, data.size()}, partial, moreFilesAccepted);
}

int sendFileContinue(xcb_connection_t* connection, std::span<const std::uint8_t> data, int more,
                     std::uint32_t& moreFilesAccepted) {
    return sendContinue(connection, {data.data(), nullptr, data.size()}, more, moreFilesAccepted);
}

int sendFileBegin(xcb_connection_t* connection, const char* name, platform::FilePipe& data, std::size_t length,
                  int partial, std::uint32_t& moreFilesAccepted) {
    return sendBegin(connection, name, {nullptr, &data, length}, partial, moreFilesAccepted);
}

int sendFileContinue(xcb_connection_t* connection, platform::FilePipe& data, std::size_t length, int more,
                     std::uint32_t& moreFilesAccepted) {
    return sendContinue(connection, {nullptr, &data, length}, more, moreFilesAccepted);
}

int printXError(const xcb_generic_error_t& error) {
    logPrint(1, "X Protocol error Number: %d", error.error_code);
    if (error.error_code < kCoreErrorCount) logPrint(1, "(%s)", kCoreErrorNames[error.error_code]);
    logPrint(1, "\n\tSequence: %d\n\tMajor, Minor: %d,%d\n\tResource ID: %d\n", error.sequence, error.major_code,
             error.minor_code, static_cast<int>(error.resource_id));
    return 1;
}
