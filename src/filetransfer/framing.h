// Framing of the file-transfer extension: finding it, the two request messages the client sends
// (FileTransferReply and FileTransferStatus) and the header of the generic events in which the
// far side sends its own requests.
//
// The encoders are pure functions so the exact bytes can be checked without a connection; the
// senders hand the same parts to libxcb.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string_view>
#include <vector>

#include <xcb/xcb.h>

// ---- FileTransferReply (minor opcode 115) ----------------------------------------------------

inline constexpr std::size_t kReplyFixedSize = 24;

struct FileTransferReplyFields {
    std::uint8_t direction = 0;   // 1 local -> desktop, 2 desktop -> local
    std::uint8_t objectType = 0;  // 1 file, 6 directory, 0 file to open
    std::uint8_t openFlag = 0;
    std::uint8_t kind = 0;        // message kind
    std::uint64_t size = 0;
    std::string_view a;           // string A
    std::string_view b;           // string B
    std::span<const std::uint8_t> c;  // block C
};

// What actually goes on the wire for the given fields: the string lengths are kept in 16-bit
// cells (a longer string is cut to the low 16 bits of its length), and block C is dropped when
// the direction is 2 (its length is then written as 0).
struct ReplyParts {
    std::string_view a;
    std::string_view b;
    std::span<const std::uint8_t> c;
    std::size_t padding = 0;  // zero bytes after the variable part
};
ReplyParts replyParts(const FileTransferReplyFields& fields);

// The 24-byte fixed part. Bytes 0..3 (opcodes, length) are left 0: libxcb fills them.
std::array<std::uint8_t, kReplyFixedSize> encodeFileTransferReplyFixed(const FileTransferReplyFields& fields);
// The whole request as the server receives it, with the given major opcode and length filled.
std::vector<std::uint8_t> encodeFileTransferReply(std::uint8_t majorOpcode, const FileTransferReplyFields& fields);

// ---- FileTransferStatus (minor opcode 119) ---------------------------------------------------

inline constexpr std::size_t kStatusFixedSize = 16;

// Request kinds a status answers.
inline constexpr std::uint8_t kStatusTransfer = 0;
inline constexpr std::uint8_t kStatusTransferTarget = 1;
inline constexpr std::uint8_t kStatusRename = 2;
inline constexpr std::uint8_t kStatusDelete = 3;
inline constexpr std::uint8_t kStatusListing = 4;

std::array<std::uint8_t, kStatusFixedSize> encodeFileTransferStatusFixed(std::uint8_t requestKind, bool failed,
                                                                        std::uint32_t pathLength,
                                                                        std::uint32_t errorLength);
std::vector<std::uint8_t> encodeFileTransferStatus(std::uint8_t majorOpcode, std::uint8_t requestKind, bool failed,
                                                   std::string_view path, std::string_view errorText);

// ---- generic events --------------------------------------------------------------------------

struct GenericEventHeader {
    std::uint8_t responseType = 0;
    std::uint8_t extension = 0;
    std::uint16_t sequence = 0;
    std::uint32_t length = 0;  // further 4-byte units after wire byte 32
    std::uint16_t eventType = 0;
};

// Bytes of a generic event as libxcb delivers it: 32 bytes, its 4-byte full sequence, then the
// length * 4 bytes that followed on the wire.
inline constexpr std::size_t kGenericEventPayloadOffset = 36;
inline std::size_t genericEventBufferSize(std::uint32_t length) {
    return kGenericEventPayloadOffset + static_cast<std::size_t>(length) * 4;
}

// Decodes the first 10 bytes; nullopt when fewer than 32 bytes are given.
std::optional<GenericEventHeader> decodeGenericEventHeader(std::span<const std::uint8_t> buffer);

// The whole buffer of a generic event that libxcb handed over (its real size follows from the
// length field, which libxcb itself used to read the event).
std::span<const std::uint8_t> genericEventBytes(const xcb_generic_event_t* event);

// ---- sending ---------------------------------------------------------------------------------

// Looks the extension up (libxcb caches the answer) and keeps the result in ExtensionInfo.
// Null when libxcb gives nothing; the reply's present flag is not consulted.
const xcb_query_extension_reply_t* findExtension(xcb_connection_t* connection);

// Sends a FileTransferReply without flushing; logs "Sending file transfer reply." at level 2.
void sendFileTransferReply(xcb_connection_t* connection, const FileTransferReplyFields& fields);

// Sends a FileTransferStatus; with `failed` the text of the last platform error goes with it, so
// call it right after the failing call. An empty path sends none.
void sendFileTransferStatus(xcb_connection_t* connection, std::string_view path, std::uint8_t requestKind,
                            bool failed);

// An event whose length fields claim more bytes than it holds is dropped without an answer;
// this logs the level-2 line that says so.
void logDroppedEvent(std::uint16_t eventType);
