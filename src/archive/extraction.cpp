#include "archive/extraction.h"

#include "archive/stream.h"

bool Extraction::open(const char* target) {
    error_ = 0;
    systemError_ = 0;
    // Held open for the whole archive: every entry is resolved below this very directory.
    return target_.open(target);
}

void Extraction::close() {
    closeFile();
    target_.close();
}

bool Extraction::fail(std::int32_t code, int systemError) {
    if (error_ == 0) {
        error_ = code;
        systemError_ = systemError;
    }
    return false;
}

void Extraction::closeFile() {
    if (file_.isOpen() && !file_.close()) fail(MZ_CLOSE_ERROR, platform::lastError());
}

bool Extraction::directory(const LocalEntry&, const std::string& path) {
    platform::DirectoryHandle made;
    if (made.openBeneath(target_, path, true)) return true;
    // Something other than a directory that holds one of the names is left alone.
    const int error = platform::lastError();
    return fail(error == platform::failureCode(platform::Failure::NotADirectory) ? MZ_EXIST_ERROR : MZ_INTERNAL_ERROR,
                error);
}

bool Extraction::beginFile(const LocalEntry&, const std::string& path, bool reportOpenFailure) {
    // The parent is made when missing, as many writers leave parent entries out.
    const std::size_t slash = path.rfind('/');
    platform::DirectoryHandle parent;
    const bool opened = parent.openBeneath(target_, slash == std::string::npos ? std::string() : path.substr(0, slash), true) &&
                        file_.createNewAt(parent, path.substr(slash == std::string::npos ? 0 : slash + 1));
    if (!opened && reportOpenFailure) return fail(MZ_OPEN_ERROR, platform::lastError());
    return true;
}

bool Extraction::fill(std::size_t count) {
    if (!file_.isOpen()) return fail(MZ_STREAM_ERROR, platform::failureCode(platform::Failure::InvalidArgument));
    if (file_.write(std::span<const std::uint8_t>(block_).first(count)) < 0) return fail(MZ_WRITE_ERROR, platform::lastError());
    return true;
}

bool Extraction::endFile() {
    closeFile();
    return error_ == 0;
}
