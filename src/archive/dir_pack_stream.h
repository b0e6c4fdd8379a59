// DirPackStream: a read-only stream that yields, on demand, the bytes of a ZIP archive of a
// local directory tree. Reading it walks the tree depth-first; the walk reads files a few blocks
// ahead of the reader and worker threads (one per core) deflate them meanwhile, while the reader
// takes the archive's bytes in order. The archive never exists whole in memory or on disk, and
// its bytes are the same whatever the number of workers and the sizes of the reads.
//
// Driven through the generic stream calls: mz_stream_open(stream, directory,
// MZ_OPEN_MODE_READ), mz_stream_read until it returns MZ_END_OF_STREAM, mz_stream_tell (archive
// bytes produced so far), mz_stream_close, mz_stream_error, mz_stream_delete. A file that cannot
// be read is left out and the walk goes on; a failure while adding one is kept (sticky) and
// returned by mz_stream_error and mz_stream_close, and the progress callback reports it.
#pragma once

#include <cstdint>

// Chooses a file's compression method from its bare name (0 stored, 8 deflate, 93 zstd, which
// is written as deflate), or a negative value to leave the file out. Without a callback every
// file is deflated.
using PackMethodCallback = std::int32_t (*)(const char* name);
// Called at the end of every read: the current entry's name (relative, '/'-separated), its size
// and the bytes of it compressed so far, and the status: 0 walking, 1 walk over (then the name
// is empty and both sizes are 0), 2 failed.
using PackProgressCallback = void (*)(void* user, const char* entryName, std::int64_t entrySize,
                                      std::int64_t entryDone, std::int32_t status);

// A new, closed stream object; null on exhaustion. Free it with mz_stream_delete.
void* createDirPackStream();
void setDirPackStreamCallbacks(void* stream, PackMethodCallback method, PackProgressCallback progress,
                               void* user);
// The number of worker threads from the next open on; 0 (the default) means one per core, or
// VAROFT_PACK_WORKERS when that is set.
void setDirPackStreamWorkers(void* stream, unsigned count);
