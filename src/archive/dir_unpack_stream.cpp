#include "archive/dir_unpack_stream.h"

#include <new>
#include <span>
#include <string>

#include "archive/deflate_workers.h"
#include "archive/extraction.h"
#include "archive/local_record_parser.h"
#include "archive/stream.h"
#include "platform/platform.h"

namespace {

constexpr std::int32_t kUnsupportedModeBit = 0x1000000;
// The stream object: the parser reads the archive, the extraction makes what it finds.
struct UnpackStream {
    mz_stream header;
    std::string basePath;  // the target directory, ending in '/'; empty while closed
    LocalRecordParser parser;
    Extraction extraction;
    std::int32_t error = 0;  // sticky: the first failure of either, in archive order
    int systemError = 0;     // the platform's error code of the sticky error, for its text
    bool inWrite = false;
    bool receivedBytes = false;  // a non-empty chunk arrived since open
    bool writesEnded = false;    // endDirUnpackStreamWrites ran since open
    unsigned workerCount = 0;    // 0: the machine's (defaultWorkerCount)
    void* progressUser = nullptr;
    UnpackProgressCallback progress = nullptr;
};

UnpackStream* self(void* stream) { return static_cast<UnpackStream*>(stream); }

// Takes the first failure: the extraction's comes before any the parser found after it.
void collectFailure(UnpackStream* s) {
    if (s->error != 0) return;
    if (s->extraction.error() != 0) {
        s->error = s->extraction.error();
        s->systemError = s->extraction.systemError();
    } else if (s->parser.error() != 0) {
        s->error = s->parser.error();
        s->systemError = s->parser.systemError();
    }
}

void reportProgress(UnpackStream* s) {
    if (!s->progress) return;
    const bool end = s->parser.state() == LocalRecordParser::kEnd;
    const std::int32_t status = s->error != 0 ? 2 : end ? 1 : 0;
    if (end) {
        s->progress(s->progressUser, "", 0, 0, status);
    } else {
        const LocalEntry& entry = s->parser.entry();
        s->progress(s->progressUser, entry.filename.c_str(), entry.uncompressedSize, s->parser.produced(), status);
    }
}

// ---- operation table --------------------------------------------------------------------------

std::int32_t unpackIsOpen(void* stream) { return self(stream)->basePath.empty() ? MZ_OPEN_ERROR : MZ_OK; }

std::int32_t unpackOpen(void* stream, const char* path, std::int32_t mode) {
    UnpackStream* s = self(stream);
    if (!s || !path || !s->basePath.empty()) return MZ_PARAM_ERROR;
    if (mode & kUnsupportedModeBit) return MZ_INTERNAL_ERROR;
    if (*path == '\0') return MZ_OPEN_ERROR;
    const unsigned workers = s->workerCount != 0 ? s->workerCount : defaultWorkerCount("VAROFT_UNPACK_WORKERS");
    if (!s->extraction.open(path, workers)) return MZ_OPEN_ERROR;
    // Every open starts a fresh archive.
    s->error = 0;
    s->systemError = 0;
    s->receivedBytes = false;
    s->writesEnded = false;
    if (s->parser.start() != MZ_OK) {
        s->extraction.close();
        return MZ_MEM_ERROR;
    }
    s->basePath = path;
    if (s->basePath.back() != '/') s->basePath.push_back('/');
    return MZ_OK;
}

// A failed call leaves the failure's error code for the caller to read, whatever ran since.
std::int32_t withError(const UnpackStream* s, std::int32_t result) {
    if (result < 0 && result != MZ_END_OF_STREAM && s->error != 0) platform::setLastError(s->systemError);
    return result;
}

std::int32_t unpackRead(void* stream, void* buf, std::int32_t size) {
    UnpackStream* s = self(stream);
    if (size < 0) return MZ_PARAM_ERROR;
    if (s->basePath.empty()) return MZ_OPEN_ERROR;
    return static_cast<std::int32_t>(s->parser.read({static_cast<std::uint8_t*>(buf), static_cast<std::size_t>(size)}));
}

std::int32_t unpackWrite(void* stream, const void* buf, std::int32_t size) {
    UnpackStream* s = self(stream);
    if (size < 0) return MZ_PARAM_ERROR;
    if (s->basePath.empty() || s->writesEnded) return MZ_OPEN_ERROR;
    if (s->error != 0) return withError(s, s->error);
    if (size > 0 && !buf) return MZ_PARAM_ERROR;
    if (size > 0) s->receivedBytes = true;
    std::int32_t result;
    {
        // The extraction's thread works only inside this call; an ending signal waits for its
        // end, so the handler never removes a tree the thread is still making files in.
        platform::TerminationBlock block;
        s->inWrite = true;
        s->extraction.resume();
        result = s->parser.write({static_cast<const std::uint8_t*>(buf), static_cast<std::size_t>(size)}, s->extraction);
        s->extraction.settle();
        s->inWrite = false;
    }
    collectFailure(s);
    if (s->error != 0) result = s->error;
    reportProgress(s);
    return withError(s, result);
}

// Decodes and makes what the writes left to the workers; true when that met the first failure.
bool endWrites(UnpackStream* s) {
    if (s->basePath.empty() || s->writesEnded) return false;
    s->writesEnded = true;
    const bool healthy = s->error == 0;
    {
        platform::TerminationBlock block;
        s->extraction.resume();
        if (healthy) s->parser.finish(s->extraction);
        s->extraction.drain();
    }
    collectFailure(s);
    return healthy && s->error != 0;
}

std::int32_t unpackClose(void* stream) {
    UnpackStream* s = self(stream);
    if (s->inWrite) return MZ_OK;  // called from inside a write
    if (s->basePath.empty()) return withError(s, s->error);
    endWrites(s);
    {
        platform::TerminationBlock block;
        s->extraction.close();
    }
    collectFailure(s);
    // Bytes came but the central directory never did: the tree is incomplete.
    if (s->error == 0 && s->receivedBytes && s->parser.state() != LocalRecordParser::kEnd) {
        s->error = MZ_FORMAT_ERROR;
        s->systemError = platform::failureCode(platform::Failure::DamagedData);
    }
    s->basePath.clear();
    s->basePath.shrink_to_fit();
    s->parser.release();
    return withError(s, s->error);
}

std::int32_t unpackError(void* stream) { return self(stream)->error; }

void* unpackCreate();

void unpackDestroy(void** stream) {
    if (!stream || !*stream) return;
    unpackClose(*stream);
    delete self(*stream);
    *stream = nullptr;
}

const mz_stream_vtbl kUnpackTable = {unpackOpen,  unpackIsOpen, unpackRead,   unpackWrite,   nullptr, nullptr,
                                     unpackClose, unpackError,  unpackCreate, unpackDestroy, nullptr, nullptr};

void* unpackCreate() {
    auto* stream = new (std::nothrow) UnpackStream{};
    if (!stream) return nullptr;
    stream->header.vtbl = &kUnpackTable;
    return stream;
}

}  // namespace

void* createDirUnpackStream() { return unpackCreate(); }

void setDirUnpackStreamProgress(void* stream, UnpackProgressCallback progress, void* user) {
    if (!stream) return;
    self(stream)->progress = progress;
    self(stream)->progressUser = user;
}

int dirUnpackStreamSystemError(void* stream) { return stream ? self(stream)->systemError : 0; }

std::int64_t dirUnpackStreamHeldBytes(void* stream) { return stream ? self(stream)->parser.heldCapacity() : 0; }

std::int64_t dirUnpackStreamDroppedBytes(void* stream) { return stream ? self(stream)->parser.droppedBytes() : 0; }

bool endDirUnpackStreamWrites(void* stream) {
    if (!stream) return false;
    UnpackStream* s = self(stream);
    if (s->inWrite || !endWrites(s)) return false;
    platform::setLastError(s->systemError);
    return true;
}

void setDirUnpackStreamWorkers(void* stream, unsigned count) {
    if (stream) self(stream)->workerCount = count;
}
