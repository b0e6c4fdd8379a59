// The zip library's stream interface, as varoft uses it: a stream object begins with a pointer
// to its table of operations; the generic calls below check the object and the operation
// before calling through the table.
#pragma once

#include <cstdint>
#include <memory>

// Result codes: 0 success, negative failure.
inline constexpr std::int32_t MZ_OK = 0;
inline constexpr std::int32_t MZ_STREAM_ERROR = -1;
inline constexpr std::int32_t MZ_MEM_ERROR = -4;
inline constexpr std::int32_t MZ_END_OF_STREAM = -101;
inline constexpr std::int32_t MZ_PARAM_ERROR = -102;
inline constexpr std::int32_t MZ_FORMAT_ERROR = -103;
inline constexpr std::int32_t MZ_INTERNAL_ERROR = -104;
inline constexpr std::int32_t MZ_CRC_ERROR = -105;
inline constexpr std::int32_t MZ_EXIST_ERROR = -107;
inline constexpr std::int32_t MZ_SUPPORT_ERROR = -109;
inline constexpr std::int32_t MZ_OPEN_ERROR = -111;
inline constexpr std::int32_t MZ_CLOSE_ERROR = -112;
inline constexpr std::int32_t MZ_SEEK_ERROR = -113;
inline constexpr std::int32_t MZ_TELL_ERROR = -114;
inline constexpr std::int32_t MZ_READ_ERROR = -115;
inline constexpr std::int32_t MZ_WRITE_ERROR = -116;

// Open modes (bit set).
inline constexpr std::int32_t MZ_OPEN_MODE_READ = 0x01;
inline constexpr std::int32_t MZ_OPEN_MODE_WRITE = 0x02;
inline constexpr std::int32_t MZ_OPEN_MODE_READWRITE = MZ_OPEN_MODE_READ | MZ_OPEN_MODE_WRITE;
inline constexpr std::int32_t MZ_OPEN_MODE_APPEND = 0x04;
inline constexpr std::int32_t MZ_OPEN_MODE_CREATE = 0x08;
inline constexpr std::int32_t MZ_OPEN_MODE_EXISTING = 0x10;

// Seek origins.
inline constexpr std::int32_t MZ_SEEK_SET = 0;
inline constexpr std::int32_t MZ_SEEK_CUR = 1;
inline constexpr std::int32_t MZ_SEEK_END = 2;

// Compression methods.
inline constexpr std::int32_t MZ_COMPRESS_METHOD_STORE = 0;
inline constexpr std::int32_t MZ_COMPRESS_METHOD_DEFLATE = 8;
inline constexpr std::int32_t MZ_COMPRESS_METHOD_ZSTD = 93;

using mz_stream_open_cb = std::int32_t (*)(void* stream, const char* path, std::int32_t mode);
using mz_stream_is_open_cb = std::int32_t (*)(void* stream);
using mz_stream_read_cb = std::int32_t (*)(void* stream, void* buf, std::int32_t size);
using mz_stream_write_cb = std::int32_t (*)(void* stream, const void* buf, std::int32_t size);
using mz_stream_tell_cb = std::int64_t (*)(void* stream);
using mz_stream_seek_cb = std::int32_t (*)(void* stream, std::int64_t offset, std::int32_t origin);
using mz_stream_close_cb = std::int32_t (*)(void* stream);
using mz_stream_error_cb = std::int32_t (*)(void* stream);
using mz_stream_create_cb = void* (*)();
using mz_stream_destroy_cb = void (*)(void** stream);
using mz_stream_get_prop_int64_cb = std::int32_t (*)(void* stream, std::int32_t prop, std::int64_t* value);
using mz_stream_set_prop_int64_cb = std::int32_t (*)(void* stream, std::int32_t prop, std::int64_t value);

struct mz_stream_vtbl {
    mz_stream_open_cb open;
    mz_stream_is_open_cb is_open;
    mz_stream_read_cb read;
    mz_stream_write_cb write;
    mz_stream_tell_cb tell;
    mz_stream_seek_cb seek;
    mz_stream_close_cb close;
    mz_stream_error_cb error;
    mz_stream_create_cb create;
    mz_stream_destroy_cb destroy;
    mz_stream_get_prop_int64_cb get_prop_int64;
    mz_stream_set_prop_int64_cb set_prop_int64;
};

// The header every stream object starts with.
struct mz_stream {
    const mz_stream_vtbl* vtbl;
    mz_stream* base;
};

// Generic calls. A null stream or a missing operation gives MZ_PARAM_ERROR; read, write, tell
// and seek on a stream that is not open give MZ_STREAM_ERROR.
std::int32_t mz_stream_open(void* stream, const char* path, std::int32_t mode);
std::int32_t mz_stream_is_open(void* stream);
std::int32_t mz_stream_read(void* stream, void* buf, std::int32_t size);
std::int32_t mz_stream_write(void* stream, const void* buf, std::int32_t size);
std::int64_t mz_stream_tell(void* stream);
std::int32_t mz_stream_seek(void* stream, std::int64_t offset, std::int32_t origin);
std::int32_t mz_stream_close(void* stream);
std::int32_t mz_stream_error(void* stream);
// Destroys the object through its table and sets *stream to null.
void mz_stream_delete(void** stream);

// Owns a stream object for the scope of a test or a tool; the program's own streams live for
// the whole process.
struct MzStreamDeleter {
    void operator()(void* stream) const { mz_stream_delete(&stream); }
};
using MzStreamPtr = std::unique_ptr<void, MzStreamDeleter>;
