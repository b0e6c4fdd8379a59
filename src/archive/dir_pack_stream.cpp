#include "archive/dir_pack_stream.h"

#include <archive.h>
#include <archive_entry.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <new>
#include <span>
#include <string>
#include <vector>

#include "archive/byte_buffer.h"
#include "archive/stream.h"
#include "archive/file_stream.h"
#include "common/bytes.h"
#include "platform/platform.h"

namespace {

constexpr std::int32_t kUnsupportedModeBit = 0x1000000;
// Files are handed to the writer in steps of at most this many bytes.
constexpr std::int32_t kFileStep = 65535;
constexpr const char* kWriterOptions = "zip:compression=deflate,zip:compression-level=6,zip:hdrcharset=UTF-8";

struct WriterDeleter {
    void operator()(archive* a) const { archive_write_free(a); }
};
struct EntryDeleter {
    void operator()(archive_entry* e) const { archive_entry_free(e); }
};

// A directory being listed and its path (ending in '/').
struct DirFrame {
    platform::DirectoryReader reader;
    std::string path;
};

// Which header records the writer's output holds while it is being patched.
enum class Patching : std::uint8_t { None, LocalHeader, CentralHeaders };

struct PackStream {
    mz_stream header;
    std::unique_ptr<archive, WriterDeleter> writer;
    bool writerClosed = false;  // the walk is over and the central directory was emitted
    bool entryOpen = false;     // the writer has a file entry open
    bool discard = false;       // while closing: what the writer still emits is dropped
    MzStreamPtr file;
    std::string rootPath;
    std::string entryName;
    std::vector<DirFrame> stack;  // suspended parents, innermost last
    DirFrame current;
    std::int64_t entrySize = 0;
    std::int64_t entryDone = 0;
    std::int64_t produced = 0;
    std::int32_t error = 0;
    std::uint8_t* readerBuffer = nullptr;
    std::int64_t readerSize = 0;
    std::int64_t filled = 0;
    ByteBufferPtr pending;
    PackMethodCallback method = nullptr;
    void* progressUser = nullptr;
    PackProgressCallback progress = nullptr;
    std::unique_ptr<archive_entry, EntryDeleter> entry;
    std::unique_ptr<std::uint8_t[]> fileBuffer;
    Patching patching = Patching::None;
    std::vector<std::uint8_t> record;  // a header record gathered until it is whole
};

PackStream* self(void* stream) { return static_cast<PackStream*>(stream); }

void fail(PackStream* s, std::int32_t code) {
    if (s->error == 0) s->error = code;
}

// ---- the name flag -------------------------------------------------------------------------
//
// Every entry whose name is valid UTF-8 carries the UTF-8 name flag, plain ASCII included; a
// name that is not (POSIX names are any bytes) keeps its bytes with the flag clear, so strict
// readers take it as code page 437 instead of rejecting the archive. The zip writer sets the
// flag by its own rule (for every name that is not plain ASCII, valid or not), and none of its
// options or pathname forms changes that. So the header records it writes, local headers in
// archive_write_header and central-directory headers in archive_write_close, are gathered here
// whole and get the flag by the name they hold before they go on; everything else passes as it
// comes. The flag is in no check sum.

constexpr std::uint16_t kUtf8NameFlag = 0x0800;
constexpr std::uint32_t kLocalHeaderSignature = 0x04034b50;
constexpr std::uint32_t kCentralHeaderSignature = 0x02014b50;

bool isValidUtf8(std::span<const std::uint8_t> text) {
    std::size_t i = 0;
    while (i < text.size()) {
        const std::uint8_t lead = text[i];
        if (lead < 0x80) {
            ++i;
            continue;
        }
        std::size_t length;
        std::uint32_t code;
        if ((lead & 0xE0) == 0xC0) {
            length = 2, code = lead & 0x1Fu;
        } else if ((lead & 0xF0) == 0xE0) {
            length = 3, code = lead & 0x0Fu;
        } else if ((lead & 0xF8) == 0xF0) {
            length = 4, code = lead & 0x07u;
        } else {
            return false;
        }
        if (text.size() - i < length) return false;
        for (std::size_t k = 1; k < length; ++k) {
            if ((text[i + k] & 0xC0) != 0x80) return false;
            code = code << 6 | (text[i + k] & 0x3Fu);
        }
        // No overlong forms, no surrogates, nothing beyond U+10FFFF.
        constexpr std::uint32_t kShortest[] = {0, 0, 0x80, 0x800, 0x10000};
        if (code < kShortest[length] || code > 0x10FFFF || (code >= 0xD800 && code <= 0xDFFF)) return false;
        i += length;
    }
    return true;
}

std::int32_t forward(PackStream* s, std::span<const std::uint8_t> bytes) {
    if (bytes.empty()) return MZ_OK;
    const std::int32_t rc = mz_stream_write(s, bytes.data(), static_cast<std::int32_t>(bytes.size()));
    return rc < 0 ? rc : MZ_OK;
}

// Sends on what was gathered as it is and stops patching.
std::int32_t stopPatching(PackStream* s) {
    s->patching = Patching::None;
    const std::int32_t rc = forward(s, s->record);
    s->record.clear();
    return rc;
}

// Gathers header bytes; each whole record goes on with its flag set by its name.
std::int32_t patchHeaders(PackStream* s, std::span<const std::uint8_t> bytes) {
    const bool local = s->patching == Patching::LocalHeader;
    const std::size_t fixed = local ? 30 : 46;
    while (!bytes.empty() && s->patching != Patching::None) {
        std::size_t whole = s->record.size() < 4 ? 4 : fixed;
        if (s->record.size() >= fixed) {
            const std::size_t at = local ? 26 : 28;
            whole += bytes::get16(s->record, at) + std::size_t{bytes::get16(s->record, at + 2)};
            if (!local) whole += bytes::get16(s->record, 32);
        }
        const std::size_t take = std::min(bytes.size(), whole - s->record.size());
        s->record.insert(s->record.end(), bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(take));
        bytes = bytes.subspan(take);
        if (s->record.size() < whole) continue;
        if (whole == 4) {
            // Anything but the expected header (the end records after the central directory).
            if (bytes::get32(s->record, 0) != (local ? kLocalHeaderSignature : kCentralHeaderSignature)) {
                if (const std::int32_t rc = stopPatching(s); rc != MZ_OK) return rc;
            }
            continue;
        }
        if (whole == fixed) continue;  // the lengths are known now
        const std::size_t flagAt = local ? 6 : 8;
        const std::uint16_t nameLength = bytes::get16(s->record, local ? 26 : 28);
        std::uint16_t flag = bytes::get16(s->record, flagAt);
        flag = isValidUtf8(std::span(s->record).subspan(fixed, nameLength)) ? flag | kUtf8NameFlag
                                                                             : flag & ~kUtf8NameFlag;
        s->record[flagAt] = static_cast<std::uint8_t>(flag);
        s->record[flagAt + 1] = static_cast<std::uint8_t>(flag >> 8);
        if (const std::int32_t rc = forward(s, s->record); rc != MZ_OK) return rc;
        s->record.clear();
        if (local) s->patching = Patching::None;  // one local header per entry
    }
    return forward(s, bytes);
}

la_ssize_t writerOutput(archive* /*a*/, void* client, const void* buffer, size_t length) {
    PackStream* s = self(client);
    if (s->discard) return static_cast<la_ssize_t>(length);
    const std::span<const std::uint8_t> bytes(static_cast<const std::uint8_t*>(buffer), length);
    const std::int32_t rc = s->patching == Patching::None ? forward(s, bytes) : patchHeaders(s, bytes);
    return rc < 0 ? ARCHIVE_FATAL : static_cast<la_ssize_t>(length);
}

// Writes an entry's header with its name flag put right.
int writeHeader(PackStream* s, archive_entry* e) {
    s->patching = Patching::LocalHeader;
    const int rc = archive_write_header(s->writer.get(), e);
    if (stopPatching(s) != MZ_OK) return ARCHIVE_FATAL;
    return rc;
}

// Fills the entry record shared by directories and files.
archive_entry* prepareEntry(PackStream* s, const std::string& name, const platform::Status& st, bool directory) {
    if (!s->entry) s->entry.reset(archive_entry_new());
    archive_entry* e = s->entry.get();
    if (!e) return nullptr;
    archive_entry_clear(e);
    archive_entry_set_pathname_utf8(e, name.c_str());
    archive_entry_set_filetype(e, directory ? AE_IFDIR : AE_IFREG);
    archive_entry_set_perm(e, directory ? 0755 : 0644);
    archive_entry_set_size(e, directory ? 0 : static_cast<la_int64_t>(st.size));
    archive_entry_set_mtime(e, static_cast<time_t>(st.mtime), 0);
    return e;
}

void endFile(PackStream* s) {
    if (s->entryOpen) archive_write_finish_entry(s->writer.get());
    s->entryOpen = false;
    if (s->file) {
        mz_stream_close(s->file.get());
        s->file.reset();
    }
    s->entryDone = s->entrySize;
}

// Feeds the next step of the open file to the writer.
void continueFile(PackStream* s) {
    if (!s->entryOpen) {
        fail(s, MZ_PARAM_ERROR);
        endFile(s);
        return;
    }
    const std::int32_t n = mz_stream_read(s->file.get(), s->fileBuffer.get(), kFileStep);
    if (n > 0) {
        const la_ssize_t taken = archive_write_data(s->writer.get(), s->fileBuffer.get(), static_cast<size_t>(n));
        if (taken != n) {
            fail(s, MZ_WRITE_ERROR);
            endFile(s);
            return;
        }
        s->entryDone += n;
        return;
    }
    if (n < 0 && n != MZ_END_OF_STREAM) fail(s, n);
    endFile(s);
}

void addDirectory(PackStream* s, const std::string& fullPath, const platform::Status& st) {
    archive_entry* e = prepareEntry(s, s->entryName + "/", st, true);
    if (!e) {
        fail(s, MZ_MEM_ERROR);
        return;
    }
    archive_write_zip_set_compression_store(s->writer.get());
    if (writeHeader(s, e) >= ARCHIVE_WARN) archive_write_finish_entry(s->writer.get());
    DirFrame child;
    if (!child.reader.open(fullPath)) return;  // listed as an entry, not descended into
    child.path = fullPath + '/';
    s->stack.push_back(std::move(s->current));
    s->current = std::move(child);
}

void addFile(PackStream* s, const std::string& fullPath, const platform::Status& st, std::int32_t method) {
    const std::size_t lead = s->entryName.find_first_not_of('/');
    s->entryName.erase(0, lead == std::string::npos ? s->entryName.size() : lead);
    s->file.reset(mz_stream_os_create());
    if (!s->file) {
        fail(s, MZ_MEM_ERROR);
        return;
    }
    archive_entry* e = prepareEntry(s, s->entryName, st, false);
    if (!e) {
        fail(s, MZ_MEM_ERROR);
        return;
    }
    if (mz_stream_open(s->file.get(), fullPath.c_str(), MZ_OPEN_MODE_READ) != MZ_OK) {
        s->file.reset();  // left out
        return;
    }
    // Stored when asked; everything else (zstd included, which this writer lacks) is deflated.
    if (method == MZ_COMPRESS_METHOD_STORE) {
        archive_write_zip_set_compression_store(s->writer.get());
    } else {
        archive_write_zip_set_compression_deflate(s->writer.get());
    }
    if (writeHeader(s, e) < ARCHIVE_WARN) {
        mz_stream_close(s->file.get());
        s->file.reset();
        return;
    }
    s->entryOpen = true;
    s->entrySize = static_cast<std::int64_t>(st.size);
}

void takeName(PackStream* s, const std::string& name) {
    if (name == "." || name == "..") return;
    std::int32_t method = MZ_COMPRESS_METHOD_DEFLATE;
    if (s->method) {
        method = s->method(name.c_str());
        if (method < 0) return;
    }
    const std::string fullPath = s->current.path + name;
    s->entryName.assign(fullPath, s->rootPath.size());
    std::replace(s->entryName.begin(), s->entryName.end(), '\\', '/');
    s->entrySize = 0;
    s->entryDone = 0;

    // Real directories are descended into; links to directories are not followed, so a link
    // cycle cannot trap the walk.
    platform::Status st;
    if (platform::linkStatus(fullPath, st) && st.kind == platform::Kind::Directory) {
        addDirectory(s, fullPath, st);
        return;
    }
    // Only regular files (or links to them) are read: a FIFO or a device would block or worse.
    if (!platform::status(fullPath, st) || st.kind != platform::Kind::Regular) return;
    addFile(s, fullPath, st, method);
}

void leaveDirectory(PackStream* s) {
    s->current.reader.close();
    s->current.path.clear();
    if (s->stack.empty()) {
        s->patching = Patching::CentralHeaders;
        if (archive_write_close(s->writer.get()) != ARCHIVE_OK || stopPatching(s) != MZ_OK) fail(s, MZ_WRITE_ERROR);
        s->writerClosed = true;
        return;
    }
    s->current = std::move(s->stack.back());
    s->stack.pop_back();
}

// ---- operation table --------------------------------------------------------------------------

std::int32_t packIsOpen(void* stream) { return self(stream)->writer ? MZ_OK : MZ_OPEN_ERROR; }

std::int32_t packClose(void* stream);

std::int32_t packOpen(void* stream, const char* path, std::int32_t mode) {
    PackStream* s = self(stream);
    if (!s) return MZ_PARAM_ERROR;
    if (s->writer) return MZ_OPEN_ERROR;
    if (!path) return MZ_PARAM_ERROR;
    if (mode & kUnsupportedModeBit) return MZ_INTERNAL_ERROR;

    s->produced = 0;
    s->error = 0;
    if (s->pending) s->pending->length = 0;
    s->writerClosed = false;
    s->entryOpen = false;
    s->entrySize = 0;
    s->entryDone = 0;

    if (!s->current.reader.open(path)) return MZ_OPEN_ERROR;
    s->current.path = path;
    if (s->current.path.empty() || s->current.path.back() != '/') s->current.path.push_back('/');
    s->rootPath = s->current.path;
    s->entryName.clear();

    if (!s->fileBuffer) s->fileBuffer.reset(new (std::nothrow) std::uint8_t[kFileStep]);
    s->writer.reset(archive_write_new());
    if (!s->writer || !s->fileBuffer) {
        s->writer.reset();
        s->current.reader.close();
        return MZ_MEM_ERROR;
    }
    archive* a = s->writer.get();
    // Unbuffered: every byte the writer produces reaches writerOutput at once.
    if (archive_write_set_format_zip(a) != ARCHIVE_OK || archive_write_set_options(a, kWriterOptions) != ARCHIVE_OK ||
        archive_write_set_bytes_per_block(a, 0) != ARCHIVE_OK ||
        archive_write_set_bytes_in_last_block(a, 1) != ARCHIVE_OK ||
        archive_write_open(a, s, nullptr, writerOutput, nullptr) != ARCHIVE_OK) {
        s->discard = true;
        s->writer.reset();
        s->discard = false;
        s->current.reader.close();
        return MZ_OPEN_ERROR;
    }
    return MZ_OK;
}

std::int32_t packWrite(void* stream, const void* buf, std::int32_t size) {
    PackStream* s = self(stream);
    if (size < 0) return MZ_PARAM_ERROR;
    if (!s->writer) return MZ_OPEN_ERROR;
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
    const std::int32_t status = s->error != 0 ? 2 : s->writerClosed ? 1 : 0;
    if (s->writerClosed) {
        s->progress(s->progressUser, "", 0, 0, status);
    } else {
        s->progress(s->progressUser, s->entryName.c_str(), s->entrySize, s->entryDone, status);
    }
}

std::int32_t packRead(void* stream, void* buf, std::int32_t size) {
    PackStream* s = self(stream);
    if (size < 0) return MZ_PARAM_ERROR;
    if (!s->writer) return MZ_OPEN_ERROR;
    auto* out = static_cast<std::uint8_t*>(buf);

    // What the writer produced beyond the last reader's buffer goes first.
    const std::int32_t c = static_cast<std::int32_t>(std::min<std::int64_t>(byteBufferLength(s->pending.get()), size));
    if (c > 0) {
        std::memcpy(out, byteBufferData(s->pending.get()), static_cast<std::size_t>(c));
        byteBufferConsume(s->pending.get(), static_cast<std::uint32_t>(c));
    }
    std::int32_t result = c;
    if (c < size) {
        if (s->writerClosed) return c > 0 ? c : MZ_END_OF_STREAM;
        s->readerBuffer = out + c;
        s->readerSize = size - c;
        s->filled = 0;
        while (s->filled < s->readerSize && !s->writerClosed) {
            if (s->file) {
                continueFile(s);
                continue;
            }
            std::string name;
            if (s->current.reader.next(name)) {
                takeName(s, name);
            } else {
                leaveDirectory(s);
            }
        }
        result = c + static_cast<std::int32_t>(s->filled);
    }
    s->readerBuffer = nullptr;
    s->readerSize = 0;
    s->filled = 0;
    reportProgress(s);
    return result;
}

std::int32_t packClose(void* stream) {
    PackStream* s = self(stream);
    if (s->readerBuffer) return MZ_OK;  // called from inside a read
    endFile(s);
    if (s->writer) {
        s->discard = true;
        s->writer.reset();
        s->discard = false;
    }
    s->current.reader.close();
    s->current.path.clear();
    s->stack.clear();
    s->rootPath.clear();
    s->entryName.clear();
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
