// Deleting and renaming local files and directories at the far side's request (the handlers are
// in dispatch.h). Each request is answered by one FileTransferStatus, except a rename that lacks
// a name, which gets no answer.
#pragma once

#include <cstdint>
#include <span>
#include <string_view>

// A DeleteFileRequest as decoded; the view points into the event, up to its first NUL byte.
struct DeleteRequest {
    std::uint16_t length = 0;
    std::string_view path;
};

// A RenameFileRequest as decoded; each view points into the event, up to its first NUL byte.
struct RenameRequest {
    std::uint16_t oldLength = 0;
    std::uint16_t newLength = 0;
    std::string_view oldName;
    std::string_view newName;
};

// Decode the events as libxcb delivered them. False when the event is shorter than its fixed
// fields or a length claims bytes it does not hold.
bool decodeDeleteRequest(std::span<const std::uint8_t> event, DeleteRequest& out);
bool decodeRenameRequest(std::span<const std::uint8_t> event, RenameRequest& out);
