// The far side's behaviour on top of XServer: a desktop folder that holds the "remote" files,
// the command-line transfers a client announces, printing, and scripted sessions.
#pragma once

#include "far_protocol.h"
#include "x_server.h"
#include "zip_archive.h"

#include <atomic>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace loopback {

struct DesktopOptions {
    std::filesystem::path folder = "desktop";  // the desktop's files
    std::filesystem::path printFolder;         // printed files; empty: <folder>/print
    std::size_t chunkSize = 131072;            // data bytes per kind-4 event
    ZipMethod zipMethod = ZipMethod::Deflate;  // for directories the desktop sends
    std::uint8_t refusal = 0;                  // 13..17: answer every announced transfer with it
    std::uint8_t printCode = 0;                // the answer to every print request
    std::string printReason;
    // Steps run after a session start (see runScriptStep); empty: the desktop waits.
    std::vector<std::string> script;
    // Each readable line of what happens ("stored report.pdf (1048576 bytes)").
    std::function<void(const std::string&)> log;
};

// What the client said at the start of a run-mode-0 session.
struct SessionStart {
    std::string host, user;
    std::vector<std::string> drives;
};

class Desktop {
public:
    Desktop(XServer& server, DesktopOptions options);

    // Serves one client from its handshake until it goes away. False when no client came
    // within `waitForClient` (or stop() was called first).
    bool serveClient(std::chrono::milliseconds waitForClient);
    // Makes serveClient return soon (from another thread or a signal-driven loop).
    void stop() { stopping_ = true; }

    const std::optional<SessionStart>& sessionStart() const { return session_; }
    // The outcome of the last transfer: "stored", "sent", "missing", "refused", "failed", ...
    const std::string& lastOutcome() const { return outcome_; }

    // One scripted step of a session: "list PATH", "fetch LOCAL", "move LOCAL" (a fetch after
    // which the client removes its file), "fetchdir LOCAL", "store LOCAL [NAME]",
    // "storedir LOCAL [NAME]", "delete PATH", "rename OLD NEW", "close". Fetched things are kept
    // in the folder under their base names, stored ones come from the folder (NAME defaults to
    // the base name of LOCAL). False when the step failed or the client went away.
    bool runScriptStep(const std::string& line);

private:
    void say(const std::string& line);
    std::optional<Request> nextFromClient();
    void dispatch(const Request& request);
    void onReply(const TransferReply& reply);
    void onPrint(const Request& request);
    bool sendEvent(const TransferEvent& event);
    TransferEvent echo(const TransferReply& reply, std::uint8_t kind) const;
    std::filesystem::path desktopPath(const std::string& remoteName, const std::string& localPath) const;

    void receiveFromClient(const TransferReply& announce);
    void sendFileToClient(const TransferReply& announce);
    void sendDirectoryToClient(const TransferReply& announce);
    bool sendData(TransferEvent event, std::span<const std::uint8_t> data, const std::string& what);
    std::optional<TransferReply> awaitReply(const char* waitingFor);

    bool scriptList(const std::string& path);
    bool scriptFetch(const std::string& local, std::uint8_t objectType);
    bool scriptStore(const std::string& local, const std::string& name, bool directory);
    bool scriptSimple(std::uint16_t eventType, std::span<const std::uint8_t> payload, const std::string& what);

    XServer& server_;
    DesktopOptions options_;
    std::atomic<bool> stopping_{false};
    std::uint32_t client_ = 0;
    std::optional<SessionStart> session_;
    std::string outcome_;
    // A print job in progress.
    bool printing_ = false;
    std::string printName_;
    std::vector<std::uint8_t> printData_;
};

}  // namespace loopback
