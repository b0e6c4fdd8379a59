#include "zip_archive.h"

#include "common/bytes.h"

#include <archive.h>
#include <archive_entry.h>
#include <zlib.h>
#include <zstd.h>

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <memory>

#include <locale.h>
#include <sys/stat.h>

namespace fs = std::filesystem;

namespace loopback {

namespace {

// libarchive turns entry names into the current locale's charset; in the C locale a UTF-8 name
// with accents cannot be represented and comes out empty. Reading runs under a UTF-8 locale
// for this thread only, so neither the program nor a test that links it changes global state.
class Utf8ThreadLocale {
public:
    Utf8ThreadLocale() : utf8_(newlocale(LC_CTYPE_MASK, "C.UTF-8", static_cast<locale_t>(nullptr))) {
        if (utf8_) previous_ = uselocale(utf8_);
    }
    ~Utf8ThreadLocale() {
        if (!utf8_) return;
        uselocale(previous_);
        freelocale(utf8_);
    }
    Utf8ThreadLocale(const Utf8ThreadLocale&) = delete;
    Utf8ThreadLocale& operator=(const Utf8ThreadLocale&) = delete;

private:
    locale_t utf8_;
    locale_t previous_ = static_cast<locale_t>(nullptr);
};

struct ReadArchiveDeleter {
    void operator()(archive* a) const { archive_read_free(a); }
};
struct WriteArchiveDeleter {
    void operator()(archive* a) const { archive_write_free(a); }
};
struct EntryDeleter {
    void operator()(archive_entry* e) const { archive_entry_free(e); }
};
struct FileCloser {
    void operator()(std::FILE* f) const { std::fclose(f); }
};
using ReadArchive = std::unique_ptr<archive, ReadArchiveDeleter>;
using WriteArchive = std::unique_ptr<archive, WriteArchiveDeleter>;
using Entry = std::unique_ptr<archive_entry, EntryDeleter>;
using File = std::unique_ptr<std::FILE, FileCloser>;

// One thing under the packed directory, in the order it goes into the archive.
struct Item {
    std::string name;  // relative, '/' separators, directories without the final '/'
    fs::path path;
    bool directory = false;
    std::uint64_t size = 0;
    std::time_t mtime = 0;
    std::uint32_t mode = 0;
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
        item.name = prefix + child.filename().string();
        item.path = child;
        item.directory = S_ISDIR(st.st_mode);
        item.size = item.directory ? 0 : static_cast<std::uint64_t>(st.st_size);
        item.mtime = st.st_mtime;
        item.mode = static_cast<std::uint32_t>(st.st_mode);
        out.push_back(item);
        if (item.directory && !collect(child, item.name + "/", out, error)) return false;
    }
    return true;
}

bool readWhole(const fs::path& path, std::vector<std::uint8_t>& out, std::string* error) {
    File f(std::fopen(path.c_str(), "rb"));
    if (!f) {
        if (error) *error = path.string() + ": cannot open";
        return false;
    }
    out.clear();
    std::uint8_t buffer[65536];
    for (;;) {
        const std::size_t n = std::fread(buffer, 1, sizeof buffer, f.get());
        out.insert(out.end(), buffer, buffer + n);
        if (n < sizeof buffer) break;
    }
    if (std::ferror(f.get())) {
        if (error) *error = path.string() + ": read error";
        return false;
    }
    return true;
}

la_ssize_t appendToVector(archive*, void* user, const void* data, std::size_t length) {
    auto* out = static_cast<std::vector<std::uint8_t>*>(user);
    const auto* b = static_cast<const std::uint8_t*>(data);
    out->insert(out->end(), b, b + length);
    return static_cast<la_ssize_t>(length);
}

bool packWithLibarchive(const std::vector<Item>& items, ZipMethod method, PackResult& out, std::string* error) {
    WriteArchive a(archive_write_new());
    if (!a) return false;
    auto failed = [&](const char* what) {
        if (error) *error = std::string(what) + ": " + (archive_error_string(a.get()) ? archive_error_string(a.get()) : "?");
        return false;
    };
    if (archive_write_set_format_zip(a.get()) != ARCHIVE_OK) return failed("zip format");
    const char* option = method == ZipMethod::Store ? "zip:compression=store" : "zip:compression=deflate";
    if (archive_write_set_options(a.get(), option) != ARCHIVE_OK) return failed(option);
    archive_write_set_bytes_per_block(a.get(), 0);  // no padding after the end record
    archive_write_set_bytes_in_last_block(a.get(), 1);
    if (archive_write_open2(a.get(), &out.bytes, nullptr, appendToVector, nullptr, nullptr) != ARCHIVE_OK)
        return failed("open");
    std::vector<std::uint8_t> data;
    for (const auto& item : items) {
        Entry e(archive_entry_new());
        archive_entry_set_pathname_utf8(e.get(), item.directory ? (item.name + "/").c_str() : item.name.c_str());
        archive_entry_set_filetype(e.get(), item.directory ? AE_IFDIR : AE_IFREG);
        archive_entry_set_perm(e.get(), item.mode & 07777);
        archive_entry_set_mtime(e.get(), item.mtime, 0);
        if (!item.directory) {
            if (!readWhole(item.path, data, error)) return false;
            archive_entry_set_size(e.get(), static_cast<la_int64_t>(data.size()));
        }
        if (archive_write_header(a.get(), e.get()) != ARCHIVE_OK) return failed(item.name.c_str());
        if (!item.directory && !data.empty() &&
            archive_write_data(a.get(), data.data(), data.size()) != static_cast<la_ssize_t>(data.size()))
            return failed(item.name.c_str());
        ++(item.directory ? out.directories : out.files);
    }
    if (archive_write_close(a.get()) != ARCHIVE_OK) return failed("close");
    return true;
}

std::uint32_t dosDateTime(std::time_t t) {
    std::tm tm{};
    if (!::localtime_r(&t, &tm) || tm.tm_year < 80) return (1u << 21) | (1u << 16);  // 1980-01-01
    const auto date = static_cast<std::uint32_t>(((tm.tm_year - 80) << 9) | ((tm.tm_mon + 1) << 5) | tm.tm_mday);
    const auto time = static_cast<std::uint32_t>((tm.tm_hour << 11) | (tm.tm_min << 5) | (tm.tm_sec / 2));
    return (date << 16) | time;
}

// An archive whose files are zstd frames (method 93). Each file entry carries its CRC and
// sizes in the local header and again in a data descriptor after the data, as streaming
// writers do; directory entries are stored and empty.
bool packWithZstd(const std::vector<Item>& items, PackResult& out, std::string* error) {
    constexpr std::uint16_t kVersion = 63;                 // 6.3: zstd
    constexpr std::uint16_t kMadeBy = (3 << 8) | kVersion;  // Unix
    constexpr std::uint16_t kUtf8 = 0x0800, kDescriptor = 0x0008;
    std::vector<std::uint8_t> central;
    bytes::Writer zip(out.bytes), cd(central);
    std::vector<std::uint8_t> data, packed;
    std::size_t count = 0;
    for (const auto& item : items) {
        const std::string name = item.directory ? item.name + "/" : item.name;
        std::uint32_t crc = 0, usize = 0, csize = 0;
        packed.clear();
        if (!item.directory) {
            if (!readWhole(item.path, data, error)) return false;
            if (data.size() >= 0xFFFFFFFFu) {
                if (error) *error = item.name + ": too large for a zip without zip64";
                return false;
            }
            packed.resize(ZSTD_compressBound(data.size()));
            const std::size_t n = ZSTD_compress(packed.data(), packed.size(), data.data(), data.size(), 3);
            if (ZSTD_isError(n)) {
                if (error) *error = item.name + ": " + ZSTD_getErrorName(n);
                return false;
            }
            packed.resize(n);
            crc = static_cast<std::uint32_t>(crc32_z(0, data.data(), data.size()));
            usize = static_cast<std::uint32_t>(data.size());
            csize = static_cast<std::uint32_t>(packed.size());
        }
        const auto offset = static_cast<std::uint32_t>(out.bytes.size());
        const std::uint16_t flags = item.directory ? kUtf8 : kUtf8 | kDescriptor;
        const std::uint16_t method = item.directory ? 0 : 93;
        const std::uint32_t stamp = dosDateTime(item.mtime);
        const auto nameLen = static_cast<std::uint16_t>(name.size());
        zip.u32(0x04034b50).u16(item.directory ? 10 : kVersion).u16(flags).u16(method).u32(stamp);
        zip.u32(crc).u32(csize).u32(usize).u16(nameLen).u16(0).raw(name).raw(packed);
        if (!item.directory) zip.u32(0x08074b50).u32(crc).u32(csize).u32(usize);
        const std::uint32_t external = (item.mode << 16) | (item.directory ? 0x10u : 0u);
        cd.u32(0x02014b50).u16(kMadeBy).u16(item.directory ? 10 : kVersion).u16(flags).u16(method).u32(stamp);
        cd.u32(crc).u32(csize).u32(usize).u16(nameLen).u16(0).u16(0).u16(0).u16(0).u32(external).u32(offset);
        cd.raw(name);
        ++(item.directory ? out.directories : out.files);
        ++count;
    }
    if (count > 0xFFFF || out.bytes.size() > 0xFFFFFFFFu) {
        if (error) *error = "too many entries or bytes for a zip without zip64";
        return false;
    }
    const auto cdOffset = static_cast<std::uint32_t>(out.bytes.size());
    zip.raw(central);
    zip.u32(0x06054b50).u16(0).u16(0).u16(static_cast<std::uint16_t>(count)).u16(static_cast<std::uint16_t>(count));
    zip.u32(static_cast<std::uint32_t>(central.size())).u32(cdOffset).u16(0);
    return true;
}

// A relative entry name that stays inside the target: no root, no "..", no empty result.
std::optional<fs::path> safeRelative(std::string_view name) {
    fs::path out;
    std::size_t start = 0;
    while (start <= name.size()) {
        std::size_t end = name.find_first_of("/\\", start);
        if (end == std::string_view::npos) end = name.size();
        const std::string_view part = name.substr(start, end - start);
        if (part == "..") return std::nullopt;
        if (!part.empty() && part != ".") out /= fs::path(std::string(part));
        start = end + 1;
    }
    if (out.empty()) return std::nullopt;
    return out;
}

}  // namespace

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

bool packDirectory(const fs::path& dir, ZipMethod method, PackResult& out, std::string* error) {
    out = {};
    std::error_code ec;
    if (!fs::is_directory(dir, ec)) {
        if (error) *error = dir.string() + ": not a directory";
        return false;
    }
    std::vector<Item> items;
    if (!collect(dir, "", items, error)) return false;
    return method == ZipMethod::Zstd ? packWithZstd(items, out, error) : packWithLibarchive(items, method, out, error);
}

bool unpackArchive(std::span<const std::uint8_t> zip, const fs::path& target, UnpackResult& out, std::string* error) {
    out = {};
    std::error_code ec;
    fs::create_directories(target, ec);
    if (!fs::is_directory(target, ec)) {
        if (error) *error = target.string() + ": cannot create the directory";
        return false;
    }
    const Utf8ThreadLocale utf8;
    ReadArchive a(archive_read_new());
    if (!a) return false;
    auto failed = [&](const std::string& what) {
        if (error) *error = what + ": " + (archive_error_string(a.get()) ? archive_error_string(a.get()) : "?");
        return false;
    };
    archive_read_support_format_zip_seekable(a.get());
    if (zip.empty()) return true;  // nothing was sent: an empty tree
    if (archive_read_open_memory(a.get(), zip.data(), zip.size()) != ARCHIVE_OK) return failed("zip");
    archive_entry* entry = nullptr;
    std::vector<std::uint8_t> buffer(65536);
    for (;;) {
        const int rc = archive_read_next_header(a.get(), &entry);
        if (rc == ARCHIVE_EOF) break;
        if (rc != ARCHIVE_OK && rc != ARCHIVE_WARN) return failed("zip entry");
        // The UTF-8 form first: the locale's form is null for names it cannot represent.
        const char* raw = archive_entry_pathname_utf8(entry);
        if (!raw) raw = archive_entry_pathname(entry);
        const std::string name = raw ? raw : "";
        const auto relative = safeRelative(name);
        if (!relative || (!name.empty() && (name[0] == '/' || name[0] == '\\'))) {
            if (error) *error = "entry name leaves the target: \"" + name + "\"";
            return false;
        }
        const fs::path path = target / *relative;
        const bool directory = archive_entry_filetype(entry) == AE_IFDIR || (!name.empty() && (name.back() == '/' || name.back() == '\\'));
        if (directory) {
            fs::create_directories(path, ec);
            if (ec) {
                if (error) *error = path.string() + ": " + ec.message();
                return false;
            }
            ++out.directories;
            continue;
        }
        if (archive_entry_filetype(entry) != AE_IFREG) continue;  // links and the like stay out
        fs::create_directories(path.parent_path(), ec);
        File f(std::fopen(path.c_str(), "wb"));
        if (!f) {
            if (error) *error = path.string() + ": cannot create";
            return false;
        }
        for (;;) {
            const la_ssize_t n = archive_read_data(a.get(), buffer.data(), buffer.size());
            if (n < 0) return failed(name);
            if (n == 0) break;
            if (std::fwrite(buffer.data(), 1, static_cast<std::size_t>(n), f.get()) != static_cast<std::size_t>(n)) {
                if (error) *error = path.string() + ": write error";
                return false;
            }
            out.bytes += static_cast<std::uint64_t>(n);
        }
        if (std::fclose(f.release()) != 0) {
            if (error) *error = path.string() + ": write error";
            return false;
        }
        ++out.files;
    }
    return true;
}

}  // namespace loopback
