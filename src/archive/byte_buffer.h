// A growable byte queue kept in one heap block: a header of two 32-bit words (capacity, length)
// followed by the data. A null pointer is a valid, empty buffer. The archive streams keep in it
// the bytes they could not consume or deliver yet.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>

#include "common/printf_format.h"

struct ByteBuffer {
    std::uint32_t capacity;  // bytes of data space after the header
    std::uint32_t length;    // bytes in use
};

inline constexpr std::size_t kByteBufferHeaderSize = 8;
static_assert(sizeof(ByteBuffer) == kByteBufferHeaderSize);

// Makes room for `extra` more bytes behind the length and returns the (possibly moved) block.
// The caller copies its bytes to data + length and raises the length itself. When the request
// cannot be met the buffer comes back unchanged (too large: more than 4 GiB in all) or null
// (allocation failure: the old block is gone); both are reported on the report channel.
ByteBuffer* byteBufferReserve(ByteBuffer* buffer, std::uint32_t extra);

inline std::uint32_t byteBufferCapacity(const ByteBuffer* buffer) { return buffer ? buffer->capacity : 0; }
inline std::uint32_t byteBufferLength(const ByteBuffer* buffer) { return buffer ? buffer->length : 0; }
inline std::uint8_t* byteBufferData(ByteBuffer* buffer) {
    return buffer ? reinterpret_cast<std::uint8_t*>(buffer) + kByteBufferHeaderSize : nullptr;
}
inline std::span<std::uint8_t> byteBufferBytes(ByteBuffer* buffer) {
    return {byteBufferData(buffer), byteBufferLength(buffer)};
}

// Appends bytes, growing the block; false when the room could not be made (the content is kept
// when the block survived).
bool byteBufferAppend(ByteBuffer*& buffer, std::span<const std::uint8_t> bytes);
// Removes `count` bytes from the front, moving the rest to the start.
void byteBufferConsume(ByteBuffer* buffer, std::uint32_t count);

struct ByteBufferDeleter {
    void operator()(ByteBuffer* buffer) const;
};
using ByteBufferPtr = std::unique_ptr<ByteBuffer, ByteBufferDeleter>;

// Grows an owned buffer in place of the raw call.
inline void byteBufferReserve(ByteBufferPtr& buffer, std::uint32_t extra) {
    buffer.reset(byteBufferReserve(buffer.release(), extra));
}
inline bool byteBufferAppend(ByteBufferPtr& buffer, std::span<const std::uint8_t> bytes) {
    ByteBuffer* raw = buffer.release();
    const bool ok = byteBufferAppend(raw, bytes);
    buffer.reset(raw);
    return ok;
}

// The buffer's diagnostic channel. Messages are formatted into a fixed 1024-byte area under a
// lock set up once on first use and handed to the hook, if one is set; without a hook they are
// dropped.
using ByteBufferReportHook = void (*)(const char* text, std::size_t length);
void setByteBufferReportHook(ByteBufferReportHook hook);
void byteBufferReport(const char* format, ...) VAROFT_PRINTF_FORMAT(1, 2);
