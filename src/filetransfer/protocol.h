// Wire layout of the file-transfer extension: names, opcodes, event numbers.
#pragma once

#include <cstdint>

#include <xcb/xcb.h>

inline constexpr const char* kFileTransferExtensionName = "QRV_ThinFileTransfer12";
extern xcb_extension_t FileTransferExtension;

// Requests (minor opcodes); none expects a reply.
inline constexpr std::uint8_t kFileTransferReplyOpcode = 115;
inline constexpr std::uint8_t kFileListItemOpcode = 116;
inline constexpr std::uint8_t kFileTransferStatusOpcode = 119;

// Generic events (response type 35) and their event types.
inline constexpr std::uint8_t kGenericEvent = 35;
inline constexpr std::uint16_t kDeleteFileRequest = 75;
inline constexpr std::uint16_t kTransferRequest = 90;
inline constexpr std::uint16_t kListDirectoryRequest = 91;
inline constexpr std::uint16_t kRenameFileRequest = 93;
