// The memory stream: a growable in-memory file behind the zip stream interface. Opened with
// MZ_OPEN_MODE_CREATE it starts with a buffer of the grow size and grows in steps of it; opened
// otherwise it reads and overwrites a buffer handed over with mz_stream_mem_set_buffer (never
// growing it).
#pragma once

#include <cstdint>

// A new, closed memory stream (grow step 4096); null on exhaustion. Free with mz_stream_delete.
void* mz_stream_mem_create();
// The step by which a created buffer grows (also its first size). Must be positive.
void mz_stream_mem_set_grow_size(void* stream, std::int32_t grow_size);
// Lends a fixed buffer to a stream that will be opened without MZ_OPEN_MODE_CREATE.
void mz_stream_mem_set_buffer(void* stream, void* buf, std::int32_t size);
// The whole buffer and the number of bytes written to it (the high-water mark).
std::int32_t mz_stream_mem_get_buffer(void* stream, const void** buf);
std::int32_t mz_stream_mem_get_buffer_length(void* stream, std::int32_t* length);
// Capacity of the current buffer.
std::int32_t mz_stream_mem_get_capacity(void* stream);
