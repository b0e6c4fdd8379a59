#include "archive/dir_unpack_stream.h"

#include <zlib.h>
#include <zstd.h>
#include <zstd_errors.h>

#include <algorithm>
#include <array>
#include <climits>
#include <cstring>
#include <memory>
#include <new>
#include <span>
#include <string>
#include <vector>

#include "archive/byte_buffer.h"
#include "archive/mz_os.h"
#include "archive/mz_stream.h"
#include "archive/mz_strm_mem.h"
#include "common/bytes.h"
#include "platform/platform.h"

namespace {

constexpr std::int32_t kUnsupportedModeBit = 0x1000000;
constexpr std::uint32_t kLocalHeaderSignature = 0x04034b50;
constexpr std::uint32_t kCentralHeaderSignature = 0x02014b50;
constexpr std::uint32_t kEndRecordSignature = 0x06054b50;
constexpr std::uint32_t kZip64EndRecordSignature = 0x06064b50;
constexpr std::uint32_t kDescriptorSignature = 0x08074b50;
constexpr std::size_t kLocalHeaderSize = 30;
constexpr std::size_t kOutputBlockSize = 32768;
constexpr std::int32_t kExtraFieldStep = 4096;
constexpr std::uint16_t kZip64ExtraId = 0x0001;
constexpr std::uint16_t kFlagDataDescriptor = 0x0008;
constexpr std::uint32_t kSize32Escape = 0xFFFFFFFFu;
// A data descriptor is at most 24 bytes; with fewer chunk bytes left it may be cut by the border.
constexpr std::int64_t kDescriptorCutLimit = 25;
// The zstd decoder's failure, as the stream reports it.
constexpr std::int32_t kZstdDataError = -2;
constexpr int kZstdWindowLogMax = 23;

enum State : std::int32_t {
    kExpectHeader = 0,
    kStoredData = 1,
    kDeflateData = 2,
    kZstdData = 3,
    kExpectDescriptor = 4,
    kEnd = 5,
};

// The fields of a local file header that extraction uses. Local headers carry neither "version
// made by" nor external attributes; they stay 0.
struct LocalEntry {
    std::uint16_t versionMadeBy = 0;
    std::uint16_t versionNeeded = 0;
    std::uint16_t flag = 0;
    std::uint16_t compressionMethod = 0;
    std::uint32_t dosDate = 0;
    std::uint32_t crc = 0;
    std::int64_t compressedSize = 0;
    std::int64_t uncompressedSize = 0;
    std::uint16_t filenameSize = 0;
    std::uint16_t extrafieldSize = 0;
    std::uint32_t externalFa = 0;
    std::string filename;
};

struct InflateDeleter {
    void operator()(z_stream* z) const {
        inflateEnd(z);
        delete z;
    }
};
struct ZstdDeleter {
    void operator()(ZSTD_DCtx* context) const { ZSTD_freeDCtx(context); }
};

struct UnpackStream {
    mz_stream header;
    std::unique_ptr<z_stream, InflateDeleter> inflater;
    std::unique_ptr<ZSTD_DCtx, ZstdDeleter> zstd;
    platform::File file;  // the output file of the current entry
    std::string basePath;
    platform::DirectoryHandle target;  // every name is resolved below it
    LocalEntry entry;
    MzStreamPtr extraField;
    std::uint32_t crc = 0;
    std::int64_t written = 0;
    std::int32_t error = 0;
    int systemError = 0;  // the platform's error code of the sticky error, for its text
    std::int32_t state = kExpectHeader;
    const std::uint8_t* input = nullptr;
    std::int64_t inputLength = 0;
    std::int64_t inputPosition = 0;
    ByteBufferPtr pending;
    std::int64_t pendingPosition = 0;
    void* progressUser = nullptr;
    UnpackProgressCallback progress = nullptr;
    bool receivedBytes = false;     // a non-empty chunk arrived since open
    std::int64_t droppedBytes = 0;  // bytes after the central directory, counted, not kept
    std::vector<std::uint8_t> extraBytes;
    std::array<std::uint8_t, kOutputBlockSize> outputBlock;
};

UnpackStream* self(void* stream) { return static_cast<UnpackStream*>(stream); }

// What a state step tells the loop.
enum class Step { Continue, NeedInput, Complete };

// Keeps the first failure with the platform's error code that describes it: the error of the
// system call that failed, or one chosen for a failure no system call reported.
std::int32_t fail(UnpackStream* s, std::int32_t code, int systemError) {
    if (s->error == 0) {
        s->error = code;
        s->systemError = systemError;
    }
    return code;
}
std::int32_t fail(UnpackStream* s, std::int32_t code, platform::Failure failure) {
    return fail(s, code, platform::failureCode(failure));
}
std::int32_t failDamaged(UnpackStream* s, std::int32_t code) { return fail(s, code, platform::Failure::DamagedData); }
std::int32_t failMemory(UnpackStream* s) { return fail(s, MZ_MEM_ERROR, platform::Failure::OutOfMemory); }

// ---- input: the unread pending bytes first, then the rest of the chunk ------------------------

std::span<const std::uint8_t> available(UnpackStream* s) {
    const std::int64_t pendingLength = byteBufferLength(s->pending.get());
    if (s->pendingPosition < pendingLength) {
        return {byteBufferData(s->pending.get()) + s->pendingPosition,
                static_cast<std::size_t>(pendingLength - s->pendingPosition)};
    }
    if (!s->input) return {};
    return {s->input + s->inputPosition, static_cast<std::size_t>(s->inputLength - s->inputPosition)};
}

void advance(UnpackStream* s, std::size_t count) {
    if (s->pendingPosition < byteBufferLength(s->pending.get())) {
        s->pendingPosition += static_cast<std::int64_t>(count);
    } else {
        s->inputPosition += static_cast<std::int64_t>(count);
    }
}

// Copies up to into.size() input bytes, across the pending/chunk border; returns the count.
std::size_t readInput(UnpackStream* s, std::span<std::uint8_t> into) {
    std::size_t done = 0;
    while (done < into.size()) {
        const auto from = available(s);
        if (from.empty()) break;
        const std::size_t n = std::min(from.size(), into.size() - done);
        std::memcpy(into.data() + done, from.data(), n);
        advance(s, n);
        done += n;
    }
    return done;
}

struct Mark {
    std::int64_t pending;
    std::int64_t input;
};
Mark mark(const UnpackStream* s) { return {s->pendingPosition, s->inputPosition}; }
void rewind(UnpackStream* s, Mark m) {
    s->pendingPosition = m.pending;
    s->inputPosition = m.input;
}

// ---- output -----------------------------------------------------------------------------------

std::int32_t output(UnpackStream* s, std::span<const std::uint8_t> block) {
    if (block.empty()) return MZ_OK;
    s->crc = static_cast<std::uint32_t>(crc32(s->crc, block.data(), static_cast<uInt>(block.size())));
    if (!s->file.isOpen()) return fail(s, MZ_STREAM_ERROR, platform::Failure::InvalidArgument);
    if (s->file.write(block) < 0) return fail(s, MZ_WRITE_ERROR, platform::lastError());
    s->written += static_cast<std::int64_t>(block.size());
    return MZ_OK;
}

void closeEntryFile(UnpackStream* s) {
    if (s->file.isOpen() && !s->file.close()) fail(s, MZ_CLOSE_ERROR, platform::lastError());
}

// ---- local header ---------------------------------------------------------------------------

// MZ_OK, MZ_FORMAT_ERROR (not a local header) or MZ_END_OF_STREAM (not complete yet).
std::int32_t parseLocalHeader(UnpackStream* s) {
    // The signature is judged as soon as it is there, the rest of the header when it is whole.
    std::array<std::uint8_t, kLocalHeaderSize> fixed{};
    const std::size_t got = readInput(s, fixed);
    if (got >= 4 && bytes::get32(fixed, 0) != kLocalHeaderSignature) return MZ_FORMAT_ERROR;
    if (got < fixed.size()) return MZ_END_OF_STREAM;
    bytes::Reader r(fixed);
    r.skip(4);
    LocalEntry e;
    e.versionNeeded = r.u16();
    e.flag = r.u16();
    e.compressionMethod = r.u16();
    const std::uint16_t dosTime = r.u16();
    const std::uint16_t dosDay = r.u16();
    e.dosDate = (std::uint32_t{dosDay} << 16) | dosTime;
    e.crc = r.u32();
    const std::uint32_t compressed32 = r.u32();
    const std::uint32_t uncompressed32 = r.u32();
    e.compressedSize = compressed32;
    e.uncompressedSize = uncompressed32;
    e.filenameSize = r.u16();
    e.extrafieldSize = r.u16();

    e.filename.resize(e.filenameSize);
    if (readInput(s, {reinterpret_cast<std::uint8_t*>(e.filename.data()), e.filename.size()}) < e.filenameSize)
        return MZ_END_OF_STREAM;
    s->extraBytes.resize(e.extrafieldSize);
    if (readInput(s, s->extraBytes) < e.extrafieldSize) return MZ_END_OF_STREAM;

    if (mz_stream_seek(s->extraField.get(), 0, MZ_SEEK_SET) != MZ_OK ||
        mz_stream_write(s->extraField.get(), s->extraBytes.data(), e.extrafieldSize) != e.extrafieldSize)
        return MZ_MEM_ERROR;

    // A zip64 record supplies the sizes whose 32-bit fields hold the escape value.
    bytes::Reader extra(s->extraBytes);
    while (extra.has(4)) {
        const std::uint16_t id = extra.u16();
        const std::uint16_t size = extra.u16();
        const auto body = extra.bytes(size);
        if (!extra.ok()) break;
        if (id != kZip64ExtraId) continue;
        bytes::Reader z(body);
        if (uncompressed32 == kSize32Escape) {
            const std::uint64_t v = z.u64();
            if (z.ok() && v > static_cast<std::uint64_t>(INT64_MAX)) return MZ_FORMAT_ERROR;
            if (z.ok()) e.uncompressedSize = static_cast<std::int64_t>(v);
        }
        if (compressed32 == kSize32Escape) {
            const std::uint64_t v = z.u64();
            if (z.ok() && v > static_cast<std::uint64_t>(INT64_MAX)) return MZ_FORMAT_ERROR;
            if (z.ok()) e.compressedSize = static_cast<std::int64_t>(v);
        }
        break;
    }
    s->entry = std::move(e);
    return MZ_OK;
}

std::int32_t setUpMethod(UnpackStream* s) {
    switch (s->entry.compressionMethod) {
        case MZ_COMPRESS_METHOD_STORE:
            s->state = kStoredData;
            return MZ_OK;
        case MZ_COMPRESS_METHOD_DEFLATE:
            s->state = kDeflateData;
            if (!s->inflater) {
                auto* z = new (std::nothrow) z_stream{};
                if (!z) return failMemory(s);
                const int rc = inflateInit2(z, -15);
                if (rc != Z_OK) {
                    delete z;
                    return rc == Z_MEM_ERROR ? failMemory(s) : fail(s, rc, platform::Failure::InvalidArgument);
                }
                s->inflater.reset(z);
            } else {
                inflateReset(s->inflater.get());
            }
            return MZ_OK;
        case MZ_COMPRESS_METHOD_ZSTD:
            s->state = kZstdData;
            if (!s->zstd) {
                s->zstd.reset(ZSTD_createDCtx());
                if (!s->zstd) return failMemory(s);
                // A frame may ask for a window of up to 8 MiB (every level but the "ultra" ones);
                // a larger one fails instead of making the far side's bytes cost us gigabytes.
                ZSTD_DCtx_setParameter(s->zstd.get(), ZSTD_d_windowLogMax, kZstdWindowLogMax);
            } else {
                ZSTD_DCtx_reset(s->zstd.get(), ZSTD_reset_session_only);
            }
            return MZ_OK;
        default:
            return fail(s, MZ_SUPPORT_ERROR, platform::Failure::Unsupported);
    }
}

// Opens (making what is missing) the directory `relative` below the target.
bool openDirectory(UnpackStream* s, const std::string& relative, platform::DirectoryHandle& out) {
    return out.openBeneath(s->target, relative, true);
}

// Creates the entry's file new, in its parent directory below the target (made when missing,
// as many writers leave parent entries out). The parent is looked up afresh for every entry,
// so a directory moved out of the target meanwhile is not written into.
bool createEntryFile(UnpackStream* s, const std::string& resolved) {
    const std::size_t slash = resolved.rfind('/');
    platform::DirectoryHandle parent;
    if (!openDirectory(s, slash == std::string::npos ? std::string() : resolved.substr(0, slash), parent)) return false;
    return s->file.createNewAt(parent, resolved.substr(slash == std::string::npos ? 0 : slash + 1));
}

Step expectHeader(UnpackStream* s) {
    const Mark start = mark(s);
    const std::int32_t rc = parseLocalHeader(s);
    if (rc == MZ_FORMAT_ERROR) {
        rewind(s, start);
        std::array<std::uint8_t, 4> sig{};
        readInput(s, sig);
        const std::uint32_t value = bytes::get32(sig, 0);
        // The central directory (or, for an archive without entries, its end record) ends the
        // entries.
        if (value == kCentralHeaderSignature || value == kEndRecordSignature || value == kZip64EndRecordSignature) {
            s->state = kEnd;
            return Step::Complete;
        }
        failDamaged(s, MZ_FORMAT_ERROR);
        return Step::Continue;
    }
    if (rc == MZ_MEM_ERROR) {
        failMemory(s);
        return Step::Continue;
    }
    if (rc != MZ_OK) {
        rewind(s, start);
        return Step::NeedInput;
    }

    s->crc = 0;
    s->written = 0;
    const std::string& name = s->entry.filename;
    const std::string resolved = mz_path_resolve(name);
    if (resolved.empty()) {
        // A name that resolves to nothing below the target: "..", "/", "a/..", or none at all.
        fail(s, MZ_INTERNAL_ERROR, name.empty() ? platform::Failure::DamagedData : platform::Failure::NotPermitted);
        return Step::Continue;
    }

    const bool directory = mz_zip_attrib_is_dir(s->entry.externalFa, s->entry.versionMadeBy) == MZ_OK ||
                           name.back() == '/' || name.back() == '\\';
    if (directory) {
        platform::DirectoryHandle made;
        if (!openDirectory(s, resolved, made)) {
            // Something other than a directory that holds one of the names is left alone.
            const int error = platform::lastError();
            fail(s, error == platform::failureCode(platform::Failure::NotADirectory) ? MZ_EXIST_ERROR : MZ_INTERNAL_ERROR,
                 error);
        }
        return Step::Continue;
    }

    // Every file is created new, and nothing on its way is a link: whatever held its name
    // before is never written through.
    const bool opened = createEntryFile(s, resolved);
    const int openError = platform::lastError();
    // The method is set up before the open is judged: an entry of an unknown method still leaves
    // its (empty) file behind.
    if (setUpMethod(s) != MZ_OK) return Step::Continue;
    if (!opened) fail(s, MZ_OPEN_ERROR, openError);
    return Step::Continue;
}

void finishEntry(UnpackStream* s) {
    closeEntryFile(s);
    if (!(s->entry.flag & kFlagDataDescriptor) && s->entry.compressedSize != 0) {
        s->state = kExpectHeader;
        if (s->entry.crc != s->crc) failDamaged(s, MZ_CRC_ERROR);
    } else {
        s->state = kExpectDescriptor;
    }
}

Step storedData(UnpackStream* s) {
    const std::int64_t due = s->entry.uncompressedSize - s->written;
    if (due <= 0) {
        finishEntry(s);
        return Step::Continue;
    }
    const auto from = available(s);
    if (from.empty()) return Step::NeedInput;
    const std::size_t n = static_cast<std::size_t>(std::min<std::int64_t>(static_cast<std::int64_t>(from.size()), due));
    if (output(s, from.first(n)) != MZ_OK) return Step::Continue;
    advance(s, n);
    return Step::Continue;
}

Step deflateData(UnpackStream* s) {
    const auto from = available(s);
    z_stream* z = s->inflater.get();
    const auto inSize = static_cast<uInt>(std::min<std::size_t>(from.size(), UINT_MAX));
    z->next_in = const_cast<Bytef*>(from.data());
    z->avail_in = inSize;
    z->next_out = s->outputBlock.data();
    z->avail_out = static_cast<uInt>(s->outputBlock.size());
    int rc = inflate(z, Z_BLOCK);
    const std::size_t produced = s->outputBlock.size() - z->avail_out;
    const std::size_t consumed = inSize - z->avail_in;
    z->next_in = nullptr;
    z->avail_in = 0;
    if (output(s, {s->outputBlock.data(), produced}) != MZ_OK) return Step::Continue;
    advance(s, consumed);
    if (rc == Z_STREAM_END) {
        if (s->written < s->entry.uncompressedSize) {
            // The data ended short of the size its header promised.
            failDamaged(s, MZ_FORMAT_ERROR);
            return Step::Continue;
        }
        closeEntryFile(s);
        inflateReset(z);
        finishEntry(s);
        return Step::Continue;
    }
    // No progress possible: the rest comes with a later chunk.
    if (rc == Z_BUF_ERROR || (rc == Z_OK && produced == 0 && consumed == 0)) return Step::NeedInput;
    if (rc != Z_OK) {
        if (rc == Z_NEED_DICT) rc = Z_DATA_ERROR;
        if (rc == Z_MEM_ERROR) failMemory(s);
        else failDamaged(s, rc);
    }
    return Step::Continue;
}

Step zstdData(UnpackStream* s) {
    const auto from = available(s);
    ZSTD_inBuffer in{from.data(), from.size(), 0};
    ZSTD_outBuffer out{s->outputBlock.data(), s->outputBlock.size(), 0};
    const std::size_t rc = ZSTD_decompressStream(s->zstd.get(), &out, &in);
    if (ZSTD_isError(rc)) {
        // A window beyond the limit is memory the stream refuses to give: "Cannot allocate
        // memory" says so, where "File too large" would blame the file and "Bad message" the
        // data, which may well be sound.
        const ZSTD_ErrorCode code = ZSTD_getErrorCode(rc);
        fail(s, kZstdDataError,
             code == ZSTD_error_frameParameter_windowTooLarge || code == ZSTD_error_memory_allocation
                 ? platform::Failure::OutOfMemory
                 : platform::Failure::DamagedData);
        return Step::Continue;
    }
    if (output(s, {s->outputBlock.data(), out.pos}) != MZ_OK) return Step::Continue;
    advance(s, in.pos);
    if (rc == 0 && s->written >= s->entry.uncompressedSize) {
        closeEntryFile(s);
        ZSTD_DCtx_reset(s->zstd.get(), ZSTD_reset_session_only);
        finishEntry(s);
        return Step::Continue;
    }
    if (in.pos == 0 && out.pos == 0) return Step::NeedInput;
    return Step::Continue;
}

// Whether the current entry's extra field holds a zip64 record.
bool entryHasZip64(UnpackStream* s) {
    void* extra = s->extraField.get();
    if (mz_stream_seek(extra, 0, MZ_SEEK_SET) != MZ_OK) return false;
    std::int64_t at = 0;
    while (at + 4 <= s->entry.extrafieldSize) {
        std::array<std::uint8_t, 4> record{};
        if (mz_stream_read(extra, record.data(), 4) != 4) return false;
        if (bytes::get16(record, 0) == kZip64ExtraId) return true;
        const std::uint16_t size = bytes::get16(record, 2);
        if (mz_stream_seek(extra, size, MZ_SEEK_CUR) != MZ_OK) return false;
        at += 4 + size;
    }
    return false;
}

Step expectDescriptor(UnpackStream* s) {
    const bool zip64 = entryHasZip64(s);
    const Mark start = mark(s);
    std::array<std::uint8_t, 24> raw{};
    const std::size_t need = zip64 ? 24 : 16;
    const std::size_t got = readInput(s, std::span<std::uint8_t>(raw).first(need));
    bool wellFormed = got == need;
    std::uint32_t crc = 0;
    if (wellFormed) {
        bytes::Reader r(std::span<const std::uint8_t>(raw).first(need));
        wellFormed = r.u32() == kDescriptorSignature;
        crc = r.u32();
        if (zip64) {
            const std::uint64_t compressed = r.u64();
            const std::uint64_t uncompressed = r.u64();
            if (compressed > static_cast<std::uint64_t>(INT64_MAX) ||
                uncompressed > static_cast<std::uint64_t>(INT64_MAX))
                wellFormed = false;
        }
    }
    if (!wellFormed) {
        rewind(s, start);
        if (s->inputLength - s->inputPosition < kDescriptorCutLimit) return Step::NeedInput;
        failDamaged(s, got == need ? MZ_FORMAT_ERROR : MZ_END_OF_STREAM);
        return Step::Continue;
    }
    s->state = kExpectHeader;
    if (crc != s->crc) failDamaged(s, MZ_CRC_ERROR);
    return Step::Continue;
}

// Runs the states over the chunk and pending; the write's result.
std::int32_t consume(UnpackStream* s) {
    for (;;) {
        Step step;
        switch (s->state) {
            case kExpectHeader: step = expectHeader(s); break;
            case kStoredData: step = storedData(s); break;
            case kDeflateData: step = deflateData(s); break;
            case kZstdData: step = zstdData(s); break;
            case kExpectDescriptor: step = expectDescriptor(s); break;
            case kEnd: return MZ_END_OF_STREAM;
            default: return fail(s, MZ_INTERNAL_ERROR, platform::Failure::InvalidArgument);
        }
        if (s->error != 0) return s->error;
        if (step == Step::Complete) return static_cast<std::int32_t>(s->inputLength);
        if (step == Step::NeedInput) return static_cast<std::int32_t>(s->inputLength);
    }
}

void reportProgress(UnpackStream* s) {
    if (!s->progress) return;
    const std::int32_t status = s->error != 0 ? 2 : s->state == kEnd ? 1 : 0;
    if (s->state == kEnd) {
        s->progress(s->progressUser, "", 0, 0, status);
    } else {
        s->progress(s->progressUser, s->entry.filename.c_str(), s->entry.uncompressedSize, s->written, status);
    }
}

// ---- operation table --------------------------------------------------------------------------

std::int32_t unpackIsOpen(void* stream) { return self(stream)->basePath.empty() ? MZ_OPEN_ERROR : MZ_OK; }

std::int32_t unpackOpen(void* stream, const char* path, std::int32_t mode) {
    UnpackStream* s = self(stream);
    if (!s || !path || !s->basePath.empty()) return MZ_PARAM_ERROR;
    if (mode & kUnsupportedModeBit) return MZ_INTERNAL_ERROR;
    if (*path == '\0') return MZ_OPEN_ERROR;
    // Held open for the whole archive: every entry is resolved below this very directory.
    if (!s->target.open(path)) return MZ_OPEN_ERROR;

    // Every open starts a fresh archive.
    s->error = 0;
    s->systemError = 0;
    s->state = kExpectHeader;
    s->crc = 0;
    s->written = 0;
    s->entry = LocalEntry{};
    s->receivedBytes = false;
    s->droppedBytes = 0;
    if (s->pending) s->pending->length = 0;
    s->pendingPosition = 0;

    s->basePath = path;
    if (s->basePath.back() != '/') s->basePath.push_back('/');

    s->extraField.reset(mz_stream_mem_create());
    if (!s->extraField) {
        s->basePath.clear();
        s->target.close();
        return MZ_MEM_ERROR;
    }
    mz_stream_mem_set_grow_size(s->extraField.get(), kExtraFieldStep);
    if (mz_stream_open(s->extraField.get(), nullptr, MZ_OPEN_MODE_CREATE) != MZ_OK) {
        s->basePath.clear();
        s->target.close();
        return MZ_MEM_ERROR;
    }
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
    return static_cast<std::int32_t>(
        readInput(s, {static_cast<std::uint8_t*>(buf), static_cast<std::size_t>(size)}));
}

std::int32_t unpackWrite(void* stream, const void* buf, std::int32_t size) {
    UnpackStream* s = self(stream);
    if (size < 0) return MZ_PARAM_ERROR;
    if (s->basePath.empty()) return MZ_OPEN_ERROR;
    if (s->error != 0) return withError(s, s->error);
    if (size > 0 && !buf) return MZ_PARAM_ERROR;

    s->input = static_cast<const std::uint8_t*>(buf);
    s->inputLength = size;
    s->inputPosition = 0;
    s->pendingPosition = 0;
    std::int32_t result = size;
    if (size > 0) {
        s->receivedBytes = true;
        result = consume(s);
    }

    const std::span<const std::uint8_t> rest(s->input ? s->input + s->inputPosition : nullptr,
                                             static_cast<std::size_t>(s->inputLength - s->inputPosition));
    if (s->state == kEnd) {
        // Nothing after the central directory is used: counted, never kept, so a far side
        // cannot grow this process by sending more.
        s->droppedBytes += byteBufferLength(s->pending.get()) - s->pendingPosition + static_cast<std::int64_t>(rest.size());
        if (s->pending) s->pending->length = 0;
    } else {
        // Keep what was not consumed for the next chunk.
        byteBufferConsume(s->pending.get(), static_cast<std::uint32_t>(s->pendingPosition));
        if (!byteBufferAppend(s->pending, rest)) result = failMemory(s);
    }
    s->pendingPosition = 0;
    s->input = nullptr;
    s->inputLength = 0;
    s->inputPosition = 0;
    reportProgress(s);
    return withError(s, result);
}

std::int32_t unpackClose(void* stream) {
    UnpackStream* s = self(stream);
    if (s->input) return MZ_OK;  // called from inside a write
    if (s->basePath.empty()) return withError(s, s->error);
    closeEntryFile(s);
    // Bytes came but the central directory never did: the tree is incomplete.
    if (s->receivedBytes && s->state != kEnd) failDamaged(s, MZ_FORMAT_ERROR);
    s->basePath.clear();
    s->basePath.shrink_to_fit();
    s->target.close();
    s->extraField.reset();
    s->inflater.reset();
    s->zstd.reset();
    if (s->pending) s->pending->length = 0;
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

std::int64_t dirUnpackStreamHeldBytes(void* stream) {
    return stream ? byteBufferCapacity(self(stream)->pending.get()) : 0;
}

std::int64_t dirUnpackStreamDroppedBytes(void* stream) { return stream ? self(stream)->droppedBytes : 0; }
