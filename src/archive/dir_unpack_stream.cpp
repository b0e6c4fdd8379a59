#include "archive/dir_unpack_stream.h"

#include <zlib.h>
#include <zstd.h>

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
#include "archive/mz_strm_os.h"
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
    MzStreamPtr file;
    std::string basePath;
    std::string outputPath;
    LocalEntry entry;
    MzStreamPtr extraField;
    std::uint32_t crc = 0;
    std::int64_t written = 0;
    std::int32_t error = 0;
    std::int32_t state = kExpectHeader;
    const std::uint8_t* input = nullptr;
    std::int64_t inputLength = 0;
    std::int64_t inputPosition = 0;
    ByteBufferPtr pending;
    std::int64_t pendingPosition = 0;
    void* progressUser = nullptr;
    UnpackProgressCallback progress = nullptr;
    bool receivedBytes = false;  // a non-empty chunk arrived since open
    std::string checkedParent;   // the last parent directory known to be real and present
    std::vector<std::uint8_t> extraBytes;
    std::array<std::uint8_t, kOutputBlockSize> outputBlock;
};

UnpackStream* self(void* stream) { return static_cast<UnpackStream*>(stream); }

// What a state step tells the loop.
enum class Step { Continue, NeedInput, Complete };

std::int32_t fail(UnpackStream* s, std::int32_t code) {
    if (s->error == 0) s->error = code;
    return code;
}

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
    while (!block.empty()) {
        const std::int32_t n = mz_stream_write(s->file.get(), block.data(), static_cast<std::int32_t>(block.size()));
        if (n < 0) return fail(s, n);
        if (n == 0) return fail(s, MZ_WRITE_ERROR);
        block = block.subspan(static_cast<std::size_t>(n));
        s->written += n;
    }
    return MZ_OK;
}

void closeEntryFile(UnpackStream* s) {
    if (mz_stream_is_open(s->file.get()) != MZ_OK) return;
    const std::int32_t rc = mz_stream_close(s->file.get());
    if (rc != MZ_OK) fail(s, rc);
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
                if (!z) return fail(s, MZ_MEM_ERROR);
                const int rc = inflateInit2(z, -15);
                if (rc != Z_OK) {
                    delete z;
                    return fail(s, rc == Z_MEM_ERROR ? MZ_MEM_ERROR : rc);
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
                if (!s->zstd) return fail(s, MZ_MEM_ERROR);
                // A frame may ask for a window of up to 8 MiB (every level but the "ultra" ones);
                // a larger one fails instead of making the far side's bytes cost us gigabytes.
                ZSTD_DCtx_setParameter(s->zstd.get(), ZSTD_d_windowLogMax, kZstdWindowLogMax);
            } else {
                ZSTD_DCtx_reset(s->zstd.get(), ZSTD_reset_session_only);
            }
            return MZ_OK;
        default:
            return fail(s, MZ_SUPPORT_ERROR);
    }
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
        fail(s, MZ_FORMAT_ERROR);
        return Step::Continue;
    }
    if (rc == MZ_MEM_ERROR) {
        fail(s, rc);
        return Step::Continue;
    }
    if (rc != MZ_OK) {
        rewind(s, start);
        return Step::NeedInput;
    }

    s->crc = 0;
    s->written = 0;
    s->outputPath.resize(s->basePath.size());
    const std::string resolved = mz_path_resolve(s->entry.filename);
    if (resolved.empty()) {
        fail(s, MZ_INTERNAL_ERROR);
        return Step::Continue;
    }
    s->outputPath += resolved;

    const std::string& name = s->entry.filename;
    const bool directory = mz_zip_attrib_is_dir(s->entry.externalFa, s->entry.versionMadeBy) == MZ_OK ||
                           name.back() == '/' || name.back() == '\\';
    if (directory) {
        s->checkedParent.clear();
        const std::int32_t made = mz_dir_make(s->outputPath, s->basePath.size());
        if (made != MZ_OK) fail(s, made);
        return Step::Continue;
    }

    // Writers often leave out the entries of parent directories: make them (inside the target).
    // The parents must be real directories and the file itself no symbolic link, or a link left
    // in the target could carry the write outside it.
    std::int32_t opened = MZ_OK;
    const std::size_t slash = s->outputPath.rfind('/');
    if (slash != std::string::npos && slash >= s->basePath.size() &&
        s->outputPath.compare(0, slash, s->checkedParent) != 0) {
        s->checkedParent.assign(s->outputPath, 0, slash);
        if (mz_dir_make(s->checkedParent, s->basePath.size()) != MZ_OK) {
            s->checkedParent.clear();
            opened = MZ_OPEN_ERROR;
        }
    }
    platform::Status existing;
    if (opened == MZ_OK && platform::linkStatus(s->outputPath, existing) &&
        existing.kind == platform::Kind::Symlink)
        opened = MZ_OPEN_ERROR;
    if (opened == MZ_OK)
        opened = mz_stream_open(s->file.get(), s->outputPath.c_str(), MZ_OPEN_MODE_WRITE | MZ_OPEN_MODE_CREATE);
    // The method is set up before the open is judged: an entry of an unknown method still leaves
    // its (empty) file behind.
    if (setUpMethod(s) != MZ_OK) return Step::Continue;
    if (opened != MZ_OK) fail(s, opened);
    return Step::Continue;
}

void finishEntry(UnpackStream* s) {
    closeEntryFile(s);
    if (!(s->entry.flag & kFlagDataDescriptor) && s->entry.compressedSize != 0) {
        s->state = kExpectHeader;
        if (s->entry.crc != s->crc) fail(s, MZ_CRC_ERROR);
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
            fail(s, MZ_FORMAT_ERROR);
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
        fail(s, rc == Z_MEM_ERROR ? MZ_MEM_ERROR : rc);
    }
    return Step::Continue;
}

Step zstdData(UnpackStream* s) {
    const auto from = available(s);
    ZSTD_inBuffer in{from.data(), from.size(), 0};
    ZSTD_outBuffer out{s->outputBlock.data(), s->outputBlock.size(), 0};
    const std::size_t rc = ZSTD_decompressStream(s->zstd.get(), &out, &in);
    if (ZSTD_isError(rc)) {
        fail(s, kZstdDataError);
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
        fail(s, got == need ? MZ_FORMAT_ERROR : MZ_END_OF_STREAM);
        return Step::Continue;
    }
    s->state = kExpectHeader;
    if (crc != s->crc) fail(s, MZ_CRC_ERROR);
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
            default: return fail(s, MZ_INTERNAL_ERROR);
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
    if (*path == '\0' || !platform::isDirectory(path)) return MZ_OPEN_ERROR;

    // Every open starts a fresh archive.
    s->error = 0;
    s->state = kExpectHeader;
    s->crc = 0;
    s->written = 0;
    s->entry = LocalEntry{};
    s->receivedBytes = false;
    s->checkedParent.clear();
    if (s->pending) s->pending->length = 0;
    s->pendingPosition = 0;

    s->basePath = path;
    if (s->basePath.back() != '/') s->basePath.push_back('/');
    s->outputPath = s->basePath;

    s->extraField.reset(mz_stream_mem_create());
    s->file.reset(mz_stream_os_create());
    if (!s->extraField || !s->file) {
        s->basePath.clear();
        return MZ_MEM_ERROR;
    }
    mz_stream_mem_set_grow_size(s->extraField.get(), kExtraFieldStep);
    if (mz_stream_open(s->extraField.get(), nullptr, MZ_OPEN_MODE_CREATE) != MZ_OK) {
        s->basePath.clear();
        return MZ_MEM_ERROR;
    }
    return MZ_OK;
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
    if (s->error != 0) return s->error;
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

    // Keep what was not consumed for the next chunk.
    byteBufferConsume(s->pending.get(), static_cast<std::uint32_t>(s->pendingPosition));
    s->pendingPosition = 0;
    const std::span<const std::uint8_t> rest(s->input ? s->input + s->inputPosition : nullptr,
                                             static_cast<std::size_t>(s->inputLength - s->inputPosition));
    if (!byteBufferAppend(s->pending, rest)) result = fail(s, MZ_MEM_ERROR);
    s->input = nullptr;
    s->inputLength = 0;
    s->inputPosition = 0;
    reportProgress(s);
    return result;
}

std::int32_t unpackClose(void* stream) {
    UnpackStream* s = self(stream);
    if (s->input) return MZ_OK;  // called from inside a write
    if (s->basePath.empty()) return s->error;
    if (s->file) {
        const std::int32_t rc = mz_stream_close(s->file.get());
        if (rc != MZ_OK && rc != MZ_PARAM_ERROR && rc != MZ_STREAM_ERROR) fail(s, rc);
    }
    // Bytes came but the central directory never did: the tree is incomplete.
    if (s->receivedBytes && s->state != kEnd) fail(s, MZ_FORMAT_ERROR);
    s->basePath.clear();
    s->basePath.shrink_to_fit();
    s->outputPath.clear();
    s->outputPath.shrink_to_fit();
    s->extraField.reset();
    s->file.reset();
    s->inflater.reset();
    s->zstd.reset();
    return s->error;
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
