#include "desktop.h"

#include "desktop_support.h"

#include <algorithm>

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using namespace loopback::desk;

namespace loopback {

namespace desk {

std::string baseName(std::string_view path) {
    const auto cut = path.find_last_of("/\\");
    return std::string(cut == std::string_view::npos ? path : path.substr(cut + 1));
}

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

}  // namespace desk


Desktop::Desktop(XServer& server, DesktopOptions options)
    : server_(server), options_(std::move(options)), inbox_(server) {
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
    while (!first && !stopping_ && std::chrono::steady_clock::now() < deadline) first = inbox_.next(100ms);
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
        if (stopping_) return std::nullopt;
        const auto mine = std::find_if(backlog_.begin(), backlog_.end(), [&](const Request& r) { return r.client == client_; });
        if (mine != backlog_.end()) {
            Request r = std::move(*mine);
            backlog_.erase(mine);
            if (options_.trace) trace(r);
            return r;
        }
        auto r = inbox_.next(100ms);
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
    say(std::string(stopping_ ? "stopped" : "client went away") + " while the desktop waited for " + waitingFor);
    return std::nullopt;
}

// The client sends; the desktop asks with kind-5 events and keeps what comes in kind-4
// replies until reply kind 8: a file written as it comes, or a ZIP stream unpacked at the end.

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


}  // namespace loopback
