// A client of the daemon's TCP protocol that frames packets itself, independently of the code under
// test, and talks as well or as badly as a test wants.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "WaitUntil.h"

using Bytes = std::vector<std::uint8_t>;
using Clock = std::chrono::steady_clock;

constexpr std::uint16_t kCmdEcho = 1;
constexpr std::uint16_t kCmdIdentity = 2;
constexpr std::uint16_t kCmdStatus = 1000;
constexpr std::uint16_t kCmdRequestStatus = 1001;
constexpr int kAnyCommand = -1;

struct WirePacket {
    std::uint16_t command = 0;
    Bytes payload;
};

// The 8-byte big-endian header with any values, then `payload`.
Bytes craftedPacket(std::uint32_t length, std::uint16_t command, std::uint16_t headerLength = 8,
                    const Bytes& payload = {});
// A well-formed packet.
Bytes packetBytes(std::uint16_t command, const Bytes& payload);

// Payload of the upload command: mode, address, identifier little-endian, the path and a terminating 0.
Bytes uploadPayload(std::uint8_t mode, std::uint8_t address, std::uint32_t identifier,
                    const std::string& path);

// A socket listening on a free loopback port, which goes to `port`; -1 when none could be had.
int listenOnLoopback(int* port);
// A TCP port that was free a moment ago (bound to port 0 and released); 0 when none could be had.
int freePort();

class TestClient {
  public:
    // Connects to `address`; check connected(). A non-zero `receiveBuffer` keeps the kernel from
    // buffering much of what the server sends.
    explicit TestClient(int port, const char* address = "127.0.0.1", int receiveBuffer = 0);
    // Takes over a connection a listener accepted.
    struct Accepted {
        int fd;
    };
    explicit TestClient(Accepted accepted) : fd_(accepted.fd) {}
    ~TestClient() { close(); }
    TestClient(const TestClient&) = delete;
    TestClient& operator=(const TestClient&) = delete;

    bool connected() const { return fd_ >= 0; }
    void close();
    // Ends our direction of the stream; the server's direction stays open.
    bool shutdownWrite();
    // False unless every byte went out.
    bool sendRaw(const Bytes& bytes);
    bool sendPacket(std::uint16_t command, const Bytes& payload) {
        return sendRaw(packetBytes(command, payload));
    }
    // Sends `bytes` over and over, reading nothing, until the server has taken nothing for `stall`;
    // false if it never stalled.
    bool floodUntilStalled(const Bytes& bytes,
                           std::chrono::milliseconds stall = std::chrono::milliseconds(300));
    // The next whole packet of `command` (kAnyCommand: any), others dropped; nothing at the deadline or
    // at the end of the stream.
    std::optional<WirePacket> readPacketOf(int command = kAnyCommand,
                                           std::chrono::milliseconds timeout = kWaitDeadline);
    // Drops what comes until the server ends the stream; false at the deadline.
    bool waitClosed(std::chrono::milliseconds timeout = kWaitDeadline);

  private:
    bool readExactly(std::uint8_t* out, std::size_t length, Clock::time_point deadline);
    int fd_ = -1;
    bool closed_ = false;
};
