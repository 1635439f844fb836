#include "varnoch/protocol/Packet.h"

#include <algorithm>
#include <cstring>

namespace varnoch::protocol {

namespace {

constexpr std::size_t kCommandAt = 4;
constexpr std::size_t kHeaderSizeAt = 6;
constexpr std::size_t kPidSize = 4;

void writeBigEndian32(std::uint8_t* out, std::uint32_t value) {
    out[0] = static_cast<std::uint8_t>(value >> 24);
    out[1] = static_cast<std::uint8_t>(value >> 16);
    out[2] = static_cast<std::uint8_t>(value >> 8);
    out[3] = static_cast<std::uint8_t>(value);
}

void writeBigEndian16(std::uint8_t* out, std::uint16_t value) {
    out[0] = static_cast<std::uint8_t>(value >> 8);
    out[1] = static_cast<std::uint8_t>(value);
}

std::uint16_t readBigEndian16(const std::uint8_t* in) {
    return static_cast<std::uint16_t>((in[0] << 8) | in[1]);
}

std::size_t cappedLength(const std::string& text) {
    return std::min<std::size_t>(text.size(), kIdentityStringMax);
}

}  // namespace

PacketHeader headerFor(std::uint32_t payloadLength, std::uint16_t command) {
    PacketHeader header;
    header.length = payloadLength + kHeaderSize;
    header.command = command;
    return header;
}

void encodeHeader(const PacketHeader& header, std::uint8_t* out) {
    writeBigEndian32(out, header.length);
    writeBigEndian16(out + kCommandAt, header.command);
    writeBigEndian16(out + kHeaderSizeAt, header.headerSize);
}

std::uint32_t decodeLength(const std::uint8_t* in) {
    return (std::uint32_t{in[0]} << 24) | (std::uint32_t{in[1]} << 16) | (std::uint32_t{in[2]} << 8) |
           std::uint32_t{in[3]};
}

PacketHeader decodeHeader(const std::uint8_t* in) {
    PacketHeader header;
    header.length = decodeLength(in);
    header.command = readBigEndian16(in + kCommandAt);
    header.headerSize = readBigEndian16(in + kHeaderSizeAt);
    return header;
}

std::vector<std::uint8_t> encodeIdentity(const Identity& identity) {
    const std::string version = identity.versionText.empty() ? kUnknownVersionText : identity.versionText;
    const std::string* const texts[] = {&identity.processName, &version, &identity.buildTag};
    std::vector<std::uint8_t> payload;
    payload.reserve(kPidSize + std::size_t{3} * (1 + kIdentityStringMax));
    for (std::size_t shift = 0; shift < 8 * kPidSize; shift += 8) {
        payload.push_back(static_cast<std::uint8_t>(identity.pid >> shift));
    }
    for (const std::string* text : texts) {
        const std::size_t length = cappedLength(*text);
        payload.push_back(static_cast<std::uint8_t>(length));
        payload.insert(payload.end(), text->begin(), text->begin() + static_cast<std::ptrdiff_t>(length));
    }
    return payload;
}

bool decodeIdentity(const std::uint8_t* payload, std::size_t size, Identity& identity) {
    if (size < kPidSize) {
        return false;
    }
    identity.pid = 0;
    for (std::size_t i = 0; i < kPidSize; ++i) {
        identity.pid |= std::uint32_t{payload[i]} << (8 * i);
    }
    std::size_t at = kPidSize;
    for (std::string* text : {&identity.processName, &identity.versionText, &identity.buildTag}) {
        if (at >= size || size - at - 1 < payload[at]) {
            return false;
        }
        const std::size_t length = payload[at];
        text->assign(reinterpret_cast<const char*>(payload + at + 1), length);
        at += 1 + length;
    }
    return true;
}

}  // namespace varnoch::protocol
