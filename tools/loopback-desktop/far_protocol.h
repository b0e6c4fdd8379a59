// The far side's view of the two vendor extensions: decoding what the client sends (requests
// in ordinary form, as XServer hands them out) and encoding the payloads of the events it
// sends (the bytes after byte 32 on the wire, for XServer::sendGenericEvent).
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace loopback {

// Minor opcodes of the file-transfer extension's requests.
inline constexpr std::uint8_t kFileTransferReply = 115;
inline constexpr std::uint8_t kFileListItem = 116;
inline constexpr std::uint8_t kFileTransferStatus = 119;
// Minor opcodes of the print extension's requests.
inline constexpr std::uint8_t kPrintBegin = 1;
inline constexpr std::uint8_t kPrintContinue = 2;
// Event types of the file-transfer extension.
inline constexpr std::uint16_t kDeleteFileRequest = 75;
inline constexpr std::uint16_t kTransferRequest = 90;
inline constexpr std::uint16_t kListDirectoryRequest = 91;
inline constexpr std::uint16_t kRenameFileRequest = 93;

// Transfer directions and object types as both sides use them.
inline constexpr std::uint8_t kToDesktop = 1;    // from the client's machine to the desktop
inline constexpr std::uint8_t kFromDesktop = 2;  // from the desktop to the client's machine
inline constexpr std::uint8_t kObjectOpen = 0;
inline constexpr std::uint8_t kObjectFile = 1;
inline constexpr std::uint8_t kObjectMove = 2;  // a file the client removes once it is sent
inline constexpr std::uint8_t kObjectDirectory = 6;

// FileTransferReply (115). `block` is block C: the data of a kind-4 reply, the drive list of
// the session start.
struct TransferReply {
    std::uint8_t direction = 0, objectType = 0, openFlag = 0, kind = 0;
    std::uint64_t size = 0;
    std::string nameA, nameB;
    std::vector<std::uint8_t> block;
};

// The same fields where they lie in the request, valid as long as its bytes are: how a file's
// data chunks are taken, without a copy.
struct TransferReplyView {
    std::uint8_t direction = 0, objectType = 0, openFlag = 0, kind = 0;
    std::uint64_t size = 0;
    std::string_view nameA, nameB;
    std::span<const std::uint8_t> block;
};

// FileTransferStatus (119).
struct TransferStatus {
    std::uint8_t requestKind = 0;
    std::uint8_t status = 0;  // 0 success, 1 failure
    std::string path, error;
};

// FileListItem (116). `type` is 0 (end), 1 (directory), 2 (the listed directory) or a class
// letter ('t', 'p', 'a', 'b').
struct ListItem {
    std::uint64_t size = 0;
    std::uint8_t type = 0;
    std::string name;
};

// sendFileBegin (1) and sendFileContinue (2) of the print extension; `more` is the Begin's
// "partial" or the Continue's "more" flag. `name` is empty for a Continue.
struct PrintChunk {
    bool begin = false;
    std::uint8_t more = 0;
    std::string name;
    std::vector<std::uint8_t> data;
};

// Each decoder checks every length against the request's real size and fails (nullopt) on a
// request that is too short or whose fields claim more bytes than it holds.
std::optional<TransferReply> decodeTransferReply(std::span<const std::uint8_t> request);
std::optional<TransferReplyView> viewTransferReply(std::span<const std::uint8_t> request);
std::optional<TransferStatus> decodeTransferStatus(std::span<const std::uint8_t> request);
std::optional<ListItem> decodeListItem(std::span<const std::uint8_t> request);
std::optional<PrintChunk> decodePrintChunk(std::span<const std::uint8_t> request);

// The drive list of the session start: entries, each ended by a NUL. A last entry without
// its NUL is kept as it stands.
std::vector<std::string> splitDriveList(std::span<const std::uint8_t> block);

// TransferRequest (90): what the desktop asks of the client.
struct TransferEvent {
    std::uint8_t direction = 0, objectType = 0, openFlag = 0, kind = 0;
    std::uint64_t size = 0;
    std::string nameA, nameB;
    std::vector<std::uint8_t> data;  // kind 4 only
};

std::vector<std::uint8_t> encodeTransferEvent(const TransferEvent& event);
std::vector<std::uint8_t> encodeListDirectory(std::string_view path);
std::vector<std::uint8_t> encodeDeleteFile(std::string_view path);
std::vector<std::uint8_t> encodeRenameFile(std::string_view oldName, std::string_view newName);

// Readable names for log lines.
std::string transferKindName(std::uint8_t kind);  // event kinds and reply kinds alike

}  // namespace loopback
