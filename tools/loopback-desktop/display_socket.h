// Taking an X display number on this machine: the lock file /tmp/.X<N>-lock, the Unix socket
// /tmp/.X11-unix/X<N> (and its abstract twin), and optionally TCP 127.0.0.1:6000+N.
#pragma once

#include "unique_fd.h"

#include <string>
#include <vector>

namespace loopback {

bool setNonBlocking(int fd);

// A display that is ours: its listening sockets, and the lock and socket files, which are
// removed again when it is destroyed.
class DisplayBinding {
public:
    DisplayBinding() = default;
    ~DisplayBinding();
    DisplayBinding(DisplayBinding&& other) noexcept;
    DisplayBinding& operator=(DisplayBinding&& other) noexcept;
    DisplayBinding(const DisplayBinding&) = delete;
    DisplayBinding& operator=(const DisplayBinding&) = delete;

    // Takes display `display`, or with -1 the first free one from 40 up. False (and *error)
    // when it is taken or cannot be set up.
    static bool take(int display, bool tcp, DisplayBinding& out, std::string* error);

    int display() const { return display_; }
    const std::vector<Fd>& listeners() const { return fds_; }
    const std::string& socketPath() const { return socketPath_; }
    const std::string& lockPath() const { return lockPath_; }

private:
    static bool bindOne(int n, bool tcp, DisplayBinding& b, bool* busy, std::string* error);
    void release();

    int display_ = -1;
    std::string lockPath_, socketPath_;
    std::vector<Fd> fds_;
    bool locked_ = false, socketMade_ = false;
};

}  // namespace loopback
