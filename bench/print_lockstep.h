#pragma once

#include <cstdint>

// Seconds two minimal processes take to pass `totalBytes` as print requests in lockstep over a
// Unix socket; negative on failure.
double lockstepSeconds(std::uint64_t totalBytes);
