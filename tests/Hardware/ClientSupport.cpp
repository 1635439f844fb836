#include "ClientSupport.h"

#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

sockaddr_in loopback(int port) {
    return sockaddr_in{AF_INET, htons(static_cast<std::uint16_t>(port)), {htonl(INADDR_LOOPBACK)}, {}};
}

// MSG_WAITALL: every byte, unless the time-out or the end of the stream comes first.
bool readExactly(int fd, std::uint8_t* out, std::size_t length, Clock::time_point deadline) {
    const auto left = std::chrono::duration_cast<std::chrono::microseconds>(deadline - Clock::now()).count();
    const timeval wait{static_cast<time_t>(left / 1000000), static_cast<suseconds_t>(left % 1000000)};
    return length == 0 || (left > 0 && setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &wait, sizeof wait) == 0 &&
                           recv(fd, out, length, MSG_WAITALL) == static_cast<ssize_t>(length));
}

}  // namespace

TestClient::TestClient(int port) : fd_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    const sockaddr_in peer = loopback(port);
    if (fd_ >= 0 && connect(fd_, reinterpret_cast<const sockaddr*>(&peer), sizeof peer) != 0) {
        close();
    }
}

void TestClient::close() {
    if (fd_ >= 0) {
        ::close(fd_);
        fd_ = -1;
    }
}

bool TestClient::sendPacket(std::uint16_t command, const Bytes& payload) {
    // Length, command, payload offset: big-endian.
    const std::uint32_t header[2] = {htonl(static_cast<std::uint32_t>(payload.size() + 8)),
                                     htonl(std::uint32_t{command} << 16 | 8)};
    Bytes bytes(reinterpret_cast<const std::uint8_t*>(header),
                reinterpret_cast<const std::uint8_t*>(header + 2));
    bytes.insert(bytes.end(), payload.begin(), payload.end());
    return send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(bytes.size());
}

std::optional<WirePacket> TestClient::readPacketOf(std::uint16_t command, std::chrono::milliseconds timeout) {
    const Clock::time_point deadline = Clock::now() + timeout;
    for (std::uint32_t header[2];
         readExactly(fd_, reinterpret_cast<std::uint8_t*>(header), 8, deadline) && ntohl(header[0]) >= 8;) {
        WirePacket packet{static_cast<std::uint16_t>(ntohl(header[1]) >> 16), Bytes(ntohl(header[0]) - 8)};
        if (!readExactly(fd_, packet.payload.data(), packet.payload.size(), deadline)) {
            break;
        }
        if (packet.command == command) {
            return packet;
        }
    }
    return std::nullopt;
}

int freePort() {
    sockaddr_in address = loopback(0);
    socklen_t length = sizeof address;
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const bool bound = fd >= 0 &&
                       bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 &&
                       getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) == 0;
    if (fd >= 0) {
        ::close(fd);
    }
    return bound ? ntohs(address.sin_port) : 0;
}
