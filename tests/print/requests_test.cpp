#include <gtest/gtest.h>

#include <cstdlib>
#include <numeric>
#include <string>
#include <vector>

#include "app/state.h"
#include "print/print_loop.h"
#include "print/requests.h"

namespace {

using Bytes = std::vector<std::uint8_t>;

Bytes bytesOf(std::string_view text) { return Bytes(text.begin(), text.end()); }

TEST(PrintRequestEncoding, BeginPadsOnceAfterNameAndData) {
    // A 5-byte name and no data: 3 bytes of padding, 5 units in all.
    const Bytes empty = encodeFileBeginRequest(0x91, "a.txt", {}, false);
    const Bytes expected = {0x91, 1, 5, 0, 0, 0, 5, 0, 0, 0, 0, 0, 'a', '.', 't', 'x', 't', 0, 0, 0};
    EXPECT_EQ(empty, expected);

    // Name 2 + data 1: one pad byte after the data, none between name and data.
    const Bytes x = bytesOf("x");
    const Bytes small = encodeFileBeginRequest(0x91, "ab", x, true);
    const Bytes expectedSmall = {0x91, 1, 4, 0, 1, 0, 2, 0, 1, 0, 0, 0, 'a', 'b', 'x', 0};
    EXPECT_EQ(small, expectedSmall);

    EXPECT_EQ(printRequestPadding(4, 0), 0u);
    EXPECT_EQ(printRequestPadding(3, 2), 3u);
    EXPECT_EQ(printRequestPadding(0, 60000), 0u);
}

TEST(PrintRequestEncoding, FixedPartsFieldByField) {
    const auto begin = encodeFileBeginFixed(7, true, 0x0102, 0x0A0B0C0D);
    // Length: (12 + 0x102 + 0x0A0B0C0D + 1 pad) / 4 = 0x282C347, cut to 16 bits.
    const PrintRequestFixed expectedBegin = {7, 1, 0x47, 0xC3, 1, 0, 0x02, 0x01, 0x0D, 0x0C, 0x0B, 0x0A};
    EXPECT_EQ(begin, expectedBegin);

    const auto cont = encodeFileContinueFixed(7, false, 60000);
    const PrintRequestFixed expectedCont = {7, 2, 0x9B, 0x3A, 0, 0, 0, 0, 0x60, 0xEA, 0, 0};  // 15003 units
    EXPECT_EQ(cont, expectedCont);
}

TEST(PrintRequestEncoding, ContinueCarriesDataAndItsPadding) {
    Bytes data(5);
    std::iota(data.begin(), data.end(), std::uint8_t{1});
    const Bytes request = encodeFileContinueRequest(0x80, data, true);
    const Bytes expected = {0x80, 2, 5, 0, 1, 0, 0, 0, 5, 0, 0, 0, 1, 2, 3, 4, 5, 0, 0, 0};
    EXPECT_EQ(request, expected);
    EXPECT_EQ(encodeFileContinueRequest(0x80, {}, false), (Bytes{0x80, 2, 3, 0, 0, 0, 0, 0, 0, 0, 0, 0}));
}

TEST(PrintReplyDecoding, CodeSequenceAndReason) {
    const Bytes wire = encodePrintReply(1, 0x1234, "paper jam");
    ASSERT_EQ(wire.size(), 32u + 12u);
    PrintReply reply;
    ASSERT_TRUE(decodePrintReply(wire, reply));
    EXPECT_EQ(reply.code, 1);
    EXPECT_EQ(reply.sequence, 0x1234);
    EXPECT_EQ(reply.following, 3u);
    EXPECT_TRUE(reply.hasReason);
    EXPECT_EQ(reply.reason, "paper jam");

    ASSERT_TRUE(decodePrintReply(encodePrintReply(0, 9, ""), reply));
    EXPECT_EQ(reply.code, 0);
    EXPECT_FALSE(reply.hasReason);
}

TEST(PrintReplyDecoding, ReasonLengthNeverReachesPastTheReply) {
    Bytes wire = encodePrintReply(3, 1, "abcd");
    wire[8] = 0xFF;  // reason length 255, but the reply holds 4 bytes after its header
    PrintReply reply;
    ASSERT_TRUE(decodePrintReply(wire, reply));
    EXPECT_EQ(reply.reason, "abcd");

    wire[8] = 0xFF, wire[9] = 0xFF, wire[10] = 0xFF, wire[11] = 0xFF;  // -1
    ASSERT_TRUE(decodePrintReply(wire, reply));
    EXPECT_TRUE(reply.hasReason);
    EXPECT_EQ(reply.reason, "");

    // A reason length without any body: no reason at all.
    Bytes bare = encodePrintReply(2, 1, "");
    bare[8] = 40;
    ASSERT_TRUE(decodePrintReply(bare, reply));
    EXPECT_FALSE(reply.hasReason);
    EXPECT_EQ(reply.code, 2);

    EXPECT_FALSE(decodePrintReply(std::span(bare).first(31), reply));
}

class PrintMessages : public ::testing::Test {
protected:
    void SetUp() override {
        saved_ = Verbosity;
        Verbosity = 4;
    }
    void TearDown() override { Verbosity = saved_; }
    std::int32_t saved_ = 0;
};

TEST_F(PrintMessages, XErrorNamesCoreCodes) {
    xcb_generic_error_t error{};
    error.response_type = 0;
    error.error_code = 2;
    error.sequence = 7;
    error.resource_id = 0x00400001;
    error.minor_code = 1;
    error.major_code = 130;
    testing::internal::CaptureStderr();
    EXPECT_EQ(printXError(error), 1);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "X Protocol error Number: 2(Value)\n\tSequence: 7\n\tMajor, Minor: 130,1\n\tResource ID: 4194305\n");

    error.error_code = 17;
    testing::internal::CaptureStderr();
    printXError(error);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "X Protocol error Number: 17(Implementation)\n\tSequence: 7\n\tMajor, Minor: 130,1\n\tResource ID: 4194305\n");

    error.error_code = 18;
    testing::internal::CaptureStderr();
    printXError(error);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "X Protocol error Number: 18\n\tSequence: 7\n\tMajor, Minor: 130,1\n\tResource ID: 4194305\n");
}

TEST_F(PrintMessages, FailuresWithoutAServer) {
    // Nothing listens on this display: libxcb returns a connection in its error state.
    xcb_connection_t* connection = xcb_connect("unix:/nonexistent/varoft-print-test", nullptr);
    ASSERT_NE(connection, nullptr);
    ASSERT_NE(xcb_connection_has_error(connection), 0);
    std::uint32_t more = 1;
    const Bytes data = bytesOf("hello");
    Verbosity = 2;
    testing::internal::CaptureStderr();
    EXPECT_EQ(sendFileBegin(connection, "a.txt", data, 1, more), 0);
    EXPECT_EQ(sendFileContinue(connection, data, 0, more), 0);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "Error receiving File Begin reply\nError receiving File Continue reply\n");
    EXPECT_EQ(more, 1u);

    // The sender's own failures come before any request.
    Verbosity = 3;
    testing::internal::CaptureStderr();
    EXPECT_EQ(sendPrintFile(connection, "docs/", more, nullptr, nullptr), 0);
    EXPECT_EQ(sendPrintFile(connection, "/nonexistent/dir/a.txt", more, nullptr, nullptr), 0);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "Using filename: a.txt\nfopened /nonexistent/dir/a.txt\nCould not open file: \"a.txt\"\n");
    xcb_disconnect(connection);
}

TEST(PrintNames, BaseNameAfterTheLastSlash) {
    EXPECT_EQ(remotePrintName("/home/u/docs/report.pdf"), "report.pdf");
    EXPECT_EQ(remotePrintName("report.pdf"), "report.pdf");
    EXPECT_EQ(remotePrintName("dir\\name.txt"), "dir\\name.txt");
    EXPECT_EQ(remotePrintName("docs/"), "");
}

TEST(PrintNames, StandardInputName) {
    EXPECT_EQ(standardInputPrintName(nullptr, nullptr, 4321, 1700000000), "stdin43211700000000");
    EXPECT_EQ(standardInputPrintName(".txt", nullptr, 1, 2), "stdin12.txt");
    EXPECT_EQ(standardInputPrintName(".ps", "job", 1, 2), "job.ps");
    EXPECT_EQ(standardInputPrintName(nullptr, "job", 1, 2), "job");
}

}  // namespace
