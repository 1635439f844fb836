#include "TestClient.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>

namespace {

int msUntil(Clock::time_point deadline) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
    return left > 0 ? static_cast<int>(left) : 0;
}

}  // namespace

Bytes craftedPacket(std::uint32_t length, std::uint16_t command, std::uint16_t headerLength,
                    const Bytes& payload) {
    Bytes bytes;
    const std::uint64_t header = std::uint64_t{length} << 32 | std::uint64_t{command} << 16 | headerLength;
    for (int shift = 56; shift >= 0; shift -= 8) {
        bytes.push_back(static_cast<std::uint8_t>(header >> shift));
    }
    bytes.insert(bytes.end(), payload.begin(), payload.end());
    return bytes;
}

Bytes packetBytes(std::uint16_t command, const Bytes& payload) {
    return craftedPacket(static_cast<std::uint32_t>(payload.size() + 8), command, 8, payload);
}

Bytes uploadPayload(std::uint8_t mode, std::uint8_t address, std::uint32_t identifier,
                    const std::string& path) {
    Bytes payload{mode, address};
    for (int shift = 0; shift < 32; shift += 8) {
        payload.push_back(static_cast<std::uint8_t>(identifier >> shift));
    }
    payload.insert(payload.end(), path.begin(), path.end());
    payload.push_back(0);
    return payload;
}

int listenOnLoopback(int* port) {
    sockaddr_in address{AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
    socklen_t length = sizeof address;
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    EXPECT_TRUE(fd >= 0 && bind(fd, reinterpret_cast<const sockaddr*>(&address), length) == 0 &&
                listen(fd, 5) == 0 && getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) == 0)
        << "no loopback listener";
    *port = ntohs(address.sin_port);
    return fd;
}

int freePort() {
    int port = 0;
    (void)::close(listenOnLoopback(&port));  // never used for anything
    return port;
}

TestClient::TestClient(int port, const char* address, int receiveBuffer)
    : fd_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in peer{AF_INET, htons(static_cast<std::uint16_t>(port)), {}, {}};
    const int on = 1;  // requests go out at once, not after the answer to the one before (Nagle)
    if (fd_ >= 0 && (inet_pton(AF_INET, address, &peer.sin_addr) != 1 ||
                     (receiveBuffer > 0 &&
                      setsockopt(fd_, SOL_SOCKET, SO_RCVBUF, &receiveBuffer, sizeof receiveBuffer) != 0) ||
                     connect(fd_, reinterpret_cast<const sockaddr*>(&peer), sizeof peer) != 0 ||
                     setsockopt(fd_, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on) != 0)) {
        close();
    }
}

void TestClient::close() {
    if (fd_ >= 0) {
        (void)::close(fd_);  // only the server's view of the end matters
        fd_ = -1;
    }
}

bool TestClient::shutdownWrite() {
    return fd_ >= 0 && shutdown(fd_, SHUT_WR) == 0;
}

bool TestClient::sendRaw(const Bytes& bytes) {
    // A blocking stream socket sends everything unless a signal interrupts, and this process takes none.
    return fd_ >= 0 &&
           send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(bytes.size());
}

bool TestClient::floodUntilStalled(const Bytes& bytes, std::chrono::milliseconds stall) {
    const auto deadline = Clock::now() + kWaitDeadline;
    for (std::size_t offset = 0; fd_ >= 0 && Clock::now() < deadline;) {
        const ssize_t sent =
            send(fd_, bytes.data() + offset, bytes.size() - offset, MSG_DONTWAIT | MSG_NOSIGNAL);
        pollfd wait{fd_, POLLOUT, 0};
        if (sent > 0) {
            offset = (offset + static_cast<std::size_t>(sent)) % bytes.size();
        } else if (errno != EAGAIN && errno != EINTR) {
            return false;
        } else if (poll(&wait, 1, static_cast<int>(stall.count())) == 0) {
            return true;
        }
    }
    return false;
}

bool TestClient::readExactly(std::uint8_t* out, std::size_t length, Clock::time_point deadline) {
    for (std::size_t done = 0; done < length;) {
        // The server's next small packet is not held back for our delayed acknowledgement; only speed.
        const int on = 1;
        (void)setsockopt(fd_, IPPROTO_TCP, TCP_QUICKACK, &on, sizeof on);
        pollfd wait{fd_, POLLIN, 0};
        const ssize_t got =
            poll(&wait, 1, msUntil(deadline)) > 0 ? recv(fd_, out + done, length - done, 0) : -2;
        closed_ = closed_ || got == 0 || (got == -1 && errno == ECONNRESET);
        if (got <= 0) {
            return false;
        }
        done += static_cast<std::size_t>(got);
    }
    return true;
}

std::optional<WirePacket> TestClient::readPacketOf(int command, std::chrono::milliseconds timeout) {
    const auto deadline = Clock::now() + timeout;
    for (std::uint32_t header[2]; fd_ >= 0 &&
                                  readExactly(reinterpret_cast<std::uint8_t*>(header), 8, deadline) &&
                                  ntohl(header[0]) >= 8 && (ntohl(header[1]) & 0xFFFF) == 8;) {
        WirePacket packet{static_cast<std::uint16_t>(ntohl(header[1]) >> 16), Bytes(ntohl(header[0]) - 8)};
        if (!readExactly(packet.payload.data(), packet.payload.size(), deadline)) {
            break;
        }
        if (command == kAnyCommand || command == packet.command) {
            return packet;
        }
    }
    return std::nullopt;
}

bool TestClient::waitClosed(std::chrono::milliseconds timeout) {
    const auto deadline = Clock::now() + timeout;
    while (readPacketOf(kAnyCommand, std::chrono::milliseconds(msUntil(deadline)))) {
    }
    return closed_;
}
