// The two requests of the print extension and their reply: a file's name and first chunk go in
// sendFileBegin, every further chunk in sendFileContinue, and each is answered with a code and an
// optional reason text.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include <xcb/xcb.h>

namespace platform {
class FilePipe;
}

// The print extension's descriptor (libxcb fills in its id).
extern xcb_extension_t ThinPrintExtension;
inline constexpr const char* kThinPrintExtensionName = "QRV_ThinPrint12";

inline constexpr std::uint8_t kFileBeginOpcode = 1;
inline constexpr std::uint8_t kFileContinueOpcode = 2;
inline constexpr std::size_t kPrintRequestFixedSize = 12;
inline constexpr std::size_t kPrintReplyHeaderSize = 32;

// Reply codes the far side gives; any other value is a plain rejection.
inline constexpr std::uint8_t kPrintAccepted = 0;
inline constexpr std::uint8_t kPrintNoMoreFiles = 2;

using PrintRequestFixed = std::array<std::uint8_t, kPrintRequestFixedSize>;

// ---- encoding (no connection needed) ---------------------------------------------------------

// Zero bytes after the name and data of a request: once, on the sum of both lengths.
std::size_t printRequestPadding(std::size_t nameLength, std::size_t dataLength);

// The 12-byte fixed parts. The length field counts the whole request (fixed part, name, data and
// padding) in 4-byte units; libxcb writes the major opcode and the length again when it sends.
PrintRequestFixed encodeFileBeginFixed(std::uint8_t majorOpcode, bool partial, std::uint16_t nameLength,
                                       std::uint32_t dataLength);
PrintRequestFixed encodeFileContinueFixed(std::uint8_t majorOpcode, bool more, std::uint32_t dataLength);

// Whole requests as they travel (ordinary length form).
std::vector<std::uint8_t> encodeFileBeginRequest(std::uint8_t majorOpcode, std::string_view name,
                                                 std::span<const std::uint8_t> data, bool partial);
std::vector<std::uint8_t> encodeFileContinueRequest(std::uint8_t majorOpcode, std::span<const std::uint8_t> data,
                                                    bool more);

struct PrintReply {
    std::uint8_t code = 0;
    std::uint16_t sequence = 0;
    std::uint32_t following = 0;  // 4-byte units after the 32-byte header
    bool hasReason = false;       // set whenever `following` is not 0
    std::string reason;
};

// Decodes a reply from the bytes it really occupies. The reason is taken only when `following`
// is not 0 and never reaches past the end of `reply`, whatever its length field claims (a
// negative length gives an empty reason). False when the header itself is incomplete.
bool decodePrintReply(std::span<const std::uint8_t> reply, PrintReply& out);

// A reply as the far side sends it, the reason padded to 4 bytes.
std::vector<std::uint8_t> encodePrintReply(std::uint8_t code, std::uint16_t sequence, std::string_view reason);

// ---- requests over the connection ------------------------------------------------------------

// Sends the file name and its first chunk (at most 65535 bytes); `partial` nonzero means more
// chunks follow. 1 when the far side accepted it, 0 otherwise; a code-2 answer clears
// `moreFilesAccepted`.
int sendFileBegin(xcb_connection_t* connection, const char* name, std::span<const std::uint8_t> data, int partial,
                  std::uint32_t& moreFilesAccepted);
// Sends a further chunk; `more` nonzero means others follow. Results as sendFileBegin.
int sendFileContinue(xcb_connection_t* connection, std::span<const std::uint8_t> data, int more,
                     std::uint32_t& moreFilesAccepted);
// The same two requests with the chunk's `length` bytes waiting in a pipe (FilePipe::fill put
// them there) rather than in memory: they go from the pipe to the connection. Only for a far side
// whose extension is present and whose requests in the ordinary form hold a whole chunk.
int sendFileBegin(xcb_connection_t* connection, const char* name, platform::FilePipe& data, std::size_t length,
                  int partial, std::uint32_t& moreFilesAccepted);
int sendFileContinue(xcb_connection_t* connection, platform::FilePipe& data, std::size_t length, int more,
                     std::uint32_t& moreFilesAccepted);

// Prints an X protocol error with the name of a core error code; returns 1.
int printXError(const xcb_generic_error_t& error);
