// The unpack stream's extraction: makes the directories and files the parser finds below a
// target directory held open from start to finish.
//
// Every name is resolved below the target one component at a time without following a link; an
// entry's parent is looked up afresh for every entry, so a directory moved out of the target
// meanwhile is never written into. Every file is created new: whatever held its name (a file, a
// hard link, a FIFO, a device, a link) is unlinked first, never written through or opened.
// Parents that have no entry of their own are made.
//
// The file system work and the CRC-32 of the files' bytes are done apart from the decoding: the
// parser decodes into a ring of fixed size on the caller's thread and hands over what it made,
// in order, through a bounded queue; a thread of the extraction's own takes it and writes it in
// large blocks while the parser goes on. With more than one worker, entries whose sizes the
// local header gives are handed over whole and decoded by worker threads, several at once,
// while the parser reads on; their files are still made in archive order, each only when
// everything before it is done, so a failure stops the extraction exactly where reading in
// order would have.
//
// The file system is touched only between resume() and settle() (inside the stream's write
// and close, where the ending signals wait): settle() lets the thread finish what it is doing
// and does what is ready itself, one event at a time and in order whoever does it. An entry
// still being decoded waits for the next write, or for close(); everything else is known, and
// reported, by the write during which it happened. Between writes the workers only decode into
// memory.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <span>
#include <string>
#include <thread>
#include <vector>

#include "archive/local_record_parser.h"
#include "platform/platform.h"

class Extraction final : public RecordSink {
public:
    Extraction();
    ~Extraction() override;
    Extraction(const Extraction&) = delete;
    Extraction& operator=(const Extraction&) = delete;

    // Opens the target (a directory, links on the way followed), forgets any earlier failure
    // and starts the thread; with `workers` above 1 that many workers decode whole entries.
    // False when the target cannot be opened.
    bool open(const char* target, unsigned workers);
    // Lets the thread apply what it is handed.
    void resume();
    // Stops the thread and returns once everything handed over so far is done (or failed),
    // doing what is left, but for the entries still being decoded and what follows them.
    void settle();
    // Does everything handed over, waiting for the decoding.
    void drain();
    // Does everything handed over (waiting for the decoding), closes the current file (a failure
    // to close is kept), stops the threads and closes the target.
    void close();

    bool directory(const LocalEntry& entry, const std::string& path) override;
    bool beginFile(const LocalEntry& entry, const std::string& path, bool reportOpenFailure) override;
    std::span<std::uint8_t> room() override;
    bool fill(std::size_t count) override;
    bool endFile() override;
    bool checksCrc() const override { return true; }
    bool verifyCrc(std::uint32_t expected) override;
    bool splits() const override { return workers_ > 1; }
    bool split(const std::shared_ptr<SplitEntry>& split) override;
    void waitDecoded(const SplitEntry& split) override;
    std::size_t heldBytes() override;
    void waitHeld(std::size_t limit) override;
    void withdraw(const SplitEntry& split) override;

    // The first failure (an MZ_* code) and the platform's error code of the call that failed;
    // 0 while healthy. Read after settle() or close().
    std::int32_t error() const { return error_; }
    int systemError() const { return systemError_; }

private:
    enum class Kind : std::uint8_t { Directory, File, QuietFile, Data, EndFile, Crc, Split };
    struct Event {
        Kind kind;
        std::uint64_t value = 0;  // Data: byte count; Crc: the expected value
        std::string path;
        std::shared_ptr<SplitEntry> split;
    };

    bool push(Event event);
    void sendData();
    bool healthy() const { return !failed_.load(std::memory_order_relaxed); }
    // Whether the event can be applied now (under lock_): an entry must be decoded first, and
    // one that ended elsewhere waits to be withdrawn unless `closing`.
    bool ready(const Event& event, bool closing) const;
    // The caller applies what is ready (everything, waiting for the decoding, when `closing`).
    void applyReady(bool closing);

    // Applying events: the thread, or the caller in settle(), whoever holds applying_.
    void run();
    void apply(const Event& event);
    bool openFile(const std::string& path);
    void commit(const SplitEntry& split);
    void data(std::uint64_t count);
    void flush();
    void closeFile();
    void fail(std::int32_t code, int systemError);

    void decode();  // a worker

    std::unique_ptr<std::uint8_t[]> ring_;
    platform::DirectoryHandle target_;
    std::thread thread_;

    std::mutex lock_;
    std::condition_variable work_;      // the thread waits for events
    std::condition_variable progress_;  // the caller waits for room, queue space or settling
    std::deque<Event> queue_;           // guarded by lock_
    std::uint64_t freed_ = 0;           // ring bytes the thread is done with; guarded by lock_
    bool applying_ = false;             // an event is being applied; guarded by lock_
    bool active_ = false;               // the thread may apply events; guarded by lock_
    bool stop_ = false;                 // guarded by lock_
    std::atomic<bool> failed_{false};

    // The workers and the entries they are to decode, oldest first; guarded by lock_.
    unsigned workers_ = 1;
    std::vector<std::thread> decoders_;
    std::condition_variable decodeWork_;
    std::deque<std::shared_ptr<SplitEntry>> toDecode_;
    std::size_t held_ = 0;  // bytes of the entries handed over and not yet done
    bool stopDecoding_ = false;

    // The caller's side.
    std::uint64_t filled_ = 0;     // ring bytes the parser filled
    std::uint64_t unsent_ = 0;     // of those, not yet handed over
    std::uint64_t freedSeen_ = 0;  // freed_ when last looked at
    std::uint64_t unwoken_ = 0;  // bytes handed over since the thread was last woken
    bool handedOver_ = false;  // anything pushed since the last settle, or left by it

    // Touched only by whoever holds applying_.
    platform::File file_;
    std::uint64_t taken_ = 0;    // ring bytes handed over and checked
    std::uint64_t written_ = 0;  // of those, written (or dropped after a failure)
    std::uint32_t crc_ = 0;
    std::int32_t error_ = 0;
    int systemError_ = 0;
};
