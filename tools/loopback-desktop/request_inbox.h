// The requests the desktop takes from its X server. The server thread hands every vendor request
// to the inbox as it reads it; the inbox keeps a copy in a queue for the desktop's own thread,
// except for the data chunks of a file the desktop is receiving: those go to a chunk taker on
// the server thread, as views into the server's input buffer, so that a chunk costs neither a
// copy nor a thread switch on its way to the file.
//
// The order stays the client's: the taker is asked only while nothing of its client waits in
// the queue, and the first request of that client it is not given (anything but a data chunk)
// disarms it, so what follows waits in the queue behind that request.
#pragma once

#include "far_protocol.h"
#include "x_server.h"

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <mutex>
#include <optional>

namespace loopback {

class RequestInbox {
public:
    // Takes one data chunk (a well-formed kind-4 FileTransferReply) on the server thread; it may
    // answer through the server's send* calls. False disarms it after this chunk.
    using ChunkTaker = std::function<bool(const TransferReplyView&)>;

    explicit RequestInbox(XServer& server);  // becomes the server's request handler
    ~RequestInbox();                         // and stops being it
    RequestInbox(const RequestInbox&) = delete;
    RequestInbox& operator=(const RequestInbox&) = delete;

    // The next queued request of any client, in the order read; nullopt after `timeout` or once
    // interrupted.
    std::optional<Request> next(std::chrono::milliseconds timeout);
    // Makes every next() return nullopt at once from now on.
    void interrupt();

    // Hands the data chunks of `client` to `taker` from now on, until disarm() or the first other
    // request of that client. False (and nothing armed) when a request of the client is queued.
    bool arm(std::uint32_t client, ChunkTaker taker);
    // Once this returns, the taker is not running and is not called again.
    void disarm();

private:
    void take(const RequestView& request);

    XServer& server_;
    std::mutex mutex_;
    std::condition_variable changed_;
    std::deque<Request> queue_;
    bool interrupted_ = false;
    std::uint32_t armedClient_ = 0;
    ChunkTaker taker_;
};

}  // namespace loopback
