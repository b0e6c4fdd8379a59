// The far side's requests, from the bytes of one generic event to the handler that serves it.
// The event loop (xcb_wire.cpp) feeds it what libxcb delivers; tests and the fuzzer feed it
// bytes of their own.
#pragma once

#include <cstdint>
#include <span>

#include "filetransfer/session.h"

// Hands one event (32 bytes, the full sequence, the payload) to its handler when it is a
// generic event of the extension whose major opcode is `extension`; other events are dropped.
Outcome dispatchEvent(Session& session, std::uint8_t extension, std::span<const std::uint8_t> event);

// The handlers, one per event type; each answers through session.wire.
Outcome handleTransferRequest(Session& session, std::span<const std::uint8_t> event);  // 90
Outcome handleListingRequest(Session& session, std::span<const std::uint8_t> event);   // 91
Outcome handleDeleteRequest(Session& session, std::span<const std::uint8_t> event);    // 75
Outcome handleRenameRequest(Session& session, std::span<const std::uint8_t> event);    // 93

// The unpack stream's workers may still hold the last entries of a directory being received
// when its chunks stop; a failure among them is reported as the write of its chunk would have
// reported it, reading in order. Called when the transfer ends, whichever way; no more chunks
// are written after it.
void endUnpackWrites(Session& session);
