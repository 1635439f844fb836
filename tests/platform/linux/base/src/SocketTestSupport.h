// Test side of the client protocol: a TCP client that frames packets itself (independently of the
// code under test), a server that records what reaches the application, and console capture.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "ProprietarySocketServer.h"

// Generous: the tests must hold on a loaded two-core machine.
constexpr int kDeadlineMs = 10000;

using Bytes = std::vector<std::uint8_t>;

struct WirePacket {
    std::uint16_t command = 0;
    Bytes payload;
};

// The 8-byte big-endian header, then the payload.
Bytes frame(std::uint16_t command, const Bytes& payload);

class TestClient {
  public:
    explicit TestClient(int port, const char* address = "127.0.0.1");
    ~TestClient();
    TestClient(const TestClient&) = delete;
    TestClient& operator=(const TestClient&) = delete;

    bool connected() const { return fd_ >= 0; }
    int connectError() const { return error_; }
    bool sendRaw(const Bytes& bytes);
    bool sendPacket(std::uint16_t command, const Bytes& payload) { return sendRaw(frame(command, payload)); }
    // The next packet, or nothing when none came before the deadline or the stream ended.
    std::optional<WirePacket> readPacket(int timeoutMs = kDeadlineMs);
    // The next packet of `command`, skipping others.
    std::optional<WirePacket> readPacketOf(std::uint16_t command, int timeoutMs = kDeadlineMs);
    // True when the server ended the stream before the deadline (packets on the way are skipped).
    bool waitClosed(int timeoutMs = kDeadlineMs);
    // True when bytes are waiting right now.
    bool hasData();
    void close();

  private:
    bool readExactly(std::uint8_t* out, std::size_t length, int timeoutMs);
    int fd_ = -1;
    int error_ = 0;
};

struct Identity {
    std::uint32_t pid = 0;
    std::string processName, versionText, buildTag;
};
// Decodes a CmdIdentity payload; nothing when the lengths do not add up.
std::optional<Identity> parseIdentity(const Bytes& payload);

// Records connects, disconnects and application packets as text lines: "connected <index> <count>",
// "disconnected <index> <count>", "packet <index> <command> <payload hex>".
class RecordingServer : public ProprietarySocketServer {
  public:
    explicit RecordingServer(int slotCount, bool globalAccess = false);
    ~RecordingServer() override { stopServer(); }

    void handleNewPacketFromClient(int clientIndex, TPacket*& packet) override;
    void clientConnected(int clientIndex) override;
    void clientDisconnected(int clientIndex) override;

    // Waits until `count` events were recorded; returns all recorded so far.
    std::vector<std::string> waitEvents(std::size_t count, int timeoutMs = kDeadlineMs);
    // Waits until the last recorded event equals `event`.
    bool waitLast(const std::string& event, int timeoutMs = kDeadlineMs);

  private:
    void record(const std::string& event);
    std::mutex lock_;
    std::condition_variable changed_;
    std::vector<std::string> events_;
};

// Redirects a file descriptor (1 or 2) into a pipe drained by a thread, for the life of the object.
class OutputCapture {
  public:
    explicit OutputCapture(int fd);
    ~OutputCapture();
    OutputCapture(const OutputCapture&) = delete;
    OutputCapture& operator=(const OutputCapture&) = delete;

    // Waits until `text` occurs `times` times; returns the number of occurrences then.
    int waitFor(const std::string& text, int times, int timeoutMs = kDeadlineMs);
    int count(const std::string& text);

  private:
    int countLocked(const std::string& text) const;
    int fd_;
    int saved_ = -1;
    int readEnd_ = -1;
    std::thread reader_;
    std::mutex lock_;
    std::condition_variable changed_;
    std::string text_;
};
