#include "filetransfer/transfer_state.h"

// The directory streams arrive with the archive code; until then no directory can be opened.
bool ensureDirPackStream() { return DirPackStream != nullptr; }
bool ensureDirUnpackStream() { return DirUnpackStream != nullptr; }
