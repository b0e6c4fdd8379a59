// The far side's behaviour on top of XServer: a desktop folder that holds the "remote" files,
// the command-line transfers a client announces, printing, and scripted sessions.
#pragma once

#include "far_protocol.h"
#include "request_inbox.h"
#include "x_server.h"
#include "zip_archive.h"

#include <atomic>
#include <chrono>
#include <cstdint>
#include <deque>
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
    bool sendStart = false;                    // send a kind-0 start before the data of an announced transfer
    std::uint8_t printCode = 0;                // the answer to every print request
    std::string printReason;
    // Steps run after a session start (see runScriptStep); empty: the desktop waits.
    std::vector<std::string> script;
    bool trace = false;  // also a line for every request received and every event sent
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
    // Takes the server's vendor requests from now on (see RequestInbox); construct it before
    // a client connects.
    Desktop(XServer& server, DesktopOptions options);

    // Serves one client, from its first request until it has gone; requests of other clients
    // that come meanwhile wait for their turn. False when no request came within
    // `waitForRequest` (or stop() was called first).
    bool serveClient(std::chrono::milliseconds waitForRequest);
    // Makes serveClient return soon, cutting a transfer short (the client gets an abort).
    // Safe from another thread, not from a signal handler.
    void stop() {
        stopping_ = true;
        inbox_.interrupt();
        server_.interruptWaits();
    }
    bool stopped() const { return stopping_; }

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
    void trace(const Request& request);
    static std::string describe(std::uint8_t direction, std::uint8_t objectType, const std::string& a,
                                const std::string& b, std::size_t dataBytes);
    TransferEvent echo(const TransferReply& reply, std::uint8_t kind) const;
    std::filesystem::path desktopPath(const std::string& remoteName, const std::string& localPath) const;

    bool startFirst(const TransferReply& announce);
    void abortForStop(const TransferEvent& like);
    void receiveFromClient(const TransferReply& announce);
    void sendFileToClient(const TransferReply& announce);
    void sendDirectoryToClient(const TransferReply& announce);
    // Fills the span and says how much it filled (0 at the end), nullopt on a read error.
    using ChunkSource = std::function<std::optional<std::size_t>(std::span<std::uint8_t>)>;
    bool sendData(TransferEvent event, const ChunkSource& next, const std::string& what);
    std::optional<TransferReply> awaitReply(const char* waitingFor);
    bool awaitStatus(const char* waitingFor);  // true for a status of success

    bool scriptList(const std::string& path);
    bool scriptFetch(const std::string& local, std::uint8_t objectType);
    bool scriptStore(const std::string& local, const std::string& name, bool directory);
    bool scriptAbort(const std::string& local, const std::string& name);
    bool openStore(TransferReply& start);
    bool scriptSimple(std::uint16_t eventType, std::span<const std::uint8_t> payload, const std::string& what);

    XServer& server_;
    DesktopOptions options_;
    RequestInbox inbox_;
    std::atomic<bool> stopping_{false};
    std::uint32_t client_ = 0;
    std::deque<Request> backlog_;  // requests of other clients, in the order they came
    std::optional<SessionStart> session_;
    std::string outcome_;
    // A print job in progress.
    bool printing_ = false;
    std::string printName_;
    std::vector<std::uint8_t> printData_;
};

}  // namespace loopback
