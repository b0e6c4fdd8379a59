// The parts of a minimal X server that the benchmarks' answerers share: a listening socket on a
// free display, the connection setup, and the answer to QueryExtension. Each answerer serves one
// client in a child process, single-threaded, so it costs no more than a lockstep peer.
#pragma once

#include <cstdint>
#include <span>
#include <string_view>
#include <vector>

namespace bench {

// A listening Unix socket on the first free display from 300 up; `display` receives its number.
// -1 on failure.
int listenOnFreeDisplay(int& display);
// Removes the display's socket file (the child does it once its client connected).
void removeDisplaySocket(int display);
// Reads the client's setup request and sends a setup with no screens and no formats: enough
// for a client that asks for no screen.
bool answerSetup(int fd);
// The reply to a QueryExtension request (`request`: the whole request, `sequence`: its
// sequence number): present with `major` when the name asked for is `name`, absent otherwise.
std::vector<std::uint8_t> queryExtensionReply(std::span<const std::uint8_t> request, std::uint16_t sequence,
                                              std::string_view name, std::uint8_t major);

inline constexpr std::uint8_t kQueryExtension = 98;

}  // namespace bench
