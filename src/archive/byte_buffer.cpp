#include "archive/byte_buffer.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>

namespace {

constexpr std::uint64_t kMinimumGrowth = 16384;
constexpr std::uint64_t kBlockRounding = 1024;
constexpr std::uint64_t kMaxCapacity = 0xFFFFFFFFu;
constexpr std::uint64_t kMaxAllocation = kMaxCapacity + kByteBufferHeaderSize;

std::mutex& reportLock() {
    // Initialised once, on the first report.
    static std::mutex lock;
    return lock;
}

ByteBufferReportHook reportHook = nullptr;
char reportText[1024];

}  // namespace

void setByteBufferReportHook(ByteBufferReportHook hook) {
    std::lock_guard<std::mutex> guard(reportLock());
    reportHook = hook;
}

void byteBufferReport(const char* format, ...) {
    std::lock_guard<std::mutex> guard(reportLock());
    va_list args;
    va_start(args, format);
    const int n = std::vsnprintf(reportText, sizeof reportText, format, args);
    va_end(args);
    reportText[sizeof reportText - 1] = '\0';
    if (n < 0 || !reportHook) return;
    reportHook(reportText, std::min(static_cast<std::size_t>(n), sizeof reportText - 1));
}

ByteBuffer* byteBufferReserve(ByteBuffer* buffer, std::uint32_t extra) {
    const std::uint64_t capacity = byteBufferCapacity(buffer);
    const std::uint32_t length = byteBufferLength(buffer);
    const std::uint64_t wanted = std::uint64_t{length} + extra;
    if (wanted <= capacity) return buffer;
    if (wanted > kMaxCapacity) {
        byteBufferReport("Attempt to reserve more than 4GB (len %u require %u)\n", length, extra);
        return buffer;
    }
    std::uint64_t growth = std::max({std::uint64_t{extra}, kMinimumGrowth, capacity});
    if (capacity + growth > kMaxCapacity) growth = kMaxCapacity - capacity;
    const std::uint64_t target = capacity + growth;
    std::uint64_t allocation = (target + kByteBufferHeaderSize + kBlockRounding - 1) / kBlockRounding * kBlockRounding;
    allocation = std::min(allocation, kMaxAllocation);
    if (allocation < target) {
        byteBufferReport("Fatal: insufficient memory (require %zu)\n", static_cast<std::size_t>(allocation));
        return buffer;
    }
    if (buffer && allocation == capacity + kByteBufferHeaderSize) return buffer;

    void* block = nullptr;
    if (length != 0) {
        block = std::realloc(buffer, static_cast<std::size_t>(allocation));
        if (!block) std::free(buffer);
    } else {
        std::free(buffer);
        block = std::malloc(static_cast<std::size_t>(allocation));
    }
    if (!block) {
        byteBufferReport("Fatal: insufficient memory (require %zu)\n", static_cast<std::size_t>(allocation));
        return nullptr;
    }
    auto* grown = static_cast<ByteBuffer*>(block);
    grown->capacity = static_cast<std::uint32_t>(allocation - kByteBufferHeaderSize);
    grown->length = length;
    return grown;
}

bool byteBufferAppend(ByteBuffer*& buffer, std::span<const std::uint8_t> bytes) {
    if (bytes.empty()) return true;
    if (bytes.size() > kMaxCapacity) return false;
    buffer = byteBufferReserve(buffer, static_cast<std::uint32_t>(bytes.size()));
    if (!buffer || buffer->capacity - buffer->length < bytes.size()) return false;
    std::memcpy(byteBufferData(buffer) + buffer->length, bytes.data(), bytes.size());
    buffer->length += static_cast<std::uint32_t>(bytes.size());
    return true;
}

void byteBufferConsume(ByteBuffer* buffer, std::uint32_t count) {
    if (!buffer || count == 0) return;
    if (count >= buffer->length) {
        buffer->length = 0;
        return;
    }
    std::uint8_t* data = byteBufferData(buffer);
    std::memmove(data, data + count, buffer->length - count);
    buffer->length -= count;
}

void ByteBufferDeleter::operator()(ByteBuffer* buffer) const { std::free(buffer); }
