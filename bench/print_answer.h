#pragma once

#include <sys/types.h>

// A minimal X server in a child process: one client, the connection setup, QueryExtension (the
// print extension present, everything else absent), and code 0 to every print request; any
// other request gets an error. Single-threaded, so it costs no more than the lockstep peer. It
// times the job itself: from the first print request to the answer to the last chunk.
struct MinimalAnswerer {
    pid_t pid = -1;
    int display = -1;
    int resultFd = -1;  // the child reports its timing here
};

// Starts it on the first free display from 300 up; pid -1 on failure.
MinimalAnswerer startMinimalAnswerer();
// Waits for it to end (after its client has gone); the seconds the job took, negative when it
// saw no complete print job.
double finishMinimalAnswerer(const MinimalAnswerer& answerer);
