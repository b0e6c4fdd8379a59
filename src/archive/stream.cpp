#include "archive/stream.h"

namespace {

const mz_stream_vtbl* table(void* stream) {
    return stream ? static_cast<mz_stream*>(stream)->vtbl : nullptr;
}

bool isOpen(void* stream) { return mz_stream_is_open(stream) == MZ_OK; }

}  // namespace

std::int32_t mz_stream_open(void* stream, const char* path, std::int32_t mode) {
    const auto* t = table(stream);
    if (!t || !t->open) return MZ_PARAM_ERROR;
    return t->open(stream, path, mode);
}

std::int32_t mz_stream_is_open(void* stream) {
    const auto* t = table(stream);
    if (!t || !t->is_open) return MZ_PARAM_ERROR;
    return t->is_open(stream);
}

std::int32_t mz_stream_read(void* stream, void* buf, std::int32_t size) {
    const auto* t = table(stream);
    if (!t || !t->read) return MZ_PARAM_ERROR;
    if (!isOpen(stream)) return MZ_STREAM_ERROR;
    return t->read(stream, buf, size);
}

std::int32_t mz_stream_write(void* stream, const void* buf, std::int32_t size) {
    const auto* t = table(stream);
    if (!t || !t->write) return MZ_PARAM_ERROR;
    if (!isOpen(stream)) return MZ_STREAM_ERROR;
    return t->write(stream, buf, size);
}

std::int64_t mz_stream_tell(void* stream) {
    const auto* t = table(stream);
    if (!t || !t->tell) return MZ_PARAM_ERROR;
    if (!isOpen(stream)) return MZ_STREAM_ERROR;
    return t->tell(stream);
}

std::int32_t mz_stream_seek(void* stream, std::int64_t offset, std::int32_t origin) {
    const auto* t = table(stream);
    if (!t || !t->seek) return MZ_PARAM_ERROR;
    if (!isOpen(stream)) return MZ_STREAM_ERROR;
    return t->seek(stream, offset, origin);
}

std::int32_t mz_stream_close(void* stream) {
    const auto* t = table(stream);
    if (!t || !t->close) return MZ_PARAM_ERROR;
    return t->close(stream);
}

std::int32_t mz_stream_error(void* stream) {
    const auto* t = table(stream);
    if (!t || !t->error) return MZ_PARAM_ERROR;
    return t->error(stream);
}

void mz_stream_delete(void** stream) {
    if (!stream || !*stream) return;
    const auto* t = table(*stream);
    if (t && t->destroy) {
        t->destroy(stream);
    }
    *stream = nullptr;
}
