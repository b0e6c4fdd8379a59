#include "desktop.h"

#include <algorithm>
#include <cstdio>
#include <memory>
#include <sstream>

namespace fs = std::filesystem;
using namespace std::chrono_literals;

namespace loopback {

namespace {

struct FileCloser {
    void operator()(std::FILE* f) const { std::fclose(f); }
};
using File = std::unique_ptr<std::FILE, FileCloser>;

constexpr std::uint8_t kBadRequest = 1;
constexpr std::uint8_t kBadLength = 16;

// The part after the last '/' or '\'.
std::string baseName(std::string_view path) {
    const auto cut = path.find_last_of("/\\");
    return std::string(cut == std::string_view::npos ? path : path.substr(cut + 1));
}

// A name from the client as a path inside a folder: separators of either kind, no root, no
// "." or ".." components.
fs::path insideFolder(std::string_view name) {
    fs::path out;
    std::size_t start = 0;
    while (start <= name.size()) {
        std::size_t end = name.find_first_of("/\\", start);
        if (end == std::string_view::npos) end = name.size();
        const std::string_view part = name.substr(start, end - start);
        if (!part.empty() && part != "." && part != "..") out /= fs::path(std::string(part));
        start = end + 1;
    }
    return out.empty() ? fs::path("unnamed") : out;
}

std::string plural(std::size_t n, std::string_view what) {
    std::string out = std::to_string(n) + " " + std::string(what);
    if (n == 1) return out;
    if (what.ends_with("y")) out.replace(out.size() - 1, 1, "ies");
    else out += "s";
    return out;
}

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

Desktop::Desktop(XServer& server, DesktopOptions options) : server_(server), options_(std::move(options)) {
    if (options_.printFolder.empty()) options_.printFolder = options_.folder / "print";
    if (options_.chunkSize == 0) options_.chunkSize = 1;
}

void Desktop::say(const std::string& line) {
    if (options_.log) options_.log(line);
}

bool Desktop::serveClient(std::chrono::milliseconds waitForRequest) {
    // The client whose request comes first (deferred ones before new ones) is served until it
    // has gone; requests of other clients meanwhile wait in the backlog.
    std::optional<Request> first;
    if (!backlog_.empty()) {
        first = std::move(backlog_.front());
        backlog_.pop_front();
    }
    const auto deadline = std::chrono::steady_clock::now() + waitForRequest;
    while (!first && !stopping_ && std::chrono::steady_clock::now() < deadline) first = server_.nextRequest(100ms);
    if (!first) return false;
    client_ = first->client;
    session_.reset();
    printing_ = false;
    say("serving client " + std::to_string(client_));
    if (options_.trace) trace(*first);
    dispatch(*first);
    while (auto request = nextFromClient()) dispatch(*request);
    if (printing_) say("print job " + printName_ + " left unfinished (" + std::to_string(printData_.size()) + " bytes)");
    printing_ = false;
    say("client " + std::to_string(client_) + " gone");
    return true;
}

std::optional<Request> Desktop::nextFromClient() {
    for (;;) {
        const auto mine = std::find_if(backlog_.begin(), backlog_.end(), [&](const Request& r) { return r.client == client_; });
        if (mine != backlog_.end()) {
            Request r = std::move(*mine);
            backlog_.erase(mine);
            if (options_.trace) trace(r);
            return r;
        }
        auto r = server_.nextRequest(100ms);
        if (r) {
            if (r->client == client_) {
                if (options_.trace) trace(*r);
                return r;
            }
            if (server_.isConnected(client_) &&
                std::none_of(backlog_.begin(), backlog_.end(), [&](const Request& b) { return b.client == r->client; }))
                say("client " + std::to_string(r->client) + " waits until client " + std::to_string(client_) + " is done");
            backlog_.push_back(std::move(*r));
            continue;
        }
        if (stopping_ || !server_.isConnected(client_)) return std::nullopt;
    }
}

void Desktop::dispatch(const Request& request) {
    if (request.major == server_.printOpcode()) {
        onPrint(request);
        return;
    }
    switch (request.minor) {
    case kFileTransferReply:
        if (auto reply = decodeTransferReply(request.bytes)) {
            onReply(*reply);
        } else {
            say("malformed FileTransferReply");
            server_.sendError(request, kBadLength);
        }
        return;
    case kFileTransferStatus:
        if (auto status = decodeTransferStatus(request.bytes)) {
            say("status for request kind " + std::to_string(status->requestKind) + ": " +
                (status->status == 0 ? "success" : "failure \"" + status->error + "\"") +
                (status->path.empty() ? "" : " (" + status->path + ")"));
        } else {
            say("malformed FileTransferStatus");
            server_.sendError(request, kBadLength);
        }
        return;
    case kFileListItem:
        if (auto item = decodeListItem(request.bytes)) say("list item outside a listing: " + item->name);
        else server_.sendError(request, kBadLength);
        return;
    default:
        say("unknown file-transfer request " + std::to_string(request.minor));
        server_.sendError(request, kBadRequest);
    }
}

void Desktop::onReply(const TransferReply& reply) {
    if (reply.kind == 9) {
        SessionStart start{reply.nameA, reply.nameB, splitDriveList(reply.block)};
        std::string drives;
        for (const auto& d : start.drives) drives += (drives.empty() ? "" : ", ") + d;
        say("session start: host " + start.host + ", user " + start.user + ", drives [" + drives + "]");
        session_ = std::move(start);
        for (const auto& line : options_.script) {
            if (!server_.isConnected(client_)) break;
            runScriptStep(line);
        }
        return;
    }
    if (reply.kind != 10) {
        say("unexpected reply: " + transferKindName(reply.kind));
        return;
    }
    const bool toDesktop = reply.direction == kToDesktop;
    const char* what = reply.objectType == kObjectDirectory ? "directory" : reply.openFlag ? "file to open" : "file";
    say(std::string("client announces ") + what + (toDesktop ? " to the desktop: " : " from the desktop: ") +
        reply.nameA + " <-> " + reply.nameB + (reply.size ? " (" + std::to_string(reply.size) + " bytes)" : ""));
    if (options_.refusal != 0) {
        sendEvent(echo(reply, options_.refusal));
        say("refused: " + transferKindName(options_.refusal));
        outcome_ = "refused";
        return;
    }
    if (options_.sendStart && !startFirst(reply)) return;
    if (toDesktop) receiveFromClient(reply);
    else if (reply.objectType == kObjectDirectory) sendDirectoryToClient(reply);
    else sendFileToClient(reply);
}

// The other order a far side might use: a kind-0 start before the data, answered by reply 3
// (or reply 1 for a target that exists, then kind 2 to replace it).
bool Desktop::startFirst(const TransferReply& announce) {
    if (!sendEvent(echo(announce, 0))) return false;
    auto reply = awaitReply("the answer to the start");
    if (reply && reply->kind == 1) {
        say("client's " + announce.nameB + " exists: replacing it");
        if (!sendEvent(echo(announce, 2))) return false;
        reply = awaitReply("the answer to the replace");
    }
    if (reply && reply->kind == 3) return true;
    if (reply) say("unexpected reply to the start: " + transferKindName(reply->kind));
    outcome_ = "failed";
    return false;
}

TransferEvent Desktop::echo(const TransferReply& reply, std::uint8_t kind) const {
    TransferEvent e;
    e.direction = reply.direction;
    e.objectType = reply.objectType;
    e.openFlag = reply.openFlag;
    e.kind = kind;
    e.size = reply.size;
    e.nameA = reply.nameA;
    e.nameB = reply.nameB;
    return e;
}

bool Desktop::sendEvent(const TransferEvent& event) {
    if (options_.trace) {
        say("-> TransferRequest kind " + std::to_string(event.kind) + " (" + transferKindName(event.kind) + "), " +
            describe(event.direction, event.objectType, event.nameA, event.nameB, event.data.size()));
    }
    return server_.sendGenericEventTo(client_, kTransferRequest, encodeTransferEvent(event));
}

void Desktop::trace(const Request& request) {
    std::string line;
    if (request.major == server_.printOpcode()) {
        const auto chunk = decodePrintChunk(request.bytes);
        line = chunk ? std::string(chunk->begin ? "sendFileBegin " + chunk->name : "sendFileContinue") + ", " +
                           std::to_string(chunk->data.size()) + " bytes, more " + std::to_string(chunk->more)
                     : "malformed print request";
    } else if (request.minor == kFileTransferReply) {
        const auto r = decodeTransferReply(request.bytes);
        line = r ? "FileTransferReply kind " + std::to_string(r->kind) + " (" + transferKindName(r->kind) + "), " +
                       describe(r->direction, r->objectType, r->nameA, r->nameB, r->block.size())
                 : "malformed FileTransferReply";
    } else if (request.minor == kFileTransferStatus) {
        line = "FileTransferStatus";
    } else if (request.minor == kFileListItem) {
        line = "FileListItem";
    } else {
        line = "request " + std::to_string(request.minor);
    }
    say("<- " + line + (request.big ? " (big request)" : ""));
}

std::string Desktop::describe(std::uint8_t direction, std::uint8_t objectType, const std::string& a, const std::string& b,
                              std::size_t dataBytes) {
    return "direction " + std::to_string(direction) + ", object " + std::to_string(objectType) + ", A \"" + a +
           "\", B \"" + b + "\"" + (dataBytes ? ", " + std::to_string(dataBytes) + " data bytes" : "");
}

fs::path Desktop::desktopPath(const std::string& remoteName, const std::string& localPath) const {
    return options_.folder / insideFolder(remoteName == "?" ? baseName(localPath) : remoteName);
}

std::optional<TransferReply> Desktop::awaitReply(const char* waitingFor) {
    while (auto request = nextFromClient()) {
        if (request->major == server_.printOpcode()) {
            onPrint(*request);
            continue;
        }
        if (request->minor == kFileTransferReply) {
            if (auto reply = decodeTransferReply(request->bytes)) return reply;
            server_.sendError(*request, kBadLength);
            say("malformed FileTransferReply while waiting for " + std::string(waitingFor));
            return std::nullopt;
        }
        if (request->minor == kFileTransferStatus) {
            dispatch(*request);
            return std::nullopt;
        }
        dispatch(*request);
    }
    say(std::string("client went away while the desktop waited for ") + waitingFor);
    return std::nullopt;
}

// The client sends; the desktop asks with kind-5 events and keeps what comes in kind-4
// replies until reply kind 8: a file written as it comes, or a ZIP stream unpacked at the end.
void Desktop::receiveFromClient(const TransferReply& announce) {
    const bool directory = announce.objectType == kObjectDirectory;
    const fs::path target = desktopPath(announce.nameA, announce.nameB);
    const std::string name = target.lexically_relative(options_.folder).string();
    std::error_code ec;
    fs::create_directories(target.parent_path(), ec);
    File file;
    if (!directory) {
        file.reset(std::fopen(target.c_str(), "wb"));
        if (!file) {
            say("cannot write " + target.string() + ": aborting");
            sendEvent(echo(announce, 7));
            outcome_ = "failed";
            return;
        }
    }
    std::vector<std::uint8_t> zip;
    std::uint64_t received = 0;
    std::size_t chunks = 0;
    const TransferEvent next = echo(announce, 5);
    for (;;) {
        if (!sendEvent(next)) break;
        auto reply = awaitReply("data");
        if (!reply) break;
        if (reply->kind == 4) {
            ++chunks;
            received += reply->block.size();
            if (directory) zip.insert(zip.end(), reply->block.begin(), reply->block.end());
            else if (!reply->block.empty() && std::fwrite(reply->block.data(), 1, reply->block.size(), file.get()) != reply->block.size())
                say("write error on " + target.string());
            continue;
        }
        if (reply->kind != 8) {
            say("unexpected reply during the transfer: " + transferKindName(reply->kind));
            break;
        }
        if (!directory) {
            const bool ok = std::fclose(file.release()) == 0;
            say(std::string(announce.openFlag ? "opened " : "stored ") + name + " (" + std::to_string(received) +
                " bytes" + (ok ? ")" : ", write error)"));
            outcome_ = ok ? "stored" : "failed";
            return;
        }
        UnpackResult result;
        std::string error;
        if (unpackArchive(zip, target, result, &error)) {
            say("unpacked " + name + ": " + plural(result.files, "file") + ", " + plural(result.directories, "directory") +
                " (" + std::to_string(received) + " zip bytes in " + plural(chunks, "chunk") + ")");
            outcome_ = "stored";
        } else {
            say("cannot unpack " + name + ": " + error);
            outcome_ = "failed";
        }
        return;
    }
    if (!directory) {
        file.reset();
        fs::remove(target, ec);
    }
    say("transfer of " + name + " ended early (" + std::to_string(received) + " bytes received)");
    outcome_ = "failed";
}

// Sends `data` as kind-4 events of at most chunkSize bytes, each answered by reply kind 5,
// then a kind-8 event.
bool Desktop::sendData(TransferEvent event, const ChunkSource& next, const std::string& what) {
    std::size_t chunks = 0;
    std::uint64_t total = 0;
    std::vector<std::uint8_t> piece(options_.chunkSize);
    for (;;) {
        const std::optional<std::size_t> got = next(piece);
        if (!got) {
            say("cannot read " + what + "; aborting");
            event.kind = 7;
            event.data.clear();
            sendEvent(event);
            return false;
        }
        if (*got == 0) break;
        event.kind = 4;
        event.data.assign(piece.begin(), piece.begin() + static_cast<std::ptrdiff_t>(*got));
        if (!sendEvent(event)) return false;
        ++chunks;
        total += *got;
        auto reply = awaitReply("a chunk acknowledgement");
        if (!reply) return false;
        if (reply->kind != 5) {
            say("unexpected reply to data: " + transferKindName(reply->kind) + "; aborting");
            event.kind = 7;
            event.data.clear();
            sendEvent(event);
            return false;
        }
    }
    event.kind = 8;
    event.data.clear();
    if (!sendEvent(event)) return false;
    say("sent " + what + " (" + std::to_string(total) + " bytes in " + plural(chunks, "chunk") + ")");
    return true;
}

// A desktop file goes out as it is read, one chunk at a time.
void Desktop::sendFileToClient(const TransferReply& announce) {
    const fs::path source = options_.folder / insideFolder(announce.nameA);
    std::error_code ec;
    const bool regular = fs::is_regular_file(source, ec);
    const std::uintmax_t size = regular ? fs::file_size(source, ec) : 0;
    File file(regular && !ec ? std::fopen(source.c_str(), "rb") : nullptr);
    if (!file) {
        say("no desktop file " + announce.nameA + ": aborting");
        sendEvent(echo(announce, 7));
        outcome_ = "missing";
        return;
    }
    TransferEvent event = echo(announce, 4);
    event.size = size;
    const ChunkSource read = [&](std::span<std::uint8_t> into) -> std::optional<std::size_t> {
        const std::size_t n = std::fread(into.data(), 1, into.size(), file.get());
        if (n == 0 && std::ferror(file.get())) return std::nullopt;
        return n;
    };
    outcome_ = sendData(event, read, announce.nameA) ? "sent" : "failed";
}

void Desktop::sendDirectoryToClient(const TransferReply& announce) {
    const fs::path source = options_.folder / insideFolder(announce.nameA);
    PackResult packed;
    std::string error;
    if (!packDirectory(source, options_.zipMethod, packed, &error)) {
        say("no desktop directory " + announce.nameA + " (" + error + "): aborting");
        sendEvent(echo(announce, 7));
        outcome_ = "missing";
        return;
    }
    say("packed " + announce.nameA + ": " + plural(packed.files, "file") + ", " + plural(packed.directories, "directory") +
        ", " + zipMethodName(options_.zipMethod));
    TransferEvent event = echo(announce, 4);
    event.size = packed.bytes.size();
    std::size_t at = 0;
    const ChunkSource read = [&](std::span<std::uint8_t> into) -> std::optional<std::size_t> {
        const std::size_t n = std::min(into.size(), packed.bytes.size() - at);
        std::copy_n(packed.bytes.begin() + static_cast<std::ptrdiff_t>(at), n, into.begin());
        at += n;
        return n;
    };
    outcome_ = sendData(event, read, announce.nameA + " as zip") ? "sent" : "failed";
}

void Desktop::onPrint(const Request& request) {
    const auto chunk = decodePrintChunk(request.bytes);
    if (!chunk) {
        say("malformed print request");
        server_.sendError(request, kBadLength);
        return;
    }
    const std::uint8_t code = options_.printCode;
    server_.sendPrintReply(request, code, options_.printReason);
    if (chunk->begin) {
        if (printing_) say("print job " + printName_ + " abandoned");
        printName_ = baseName(chunk->name);
        if (printName_.empty() || printName_ == "." || printName_ == "..") printName_ = "unnamed";
        printData_.clear();
        printing_ = code == 0;
        say("print " + printName_ + (code == 0 ? ": accepted" : ": rejected with code " + std::to_string(code)));
    } else if (!printing_) {
        say("print data without an accepted job (" + std::to_string(chunk->data.size()) + " bytes), answered " +
            std::to_string(code));
        return;
    } else if (code != 0) {
        say("print " + printName_ + ": rejected with code " + std::to_string(code));
        printing_ = false;
        return;
    }
    if (!printing_) return;
    printData_.insert(printData_.end(), chunk->data.begin(), chunk->data.end());
    if (chunk->more) return;
    printing_ = false;
    std::error_code ec;
    fs::create_directories(options_.printFolder, ec);
    const fs::path target = options_.printFolder / printName_;
    File file(std::fopen(target.c_str(), "wb"));
    const bool ok = file && (printData_.empty() || std::fwrite(printData_.data(), 1, printData_.size(), file.get()) == printData_.size()) &&
                    std::fclose(file.release()) == 0;
    say(ok ? "printed " + printName_ + " (" + std::to_string(printData_.size()) + " bytes)" : "cannot keep printed file " + target.string());
}

// ---- scripted sessions --------------------------------------------------------------------

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

bool Desktop::awaitStatus(const char* waitingFor) {
    while (auto request = nextFromClient()) {
        dispatch(*request);
        if (request->major == server_.fileTransferOpcode() && request->minor == kFileTransferStatus) {
            const auto status = decodeTransferStatus(request->bytes);
            return status && status->status == 0;
        }
    }
    say(std::string("client went away while the desktop waited for ") + waitingFor);
    return false;
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
