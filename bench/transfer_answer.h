// A minimal X server for varoft -put and -get, in a child process like the print answerer: one
// client, the connection setup, QueryExtension (the file-transfer extension present, everything
// else absent), then the transfer the client announces, answered from memory.
//   put: each announcement or chunk is answered by a kind-5 event asking for the next; the data
//        is read into one buffer and dropped; reply kind 8 ends it.
//   get: `size` bytes go out as kind-4 events, each written whole from one buffer built once,
//        the next after the client's kind-5 acknowledgement, then a kind-8 event.
// Single-threaded and touching no disk, so it costs no more than the lockstep peer.
#pragma once

#include <cstdint>

#include <sys/types.h>

namespace bench {

struct TransferAnswerer {
    pid_t pid = -1;
    int display = -1;
    int resultFd = -1;  // the child reports its timing here
};

// Starts it on the first free display from 300 up; pid -1 on failure.
TransferAnswerer startTransferAnswerer(bool get, std::uint64_t size);
// Waits for it to end; the seconds from the client's announcement to its closing the
// connection, or a negative value when the transfer did not complete with exactly `size` bytes.
double finishTransferAnswerer(const TransferAnswerer& answerer, std::uint64_t size);

}  // namespace bench
