#include "filetransfer/wire.h"

#include <string>

#include "common/log.h"
#include "platform/platform.h"

void Wire::sendReply(const TransferHeader& header, std::span<const std::uint8_t> data) {
    logPrint(2, "Sending file transfer reply.\n");
    writeReply(header, data);
}

void Wire::sendStatus(std::string_view path, std::uint8_t requestKind, bool failed, int errorCode) {
    const std::string errorText = failed ? platform::errorText(errorCode) : std::string();
    writeStatus(path, requestKind, failed, errorText);
    if (failed) logPrint(2, "Sending failed file transfer status, error : %s\n", errorText.c_str());
    else logPrint(2, "Sending suceess file transfer status\n");
}

void Wire::sendListItem(const FileListItemFields& item) { writeListItem(item); }
