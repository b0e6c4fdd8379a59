// The X11 core protocol as the loopback server speaks it: the connection setup, the framing of
// requests (ordinary and BIG-REQUESTS lengths), and the replies, errors and events it sends.
// Little-endian only; every field is written and read one by one.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>
#include <vector>

namespace loopback::x11 {

inline constexpr std::uint8_t kQueryExtension = 98;
inline constexpr std::uint8_t kGetInputFocus = 43;
inline constexpr std::uint8_t kGenericEvent = 35;

inline constexpr std::uint8_t kBadRequest = 1;
inline constexpr std::uint8_t kBadLength = 16;

inline constexpr std::string_view kFileTransferName = "QRV_ThinFileTransfer12";
inline constexpr std::string_view kPrintName = "QRV_ThinPrint12";
inline constexpr std::string_view kBigRequestsName = "BIG-REQUESTS";
inline constexpr std::string_view kCookieName = "MIT-MAGIC-COOKIE-1";

using Packet = std::array<std::uint8_t, 32>;

// The client's connection setup.
struct Setup {
    std::size_t length = 0;  // bytes it takes
    std::uint16_t protocolMajor = 0;
    std::string_view authName, authData;  // views into the input
};
enum class SetupParse { NeedMore, BigEndian, NotX, Complete };
SetupParse parseSetup(std::span<const std::uint8_t> in, Setup& out);

// The answers to a setup: refused with a reason, or accepted with one screen.
std::vector<std::uint8_t> failedSetup(std::string_view reason, bool bigEndian);
std::vector<std::uint8_t> acceptedSetup(std::uint32_t clientId);

// Where one request lies in the input.
struct RequestFrame {
    std::size_t total = 0;      // bytes on the wire
    std::size_t headerLen = 4;  // 8 for the big form (its 32-bit length word)
    bool big = false;
};
enum class FrameParse { NeedMore, BadLength, Complete };
// With NeedMore, frame.total is the length as far as it is known (0 when not yet).
FrameParse parseRequestFrame(std::span<const std::uint8_t> in, bool bigEnabled, std::uint32_t maxBigUnits,
                             RequestFrame& frame);

Packet reply(std::uint8_t data1, std::uint16_t sequence);
Packet error(std::uint8_t code, std::uint16_t sequence, std::uint32_t value, std::uint16_t minor, std::uint8_t major);
// The first 32 bytes of a generic event of `extension` carrying `paddedBytes` more.
Packet genericEventHeader(std::uint8_t extension, std::uint16_t sequence, std::uint16_t eventType,
                          std::size_t paddedBytes, std::span<const std::uint8_t> header22);

}  // namespace loopback::x11
