// The unpack stream's parser: the local records of a ZIP archive (local file headers, entry data,
// data descriptors) arriving in chunks of any size and in order, turned into entries and their
// uncompressed bytes. It touches no file system: bytes come in, and what they hold goes out, in
// archive order, to a RecordSink (the extraction, or a recorder in tests and the fuzzer).
//
// Decodes stored, deflate and zstd entries, checks every entry's CRC-32 and size, and stops at
// the first central-directory or end record. The first failure is kept with the platform's
// error code that describes it, and returned by every later write.
#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "archive/byte_buffer.h"
#include "archive/stream.h"

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

// Where the parser hands what it finds. `path` is the entry's name resolved below the target:
// '/'-separated, never empty, no empty, "." or ".." component. Every call but room() returns
// false once the sink has failed; the parser then stops where it is.
class RecordSink {
public:
    virtual ~RecordSink() = default;
    virtual bool directory(const LocalEntry& entry, const std::string& path) = 0;
    // A file entry begins. `reportOpenFailure` is false when the parser fails the entry itself
    // right after (an unsupported method): the file is still made, its failure is not reported.
    virtual bool beginFile(const LocalEntry& entry, const std::string& path, bool reportOpenFailure) = 0;
    // Room for the file's next bytes (never empty); fill() says how much of it now holds them.
    virtual std::span<std::uint8_t> room() = 0;
    virtual bool fill(std::size_t count) = 0;
    // The file's bytes are complete (its CRC-32 is checked after this).
    virtual bool endFile() = 0;
    // A sink that checks each file's CRC-32 itself is given the value the file's bytes must
    // have (from the local header or the data descriptor); otherwise the parser checks it.
    virtual bool checksCrc() const { return false; }
    virtual bool verifyCrc(std::uint32_t) { return true; }
};

class LocalRecordParser {
public:
    enum State : std::int32_t {
        kExpectHeader = 0,
        kStoredData = 1,
        kDeflateData = 2,
        kZstdData = 3,
        kExpectDescriptor = 4,
        kEnd = 5,
    };

    LocalRecordParser();
    ~LocalRecordParser();
    LocalRecordParser(const LocalRecordParser&) = delete;
    LocalRecordParser& operator=(const LocalRecordParser&) = delete;

    // Starts a fresh archive: state, entry, counters, held bytes and failure. MZ_MEM_ERROR when
    // the extra-field stream cannot be made.
    std::int32_t start();
    // Frees the decoders and the extra-field stream and forgets the held bytes.
    void release();

    // Consumes one chunk (the held bytes of earlier chunks first): the chunk's length while
    // healthy (bytes that do not complete a record yet are held for the next chunk),
    // MZ_END_OF_STREAM after the central directory, or the first failure. When the sink fails
    // the parser stops and returns the length; the sink knows its own failure.
    std::int32_t write(std::span<const std::uint8_t> chunk, RecordSink& sink);
    // Copies input bytes (held ones first, then the current chunk's) and consumes them.
    std::size_t read(std::span<std::uint8_t> into);

    State state() const { return state_; }
    const LocalEntry& entry() const { return entry_; }
    // Bytes of the current entry handed to the sink.
    std::int64_t produced() const { return produced_; }
    std::int32_t error() const { return error_; }
    int systemError() const { return systemError_; }
    std::int64_t heldCapacity() const { return byteBufferCapacity(pending_.get()); }
    std::int64_t droppedBytes() const { return droppedBytes_; }

private:
    enum class Step { Continue, NeedInput, Complete };
    struct Mark {
        std::int64_t pending;
        std::int64_t input;
    };
    struct Decoders;

    std::int32_t fail(std::int32_t code, int systemError);
    std::span<const std::uint8_t> available() const;
    void advance(std::size_t count);
    Mark mark() const { return {pendingPosition_, inputPosition_}; }
    void rewind(Mark m);

    std::int32_t consume(RecordSink& sink);
    std::int32_t parseLocalHeader();
    std::int32_t setUpMethod();
    bool output(RecordSink& sink, std::span<const std::uint8_t> block);
    bool finishEntry(RecordSink& sink);
    bool checkCrc(RecordSink& sink, std::uint32_t expected);
    bool entryHasZip64();
    Step expectHeader(RecordSink& sink);
    Step storedData(RecordSink& sink);
    Step deflateData(RecordSink& sink);
    Step zstdData(RecordSink& sink);
    Step expectDescriptor(RecordSink& sink);

    std::unique_ptr<Decoders> decoders_;
    MzStreamPtr extraField_;
    std::vector<std::uint8_t> extraBytes_;
    LocalEntry entry_;
    std::uint32_t crc_ = 0;
    std::int64_t produced_ = 0;
    std::int32_t error_ = 0;
    int systemError_ = 0;
    State state_ = kExpectHeader;
    bool sinkFailed_ = false;
    const std::uint8_t* input_ = nullptr;
    std::int64_t inputLength_ = 0;
    std::int64_t inputPosition_ = 0;
    ByteBufferPtr pending_;
    std::int64_t pendingPosition_ = 0;
    std::int64_t droppedBytes_ = 0;
};
