// Scripted sessions: the steps a session's far side takes (list, fetch, store, abort, delete,
// rename, close), one per script line.
#include "desktop.h"

#include "desktop_support.h"

#include <sstream>

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using namespace loopback::desk;

namespace loopback {

namespace {

std::string itemType(std::uint8_t type) {
    switch (type) {
    case 1: return "dir ";
    case 2: return "here";
    case 't': return "text";
    case 'p': return "ps  ";
    case 'a': return "pdf ";
    case 'b': return "bin ";
    default: return "?" + std::to_string(type);
    }
}

std::vector<std::string> splitWords(const std::string& line) {
    std::istringstream in(line);
    std::vector<std::string> words;
    for (std::string w; in >> w;) words.push_back(w);
    return words;
}

}  // namespace

bool Desktop::runScriptStep(const std::string& line) {
    const auto words = splitWords(line);
    if (words.empty() || words[0][0] == '#') return true;
    const std::string& verb = words[0];
    say("script: " + line);
    if (verb == "list") return scriptList(words.size() > 1 ? words[1] : "");
    if (verb == "fetch" && words.size() == 2) return scriptFetch(words[1], kObjectFile);
    if (verb == "move" && words.size() == 2) return scriptFetch(words[1], kObjectMove);
    if (verb == "fetchdir" && words.size() == 2) return scriptFetch(words[1], kObjectDirectory);
    if ((verb == "store" || verb == "storedir") && (words.size() == 2 || words.size() == 3))
        return scriptStore(words[1], words.size() == 3 ? words[2] : baseName(words[1]), verb == "storedir");
    if (verb == "abort" && (words.size() == 2 || words.size() == 3))
        return scriptAbort(words[1], words.size() == 3 ? words[2] : baseName(words[1]));
    if (verb == "delete" && words.size() == 2) return scriptSimple(kDeleteFileRequest, encodeDeleteFile(words[1]), "delete");
    if (verb == "rename" && words.size() == 3)
        return scriptSimple(kRenameFileRequest, encodeRenameFile(words[1], words[2]), "rename");
    if (verb == "close" && words.size() == 1) {
        TransferEvent e;
        e.kind = 13;
        return sendEvent(e);
    }
    say("script: cannot read this step");
    return false;
}

bool Desktop::scriptList(const std::string& path) {
    if (!server_.sendGenericEventTo(client_, kListDirectoryRequest, encodeListDirectory(path))) return false;
    while (auto request = nextFromClient()) {
        if (request->major == server_.fileTransferOpcode() && request->minor == kFileListItem) {
            const auto item = decodeListItem(request->bytes);
            if (!item) {
                server_.sendError(*request, kBadLength);
                return false;
            }
            if (item->type == 0 && item->name.empty()) {
                say("end of listing");
                return true;
            }
            say(item->type == 2 ? "listing " + item->name
                                : "  " + itemType(item->type) + " " + std::to_string(item->size) + " " + item->name);
            continue;
        }
        dispatch(*request);
        if (request->minor == kFileTransferStatus) return false;
    }
    return false;
}

bool Desktop::scriptFetch(const std::string& local, std::uint8_t objectType) {
    TransferReply start;  // the fields the desktop announces, echoed from here on
    start.direction = kToDesktop;
    start.objectType = objectType;
    start.nameA = baseName(local);
    start.nameB = local;
    if (!sendEvent(echo(start, 0))) return false;
    auto reply = awaitReply("the open");
    if (!reply) return false;
    if (reply->kind != 3) {
        say("unexpected reply to a fetch: " + transferKindName(reply->kind));
        return false;
    }
    start.size = reply->size;
    receiveFromClient(start);
    if (outcome_ != "stored" || !sendEvent(echo(start, 8))) return false;
    if (objectType != kObjectDirectory) return true;
    // The client closes a directory transfer with a status of its own.
    return awaitStatus("the client's closing status");
}

// Starts storing on the client: kind 0, and kind 2 to replace a target that exists (reply 1).
bool Desktop::openStore(TransferReply& start) {
    if (!sendEvent(echo(start, 0))) return false;
    auto reply = awaitReply("the open");
    if (reply && reply->kind == 1) {
        say("client's " + start.nameB + " exists: replacing it");
        if (!sendEvent(echo(start, 2))) return false;
        reply = awaitReply("the open");
    }
    if (!reply) return false;
    if (reply->kind != 3) {
        say("unexpected reply to a store: " + transferKindName(reply->kind));
        return false;
    }
    return true;
}

bool Desktop::scriptStore(const std::string& local, const std::string& name, bool directory) {
    TransferReply start;
    start.direction = kFromDesktop;
    start.objectType = directory ? kObjectDirectory : kObjectFile;
    start.nameA = name;
    start.nameB = directory ? local + ".zip" : local;
    if (!openStore(start)) return false;
    if (directory) {
        sendDirectoryToClient(start);
        // The client reports how its unpacking went.
        return outcome_ == "sent" && awaitStatus("the client's unpacking status");
    }
    sendFileToClient(start);
    return outcome_ == "sent";
}

// Starts storing the desktop file `name` at `local`, sends its first chunk, then gives up
// (kind 7): the client removes what it wrote and sends nothing back.
bool Desktop::scriptAbort(const std::string& local, const std::string& name) {
    TransferReply start;
    start.direction = kFromDesktop;
    start.objectType = kObjectFile;
    start.nameA = name;
    start.nameB = local;
    if (!openStore(start)) return false;
    std::error_code ec;
    const fs::path source = options_.folder / insideFolder(name);
    TransferEvent chunk = echo(start, 4);
    chunk.data.resize(std::min<std::uintmax_t>(options_.chunkSize, fs::is_regular_file(source, ec) ? fs::file_size(source, ec) : 0));
    if (File file(std::fopen(source.c_str(), "rb")); file) {
        chunk.data.resize(std::fread(chunk.data.data(), 1, chunk.data.size(), file.get()));
    }
    if (!sendEvent(chunk)) return false;
    const auto reply = awaitReply("the answer to the chunk");
    if (!reply || reply->kind != 5) return false;
    say("aborting the store of " + name + " after " + std::to_string(chunk.data.size()) + " bytes");
    return sendEvent(echo(start, 7));
}

bool Desktop::scriptSimple(std::uint16_t eventType, std::span<const std::uint8_t> payload, const std::string& what) {
    return server_.sendGenericEventTo(client_, eventType, payload) && awaitStatus(what.c_str());
}

}  // namespace loopback
