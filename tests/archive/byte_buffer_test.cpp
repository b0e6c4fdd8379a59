#include <gtest/gtest.h>

#include <string>

#include "archive/byte_buffer.h"

namespace {

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
}

std::string lastReport;

TEST(ByteBuffer, MoreThanFourGigabytesIsRefusedAndReported) {
    setByteBufferReportHook([](const char* text, std::size_t length) { lastReport.assign(text, length); });
    ByteBufferPtr buffer;
    byteBufferReserve(buffer, 10);
    buffer->length = 0xFFFFFF00u;  // as if nearly full; the block is not touched
    ByteBuffer* before = buffer.get();
    byteBufferReserve(buffer, 0x200);
    EXPECT_EQ(buffer.get(), before);
    EXPECT_EQ(buffer->capacity, 17400u);
    EXPECT_EQ(lastReport, "Attempt to reserve more than 4GB (len 4294967040 require 512)\n");
    buffer->length = 0;
    // Reports are cut to the fixed 1024-byte area; without a hook they are dropped.
    byteBufferReport("%s", std::string(3000, 'x').c_str());
    EXPECT_EQ(lastReport.size(), 1023u);
    setByteBufferReportHook(nullptr);
    byteBufferReport("dropped %d\n", 1);
    EXPECT_EQ(lastReport.size(), 1023u);
}

}  // namespace
