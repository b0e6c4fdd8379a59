#include "archive/deflate_workers.h"

#include <zlib.h>

#include <cstdlib>
#include <cstring>
#include <new>

#include "archive/stream.h"
#include "platform/platform.h"

namespace {

constexpr int kLevel = 6;
constexpr int kRawWindowBits = -15;
constexpr int kMemLevel = 8;
// Each worker needs two block buffers in flight: more would let memory grow with the machine.
constexpr unsigned kMaxWorkers = 8;

}  // namespace

struct DeflateWorkers::Worker {
    z_stream z{};
    bool ready = false;
    ~Worker() {
        if (ready) deflateEnd(&z);
    }
};

namespace {

// Compresses one block with a reset stream.
std::int32_t compress(z_stream& z, DeflateBlock& b) {
    if (deflateReset(&z) != Z_OK) return MZ_INTERNAL_ERROR;
    if (b.dictionary && deflateSetDictionary(&z, b.dictionary.get(), static_cast<uInt>(b.dictionarySize)) != Z_OK)
        return MZ_INTERNAL_ERROR;
    std::size_t capacity = b.output ? b.outputCapacity : 0;
    z.next_in = b.input.get();
    z.avail_in = static_cast<uInt>(b.inputSize);
    b.outputSize = 0;
    const int flush = b.last ? Z_FINISH : Z_SYNC_FLUSH;
    for (;;) {
        if (b.outputSize == capacity) {
            const std::size_t grown = capacity + capacity / 2 + 64;
            auto* bigger = new (std::nothrow) std::uint8_t[grown];
            if (!bigger) return MZ_MEM_ERROR;
            if (b.outputSize > 0) std::memcpy(bigger, b.output.get(), b.outputSize);
            b.output.reset(bigger);
            capacity = grown;
            b.outputCapacity = grown;
        }
        z.next_out = b.output.get() + b.outputSize;
        z.avail_out = static_cast<uInt>(capacity - b.outputSize);
        const int rc = deflate(&z, flush);
        b.outputSize = capacity - z.avail_out;
        if (rc == Z_STREAM_END) return MZ_OK;
        if (rc != Z_OK && rc != Z_BUF_ERROR) return MZ_INTERNAL_ERROR;
        // A sync flush is complete when deflate leaves output space unused.
        if (!b.last && z.avail_in == 0 && z.avail_out > 0) return MZ_OK;
    }
}

}  // namespace

DeflateWorkers::DeflateWorkers() = default;
DeflateWorkers::~DeflateWorkers() { stop(); }

std::size_t DeflateWorkers::outputBound(std::size_t size) { return compressBound(static_cast<uLong>(size)) + 16; }

unsigned defaultWorkerCount(const char* variable) {
    if (const char* value = platform::environment(variable)) {
        const long n = std::strtol(value, nullptr, 10);
        if (n > 0) return static_cast<unsigned>(n < static_cast<long>(kMaxWorkers) ? n : kMaxWorkers);
    }
    const unsigned cores = std::thread::hardware_concurrency();
    return cores == 0 ? 1 : cores < kMaxWorkers ? cores : kMaxWorkers;
}

bool DeflateWorkers::start(unsigned count) {
    stop();
    if (count == 0) count = 1;
    stopping_ = false;
    // The streams are made here, on the owner's thread, so the threads never allocate.
    for (unsigned i = 0; i < count; ++i) {
        auto worker = std::unique_ptr<Worker>(new (std::nothrow) Worker);
        if (!worker || deflateInit2(&worker->z, kLevel, Z_DEFLATED, kRawWindowBits, kMemLevel, Z_DEFAULT_STRATEGY) != Z_OK) {
            workers_.clear();
            return false;
        }
        worker->ready = true;
        workers_.push_back(std::move(worker));
    }
    for (auto& worker : workers_) threads_.emplace_back([this, w = worker.get()] { run(w); });
    return true;
}

void DeflateWorkers::stop() {
    {
        std::lock_guard<std::mutex> hold(lock_);
        stopping_ = true;
        queue_.clear();
    }
    work_.notify_all();
    for (auto& t : threads_) t.join();
    threads_.clear();
    workers_.clear();
}

void DeflateWorkers::submit(DeflateBlock* block) {
    {
        std::lock_guard<std::mutex> hold(lock_);
        queue_.push_back(block);
    }
    work_.notify_one();
}

void DeflateWorkers::waitFor(const DeflateBlock* block) {
    std::unique_lock<std::mutex> hold(lock_);
    finished_.wait(hold, [block] { return block->done; });
}

void DeflateWorkers::run(Worker* worker) {
    for (;;) {
        DeflateBlock* b = nullptr;
        {
            std::unique_lock<std::mutex> hold(lock_);
            work_.wait(hold, [this] { return stopping_ || !queue_.empty(); });
            if (stopping_) return;
            b = queue_.front();
            queue_.pop_front();
        }
        b->crc = static_cast<std::uint32_t>(crc32(0, b->input.get(), static_cast<uInt>(b->inputSize)));
        if (!b->stored) b->result = compress(worker->z, *b);
        {
            std::lock_guard<std::mutex> hold(lock_);
            b->done = true;
        }
        finished_.notify_all();
    }
}
