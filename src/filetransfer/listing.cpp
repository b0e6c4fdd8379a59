#include "filetransfer/listing.h"

#include <algorithm>

#include "common/log.h"
#include "common/bytes.h"
#include "common/terminal_hints.h"
#include "filetransfer/dispatch.h"
#include "filetransfer/framing.h"
#include "filetransfer/protocol.h"
#include "platform/platform.h"
#ifdef _WIN32
#include "platform/win32.h"
#endif
#include "print/classify.h"

namespace {

struct Entry {
    std::uint64_t size = 0;
    std::uint8_t type = 0;
    std::int64_t mtime = 0;
};

// In a session the desktop drives, one line on the terminal for each listing.
void showListing(Session& s, const std::string& directory, std::string_view outcome) {
    if (!s.commandLineRun() && s.display.enabled())
        s.display.show(terminal::sessionActionLine(terminal::SessionAction::Listed, directory, {}, outcome));
}

// The item of one directory entry; false when the entry is not listed.
bool describeEntry(const std::string& directory, const std::string& name, bool root, Entry& out) {
    if (name.empty() || name == ".") return false;
    const std::string path = directory + platform::kSeparator + name;
    if (name == "..") {
        if (root) return false;
#ifdef _WIN32
    } else if (platform::hasHiddenAttribute(path)) {
#else
    } else if (name.front() == '.') {
#endif
        return false;  // hidden
    }
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

std::string nextBrowsingDirectory(const std::optional<std::string>& current, std::string_view request,
                                  std::string_view start) {
    if (request.empty()) return std::string(start);
    if (!current || request == *current) return std::string(request);
    if (request == "..") {
        const std::size_t cut = current->rfind(platform::kSeparator);
        if (cut == std::string::npos) return *current;
#ifdef _WIN32
        if (cut == 0) return std::string();  // "\x" climbs to the empty directory
#else
        if (cut == 0) return std::string(1, platform::kSeparator);
#endif
        return current->substr(0, cut);
    }
    if (request.front() == '/') return std::string(request);
    if (request.size() >= 2 && request[1] == ':') return std::string(request);  // a drive path
    // A relative name: joined to the browsing directory; "/" takes the name straight after it.
    if (*current == "/") return "/" + std::string(request);
    std::string joined = *current;
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

bool listsRoot(std::string_view directory) {
#ifdef _WIN32
    // A drive named without its backslash ("C:", pattern "C:\*"); "C:\" still offers "..".
    return searchPattern(directory).find(":\\*") != std::string::npos;
#else
    return directory.find_first_not_of('/') == std::string_view::npos;
#endif
}

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

Outcome handleListingRequest(Session& session, std::span<const std::uint8_t> event) {
    logPrint(2, "Reading directory listing request.\n");
    ListDirectoryRequest decoded;
    if (!decodeListDirectoryRequest(event, decoded)) {
        logDroppedEvent(kListDirectoryRequest);
        return Outcome::goOn();
    }
    logPrint(3, " Got count=%d\n", decoded.length);
    const std::string request(decoded.path);
    const std::optional<std::string> previous = session.browsingDirectory;
    logPrint(2, " Current browsing dir:%s\n", previous ? previous->c_str() : "");
    if (!previous || request != *previous) logPrint(2, " pDir:%s\n", request.c_str());

    const std::string directory = nextBrowsingDirectory(previous, request, session.userHomeDir);
    session.browsingDirectory = directory;
    logPrint(2, " New browsing dir:%s\n", directory.c_str());
    const std::string pattern = searchPattern(directory);

    // The pattern's directory part is what is searched: "/*" (an empty directory) is the root.
    platform::DirectoryReader reader;
    if (!reader.open(pattern.substr(0, pattern.size() - 1))) {
        const int error = platform::lastError();
        session.browsingDirectory = previous;
        session.wire.sendStatus(pattern, kStatusListing, true, error);
        showListing(session, directory, "failed: " + platform::errorText(error));
        return Outcome::goOn();
    }
    logPrint(3, " New browsing dir:%s\n", pattern.c_str());
    session.wire.sendListItem({0, kItemListedDirectory, directory});

    const bool root = listsRoot(directory);
    std::string name;
    while (reader.next(name)) {
        const std::string_view shown = std::string_view(name).substr(0, kEntryNameMax);
        logPrint(4, " item:%.*s\n", static_cast<int>(shown.size()), shown.data());
        Entry entry;
        if (!describeEntry(directory, name, root, entry)) continue;
        const std::string itemName = entryItemName(entry.mtime, name);
        logPrint(4, " item:%.*s\n", static_cast<int>(shown.size()), shown.data());
        session.wire.sendListItem({entry.size, entry.type, itemName});
    }
    reader.close();
    session.wire.sendListItem({0, kItemEnd, {}});
    showListing(session, directory, {});
    return Outcome::goOn();
}
