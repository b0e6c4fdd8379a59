#include "filetransfer/session.h"

#include "app/log.h"
#include "filetransfer/protocol.h"

#include <xcb/xcbext.h>

xcb_extension_t FileTransferExtension = {kFileTransferExtensionName, 0};

int runFileTransfer(xcb_connection_t* connection) {
    const xcb_query_extension_reply_t* info = xcb_get_extension_data(connection, &FileTransferExtension);
    if (!info) {
        logPrint(1, "X Server does not support the \"%s\" extension\n", kFileTransferExtensionName);
        return 0;
    }
    // The transfer modes and the event loop arrive with the transfer handlers.
    return 1;
}
