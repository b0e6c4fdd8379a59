#include "filetransfer/wire.h"

#include <memory>
#include <new>
#include <string>

#include "common/log.h"
#include "platform/platform.h"

void Wire::sendReply(const TransferHeader& header, std::span<const std::uint8_t> data) {
    logPrint(2, "Sending file transfer reply.\n");
    writeReply(header, data);
}

std::int64_t Wire::writeReplyFromFile(const TransferHeader& header, platform::File& file, std::size_t limit) {
    const std::unique_ptr<std::uint8_t[]> chunk(new (std::nothrow) std::uint8_t[limit]);
    if (!chunk) {
        platform::setLastError(platform::outOfMemoryErrorCode());
        return -1;
    }
    const std::int64_t count = file.read(std::span<std::uint8_t>(chunk.get(), limit));
    if (count > 0) sendReply(header, std::span<const std::uint8_t>(chunk.get(), static_cast<std::size_t>(count)));
    return count;
}

void Wire::sendStatus(std::string_view path, std::uint8_t requestKind, bool failed, int errorCode) {
    const std::string errorText = failed ? platform::errorText(errorCode) : std::string();
    writeStatus(path, requestKind, failed, errorText);
    if (failed) logPrint(2, "Sending failed file transfer status, error : %s\n", errorText.c_str());
    else logPrint(2, "Sending suceess file transfer status\n");
}

void Wire::sendListItem(const FileListItemFields& item) { writeListItem(item); }
