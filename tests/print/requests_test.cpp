#include <gtest/gtest.h>

#include <tuple>
#include <utility>
#include <string>
#include <vector>

#include "common/log.h"
#include "print/print_loop.h"
#include "print/requests.h"

namespace {

using Bytes = std::vector<std::uint8_t>;

Bytes bytesOf(std::string_view text) { return Bytes(text.begin(), text.end()); }

TEST(PrintRequestEncoding, RequestsByteForByte) {
    // A 5-byte name and no data: 3 bytes of padding, 5 units in all.
    EXPECT_EQ(encodeFileBeginRequest(0x91, "a.txt", {}, false),
              (Bytes{0x91, 1, 5, 0, 0, 0, 5, 0, 0, 0, 0, 0, 'a', '.', 't', 'x', 't', 0, 0, 0}));
    // Name 2 + data 1: one pad byte after the data, none between name and data.
    EXPECT_EQ(encodeFileBeginRequest(0x91, "ab", bytesOf("x"), true),
              (Bytes{0x91, 1, 4, 0, 1, 0, 2, 0, 1, 0, 0, 0, 'a', 'b', 'x', 0}));
    EXPECT_EQ(encodeFileContinueRequest(0x80, bytesOf("\x01\x02\x03\x04\x05"), true),
              (Bytes{0x80, 2, 5, 0, 1, 0, 0, 0, 5, 0, 0, 0, 1, 2, 3, 4, 5, 0, 0, 0}));
    EXPECT_EQ(encodeFileContinueRequest(0x80, {}, false), (Bytes{0x80, 2, 3, 0, 0, 0, 0, 0, 0, 0, 0, 0}));
    // Length: (12 + 0x102 + 0x0A0B0C0D + 1 pad) / 4 = 0x282C347, cut to 16 bits.
    EXPECT_EQ(encodeFileBeginFixed(7, true, 0x0102, 0x0A0B0C0D),
              (PrintRequestFixed{7, 1, 0x47, 0xC3, 1, 0, 0x02, 0x01, 0x0D, 0x0C, 0x0B, 0x0A}));
    EXPECT_EQ(encodeFileContinueFixed(7, false, 60000),  // 15003 units
              (PrintRequestFixed{7, 2, 0x9B, 0x3A, 0, 0, 0, 0, 0x60, 0xEA, 0, 0}));
}

TEST(PrintReplyDecoding, FieldsAndAReasonBoundedByTheReply) {
    PrintReply reply;
    Bytes wire = encodePrintReply(1, 0x1234, "paper jam");
    ASSERT_EQ(wire.size(), 32u + 12u);
    ASSERT_TRUE(decodePrintReply(wire, reply));
    EXPECT_EQ(std::tie(reply.code, reply.sequence, reply.following, reply.hasReason, reply.reason),
              std::make_tuple(1, 0x1234, 3u, true, "paper jam"));
    ASSERT_TRUE(decodePrintReply(encodePrintReply(0, 9, ""), reply));
    EXPECT_EQ(std::tie(reply.code, reply.hasReason), std::make_tuple(0, false));

    wire = encodePrintReply(3, 1, "abcd");
    wire[8] = 0xFF;  // reason length 255, but the reply holds 4 bytes after its header
    ASSERT_TRUE(decodePrintReply(wire, reply));
    EXPECT_EQ(reply.reason, "abcd");
    wire[8] = 0xFF, wire[9] = 0xFF, wire[10] = 0xFF, wire[11] = 0xFF;  // -1
    ASSERT_TRUE(decodePrintReply(wire, reply));
    EXPECT_EQ(std::tie(reply.hasReason, reply.reason), std::make_tuple(true, ""));
    // A reason length without any body: no reason at all.
    wire = encodePrintReply(2, 1, "");
    wire[8] = 40;
    ASSERT_TRUE(decodePrintReply(wire, reply));
    EXPECT_EQ(std::tie(reply.code, reply.hasReason), std::make_tuple(2, false));
    EXPECT_FALSE(decodePrintReply(std::span(wire).first(31), reply));
}

TEST(PrintMessages, XErrorsAndFailuresWithoutAServer) {
    const std::int32_t savedVerbosity = logVerbosity();
    setLogVerbosity(2);
    xcb_generic_error_t error{};
    error.sequence = 7;
    error.resource_id = 0x00400001;
    error.minor_code = 1;
    error.major_code = 130;
    for (const auto& [code, name] : {std::pair<std::uint8_t, const char*>{2, "2(Value)"}, {17, "17(Implementation)"}, {18, "18"}}) {
        error.error_code = code;
        testing::internal::CaptureStderr();
        EXPECT_EQ(printXError(error), 1);
        EXPECT_EQ(testing::internal::GetCapturedStderr(), std::string("X Protocol error Number: ") + name +
                                                               "\n\tSequence: 7\n\tMajor, Minor: 130,1\n\tResource ID: 4194305\n");
    }

    // Nothing listens on this display: libxcb returns a connection in its error state.
    xcb_connection_t* connection = xcb_connect("unix:/nonexistent/varoft-print-test", nullptr);
    EXPECT_NE(xcb_connection_has_error(connection), 0);
    std::uint32_t more = 1;
    const Bytes data = bytesOf("hello");
    testing::internal::CaptureStderr();
    EXPECT_EQ(sendFileBegin(connection, "a.txt", data, 1, more), 0);
    EXPECT_EQ(sendFileContinue(connection, data, 0, more), 0);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "Error receiving File Begin reply\nError receiving File Continue reply\n");
    EXPECT_EQ(more, 1u);
    // The sender's own failures come before any request.
    setLogVerbosity(3);
    testing::internal::CaptureStderr();
    EXPECT_EQ(sendPrintFile(connection, "docs/", more, nullptr, nullptr), 0);
    EXPECT_EQ(sendPrintFile(connection, "/nonexistent/dir/a.txt", more, nullptr, nullptr), 0);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "Using filename: a.txt\nfopened /nonexistent/dir/a.txt\nCould not open file: \"a.txt\"\n");
    xcb_disconnect(connection);
    setLogVerbosity(savedVerbosity);
}

TEST(PrintNames, TheRemoteNameIsTheBaseName) {
    EXPECT_EQ(remotePrintName("/home/u/docs/report.pdf"), "report.pdf");
    EXPECT_EQ(remotePrintName("report.pdf"), "report.pdf");
    EXPECT_EQ(remotePrintName("dir\\name.txt"), "dir\\name.txt");
    EXPECT_EQ(remotePrintName("docs/"), "");
}

}  // namespace
