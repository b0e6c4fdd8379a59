#include "filetransfer/dispatch.h"

#include "common/log.h"
#include "filetransfer/framing.h"
#include "filetransfer/protocol.h"

Outcome dispatchEvent(Session& session, std::uint8_t extension, std::span<const std::uint8_t> event) {
    const auto header = decodeGenericEventHeader(event);
    if (!header || header->responseType != kGenericEvent) return Outcome::goOn();
    if (header->extension != extension) {
        logPrint(2, "Skipping gev->extension = %d.\n", header->extension);
        return Outcome::goOn();
    }
    logPrint(2, "gev->event_type = %d\n", header->eventType);
    switch (header->eventType) {
        case kDeleteFileRequest: return handleDeleteRequest(session, event);
        case kTransferRequest: return handleTransferRequest(session, event);
        case kListDirectoryRequest: return handleListingRequest(session, event);
        case kRenameFileRequest: return handleRenameRequest(session, event);
        default: return Outcome::goOn();  // not served: dropped without an answer
    }
}
