#include "request_inbox.h"

#include <algorithm>

namespace loopback {

RequestInbox::RequestInbox(XServer& server) : server_(server) {
    server_.setRequestHandler([this](const RequestView& request) { take(request); });
}

RequestInbox::~RequestInbox() { server_.setRequestHandler(nullptr); }

// On the server thread, under its lock.
void RequestInbox::take(const RequestView& request) {
    std::lock_guard lock(mutex_);
    if (taker_ && request.client == armedClient_) {
        if (request.major == server_.fileTransferOpcode() && request.minor == kFileTransferReply) {
            if (const auto reply = viewTransferReply(request.bytes); reply && reply->kind == 4) {
                if (!taker_(*reply)) taker_ = nullptr;
                return;
            }
        }
        taker_ = nullptr;  // this request, and whatever of the client follows, wait in the queue
    }
    queue_.push_back(Request{request.major, request.minor, request.sequence, request.big, request.client,
                             std::vector<std::uint8_t>(request.bytes.begin(), request.bytes.end())});
    changed_.notify_all();
}

std::optional<Request> RequestInbox::next(std::chrono::milliseconds timeout) {
    std::unique_lock lock(mutex_);
    if (!changed_.wait_for(lock, timeout, [&] { return interrupted_ || !queue_.empty(); }) || interrupted_)
        return std::nullopt;
    Request r = std::move(queue_.front());
    queue_.pop_front();
    return r;
}

void RequestInbox::interrupt() {
    std::lock_guard lock(mutex_);
    interrupted_ = true;
    changed_.notify_all();
}

bool RequestInbox::arm(std::uint32_t client, ChunkTaker taker) {
    std::lock_guard lock(mutex_);
    if (std::any_of(queue_.begin(), queue_.end(), [&](const Request& r) { return r.client == client; })) return false;
    armedClient_ = client;
    taker_ = std::move(taker);
    return true;
}

void RequestInbox::disarm() {
    std::lock_guard lock(mutex_);
    taker_ = nullptr;
}

}  // namespace loopback
