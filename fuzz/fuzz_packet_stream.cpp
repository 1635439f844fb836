// Fuzz target: the input as the byte stream a client sends, read packet by packet with receivePacket
// until it reports the end, as a connection's reception thread does. Every packet handed on must be
// whole and self-consistent, and the reading must never run past what was sent.
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <memory>

#include "FuzzSupport.h"
#include "ProprietarySocketCommon.h"

using varnochfuzz::check;

using TPacket = ProprietarySocketCommon::TPacket;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* input, std::size_t size) {
    int ends[2];
    check(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) == 0);
    // What the socket takes without waiting; a longer stream is cut there, which only shortens the input.
    const ssize_t sent = send(ends[0], input, size, MSG_DONTWAIT | MSG_NOSIGNAL);
    const std::size_t fed = sent > 0 ? static_cast<std::size_t>(sent) : 0;
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
        check(varnochfuzz::InputReader(packet.data, 4).take(4) == packet.size);
        check(packet.getPayloadSize() == packet.size - packet.headerSize);
        consumed += packet.size;
        check(consumed <= fed);
        // Every payload byte must be readable, and so must a copy's (broadcasts copy packets).
        const TPacket copy(packet);
        check(std::equal(copy.getPayload(), copy.getPayload() + copy.getPayloadSize(), packet.getPayload()));
    }
    (void)close(ends[0]);  // nothing to do about a failing close of a socketpair end
    (void)close(ends[1]);
    return 0;
}
