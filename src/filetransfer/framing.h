// The messages of the file-transfer extension, encoded and decoded field by field without a
// connection: the three requests the client sends (FileTransferReply, FileTransferStatus,
// FileListItem) and the generic events in which the far side sends its own requests.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

// ---- the transfer header ---------------------------------------------------------------------

// The seven fields a TransferRequest event and a FileTransferReply share, and that the transfer
// in progress keeps from one event to the next.
struct TransferHeader {
    std::uint8_t direction = 0;   // 1 local -> desktop, 2 desktop -> local
    std::uint8_t objectType = 0;  // 1 file, 2 and 3 file to move, 6 directory, 0 file to open
    std::uint8_t openFlag = 0;
    std::uint8_t kind = 0;        // message kind
    std::uint64_t size = 0;
    std::string nameA;            // string A: the desktop's name
    std::string nameB;            // string B: the local name
};

// ---- FileTransferReply (minor opcode 115) ----------------------------------------------------

inline constexpr std::size_t kReplyFixedSize = 24;

// What actually goes on the wire for a header and block C: the string lengths are kept in 16-bit
// cells (a longer string is cut to the low 16 bits of its length), and block C is dropped when
// the direction is 2 (its length is then written as 0).
struct ReplyParts {
    std::string_view a;
    std::string_view b;
    std::span<const std::uint8_t> c;
    std::size_t padding = 0;  // zero bytes after the variable part
};
ReplyParts replyParts(const TransferHeader& header, std::span<const std::uint8_t> c);

// The 24-byte fixed part. Bytes 0..3 (opcodes, length) are left 0: libxcb fills them.
std::array<std::uint8_t, kReplyFixedSize> encodeFileTransferReplyFixed(const TransferHeader& header,
                                                                       std::span<const std::uint8_t> c);
// The whole request as the server receives it, with the given major opcode and length filled.
std::vector<std::uint8_t> encodeFileTransferReply(std::uint8_t majorOpcode, const TransferHeader& header,
                                                  std::span<const std::uint8_t> c);

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

// ---- FileListItem (minor opcode 116) ---------------------------------------------------------

inline constexpr std::size_t kListItemFixedSize = 24;

// Entry types of an item; files carry their class letter ('t', 'p', 'a', 'b') instead.
inline constexpr std::uint8_t kItemEnd = 0;
inline constexpr std::uint8_t kItemDirectory = 1;
inline constexpr std::uint8_t kItemListedDirectory = 2;

struct FileListItemFields {
    std::uint64_t size = 0;
    std::uint8_t type = 0;
    std::string_view name;
};

// The 24-byte fixed part; bytes 0..3 (opcodes, length) are left 0 for libxcb.
std::array<std::uint8_t, kListItemFixedSize> encodeFileListItemFixed(const FileListItemFields& fields);
// The whole request as the server receives it, with the major opcode and length filled.
std::vector<std::uint8_t> encodeFileListItem(std::uint8_t majorOpcode, const FileListItemFields& fields);

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

// Names longer than this are not taken from an event.
inline constexpr std::size_t kNameMax = 1023;

// A TransferRequest event as decoded. The names are taken up to their first NUL byte, and only
// when their length is 1..kNameMax (hasName); `data` points into the event (kind 4 only).
struct TransferRequest {
    TransferHeader header;
    bool hasNameA = false;
    bool hasNameB = false;
    std::span<const std::uint8_t> data;
};

// Decodes the event as libxcb delivered it (32 bytes, full sequence, payload). False when the
// event is too short for its fixed fields or a length field claims bytes it does not hold.
bool decodeTransferRequest(std::span<const std::uint8_t> event, TransferRequest& out);

// An event whose length fields claim more bytes than it holds is dropped without an answer;
// this logs the level-2 line that says so.
void logDroppedEvent(std::uint16_t eventType);
