#include "common/terminal_progress.h"

#include <algorithm>
#include <cstdio>
#include <vector>

namespace terminal {

namespace {

// One UTF-8 sequence at the front of `text`: its code point, or -1 for a byte that does not
// start a valid sequence (overlong forms, surrogates and values past U+10FFFF included).
struct CodePoint {
    std::int32_t value = -1;
    std::size_t length = 1;
};

CodePoint decode(std::string_view text) {
    const auto byte = [&](std::size_t i) { return static_cast<std::uint8_t>(text[i]); };
    const std::uint8_t first = byte(0);
    if (first < 0x80) return {first, 1};
    std::size_t length = 0;
    std::int32_t value = 0;
    std::int32_t least = 0;
    if ((first & 0xE0) == 0xC0) {
        length = 2, value = first & 0x1F, least = 0x80;
    } else if ((first & 0xF0) == 0xE0) {
        length = 3, value = first & 0x0F, least = 0x800;
    } else if ((first & 0xF8) == 0xF0) {
        length = 4, value = first & 0x07, least = 0x10000;
    } else {
        return {};
    }
    if (text.size() < length) return {};
    for (std::size_t i = 1; i < length; ++i) {
        if ((byte(i) & 0xC0) != 0x80) return {};
        value = (value << 6) | (byte(i) & 0x3F);
    }
    if (value < least || value > 0x10FFFF || (value >= 0xD800 && value <= 0xDFFF)) return {};
    return {value, length};
}

bool between(std::int32_t c, std::int32_t low, std::int32_t high) { return c >= low && c <= high; }

std::size_t columnsOf(std::int32_t c) {
    if (c < 0) return 1;
    if (between(c, 0x0300, 0x036F) || between(c, 0x1AB0, 0x1AFF) || between(c, 0x1DC0, 0x1DFF) ||
        between(c, 0x200B, 0x200F) || between(c, 0x20D0, 0x20FF) || between(c, 0xFE00, 0xFE0F) ||
        between(c, 0xFE20, 0xFE2F))
        return 0;
    if (between(c, 0x1100, 0x115F) || between(c, 0x2E80, 0x303E) || between(c, 0x3041, 0x33FF) ||
        between(c, 0x3400, 0x4DBF) || between(c, 0x4E00, 0x9FFF) || between(c, 0xA000, 0xA4CF) ||
        between(c, 0xAC00, 0xD7A3) || between(c, 0xF900, 0xFAFF) || between(c, 0xFE30, 0xFE4F) ||
        between(c, 0xFF00, 0xFF60) || between(c, 0xFFE0, 0xFFE6) || between(c, 0x1F300, 0x1F64F) ||
        between(c, 0x1F900, 0x1F9FF) || between(c, 0x20000, 0x2FFFD) || between(c, 0x30000, 0x3FFFD))
        return 2;
    return 1;
}

bool steersTerminal(std::int32_t c) {
    return c < 0x20 || between(c, 0x7F, 0x9F) || between(c, 0x202A, 0x202E) || between(c, 0x2066, 0x2069);
}

struct Unit {
    std::size_t begin;
    std::size_t length;
    std::size_t columns;
};

std::vector<Unit> units(std::string_view text) {
    std::vector<Unit> out;
    for (std::size_t at = 0; at < text.size();) {
        const CodePoint c = decode(text.substr(at));
        out.push_back({at, c.length, columnsOf(c.value)});
        at += c.length;
    }
    return out;
}

constexpr std::string_view kEllipsis = "\xE2\x80\xA6";  // "…", one column
constexpr std::size_t kShortestEntry = 12;

std::string withPrecision(double value, int decimals, const char* unit) {
    char text[48];
    std::snprintf(text, sizeof text, "%.*f %s", decimals, value, unit);
    return text;
}

std::string sizeText(double value) {
    static constexpr const char* kUnits[] = {"B", "KiB", "MiB", "GiB", "TiB"};
    if (!(value > 0)) value = 0;  // also NaN
    std::size_t unit = 0;
    while (unit + 1 < std::size(kUnits) && value >= 999.5) {
        value /= 1024;
        ++unit;
    }
    if (unit == 0) return withPrecision(value, 0, kUnits[0]);
    const int decimals = value < 9.995 ? 2 : value < 99.95 ? 1 : 0;
    return withPrecision(value, decimals, kUnits[unit]);
}

}  // namespace

std::string printable(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    for (std::size_t at = 0; at < text.size();) {
        const CodePoint c = decode(text.substr(at));
        if (c.value < 0 || steersTerminal(c.value)) {
            out += '?';
        } else {
            out += text.substr(at, c.length);
        }
        at += c.length;
    }
    return out;
}

std::size_t displayWidth(std::string_view text) {
    std::size_t width = 0;
    for (const Unit& u : units(text)) width += u.columns;
    return width;
}

std::string shortenMiddle(std::string_view text, std::size_t columns) {
    const std::vector<Unit> all = units(text);
    std::size_t width = 0;
    for (const Unit& u : all) width += u.columns;
    if (width <= columns) return std::string(text);
    if (columns == 0) return {};
    const std::size_t room = columns - 1;  // the ellipsis takes one
    std::size_t head = 0, headColumns = 0;
    while (head < all.size() && headColumns + all[head].columns <= room / 2) headColumns += all[head++].columns;
    std::size_t tail = all.size(), tailColumns = 0;
    while (tail > head && tailColumns + all[tail - 1].columns <= room - headColumns) tailColumns += all[--tail].columns;
    std::string out(text.substr(0, head < all.size() ? all[head].begin : text.size()));
    out += kEllipsis;
    if (tail < all.size()) out += text.substr(all[tail].begin);
    return out;
}

std::string formatSize(std::uint64_t bytes) { return sizeText(static_cast<double>(bytes)); }

std::string formatRate(double bytesPerSecond) { return sizeText(bytesPerSecond) + "/s"; }

std::string formatDuration(std::uint64_t milliseconds) {
    char text[48];
    const unsigned long long tenths = (milliseconds + 50) / 100;
    if (tenths < 600) {
        std::snprintf(text, sizeof text, "%llu.%llu s", tenths / 10, tenths % 10);
        return text;
    }
    const unsigned long long seconds = (milliseconds + 500) / 1000;
    if (seconds < 3600) {
        std::snprintf(text, sizeof text, "%llu:%02llu", seconds / 60, seconds % 60);
    } else {
        std::snprintf(text, sizeof text, "%llu:%02llu:%02llu", seconds / 3600, seconds / 60 % 60, seconds % 60);
    }
    return text;
}

Style styleFor(const char* noColor, const char* term) {
    if (term != nullptr && std::string_view(term) == "dumb") return Style::SummaryOnly;
    if (noColor != nullptr && noColor[0] != '\0') return Style::Plain;
    return Style::Full;
}

std::string renderProgress(const ProgressState& state, std::size_t columns) {
    if (columns == 0) columns = 80;
    const std::size_t limit = columns - 1;
    const bool totalKnown = state.total > 0;
    const bool rateKnown = state.bytesPerSecond > 0;

    const std::string done = formatSize(state.done);
    std::string total, percent, rate, left;
    if (totalKnown) {
        total = " / " + formatSize(state.total);
        unsigned whole = 100;
        if (state.done < state.total) {
            whole = static_cast<unsigned>(100.0L * state.done / state.total);
            whole = std::min(whole, 99u);  // where long double is double, the division may round up
        }
        percent = std::to_string(whole) + "%";
    }
    if (rateKnown) rate = formatRate(state.bytesPerSecond);
    if (totalKnown && rateKnown && state.done < state.total) {
        const double seconds = static_cast<double>(state.total - state.done) / state.bytesPerSecond;
        if (seconds < 100.0 * 3600) left = formatDuration(static_cast<std::uint64_t>(seconds * 1000)) + " left";
    }
    const std::string elapsed = formatDuration(state.elapsedMilliseconds) + " elapsed";
    const std::string entry = printable(state.entry);
    const std::size_t entryWidth = displayWidth(entry);

    // What is still shown; given up one by one in this order until the line fits.
    bool withElapsed = true, withEntry = entryWidth > 0, withRate = rateKnown, withTotal = totalKnown,
         withLeft = !left.empty();
    bool* const dropOrder[] = {&withElapsed, &withEntry, &withRate, &withTotal, &withLeft};
    std::string line;
    for (std::size_t dropped = 0;; ++dropped) {
        line = done;
        if (withTotal) line += total;
        if (totalKnown) line += "  " + percent;
        if (withRate) line += "  " + rate;
        if (withLeft) line += "  " + left;
        if (withElapsed) line += "  " + elapsed;
        const std::size_t width = displayWidth(line);
        if (!withEntry && width <= limit) return line;
        if (withEntry && width + 2 < limit && limit - width - 2 >= std::min(entryWidth, kShortestEntry)) {
            return line + "  " + shortenMiddle(entry, limit - width - 2);
        }
        if (dropped == std::size(dropOrder)) return shortenMiddle(line, limit);
        *dropOrder[dropped] = false;
    }
}

std::string renderSummary(std::uint64_t done, std::uint64_t elapsedMilliseconds) {
    std::string line = formatSize(done) + " in " + formatDuration(elapsedMilliseconds);
    if (elapsedMilliseconds > 0) {
        line += ", " + formatRate(static_cast<double>(done) * 1000.0 / static_cast<double>(elapsedMilliseconds));
    }
    return line;
}

void ProgressLine::start(std::uint64_t total, std::uint64_t now) {
    clear();
    started_ = true;
    total_ = total;
    start_ = now;
    lastDraw_ = now;
    drawnOnce_ = false;
    samples_[0] = {now, 0};
    sampleCount_ = 1;
    sampleNext_ = 1;
}

void ProgressLine::update(std::uint64_t done, std::uint64_t now, std::string_view entry) {
    if (!started_ || style_ == Style::SummaryOnly) return;
    const std::uint64_t since = drawnOnce_ ? lastDraw_ : start_;
    const std::uint64_t wait = drawnOnce_ ? kRedrawEvery : kFirstDrawAfter;
    if (now < since || now - since < wait) return;
    draw(done, now, entry);
}

double ProgressLine::recentRate(std::uint64_t done, std::uint64_t now) const {
    const Sample& oldest = sampleCount_ < kSamples ? samples_[0] : samples_[sampleNext_];
    if (now <= oldest.time || done < oldest.done) return 0;
    return static_cast<double>(done - oldest.done) * 1000.0 / static_cast<double>(now - oldest.time);
}

void ProgressLine::draw(std::uint64_t done, std::uint64_t now, std::string_view entry) {
    ProgressState state;
    state.done = done;
    state.total = total_;
    state.elapsedMilliseconds = now - start_;
    state.bytesPerSecond = recentRate(done, now);
    state.entry = entry;
    const std::string line = renderProgress(state, sink_.columns());
    const std::size_t width = displayWidth(line);
    std::string out = "\r" + line;
    if (style_ == Style::Full) {
        out += "\x1b[K";
    } else if (shownWidth_ > width) {
        out.append(shownWidth_ - width, ' ');
    }
    sink_.write(out);
    shownWidth_ = std::max<std::size_t>(width, 1);

    samples_[sampleNext_] = {now, done};
    sampleNext_ = (sampleNext_ + 1) % kSamples;
    sampleCount_ = std::min(sampleCount_ + 1, kSamples);
    lastDraw_ = now;
    drawnOnce_ = true;
}

void ProgressLine::clear() {
    if (shownWidth_ == 0) return;
    if (style_ == Style::Full) {
        sink_.write("\r\x1b[K");
    } else {
        sink_.write("\r" + std::string(shownWidth_, ' ') + "\r");
    }
    shownWidth_ = 0;
}

std::string ProgressLine::finish(std::uint64_t done, std::uint64_t now) {
    clear();
    const bool timed = started_ && now > start_;
    started_ = false;
    return renderSummary(done, timed ? now - start_ : 0);
}

}  // namespace terminal
