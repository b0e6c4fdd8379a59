#include <gtest/gtest.h>

#include <string>

#include "archive/byte_buffer.h"

namespace {

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
