#include "archive/memory_stream.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <new>

#include "archive/stream.h"

namespace {

constexpr std::int32_t kDefaultGrowSize = 4096;

struct MemStream {
    mz_stream header;
    std::unique_ptr<std::uint8_t[]> data;  // grown in create mode; none otherwise
    std::int32_t capacity = 0;
    std::int32_t length = 0;    // bytes written so far (high-water mark)
    std::int32_t position = 0;
    std::int32_t growSize = kDefaultGrowSize;
    std::int32_t mode = 0;
    bool open = false;
};

MemStream* self(void* stream) { return static_cast<MemStream*>(stream); }

// Grows a created buffer to hold `needed` bytes, in whole steps of the grow size.
bool grow(MemStream* s, std::int64_t needed) {
    if (needed <= s->capacity) return true;
    if (!(s->mode & MZ_OPEN_MODE_CREATE)) return false;
    const std::int64_t steps = (needed + s->growSize - 1) / s->growSize;
    const std::int64_t size = steps * s->growSize;
    if (size > INT32_MAX) return false;
    std::unique_ptr<std::uint8_t[]> bigger(new (std::nothrow) std::uint8_t[static_cast<std::size_t>(size)]);
    if (!bigger) return false;
    if (s->length > 0) std::memcpy(bigger.get(), s->data.get(), static_cast<std::size_t>(s->length));
    s->data = std::move(bigger);
    s->capacity = static_cast<std::int32_t>(size);
    return true;
}

std::int32_t memOpen(void* stream, const char* /*path*/, std::int32_t mode) {
    MemStream* s = self(stream);
    s->mode = mode;
    s->position = 0;
    if (mode & MZ_OPEN_MODE_CREATE) {
        s->data.reset();
        s->capacity = 0;
        s->length = 0;
        if (!grow(s, s->growSize)) return MZ_MEM_ERROR;
    }
    s->open = true;
    return MZ_OK;
}

std::int32_t memIsOpen(void* stream) { return self(stream)->open ? MZ_OK : MZ_OPEN_ERROR; }

std::int32_t memRead(void* stream, void* buf, std::int32_t size) {
    MemStream* s = self(stream);
    if (size < 0) return MZ_PARAM_ERROR;
    const std::int32_t n = std::min(size, s->length - s->position);
    if (n <= 0) return 0;
    std::memcpy(buf, s->data.get() + s->position, static_cast<std::size_t>(n));
    s->position += n;
    return n;
}

std::int32_t memWrite(void* stream, const void* buf, std::int32_t size) {
    MemStream* s = self(stream);
    if (size < 0) return MZ_PARAM_ERROR;
    if (size == 0) return 0;
    const std::int64_t end = std::int64_t{s->position} + size;
    if (!grow(s, end)) return (s->mode & MZ_OPEN_MODE_CREATE) ? MZ_MEM_ERROR : 0;
    std::memcpy(s->data.get() + s->position, buf, static_cast<std::size_t>(size));
    s->position += size;
    s->length = std::max(s->length, s->position);
    return size;
}

std::int64_t memTell(void* stream) { return self(stream)->position; }

std::int32_t memSeek(void* stream, std::int64_t offset, std::int32_t origin) {
    MemStream* s = self(stream);
    std::int64_t target;
    switch (origin) {
        case MZ_SEEK_SET: target = offset; break;
        case MZ_SEEK_CUR: target = s->position + offset; break;
        case MZ_SEEK_END: target = s->length + offset; break;
        default: return MZ_SEEK_ERROR;
    }
    if (target < 0) return MZ_SEEK_ERROR;
    if (target > s->capacity && !grow(s, target)) return MZ_SEEK_ERROR;
    s->position = static_cast<std::int32_t>(target);
    if (s->position > s->length) {
        std::memset(s->data.get() + s->length, 0, static_cast<std::size_t>(s->position - s->length));
        s->length = s->position;
    }
    return MZ_OK;
}

std::int32_t memClose(void* stream) {
    self(stream)->open = false;
    return MZ_OK;
}

std::int32_t memError(void* /*stream*/) { return MZ_OK; }

void* memCreate();

void memDestroy(void** stream) {
    if (!stream) return;
    delete self(*stream);
    *stream = nullptr;
}

const mz_stream_vtbl kMemTable = {memOpen,  memIsOpen, memRead,   memWrite,   memTell, memSeek,
                                  memClose, memError,  memCreate, memDestroy, nullptr, nullptr};

void* memCreate() {
    auto* stream = new (std::nothrow) MemStream{};
    if (!stream) return nullptr;
    stream->header.vtbl = &kMemTable;
    return stream;
}

}  // namespace

void* mz_stream_mem_create() { return memCreate(); }

void mz_stream_mem_set_grow_size(void* stream, std::int32_t grow_size) {
    if (stream && grow_size > 0) self(stream)->growSize = grow_size;
}
