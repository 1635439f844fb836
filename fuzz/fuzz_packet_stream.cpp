// Fuzz target: the input as the byte stream a client sends, read packet by packet with receivePacket
// until it reports the end, as a connection's reception thread does. Every packet handed on must be
// whole and self-consistent, and the reading must never run past what was sent.
#include <sys/socket.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>

#include "ProprietarySocketCommon.h"

namespace {

using TPacket = ProprietarySocketCommon::TPacket;

void check(bool condition) {
    if (!condition) {
        std::abort();
    }
}

// Sends what the socket takes without waiting; a stream longer than its buffer is cut there, which
// only shortens the input.
std::size_t feed(int fd, const std::uint8_t* data, std::size_t size) {
    std::size_t sent = 0;
    while (sent < size) {
        const ssize_t result = send(fd, data + sent, size - sent, MSG_DONTWAIT | MSG_NOSIGNAL);
        if (result <= 0) {
            break;
        }
        sent += static_cast<std::size_t>(result);
    }
    return sent;
}

std::uint32_t bigEndian32(const std::uint8_t* bytes) {
    return std::uint32_t{bytes[0]} << 24 | std::uint32_t{bytes[1]} << 16 | std::uint32_t{bytes[2]} << 8 |
           bytes[3];
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* input, std::size_t size) {
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) {
        std::perror("socketpair");
        std::abort();
    }
    const std::size_t fed = feed(ends[0], input, size);
    (void)shutdown(ends[0], SHUT_WR);  // the reader then sees the end of the stream, as from a peer

    // Reception reuses one packet while the length stays the same; the connection threads start
    // each reception with a fresh one. Both ways are taken in turn.
    TPacket reused;
    std::size_t consumed = 0;
    for (int round = 0;; ++round) {
        auto fresh = std::make_unique<TPacket>();
        TPacket& packet = round % 2 == 0 ? reused : *fresh;
        if (!ProprietarySocketCommon::receivePacket(packet, ends[1])) {
            break;
        }
        check(packet.data != nullptr);
        check(packet.size >= ProprietarySocketCommon::kHeaderSize &&
              packet.size <= ProprietarySocketCommon::kMaxPacketSize);
        check(packet.headerSize >= ProprietarySocketCommon::kHeaderSize && packet.headerSize <= packet.size);
        check(bigEndian32(packet.data) == packet.size);
        check(packet.getPayloadSize() == packet.size - packet.headerSize);
        consumed += packet.size;
        check(consumed <= fed);
        // Every payload byte must be readable, and so must a copy's (broadcasts copy packets).
        const TPacket copy(packet);
        unsigned sum = 0;
        for (std::uint32_t i = 0; i < copy.getPayloadSize(); ++i) {
            sum += copy.getPayload()[i];
        }
        check(sum <= 255u * copy.getPayloadSize());
    }
    (void)close(ends[0]);  // nothing to do about a failing close of a socketpair end
    (void)close(ends[1]);
    return 0;
}
