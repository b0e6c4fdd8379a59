#include "archive/extraction.h"

#include <zlib.h>

#include <algorithm>
#include <iterator>
#include <new>

#include "archive/stream.h"

namespace {

// Memory stays flat whatever the archive: one ring and a bounded queue of events.
constexpr std::uint64_t kRingSize = 1 << 20;
// The parser hands its bytes over in pieces of this size (smaller at a file's end) ...
constexpr std::uint64_t kPieceSize = 32 << 10;
// ... and the thread writes them in blocks of at least this size (smaller at a file's end and
// when the caller settles).
constexpr std::uint64_t kWriteSize = 256 << 10;
constexpr std::size_t kMaxEvents = 1024;
// The thread is woken for at most every this many bytes (see push()).
constexpr std::uint64_t kWakeSize = 128 << 10;

}  // namespace

Extraction::Extraction() = default;

Extraction::~Extraction() { close(); }

bool Extraction::open(const char* target, unsigned workers) {
    close();
    if (!ring_) {
        ring_.reset(new (std::nothrow) std::uint8_t[kRingSize]);
        if (!ring_) return false;
    }
    // Held open for the whole archive: every entry is resolved below this very directory.
    if (!target_.open(target)) return false;
    error_ = 0;
    systemError_ = 0;
    failed_ = false;
    filled_ = unsent_ = freedSeen_ = 0;
    taken_ = written_ = 0;
    freed_ = 0;
    stop_ = applying_ = active_ = false;
    queue_.clear();
    workers_ = workers;
    toDecode_.clear();
    held_ = 0;
    stopDecoding_ = false;
    // The thread never takes the ending signals: their handler runs on the caller's thread,
    // which holds them back while the thread works (see the unpack stream's write).
    platform::TerminationBlock block;
    thread_ = std::thread([this] { run(); });
    return true;
}

void Extraction::resume() {
    {
        std::lock_guard<std::mutex> hold(lock_);
        active_ = true;
    }
    work_.notify_one();
}

bool Extraction::ready(const Event& event, bool closing) const {
    if (event.kind != Kind::Split) return true;
    const auto state = event.split->state.load(std::memory_order_acquire);
    return state == SplitEntry::kDecoded || (state == SplitEntry::kDiverged && (closing || !healthy()));
}

void Extraction::applyReady(bool closing) {
    // Whoever applies an event holds `applying_`, so they are applied one at a time, in order.
    std::unique_lock<std::mutex> hold(lock_);
    active_ = false;
    for (;;) {
        progress_.wait(hold, [&] { return !applying_ && (!closing || queue_.empty() || ready(queue_.front(), true)); });
        if (queue_.empty() || !ready(queue_.front(), closing)) break;
        Event event = std::move(queue_.front());
        queue_.pop_front();
        applying_ = true;
        hold.unlock();
        apply(event);
        hold.lock();
        applying_ = false;
    }
    handedOver_ = !queue_.empty();
    applying_ = true;
    hold.unlock();
    flush();
    hold.lock();
    applying_ = false;
}

void Extraction::settle() {
    sendData();
    if (!thread_.joinable()) return;
    if (!handedOver_) {
        std::lock_guard<std::mutex> hold(lock_);
        active_ = false;
        return;
    }
    // What the thread has not taken yet is done here rather than waiting for it to wake up.
    applyReady(false);
}

void Extraction::drain() {
    if (!thread_.joinable()) return;
    sendData();
    applyReady(true);
}

void Extraction::close() {
    if (thread_.joinable()) {
        drain();
        {
            std::lock_guard<std::mutex> hold(lock_);
            stop_ = true;
            stopDecoding_ = true;
        }
        work_.notify_one();
        decodeWork_.notify_all();
        thread_.join();
        for (auto& decoder : decoders_) decoder.join();
        decoders_.clear();
    }
    closeFile();
    target_.close();
}

// ---- the caller's side ------------------------------------------------------------------------

bool Extraction::push(Event event) {
    // Waking the thread costs more than a small piece of work: it is woken for a file or a
    // directory to make and for every kWakeSize bytes; the rest waits for it or for settle().
    // An entry being decoded wakes it when it is done.
    unwoken_ += event.kind == Kind::Data ? event.value : event.kind == Kind::Split ? 0 : kWakeSize;
    const bool wake = unwoken_ >= kWakeSize;
    {
        std::unique_lock<std::mutex> hold(lock_);
        if (queue_.size() == kMaxEvents) {
            work_.notify_one();
            progress_.wait(hold, [&] { return queue_.size() < kMaxEvents; });
        }
        queue_.push_back(std::move(event));
    }
    handedOver_ = true;
    if (wake) {
        unwoken_ = 0;
        work_.notify_one();
    }
    return healthy();
}

void Extraction::sendData() {
    if (unsent_ == 0) return;
    push({Kind::Data, unsent_, {}, {}});
    unsent_ = 0;
}

bool Extraction::directory(const LocalEntry&, const std::string& path) { return push({Kind::Directory, 0, path, {}}); }

bool Extraction::beginFile(const LocalEntry&, const std::string& path, bool reportOpenFailure) {
    return push({reportOpenFailure ? Kind::File : Kind::QuietFile, 0, path, {}});
}

std::span<std::uint8_t> Extraction::room() {
    if (kRingSize - (filled_ - freedSeen_) < kPieceSize) {
        std::unique_lock<std::mutex> hold(lock_);
        if (filled_ - freed_ == kRingSize) {
            hold.unlock();
            sendData();  // the thread frees only what it was given
            work_.notify_one();
            hold.lock();
            progress_.wait(hold, [&] { return filled_ - freed_ < kRingSize; });
        }
        freedSeen_ = freed_;
    }
    const std::uint64_t at = filled_ % kRingSize;
    const std::uint64_t free = kRingSize - (filled_ - freedSeen_);
    return {ring_.get() + at, static_cast<std::size_t>(std::min(free, kRingSize - at))};
}

bool Extraction::fill(std::size_t count) {
    filled_ += count;
    unsent_ += count;
    // A piece never runs across the ring's end.
    if (unsent_ >= kPieceSize || filled_ % kRingSize == 0) sendData();
    return healthy();
}

bool Extraction::endFile() {
    sendData();
    return push({Kind::EndFile, 0, {}, {}});
}

bool Extraction::verifyCrc(std::uint32_t expected) { return push({Kind::Crc, expected, {}, {}}); }

bool Extraction::split(const std::shared_ptr<SplitEntry>& split) {
    if (decoders_.empty()) {
        // Like the thread, the workers never take the ending signals.
        platform::TerminationBlock block;
        for (unsigned i = 0; i < workers_; ++i) decoders_.emplace_back([this] { decode(); });
    }
    {
        std::lock_guard<std::mutex> hold(lock_);
        held_ += split->heldBytes();
        toDecode_.push_back(split);
    }
    decodeWork_.notify_one();
    return push({Kind::Split, 0, {}, split});
}

void Extraction::waitDecoded(const SplitEntry& split) {
    std::unique_lock<std::mutex> hold(lock_);
    progress_.wait(hold, [&] { return split.state.load(std::memory_order_relaxed) != SplitEntry::kPending; });
}

std::size_t Extraction::heldBytes() {
    std::lock_guard<std::mutex> hold(lock_);
    return held_;
}

void Extraction::waitHeld(std::size_t limit) {
    std::unique_lock<std::mutex> hold(lock_);
    progress_.wait(hold, [&] { return held_ <= limit; });
}

void Extraction::withdraw(const SplitEntry& split) {
    {
        std::lock_guard<std::mutex> hold(lock_);
        // Not applied yet (it cannot be), nor anything after it, which holds no ring bytes:
        // while entries are held back the parser decodes nothing itself.
        const auto at = std::find_if(queue_.begin(), queue_.end(), [&](const Event& e) { return e.split.get() == &split; });
        for (auto e = at; e != queue_.end(); ++e) {
            if (!e->split) continue;
            held_ -= e->split->heldBytes();
            std::erase(toDecode_, e->split);
        }
        queue_.erase(at, queue_.end());
    }
    progress_.notify_all();
}

// ---- the workers ------------------------------------------------------------------------------

void Extraction::decode() {
    z_stream z{};
    const bool usable = inflateInit2(&z, -15) == Z_OK;
    for (;;) {
        std::shared_ptr<SplitEntry> split;
        {
            std::unique_lock<std::mutex> hold(lock_);
            decodeWork_.wait(hold, [&] { return stopDecoding_ || !toDecode_.empty(); });
            if (toDecode_.empty()) break;
            split = std::move(toDecode_.front());
            toDecode_.pop_front();
        }
        // Without a decoder of its own the entry is read in order, by the parser.
        const SplitEntry::State state = usable ? decodeSplitEntry(*split, z) : SplitEntry::kDiverged;
        {
            std::lock_guard<std::mutex> hold(lock_);
            split->state.store(state, std::memory_order_release);
        }
        work_.notify_one();
        progress_.notify_all();
    }
    if (usable) inflateEnd(&z);
}

// ---- applying events: the thread, or the caller while it settles ------------------------------

void Extraction::run() {
    for (;;) {
        Event event;
        {
            std::unique_lock<std::mutex> hold(lock_);
            work_.wait(hold, [&] { return stop_ || (active_ && !applying_ && !queue_.empty() && ready(queue_.front(), false)); });
            if (stop_) return;
            event = std::move(queue_.front());
            queue_.pop_front();
            applying_ = true;
        }
        apply(event);
        {
            std::lock_guard<std::mutex> hold(lock_);
            applying_ = false;
        }
        progress_.notify_all();
    }
}

void Extraction::fail(std::int32_t code, int systemError) {
    if (error_ != 0) return;
    error_ = code;
    systemError_ = systemError;
    failed_ = true;
}

void Extraction::apply(const Event& event) {
    // After a failure only the ring's bytes are accounted for, so the caller never waits.
    const bool live = error_ == 0;
    switch (event.kind) {
        case Kind::Directory: {
            platform::DirectoryHandle made;
            if (!live || made.openBeneath(target_, event.path, true)) break;
            // Something other than a directory that holds one of the names is left alone.
            const int error = platform::lastError();
            fail(error == platform::failureCode(platform::Failure::NotADirectory) ? MZ_EXIST_ERROR : MZ_INTERNAL_ERROR,
                 error);
            break;
        }
        case Kind::File:
        case Kind::QuietFile:
            if (!live) break;
            crc_ = 0;
            if (!openFile(event.path) && event.kind == Kind::File) fail(MZ_OPEN_ERROR, platform::lastError());
            break;
        case Kind::Data: data(event.value); break;
        case Kind::EndFile:
            flush();
            if (live) closeFile();
            break;
        case Kind::Crc:
            if (live && event.value != crc_) fail(MZ_CRC_ERROR, platform::failureCode(platform::Failure::DamagedData));
            break;
        case Kind::Split: {
            SplitEntry& split = *event.split;
            if (live && split.state.load(std::memory_order_acquire) == SplitEntry::kDecoded) commit(split);
            split.input.reset();
            split.output.reset();
            {
                std::lock_guard<std::mutex> hold(lock_);
                held_ -= split.heldBytes();
            }
            break;
        }
    }
}

bool Extraction::openFile(const std::string& path) {
    // The parent is made when missing, as many writers leave parent entries out.
    const std::size_t slash = path.rfind('/');
    platform::DirectoryHandle parent;
    return parent.openBeneath(target_, slash == std::string::npos ? std::string() : path.substr(0, slash), true) &&
           file_.createNewAt(parent, path.substr(slash == std::string::npos ? 0 : slash + 1));
}

// A decoded entry, checked as reading in order checks it: made, written, then a failure of its
// data, or closed and its CRC-32 compared.
void Extraction::commit(const SplitEntry& split) {
    if (!openFile(split.path)) return fail(MZ_OPEN_ERROR, platform::lastError());
    const auto bytes = split.data();
    if (!bytes.empty() && file_.write(bytes) < 0) return fail(MZ_WRITE_ERROR, platform::lastError());
    if (split.result != 0) return fail(split.result, split.systemError);
    closeFile();
    if (error_ == 0 && split.crc != split.entry.crc)
        fail(MZ_CRC_ERROR, platform::failureCode(platform::Failure::DamagedData));
}

void Extraction::data(std::uint64_t count) {
    const std::uint8_t* at = ring_.get() + taken_ % kRingSize;
    taken_ += count;
    if (error_ == 0) {
        if (!file_.isOpen()) fail(MZ_STREAM_ERROR, platform::failureCode(platform::Failure::InvalidArgument));
        crc_ = static_cast<std::uint32_t>(crc32(crc_, at, static_cast<uInt>(count)));
    }
    // A block never runs across the ring's end.
    if (taken_ - written_ >= kWriteSize || taken_ % kRingSize == 0) flush();
}

void Extraction::flush() {
    if (taken_ == written_) return;
    if (error_ == 0 &&
        file_.write({ring_.get() + written_ % kRingSize, static_cast<std::size_t>(taken_ - written_)}) < 0)
        fail(MZ_WRITE_ERROR, platform::lastError());
    written_ = taken_;
    std::lock_guard<std::mutex> hold(lock_);
    freed_ = written_;
}

void Extraction::closeFile() {
    if (file_.isOpen() && !file_.close()) fail(MZ_CLOSE_ERROR, platform::lastError());
}
