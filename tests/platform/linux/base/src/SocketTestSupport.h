// Test side of the client protocol: a TCP client that frames packets itself (independently of the code
// under test) and a server that records what reaches the application.
#pragma once

#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "ProprietarySocketServer.h"

using Bytes = std::vector<std::uint8_t>;
constexpr int kDeadlineSeconds = 10;  // generous: the tests must hold on a loaded two-core machine

// The 8-byte big-endian header (with the true wire length unless another is given), then the payload.
inline Bytes frame(std::uint16_t command, const Bytes& payload,
                   std::optional<std::uint32_t> wireLength = {}) {
    const std::uint32_t length = wireLength.value_or(static_cast<std::uint32_t>(payload.size() + 8));
    using Byte = std::uint8_t;
    Bytes bytes = {Byte(length >> 24), Byte(length >> 16), Byte(length >> 8), Byte(length)};
    bytes.insert(bytes.end(), {Byte(command >> 8), Byte(command), 0, 8});
    bytes.insert(bytes.end(), payload.begin(), payload.end());
    return bytes;
}

// Every read waits at most kDeadlineSeconds (SO_RCVTIMEO).
class TestClient {
  public:
    explicit TestClient(int port, const char* address = "127.0.0.1") {
        const timeval deadline{kDeadlineSeconds, 0};
        sockaddr_in peer{};
        peer.sin_family = AF_INET;
        peer.sin_port = htons(static_cast<std::uint16_t>(port));
        if (setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &deadline, sizeof deadline) != 0 ||
            inet_pton(AF_INET, address, &peer.sin_addr) != 1 ||
            connect(fd_, reinterpret_cast<const sockaddr*>(&peer), sizeof peer) != 0) {
            close();
        }
    }
    ~TestClient() { close(); }

    bool connected() const { return fd_ >= 0; }
    void close() {
        ::close(fd_);  // result ignored on purpose: only the peer's view of the end matters to the tests
        fd_ = -1;
    }
    bool sendRaw(const Bytes& bytes) {
        return send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(bytes.size());
    }
    bool sendPacket(std::uint16_t command, const Bytes& payload) { return sendRaw(frame(command, payload)); }
    // Payload of the next packet of `command` (any for 0), skipping others; nothing when none came.
    std::optional<Bytes> readPacket(std::uint16_t command = 0) {
        std::uint8_t header[8];
        if (recv(fd_, header, 8, MSG_WAITALL) != 8) {
            return std::nullopt;
        }
        Bytes payload((std::uint32_t{header[0]} << 24 | header[1] << 16 | header[2] << 8 | header[3]) - 8);
        if (!payload.empty() &&
            recv(fd_, payload.data(), payload.size(), MSG_WAITALL) != static_cast<ssize_t>(payload.size())) {
            return std::nullopt;
        }
        return command == 0 || ((header[4] << 8) | header[5]) == command ? payload : readPacket(command);
    }
    // True when the server ended the stream (what still comes before the end is skipped).
    bool waitClosed() {
        std::uint8_t sink[256];
        ssize_t got;
        while ((got = recv(fd_, sink, sizeof sink, 0)) > 0) {
        }
        return got == 0 || errno == ECONNRESET;
    }

  private:
    int fd_ = socket(AF_INET, SOCK_STREAM, 0);
};

// Listens on an ephemeral loopback port and records "connected <index> <count>", "disconnected <index>
// <count>" and "packet <index> <command> <payload bytes>" as they happen.
class RecordingServer : public ProprietarySocketServer {
  public:
    explicit RecordingServer(int slotCount, bool globalAccess = false)
        : ProprietarySocketServer(0, slotCount) {
        startServer(globalAccess);
    }
    ~RecordingServer() override { stopServer(); }

    void handleNewPacketFromClient(int clientIndex, TPacket*& packet) override {
        std::string event =
            "packet " + std::to_string(clientIndex) + " " + std::to_string(packet->getCommand());
        for (std::uint32_t i = 0; i < packet->getPayloadSize(); ++i) {
            event += " " + std::to_string(packet->getPayload()[i]);
        }
        record(event);
    }
    void clientConnected(int clientIndex) override {
        ProprietarySocketServer::clientConnected(clientIndex);
        record("connected " + std::to_string(clientIndex) + " " + std::to_string(clientCount()));
    }
    void clientDisconnected(int clientIndex) override {
        ProprietarySocketServer::clientDisconnected(clientIndex);
        record("disconnected " + std::to_string(clientIndex) + " " + std::to_string(clientCount()));
    }
    // Waits until `count` events were recorded; returns all recorded so far.
    std::vector<std::string> waitEvents(std::size_t count) {
        std::unique_lock<std::mutex> guard(lock_);
        changed_.wait_for(guard, std::chrono::seconds(kDeadlineSeconds),
                          [&] { return events_.size() >= count; });
        return events_;
    }

  private:
    void record(const std::string& event) {
        const std::lock_guard<std::mutex> guard(lock_);
        events_.push_back(event);
        changed_.notify_all();
    }
    std::mutex lock_;
    std::condition_variable changed_;
    std::vector<std::string> events_;
};
