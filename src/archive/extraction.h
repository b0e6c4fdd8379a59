// The unpack stream's extraction: makes the directories and files the parser finds below a
// target directory held open from start to finish.
//
// Every name is resolved below the target one component at a time without following a link; an
// entry's parent is looked up afresh for every entry, so a directory moved out of the target
// meanwhile is never written into. Every file is created new: whatever held its name (a file, a
// hard link, a FIFO, a device, a link) is unlinked first, never written through or opened.
// Parents that have no entry of their own are made.
#pragma once

#include <array>
#include <cstdint>
#include <span>
#include <string>

#include "archive/local_record_parser.h"
#include "platform/platform.h"

class Extraction final : public RecordSink {
public:
    // Opens the target (a directory, links on the way followed) and forgets any earlier failure.
    bool open(const char* target);
    // Closes the current file (a failure to close is kept) and the target.
    void close();

    bool directory(const LocalEntry& entry, const std::string& path) override;
    bool beginFile(const LocalEntry& entry, const std::string& path, bool reportOpenFailure) override;
    std::span<std::uint8_t> room() override { return block_; }
    bool fill(std::size_t count) override;
    bool endFile() override;

    // The first failure (an MZ_* code) and the platform's error code of the call that failed;
    // 0 while healthy.
    std::int32_t error() const { return error_; }
    int systemError() const { return systemError_; }

private:
    bool fail(std::int32_t code, int systemError);
    void closeFile();

    platform::DirectoryHandle target_;
    platform::File file_;
    std::int32_t error_ = 0;
    int systemError_ = 0;
    std::array<std::uint8_t, 32768> block_{};
};
