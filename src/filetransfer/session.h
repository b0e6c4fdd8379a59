// The file-transfer session: entry point of transfer mode.
#pragma once

#include <xcb/xcb.h>

#include "common/options.h"

// Finds the extension, prepares the local side for the run mode, announces the run and serves
// the far side's requests until the connection ends. Returns the exit status (0). Local errors
// of a command-line run end the process (exit status 0).
int runFileTransfer(xcb_connection_t* connection, const Options& options);

// Closes the current stream when it is open and clears CurrentStream in every case.
void closeCurrentStream();

// Ends the process with exit status 0 after writing out what is still queued for the far side.
[[noreturn]] void endTransferProcess(xcb_connection_t* connection);
