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
//
// Every name is resolved below the target directory, held open from open to close, and no
// symbolic link is followed on the way. Every file is created new: whatever held its name (a
// file, a hard link, a FIFO, a device, a link) is unlinked first, never written through or
// opened. Bytes after the central directory are counted and dropped.
//
// Entries whose sizes their local headers give are decoded by worker threads, several at once,
// while later chunks are read; their files are still made in archive order and each failure is
// the one reading in order meets first, with nothing made after it. Such a failure is known
// once the entry is decoded: a later write than the one that carried it may be the first to
// return it (at the latest the write that reaches the central directory), and when the chunks
// stop before that, endDirUnpackStreamWrites finds it.
//
// A failing write or close leaves the platform's error code of the failure readable through
// platform::lastError(): the failing system call's, or for failures no system call reports
// one that describes them (damaged data, an unsupported method, a name that would leave the
// target, a zstd window over the limit). dirUnpackStreamSystemError returns it as well.
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
// The platform's error code of the stream's first failure since open; 0 while healthy.
int dirUnpackStreamSystemError(void* stream);
// The bytes the stream holds for the chunks to come, and those it dropped after the central
// directory since open.
std::int64_t dirUnpackStreamHeldBytes(void* stream);
std::int64_t dirUnpackStreamDroppedBytes(void* stream);
// No more chunks come (the transfer ended, whichever way): what the writes left to the workers
// is decoded and made now, as reading in order would have made it during the writes. True when
// that met the stream's first failure, which a write reading in order would have returned: the
// caller reports it as it would a failed write, and platform::lastError() holds its code as after
// one. Writes are refused from then on (MZ_OPEN_ERROR); close does the rest, as always.
bool endDirUnpackStreamWrites(void* stream);
// The number of threads that decode from the next open on: 1 decodes in order on the writing
// thread; 0 (the default) means one per core, or VAROFT_UNPACK_WORKERS when that is set.
void setDirUnpackStreamWorkers(void* stream, unsigned count);
