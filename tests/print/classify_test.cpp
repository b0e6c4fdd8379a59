#include <gtest/gtest.h>

#include <string>
#include <tuple>
#include <vector>

#include "print/classify.h"

namespace {

using namespace std::string_literals;

PrintContent classify(std::string_view text) {
    return classifyBuffer(std::span(reinterpret_cast<const std::uint8_t*>(text.data()), text.size()));
}

TEST(Classify, BuffersByClass) {
    const std::vector<std::tuple<PrintContent, char, std::vector<std::string>>> cases = {
        {PrintContent::Text, 't',
         {"abc", "", "\x01", "line one\r\n\tline two\f\v",
          // A short buffer's last byte is left out of the ASCII test, and it alone decides.
          "ab\0"s,
          // UTF-8 with accents, 0x7F, backspace, and a sequence cut by the end.
          "caf\xC3\xA9 cr\xC3\xA8me br\xC3\xBBl\xC3\xA9" "e\n", "\xE2\x82\xAC 10 and \xF0\x9F\x98\x80!\n",
          "a\x7F" "bc\n", "\xC3\xA9\x08 ok\n", "\xC3\xA9\r\x0B\x0C\n", "\xC3\xA9 text \xE2\x82", "\xC3\xA9 text \xF0",
          // The text tests come before the signatures.
          "%PDF-1.4\n1 0 obj\n", "%", " %!PS"}},
        {PrintContent::Binary, 'b',
         {"caf\xE9 au lait\n", "abc\0def\n"s, "\xC3\xA9\x1B[0m\n", "\xC3\xA9\x07\n", "\xC3\xA9\x0E\n", "\xC3\xA9\x1F\n", "\x80 stray continuation\n",
          "\xF8\x88\x80\x80\x80\n", "\xC3\xA9 text \xE2" "A", "%PDF\x01\x02", "GIF88a\x01\x00\x01\x00\x00\xff"s}},
        {PrintContent::Eps, 'p', {"%!PS-Adobe-3.0 EPSF-3.0\n%%BoundingBox: 0 0 10 10\n", "%!PS-Adobe-3.0\t \r\nEPSF"}},
        // EPSF must be the whole second word, with at least 4 bytes left for it.
        {PrintContent::PostScript, 'p', {"%!PS-Adobe-3.0\n%%Pages: 1\n", "%!PS-Adobe-3.0 EPS", "%!"}},
        {PrintContent::Pdf, 'a', {"%PDF-1.7\n%\xE2\xE3\xCF\xD3\n1 0 obj\n"}},
        {PrintContent::Gif, 'b', {"GIF89a\x10\x00\x10\x00\x80\x00\x00"s, "GIF87a\x01\x00\x01\x00\x00\xff"s}},
    };
    for (const auto& [kind, letter, texts] : cases) {
        EXPECT_EQ(printTypeLetter(kind), letter) << static_cast<int>(kind);
        for (const auto& text : texts) EXPECT_EQ(classify(text), kind) << testing::PrintToString(text);
    }
}

TEST(Classify, TheAsciiTestLooksAtThe512ByteWindowOnly) {
    std::string data(1000, 'x');
    data[511] = '\x01';
    EXPECT_EQ(classify(data), PrintContent::Binary);
    data[511] = 'x';
    data[512] = '\x01';  // past the window: the ASCII test alone decides
    EXPECT_EQ(classify(data), PrintContent::Text);
    data[100] = '\xC3';
    data[101] = '\xA9';  // now the UTF-8 test decides, and it scans every byte it is given
    EXPECT_EQ(classify(data), PrintContent::Binary);
    // A 512-byte buffer is examined to its last byte, a shorter one is not.
    EXPECT_EQ(classify(std::string(511, 'y') + '\x01'), PrintContent::Binary);
    EXPECT_EQ(classify(std::string(510, 'y') + '\x01'), PrintContent::Text);
}

}  // namespace
