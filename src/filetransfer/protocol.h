// Wire layout of the file-transfer extension: names, opcodes, event numbers.
#pragma once

#include <cstddef>
#include <cstdint>

inline constexpr const char* kFileTransferExtensionName = "QRV_ThinFileTransfer12";

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

// Message kinds of a TransferRequest event.
inline constexpr std::uint8_t kEventStart = 0;
inline constexpr std::uint8_t kEventStartReplacing = 2;
inline constexpr std::uint8_t kEventChunk = 4;
inline constexpr std::uint8_t kEventNextChunk = 5;
inline constexpr std::uint8_t kEventAbort = 7;
inline constexpr std::uint8_t kEventCompleted = 8;
inline constexpr std::uint8_t kEventSessionClosed = 13;
inline constexpr std::uint8_t kEventRefusedFirst = 14;
inline constexpr std::uint8_t kEventRefusedLast = 17;

// Message kinds of a FileTransferReply.
inline constexpr std::uint8_t kReplyTargetExists = 1;
inline constexpr std::uint8_t kReplyOpened = 3;
inline constexpr std::uint8_t kReplyChunk = 4;
inline constexpr std::uint8_t kReplyChunkStored = 5;
inline constexpr std::uint8_t kReplyNoTransfer = 6;
inline constexpr std::uint8_t kReplyEnd = 8;
inline constexpr std::uint8_t kReplySessionStart = 9;
inline constexpr std::uint8_t kReplyCommandLineStart = 10;

// Directions and object types.
inline constexpr std::uint8_t kDirectionToDesktop = 1;
inline constexpr std::uint8_t kDirectionFromDesktop = 2;
inline constexpr std::uint8_t kObjectOpenFile = 0;
inline constexpr std::uint8_t kObjectFile = 1;
inline constexpr std::uint8_t kObjectMoveFile = 2;
inline constexpr std::uint8_t kObjectMoveFileToo = 3;
inline constexpr std::uint8_t kObjectDirectory = 6;

// One chunk of file data per exchange.
inline constexpr std::size_t kChunkSize = 131072;
