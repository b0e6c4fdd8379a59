// The file-transfer session: the one object that holds what a run of transfer mode keeps from
// one event to the next. The driver owns exactly one per process and hands it to every handler.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "common/options.h"
#include "common/terminal_display.h"
#include "filetransfer/framing.h"
#include "filetransfer/wire.h"

// What a handler tells the event loop: go on, or end the run with an exit status.
struct Outcome {
    bool end = false;
    int status = 0;
    static Outcome goOn() { return {}; }
    static Outcome endRun(int status = 0) { return {true, status}; }
};

// The transfer in progress.
struct TransferState {
    TransferHeader header;
    std::string directoryPath;  // a received directory: name B without its ".zip" ending
    bool finish = false;        // a command-line send reached its end: the run ends after the reply
    bool writeFailureLogged = false;
    int writeError = 0;         // the error of the first failed write of a receive
};

// Owns one stream object of the archive layer (destroyed through its own table).
class StreamObject {
public:
    StreamObject() = default;
    ~StreamObject();
    StreamObject(const StreamObject&) = delete;
    StreamObject& operator=(const StreamObject&) = delete;

    void* get() const { return stream_; }
    // Creates the object with `create` unless it exists; false when that failed.
    bool ensure(void* (*create)());

private:
    void* stream_ = nullptr;
};

class Staging;  // a received file or directory on its way in (staging.h)

struct Session {
    Session(Options options, Wire& wire);
    ~Session();
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    Options options;  // what the command line asked for
    Wire& wire;       // where the answers go
    TransferState transfer;
    // The progress line and the extra lines on a terminal; disabled unless the driver enables it.
    terminal::Display display;

    // The three streams, created on first use, and the one of the transfer in progress.
    StreamObject fileStream;    // plain local files
    StreamObject packStream;    // reading yields the ZIP bytes of a local directory
    StreamObject unpackStream;  // ZIP bytes written to it become a local tree
    void* current = nullptr;
    // What a chunk read from a pack or file stream goes through; made at its first use.
    std::unique_ptr<std::uint8_t[]> chunkBuffer;
    std::unique_ptr<Staging> staging;

    std::optional<std::string> browsingDirectory;  // the directory listed last
    std::string keepPath;     // the local path the user agreed to overwrite; at most kKeepPathMax bytes
    std::string userHomeDir;  // the directory an empty listing request lists
    std::string userName;
    std::uint64_t localFileSize = 0;  // the local file a command-line send reads

    static constexpr std::size_t kKeepPathMax = 1023;
    void setKeepPath(std::string_view path) { keepPath.assign(path.substr(0, kKeepPathMax)); }
    bool commandLineRun() const { return options.runMode != RunMode::None; }
    bool ensureFileStream();
    bool ensurePackStream();
    bool ensureUnpackStream();
    // Closes the current stream when it is open and clears `current` in every case.
    void closeCurrentStream();
};

// Prepares the local side for the run mode and announces the run (the environment report in a
// session the far side drives). Ends the run on a local error of a command-line run.
Outcome startRun(Session& session);
// After the event loop: a run that ended itself writes out what is queued; one whose connection
// went leaves a receive in progress as its target was. Every temporary goes. The exit status.
int finishRun(Session& session, Outcome outcome);
