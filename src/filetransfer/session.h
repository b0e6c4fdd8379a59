// The file-transfer session: entry point of transfer mode.
#pragma once

#include <xcb/xcb.h>

// Finds the extension, prepares the local side for RunMode, announces the run and serves the
// far side's requests until the connection ends. 0 when the extension is missing, else 1.
int runFileTransfer(xcb_connection_t* connection);
