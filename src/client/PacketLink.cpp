#include "PacketLink.h"

#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <memory>

#include "varnoch/protocol/Packet.h"

namespace varnoch::client {

namespace {

std::string endpointText(const std::string& host, std::uint16_t port) {
    const bool ipv6Literal = host.find(':') != std::string::npos;
    return (ipv6Literal ? "[" + host + "]" : host) + ":" + std::to_string(port);
}

// Waits for a non-blocking connect to finish; 0 or the errno it failed with (ETIMEDOUT at the deadline).
int finishConnect(int fd, const Deadline& deadline) {
    while (true) {
        pollfd writable{fd, POLLOUT, 0};
        const int ready = poll(&writable, 1, deadline.pollTimeout());
        if (ready < 0 && errno == EINTR) {
            continue;
        }
        if (ready < 0) {
            return errno;
        }
        if (ready == 0) {
            return ETIMEDOUT;
        }
        int error = 0;
        socklen_t size = sizeof error;
        if (getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &size) != 0) {
            return errno;
        }
        return error;
    }
}

}  // namespace

int Deadline::pollTimeout() const noexcept {
    if (unlimited) {
        return -1;
    }
    const auto left = std::chrono::ceil<Millis>(at - Clock::now()).count();
    return left <= 0 ? 0 : left > INT_MAX ? INT_MAX : static_cast<int>(left);
}

Error PacketLink::connect(const std::string& host, std::uint16_t port, const Deadline& deadline,
                          std::string& errorText) {
    close();
    const std::string prefix = "cannot connect to " + endpointText(host, port) + ": ";
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_NUMERICSERV;
    addrinfo* found = nullptr;
    const int resolved = getaddrinfo(host.c_str(), std::to_string(port).c_str(), &hints, &found);
    if (resolved != 0) {
        errorText = prefix + gai_strerror(resolved);
        return Error::CannotResolve;
    }
    const std::unique_ptr<addrinfo, void (*)(addrinfo*)> results(found, freeaddrinfo);
    int lastError = ECONNREFUSED;
    for (const addrinfo* candidate = found; candidate != nullptr; candidate = candidate->ai_next) {
        const int fd = socket(candidate->ai_family, candidate->ai_socktype | SOCK_CLOEXEC | SOCK_NONBLOCK,
                              candidate->ai_protocol);
        if (fd < 0) {
            lastError = errno;
            continue;
        }
        lastError = ::connect(fd, candidate->ai_addr, candidate->ai_addrlen) == 0 ? 0 : errno;
        if (lastError == EINPROGRESS) {
            lastError = finishConnect(fd, deadline);
        }
        const int flags = lastError == 0 ? fcntl(fd, F_GETFL) : -1;
        if (lastError == 0 && (flags < 0 || fcntl(fd, F_SETFL, flags & ~O_NONBLOCK) != 0)) {
            lastError = errno;
        }
        if (lastError == 0) {
            // Commands are small and often come in pairs; without this the second would wait for the
            // acknowledgement of the first. Failing to set it costs only that wait.
            const int on = 1;
            static_cast<void>(setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on));
            fd_ = fd;
            return Error::None;
        }
        // Never connected, so closing it can lose nothing.
        static_cast<void>(::close(fd));
        if (lastError == ETIMEDOUT) {
            break;  // the time is up for every further address too
        }
    }
    errorText = prefix + std::strerror(lastError);
    return lastError == ECONNREFUSED ? Error::Refused : Error::CannotConnect;
}

void PacketLink::close() noexcept {
    if (fd_ >= 0) {
        // Everything sent is in the kernel's hands; a failing close loses nothing of ours.
        static_cast<void>(::close(fd_));
        fd_ = -1;
    }
    received_.clear();
}

bool PacketLink::send(std::uint16_t command, const std::uint8_t* payload, std::size_t size) {
    if (fd_ < 0 || size > protocol::kMaxPacketSize - protocol::kHeaderSize) {
        return false;
    }
    std::vector<std::uint8_t> bytes(protocol::kHeaderSize + size);
    protocol::encodeHeader(protocol::headerFor(static_cast<std::uint32_t>(size), command), bytes.data());
    if (size > 0) {
        std::memcpy(bytes.data() + protocol::kHeaderSize, payload, size);
    }
    // MSG_NOSIGNAL: a daemon that went away must give "connection lost", not SIGPIPE.
    for (std::size_t sent = 0; sent < bytes.size();) {
        const ssize_t count = ::send(fd_, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (count <= 0) {
            return false;
        }
        sent += static_cast<std::size_t>(count);
    }
    return true;
}

Error PacketLink::receive(Packet& packet, const Deadline& deadline) {
    while (true) {
        if (fd_ < 0) {
            return Error::ConnectionLost;
        }
        if (received_.size() >= protocol::kHeaderSize) {
            const protocol::PacketHeader header = protocol::decodeHeader(received_.data());
            if (header.length < protocol::kHeaderSize || header.length > protocol::kMaxPacketSize ||
                header.headerSize < protocol::kHeaderSize || header.headerSize > header.length) {
                close();
                return Error::ConnectionLost;
            }
            if (received_.size() >= header.length) {
                packet.command = header.command;
                const auto payloadAt = static_cast<std::ptrdiff_t>(header.headerSize);
                const auto end = static_cast<std::ptrdiff_t>(header.length);
                packet.payload.assign(received_.begin() + payloadAt, received_.begin() + end);
                received_.erase(received_.begin(), received_.begin() + end);
                return Error::None;
            }
        }
        pollfd readable{fd_, POLLIN, 0};
        const int ready = poll(&readable, 1, deadline.pollTimeout());
        if (ready < 0 && errno == EINTR) {
            continue;
        }
        if (ready == 0) {
            return Error::TimedOut;
        }
        // A poll failure or a hang-up both show in the read that follows.
        std::uint8_t chunk[4096];
        const ssize_t count = recv(fd_, chunk, sizeof chunk, 0);
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (count <= 0) {
            close();
            return Error::ConnectionLost;
        }
        received_.insert(received_.end(), chunk, chunk + count);
    }
}

}  // namespace varnoch::client
