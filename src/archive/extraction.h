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
// large blocks while the parser goes on. Each write call settles before it returns: what the
// thread has not taken yet is done by the caller itself, one event at a time and in order
// whoever does it, so every failure is known, and reported, by the write during which it
// happened, exactly as if all of it ran on one thread.
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

#include "archive/local_record_parser.h"
#include "platform/platform.h"

class Extraction final : public RecordSink {
public:
    Extraction();
    ~Extraction() override;
    Extraction(const Extraction&) = delete;
    Extraction& operator=(const Extraction&) = delete;

    // Opens the target (a directory, links on the way followed), forgets any earlier failure
    // and starts the thread. False when the target cannot be opened.
    bool open(const char* target);
    // Returns once everything handed over so far is done (or failed), doing what is left.
    void settle();
    // Settles, closes the current file (a failure to close is kept), stops the thread and
    // closes the target.
    void close();

    bool directory(const LocalEntry& entry, const std::string& path) override;
    bool beginFile(const LocalEntry& entry, const std::string& path, bool reportOpenFailure) override;
    std::span<std::uint8_t> room() override;
    bool fill(std::size_t count) override;
    bool endFile() override;
    bool checksCrc() const override { return true; }
    bool verifyCrc(std::uint32_t expected) override;

    // The first failure (an MZ_* code) and the platform's error code of the call that failed;
    // 0 while healthy. Read after settle() or close().
    std::int32_t error() const { return error_; }
    int systemError() const { return systemError_; }

private:
    enum class Kind : std::uint8_t { Directory, File, QuietFile, Data, EndFile, Crc };
    struct Event {
        Kind kind;
        std::uint64_t value = 0;  // Data: byte count; Crc: the expected value
        std::string path;
    };

    bool push(Event event);
    void sendData();
    bool healthy() const { return !failed_.load(std::memory_order_relaxed); }

    // Applying events: the thread, or the caller in settle(), whoever holds applying_.
    void run();
    void apply(const Event& event);
    void data(std::uint64_t count);
    void flush();
    void closeFile();
    void fail(std::int32_t code, int systemError);

    std::unique_ptr<std::uint8_t[]> ring_;
    platform::DirectoryHandle target_;
    std::thread thread_;

    std::mutex lock_;
    std::condition_variable work_;      // the thread waits for events
    std::condition_variable progress_;  // the caller waits for room, queue space or settling
    std::deque<Event> queue_;           // guarded by lock_
    std::uint64_t freed_ = 0;           // ring bytes the thread is done with; guarded by lock_
    bool applying_ = false;             // an event is being applied; guarded by lock_
    bool stop_ = false;                 // guarded by lock_
    std::atomic<bool> failed_{false};

    // The caller's side.
    std::uint64_t filled_ = 0;     // ring bytes the parser filled
    std::uint64_t unsent_ = 0;     // of those, not yet handed over
    std::uint64_t freedSeen_ = 0;  // freed_ when last looked at
    std::uint64_t unwoken_ = 0;  // bytes handed over since the thread was last woken
    bool handedOver_ = false;  // anything pushed since the last settle

    // Touched only by whoever holds applying_.
    platform::File file_;
    std::uint64_t taken_ = 0;    // ring bytes handed over and checked
    std::uint64_t written_ = 0;  // of those, written (or dropped after a failure)
    std::uint32_t crc_ = 0;
    std::int32_t error_ = 0;
    int systemError_ = 0;
};
