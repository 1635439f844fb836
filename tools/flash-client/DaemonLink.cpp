#include "DaemonLink.h"

#include <netdb.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdlib>
#include <cstring>

#include "ProprietarySocketCommon.h"

namespace flashclient {

namespace {

using Packet = ProprietarySocketCommon::TPacket;

std::string endpointText(const std::string& host, std::uint16_t port) {
    const bool ipv6Literal = host.find(':') != std::string::npos;
    return (ipv6Literal ? "[" + host + "]" : host) + ":" + std::to_string(port);
}

}  // namespace

std::unique_ptr<DaemonLink> DaemonLink::connect(const std::string& host, std::uint16_t port,
                                                std::string& error) {
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_NUMERICSERV;
    addrinfo* found = nullptr;
    const int resolved = getaddrinfo(host.c_str(), std::to_string(port).c_str(), &hints, &found);
    if (resolved != 0) {
        error = "cannot connect to " + endpointText(host, port) + ": " + gai_strerror(resolved);
        return nullptr;
    }
    const std::unique_ptr<addrinfo, void (*)(addrinfo*)> results(found, freeaddrinfo);
    int lastError = ECONNREFUSED;
    for (const addrinfo* candidate = found; candidate != nullptr; candidate = candidate->ai_next) {
        const int fd =
            socket(candidate->ai_family, candidate->ai_socktype | SOCK_CLOEXEC, candidate->ai_protocol);
        if (fd < 0) {
            lastError = errno;
            continue;
        }
        if (::connect(fd, candidate->ai_addr, candidate->ai_addrlen) == 0) {
            return std::make_unique<DaemonLink>(fd);
        }
        lastError = errno;
        // Never connected, so closing it can lose nothing.
        static_cast<void>(close(fd));
    }
    error = "cannot connect to " + endpointText(host, port) + ": " + std::strerror(lastError);
    return nullptr;
}

DaemonLink::~DaemonLink() {
    // Everything the tool sent was answered before it lets go of the link.
    static_cast<void>(close(fd_));
}

bool DaemonLink::send(std::uint16_t command, const std::uint8_t* payload, std::uint32_t size) {
    Packet packet(size, command);
    if (packet.data == nullptr) {
        return false;
    }
    if (size > 0) {
        std::memcpy(packet.getPayload(), payload, size);
    }
    // MSG_NOSIGNAL: a daemon that went away must end in "connection lost", not in SIGPIPE.
    std::uint32_t sent = 0;
    while (sent < packet.size) {
        const ssize_t count = ::send(fd_, packet.data + sent, packet.size - sent, MSG_NOSIGNAL);
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (count <= 0) {
            return false;
        }
        sent += static_cast<std::uint32_t>(count);
    }
    return true;
}

DaemonLink::Wait DaemonLink::nextStatus(CANFlasher::FlashStatus& status, int timeoutMs) {
    using Clock = std::chrono::steady_clock;
    const auto deadline = Clock::now() + std::chrono::milliseconds(timeoutMs < 0 ? 0 : timeoutMs);
    Packet packet;
    while (true) {
        int waitMs = -1;
        if (timeoutMs >= 0) {
            const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
            waitMs = left <= 0 ? 0 : left > INT_MAX ? INT_MAX : static_cast<int>(left);
        }
        pollfd readable{fd_, POLLIN, 0};
        const int ready = poll(&readable, 1, waitMs);
        if (ready < 0 && errno == EINTR) {
            continue;
        }
        if (ready == 0) {
            return Wait::TimedOut;
        }
        // A poll failure or a hang-up both show in the read that follows.
        if (!ProprietarySocketCommon::receivePacket(packet, fd_)) {
            return Wait::Closed;
        }
        if (packet.getCommand() == CANFlasher::CmdStatus &&
            packet.getPayloadSize() >= CANFlasher::FlashStatus::kWireSize) {
            status = CANFlasher::FlashStatus::fromWire(packet.getPayload());
            return Wait::Status;
        }
    }
}

std::vector<std::uint8_t> buildUploadPayload(std::int32_t mode, std::uint8_t address,
                                             std::uint32_t identifier, const std::string& path) {
    CANFlasher::UploadRequest request;
    request.mode = mode;
    request.address = address;
    request.identifier = identifier;
    request.path = path;
    return request.toPayload();
}

std::string absolutePath(const std::string& file) {
    const std::unique_ptr<char, void (*)(void*)> resolved(realpath(file.c_str(), nullptr), std::free);
    if (resolved) {
        return resolved.get();
    }
    if (!file.empty() && file[0] == '/') {
        return file;
    }
    const std::unique_ptr<char, void (*)(void*)> directory(getcwd(nullptr, 0), std::free);
    if (!directory) {
        return file;  // no working directory to join to: the daemon's own will be used
    }
    return std::string(directory.get()) + "/" + file;
}

}  // namespace flashclient
