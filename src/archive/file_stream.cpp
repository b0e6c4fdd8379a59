#include "archive/file_stream.h"

#include <new>
#include <span>

#include "archive/stream.h"
#include "platform/platform.h"

namespace {

struct OsStream {
    mz_stream header;
    platform::File file;
    std::int32_t error = 0;  // the system error of the last failing call
};

OsStream* self(void* stream) { return static_cast<OsStream*>(stream); }

std::int32_t osOpen(void* stream, const char* path, std::int32_t mode) {
    if (!path) return MZ_PARAM_ERROR;
    platform::OpenMode how;
    if ((mode & MZ_OPEN_MODE_READWRITE) == MZ_OPEN_MODE_READ) {
        how = platform::OpenMode::Read;
    } else if (mode & MZ_OPEN_MODE_APPEND) {
        how = platform::OpenMode::Append;
    } else if (mode & MZ_OPEN_MODE_CREATE) {
        how = platform::OpenMode::WriteTruncate;
    } else {
        how = platform::OpenMode::ReadWrite;
    }
    if (!self(stream)->file.open(path, how)) {
        self(stream)->error = platform::lastError();
        return MZ_OPEN_ERROR;
    }
    return MZ_OK;
}

std::int32_t osIsOpen(void* stream) { return self(stream)->file.isOpen() ? MZ_OK : MZ_OPEN_ERROR; }

std::int32_t osRead(void* stream, void* buf, std::int32_t size) {
    if (size < 0) return MZ_PARAM_ERROR;
    const std::int64_t n =
        self(stream)->file.read(std::span<std::uint8_t>(static_cast<std::uint8_t*>(buf), static_cast<std::size_t>(size)));
    if (n < 0) {
        self(stream)->error = platform::lastError();
        return MZ_READ_ERROR;
    }
    return static_cast<std::int32_t>(n);
}

std::int32_t osWrite(void* stream, const void* buf, std::int32_t size) {
    if (size < 0) return MZ_PARAM_ERROR;
    const std::int64_t n = self(stream)->file.write(
        std::span<const std::uint8_t>(static_cast<const std::uint8_t*>(buf), static_cast<std::size_t>(size)));
    if (n < 0) {
        self(stream)->error = platform::lastError();
        return MZ_WRITE_ERROR;
    }
    return static_cast<std::int32_t>(n);
}

std::int64_t osTell(void* stream) {
    const std::int64_t position = self(stream)->file.tell();
    if (position < 0) {
        self(stream)->error = platform::lastError();
        return MZ_TELL_ERROR;
    }
    return position;
}

std::int32_t osSeek(void* stream, std::int64_t offset, std::int32_t origin) {
    platform::SeekOrigin from;
    switch (origin) {
        case MZ_SEEK_SET: from = platform::SeekOrigin::Set; break;
        case MZ_SEEK_CUR: from = platform::SeekOrigin::Current; break;
        case MZ_SEEK_END: from = platform::SeekOrigin::End; break;
        default: return MZ_SEEK_ERROR;
    }
    if (self(stream)->file.seek(offset, from) < 0) {
        self(stream)->error = platform::lastError();
        return MZ_SEEK_ERROR;
    }
    return MZ_OK;
}

std::int32_t osClose(void* stream) {
    if (!self(stream)->file.close()) {
        self(stream)->error = platform::lastError();
        return MZ_CLOSE_ERROR;
    }
    return MZ_OK;
}

std::int32_t osError(void* stream) { return self(stream)->error; }

void* osCreate();

void osDestroy(void** stream) {
    if (!stream) return;
    delete self(*stream);
    *stream = nullptr;
}

const mz_stream_vtbl kOsTable = {osOpen, osIsOpen, osRead, osWrite, osTell, osSeek, osClose,
                                 osError, osCreate, osDestroy, nullptr, nullptr};

void* osCreate() {
    auto* stream = new (std::nothrow) OsStream{};
    if (!stream) return nullptr;
    stream->header.vtbl = &kOsTable;
    return stream;
}

}  // namespace

void* mz_stream_os_create() { return osCreate(); }

platform::File* mz_stream_os_file(void* stream) {
    if (!stream || static_cast<mz_stream*>(stream)->vtbl != &kOsTable) return nullptr;
    return &self(stream)->file;
}
