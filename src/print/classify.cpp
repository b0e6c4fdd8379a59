#include "print/classify.h"

#include <algorithm>
#include <array>
#include <string_view>

#include "platform/platform.h"

namespace {

// Control bytes below 0x80 that rule out UTF-8 text: 0x00-0x07 and 0x0E-0x1F (escape too).
// Backspace, tab, line feed, vertical tab, form feed, carriage return and 0x7F are allowed.
constexpr std::array<bool, 0x80> kControlFails = [] {
    std::array<bool, 0x80> table{};
    for (int c = 0x00; c <= 0x07; ++c) table[static_cast<std::size_t>(c)] = true;
    for (int c = 0x0E; c <= 0x1F; ++c) table[static_cast<std::size_t>(c)] = true;
    return table;
}();

// The longest run the UTF-8 test scans.
constexpr std::size_t kUtf8ScanLimit = 2147483643;

bool isPrintable(std::uint8_t c) { return c >= 0x20 && c <= 0x7E; }
bool isControlSpace(std::uint8_t c) { return c >= 0x09 && c <= 0x0D; }
bool isSpace(std::uint8_t c) { return c == 0x20 || isControlSpace(c); }

bool startsWith(std::span<const std::uint8_t> data, std::string_view prefix) {
    return data.size() >= prefix.size() && std::equal(prefix.begin(), prefix.end(), data.begin(),
                                                       [](char a, std::uint8_t b) { return static_cast<std::uint8_t>(a) == b; });
}

// Printable ASCII and control white space only. A buffer shorter than the window is examined
// without its last byte.
bool looksAscii(std::span<const std::uint8_t> data) {
    const std::size_t n = data.size();
    const std::size_t k = n >= kClassifyWindow ? kClassifyWindow : (n == 0 ? 0 : n - 1);
    return std::all_of(data.begin(), data.begin() + static_cast<std::ptrdiff_t>(k),
                       [](std::uint8_t c) { return isPrintable(c) || isControlSpace(c); });
}

// Well-formed lead and continuation bytes, no disallowed control bytes. A sequence cut off by the
// end of the buffer is judged on the bytes that are there.
bool looksUtf8(std::span<const std::uint8_t> data) {
    const std::size_t n = std::min(data.size(), kUtf8ScanLimit);
    std::size_t i = 0;
    while (i < n) {
        const std::uint8_t c = data[i];
        if (c < 0x80) {
            if (kControlFails[c]) return false;
            ++i;
            continue;
        }
        std::size_t expected = 0;
        if ((c & 0xE0) == 0xC0) expected = 1;
        else if ((c & 0xF0) == 0xE0) expected = 2;
        else if ((c & 0xF8) == 0xF0) expected = 3;
        else return false;
        expected = std::min(expected, n - 1 - i);
        for (std::size_t j = 1; j <= expected; ++j)
            if ((data[i + j] & 0xC0) != 0x80) return false;
        i += expected + 1;
    }
    return true;
}

// Text that begins with "%!" is PostScript; "EPSF" as its second word makes it EPS.
PrintContent textKind(std::span<const std::uint8_t> data) {
    if (!startsWith(data, "%!")) return PrintContent::Text;
    std::size_t i = 0;
    while (i < data.size() && !isSpace(data[i])) ++i;
    while (i < data.size() && isSpace(data[i])) ++i;
    if (data.size() - i < 4) return PrintContent::PostScript;
    return startsWith(data.subspan(i), "EPSF") ? PrintContent::Eps : PrintContent::PostScript;
}

}  // namespace

PrintContent classifyBuffer(std::span<const std::uint8_t> data) {
    if (looksAscii(data) || looksUtf8(data)) return textKind(data);
    if (startsWith(data, "%PDF-")) return PrintContent::Pdf;
    if (startsWith(data, "GIF87a") || startsWith(data, "GIF89a")) return PrintContent::Gif;
    return PrintContent::Binary;
}

char printTypeLetter(PrintContent content) {
    switch (content) {
        case PrintContent::Text: return 't';
        case PrintContent::PostScript:
        case PrintContent::Eps: return 'p';
        case PrintContent::Pdf: return 'a';
        default: return 'b';
    }
}

char classifyPrintFile(const std::string& path) {
    // Opening a FIFO would block and a device may act on being opened: regular files only.
    platform::Status st;
    if (!platform::status(path, st) || st.kind != platform::Kind::Regular) return 'b';
    platform::File file;
    if (!file.open(path, platform::OpenMode::ReadRegular)) return 'b';
    std::array<std::uint8_t, kClassifyWindow> window{};
    std::size_t got = 0;
    while (got < window.size()) {
        const std::int64_t n = file.read(std::span(window).subspan(got));
        if (n <= 0) break;
        got += static_cast<std::size_t>(n);
    }
    file.close();
    return printTypeLetter(classifyBuffer(std::span<const std::uint8_t>(window.data(), got)));
}
