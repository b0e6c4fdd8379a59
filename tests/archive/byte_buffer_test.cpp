#include <gtest/gtest.h>

#include <string>

#include "archive/byte_buffer.h"

namespace {

TEST(ByteBuffer, GrowingKeepsTheContent) {
    ByteBufferPtr buffer;
    byteBufferReserve(buffer, 17000);
    ASSERT_TRUE(buffer);
    buffer->length = 17000;
    for (std::uint32_t i = 0; i < 17000; ++i) byteBufferData(buffer.get())[i] = static_cast<std::uint8_t>(i * 7);
    byteBufferReserve(buffer, 100000);
    EXPECT_GE(byteBufferCapacity(buffer.get()), 117000u);
    ASSERT_EQ(byteBufferLength(buffer.get()), 17000u);
    for (std::uint32_t i = 0; i < 17000; ++i)
        ASSERT_EQ(byteBufferData(buffer.get())[i], static_cast<std::uint8_t>(i * 7)) << i;
}

std::string lastReport;

TEST(ByteBuffer, MoreThanFourGigabytesIsRefusedAndReported) {
    setByteBufferReportHook([](const char* text, std::size_t length) { lastReport.assign(text, length); });
    ByteBufferPtr buffer;
    byteBufferReserve(buffer, 10);
    buffer->length = 0xFFFFFF00u;  // as if nearly full; the block is not touched
    ByteBuffer* before = buffer.get();
    const auto capacity = buffer->capacity;
    byteBufferReserve(buffer, 0x200);
    EXPECT_EQ(buffer.get(), before);
    EXPECT_EQ(buffer->capacity, capacity);
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
