#include "archive/dir_unpack_stream.h"
#include "filetransfer/transfer_state.h"

bool ensureDirPackStream() {
    // The packing stream is not part of the build yet: no local directory can be sent.
    return DirPackStream != nullptr;
}

bool ensureDirUnpackStream() {
    if (!DirUnpackStream) DirUnpackStream = createDirUnpackStream();
    return DirUnpackStream != nullptr;
}
