// Little-endian encoding and bounds-checked decoding of wire bytes, field by field.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>
#include <vector>

namespace bytes {

// Appends fields to a growing byte vector. Fields are stored through a pointer into room made by
// resize, and byte runs are inserted after reserving their length: forms GCC 12 can follow at
// -O3, where push_back and a bare insert made it report writes "into a region of size 0".
class Writer {
public:
    explicit Writer(std::vector<std::uint8_t>& out) : out_(out) {}

    Writer& u8(std::uint8_t v) {
        *grow(1) = v;
        return *this;
    }
    Writer& u16(std::uint16_t v) { return le(v, 2); }
    Writer& u32(std::uint32_t v) { return le(v, 4); }
    Writer& u64(std::uint64_t v) { return le(v, 8); }
    Writer& zeros(std::size_t n) {
        room(n);
        out_.insert(out_.end(), n, 0);
        return *this;
    }
    Writer& raw(std::span<const std::uint8_t> b) { return copy(b.data(), b.size()); }
    Writer& raw(std::string_view s) { return copy(s.data(), s.size()); }
    // Zero bytes up to the next multiple of 4 of the whole vector.
    Writer& pad4() { return zeros((4 - out_.size() % 4) % 4); }

private:
    // Makes room for n more bytes and returns where they start.
    std::uint8_t* grow(std::size_t n) {
        const std::size_t at = out_.size();
        out_.resize(at + n);
        return out_.data() + at;
    }
    // Reserves room for n more bytes, growing geometrically as insert would on its own, so a
    // run of appends stays linear.
    void room(std::size_t n) {
        if (out_.capacity() - out_.size() < n) out_.reserve(std::max(out_.size() + n, 2 * out_.capacity()));
    }
    Writer& copy(const void* from, std::size_t n) {
        const auto* p = static_cast<const std::uint8_t*>(from);
        room(n);
        out_.insert(out_.end(), p, p + n);
        return *this;
    }
    Writer& le(std::uint64_t v, std::size_t width) {
        std::uint8_t* p = grow(width);
        for (std::size_t i = 0; i < width; ++i) p[i] = static_cast<std::uint8_t>(v >> (8 * i));
        return *this;
    }
    std::vector<std::uint8_t>& out_;
};

// Stores fields at fixed offsets of a caller-owned block.
inline void put8(std::span<std::uint8_t> b, std::size_t at, std::uint8_t v) { b[at] = v; }
inline void put16(std::span<std::uint8_t> b, std::size_t at, std::uint16_t v) {
    b[at] = static_cast<std::uint8_t>(v);
    b[at + 1] = static_cast<std::uint8_t>(v >> 8);
}
inline void put32(std::span<std::uint8_t> b, std::size_t at, std::uint32_t v) {
    for (int i = 0; i < 4; ++i) b[at + i] = static_cast<std::uint8_t>(v >> (8 * i));
}
inline void put64(std::span<std::uint8_t> b, std::size_t at, std::uint64_t v) {
    for (int i = 0; i < 8; ++i) b[at + i] = static_cast<std::uint8_t>(v >> (8 * i));
}

// Loads fields at fixed offsets; the caller has checked the size (see Reader for the checked form).
inline std::uint16_t get16(std::span<const std::uint8_t> b, std::size_t at) {
    return static_cast<std::uint16_t>(b[at] | (b[at + 1] << 8));
}
inline std::uint32_t get32(std::span<const std::uint8_t> b, std::size_t at) {
    std::uint32_t v = 0;
    for (int i = 3; i >= 0; --i) v = (v << 8) | b[at + i];
    return v;
}
inline std::uint64_t get64(std::span<const std::uint8_t> b, std::size_t at) {
    std::uint64_t v = 0;
    for (int i = 7; i >= 0; --i) v = (v << 8) | b[at + i];
    return v;
}

// Reads fields in order from untrusted bytes. Every read is checked against the end; the first
// read that would pass it sets the failed state, yields zeros / an empty span, and leaves the
// position where it was. Later reads keep failing.
class Reader {
public:
    explicit Reader(std::span<const std::uint8_t> data, std::size_t start = 0)
        : data_(data), pos_(start), ok_(start <= data.size()) {}

    bool ok() const { return ok_; }
    std::size_t position() const { return pos_; }
    std::size_t remaining() const { return ok_ ? data_.size() - pos_ : 0; }
    bool has(std::size_t n) const { return ok_ && n <= data_.size() - pos_; }

    std::uint8_t u8() { return take(1) ? data_[pos_ - 1] : 0; }
    std::uint16_t u16() { return take(2) ? get16(data_, pos_ - 2) : 0; }
    std::uint32_t u32() { return take(4) ? get32(data_, pos_ - 4) : 0; }
    std::uint64_t u64() { return take(8) ? get64(data_, pos_ - 8) : 0; }
    std::span<const std::uint8_t> bytes(std::size_t n) {
        return take(n) ? data_.subspan(pos_ - n, n) : std::span<const std::uint8_t>{};
    }
    std::string_view text(std::size_t n) {
        const auto b = bytes(n);
        return {reinterpret_cast<const char*>(b.data()), b.size()};
    }
    bool skip(std::size_t n) { return take(n); }

private:
    bool take(std::size_t n) {
        if (!has(n)) {
            ok_ = false;
            return false;
        }
        pos_ += n;
        return true;
    }
    std::span<const std::uint8_t> data_;
    std::size_t pos_;
    bool ok_;
};

inline std::size_t pad4(std::size_t n) { return (4 - n % 4) % 4; }

}  // namespace bytes
