// The terminal display of one run on standard error: the progress line of the transfer under
// way, its summary line, and the lines shown beside the program's own output (hints, what the
// desktop did). A display shows nothing until it is enabled, which the driver does only when
// standard error is a terminal and the run is not quiet (terminal::wanted). None of it goes
// through the log, so none of it reaches the log file; every line the log writes to standard
// error clears the progress line first.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

namespace terminal {

class ProgressLine;

// Standard error is a terminal and the verbosity is not 0 (-q): the extra lines are wanted.
bool wanted();
// Writes `line` (with its newline) to standard error when wanted(), for the hints shown before a
// run has a display of its own.
void hint(std::string_view line);

class Display {
public:
    Display();  // disabled
    ~Display();
    Display(const Display&) = delete;
    Display& operator=(const Display&) = delete;

    // Shows from now on, in the style NO_COLOR and TERM ask for. The display enabled last is the
    // one whose line the log clears.
    void enable();
    bool enabled() const { return line_ != nullptr; }
    // Shows nothing more (a line still drawn is cleared).
    void disable();

    // A transfer of `total` bytes (0: not known) begins now; one still running is dropped.
    void start(std::uint64_t total);
    // The total once it is known (0 changes nothing).
    void setTotal(std::uint64_t total);
    // The entry being packed or unpacked, shown beside the figures.
    void setEntry(std::string_view entry);
    // `bytes` more moved.
    void add(std::uint64_t bytes);
    // Ends the transfer: the line is cleared and the summary returned ("1.00 GiB in 2.3 s, 445
    // MiB/s", no newline); empty when no transfer was running.
    std::string end();
    // Ends the transfer and shows its summary line.
    void finish();
    // Ends the transfer without a summary.
    void drop() { end(); }
    // Shows a whole line (with its newline) below the progress line's place.
    void show(std::string_view line);

    bool running() const { return running_; }
    std::uint64_t done() const { return done_; }
    std::uint64_t total() const { return total_; }

    // Clears the progress line of the display enabled last, when one is drawn.
    static void clearShown();

private:
    class Sink;
    std::unique_ptr<Sink> sink_;
    std::unique_ptr<ProgressLine> line_;
    bool running_ = false;
    std::uint64_t done_ = 0;
    std::uint64_t total_ = 0;
    std::string entry_;
};

}  // namespace terminal
