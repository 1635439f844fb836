// Stand-in for the protocol library until it is on main: the few wire facts the client needs, kept in
// this one file so that switching over touches nothing else.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "varnoch/client.h"

namespace varnoch::client::wire {

constexpr std::size_t kHeaderSize = 8;
constexpr std::uint32_t kMaxPacketSize = 65536;
constexpr std::size_t kStatusSize = 8;

enum Command : std::uint16_t {
    CmdEcho = 1,
    CmdIdentity = 2,
    CmdStatus = 1000,
    CmdRequestStatus = 1001,
    CmdReset = 1002,
    CmdSetLock = 1003,
    CmdUploadHexFile = 1004,
    CmdExitWhenIdle = 1005,
};

inline void encodeHeader(std::uint32_t length, std::uint16_t command, std::uint8_t* out) {
    out[0] = static_cast<std::uint8_t>(length >> 24);
    out[1] = static_cast<std::uint8_t>(length >> 16);
    out[2] = static_cast<std::uint8_t>(length >> 8);
    out[3] = static_cast<std::uint8_t>(length);
    out[4] = static_cast<std::uint8_t>(command >> 8);
    out[5] = static_cast<std::uint8_t>(command);
    out[6] = 0;
    out[7] = static_cast<std::uint8_t>(kHeaderSize);
}

struct Header {
    std::uint32_t length;
    std::uint16_t command;
    std::uint16_t headerLength;
};

inline Header decodeHeader(const std::uint8_t* in) {
    return {static_cast<std::uint32_t>(in[0]) << 24 | static_cast<std::uint32_t>(in[1]) << 16 |
                static_cast<std::uint32_t>(in[2]) << 8 | in[3],
            static_cast<std::uint16_t>(in[4] << 8 | in[5]), static_cast<std::uint16_t>(in[6] << 8 | in[7])};
}

inline std::uint32_t littleEndian32(const std::uint8_t* in) {
    return static_cast<std::uint32_t>(in[3]) << 24 | static_cast<std::uint32_t>(in[2]) << 16 |
           static_cast<std::uint32_t>(in[1]) << 8 | in[0];
}

inline Status decodeStatus(const std::uint8_t* in) {
    return Status{in[0], in[1], in[2], in[3], littleEndian32(in + 4)};
}

inline std::vector<std::uint8_t> encodeUpload(std::uint8_t mode, std::uint8_t address,
                                              std::uint32_t identifier, const std::string& path) {
    std::vector<std::uint8_t> payload{mode, address};
    for (int shift = 0; shift < 32; shift += 8) {
        payload.push_back(static_cast<std::uint8_t>(identifier >> shift));
    }
    payload.insert(payload.end(), path.begin(), path.end());
    payload.push_back(0);
    return payload;
}

inline bool decodeIdentity(const std::uint8_t* in, std::size_t size, Identity& identity) {
    if (size < 4) {
        return false;
    }
    identity.pid = littleEndian32(in);
    std::size_t at = 4;
    for (std::string* text : {&identity.processName, &identity.versionText, &identity.buildTag}) {
        if (at >= size || at + 1 + in[at] > size) {
            return false;
        }
        text->assign(reinterpret_cast<const char*>(in + at + 1), in[at]);
        at += 1 + in[at];
    }
    return true;
}

}  // namespace varnoch::client::wire
