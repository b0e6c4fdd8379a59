// The progress display on a terminal: one line, redrawn in place while bytes move, wiped before
// any of the program's own lines, and one summary line at the end ("1.00 GiB in 2.3 s, 445
// MiB/s"). Everything here is pure: the clock is passed in, and text goes to a ProgressSink, so
// nothing depends on a real terminal. The caller decides whether to show anything at all (standard
// error a terminal, not -q) and never routes this text into the log file or a pipe.
//
// terminal_display.h wires it to standard error.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace terminal {

// ---- text shown on a terminal ---------------------------------------------------------------

// `text` with everything that could steer the terminal replaced by '?': C0 and C1 control
// characters (escape, carriage return, newline), DEL, bidirectional overrides, and bytes that
// are not UTF-8. Names from the far side pass through this before they are shown.
std::string printable(std::string_view text);
// The columns UTF-8 text takes: one per code point, two for East Asian wide ones, none for
// combining marks; an invalid byte counts as one.
std::size_t displayWidth(std::string_view text);
// `text` (printable) cut to at most `columns` columns by replacing its middle with "…", keeping
// slightly more of the end, where a file name's extension is. Never splits a code point.
std::string shortenMiddle(std::string_view text, std::size_t columns);

// ---- numbers --------------------------------------------------------------------------------

// Binary units with three significant digits: "0 B", "999 B", "0.98 KiB", "1.00 KiB", "10.0 MiB",
// "445 MiB", "1.00 GiB" ... "TiB" (which grows past 999 rather than moving on).
std::string formatSize(std::uint64_t bytes);
// formatSize of a rate, per second: "445 MiB/s".
std::string formatRate(double bytesPerSecond);
// "0.4 s", "59.9 s" under a minute (tenths), then "1:05", then "1:02:03".
std::string formatDuration(std::uint64_t milliseconds);

// ---- what the terminal allows ---------------------------------------------------------------

enum class Style : std::uint8_t {
    // The line is redrawn with '\r' and erased with "ESC [ K" (erase to the end of the line).
    Full,
    // NO_COLOR is set (and not empty): no escape sequence at all. The line is redrawn with '\r'
    // and erased by writing spaces over it. (The display never uses colour in any style.)
    Plain,
    // TERM=dumb: such terminals (editor shells, serial consoles) may not return on '\r', so a
    // line drawn over itself would pile up. Nothing is drawn while the transfer runs; only the
    // summary line appears at the end.
    SummaryOnly,
};
// The style for the values of NO_COLOR and TERM (nullptr when unset). TERM=dumb wins over
// NO_COLOR.
Style styleFor(const char* noColor, const char* term);

// ---- rendering ------------------------------------------------------------------------------

struct ProgressState {
    std::uint64_t done = 0;
    std::uint64_t total = 0;  // 0: not known (no percentage, no time left)
    std::uint64_t elapsedMilliseconds = 0;
    double bytesPerSecond = 0;  // 0: not known yet (no rate, no time left)
    std::string_view entry;     // the entry being packed or unpacked; empty for a single file
};

// One line, without '\r' or newline, at most columns - 1 wide (the last column is left free, as
// writing there makes some terminals wrap):
//     "412 MiB / 1.00 GiB  40%  445 MiB/s  0:14 left  9.2 s elapsed  photos/2023/img_0001.jpg"
// When it does not fit, the entry is first shortened in the middle (down to 12 columns), then
// dropped are, in this order: the elapsed time, the entry, the rate, the total, the time left.
// The bytes done and the percentage always stay. The entry is made printable here.
std::string renderProgress(const ProgressState& state, std::size_t columns);
// "1.00 GiB in 2.3 s, 445 MiB/s" (no newline); the rate is left out when no time passed.
std::string renderSummary(std::uint64_t done, std::uint64_t elapsedMilliseconds);

// ---- the line on the terminal ---------------------------------------------------------------

// Where the display writes, and how wide that is (asked only when a line is drawn, so a resized
// terminal is followed; 0 is taken as 80).
class ProgressSink {
public:
    virtual ~ProgressSink() = default;
    virtual void write(std::string_view text) = 0;
    virtual unsigned columns() = 0;
};

// One transfer's progress. start, then update as bytes move (as often as convenient: it decides
// itself when to draw), clear before printing any other line, and finish at the end. Destroying
// it while a line is shown clears the line.
class ProgressLine {
public:
    static constexpr std::uint64_t kFirstDrawAfter = 500;  // ms: short transfers show no line
    static constexpr std::uint64_t kRedrawEvery = 250;     // ms: at most four lines a second

    ProgressLine(ProgressSink& sink, Style style) : sink_(sink), style_(style) {}
    ~ProgressLine() { clear(); }
    ProgressLine(const ProgressLine&) = delete;
    ProgressLine& operator=(const ProgressLine&) = delete;

    // Begins a transfer of `total` bytes (0 when not known) at `now` (monotonic milliseconds).
    // A line still shown from the previous transfer is cleared.
    void start(std::uint64_t total, std::uint64_t now);
    // The total, when it becomes known after start (the size a far-side event carries).
    void setTotal(std::uint64_t total) { total_ = total; }
    // `done` bytes so far. `entry` is the entry being packed or unpacked now (pass it on every
    // call; empty for a single file); it is copied only when a line is drawn.
    void update(std::uint64_t done, std::uint64_t now, std::string_view entry = {});
    // Wipes the line if one is shown, leaving the cursor at the start of an empty line. The
    // next update draws it again (at the usual pace).
    void clear();
    // Clears the line and returns the summary (renderSummary) for the caller to show or leave
    // out, in every style and however short the transfer was.
    std::string finish(std::uint64_t done, std::uint64_t now);
    bool shown() const { return shownWidth_ > 0; }

private:
    struct Sample {
        std::uint64_t time = 0;
        std::uint64_t done = 0;
    };
    // The rate over the last few seconds (the oldest of the samples kept), so a stall or a
    // change of speed shows within seconds.
    static constexpr std::size_t kSamples = 16;
    double recentRate(std::uint64_t done, std::uint64_t now) const;
    void draw(std::uint64_t done, std::uint64_t now, std::string_view entry);

    ProgressSink& sink_;
    Style style_;
    bool started_ = false;
    std::uint64_t total_ = 0;
    std::uint64_t start_ = 0;
    std::uint64_t lastDraw_ = 0;
    bool drawnOnce_ = false;
    std::size_t shownWidth_ = 0;  // columns of the line on screen; 0 when none is
    std::array<Sample, kSamples> samples_{};
    std::size_t sampleCount_ = 0;
    std::size_t sampleNext_ = 0;
};

}  // namespace terminal
