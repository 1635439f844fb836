// The client packet of the daemon's TCP stream: where the daemon listens, the 8-byte big-endian packet
// header, the two commands the packet layer reserves (echo and identity) and the identity payload. The
// flasher's own commands and payloads are in FlashTypes.h.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace varnoch::protocol {

// TCP port of the daemon unless it is told another, and the range it accepts for one.
constexpr std::uint16_t kDefaultPort = 41265;
constexpr std::uint16_t kLowestPort = 2000;
constexpr std::uint16_t kHighestPort = 65535;

// Header: length (4 bytes, whole packet), command (2), header length (2, the payload's offset); all
// big-endian. Every packet built here has a header length of 8.
constexpr std::uint32_t kHeaderSize = 8;
constexpr std::uint32_t kLengthFieldSize = 4;
// Largest wire length the daemon accepts; longer (and shorter than the header) lengths end the
// connection, since the stream cannot be resynchronised after them.
constexpr std::uint32_t kMaxPacketSize = 65536;

// Commands reserved by the packet layer; the application's codes start at 1000.
enum PacketCommand : std::uint16_t {
    CmdEcho = 1,
    CmdIdentity = 2,
};
// Echo payload byte 0; further bytes come back unchanged.
enum EchoKind : std::uint8_t {
    EchoRequest = 0,
    EchoReply = 1,
};

struct PacketHeader {
    std::uint32_t length = kHeaderSize;  // header included
    std::uint16_t command = 0;
    std::uint16_t headerSize = kHeaderSize;
};

/// The header of a packet with `payloadLength` bytes of payload.
PacketHeader headerFor(std::uint32_t payloadLength, std::uint16_t command);
/// Writes the kHeaderSize header bytes.
void encodeHeader(const PacketHeader& header, std::uint8_t* out);
/// Reads the kHeaderSize header bytes; nothing is checked.
PacketHeader decodeHeader(const std::uint8_t* in);
/// Reads the kLengthFieldSize bytes of the length field alone.
std::uint32_t decodeLength(const std::uint8_t* in);

// Identity payload (sent by the daemon to each new client): pid as 4 bytes little-endian, the
// protocol's one little-endian field; then process name, version text and build tag, each as one
// length byte and that many bytes, cut to kIdentityStringMax.
constexpr std::uint32_t kIdentityStringMax = 250;
// Version text sent in place of an empty one.
constexpr const char* kUnknownVersionText = "0.00a";

struct Identity {
    std::uint32_t pid = 0;
    std::string processName;
    std::string versionText;
    std::string buildTag;
};

/// The identity payload; an empty version text goes out as kUnknownVersionText.
std::vector<std::uint8_t> encodeIdentity(const Identity& identity);
/// The reverse; false when the payload is shorter than its length bytes say.
bool decodeIdentity(const std::uint8_t* payload, std::size_t size, Identity& identity);

}  // namespace varnoch::protocol
