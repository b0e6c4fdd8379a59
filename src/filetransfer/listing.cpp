#include "filetransfer/listing.h"

#include <algorithm>

#include <xcb/xcbext.h>

#include "common/log.h"
#include "common/bytes.h"
#include "filetransfer/framing.h"
#include "filetransfer/protocol.h"
#include "filetransfer/transfer_state.h"
#include "platform/platform.h"
#include "print/classify.h"

std::optional<std::string> BrowsingDirectory;

namespace {

constexpr std::uint8_t kZeros[4] = {0, 0, 0, 0};

iovec part(const void* data, std::size_t length) { return iovec{const_cast<void*>(data), length}; }

void sendFileListItem(xcb_connection_t* connection, const FileListItemFields& fields) {
    auto fixed = encodeFileListItemFixed(fields);
    // Two leading slots belong to libxcb (it may prepend the BIG-REQUESTS length there).
    iovec vector[2 + 4];
    vector[2] = part(fixed.data(), fixed.size());
    vector[3] = part(kZeros, 0);
    vector[4] = part(fields.name.data(), fields.name.size());
    vector[5] = part(kZeros, bytes::pad4(fields.name.size()));
    static const xcb_protocol_request_t request = {4, &FileTransferExtension, kFileListItemOpcode, 1};
    xcb_send_request(connection, 0, vector + 2, &request);
}

struct Entry {
    std::uint64_t size = 0;
    std::uint8_t type = 0;
    std::int64_t mtime = 0;
};

// The item of one directory entry; false when the entry is not listed.
bool describeEntry(const std::string& directory, const std::string& name, bool root, Entry& out) {
    if (name.empty() || name == ".") return false;
    if (name == "..") {
        if (root) return false;
    } else if (name.front() == '.') {
        return false;  // hidden
    }
    const std::string path = directory + platform::kSeparator + name;
    platform::Status st;
    if (!platform::status(path, st)) {
        // A dangling link, or an entry gone since it was read: the link's own time if any.
        platform::Status link;
        out = {0, 'b', platform::linkStatus(path, link) ? link.mtime : 0};
        return true;
    }
    out.mtime = st.mtime;
    if (st.kind == platform::Kind::Directory) {
        out.size = 0;  // directories carry no size, whichever machine lists them
        out.type = kItemDirectory;
    } else {
        out.size = st.size;
        // Only regular files are opened: a FIFO would block the session, a device may act.
        out.type = st.kind == platform::Kind::Regular ? static_cast<std::uint8_t>(classifyPrintFile(path)) : 'b';
    }
    return true;
}

}  // namespace

std::array<std::uint8_t, kListItemFixedSize> encodeFileListItemFixed(const FileListItemFields& fields) {
    std::array<std::uint8_t, kListItemFixedSize> fixed{};
    bytes::put32(fixed, 4, static_cast<std::uint32_t>(fields.name.size()));
    bytes::put64(fixed, 8, fields.size);
    bytes::put8(fixed, 16, fields.type);
    return fixed;
}

std::vector<std::uint8_t> encodeFileListItem(std::uint8_t majorOpcode, const FileListItemFields& fields) {
    const auto fixed = encodeFileListItemFixed(fields);
    // Sized up front: the name is followed by zero padding to a multiple of 4.
    std::vector<std::uint8_t> out(fixed.size() + fields.name.size() + bytes::pad4(fields.name.size()), 0);
    std::copy(fixed.begin(), fixed.end(), out.begin());
    std::copy(fields.name.begin(), fields.name.end(), out.begin() + static_cast<std::ptrdiff_t>(fixed.size()));
    out[0] = majorOpcode;
    out[1] = kFileListItemOpcode;
    const std::size_t units = out.size() / 4;
    bytes::put16(out, 2, units <= UINT16_MAX ? static_cast<std::uint16_t>(units) : 0);
    return out;
}

std::string nextBrowsingDirectory(const std::optional<std::string>& current, std::string_view request,
                                  std::string_view start) {
    if (request.empty()) return std::string(start);
    if (!current || request == *current) return std::string(request);
    if (request == "..") {
        const std::size_t cut = current->rfind(platform::kSeparator);
        if (cut == std::string::npos) return *current;
        if (cut == 0) return std::string(1, platform::kSeparator);
        return current->substr(0, cut);
    }
    if (request.front() == '/') return std::string(request);
    if (request.size() >= 2 && request[1] == ':') return std::string(request);  // a drive path
    // A relative name: joined to the browsing directory, with one separator after the root.
    std::string joined = *current == "/" ? std::string() : *current;
    joined += platform::kSeparator;
    joined += request;
    return joined;
}

std::string searchPattern(std::string_view directory) {
    std::string pattern(directory);
    pattern += platform::kSeparator;
    pattern += '*';
    return pattern;
}

bool listsRoot(std::string_view directory) { return directory.find_first_not_of('/') == std::string_view::npos; }

std::string entryItemName(std::int64_t mtime, std::string_view name) {
    std::string out = std::to_string(static_cast<unsigned long long>(mtime));
    out += '_';
    out += name.substr(0, kEntryNameMax);
    return out;
}

bool decodeListDirectoryRequest(std::span<const std::uint8_t> event, ListDirectoryRequest& out) {
    bytes::Reader r(event, kGenericEventPayloadOffset);
    out.length = r.u16();
    r.skip(2);
    const std::string_view text = r.text(out.length);
    if (!r.ok()) return false;
    // The path is taken the way a C string holds it: up to its first NUL byte.
    out.path = text.substr(0, text.find('\0'));
    return true;
}

void handleListingRequest(xcb_connection_t* connection, std::span<const std::uint8_t> event) {
    logPrint(2, "Reading directory listing request.\n");
    ListDirectoryRequest decoded;
    if (!decodeListDirectoryRequest(event, decoded)) {
        logDroppedEvent(kListDirectoryRequest);
        return;
    }
    logPrint(3, " Got count=%d\n", decoded.length);
    const std::string request(decoded.path);
    const std::optional<std::string> previous = BrowsingDirectory;
    logPrint(2, " Current browsing dir:%s\n", previous ? previous->c_str() : "");
    if (!previous || request != *previous) logPrint(2, " pDir:%s\n", request.c_str());

    const std::string directory = nextBrowsingDirectory(previous, request, UserHomeDir);
    BrowsingDirectory = directory;
    logPrint(2, " New browsing dir:%s\n", directory.c_str());
    const std::string pattern = searchPattern(directory);

    // The pattern's directory part is what is searched: "/*" (an empty directory) is the root.
    platform::DirectoryReader reader;
    if (!reader.open(pattern.substr(0, pattern.size() - 1))) {
        const int error = platform::lastError();
        BrowsingDirectory = previous;
        platform::setLastError(error);
        sendFileTransferStatus(connection, pattern, kStatusListing, true);
        return;
    }
    logPrint(3, " New browsing dir:%s\n", pattern.c_str());
    sendFileListItem(connection, {0, kItemListedDirectory, directory});

    const bool root = listsRoot(directory);
    std::string name;
    while (reader.next(name)) {
        const std::string_view shown = std::string_view(name).substr(0, kEntryNameMax);
        logPrint(4, " item:%.*s\n", static_cast<int>(shown.size()), shown.data());
        Entry entry;
        if (!describeEntry(directory, name, root, entry)) continue;
        const std::string itemName = entryItemName(entry.mtime, name);
        logPrint(4, " item:%.*s\n", static_cast<int>(shown.size()), shown.data());
        sendFileListItem(connection, {entry.size, entry.type, itemName});
    }
    reader.close();
    sendFileListItem(connection, {0, kItemEnd, {}});
}
