// The terminal display: number formats, names fitted to a width, the progress line's layout and
// pacing, the styles NO_COLOR and TERM=dumb select, and the hints.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "common/terminal_hints.h"
#include "common/terminal_progress.h"

namespace {

using namespace terminal;
constexpr std::uint64_t KiB = 1024, MiB = KiB * 1024, GiB = MiB * 1024;

TEST(TerminalFormat, SizesTimesAndNames) {
    const std::vector<std::pair<std::uint64_t, const char*>> sizes = {
        {999, "999 B"}, {1000, "0.98 KiB"}, {10234, "9.99 KiB"}, {10235, "10.0 KiB"}, {102349, "100 KiB"},
        {1404 * MiB, "1.37 GiB"}, {~0ull, "16777216 TiB"}};
    for (const auto& [bytes, text] : sizes) EXPECT_EQ(formatSize(bytes), text) << bytes;
    const std::vector<std::pair<std::uint64_t, const char*>> times = {
        {59949, "59.9 s"}, {59950, "1:00"}, {3599499, "59:59"}, {3599500, "1:00:00"}, {3723000, "1:02:03"}};
    for (const auto& [ms, text] : times) EXPECT_EQ(formatDuration(ms), text) << ms;
    EXPECT_EQ(renderSummary(GiB, 2300), "1.00 GiB in 2.3 s, 445 MiB/s");
    EXPECT_EQ(renderSummary(12, 0), "12 B in 0.0 s") << "no rate without time";

    EXPECT_EQ(printable("a\x1b]0;x\x07\r\nb \xC2\x9B" "2J \xE2\x80\xAE" "fdp \xFF\xC3 Grüße"), "a?]0;x???b ?2J ?fdp ?? Grüße");
    EXPECT_EQ(displayWidth("日本e\xCC\x81"), 5u) << "wide characters take two columns, combining marks none";
    EXPECT_EQ(shortenMiddle("abcdefghij", 7), "abc…hij");
    EXPECT_EQ(shortenMiddle("äöüäöüäöüä.txt", 9), "äöüä….txt");
    EXPECT_EQ(shortenMiddle("日本語のファイル", 7), "日…イル") << "never half of a wide character";
}

TEST(TerminalFormat, LineFitsEveryWidthDroppingFieldsInOrder) {
    ProgressState s{412 * MiB, GiB, 9200, 445.0 * MiB, "photos/2023/Überraschung/img_0001.jpg"};
    EXPECT_EQ(renderProgress(s, 80), "412 MiB / 1.00 GiB  40%  445 MiB/s  1.4 s left  9.2 s elapsed  photos/…0001.jpg");
    EXPECT_EQ(renderProgress(s, 61), "412 MiB / 1.00 GiB  40%  445 MiB/s  1.4 s left  photo…01.jpg");
    EXPECT_EQ(renderProgress(s, 40), "412 MiB / 1.00 GiB  40%  1.4 s left");
    EXPECT_EQ(renderProgress(s, 20), "412 MiB  40%");
    s.total = 0, s.entry = {};  // not known: no total, percentage or time left
    EXPECT_EQ(renderProgress(s, 80), "412 MiB  445 MiB/s  9.2 s elapsed");
    s.done = GiB - 1, s.total = GiB, s.bytesPerSecond = 0;
    EXPECT_EQ(renderProgress(s, 80), "1.00 GiB / 1.00 GiB  99%  9.2 s elapsed") << "100% only when done";
    s.entry = "日本/a\x1b[2Jb/very-long-directory-name/file.txt";
    for (std::size_t columns = 40; columns <= 200; ++columns) {
        const std::string line = renderProgress(s, columns);
        EXPECT_LT(displayWidth(line), columns) << line;
        EXPECT_EQ(line.find('\x1b'), std::string::npos) << line;
    }
}

struct Capture final : ProgressSink {
    std::string text;
    void write(std::string_view t) override { text += t; }
    unsigned columns() override { return 80; }
};

TEST(TerminalProgress, PacedClearedAndSummedUpInEachStyle) {
    Capture out;
    ProgressLine line(out, Style::Full);
    line.start(100 * MiB, 1000);
    line.update(10 * MiB, 1499);
    EXPECT_EQ(out.text, "") << "nothing before half a second";
    int draws = 0;
    for (std::uint64_t t = 1500; t <= 2500; ++t, out.text.clear()) {
        line.update(20 * MiB + (t - 1500) * 20 * KiB, t, "dir/a.txt");
        draws += !out.text.empty();
    }
    EXPECT_EQ(draws, 5) << "at most four lines a second after the first";
    line.clear();
    line.clear();
    EXPECT_EQ(out.text, "\r\x1b[K") << "cleared once";
    EXPECT_EQ(line.finish(100 * MiB, 3000), "100 MiB in 2.0 s, 50.0 MiB/s");

    Capture plain;
    ProgressLine noColor(plain, styleFor("1", "xterm"));
    noColor.start(0, 0);
    noColor.update(3 * MiB, 600, "long-name.bin");
    noColor.update(4 * MiB, 900);
    noColor.finish(4 * MiB, 1000);
    EXPECT_EQ(plain.text, "\r3.00 MiB  5.00 MiB/s  0.6 s elapsed  long-name.bin"
                          "\r4.00 MiB  4.44 MiB/s  0.9 s elapsed" + std::string(15, ' ') +  // over the rest
                          "\r" + std::string(35, ' ') + "\r") << "spaces, never an escape sequence";

    Capture dumb;
    ProgressLine summaryOnly(dumb, styleFor("1", "dumb"));
    summaryOnly.start(MiB, 0);
    summaryOnly.update(MiB / 2, 5000);
    EXPECT_EQ(summaryOnly.finish(MiB, 10000), "1.00 MiB in 10.0 s, 102 KiB/s");
    EXPECT_EQ(dumb.text, "") << "TERM=dumb draws nothing over itself";
}

TEST(TerminalHints, OneLineEachWithSafeNames) {
    const std::vector<std::pair<std::string, const char*>> hints = {
        {missingExtensionHint(":0", Extension::FileTransfer), "display \":0\" has no file-transfer extension"},
        {bareDirectoryTargetHint("new\x1b" "dir"), "use ./new?dir"},
        {lostConnectionHint({Direction::Receiving, "big.iso", "./big.iso", 412 * MiB, GiB}),
         "receiving \"big.iso\" (412 MiB of 1.00 GiB); \"./big.iso\" here is unchanged"},
        {sessionActionLine(SessionAction::Renamed, "/h/a\n", "/h/\x1b" "b", "failed: File exists"),
         "desktop renamed /h/a? -> /h/?b (failed: File exists)\n"},
    };
    for (const auto& [hint, expected] : hints) {
        EXPECT_NE(hint.find(expected), std::string::npos) << hint;
        EXPECT_EQ(hint.find('\n'), hint.size() - 1) << hint;
    }
}

}  // namespace
