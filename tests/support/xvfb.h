// A real X server (Xvfb) on a free display, for tests that need one without the vendor
// extensions. Skips cleanly when Xvfb is not installed.
#pragma once

#include <string>

namespace testsupport {

class Xvfb {
public:
    // extraArgs are added to Xvfb's command line (for example "-auth FILE").
    explicit Xvfb(const std::string& extraArgs = "");
    ~Xvfb();
    Xvfb(const Xvfb&) = delete;
    Xvfb& operator=(const Xvfb&) = delete;

    bool running() const { return display_ >= 0; }
    std::string displayName() const { return ":" + std::to_string(display_); }
    const std::string& error() const { return error_; }

private:
    int pid_ = -1;
    int display_ = -1;
    std::string error_;
};

// Writes an X authority file with one MIT-MAGIC-COOKIE-1 entry for a local display.
bool writeXauthority(const std::string& path, int display, const std::string& cookie);

}  // namespace testsupport
