// The memory stream: a growable in-memory file behind the zip stream interface. Opened with
// MZ_OPEN_MODE_CREATE it starts with a buffer of the grow size and grows in steps of it; opened
// without it, it is empty and takes no writes.
#pragma once

#include <cstdint>

// A new, closed memory stream (grow step 4096); null on exhaustion. Free with mz_stream_delete.
void* mz_stream_mem_create();
// The step by which a created buffer grows (also its first size). Must be positive.
void mz_stream_mem_set_grow_size(void* stream, std::int32_t grow_size);
