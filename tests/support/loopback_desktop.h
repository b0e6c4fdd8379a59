// The loopback desktop served from a thread of the test, for the runs of the real varoft: a
// test starts one on a folder, runs varoft against its display and looks at the folder and at
// what the desktop said.
#pragma once

#include <chrono>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "desktop.h"
#include "support/process.h"
#include "x_server.h"

namespace testsupport {

class LoopbackDesktop {
public:
    explicit LoopbackDesktop(loopback::DesktopOptions options, loopback::ServerOptions server = {}) {
        server_ = loopback::XServer::start(server, &error_);
        if (!server_) return;
        options.log = [this](const std::string& line) {
            const std::lock_guard lock(mutex_);
            said_ += line + "\n";
        };
        desktop_ = std::make_unique<loopback::Desktop>(*server_, std::move(options));
        thread_ = std::thread([this] {
            while (!desktop_->stopped()) desktop_->serveClient(std::chrono::milliseconds(100));
        });
    }
    ~LoopbackDesktop() {
        if (!desktop_) return;
        desktop_->stop();
        thread_.join();
    }
    LoopbackDesktop(const LoopbackDesktop&) = delete;
    LoopbackDesktop& operator=(const LoopbackDesktop&) = delete;

    bool ok() const { return desktop_ != nullptr; }
    const std::string& error() const { return error_; }
    loopback::XServer& server() { return *server_; }
    // Every line the desktop said so far, each ending in a newline.
    std::string said() {
        const std::lock_guard lock(mutex_);
        return said_;
    }

    // varoft with -display and `args`, started; the test collects its end with wait().
    std::unique_ptr<RunningProcess> start(std::vector<std::string> args, RunOptions options = {}) {
        options.args = {"-display", server_->displayName()};
        options.args.insert(options.args.end(), args.begin(), args.end());
        return std::make_unique<RunningProcess>(varoftBinary(), options);
    }
    RunResult run(std::vector<std::string> args, RunOptions options = {}) {
        return start(std::move(args), options)->wait(options.timeout);
    }

private:
    std::string error_;
    std::unique_ptr<loopback::XServer> server_;
    std::unique_ptr<loopback::Desktop> desktop_;
    std::thread thread_;
    std::mutex mutex_;
    std::string said_;
};

}  // namespace testsupport
