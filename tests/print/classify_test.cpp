#include <gtest/gtest.h>

#include <sys/stat.h>

#include <string>

#include "print/classify.h"
#include "support/temp_dir.h"

namespace {

int classify(std::string_view text) {
    return classifyBuffer(std::span(reinterpret_cast<const std::uint8_t*>(text.data()), text.size()));
}

using namespace std::string_literals;

TEST(ClassifyPlainText, ShortFilesSkipTheirLastByteInTheAsciiTest) {
    EXPECT_EQ(classify("abc"), PrintContentText);
    EXPECT_EQ(classify(""), PrintContentText);
    EXPECT_EQ(classify("\x01"), PrintContentText);
    // Only "ab" is looked at by the ASCII test, and the UTF-8 test allows no NUL: the NUL at the
    // end slips through because the ASCII test already said text.
    EXPECT_EQ(classify("ab\0"s), PrintContentText);
    EXPECT_EQ(classify("line one\r\n\tline two\f\v"), PrintContentText);
}

TEST(ClassifyPlainText, Utf8WithAccentsIsText) {
    EXPECT_EQ(classify("caf\xC3\xA9 cr\xC3\xA8me br\xC3\xBBl\xC3\xA9" "e\n"), PrintContentText);
    EXPECT_EQ(classify("\xE2\x82\xAC 10 and \xF0\x9F\x98\x80!\n"), PrintContentText);
    // 0x7F fails the ASCII test but the UTF-8 table lets it pass.
    EXPECT_EQ(classify("a\x7F" "bc\n"), PrintContentText);
}

TEST(ClassifyPlainText, Utf8SequenceCutByTheEndIsJudgedOnWhatIsThere) {
    EXPECT_EQ(classify("\xC3\xA9 text \xE2\x82"), PrintContentText);
    EXPECT_EQ(classify("\xC3\xA9 text \xF0"), PrintContentText);
    EXPECT_EQ(classify("\xC3\xA9 text \xE2" "A"), PrintContentBinary);
}

TEST(ClassifyBinary, Latin1AccentFollowedByALetterIsBinary) {
    EXPECT_EQ(classify("caf\xE9 au lait\n"), PrintContentBinary);
    EXPECT_EQ(printTypeLetter(classify("caf\xE9 au lait\n")), 'b');
}

TEST(ClassifyBinary, ControlBytesOutsideTheTableAreBinary) {
    EXPECT_EQ(classify("abc\0def\n"s), PrintContentBinary);
    EXPECT_EQ(classify("\xC3\xA9\x1B[0m\n"), PrintContentBinary);   // escape
    EXPECT_EQ(classify("\xC3\xA9\x07\n"), PrintContentBinary);      // bell
    EXPECT_EQ(classify("\xC3\xA9\x08 ok\n"), PrintContentText);     // backspace is allowed
    EXPECT_EQ(classify("\x80 stray continuation\n"), PrintContentBinary);
    EXPECT_EQ(classify("\xF8\x88\x80\x80\x80\n"), PrintContentBinary);  // five-byte lead
}

TEST(ClassifyPostScript, EpsNeedsEpsfAsTheSecondWord) {
    EXPECT_EQ(classify("%!PS-Adobe-3.0 EPSF-3.0\n%%BoundingBox: 0 0 10 10\n"), PrintContentEps);
    EXPECT_EQ(classify("%!PS-Adobe-3.0\t \r\nEPSF"), PrintContentEps);
    EXPECT_EQ(classify("%!PS-Adobe-3.0\n%%Pages: 1\n"), PrintContentPostScript);
    EXPECT_EQ(classify("%!PS-Adobe-3.0 EPS"), PrintContentPostScript);  // fewer than 4 bytes left
    EXPECT_EQ(classify("%!"), PrintContentPostScript);
    EXPECT_EQ(classify("%"), PrintContentText);
    EXPECT_EQ(classify(" %!PS"), PrintContentText);
    for (int kind : {PrintContentPostScript, PrintContentEps}) EXPECT_EQ(printTypeLetter(kind), 'p');
}

TEST(ClassifySignatures, PdfWithBinaryBytesIsPdf) {
    EXPECT_EQ(classify("%PDF-1.7\n%\xE2\xE3\xCF\xD3\n1 0 obj\n"), PrintContentPdf);
    EXPECT_EQ(printTypeLetter(PrintContentPdf), 'a');
    // A PDF that is all text is text: the text tests come first.
    EXPECT_EQ(classify("%PDF-1.4\n1 0 obj\n"), PrintContentText);
    EXPECT_EQ(classify("%PDF\x01\x02"), PrintContentBinary);
}

TEST(ClassifySignatures, GifIsRecognisedButRefused) {
    EXPECT_EQ(classify("GIF89a\x10\x00\x10\x00\x80\x00\x00"s), PrintContentGif);
    EXPECT_EQ(classify("GIF87a\x01\x00\x01\x00\x00\xff"s), PrintContentGif);
    EXPECT_EQ(classify("GIF88a\x01\x00\x01\x00\x00\xff"s), PrintContentBinary);
    EXPECT_EQ(printTypeLetter(PrintContentGif), 'b');
    EXPECT_EQ(printTypeLetter(PrintContentBinary), 'b');
}

TEST(ClassifyWindow, TheAsciiTestLooksAtThe512ByteWindowOnly) {
    std::string data(1000, 'x');
    data[511] = '\x01';
    EXPECT_EQ(classify(data), PrintContentBinary);
    data[511] = 'x';
    data[512] = '\x01';  // past the window, but the UTF-8 test scans every byte it is given
    EXPECT_EQ(classify(data), PrintContentText) << "ASCII test alone decides";
    data[100] = '\xC3';
    data[101] = '\xA9';
    EXPECT_EQ(classify(data), PrintContentBinary) << "UTF-8 test sees the control byte at 512";

    std::string exact(512, 'y');
    exact[511] = '\x01';  // a 512-byte buffer is examined to its last byte
    EXPECT_EQ(classify(exact), PrintContentBinary);
    std::string shorter(511, 'y');
    shorter[510] = '\x01';  // a shorter one is not
    EXPECT_EQ(classify(shorter), PrintContentText);
}

class ClassifyFile : public ::testing::Test {
protected:
    testsupport::TempDir dir;
    std::string put(const char* name, std::string_view content) {
        testsupport::writeFile(dir / name, content);
        return (dir / name).string();
    }
};

TEST_F(ClassifyFile, LettersOfRegularFiles) {
    EXPECT_EQ(classifyPrintFile(put("a.txt", "abc")), 't');
    EXPECT_EQ(classifyPrintFile(put("e.eps", "%!PS-Adobe-3.0 EPSF-3.0\n")), 'p');
    EXPECT_EQ(classifyPrintFile(put("d.pdf", "%PDF-1.7\n\xFF\xFE\x00\x01"s)), 'a');
    EXPECT_EQ(classifyPrintFile(put("i.gif", "GIF89a\x00\x01"s)), 'b');
    EXPECT_EQ(classifyPrintFile(put("empty", "")), 't');
    // Only the first 512 bytes are read.
    std::string late(4096, 'z');
    late[600] = '\0';
    EXPECT_EQ(classifyPrintFile(put("late.txt", late)), 't');
}

TEST_F(ClassifyFile, AnythingButARegularFileIsBinaryWithoutBeingOpened) {
    EXPECT_EQ(classifyPrintFile((dir / "missing").string()), 'b');
    EXPECT_EQ(classifyPrintFile(dir.str()), 'b');
    // Opening a FIFO for reading would block until a writer comes: this must return at once.
    const std::string fifo = (dir / "fifo").string();
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
    EXPECT_EQ(classifyPrintFile(fifo), 'b');
}

}  // namespace
