// The OS file stream: a plain local file behind the zip stream interface.
#pragma once

#include <cstdint>

// A new, closed file stream; null on exhaustion. Free it with mz_stream_delete.
void* mz_stream_os_create();
