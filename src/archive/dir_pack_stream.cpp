#include "archive/dir_pack_stream.h"

#include <zlib.h>

#include <algorithm>
#include <climits>
#include <cstring>
#include <deque>
#include <memory>
#include <new>
#include <span>
#include <string>
#include <vector>

#include "archive/byte_buffer.h"
#include "archive/deflate_workers.h"
#include "archive/file_stream.h"
#include "archive/stream.h"
#include "archive/zip_records.h"
#include "platform/platform.h"

// The ZIP records are written here rather than by libarchive: its writer compresses every entry
// itself, on the calling thread, and cannot take data compressed elsewhere; here the walk reads
// files ahead into blocks that worker threads deflate while the reader takes the archive in order.

namespace {

constexpr std::int32_t kUnsupportedModeBit = 0x1000000;
// Files are cut into blocks of this size, each deflated by whichever worker is free.
constexpr std::size_t kBlockSize = std::size_t{1} << 19;
// Each block after a file's first is primed with this much of the data before it.
constexpr std::size_t kDictionarySize = 32768;
// A deflated file below this size surely fits the 32-bit size fields; a larger one is zip64
// from its local header on. A file that grows past it while being read is cut there.
constexpr std::uint64_t kDeflate32Limit = 0xFF000000u;
constexpr std::uint64_t kStored32Limit = 0xFFFFFFFFu;
// Blocks read ahead: one more than there are workers, so none waits for the walk; with the one
// being delivered, the buffers in use stay this few whatever the tree.
constexpr std::size_t kAheadBlocks = 1;
// Records queued ahead at most (a tree of many empty files or directories).
constexpr std::size_t kMaxQueued = 4096;

// A directory being listed and its path (ending in '/').
struct DirFrame {
    platform::DirectoryReader reader;
    std::string path;
};

enum class ItemKind : std::uint8_t { Directory, FileStart, Block, FileEnd, End };

// One step of the archive. The walk queues them in archive order; the reader turns each into
// bytes when it gets there.
struct Item {
    ItemKind kind = ItemKind::End;
    std::unique_ptr<ziprec::Entry> entry;  // Directory, FileStart
    std::int64_t size = 0;                 // FileStart: the file's size when it was listed
    std::unique_ptr<DeflateBlock> block;   // Block
    std::int32_t error = 0;                // FileEnd: a read failure, kept once the reader gets here
};

// The file the walk is reading.
struct WalkFile {
    MzStreamPtr stream;
    bool stored = false;
    bool padding = false;      // a stored file ended early: zeros up to the size already announced
    std::int32_t failure = 0;  // the first read failure
    std::uint64_t read = 0;
    std::uint64_t limit = 0;   // what it may give at most
    std::uint64_t sizeHint = 0;
    std::unique_ptr<std::uint8_t[]> tail;  // the last kDictionarySize bytes read, for the next block
};

struct PackStream {
    mz_stream header;
    bool isOpen = false;
    unsigned workerCount = 0;  // 0: the machine's (defaultWorkerCount)
    DeflateWorkers workers;

    // The walk, ahead of the reader.
    std::string rootPath;
    std::vector<DirFrame> stack;  // suspended parents, innermost last
    DirFrame current;
    WalkFile file;
    bool walkOver = false;
    std::deque<Item> queue;
    std::size_t queuedBlocks = 0;
    std::size_t aheadLimit = 0;  // blocks
    // Block buffers are reused rather than freed: a steady few keep the heap from fragmenting.
    std::vector<std::unique_ptr<std::uint8_t[]>> spareInputs;
    std::vector<std::unique_ptr<std::uint8_t[]>> spareOutputs;

    // The reader's side: what it is being given.
    std::unique_ptr<ziprec::Entry> entry;  // the file whose data is being delivered
    std::string entryName;
    std::int64_t entrySize = 0;
    std::int64_t entryDone = 0;
    bool finished = false;  // the central directory is being delivered: the walk is over
    ziprec::Bytes records;  // the current header or descriptor
    std::unique_ptr<DeflateBlock> segmentBlock;
    const std::uint8_t* segment = nullptr;
    std::size_t segmentLeft = 0;
    ziprec::Bytes central;
    std::uint64_t entries = 0;

    std::int64_t produced = 0;
    std::int32_t error = 0;
    std::uint8_t* readerBuffer = nullptr;
    std::int64_t readerSize = 0;
    std::int64_t filled = 0;
    ByteBufferPtr pending;
    PackMethodCallback method = nullptr;
    void* progressUser = nullptr;
    PackProgressCallback progress = nullptr;
};

PackStream* self(void* stream) { return static_cast<PackStream*>(stream); }

void fail(PackStream* s, std::int32_t code) {
    if (s->error == 0) s->error = code;
}

// ---- the walk ---------------------------------------------------------------------------------

std::unique_ptr<ziprec::Entry> newEntry(std::string name, const platform::Status& st) {
    auto e = std::unique_ptr<ziprec::Entry>(new (std::nothrow) ziprec::Entry);
    if (!e) return e;
    e->name = std::move(name);
    e->mtime = st.mtime;
    e->dosTime = ziprec::dosDateTime(st.mtime);
    return e;
}

void queueItem(PackStream* s, ItemKind kind) {
    s->queue.emplace_back();
    s->queue.back().kind = kind;
}

void endWalkFile(PackStream* s) {
    queueItem(s, ItemKind::FileEnd);
    s->queue.back().error = s->file.failure;
    mz_stream_close(s->file.stream.get());
    s->file = WalkFile{};
}

std::unique_ptr<std::uint8_t[]> takeBuffer(std::vector<std::unique_ptr<std::uint8_t[]>>& spares, std::size_t size) {
    if (spares.empty()) return std::unique_ptr<std::uint8_t[]>(new (std::nothrow) std::uint8_t[size]);
    auto buffer = std::move(spares.back());
    spares.pop_back();
    return buffer;
}

// Takes back the buffers of a delivered block.
void recycle(PackStream* s, std::unique_ptr<DeflateBlock> block) {
    if (!block) return;
    if (block->input) s->spareInputs.push_back(std::move(block->input));
    if (block->output && block->outputCapacity == DeflateWorkers::outputBound(kBlockSize))
        s->spareOutputs.push_back(std::move(block->output));
}

// Reads the open file's next block and hands it to the workers; the block that ends the file
// ends its deflate stream too.
void readBlock(PackStream* s) {
    WalkFile& f = s->file;
    const auto want = static_cast<std::size_t>(std::min<std::uint64_t>(kBlockSize, f.limit - f.read));
    auto block = std::unique_ptr<DeflateBlock>(new (std::nothrow) DeflateBlock);
    if (block) {
        block->input = takeBuffer(s->spareInputs, kBlockSize);
        if (!f.stored) {
            block->outputCapacity = DeflateWorkers::outputBound(kBlockSize);
            block->output = takeBuffer(s->spareOutputs, block->outputCapacity);
        }
    }
    if (!block || !block->input || (!f.stored && !block->output)) {
        // Out of memory: the file's data cannot be completed.
        fail(s, MZ_MEM_ERROR);
        if (f.failure == 0) f.failure = MZ_MEM_ERROR;
        endWalkFile(s);
        return;
    }
    std::uint8_t* const data = block->input.get();
    std::size_t n = 0;
    bool end = false;
    while (n < want) {
        if (f.padding) {
            std::memset(data + n, 0, want - n);
            n = want;
            break;
        }
        const std::int32_t got =
            mz_stream_read(f.stream.get(), data + n, static_cast<std::int32_t>(std::min<std::size_t>(want - n, INT32_MAX)));
        if (got > 0) {
            n += static_cast<std::size_t>(got);
            continue;
        }
        if (got < 0 && got != MZ_END_OF_STREAM && f.failure == 0) f.failure = got;
        // A stored file's size is in its header already: what is missing becomes zeros.
        if (f.stored) {
            f.padding = true;
            continue;
        }
        end = true;
        break;
    }
    f.read += n;
    if (f.read >= f.limit) end = true;

    block->inputSize = n;
    block->stored = f.stored;
    block->last = end;
    if (!f.stored) {
        block->dictionary = std::move(f.tail);
        block->dictionarySize = block->dictionary ? kDictionarySize : 0;
        if (!end) {
            // Only full blocks are followed by another one.
            f.tail.reset(new (std::nothrow) std::uint8_t[kDictionarySize]);
            if (!f.tail) {
                fail(s, MZ_MEM_ERROR);
                if (f.failure == 0) f.failure = MZ_MEM_ERROR;
                block->last = end = true;
            } else {
                std::memcpy(f.tail.get(), data + n - kDictionarySize, kDictionarySize);
            }
        }
    }
    DeflateBlock* b = block.get();
    queueItem(s, ItemKind::Block);
    s->queue.back().block = std::move(block);
    ++s->queuedBlocks;
    s->workers.submit(b);
    if (end) endWalkFile(s);
}

void addDirectory(PackStream* s, const std::string& fullPath, const platform::Status& st, std::string name) {
    auto e = newEntry(std::move(name) + '/', st);
    if (!e) {
        fail(s, MZ_MEM_ERROR);
        return;
    }
    e->directory = true;
    queueItem(s, ItemKind::Directory);
    s->queue.back().entry = std::move(e);
    DirFrame child;
    if (!child.reader.open(fullPath)) return;  // listed as an entry, not descended into
    child.path = fullPath + '/';
    s->stack.push_back(std::move(s->current));
    s->current = std::move(child);
}

void addFile(PackStream* s, const std::string& fullPath, const platform::Status& st, std::int32_t method,
             std::string name) {
    const std::size_t lead = name.find_first_not_of('/');
    name.erase(0, lead == std::string::npos ? name.size() : lead);
    MzStreamPtr stream(mz_stream_os_create());
    auto e = newEntry(std::move(name), st);
    if (!stream || !e) {
        fail(s, MZ_MEM_ERROR);
        return;
    }
    if (mz_stream_open(stream.get(), fullPath.c_str(), MZ_OPEN_MODE_READ) != MZ_OK) return;  // left out
    // Stored when asked; everything else (zstd included) is deflated.
    e->stored = method == MZ_COMPRESS_METHOD_STORE;
    e->storedSize = st.size;
    e->zip64 = st.size >= (e->stored ? kStored32Limit : kDeflate32Limit);
    WalkFile& f = s->file;
    f = WalkFile{};
    f.stream = std::move(stream);
    f.stored = e->stored;
    f.sizeHint = st.size;
    f.limit = e->stored ? st.size : e->zip64 ? UINT64_MAX : kDeflate32Limit;
    queueItem(s, ItemKind::FileStart);
    s->queue.back().entry = std::move(e);
    s->queue.back().size = static_cast<std::int64_t>(st.size);
}

void takeName(PackStream* s, const std::string& name) {
    if (name == "." || name == "..") return;
    std::int32_t method = MZ_COMPRESS_METHOD_DEFLATE;
    if (s->method) {
        method = s->method(name.c_str());
        if (method < 0) return;
    }
    const std::string fullPath = s->current.path + name;
    std::string entryName = fullPath.substr(s->rootPath.size());
    std::replace(entryName.begin(), entryName.end(), '\\', '/');

    // Real directories are descended into; links to directories are not followed, so a link
    // cycle cannot trap the walk.
    platform::Status st;
    if (platform::linkStatus(fullPath, st) && st.kind == platform::Kind::Directory) {
        addDirectory(s, fullPath, st, std::move(entryName));
        return;
    }
    // Only regular files (or links to them) are read: a FIFO or a device would block or worse.
    if (!platform::status(fullPath, st) || st.kind != platform::Kind::Regular) return;
    addFile(s, fullPath, st, method, std::move(entryName));
}

void leaveDirectory(PackStream* s) {
    s->current.reader.close();
    s->current.path.clear();
    if (s->stack.empty()) {
        queueItem(s, ItemKind::End);
        s->walkOver = true;
        return;
    }
    s->current = std::move(s->stack.back());
    s->stack.pop_back();
}

// Walks on until the read-ahead is full.
void walkAhead(PackStream* s) {
    while (!s->walkOver && s->queuedBlocks < s->aheadLimit && s->queue.size() < kMaxQueued) {
        if (s->file.stream) {
            readBlock(s);
            continue;
        }
        std::string name;
        if (s->current.reader.next(name)) {
            takeName(s, name);
        } else {
            leaveDirectory(s);
        }
    }
}

// ---- the reader's side ------------------------------------------------------------------------

void setSegment(PackStream* s, const std::uint8_t* data, std::size_t size) {
    s->segment = data;
    s->segmentLeft = size;
}

// Turns the next queued step into the bytes to deliver.
void nextSegment(PackStream* s) {
    recycle(s, std::move(s->segmentBlock));
    walkAhead(s);
    Item item = std::move(s->queue.front());
    s->queue.pop_front();
    if (item.kind == ItemKind::Block) --s->queuedBlocks;
    // The workers get the next block before this one is waited for.
    walkAhead(s);
    s->records.clear();
    switch (item.kind) {
        case ItemKind::Directory:
            item.entry->offset = static_cast<std::uint64_t>(s->produced);
            ziprec::appendLocalHeader(s->records, *item.entry);
            ziprec::appendCentralHeader(s->central, *item.entry);
            ++s->entries;
            s->entryName = item.entry->name;
            s->entrySize = 0;
            s->entryDone = 0;
            setSegment(s, s->records.data(), s->records.size());
            break;
        case ItemKind::FileStart:
            s->entry = std::move(item.entry);
            s->entry->offset = static_cast<std::uint64_t>(s->produced);
            ziprec::appendLocalHeader(s->records, *s->entry);
            s->entryName = s->entry->name;
            s->entrySize = item.size;
            s->entryDone = 0;
            setSegment(s, s->records.data(), s->records.size());
            break;
        case ItemKind::Block: {
            DeflateBlock* b = item.block.get();
            s->workers.waitFor(b);
            if (b->result != MZ_OK) fail(s, b->result);
            ziprec::Entry& e = *s->entry;
            e.crc = static_cast<std::uint32_t>(crc32_combine(e.crc, b->crc, static_cast<z_off_t>(b->inputSize)));
            e.compressedSize += b->size();
            e.uncompressedSize += b->inputSize;
            s->entryDone += static_cast<std::int64_t>(b->inputSize);
            setSegment(s, b->data(), b->size());
            s->segmentBlock = std::move(item.block);
            break;
        }
        case ItemKind::FileEnd:
            if (item.error != 0) fail(s, item.error);
            ziprec::appendDescriptor(s->records, *s->entry);
            ziprec::appendCentralHeader(s->central, *s->entry);
            ++s->entries;
            s->entryDone = s->entrySize;
            setSegment(s, s->records.data(), s->records.size());
            break;
        case ItemKind::End: {
            const auto directorySize = static_cast<std::uint64_t>(s->central.size());
            ziprec::appendEndRecords(s->central, s->entries, static_cast<std::uint64_t>(s->produced), directorySize);
            s->finished = true;
            setSegment(s, s->central.data(), s->central.size());
            break;
        }
    }
}

// Copies what the current segment still holds into the reader's buffer.
void deliver(PackStream* s) {
    const auto n = static_cast<std::size_t>(std::min<std::int64_t>(
        static_cast<std::int64_t>(s->segmentLeft), s->readerSize - s->filled));
    std::memcpy(s->readerBuffer + s->filled, s->segment, n);
    s->segment += n;
    s->segmentLeft -= n;
    s->filled += static_cast<std::int64_t>(n);
    s->produced += static_cast<std::int64_t>(n);
}

// ---- operation table --------------------------------------------------------------------------

std::int32_t packIsOpen(void* stream) { return self(stream)->isOpen ? MZ_OK : MZ_OPEN_ERROR; }

std::int32_t packOpen(void* stream, const char* path, std::int32_t mode) {
    PackStream* s = self(stream);
    if (!s) return MZ_PARAM_ERROR;
    if (s->isOpen) return MZ_OPEN_ERROR;
    if (!path) return MZ_PARAM_ERROR;
    if (mode & kUnsupportedModeBit) return MZ_INTERNAL_ERROR;

    s->produced = 0;
    s->error = 0;
    if (s->pending) s->pending->length = 0;
    s->walkOver = false;
    s->finished = false;
    s->entries = 0;
    s->entrySize = 0;
    s->entryDone = 0;
    s->entryName.clear();
    s->segmentLeft = 0;

    if (!s->current.reader.open(path)) return MZ_OPEN_ERROR;
    s->current.path = path;
    if (s->current.path.empty() || s->current.path.back() != '/') s->current.path.push_back('/');
    s->rootPath = s->current.path;

    const unsigned count = s->workerCount != 0 ? s->workerCount : defaultWorkerCount("VAROFT_PACK_WORKERS");
    if (!s->workers.start(count)) {
        s->current.reader.close();
        return MZ_MEM_ERROR;
    }
    s->aheadLimit = s->workers.count() + kAheadBlocks;
    s->isOpen = true;
    return MZ_OK;
}

std::int32_t packWrite(void* stream, const void* buf, std::int32_t size) {
    PackStream* s = self(stream);
    if (size < 0) return MZ_PARAM_ERROR;
    if (!s->isOpen) return MZ_OPEN_ERROR;
    s->produced += size;
    const auto* bytes = static_cast<const std::uint8_t*>(buf);
    std::int64_t toReader = 0;
    if (s->readerBuffer) {
        toReader = std::min<std::int64_t>(size, s->readerSize - s->filled);
        std::memcpy(s->readerBuffer + s->filled, bytes, static_cast<std::size_t>(toReader));
        s->filled += toReader;
    }
    const std::span<const std::uint8_t> rest(bytes + toReader, static_cast<std::size_t>(size - toReader));
    if (!byteBufferAppend(s->pending, rest)) {
        fail(s, MZ_MEM_ERROR);
        return MZ_MEM_ERROR;
    }
    return size;
}

std::int64_t packTell(void* stream) { return self(stream)->produced; }

void reportProgress(PackStream* s) {
    if (!s->progress) return;
    const std::int32_t status = s->error != 0 ? 2 : s->finished ? 1 : 0;
    if (s->finished) {
        s->progress(s->progressUser, "", 0, 0, status);
    } else {
        s->progress(s->progressUser, s->entryName.c_str(), s->entrySize, s->entryDone, status);
    }
}

std::int32_t packRead(void* stream, void* buf, std::int32_t size) {
    PackStream* s = self(stream);
    if (size < 0) return MZ_PARAM_ERROR;
    if (!s->isOpen) return MZ_OPEN_ERROR;
    auto* out = static_cast<std::uint8_t*>(buf);

    // Bytes written into the stream beyond an earlier reader's buffer go first.
    const std::int32_t c = static_cast<std::int32_t>(std::min<std::int64_t>(byteBufferLength(s->pending.get()), size));
    if (c > 0) {
        std::memcpy(out, byteBufferData(s->pending.get()), static_cast<std::size_t>(c));
        byteBufferConsume(s->pending.get(), static_cast<std::uint32_t>(c));
    }
    std::int32_t result = c;
    if (c < size) {
        s->readerBuffer = out + c;
        s->readerSize = size - c;
        s->filled = 0;
        // Once the central directory is under way the archive only drains.
        const bool draining = s->finished;
        while (s->filled < s->readerSize) {
            if (s->segmentLeft > 0) {
                deliver(s);
            } else if (s->finished) {
                break;
            } else {
                nextSegment(s);
            }
        }
        result = c + static_cast<std::int32_t>(s->filled);
        s->readerBuffer = nullptr;
        s->readerSize = 0;
        s->filled = 0;
        if (draining) return result > 0 ? result : MZ_END_OF_STREAM;
    }
    reportProgress(s);
    return result;
}

std::int32_t packClose(void* stream) {
    PackStream* s = self(stream);
    if (s->readerBuffer) return MZ_OK;  // called from inside a read
    // The workers let go of every block before the blocks go.
    s->workers.stop();
    s->queue.clear();
    s->queuedBlocks = 0;
    s->segmentBlock.reset();
    s->spareInputs.clear();
    s->spareOutputs.clear();
    s->segmentLeft = 0;
    s->entry.reset();
    s->records = {};
    s->central = {};
    if (s->file.stream) mz_stream_close(s->file.stream.get());
    s->file = WalkFile{};
    s->current.reader.close();
    s->current.path.clear();
    s->stack.clear();
    s->rootPath.clear();
    s->entryName.clear();
    s->isOpen = false;
    return s->error;
}

std::int32_t packError(void* stream) { return self(stream)->error; }

void* packCreate();

void packDestroy(void** stream) {
    if (!stream || !*stream) return;
    packClose(*stream);
    delete self(*stream);
    *stream = nullptr;
}

const mz_stream_vtbl kPackTable = {packOpen,  packIsOpen, packRead,   packWrite,   packTell, nullptr,
                                   packClose, packError,  packCreate, packDestroy, nullptr,  nullptr};

void* packCreate() {
    auto* stream = new (std::nothrow) PackStream{};
    if (!stream) return nullptr;
    stream->header.vtbl = &kPackTable;
    return stream;
}

}  // namespace

void* createDirPackStream() { return packCreate(); }

void setDirPackStreamCallbacks(void* stream, PackMethodCallback method, PackProgressCallback progress, void* user) {
    if (!stream) return;
    self(stream)->method = method;
    self(stream)->progress = progress;
    self(stream)->progressUser = user;
}

void setDirPackStreamWorkers(void* stream, unsigned count) {
    if (stream) self(stream)->workerCount = count;
}
