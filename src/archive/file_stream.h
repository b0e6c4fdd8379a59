// The OS file stream: a plain local file behind the zip stream interface.
#pragma once

#include <cstdint>

namespace platform {
class File;
}

// A new, closed file stream; null on exhaustion. Free it with mz_stream_delete.
void* mz_stream_os_create();
// The file behind a file stream, for moving its bytes without the stream; null for any other
// stream.
platform::File* mz_stream_os_file(void* stream);
