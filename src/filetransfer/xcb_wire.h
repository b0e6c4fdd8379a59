// The file-transfer side on the X connection: the requests written through libxcb, and the
// event pump that hands each of the extension's events to the dispatch.
#pragma once

#include <xcb/xcb.h>

#include "filetransfer/wire.h"
#include "platform/platform.h"

struct Session;

class XcbWire : public Wire {
public:
    explicit XcbWire(xcb_connection_t* connection) : connection_(connection) {}

protected:
    void writeReply(const TransferHeader& header, std::span<const std::uint8_t> data) override;
    void writeStatus(std::string_view path, std::uint8_t requestKind, bool failed, std::string_view errorText) override;
    void writeListItem(const FileListItemFields& item) override;
    void writeFlush() override;
    // A plain file's bytes go from the file to the socket through a kernel pipe, never through
    // this process's memory; the request around them is the one writeReply sends.
    std::int64_t writeReplyFromFile(const TransferHeader& header, platform::File& file, std::size_t limit) override;

private:
    xcb_connection_t* connection_;
    platform::FilePipe pipe_;
    bool pipeTried_ = false;  // opened on the first file chunk; stays closed where it cannot be
};

// Finds the extension, prepares the local side for the run mode, announces the run and serves
// the far side's requests until the run ends or the connection goes. Returns the exit status.
int runFileTransfer(xcb_connection_t* connection, Session& session);
