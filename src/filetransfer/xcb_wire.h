// The file-transfer side on the X connection: the requests written through libxcb, and the
// event pump that hands each of the extension's events to the dispatch.
#pragma once

#include <xcb/xcb.h>

#include "filetransfer/wire.h"

struct Session;

class XcbWire : public Wire {
public:
    explicit XcbWire(xcb_connection_t* connection) : connection_(connection) {}

protected:
    void writeReply(const TransferHeader& header, std::span<const std::uint8_t> data) override;
    void writeStatus(std::string_view path, std::uint8_t requestKind, bool failed, std::string_view errorText) override;
    void writeListItem(const FileListItemFields& item) override;
    void writeFlush() override;

private:
    xcb_connection_t* connection_;
};

// Finds the extension, prepares the local side for the run mode, announces the run and serves
// the far side's requests until the run ends or the connection goes. Returns the exit status.
int runFileTransfer(xcb_connection_t* connection, Session& session);
