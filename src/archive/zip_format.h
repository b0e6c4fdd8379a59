// The ZIP record constants the pack side writes and the unpack side reads: signatures, the
// general-purpose flags, the zip64 extra field and the 32-bit escape that points to it.
#pragma once

#include <cstdint>

namespace zipformat {

constexpr std::uint32_t kLocalHeaderSignature = 0x04034b50;
constexpr std::uint32_t kDescriptorSignature = 0x08074b50;
constexpr std::uint32_t kCentralHeaderSignature = 0x02014b50;
constexpr std::uint32_t kZip64EndSignature = 0x06064b50;
constexpr std::uint32_t kZip64LocatorSignature = 0x07064b50;
constexpr std::uint32_t kEndSignature = 0x06054b50;
constexpr std::uint16_t kFlagDescriptor = 0x0008;
constexpr std::uint16_t kFlagUtf8 = 0x0800;
constexpr std::uint16_t kZip64ExtraId = 0x0001;
constexpr std::uint32_t kEscape32 = 0xFFFFFFFFu;

}  // namespace zipformat
