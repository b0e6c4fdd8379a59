// Moving one file or one directory between this machine and the desktop, one chunk per event
// and reply; the far side drives every step with TransferRequest events.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>

#include <xcb/xcb.h>

// Names longer than this are not taken from an event.
inline constexpr std::size_t kNameMax = 1023;

// A TransferRequest event as decoded; the views point into the event buffer.
struct TransferRequest {
    std::uint8_t direction = 0;
    std::uint8_t objectType = 0;
    std::uint8_t openFlag = 0;
    std::uint8_t kind = 0;
    std::uint64_t size = 0;
    std::uint16_t lengthA = 0;
    std::uint16_t lengthB = 0;
    std::uint32_t dataLength = 0;
    bool hasNameA = false;  // length 1..1023: the name replaces the stored one
    bool hasNameB = false;
    std::string_view nameA;
    std::string_view nameB;
    std::span<const std::uint8_t> data;  // kind 4 only
};

// Decodes the event as libxcb delivered it (32 bytes, full sequence, payload). False when the
// event is too short for its fixed fields or a length field claims bytes it does not hold.
bool decodeTransferRequest(std::span<const std::uint8_t> event, TransferRequest& out);

// Serves one TransferRequest event. May end the process (command-line runs, session end,
// refusals).
void handleTransferRequest(xcb_connection_t* connection, std::span<const std::uint8_t> event);
