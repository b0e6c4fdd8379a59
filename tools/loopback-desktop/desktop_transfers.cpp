// The desktop's transfers: files and directories the client announces or the desktop starts,
// in either direction. Every one is a stream: a file is read or written chunk by chunk, a
// directory packed or unpacked as its bytes go or come, so memory stays flat at any size.
#include "desktop.h"

#include "desktop_support.h"
#include "sparse_file.h"

#include <algorithm>

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using namespace loopback::desk;

namespace loopback {

// A transfer cut short because the desktop was told to stop: the client is told so (kind 7)
// rather than left to find the connection gone.
void Desktop::abortForStop(const TransferEvent& like) {
    TransferEvent abort = like;
    abort.kind = 7;
    abort.data.clear();
    sendEvent(abort);
    say("stopping: transfer of " + like.nameA + " aborted");
}

// The client sends; the desktop asks with kind-5 events and takes what comes in kind-4 replies
// until reply kind 8: a file written as it comes, or a ZIP stream unpacked as it comes.
void Desktop::receiveFromClient(const TransferReply& announce) {
    const bool directory = announce.objectType == kObjectDirectory;
    const fs::path target = desktopPath(announce.nameA, announce.nameB);
    const std::string name = target.lexically_relative(options_.folder).string();
    std::error_code ec;
    fs::create_directories(target.parent_path(), ec);
    SparseFileWriter file;
    if (!directory && !file.open(target)) {
        say("cannot write " + target.string() + ": aborting");
        sendEvent(echo(announce, 7));
        outcome_ = "failed";
        return;
    }
    std::uint64_t received = 0;
    std::size_t chunks = 0;
    bool ended = false;  // reply kind 8 came
    bool writeError = false;
    std::optional<TransferReply> reply;
    const TransferEvent ask = echo(announce, 5);
    bool asked = false;  // the ask for the next chunk is out already
    // While the desktop waits for a file's next chunk, the chunks that come are written on the
    // server thread where they lie in its input buffer (see RequestInbox), each treated as
    // below: the next one asked for before this one is written, except after the last.
    // Anything else the client sends ends that, and the rest comes through here. Traced runs
    // take every chunk here, to tell it.
    const bool direct = !directory && !options_.trace;
    const std::vector<std::uint8_t> askPayload = encodeTransferEvent(ask);
    bool directWriteFailed = false;
    const RequestInbox::ChunkTaker take = [&](const TransferReplyView& chunk) {
        ++chunks;
        received += chunk.block.size();
        const bool early = received < announce.size;
        bool askSent = early && server_.sendGenericEventTo(client_, kTransferRequest, askPayload);
        if (!chunk.block.empty() && !file.write(chunk.block)) directWriteFailed = true;
        askSent = askSent || server_.sendGenericEventTo(client_, kTransferRequest, askPayload);
        return askSent && !directWriteFailed;
    };
    const auto mineWaiting = [&] {
        return std::any_of(backlog_.begin(), backlog_.end(), [&](const Request& r) { return r.client == client_; });
    };
    // The next chunk's data: empty after reply kind 8, nullopt when the transfer broke off.
    auto nextChunk = [&]() -> std::optional<std::span<const std::uint8_t>> {
        if (ended) return std::span<const std::uint8_t>();
        if (!asked && !sendEvent(ask)) return std::nullopt;
        asked = false;
        const bool taking = direct && !writeError && !mineWaiting() && inbox_.arm(client_, take);
        reply = awaitReply("data");
        if (taking) inbox_.disarm();
        if (directWriteFailed && !writeError) {
            say("write error on " + target.string());
            writeError = true;
        }
        if (!reply) return std::nullopt;
        if (reply->kind == 8) {
            ended = true;
            return std::span<const std::uint8_t>();
        }
        if (reply->kind != 4) {
            say("unexpected reply during the transfer: " + transferKindName(reply->kind));
            return std::nullopt;
        }
        ++chunks;
        received += reply->block.size();
        // The next chunk of a file is asked for before this one is written, so the client sends
        // it meanwhile; the messages are the same, in the same order. The last one (the
        // announced size reached) is written first, so the file is whole when the client ends.
        asked = !directory && received < announce.size && sendEvent(ask);
        return std::span<const std::uint8_t>(reply->block);
    };
    bool broken = false;
    UnpackResult unpacked;
    std::string unpackError;
    bool unpackedOk = false;
    if (directory) {
        unpackedOk = unpackStream(nextChunk, target, unpacked, &unpackError);
        // What follows the archive's entries (its central directory), or follows a failure,
        // is still taken, so the client ends its transfer as usual.
        while (!ended && !broken) broken = !nextChunk();
    } else {
        while (!ended && !broken) {
            const auto data = nextChunk();
            broken = !data;
            if (data && !data->empty() && !file.write(*data) && !writeError) {
                say("write error on " + target.string());
                writeError = true;
            }
        }
    }
    if (broken) {
        if (stopping_) abortForStop(ask);
        if (!directory) {
            file.close();
            fs::remove(target, ec);
        }
        say("transfer of " + name + " ended early (" + std::to_string(received) + " bytes received)");
        outcome_ = "failed";
        return;
    }
    if (!directory) {
        const bool ok = file.close() && !writeError;
        say(std::string(announce.openFlag ? "opened " : "stored ") + name + " (" + std::to_string(received) + " bytes" +
            (ok ? ")" : ", write error)"));
        outcome_ = ok ? "stored" : "failed";
        return;
    }
    if (unpackedOk) {
        say("unpacked " + name + ": " + plural(unpacked.files, "file") + ", " + plural(unpacked.directories, "directory") +
            " (" + std::to_string(received) + " zip bytes in " + plural(chunks, "chunk") + ")");
        outcome_ = "stored";
    } else {
        say("cannot unpack " + name + ": " + unpackError);
        outcome_ = "failed";
    }
}

// Sends what `next` gives as kind-4 events of at most chunkSize bytes, each answered by reply
// kind 5, then a kind-8 event.
bool Desktop::sendData(TransferEvent event, const ChunkSource& next, const std::string& what) {
    std::size_t chunks = 0;
    std::uint64_t total = 0;
    std::vector<std::uint8_t> piece(options_.chunkSize);
    for (;;) {
        if (stopping_) {
            abortForStop(event);
            return false;
        }
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
        if (!reply) {
            if (stopping_) abortForStop(event);
            return false;
        }
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

// A desktop directory goes out packed as it is sent: the archive is never whole in memory, so
// its size is not known beforehand and the events carry 0.
void Desktop::sendDirectoryToClient(const TransferReply& announce) {
    const fs::path source = options_.folder / insideFolder(announce.nameA);
    ZipPackStream packed;
    std::string error;
    if (!packed.open(source, options_.zipMethod, &error)) {
        say("no desktop directory " + announce.nameA + " (" + error + "): aborting");
        sendEvent(echo(announce, 7));
        outcome_ = "missing";
        return;
    }
    TransferEvent event = echo(announce, 4);
    event.size = 0;
    const ChunkSource read = [&](std::span<std::uint8_t> into) { return packed.read(into, &error); };
    const std::string what = announce.nameA + " as zip";
    if (!sendData(event, read, what)) {
        if (!error.empty()) say("cannot pack " + announce.nameA + ": " + error);
        outcome_ = "failed";
        return;
    }
    say("packed " + announce.nameA + ": " + plural(packed.files(), "file") + ", " + plural(packed.directories(), "directory") +
        ", " + zipMethodName(options_.zipMethod));
    outcome_ = "sent";
}

}  // namespace loopback
