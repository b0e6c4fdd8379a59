// DirUnpackStream: a write-only stream that turns the bytes of a ZIP archive, written in chunks
// of any size and in order, into files and directories below a target directory. Each entry is
// extracted as soon as its bytes arrive; the central directory is never read, so the stream can
// sit directly behind a network transfer.
//
// Driven through the generic stream calls: mz_stream_open(stream, directory,
// MZ_OPEN_MODE_WRITE | MZ_OPEN_MODE_CREATE), mz_stream_write for every chunk, mz_stream_close
// (0, or the first failure; MZ_FORMAT_ERROR when bytes were written but the central directory
// never came), mz_stream_error, mz_stream_delete. A write returns the whole chunk length while
// healthy, MZ_END_OF_STREAM once the central directory was reached, or the first failure (kept
// and returned by every later write). Every open starts a fresh archive.
#pragma once

#include <cstdint>

// Called at the end of every write call: the current entry's name and uncompressed size from
// its local header (the empty name and 0 once the archive is complete), the bytes of that entry
// written so far, and the status: 0 in progress, 1 archive complete, 2 failed.
using UnpackProgressCallback = void (*)(void* user, const char* entryName, std::int64_t entrySize,
                                        std::int64_t bytesDone, std::int32_t status);

// A new, closed stream object; null on exhaustion. Free it with mz_stream_delete.
void* createDirUnpackStream();
void setDirUnpackStreamProgress(void* stream, UnpackProgressCallback progress, void* user);
