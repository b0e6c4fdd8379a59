// The unpack stream's parser: the local records of a ZIP archive (local file headers, entry data,
// data descriptors) arriving in chunks of any size and in order, turned into entries and their
// uncompressed bytes. It touches no file system: bytes come in, and what they hold goes out, in
// archive order, to a RecordSink (the extraction, or a recorder in tests and the fuzzer).
//
// Decodes stored, deflate and zstd entries, checks every entry's CRC-32 and size, and stops at
// the first central-directory or end record. The first failure is kept with the platform's
// error code that describes it, and returned by every later write.
//
// A sink with threads of its own may take whole entries instead (stored or deflate, sizes in the
// local header, at most kSplitLimit bytes either way): the parser collects such an entry's bytes,
// hands them over and goes on with the next header while the sink decodes them. Going on is a
// guess that the data ends where the header says; it holds for every sane archive, but the
// entries are read as their data says, so the guess is checked. Until every entry handed over
// is known to end there, the parser goes no further than directories and more such entries, and
// keeps the chunks it was given; when one ends elsewhere (or its data would not fit its size),
// it takes that entry and everything after it back and reads the kept chunks again, as they
// came, decoding that entry itself. The result is the same as reading in order, whatever the
// sink's threads do; only the write that reports a failure may come later.
#pragma once

#include <atomic>
#include <cstdint>
#include <deque>
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

// An entry handed over whole: what the parser collected, and what decoding it gave.
struct SplitEntry {
    enum State : std::uint8_t { kPending, kDecoded, kDiverged };
    LocalEntry entry;
    std::string path;
    std::unique_ptr<std::uint8_t[]> input;  // the entry's data, as many bytes as it consumes
    std::size_t inputSize = 0;
    std::size_t collected = 0;
    std::unique_ptr<std::uint8_t[]> output;  // deflate only: room for one byte over the size
    std::size_t outputCapacity = 0;
    // Set by decodeSplitEntry: kDecoded with what came out (all of it, or what came before a
    // failure: `result` an MZ_* or zlib code with the platform's error code), or kDiverged when
    // the data does not end where the header says or does not fit the room.
    std::size_t outputSize = 0;
    std::uint32_t crc = 0;
    std::int32_t result = 0;
    int systemError = 0;
    std::atomic<std::uint8_t> state{kPending};

    std::span<const std::uint8_t> data() const {
        return {output ? output.get() : input.get(), output ? outputSize : inputSize};
    }
    std::size_t heldBytes() const { return inputSize + outputCapacity; }
};

// Decodes a collected entry with a raw-deflate stream of the caller's (a stored one is only
// checked); sets everything but `state`, and returns what `state` must become.
struct z_stream_s;
SplitEntry::State decodeSplitEntry(SplitEntry& split, z_stream_s& inflater);

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

    // A sink that decodes whole entries on threads of its own says so, and takes each once its
    // bytes are collected (it checks the CRC-32 itself). The parser waits for one to be decoded,
    // for the bytes the sink holds to fall to a limit, and takes an entry back together with
    // everything it handed over after it.
    virtual bool splits() const { return false; }
    virtual bool split(const std::shared_ptr<SplitEntry>&) { return false; }
    virtual void waitDecoded(const SplitEntry&) {}
    virtual std::size_t heldBytes() { return 0; }
    virtual void waitHeld(std::size_t) {}
    virtual void withdraw(const SplitEntry&) {}
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
        kSplitData = 6,  // collecting an entry's bytes for the sink
    };
    // The largest entry (either size) handed over whole, and the most bytes held for entries
    // handed over, their data and the kept chunks together.
    static constexpr std::int64_t kSplitLimit = 4 << 20;
    static constexpr std::size_t kHeldLimit = 12 << 20;

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
    // No more chunks come: whatever was held back for the sink's threads is settled, the entry
    // being collected and any that ended elsewhere read in order, as far as the bytes go.
    void finish(RecordSink& sink);

    State state() const { return state_; }
    const LocalEntry& entry() const { return entry_; }
    // Bytes of the current entry handed to the sink.
    std::int64_t produced() const { return produced_; }
    std::int32_t error() const { return error_; }
    int systemError() const { return systemError_; }
    std::int64_t heldCapacity() const { return byteBufferCapacity(pending_.get()); }
    std::int64_t droppedBytes() const { return droppedBytes_; }

private:
    enum class Step { Continue, NeedInput, Complete, Replay };
    struct Mark {
        std::int64_t pending;
        std::int64_t input;
    };
    struct Decoders;
    // An entry handed over (or being collected) and where its header began: the chunk (by
    // number), the offset in it and the held bytes still unread then.
    struct HeldBack {
        std::shared_ptr<SplitEntry> split;
        std::uint64_t chunk;
        std::int64_t offset;
        std::vector<std::uint8_t> pending;
        std::uint64_t items;  // items_ when it began
    };
    // A chunk kept while entries are held back, from `base` on.
    struct KeptChunk {
        std::uint64_t number;
        std::int64_t base;
        std::vector<std::uint8_t> bytes;
    };

    std::int32_t fail(std::int32_t code, int systemError);
    std::span<const std::uint8_t> available() const;
    void advance(std::size_t count);
    Mark mark() const { return {pendingPosition_, inputPosition_}; }
    void rewind(Mark m);

    std::int32_t pass(std::span<const std::uint8_t> chunk, std::size_t from, RecordSink& sink);
    std::int32_t consume(RecordSink& sink);
    std::int32_t parseLocalHeader();
    bool splittable(const RecordSink& sink) const;
    std::size_t splitInputSize() const;
    std::size_t splitOutputSize() const;
    bool makeRoom(RecordSink& sink, std::size_t need);
    bool holdBack(Mark start, const std::string& path);
    void trim();
    void dropHeldBack();
    Step confirm(RecordSink& sink);
    std::size_t replay(RecordSink& sink);
    Step splitData(RecordSink& sink);
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

    // Entries held back, oldest first, and the chunks kept since the oldest began.
    std::deque<HeldBack> heldBack_;
    std::deque<KeptChunk> kept_;
    std::size_t keptBytes_ = 0;
    std::uint64_t chunkNumber_ = 0;  // of the current chunk
    std::uint64_t items_ = 0;        // directories and entries handed over while holding back
    std::int64_t replayFrom_ = -1;   // the held-back entry to read again from, if any
    bool noSplit_ = false;
    bool replayed_ = false;  // the next header is the one read again: it is not handed over
};
