#include "sparse_file.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include <fcntl.h>
#include <unistd.h>

namespace loopback {

namespace {

constexpr std::size_t kBlock = 65536;

bool allZero(std::span<const std::uint8_t> block) {
    static const std::uint8_t kZeros[kBlock] = {};
    return std::memcmp(block.data(), kZeros, block.size()) == 0;
}

}  // namespace

bool SparseFileWriter::open(const std::filesystem::path& path) {
    fd_ = Fd(::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
    size_ = 0;
    failed_ = false;
    return fd_.valid();
}

bool SparseFileWriter::write(std::span<const std::uint8_t> data) {
    if (!fd_.valid() || failed_) return false;
    while (!data.empty()) {
        // A run of zero blocks is skipped, a run of other blocks written in one call.
        const bool zero = allZero(data.first(std::min(kBlock, data.size())));
        std::size_t run = 0;
        do {
            run += std::min(kBlock, data.size() - run);
        } while (run < data.size() && allZero(data.subspan(run, std::min(kBlock, data.size() - run))) == zero);
        const auto piece = data.first(run);
        if (zero) {
            failed_ = ::lseek(fd_.get(), static_cast<off_t>(piece.size()), SEEK_CUR) < 0;
        } else {
            for (std::size_t done = 0; !failed_ && done < piece.size();) {
                const ssize_t n = ::write(fd_.get(), piece.data() + done, piece.size() - done);
                if (n < 0 && errno == EINTR) continue;
                failed_ = n <= 0;
                if (n > 0) done += static_cast<std::size_t>(n);
            }
        }
        if (failed_) return false;
        size_ += piece.size();
        data = data.subspan(piece.size());
    }
    return true;
}

bool SparseFileWriter::close() {
    if (!fd_.valid()) return false;
    const bool sized = !failed_ && ::ftruncate(fd_.get(), static_cast<off_t>(size_)) == 0;
    const bool closed = ::close(fd_.release()) == 0;
    return sized && closed;
}

}  // namespace loopback
