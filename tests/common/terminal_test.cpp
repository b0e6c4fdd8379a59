// The terminal display: number formats, names fitted to a width, the progress line's layout and
// pacing, the summary, the styles NO_COLOR and TERM=dumb select, and the hints.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "common/terminal_hints.h"
#include "common/terminal_progress.h"

namespace {

using namespace terminal;
constexpr std::uint64_t KiB = 1024, MiB = KiB * 1024, GiB = MiB * 1024;

TEST(TerminalFormat, SizesRatesAndTimes) {
    const std::vector<std::pair<std::uint64_t, const char*>> sizes = {
        {0, "0 B"}, {999, "999 B"}, {1000, "0.98 KiB"}, {1024, "1.00 KiB"}, {10234, "9.99 KiB"},
        {10235, "10.0 KiB"}, {102348, "99.9 KiB"}, {102349, "100 KiB"}, {1000 * KiB, "0.98 MiB"}, {1023 * KiB, "1.00 MiB"},
        {GiB, "1.00 GiB"}, {1404 * MiB, "1.37 GiB"}, {5 * GiB * 1024, "5.00 TiB"},
        {~0ull, "16777216 TiB"}};
    for (const auto& [bytes, text] : sizes) EXPECT_EQ(formatSize(bytes), text) << bytes;
    EXPECT_EQ(formatRate(445.0 * MiB), "445 MiB/s");
    EXPECT_EQ(formatRate(0.4), "0 B/s");
    const std::vector<std::pair<std::uint64_t, const char*>> times = {
        {0, "0.0 s"}, {2349, "2.3 s"}, {59949, "59.9 s"}, {59950, "1:00"}, {65000, "1:05"},
        {3599499, "59:59"}, {3599500, "1:00:00"}, {3723000, "1:02:03"}, {360000000, "100:00:00"}};
    for (const auto& [ms, text] : times) EXPECT_EQ(formatDuration(ms), text) << ms;
    EXPECT_EQ(renderSummary(GiB, 2300), "1.00 GiB in 2.3 s, 445 MiB/s");
    EXPECT_EQ(renderSummary(12, 0), "12 B in 0.0 s") << "no rate without time";
}

TEST(TerminalFormat, NamesMadeSafeAndShortenedByColumns) {
    EXPECT_EQ(printable("a\x1b]0;x\x07\r\nb"), "a?]0;x???b");
    EXPECT_EQ(printable("\xC2\x9B" "2J \xE2\x80\xAE" "fdp.exe \xFF\xC3"), "?2J ?fdp.exe ??") << "C1, bidi, bad bytes";
    EXPECT_EQ(printable("Grüße/日本.txt"), "Grüße/日本.txt");
    EXPECT_EQ(displayWidth("Grüße"), 5u);
    EXPECT_EQ(displayWidth("日本"), 4u);
    EXPECT_EQ(displayWidth("e\xCC\x81"), 1u) << "a combining accent takes no column";

    struct Case { const char* name; std::size_t columns; const char* shortened; };
    const Case cases[] = {
        {"abcdefghij", 10, "abcdefghij"},
        {"abcdefghij", 7, "abc…hij"},
        {"abcdefghij", 1, "…"},
        {"äöüäöüäöüä.txt", 9, "äöüä….txt"},
        {"日本語のファイル", 7, "日…イル"},  // never half of a wide character
    };
    for (const Case& c : cases) {
        const std::string out = shortenMiddle(c.name, c.columns);
        EXPECT_EQ(out, c.shortened) << c.name << " in " << c.columns;
        EXPECT_LE(displayWidth(out), c.columns);
    }
}

TEST(TerminalFormat, LineFitsEveryWidthDroppingFieldsInOrder) {
    ProgressState s;
    s.done = 412 * MiB;
    s.total = GiB;
    s.elapsedMilliseconds = 9200;
    s.bytesPerSecond = 445.0 * MiB;
    s.entry = "photos/2023/Überraschung/img_0001.jpg";
    EXPECT_EQ(renderProgress(s, 200),
              "412 MiB / 1.00 GiB  40%  445 MiB/s  1.4 s left  9.2 s elapsed  photos/2023/Überraschung/img_0001.jpg");
    EXPECT_EQ(renderProgress(s, 80), "412 MiB / 1.00 GiB  40%  445 MiB/s  1.4 s left  9.2 s elapsed  photos/…0001.jpg");
    EXPECT_EQ(renderProgress(s, 61), "412 MiB / 1.00 GiB  40%  445 MiB/s  1.4 s left  photo…01.jpg");
    EXPECT_EQ(renderProgress(s, 40), "412 MiB / 1.00 GiB  40%  1.4 s left");
    EXPECT_EQ(renderProgress(s, 20), "412 MiB  40%");

    s.total = 0;  // not known: no total, percentage or time left
    s.entry = {};
    EXPECT_EQ(renderProgress(s, 80), "412 MiB  445 MiB/s  9.2 s elapsed");
    s.total = 400 * MiB;  // more arrived than announced
    EXPECT_EQ(renderProgress(s, 80), "412 MiB / 400 MiB  100%  445 MiB/s  9.2 s elapsed");
    s.done = GiB - 1, s.total = GiB, s.bytesPerSecond = 0;
    EXPECT_EQ(renderProgress(s, 80), "1.00 GiB / 1.00 GiB  99%  9.2 s elapsed") << "100% only when done";

    for (std::size_t columns = 40; columns <= 200; ++columns) {
        s.entry = "日本/a\x1b[2Jb/very-long-directory-name/file.txt";
        const std::string line = renderProgress(s, columns);
        EXPECT_LT(displayWidth(line), columns) << line;
        EXPECT_EQ(line.find('\x1b'), std::string::npos) << line;
    }
}

struct Capture final : ProgressSink {
    std::string text;
    unsigned width = 80;
    void write(std::string_view t) override { text += t; }
    unsigned columns() override { return width; }
};

TEST(TerminalProgress, PacedClearedAndSummedUp) {
    Capture out;
    ProgressLine line(out, Style::Full);
    line.start(100 * MiB, 1000);
    line.update(10 * MiB, 1499);
    EXPECT_EQ(out.text, "") << "nothing before half a second";
    line.update(20 * MiB, 1500);
    EXPECT_EQ(out.text, "\r20.0 MiB / 100 MiB  20%  40.0 MiB/s  2.0 s left  0.5 s elapsed\x1b[K");
    out.text.clear();
    int draws = 0;
    for (std::uint64_t t = 1501; t <= 2500; ++t) {
        line.update(20 * MiB + (t - 1500) * 20 * KiB, t, "dir/a.txt");
        draws += !out.text.empty();
        out.text.clear();
    }
    EXPECT_EQ(draws, 4) << "at most four lines a second";
    line.clear();
    EXPECT_EQ(out.text, "\r\x1b[K");
    line.clear();
    EXPECT_EQ(out.text, "\r\x1b[K") << "clearing twice writes nothing more";
    line.finish(100 * MiB, 3000);
    EXPECT_EQ(out.text, "\r\x1b[K100 MiB in 2.0 s, 50.0 MiB/s\n");

    out.text.clear();
    line.start(0, 0);
    line.finish(12, 100);
    EXPECT_EQ(out.text, "12 B in 0.1 s, 120 B/s\n") << "a short transfer: only the summary";
}

TEST(TerminalProgress, NoColorAndDumbTerminals) {
    EXPECT_EQ(styleFor(nullptr, "xterm-256color"), Style::Full);
    EXPECT_EQ(styleFor("", "xterm"), Style::Full) << "an empty NO_COLOR does not count";
    EXPECT_EQ(styleFor("1", "xterm"), Style::Plain);
    EXPECT_EQ(styleFor("1", "dumb"), Style::SummaryOnly);

    Capture plain;
    ProgressLine line(plain, Style::Plain);
    line.start(0, 0);
    line.update(3 * MiB, 600, "long-name.bin");
    line.update(4 * MiB, 900);
    line.finish(4 * MiB, 1000);
    EXPECT_EQ(plain.text.find('\x1b'), std::string::npos) << "no escape sequence under NO_COLOR";
    EXPECT_EQ(plain.text, "\r3.00 MiB  5.00 MiB/s  0.6 s elapsed  long-name.bin"
                          "\r4.00 MiB  4.44 MiB/s  0.9 s elapsed" + std::string(15, ' ') +  // over the rest
                          "\r" + std::string(35, ' ') + "\r4.00 MiB in 1.0 s, 4.00 MiB/s\n");

    Capture dumb;
    ProgressLine quiet(dumb, Style::SummaryOnly);
    quiet.start(MiB, 0);
    quiet.update(MiB / 2, 5000);
    quiet.clear();
    quiet.finish(MiB, 10000);
    EXPECT_EQ(dumb.text, "1.00 MiB in 10.0 s, 102 KiB/s\n");
}

TEST(TerminalHints, OneLineEachWithSafeNames) {
    const std::vector<std::pair<std::string, const char*>> hints = {
        {displayUnsetHint(), "-display"},
        {missingExtensionHint(":0", Extension::FileTransfer), "display \":0\" has no file-transfer extension; is this the proxy's display?"},
        {missingExtensionHint("", Extension::Print), "no print extension"},
        {bareDirectoryTargetHint("newdir"), "use ./newdir"},
        {lostConnectionHint({Direction::Receiving, "big.iso", "./big.iso", 412 * MiB, GiB}),
         "receiving \"big.iso\" (412 MiB of 1.00 GiB); \"./big.iso\" here is unchanged"},
        {lostConnectionHint({Direction::Sending, "dir", {}, 5 * KiB, 0}), "sending \"dir\" (5.00 KiB); nothing here changed"},
        {lostConnectionHint({Direction::Printing, "a.pdf", {}, 1, 2}), "for printing"},
        {lostConnectionHint({}), "no transfer was under way"},
        {sessionActionLine(SessionAction::Deleted, "/home/u/old\n.txt"), "desktop deleted /home/u/old?.txt\n"},
        {sessionActionLine(SessionAction::Renamed, "/h/a", "/h/\x1b" "b"), "desktop renamed /h/a -> /h/?b\n"},
    };
    for (const auto& [hint, expected] : hints) {
        EXPECT_NE(hint.find(expected), std::string::npos) << hint;
        EXPECT_EQ(hint.find('\n'), hint.size() - 1) << hint;
    }
}

}  // namespace
