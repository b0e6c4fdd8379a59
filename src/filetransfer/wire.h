// What the handlers send to the far side, apart from how it travels: one implementation puts
// the requests on the X connection (xcb_wire.h), the tests' records them.
#pragma once

#include <cstdint>
#include <span>
#include <string_view>

#include "filetransfer/framing.h"

namespace platform {
class File;
}

class Wire {
public:
    virtual ~Wire() = default;

    // A FileTransferReply carrying the header's fields and block C; logs "Sending file transfer
    // reply." at level 2 first.
    void sendReply(const TransferHeader& header, std::span<const std::uint8_t> data = {});
    // A FileTransferReply whose block C is the file's next bytes (at most `limit`, read as
    // File::read reads them). Returns what the read gave: the count sent; 0 at the end of the
    // file and -1 on a failed read, and nothing is sent then.
    std::int64_t sendReplyFromFile(const TransferHeader& header, platform::File& file, std::size_t limit) {
        return writeReplyFromFile(header, file, limit);
    }
    // A FileTransferStatus. A failed one carries the system's text for `errorCode`; an empty path
    // sends none. Logs what was sent at level 2.
    void sendStatus(std::string_view path, std::uint8_t requestKind, bool failed, int errorCode);
    void sendListItem(const FileListItemFields& item);
    // Hands everything queued to the far side.
    void flush() { writeFlush(); }

protected:
    virtual void writeReply(const TransferHeader& header, std::span<const std::uint8_t> data) = 0;
    // Reads the bytes into memory and sends them with sendReply; a wire that can hand them on
    // without passing them through memory does that instead.
    virtual std::int64_t writeReplyFromFile(const TransferHeader& header, platform::File& file, std::size_t limit);
    virtual void writeStatus(std::string_view path, std::uint8_t requestKind, bool failed,
                             std::string_view errorText) = 0;
    virtual void writeListItem(const FileListItemFields& item) = 0;
    virtual void writeFlush() = 0;
};
