#pragma once

#include <sys/types.h>

// A minimal X server in a child process: one client, the connection setup, QueryExtension (the
// print extension present, everything else absent), and code 0 to every print request; any
// other request gets an error. Single-threaded, so it costs no more than the lockstep peer.
struct MinimalAnswerer {
    pid_t pid = -1;
    int display = -1;
};

// Starts it on the first free display from 300 up; pid -1 on failure.
MinimalAnswerer startMinimalAnswerer();
// Waits for it to end (after its client has gone); true when it saw a complete print job.
bool finishMinimalAnswerer(const MinimalAnswerer& answerer);
