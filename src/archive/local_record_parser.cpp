#include "archive/local_record_parser.h"

#include <zlib.h>
#include <zstd.h>
#include <zstd_errors.h>

#include <algorithm>
#include <array>
#include <climits>
#include <cstring>
#include <new>

#include "archive/memory_stream.h"
#include "archive/path_helpers.h"
#include "archive/zip_format.h"
#include "common/bytes.h"
#include "platform/platform.h"

namespace {

using namespace zipformat;
constexpr std::size_t kLocalHeaderSize = 30;
constexpr std::int32_t kExtraFieldStep = 4096;
// A data descriptor is at most 24 bytes; with fewer chunk bytes left it may be cut by the border.
constexpr std::int64_t kDescriptorCutLimit = 25;
// The zstd decoder's failure, as the stream reports it.
constexpr std::int32_t kZstdDataError = -2;
constexpr int kZstdWindowLogMax = 23;

int code(platform::Failure failure) { return platform::failureCode(failure); }

}  // namespace

struct LocalRecordParser::Decoders {
    struct InflateDeleter {
        void operator()(z_stream* z) const {
            inflateEnd(z);
            delete z;
        }
    };
    struct ZstdDeleter {
        void operator()(ZSTD_DCtx* context) const { ZSTD_freeDCtx(context); }
    };
    std::unique_ptr<z_stream, InflateDeleter> inflater;
    std::unique_ptr<ZSTD_DCtx, ZstdDeleter> zstd;
};

LocalRecordParser::LocalRecordParser() = default;
LocalRecordParser::~LocalRecordParser() = default;

std::int32_t LocalRecordParser::start() {
    error_ = 0;
    systemError_ = 0;
    state_ = kExpectHeader;
    sinkFailed_ = false;
    crc_ = 0;
    produced_ = 0;
    entry_ = LocalEntry{};
    droppedBytes_ = 0;
    if (pending_) pending_->length = 0;
    pendingPosition_ = 0;
    extraField_.reset(mz_stream_mem_create());
    if (!extraField_) return MZ_MEM_ERROR;
    mz_stream_mem_set_grow_size(extraField_.get(), kExtraFieldStep);
    if (mz_stream_open(extraField_.get(), nullptr, MZ_OPEN_MODE_CREATE) != MZ_OK) {
        extraField_.reset();
        return MZ_MEM_ERROR;
    }
    return MZ_OK;
}

void LocalRecordParser::release() {
    extraField_.reset();
    decoders_.reset();
    if (pending_) pending_->length = 0;
}

// Keeps the first failure with the platform's error code that describes it.
std::int32_t LocalRecordParser::fail(std::int32_t code, int systemError) {
    if (error_ == 0) {
        error_ = code;
        systemError_ = systemError;
    }
    return code;
}

// ---- input: the unread held bytes first, then the rest of the chunk ---------------------------

std::span<const std::uint8_t> LocalRecordParser::available() const {
    const std::int64_t pendingLength = byteBufferLength(pending_.get());
    if (pendingPosition_ < pendingLength) {
        return {byteBufferData(pending_.get()) + pendingPosition_, static_cast<std::size_t>(pendingLength - pendingPosition_)};
    }
    if (!input_) return {};
    return {input_ + inputPosition_, static_cast<std::size_t>(inputLength_ - inputPosition_)};
}

void LocalRecordParser::advance(std::size_t count) {
    if (pendingPosition_ < byteBufferLength(pending_.get())) {
        pendingPosition_ += static_cast<std::int64_t>(count);
    } else {
        inputPosition_ += static_cast<std::int64_t>(count);
    }
}

std::size_t LocalRecordParser::read(std::span<std::uint8_t> into) {
    std::size_t done = 0;
    while (done < into.size()) {
        const auto from = available();
        if (from.empty()) break;
        const std::size_t n = std::min(from.size(), into.size() - done);
        std::memcpy(into.data() + done, from.data(), n);
        advance(n);
        done += n;
    }
    return done;
}

void LocalRecordParser::rewind(Mark m) {
    pendingPosition_ = m.pending;
    inputPosition_ = m.input;
}

// ---- records ----------------------------------------------------------------------------------

// MZ_OK, MZ_FORMAT_ERROR (not a local header), MZ_MEM_ERROR or MZ_END_OF_STREAM (not complete).
std::int32_t LocalRecordParser::parseLocalHeader() {
    // The signature is judged as soon as it is there, the rest of the header when it is whole.
    std::array<std::uint8_t, kLocalHeaderSize> fixed{};
    const std::size_t got = read(fixed);
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
    if (read({reinterpret_cast<std::uint8_t*>(e.filename.data()), e.filename.size()}) < e.filenameSize)
        return MZ_END_OF_STREAM;
    extraBytes_.resize(e.extrafieldSize);
    if (read(extraBytes_) < e.extrafieldSize) return MZ_END_OF_STREAM;

    if (mz_stream_seek(extraField_.get(), 0, MZ_SEEK_SET) != MZ_OK ||
        mz_stream_write(extraField_.get(), extraBytes_.data(), e.extrafieldSize) != e.extrafieldSize)
        return MZ_MEM_ERROR;

    // A zip64 record supplies the sizes whose 32-bit fields hold the escape value.
    bytes::Reader extra(extraBytes_);
    while (extra.has(4)) {
        const std::uint16_t id = extra.u16();
        const std::uint16_t size = extra.u16();
        const auto body = extra.bytes(size);
        if (!extra.ok()) break;
        if (id != kZip64ExtraId) continue;
        bytes::Reader z(body);
        for (auto [escaped, field] : {std::pair{uncompressed32 == kEscape32, &e.uncompressedSize},
                                      std::pair{compressed32 == kEscape32, &e.compressedSize}}) {
            if (!escaped) continue;
            const std::uint64_t v = z.u64();
            if (z.ok() && v > static_cast<std::uint64_t>(INT64_MAX)) return MZ_FORMAT_ERROR;
            if (z.ok()) *field = static_cast<std::int64_t>(v);
        }
        break;
    }
    entry_ = std::move(e);
    return MZ_OK;
}

std::int32_t LocalRecordParser::setUpMethod() {
    if (!decoders_) {
        decoders_.reset(new (std::nothrow) Decoders);
        if (!decoders_) return fail(MZ_MEM_ERROR, code(platform::Failure::OutOfMemory));
    }
    switch (entry_.compressionMethod) {
        case MZ_COMPRESS_METHOD_STORE:
            state_ = kStoredData;
            return MZ_OK;
        case MZ_COMPRESS_METHOD_DEFLATE:
            state_ = kDeflateData;
            if (!decoders_->inflater) {
                auto* z = new (std::nothrow) z_stream{};
                if (!z) return fail(MZ_MEM_ERROR, code(platform::Failure::OutOfMemory));
                const int rc = inflateInit2(z, -15);
                if (rc != Z_OK) {
                    delete z;
                    return rc == Z_MEM_ERROR ? fail(MZ_MEM_ERROR, code(platform::Failure::OutOfMemory))
                                             : fail(rc, code(platform::Failure::InvalidArgument));
                }
                decoders_->inflater.reset(z);
            } else {
                inflateReset(decoders_->inflater.get());
            }
            return MZ_OK;
        case MZ_COMPRESS_METHOD_ZSTD:
            state_ = kZstdData;
            if (!decoders_->zstd) {
                decoders_->zstd.reset(ZSTD_createDCtx());
                if (!decoders_->zstd) return fail(MZ_MEM_ERROR, code(platform::Failure::OutOfMemory));
                // A frame may ask for a window of up to 8 MiB (every level but the "ultra" ones);
                // a larger one fails instead of making the far side's bytes cost us gigabytes.
                ZSTD_DCtx_setParameter(decoders_->zstd.get(), ZSTD_d_windowLogMax, kZstdWindowLogMax);
            } else {
                ZSTD_DCtx_reset(decoders_->zstd.get(), ZSTD_reset_session_only);
            }
            return MZ_OK;
        default:
            return fail(MZ_SUPPORT_ERROR, code(platform::Failure::Unsupported));
    }
}

// Hands `block`, which sits in the sink's room, to the sink.
bool LocalRecordParser::output(RecordSink& sink, std::span<const std::uint8_t> block) {
    if (block.empty()) return true;
    if (!sink.checksCrc()) crc_ = static_cast<std::uint32_t>(crc32(crc_, block.data(), static_cast<uInt>(block.size())));
    if (!sink.fill(block.size())) return false;
    produced_ += static_cast<std::int64_t>(block.size());
    return true;
}

bool LocalRecordParser::finishEntry(RecordSink& sink) {
    if (!sink.endFile()) return false;
    if (!(entry_.flag & kFlagDescriptor) && entry_.compressedSize != 0) {
        state_ = kExpectHeader;
        return checkCrc(sink, entry_.crc);
    }
    state_ = kExpectDescriptor;
    return true;
}

bool LocalRecordParser::checkCrc(RecordSink& sink, std::uint32_t expected) {
    if (sink.checksCrc()) return sink.verifyCrc(expected);
    if (expected != crc_) fail(MZ_CRC_ERROR, code(platform::Failure::DamagedData));
    return true;
}

LocalRecordParser::Step LocalRecordParser::expectHeader(RecordSink& sink) {
    const Mark start = mark();
    const std::int32_t rc = parseLocalHeader();
    if (rc == MZ_FORMAT_ERROR) {
        rewind(start);
        std::array<std::uint8_t, 4> sig{};
        read(sig);
        const std::uint32_t value = bytes::get32(sig, 0);
        // The central directory (or, for an archive without entries, its end record) ends the
        // entries.
        if (value == kCentralHeaderSignature || value == kEndSignature || value == kZip64EndSignature) {
            state_ = kEnd;
            return Step::Complete;
        }
        fail(MZ_FORMAT_ERROR, code(platform::Failure::DamagedData));
        return Step::Continue;
    }
    if (rc == MZ_MEM_ERROR) {
        fail(MZ_MEM_ERROR, code(platform::Failure::OutOfMemory));
        return Step::Continue;
    }
    if (rc != MZ_OK) {
        rewind(start);
        return Step::NeedInput;
    }

    crc_ = 0;
    produced_ = 0;
    const std::string& name = entry_.filename;
    const std::string resolved = mz_path_resolve(name);
    if (resolved.empty()) {
        // A name that resolves to nothing below the target: "..", "/", "a/..", or none at all.
        fail(MZ_INTERNAL_ERROR, code(name.empty() ? platform::Failure::DamagedData : platform::Failure::NotPermitted));
        return Step::Continue;
    }
    if (mz_zip_attrib_is_dir(entry_.externalFa, entry_.versionMadeBy) == MZ_OK || name.back() == '/' ||
        name.back() == '\\') {
        if (!sink.directory(entry_, resolved)) sinkFailed_ = true;
        return Step::Continue;
    }
    // The method is set up before the file is made, and the file is made whatever the method:
    // an entry of an unknown method still leaves its (empty) file behind.
    const bool methodReady = setUpMethod() == MZ_OK;
    if (!sink.beginFile(entry_, resolved, methodReady)) sinkFailed_ = true;
    return Step::Continue;
}

LocalRecordParser::Step LocalRecordParser::storedData(RecordSink& sink) {
    const std::int64_t due = entry_.uncompressedSize - produced_;
    if (due <= 0) {
        if (!finishEntry(sink)) sinkFailed_ = true;
        return Step::Continue;
    }
    const auto from = available();
    if (from.empty()) return Step::NeedInput;
    const auto room = sink.room();
    const std::size_t n = static_cast<std::size_t>(
        std::min<std::int64_t>(static_cast<std::int64_t>(std::min(from.size(), room.size())), due));
    std::memcpy(room.data(), from.data(), n);
    if (!output(sink, room.first(n))) {
        sinkFailed_ = true;
        return Step::Continue;
    }
    advance(n);
    return Step::Continue;
}

LocalRecordParser::Step LocalRecordParser::deflateData(RecordSink& sink) {
    const auto from = available();
    const auto room = sink.room();
    z_stream* z = decoders_->inflater.get();
    const auto inSize = static_cast<uInt>(std::min<std::size_t>(from.size(), UINT_MAX));
    const auto outSize = static_cast<uInt>(std::min<std::size_t>(room.size(), UINT_MAX));
    z->next_in = const_cast<Bytef*>(from.data());
    z->avail_in = inSize;
    z->next_out = room.data();
    z->avail_out = outSize;
    int rc = inflate(z, Z_BLOCK);
    const std::size_t made = outSize - z->avail_out;
    const std::size_t consumed = inSize - z->avail_in;
    z->next_in = nullptr;
    z->avail_in = 0;
    if (!output(sink, room.first(made))) {
        sinkFailed_ = true;
        return Step::Continue;
    }
    advance(consumed);
    if (rc == Z_STREAM_END) {
        if (produced_ < entry_.uncompressedSize) {
            // The data ended short of the size its header promised.
            fail(MZ_FORMAT_ERROR, code(platform::Failure::DamagedData));
            return Step::Continue;
        }
        inflateReset(z);
        if (!finishEntry(sink)) sinkFailed_ = true;
        return Step::Continue;
    }
    // No progress possible: the rest comes with a later chunk.
    if (rc == Z_BUF_ERROR || (rc == Z_OK && made == 0 && consumed == 0)) return Step::NeedInput;
    if (rc != Z_OK) {
        if (rc == Z_NEED_DICT) rc = Z_DATA_ERROR;
        if (rc == Z_MEM_ERROR) fail(MZ_MEM_ERROR, code(platform::Failure::OutOfMemory));
        else fail(rc, code(platform::Failure::DamagedData));
    }
    return Step::Continue;
}

LocalRecordParser::Step LocalRecordParser::zstdData(RecordSink& sink) {
    const auto from = available();
    const auto room = sink.room();
    ZSTD_inBuffer in{from.data(), from.size(), 0};
    ZSTD_outBuffer out{room.data(), room.size(), 0};
    const std::size_t rc = ZSTD_decompressStream(decoders_->zstd.get(), &out, &in);
    if (ZSTD_isError(rc)) {
        // A window beyond the limit is memory the stream refuses to give: "Cannot allocate
        // memory" says so, where "File too large" would blame the file and "Bad message" the
        // data, which may well be sound.
        const ZSTD_ErrorCode error = ZSTD_getErrorCode(rc);
        fail(kZstdDataError, code(error == ZSTD_error_frameParameter_windowTooLarge || error == ZSTD_error_memory_allocation
                                      ? platform::Failure::OutOfMemory
                                      : platform::Failure::DamagedData));
        return Step::Continue;
    }
    if (!output(sink, room.first(out.pos))) {
        sinkFailed_ = true;
        return Step::Continue;
    }
    advance(in.pos);
    if (rc == 0 && produced_ >= entry_.uncompressedSize) {
        ZSTD_DCtx_reset(decoders_->zstd.get(), ZSTD_reset_session_only);
        if (!finishEntry(sink)) sinkFailed_ = true;
        return Step::Continue;
    }
    if (in.pos == 0 && out.pos == 0) return Step::NeedInput;
    return Step::Continue;
}

// Whether the current entry's extra field holds a zip64 record.
bool LocalRecordParser::entryHasZip64() {
    void* extra = extraField_.get();
    if (mz_stream_seek(extra, 0, MZ_SEEK_SET) != MZ_OK) return false;
    std::int64_t at = 0;
    while (at + 4 <= entry_.extrafieldSize) {
        std::array<std::uint8_t, 4> record{};
        if (mz_stream_read(extra, record.data(), 4) != 4) return false;
        if (bytes::get16(record, 0) == kZip64ExtraId) return true;
        const std::uint16_t size = bytes::get16(record, 2);
        if (mz_stream_seek(extra, size, MZ_SEEK_CUR) != MZ_OK) return false;
        at += 4 + size;
    }
    return false;
}

LocalRecordParser::Step LocalRecordParser::expectDescriptor(RecordSink& sink) {
    const bool zip64 = entryHasZip64();
    const Mark start = mark();
    std::array<std::uint8_t, 24> raw{};
    const std::size_t need = zip64 ? 24 : 16;
    const std::size_t got = read(std::span<std::uint8_t>(raw).first(need));
    bool wellFormed = got == need;
    std::uint32_t crc = 0;
    if (wellFormed) {
        bytes::Reader r(std::span<const std::uint8_t>(raw).first(need));
        wellFormed = r.u32() == kDescriptorSignature;
        crc = r.u32();
        if (zip64) {
            const std::uint64_t compressed = r.u64();
            const std::uint64_t uncompressed = r.u64();
            if (compressed > static_cast<std::uint64_t>(INT64_MAX) || uncompressed > static_cast<std::uint64_t>(INT64_MAX))
                wellFormed = false;
        }
    }
    if (!wellFormed) {
        rewind(start);
        if (inputLength_ - inputPosition_ < kDescriptorCutLimit) return Step::NeedInput;
        fail(got == need ? MZ_FORMAT_ERROR : MZ_END_OF_STREAM, code(platform::Failure::DamagedData));
        return Step::Continue;
    }
    state_ = kExpectHeader;
    if (!checkCrc(sink, crc)) sinkFailed_ = true;
    return Step::Continue;
}

// Runs the states over the held bytes and the chunk.
std::int32_t LocalRecordParser::consume(RecordSink& sink) {
    for (;;) {
        Step step;
        switch (state_) {
            case kExpectHeader: step = expectHeader(sink); break;
            case kStoredData: step = storedData(sink); break;
            case kDeflateData: step = deflateData(sink); break;
            case kZstdData: step = zstdData(sink); break;
            case kExpectDescriptor: step = expectDescriptor(sink); break;
            case kEnd: return MZ_END_OF_STREAM;
            default: return fail(MZ_INTERNAL_ERROR, code(platform::Failure::InvalidArgument));
        }
        if (error_ != 0) return error_;
        if (sinkFailed_ || step != Step::Continue) return static_cast<std::int32_t>(inputLength_);
    }
}

std::int32_t LocalRecordParser::write(std::span<const std::uint8_t> chunk, RecordSink& sink) {
    if (error_ != 0) return error_;
    input_ = chunk.data();
    inputLength_ = static_cast<std::int64_t>(chunk.size());
    inputPosition_ = 0;
    pendingPosition_ = 0;
    std::int32_t result = static_cast<std::int32_t>(chunk.size());
    if (!chunk.empty() && !sinkFailed_) result = consume(sink);

    const auto rest = chunk.subspan(static_cast<std::size_t>(inputPosition_));
    if (state_ == kEnd) {
        // Nothing after the central directory is used: counted, never kept, so a far side
        // cannot grow this process by sending more.
        droppedBytes_ +=
            byteBufferLength(pending_.get()) - pendingPosition_ + static_cast<std::int64_t>(rest.size());
        if (pending_) pending_->length = 0;
    } else {
        // Keep what was not consumed for the next chunk.
        byteBufferConsume(pending_.get(), static_cast<std::uint32_t>(pendingPosition_));
        if (!byteBufferAppend(pending_, rest)) result = fail(MZ_MEM_ERROR, code(platform::Failure::OutOfMemory));
    }
    pendingPosition_ = 0;
    input_ = nullptr;
    inputLength_ = 0;
    inputPosition_ = 0;
    return result;
}
