#include "print/print_loop.h"

#include <xcb/xcbext.h>

#include <memory>
#include <new>
#include <span>

#include "common/log.h"
#include "common/terminal_display.h"
#include "common/terminal_hints.h"
#include "common/terminal_progress.h"
#include "platform/platform.h"
#include "print/classify.h"
#include "print/requests.h"

namespace {

// A local file or standard input, read a whole chunk at a time as fread does: a chunk comes up
// short only at the end of the data or on a read error. A file's chunks go into the pipe when
// it is open, into the buffer otherwise.
struct ChunkSource {
    platform::File file;
    platform::FilePipe pipe;
    bool standardInput = false;
    bool atEnd = false;
    bool failed = false;

    std::size_t fill(std::span<std::uint8_t> buffer) {
        std::size_t got = 0;
        while (got < buffer.size()) {
            const auto rest = buffer.subspan(got);
            std::int64_t n = 0;
            if (pipe.isOpen()) {
                n = pipe.fill(file, rest.size());
                // A file that cannot go through the pipe says so at once, with nothing taken.
                if (n == platform::FilePipe::kCannotMove && got == 0) {
                    pipe.close();
                    continue;
                }
            } else {
                n = standardInput ? platform::readStandardInput(rest) : file.read(rest);
            }
            if (n < 0) {
                failed = true;
                break;
            }
            if (n == 0) {
                atEnd = true;
                break;
            }
            got += static_cast<std::size_t>(n);
        }
        return got;
    }
};

// Streams the open source: the name with the first chunk, then the rest; an exact multiple of
// the chunk size ends with an empty chunk, since the end is only seen by a read that finds nothing.
int sendChunks(xcb_connection_t* connection, const std::string& name, ChunkSource& source,
               std::uint32_t& moreFilesAccepted, terminal::Display& display) {
    moreFilesAccepted = 1;
    const std::unique_ptr<std::uint8_t[]> storage(new (std::nothrow) std::uint8_t[kPrintChunkSize]);
    if (!storage) return 0;
    const std::span<std::uint8_t> buffer(storage.get(), kPrintChunkSize);

    // Sends what the last fill took, from wherever it went.
    const auto send = [&](bool first, std::size_t got, int more) {
        if (source.pipe.isOpen()) {
            return first ? sendFileBegin(connection, name.c_str(), source.pipe, got, more, moreFilesAccepted)
                         : sendFileContinue(connection, source.pipe, got, more, moreFilesAccepted);
        }
        return first ? sendFileBegin(connection, name.c_str(), buffer.first(got), more, moreFilesAccepted)
                     : sendFileContinue(connection, buffer.first(got), more, moreFilesAccepted);
    };

    std::size_t got = source.fill(buffer);
    if (source.failed) return 0;
    if (!send(true, got, source.atEnd ? 0 : 1)) return 0;
    display.add(got);
    while (!source.atEnd) {
        got = source.fill(buffer);
        const bool last = source.atEnd || source.failed;
        if (!send(false, got, last ? 0 : 1)) return 0;
        display.add(got);
        if (last) break;
    }
    return 1;
}

}  // namespace

std::string remotePrintName(std::string_view path) {
    const auto slash = path.rfind(platform::kSeparator);
    return std::string(slash == std::string_view::npos ? path : path.substr(slash + 1));
}

std::string standardInputPrintName(const char* suffix, const char* prefix, std::uint32_t processId,
                                   std::int64_t time) {
    const std::string tail = suffix ? suffix : "";
    if (prefix) return prefix + tail;
    return "stdin" + std::to_string(processId) + std::to_string(time) + tail;
}

int sendPrintFile(xcb_connection_t* connection, const char* path, std::uint32_t& moreFilesAccepted,
                  const char* suffix, const char* prefix, terminal::Display* display) {
    if (!connection) return 0;
    ChunkSource source;
    std::string name;
    if (path) {
        name = remotePrintName(path);
        if (name.empty()) return 0;
        logPrint(3, "Using filename: %s\n", name.c_str());
        const bool opened = source.file.open(path, platform::OpenMode::ReadRegular);
        logPrint(3, "fopened %s\n", path);
        if (!opened) {
            logPrint(1, "Could not open file: \"%s\"\n", name.c_str());
            return 0;
        }
        // The file's bytes skip this process's memory when the far side takes whole chunks in
        // requests of the ordinary form.
        const xcb_query_extension_reply_t* extension = xcb_get_extension_data(connection, &ThinPrintExtension);
        const std::size_t longest = kPrintRequestFixedSize + name.size() + kPrintChunkSize + 3;
        if (extension && extension->present && longest / 4 <= xcb_get_setup(connection)->maximum_request_length)
            source.pipe.open(2 * kPrintChunkSize);
    } else {
        name = standardInputPrintName(suffix, prefix, platform::processId(), platform::currentTime());
        source.standardInput = true;
        logPrint(3, "Using stdin\n");
    }
    terminal::Display none;
    terminal::Display& shown = display ? *display : none;
    platform::Status st;
    shown.start(path && platform::status(path, st) ? st.size : 0);
    return sendChunks(connection, name, source, moreFilesAccepted, shown);
}

void runPrintLoop(xcb_connection_t* connection, const std::vector<std::string>& files, terminal::Display* display) {
    std::uint32_t moreFilesAccepted = 1;  // cleared when the far side will take no more files
    terminal::Display none;
    terminal::Display& shown = display ? *display : none;
    bool lossShown = false;
    for (const std::string& file : files) {
        const char* path = file.c_str();
        logPrint(2, "Sending file %s\n", path);
        // Each check looks at the file afresh.
        if (platform::isDirectory(file)) {
            logPrint(1, "\"%s\" is a directory, cannot send.\n", path);
            continue;
        }
        if (!platform::exists(file)) {
            logPrint(1, "\"%s\" file not found\n", path);
            continue;
        }
        platform::Status st;
        if (!platform::status(file, st) || st.kind != platform::Kind::Regular) {
            logPrint(1, "\"%s\" is not a regular file, cannot send\n", path);
            continue;
        }
        if (classifyPrintFile(file) == 'b') {
            logPrint(1, "\"%s\" is not a plain text or Postscript file and cannot be printed.\n", path);
            continue;
        }
        if (sendPrintFile(connection, path, moreFilesAccepted, nullptr, nullptr, &shown)) {
            const std::string summary = shown.end();
            if (!summary.empty()) shown.show(terminal::printable(file) + ": " + summary + "\n");
            logPrint(2, "File successfully sent\n");
            continue;
        }
        const terminal::LostTransfer lost{terminal::Direction::Printing, file, {}, shown.done(), shown.total()};
        shown.drop();
        logPrint(1, "Error while sending file \"%s\"\n", path);
        if (!lossShown && shown.enabled() && connection && xcb_connection_has_error(connection)) {
            shown.show(terminal::lostConnectionHint(lost));
            lossShown = true;
        }
        if (moreFilesAccepted == 0) {
            logPrint(1, "X Server will not accept more files\n");
            break;
        }
    }
}
