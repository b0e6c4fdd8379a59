// The desktop's transfers: files and directories the client announces or the desktop starts,
// in either direction.
#include "desktop.h"

#include "desktop_support.h"

#include <algorithm>

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using namespace loopback::desk;

namespace loopback {

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

}  // namespace loopback
