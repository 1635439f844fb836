// Test side of the TCP protocol as the flasher's clients see it: a client that frames packets itself.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <vector>

using Bytes = std::vector<std::uint8_t>;
using Clock = std::chrono::steady_clock;

// Generous: the tests must hold on a loaded two-core machine.
constexpr std::chrono::milliseconds kDeadline{10000};

struct WirePacket {
    std::uint16_t command = 0;
    Bytes payload;
};

class TestClient {
  public:
    // Connects to the loopback address; check connected().
    explicit TestClient(int port);
    ~TestClient() { close(); }
    TestClient(const TestClient&) = delete;
    TestClient& operator=(const TestClient&) = delete;
    bool connected() const { return fd_ >= 0; }
    // The 8-byte big-endian header, then the payload; false unless every byte went out.
    bool sendPacket(std::uint16_t command, const Bytes& payload);
    // The next packet of `command`, skipping others; nothing when none came in time or the stream ended.
    std::optional<WirePacket> readPacketOf(std::uint16_t command,
                                           std::chrono::milliseconds timeout = kDeadline);
    void close();

  private:
    int fd_ = -1;
};

// A TCP port that was free a moment ago (bound to port 0 and released).
int freePort();
