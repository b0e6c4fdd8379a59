#include "archive/dir_pack_stream.h"
#include "archive/dir_unpack_stream.h"
#include "filetransfer/transfer_state.h"

// Both streams keep their defaults: every file is deflated, and the transfer's own byte count
// drives the progress line, so neither stream gets callbacks.
bool ensureDirPackStream() {
    if (!DirPackStream) DirPackStream = createDirPackStream();
    return DirPackStream != nullptr;
}

bool ensureDirUnpackStream() {
    if (!DirUnpackStream) DirUnpackStream = createDirUnpackStream();
    return DirUnpackStream != nullptr;
}
