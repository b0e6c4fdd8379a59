// Worker threads that compress blocks of file data while their owner goes on with other work.
// A block is raw deflate at level 6 ending on a byte boundary (sync flush), or the end of the
// stream (finish) when it is a file's last; primed with the 32 KiB of data before it, the
// blocks of one file joined in order form one deflate stream. A stored block is only checked
// (its CRC-32). Blocks are taken up in the order they are submitted; the result of each is
// read once it is done.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>


struct DeflateBlock {
    // Set before submitting.
    std::unique_ptr<std::uint8_t[]> input;
    std::size_t inputSize = 0;
    std::unique_ptr<std::uint8_t[]> dictionary;  // the data just before this block, or null
    std::size_t dictionarySize = 0;
    bool stored = false;  // copied as it is; the output is the input
    bool last = false;    // ends the stream (deflate only)
    // Deflate only: room for the output, made by the submitter (at least outputBound(inputSize))
    // so that the threads do not allocate; replaced by a larger one if it proves too small.
    std::unique_ptr<std::uint8_t[]> output;
    std::size_t outputCapacity = 0;
    // Valid once done.
    std::size_t outputSize = 0;
    std::uint32_t crc = 0;
    std::int32_t result = 0;  // MZ_OK or an MZ_* failure
    bool done = false;        // guarded by the workers' lock

    const std::uint8_t* data() const { return stored ? input.get() : output.get(); }
    std::size_t size() const { return stored ? inputSize : outputSize; }
};

class DeflateWorkers {
public:
    DeflateWorkers();
    ~DeflateWorkers();
    DeflateWorkers(const DeflateWorkers&) = delete;
    DeflateWorkers& operator=(const DeflateWorkers&) = delete;

    // Starts `count` threads (at least 1); false when memory runs out.
    bool start(unsigned count);
    // Lets the running blocks finish, drops the waiting ones (they stay not done) and joins
    // the threads. A started engine must be stopped before its blocks are freed.
    void stop();
    unsigned count() const { return static_cast<unsigned>(threads_.size()); }

    // The block must stay alive until it is done or the engine is stopped.
    void submit(DeflateBlock* block);
    void waitFor(const DeflateBlock* block);

    // Room enough for the deflated form of `size` bytes and its flush marker.
    static std::size_t outputBound(std::size_t size);

private:
    struct Worker;
    void run(Worker* worker);

    std::mutex lock_;
    std::condition_variable work_;
    std::condition_variable finished_;
    std::deque<DeflateBlock*> queue_;
    bool stopping_ = false;
    std::vector<std::unique_ptr<Worker>> workers_;
    std::vector<std::thread> threads_;
};

// How many threads a directory stream starts when its caller leaves it to the machine: the
// environment variable `variable` when it holds a positive number, else the core count; never
// more than 8, since more only cost memory (what the threads may hold is bounded as a whole).
unsigned defaultWorkerCount(const char* variable);
