// Test side of the TCP protocol as the flasher's clients see it: a client that frames packets itself,
// and a capture of the process's standard output for awaiting the server's console lines.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
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
    ~TestClient();
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
    bool readExactly(std::uint8_t* out, std::size_t length, Clock::time_point deadline);
    int fd_ = -1;
};

// Redirects standard output (descriptor 1) into a pipe drained by a thread, for the life of the object;
// what was captured is written out at the end.
class OutputCapture {
  public:
    OutputCapture();
    ~OutputCapture();
    OutputCapture(const OutputCapture&) = delete;
    OutputCapture& operator=(const OutputCapture&) = delete;

    // Waits until `text` occurs `times` times; returns the number of occurrences then.
    int waitFor(const std::string& text, int times, std::chrono::milliseconds timeout = kDeadline);
    int count(const std::string& text);

  private:
    int countLocked(const std::string& text) const;
    int saved_ = -1;
    int readEnd_ = -1;
    std::thread reader_;
    std::mutex lock_;
    std::condition_variable changed_;
    std::string text_;
};

// A TCP port that was free a moment ago (bound to port 0 and released).
int freePort();
