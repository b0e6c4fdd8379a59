// The desktop's ZIP writer: one entry at a time, each file read and compressed in blocks, so
// an archive of any size is produced in flat memory.
#include "zip_archive.h"

#include "common/bytes.h"
#include "unique_fd.h"

#include <zlib.h>
#include <zstd.h>

#include <algorithm>
#include <cerrno>
#include <ctime>

#include <fcntl.h>
#include <sys/stat.h>

namespace fs = std::filesystem;

namespace loopback {

namespace {

constexpr std::uint32_t kLocalHeader = 0x04034b50, kDescriptor = 0x08074b50, kCentralHeader = 0x02014b50;
constexpr std::uint32_t kEnd = 0x06054b50, kZip64End = 0x06064b50, kZip64Locator = 0x07064b50;
constexpr std::uint16_t kUtf8 = 0x0800, kHasDescriptor = 0x0008;
constexpr std::uint16_t kZip64Extra = 0x0001;
constexpr std::uint32_t kEscape32 = 0xFFFFFFFFu;
constexpr std::uint16_t kEscape16 = 0xFFFF;
// Files from this size on get zip64 sizes: a deflated or zstd entry may come out a little
// larger than the file, and its size must still fit the field chosen before it is known.
constexpr std::uint64_t kZip64From = 0xFF000000u;
constexpr std::size_t kBlock = 262144;  // file bytes read (and compressed) at a time

// One thing under the packed directory, in the order it goes into the archive.
struct Item {
    std::string name;  // relative, '/' separators, directories with the final '/'
    fs::path path;
    bool directory = false;
    std::uint64_t size = 0;
    std::time_t mtime = 0;
    std::uint32_t mode = 0;
};

// What the central directory needs of an entry once it is written.
struct Written {
    std::size_t item = 0;
    std::uint16_t method = 0, needed = 0, flags = 0;
    std::uint32_t crc = 0;
    std::uint64_t compressed = 0, size = 0, offset = 0;
    bool zip64 = false;
};

bool collect(const fs::path& dir, const std::string& prefix, std::vector<Item>& out, std::string* error) {
    std::error_code ec;
    std::vector<fs::path> children;
    for (fs::directory_iterator it(dir, ec), end; !ec && it != end; it.increment(ec)) children.push_back(it->path());
    if (ec) {
        if (error) *error = dir.string() + ": " + ec.message();
        return false;
    }
    std::sort(children.begin(), children.end());
    for (const auto& child : children) {
        struct stat st{};
        if (::lstat(child.c_str(), &st) != 0) continue;
        if (!S_ISDIR(st.st_mode) && !S_ISREG(st.st_mode)) continue;  // links, devices, fifos
        Item item;
        item.directory = S_ISDIR(st.st_mode);
        item.name = prefix + child.filename().string() + (item.directory ? "/" : "");
        item.path = child;
        item.size = item.directory ? 0 : static_cast<std::uint64_t>(st.st_size);
        item.mtime = st.st_mtime;
        item.mode = static_cast<std::uint32_t>(st.st_mode);
        out.push_back(item);
        if (item.directory && !collect(child, item.name, out, error)) return false;
    }
    return true;
}

std::uint32_t dosDateTime(std::time_t t) {
    std::tm tm{};
    if (!::localtime_r(&t, &tm) || tm.tm_year < 80) return (1u << 21) | (1u << 16);  // 1980-01-01
    const auto date = static_cast<std::uint32_t>(((tm.tm_year - 80) << 9) | ((tm.tm_mon + 1) << 5) | tm.tm_mday);
    const auto time = static_cast<std::uint32_t>((tm.tm_hour << 11) | (tm.tm_min << 5) | (tm.tm_sec / 2));
    return (date << 16) | time;
}

std::uint32_t low32(std::uint64_t v, bool escaped) { return escaped ? kEscape32 : static_cast<std::uint32_t>(v); }

struct DeflaterEnd {
    void operator()(z_stream* z) const {
        deflateEnd(z);
        delete z;
    }
};
struct ZstdFree {
    void operator()(ZSTD_CCtx* c) const { ZSTD_freeCCtx(c); }
};

}  // namespace

struct ZipPackStream::State {
    ZipMethod method = ZipMethod::Deflate;
    std::vector<Item> items;
    std::size_t next = 0;  // the next item to start
    std::size_t files = 0, directories = 0;
    std::vector<Written> written;
    std::uint64_t offset = 0;  // archive bytes produced before out[0]

    // Bytes produced and not yet read.
    std::vector<std::uint8_t> out;
    std::size_t outPos = 0;

    // The file being packed.
    Fd file;
    std::uint64_t left = 0;  // file bytes still to read
    std::uint64_t compressedStart = 0;
    std::vector<std::uint8_t> block;
    std::unique_ptr<z_stream, DeflaterEnd> deflater;
    std::unique_ptr<ZSTD_CCtx, ZstdFree> zstd;
    bool finished = false;  // the end records are produced

    bool produce(std::string* error);
    void startEntry(const Item& item);
    bool fileBlock(std::string* error);
    bool compress(std::span<const std::uint8_t> data, bool last, std::string* error);
    void endEntry();
    void endArchive();
};

void ZipPackStream::State::startEntry(const Item& item) {
    Written w;
    w.item = next;
    w.offset = offset + out.size();
    w.size = item.size;
    w.flags = item.directory ? kUtf8 : kUtf8 | kHasDescriptor;
    w.method = item.directory || method == ZipMethod::Store ? 0 : method == ZipMethod::Deflate ? 8 : 93;
    w.zip64 = !item.directory && item.size >= kZip64From;
    w.needed = w.method == 93 ? 63 : w.zip64 ? 45 : 20;
    // The CRC (and a compressed size not known yet) follow in the data descriptor; the sizes
    // known now are given here too, so that a reader of the stream knows where stored data ends.
    const std::uint64_t compressed = w.method == 0 ? item.size : 0;
    bytes::Writer z(out);
    z.u32(kLocalHeader).u16(w.needed).u16(w.flags).u16(w.method).u32(dosDateTime(item.mtime)).u32(0);
    z.u32(low32(compressed, w.zip64)).u32(low32(item.size, w.zip64));
    z.u16(static_cast<std::uint16_t>(item.name.size())).u16(w.zip64 ? 20 : 0).raw(item.name);
    if (w.zip64) z.u16(kZip64Extra).u16(16).u64(item.size).u64(compressed);
    written.push_back(w);
    if (item.directory) {
        ++directories;
        return;
    }
    left = item.size;
    compressedStart = offset + out.size();
    if (w.method == 8) {
        if (!deflater) {
            deflater.reset(new z_stream{});
            deflateInit2(deflater.get(), 6, Z_DEFLATED, -15, 8, Z_DEFAULT_STRATEGY);
        } else {
            deflateReset(deflater.get());
        }
    } else if (w.method == 93) {
        if (!zstd) zstd.reset(ZSTD_createCCtx());
        ZSTD_CCtx_reset(zstd.get(), ZSTD_reset_session_only);
        ZSTD_CCtx_setParameter(zstd.get(), ZSTD_c_compressionLevel, 3);
        ZSTD_CCtx_setPledgedSrcSize(zstd.get(), item.size);
    }
}

// Compresses (or copies) `data` onto the output; `last` ends the entry's stream.
bool ZipPackStream::State::compress(std::span<const std::uint8_t> data, bool last, std::string* error) {
    Written& w = written.back();
    w.crc = static_cast<std::uint32_t>(crc32_z(w.crc, data.data(), data.size()));
    if (w.method == 0) {
        out.insert(out.end(), data.begin(), data.end());
        return true;
    }
    if (w.method == 8) {
        z_stream* z = deflater.get();
        z->next_in = const_cast<Bytef*>(data.data());
        z->avail_in = static_cast<uInt>(data.size());
        for (;;) {
            const std::size_t at = out.size();
            out.resize(at + deflateBound(z, z->avail_in) + 64);
            z->next_out = out.data() + at;
            z->avail_out = static_cast<uInt>(out.size() - at);
            const int rc = deflate(z, last ? Z_FINISH : Z_NO_FLUSH);
            out.resize(out.size() - z->avail_out);
            if (rc == Z_STREAM_END || (!last && z->avail_in == 0)) return true;
            if (rc != Z_OK && rc != Z_BUF_ERROR) {
                if (error) *error = "deflate failed";
                return false;
            }
        }
    }
    ZSTD_inBuffer in{data.data(), data.size(), 0};
    for (;;) {
        const std::size_t at = out.size();
        out.resize(at + ZSTD_CStreamOutSize());
        ZSTD_outBuffer o{out.data() + at, out.size() - at, 0};
        const std::size_t rc = ZSTD_compressStream2(zstd.get(), &o, &in, last ? ZSTD_e_end : ZSTD_e_continue);
        out.resize(at + o.pos);
        if (ZSTD_isError(rc)) {
            if (error) *error = ZSTD_getErrorName(rc);
            return false;
        }
        if (last ? rc == 0 : in.pos == in.size) return true;
    }
}

// The next block of the file being packed; its end finishes the entry.
bool ZipPackStream::State::fileBlock(std::string* error) {
    const Item& item = items[written.back().item];
    const std::size_t want = static_cast<std::size_t>(std::min<std::uint64_t>(left, kBlock));
    block.resize(want);
    std::size_t got = 0;
    while (got < want) {
        const ssize_t n = ::read(file.get(), block.data() + got, want - got);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) {
            if (error) *error = item.path.string() + (n < 0 ? ": read error" : ": changed while being packed");
            return false;
        }
        got += static_cast<std::size_t>(n);
    }
    left -= want;
    if (!compress(block, left == 0, error)) return false;
    if (left == 0) endEntry();
    return true;
}

void ZipPackStream::State::endEntry() {
    Written& w = written.back();
    w.compressed = offset + out.size() - compressedStart;
    bytes::Writer z(out);
    z.u32(kDescriptor).u32(w.crc);
    if (w.zip64) z.u64(w.compressed).u64(w.size);
    else z.u32(static_cast<std::uint32_t>(w.compressed)).u32(static_cast<std::uint32_t>(w.size));
    file.reset();
    ++files;
}

void ZipPackStream::State::endArchive() {
    const std::uint64_t start = offset + out.size();
    bytes::Writer z(out);
    for (const Written& w : written) {
        const Item& item = items[w.item];
        const bool farOffset = w.offset >= kEscape32;
        const std::uint16_t extra = static_cast<std::uint16_t>((w.zip64 ? 16 : 0) + (farOffset ? 8 : 0));
        const std::uint32_t external = (item.mode << 16) | (item.directory ? 0x10u : 0u);
        z.u32(kCentralHeader).u16(static_cast<std::uint16_t>((3 << 8) | w.needed)).u16(w.needed).u16(w.flags);
        z.u16(w.method).u32(dosDateTime(item.mtime)).u32(w.crc);
        z.u32(low32(w.compressed, w.zip64)).u32(low32(w.size, w.zip64));
        z.u16(static_cast<std::uint16_t>(item.name.size())).u16(extra ? extra + 4 : 0).u16(0).u16(0).u16(0);
        z.u32(external).u32(low32(w.offset, farOffset)).raw(item.name);
        if (extra) {
            z.u16(kZip64Extra).u16(extra);
            if (w.zip64) z.u64(w.size).u64(w.compressed);
            if (farOffset) z.u64(w.offset);
        }
    }
    const std::uint64_t end = offset + out.size();
    const std::uint64_t count = written.size(), size = end - start;
    const bool zip64 = count >= kEscape16 || size >= kEscape32 || start >= kEscape32;
    if (zip64) {
        z.u32(kZip64End).u64(44).u16((3 << 8) | 45).u16(45).u32(0).u32(0);
        z.u64(count).u64(count).u64(size).u64(start);
        z.u32(kZip64Locator).u32(0).u64(end).u32(1);
    }
    const auto count16 = static_cast<std::uint16_t>(zip64 ? kEscape16 : count);
    z.u32(kEnd).u16(0).u16(0).u16(count16).u16(count16).u32(low32(size, zip64)).u32(low32(start, zip64)).u16(0);
    finished = true;
}

// Adds the next piece of the archive to the output: a header, a block of a file, or the end.
bool ZipPackStream::State::produce(std::string* error) {
    if (file.valid()) return fileBlock(error);
    if (next == items.size()) {
        endArchive();
        return true;
    }
    const Item& item = items[next];
    if (!item.directory) {
        file = Fd(::open(item.path.c_str(), O_RDONLY | O_CLOEXEC));
        if (!file.valid()) {
            if (error) *error = item.path.string() + ": cannot open";
            return false;
        }
    }
    startEntry(item);
    ++next;
    if (!item.directory && item.size == 0) {
        if (!compress({}, true, error)) return false;
        endEntry();
    }
    return true;
}

ZipPackStream::ZipPackStream() : state_(std::make_unique<State>()) {}
ZipPackStream::~ZipPackStream() = default;

bool ZipPackStream::open(const fs::path& dir, ZipMethod method, std::string* error) {
    state_ = std::make_unique<State>();
    state_->method = method;
    std::error_code ec;
    if (!fs::is_directory(dir, ec)) {
        if (error) *error = dir.string() + ": not a directory";
        return false;
    }
    return collect(dir, "", state_->items, error);
}

std::optional<std::size_t> ZipPackStream::read(std::span<std::uint8_t> into, std::string* error) {
    State& s = *state_;
    std::size_t filled = 0;
    while (filled < into.size()) {
        if (s.outPos == s.out.size()) {
            s.offset += s.out.size();
            s.out.clear();
            s.outPos = 0;
            if (s.finished) break;
            if (!s.produce(error)) return std::nullopt;
            continue;
        }
        const std::size_t n = std::min(into.size() - filled, s.out.size() - s.outPos);
        std::copy_n(s.out.begin() + static_cast<std::ptrdiff_t>(s.outPos), n, into.begin() + static_cast<std::ptrdiff_t>(filled));
        s.outPos += n;
        filled += n;
    }
    return filled;
}

std::size_t ZipPackStream::files() const { return state_->files; }
std::size_t ZipPackStream::directories() const { return state_->directories; }

std::optional<ZipMethod> parseZipMethod(std::string_view name) {
    if (name == "deflate") return ZipMethod::Deflate;
    if (name == "store") return ZipMethod::Store;
    if (name == "zstd") return ZipMethod::Zstd;
    return std::nullopt;
}

const char* zipMethodName(ZipMethod method) {
    switch (method) {
    case ZipMethod::Deflate: return "deflate";
    case ZipMethod::Store: return "store";
    case ZipMethod::Zstd: return "zstd";
    }
    return "?";
}

}  // namespace loopback
