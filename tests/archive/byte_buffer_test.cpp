#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "archive/byte_buffer.h"
#include "archive/mz_stream.h"
#include "archive/mz_strm_mem.h"

namespace {

std::string lastReport;
void captureReport(const char* text, std::size_t length) { lastReport.assign(text, length); }

struct ReportCapture {
    ReportCapture() {
        lastReport.clear();
        setByteBufferReportHook(captureReport);
    }
    ~ReportCapture() { setByteBufferReportHook(nullptr); }
};

TEST(ByteBuffer, GrowthFollowsTheBlockRules) {
    // From nothing: 16384 bytes of growth, plus the header, rounded to 1024.
    ByteBufferPtr buffer;
    byteBufferReserve(buffer, 1);
    ASSERT_TRUE(buffer);
    EXPECT_EQ(byteBufferCapacity(buffer.get()), 17400u);
    EXPECT_EQ(byteBufferLength(buffer.get()), 0u);

    // A request that fits leaves the block where it is.
    buffer->length = 16000;
    ByteBuffer* before = buffer.get();
    byteBufferReserve(buffer, 1000);
    EXPECT_EQ(buffer.get(), before);
    EXPECT_EQ(byteBufferCapacity(buffer.get()), 17400u);

    // One that does not at least doubles the capacity and keeps the content.
    buffer->length = 17000;
    for (std::uint32_t i = 0; i < 17000; ++i) byteBufferData(buffer.get())[i] = static_cast<std::uint8_t>(i * 7);
    byteBufferReserve(buffer, 1000);
    EXPECT_EQ(byteBufferCapacity(buffer.get()), 34808u);
    ASSERT_EQ(byteBufferLength(buffer.get()), 17000u);
    for (std::uint32_t i = 0; i < 17000; ++i)
        ASSERT_EQ(byteBufferData(buffer.get())[i], static_cast<std::uint8_t>(i * 7)) << i;

    // A large request grows by the request itself.
    byteBufferReserve(buffer, 100000);
    EXPECT_EQ(byteBufferCapacity(buffer.get()), 135160u);  // 34808 + 100000 + 8, rounded up
    EXPECT_GE(byteBufferCapacity(buffer.get()) - byteBufferLength(buffer.get()), 100000u);
}

TEST(ByteBuffer, MoreThanFourGigabytesIsRefusedAndReported) {
    ReportCapture capture;
    ByteBufferPtr buffer;
    byteBufferReserve(buffer, 10);
    buffer->length = 0xFFFFFF00u;  // as if nearly full; the block is not touched
    ByteBuffer* before = buffer.get();
    byteBufferReserve(buffer, 0x200);
    EXPECT_EQ(buffer.get(), before);
    EXPECT_EQ(buffer->capacity, 17400u);
    EXPECT_EQ(lastReport, "Attempt to reserve more than 4GB (len 4294967040 require 512)\n");
    buffer->length = 0;

    // Without a hook the message is dropped silently.
    setByteBufferReportHook(nullptr);
    lastReport.clear();
    byteBufferReport("dropped %d\n", 1);
    EXPECT_TRUE(lastReport.empty());
}

TEST(ByteBuffer, ReportsAreCutToTheFixedArea) {
    ReportCapture capture;
    const std::string longText(3000, 'x');
    byteBufferReport("%s", longText.c_str());
    EXPECT_EQ(lastReport.size(), 1023u);
}

TEST(ByteBuffer, AppendAndConsumeKeepAQueue) {
    ByteBufferPtr buffer;
    EXPECT_EQ(byteBufferLength(buffer.get()), 0u);
    byteBufferConsume(buffer.get(), 5);  // null is an empty buffer
    const std::string first = "hello ", second = "world";
    ASSERT_TRUE(byteBufferAppend(buffer, {reinterpret_cast<const std::uint8_t*>(first.data()), first.size()}));
    ASSERT_TRUE(byteBufferAppend(buffer, {reinterpret_cast<const std::uint8_t*>(second.data()), second.size()}));
    byteBufferConsume(buffer.get(), 6);
    const auto bytes = byteBufferBytes(buffer.get());
    EXPECT_EQ(std::string(bytes.begin(), bytes.end()), "world");
    byteBufferConsume(buffer.get(), 99);
    EXPECT_EQ(byteBufferLength(buffer.get()), 0u);
}

TEST(MemoryStream, GrowsInStepsAndReadsBack) {
    MzStreamPtr stream(mz_stream_mem_create());
    mz_stream_mem_set_grow_size(stream.get(), 4096);
    ASSERT_EQ(mz_stream_open(stream.get(), nullptr, MZ_OPEN_MODE_CREATE), MZ_OK);
    EXPECT_EQ(mz_stream_mem_get_capacity(stream.get()), 4096);
    std::string data(5000, 'q');
    data[4999] = 'z';
    EXPECT_EQ(mz_stream_write(stream.get(), data.data(), 5000), 5000);
    EXPECT_EQ(mz_stream_mem_get_capacity(stream.get()), 8192);
    EXPECT_EQ(mz_stream_tell(stream.get()), 5000);

    // Overwrite from the start: the length is the high-water mark.
    ASSERT_EQ(mz_stream_seek(stream.get(), 0, MZ_SEEK_SET), MZ_OK);
    EXPECT_EQ(mz_stream_write(stream.get(), "AB", 2), 2);
    std::int32_t length = 0;
    mz_stream_mem_get_buffer_length(stream.get(), &length);
    EXPECT_EQ(length, 5000);
    ASSERT_EQ(mz_stream_seek(stream.get(), -2, MZ_SEEK_END), MZ_OK);
    char tail[8] = {};
    EXPECT_EQ(mz_stream_read(stream.get(), tail, 8), 2);
    EXPECT_STREQ(tail, "qz");
    EXPECT_EQ(mz_stream_read(stream.get(), tail, 8), 0);
    EXPECT_EQ(mz_stream_seek(stream.get(), -1, MZ_SEEK_SET), MZ_SEEK_ERROR);
}

TEST(MemoryStream, ALentBufferNeverGrows) {
    char area[4] = {'1', '2', '3', '4'};
    MzStreamPtr stream(mz_stream_mem_create());
    mz_stream_mem_set_buffer(stream.get(), area, 4);
    ASSERT_EQ(mz_stream_open(stream.get(), nullptr, MZ_OPEN_MODE_READWRITE), MZ_OK);
    ASSERT_EQ(mz_stream_seek(stream.get(), 2, MZ_SEEK_SET), MZ_OK);
    EXPECT_EQ(mz_stream_write(stream.get(), "xyz", 3), 2);
    EXPECT_EQ(std::string(area, 4), "12xy");
    EXPECT_EQ(mz_stream_close(stream.get()), MZ_OK);
    EXPECT_EQ(mz_stream_read(stream.get(), area, 1), MZ_STREAM_ERROR);
}

}  // namespace
