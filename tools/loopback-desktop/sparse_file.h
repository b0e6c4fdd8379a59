// Writing a file that arrives in chunks: straight to disk, chunk by chunk, with holes where
// whole blocks are zero, so that a large mostly empty file costs the desktop neither memory nor
// disk space.
#pragma once

#include "unique_fd.h"

#include <cstdint>
#include <filesystem>
#include <span>

namespace loopback {

class SparseFileWriter {
public:
    // Creates (or truncates) `path`; false when it cannot.
    bool open(const std::filesystem::path& path);
    bool isOpen() const { return fd_.valid(); }
    bool write(std::span<const std::uint8_t> data);
    // Sets the final size (a trailing hole included) and closes; false on any write error.
    bool close();
    std::uint64_t size() const { return size_; }

private:
    Fd fd_;
    std::uint64_t size_ = 0;
    bool failed_ = false;
};

}  // namespace loopback
