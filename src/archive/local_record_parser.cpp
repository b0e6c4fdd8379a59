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
// While entries are held back, at most this many directories and entries are handed to the
// sink after the oldest of them (the sink's queue must always have room for them).
constexpr std::uint64_t kMaxItemsAhead = 256;

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
    dropHeldBack();
    chunkNumber_ = 0;
    items_ = 0;
    replayFrom_ = -1;
    noSplit_ = false;
    replayed_ = false;
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
    dropHeldBack();
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
    if (rc != MZ_OK && rc != MZ_FORMAT_ERROR && rc != MZ_MEM_ERROR) {
        rewind(start);
        return Step::NeedInput;
    }
    const std::string& name = entry_.filename;
    const std::string resolved = rc == MZ_OK ? mz_path_resolve(name) : std::string();
    const bool isDirectory = !resolved.empty() && (mz_zip_attrib_is_dir(entry_.externalFa, entry_.versionMadeBy) == MZ_OK ||
                                                   name.back() == '/' || name.back() == '\\');
    const bool split = !resolved.empty() && !isDirectory && splittable(sink);
    // While entries are held back only directories and more entries to hand over go ahead (as
    // far as the limits allow); anything else waits until those are known to end where their
    // headers say.
    if (split && !makeRoom(sink, splitInputSize() + splitOutputSize())) {
        rewind(start);
        return confirm(sink);
    }
    if (!heldBack_.empty() && (!(split || isDirectory) || items_ - heldBack_.front().items >= kMaxItemsAhead ||
                               keptBytes_ >= kHeldLimit)) {
        rewind(start);
        return confirm(sink);
    }
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

    crc_ = 0;
    produced_ = 0;
    replayed_ = false;
    if (resolved.empty()) {
        // A name that resolves to nothing below the target: "..", "/", "a/..", or none at all.
        fail(MZ_INTERNAL_ERROR, code(name.empty() ? platform::Failure::DamagedData : platform::Failure::NotPermitted));
        return Step::Continue;
    }
    if (isDirectory) {
        if (!heldBack_.empty()) ++items_;
        if (!sink.directory(entry_, resolved)) sinkFailed_ = true;
        return Step::Continue;
    }
    if (split && !holdBack(start, resolved) && !heldBack_.empty()) {
        // No memory to hold it: it is read in order, once those before it are settled.
        rewind(start);
        return confirm(sink);
    }
    if (state_ == kSplitData) return Step::Continue;
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

// ---- entries handed over whole ------------------------------------------------------------------

// Stored entries of a size that fits, and deflate entries whose sizes fit, both known from the
// local header and an end that is not a data descriptor.
bool LocalRecordParser::splittable(const RecordSink& sink) const {
    if (noSplit_ || replayed_ || !sink.splits() || (entry_.flag & kFlagDescriptor) || entry_.compressedSize == 0)
        return false;
    if (entry_.compressionMethod == MZ_COMPRESS_METHOD_STORE)
        return entry_.uncompressedSize > 0 && entry_.uncompressedSize <= kSplitLimit;
    return entry_.compressionMethod == MZ_COMPRESS_METHOD_DEFLATE && entry_.compressedSize <= kSplitLimit &&
           entry_.uncompressedSize <= kSplitLimit;
}

// A stored entry consumes its uncompressed size; a deflate entry is given its compressed size
// and one byte of room over its uncompressed size, to tell a lie from a fit.
std::size_t LocalRecordParser::splitInputSize() const {
    return static_cast<std::size_t>(entry_.compressionMethod == MZ_COMPRESS_METHOD_STORE ? entry_.uncompressedSize
                                                                                          : entry_.compressedSize);
}

std::size_t LocalRecordParser::splitOutputSize() const {
    return entry_.compressionMethod == MZ_COMPRESS_METHOD_STORE ? 0 : static_cast<std::size_t>(entry_.uncompressedSize) + 1;
}

namespace {

bool settledWell(const SplitEntry& split) {
    return split.state.load(std::memory_order_acquire) == SplitEntry::kDecoded && split.result == 0;
}

}  // namespace

// Waits until the bytes held (the sink's and the kept chunks) leave room for `need` more. False
// when the oldest entry held back did not end where its header said, or failed: only a
// confirm() can go on from there.
bool LocalRecordParser::makeRoom(RecordSink& sink, std::size_t need) {
    for (;;) {
        trim();
        const std::size_t held = sink.heldBytes();
        if (keptBytes_ + held + need <= kHeldLimit) return true;
        if (!heldBack_.empty()) {
            const SplitEntry& oldest = *heldBack_.front().split;
            sink.waitDecoded(oldest);
            if (!settledWell(oldest)) return false;
            continue;
        }
        // Only entries known to be sound are left: the sink writes them out.
        if (held == 0) return true;
        sink.waitHeld(need < kHeldLimit ? kHeldLimit - need : 0);
    }
}

// Begins collecting the current entry's bytes, noting where its header began. False when the
// memory for it cannot be had.
bool LocalRecordParser::holdBack(Mark start, const std::string& path) {
    auto split = std::make_shared<SplitEntry>();
    split->entry = entry_;
    split->path = path;
    split->inputSize = splitInputSize();
    split->outputCapacity = splitOutputSize();
    split->input.reset(new (std::nothrow) std::uint8_t[split->inputSize]);
    if (split->outputCapacity > 0) split->output.reset(new (std::nothrow) std::uint8_t[split->outputCapacity]);
    if (!split->input || (split->outputCapacity > 0 && !split->output)) return false;
    HeldBack held{std::move(split), chunkNumber_, start.input, {}, items_};
    const std::int64_t pendingLength = byteBufferLength(pending_.get());
    if (start.pending < pendingLength) {
        const std::uint8_t* data = byteBufferData(pending_.get());
        held.pending.assign(data + start.pending, data + pendingLength);
    }
    heldBack_.push_back(std::move(held));
    state_ = kSplitData;
    return true;
}

LocalRecordParser::Step LocalRecordParser::splitData(RecordSink& sink) {
    SplitEntry& split = *heldBack_.back().split;
    const auto from = available();
    if (from.empty()) return Step::NeedInput;
    const std::size_t n = std::min(from.size(), split.inputSize - split.collected);
    std::memcpy(split.input.get() + split.collected, from.data(), n);
    split.collected += n;
    advance(n);
    if (split.collected < split.inputSize) return Step::Continue;
    state_ = kExpectHeader;
    produced_ = entry_.uncompressedSize;
    ++items_;
    if (!sink.split(heldBack_.back().split)) {
        sinkFailed_ = true;
        dropHeldBack();
    }
    return Step::Continue;
}

// Forgets the oldest entries held back while they are known to be sound, and the chunks kept
// for them alone.
void LocalRecordParser::trim() {
    while (!heldBack_.empty() && settledWell(*heldBack_.front().split)) heldBack_.pop_front();
    if (heldBack_.empty()) {
        dropHeldBack();
        return;
    }
    while (!kept_.empty() && kept_.front().number < heldBack_.front().chunk) {
        keptBytes_ -= kept_.front().bytes.size();
        kept_.pop_front();
    }
}

void LocalRecordParser::dropHeldBack() {
    heldBack_.clear();
    kept_.clear();
    keptBytes_ = 0;
}

// Waits until every entry held back is decoded. Continue when all are sound (none is held
// back any more) or one failed (the parser stops there, as reading in order would have);
// Replay when one did not end where its header said.
LocalRecordParser::Step LocalRecordParser::confirm(RecordSink& sink) {
    for (std::size_t i = 0; i < heldBack_.size(); ++i) {
        const SplitEntry& split = *heldBack_[i].split;
        sink.waitDecoded(split);
        if (split.state.load(std::memory_order_acquire) == SplitEntry::kDiverged) {
            replayFrom_ = static_cast<std::int64_t>(i);
            return Step::Replay;
        }
        if (split.result != 0) {
            sinkFailed_ = true;
            break;
        }
    }
    dropHeldBack();
    return Step::Continue;
}

// Takes back the entry replayFrom_ names and everything handed over after it, and reads the
// kept chunks again from where its header began, as they came, holding nothing back. Returns
// where the current chunk is to be read from.
std::size_t LocalRecordParser::replay(RecordSink& sink) {
    HeldBack from = std::move(heldBack_[static_cast<std::size_t>(replayFrom_)]);
    replayFrom_ = -1;
    sink.withdraw(*from.split);
    std::deque<KeptChunk> chunks = std::move(kept_);
    dropHeldBack();
    state_ = kExpectHeader;
    if (pending_) pending_->length = 0;
    if (!byteBufferAppend(pending_, from.pending)) fail(MZ_MEM_ERROR, code(platform::Failure::OutOfMemory));
    // The entry that ended elsewhere is read in order this time, wherever its header lies.
    replayed_ = true;
    const bool noSplit = noSplit_;
    noSplit_ = true;
    for (const KeptChunk& chunk : chunks) {
        if (chunk.number < from.chunk) continue;
        pass(chunk.bytes, chunk.number == from.chunk ? static_cast<std::size_t>(from.offset - chunk.base) : 0, sink);
    }
    noSplit_ = noSplit;
    return from.chunk == chunkNumber_ ? static_cast<std::size_t>(from.offset) : 0;
}

void LocalRecordParser::finish(RecordSink& sink) {
    noSplit_ = true;
    if (heldBack_.empty()) return;
    if (error_ != 0 || sinkFailed_) {
        dropHeldBack();
        return;
    }
    // The entry still being collected is read in order as far as its bytes go, unless one
    // before it ended elsewhere (read again from there) or failed (nothing after it is read).
    const std::size_t whole = state_ == kSplitData ? heldBack_.size() - 1 : heldBack_.size();
    std::size_t from = whole;
    for (std::size_t i = 0; i < whole; ++i) {
        const SplitEntry& split = *heldBack_[i].split;
        sink.waitDecoded(split);
        if (split.state.load(std::memory_order_acquire) == SplitEntry::kDiverged) {
            from = i;
            break;
        }
        if (split.result != 0) {
            from = heldBack_.size();
            break;
        }
    }
    if (from == heldBack_.size()) {
        dropHeldBack();
        return;
    }
    ++chunkNumber_;  // every chunk given so far is kept
    replayFrom_ = static_cast<std::int64_t>(from);
    replay(sink);
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
            case kSplitData: step = splitData(sink); break;
            case kEnd: return MZ_END_OF_STREAM;
            default: return fail(MZ_INTERNAL_ERROR, code(platform::Failure::InvalidArgument));
        }
        if (error_ != 0) return error_;
        if (sinkFailed_ || step != Step::Continue) return static_cast<std::int32_t>(inputLength_);
    }
}

std::int32_t LocalRecordParser::write(std::span<const std::uint8_t> chunk, RecordSink& sink) {
    if (error_ != 0) return error_;
    if (!chunk.empty()) ++chunkNumber_;
    std::size_t from = 0;
    for (;;) {
        const std::int32_t result = pass(chunk, from, sink);
        if (replayFrom_ < 0) return result;
        from = replay(sink);
    }
}

// One chunk from `from` on; with the held bytes first. A pass that ends in a replay is undone:
// nothing of it is kept.
std::int32_t LocalRecordParser::pass(std::span<const std::uint8_t> chunk, std::size_t from, RecordSink& sink) {
    if (error_ != 0) return error_;
    input_ = chunk.data();
    inputLength_ = static_cast<std::int64_t>(chunk.size());
    inputPosition_ = static_cast<std::int64_t>(from);
    pendingPosition_ = 0;
    std::int32_t result = static_cast<std::int32_t>(chunk.size());
    if (!chunk.empty() && !sinkFailed_) result = consume(sink);
    if (replayFrom_ >= 0) {
        input_ = nullptr;
        return result;
    }

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
    // While entries are held back the chunk is kept, from where the oldest began, to be read
    // again should one of them end elsewhere.
    if (!heldBack_.empty()) {
        const std::int64_t base = heldBack_.front().chunk == chunkNumber_ ? heldBack_.front().offset : 0;
        kept_.push_back({chunkNumber_, base, std::vector<std::uint8_t>(chunk.begin() + base, chunk.end())});
        keptBytes_ += kept_.back().bytes.size();
    }
    pendingPosition_ = 0;
    input_ = nullptr;
    inputLength_ = 0;
    inputPosition_ = 0;
    return result;
}

SplitEntry::State decodeSplitEntry(SplitEntry& split, z_stream_s& z) {
    if (!split.output) {
        split.crc = static_cast<std::uint32_t>(crc32(0, split.input.get(), static_cast<uInt>(split.inputSize)));
        return SplitEntry::kDecoded;
    }
    if (inflateReset(&z) != Z_OK) return SplitEntry::kDiverged;
    z.next_in = split.input.get();
    z.avail_in = static_cast<uInt>(split.inputSize);
    z.next_out = split.output.get();
    z.avail_out = static_cast<uInt>(split.outputCapacity);
    const int rc = inflate(&z, Z_NO_FLUSH);
    split.outputSize = split.outputCapacity - z.avail_out;
    const uInt unread = z.avail_in;
    z.next_in = nullptr;
    z.next_out = nullptr;
    split.crc = static_cast<std::uint32_t>(crc32(0, split.output.get(), static_cast<uInt>(split.outputSize)));
    if (rc == Z_STREAM_END) {
        // Data that ends before its size ends elsewhere: what follows it is read as records.
        if (unread != 0) return SplitEntry::kDiverged;
        if (split.outputSize < static_cast<std::size_t>(split.entry.uncompressedSize)) {
            split.result = MZ_FORMAT_ERROR;
            split.systemError = code(platform::Failure::DamagedData);
        }
        return SplitEntry::kDecoded;
    }
    // Damage inside the entry's bytes is met at the same place reading in order.
    if (rc == Z_DATA_ERROR || rc == Z_NEED_DICT) {
        split.result = Z_DATA_ERROR;
        split.systemError = code(platform::Failure::DamagedData);
        return SplitEntry::kDecoded;
    }
    // Data that goes on past its size or makes more than the room holds (or a decoder short of
    // memory) is read in order instead.
    return SplitEntry::kDiverged;
}
