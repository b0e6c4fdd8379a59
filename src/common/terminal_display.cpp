#include "common/terminal_display.h"

#include "common/log.h"
#include "common/terminal_progress.h"
#include "platform/platform.h"

namespace terminal {

namespace {

// The display whose line the log clears (there is one standard error).
Display* Shown = nullptr;

}  // namespace

class Display::Sink final : public ProgressSink {
public:
    void write(std::string_view text) override { platform::writeStandardError(text); }
    unsigned columns() override { return platform::terminalColumns(); }
};

bool wanted() { return logVerbosity() >= 1 && platform::standardErrorIsTerminal(); }

void hint(std::string_view line) {
    if (wanted()) platform::writeStandardError(line);
}

Display::Display() = default;

Display::~Display() { disable(); }

void Display::disable() {
    if (Shown == this) Shown = nullptr;
    line_.reset();  // clears a line still drawn, through the sink, which goes after it
    sink_.reset();
}

void Display::enable() {
    if (!line_) {
        Style style = styleFor(platform::environment("NO_COLOR"), platform::environment("TERM"));
        if (style == Style::Full && !platform::terminalTakesEscapes()) style = Style::Plain;
        sink_ = std::make_unique<Sink>();
        line_ = std::make_unique<ProgressLine>(*sink_, style);
    }
    Shown = this;
}

void Display::start(std::uint64_t total) {
    drop();
    running_ = true;
    done_ = 0;
    total_ = total;
    entry_.clear();
    if (line_) line_->start(total, platform::monotonicMilliseconds());
}

void Display::setTotal(std::uint64_t total) {
    if (!running_ || total == 0) return;
    total_ = total;
    if (line_) line_->setTotal(total);
}

void Display::setEntry(std::string_view entry) {
    if (running_ && line_ && entry != entry_) entry_.assign(entry);
}

void Display::add(std::uint64_t bytes) {
    if (!running_) return;
    done_ += bytes;
    if (line_) line_->update(done_, platform::monotonicMilliseconds(), entry_);
}

std::string Display::end() {
    if (!running_) return {};
    running_ = false;
    return line_ ? line_->finish(done_, platform::monotonicMilliseconds()) : std::string();
}

void Display::finish() {
    const std::string summary = end();
    if (!summary.empty()) show(summary + "\n");
}

void Display::show(std::string_view line) {
    if (!line_) return;
    line_->clear();
    platform::writeStandardError(line);
}

void Display::clearShown() {
    if (Shown && Shown->line_) Shown->line_->clear();
}

}  // namespace terminal
