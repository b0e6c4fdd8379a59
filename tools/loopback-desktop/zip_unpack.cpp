// The desktop's ZIP reader: libarchive's streaming reader fed as the bytes come, each file
// written as it is read.
#include "zip_archive.h"

#include "sparse_file.h"

#include <archive.h>
#include <archive_entry.h>

#include <locale.h>

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
using ReadArchive = std::unique_ptr<archive, ReadArchiveDeleter>;

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

la_ssize_t pull(archive* a, void* user, const void** buffer) {
    const auto* next = static_cast<const ArchiveSource*>(user);
    const auto chunk = (*next)();
    if (!chunk) {
        archive_set_error(a, EIO, "cut short");
        return ARCHIVE_FATAL;
    }
    *buffer = chunk->data();
    return static_cast<la_ssize_t>(chunk->size());
}

}  // namespace

bool unpackStream(const ArchiveSource& next, const fs::path& target, UnpackResult& out, std::string* error) {
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
    archive_read_support_format_zip_streamable(a.get());
    // Nothing at all is an empty tree; anything else must be an archive.
    std::optional<std::span<const std::uint8_t>> first = next();
    if (!first) {
        if (error) *error = "zip: cut short";
        return false;
    }
    if (first->empty()) return true;
    bool firstTaken = false;
    const ArchiveSource source = [&]() -> std::optional<std::span<const std::uint8_t>> {
        if (firstTaken) return next();
        firstTaken = true;
        return first;
    };
    if (archive_read_open(a.get(), const_cast<ArchiveSource*>(&source), nullptr, pull, nullptr) != ARCHIVE_OK)
        return failed("zip");
    archive_entry* entry = nullptr;
    std::vector<std::uint8_t> buffer(262144);
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
        SparseFileWriter file;
        if (!file.open(path)) {
            if (error) *error = path.string() + ": cannot create";
            return false;
        }
        for (;;) {
            const la_ssize_t n = archive_read_data(a.get(), buffer.data(), buffer.size());
            if (n < 0) return failed(name);
            if (n == 0) break;
            if (!file.write(std::span<const std::uint8_t>(buffer.data(), static_cast<std::size_t>(n)))) {
                if (error) *error = path.string() + ": write error";
                return false;
            }
            out.bytes += static_cast<std::uint64_t>(n);
        }
        if (!file.close()) {
            if (error) *error = path.string() + ": write error";
            return false;
        }
        ++out.files;
    }
    return true;
}

}  // namespace loopback
