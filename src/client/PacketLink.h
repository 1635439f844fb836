// The client's TCP stream to the daemon: connecting with a time-out, and whole packets in and out.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

#include "varnoch/client.h"

namespace varnoch::client {

using Clock = std::chrono::steady_clock;

/// A point in time to wait until, or none.
struct Deadline {
    /// `timeout` from now; kNoLimit (any negative time-out) never expires.
    explicit Deadline(Millis timeout) noexcept
        : unlimited(timeout.count() < 0), at(Clock::now() + (unlimited ? Millis(0) : timeout)) {}
    /// Milliseconds left for poll(): -1 without limit, 0 once passed.
    [[nodiscard]] int pollTimeout() const noexcept;

    bool unlimited;
    Clock::time_point at;
};

/// One received packet.
struct Packet {
    std::uint16_t command = 0;
    std::vector<std::uint8_t> payload;
};

/// A connected stream socket and the bytes read from it that do not yet make a whole packet.
class PacketLink {
  public:
    PacketLink() noexcept = default;
    ~PacketLink() { close(); }
    PacketLink(const PacketLink&) = delete;
    PacketLink& operator=(const PacketLink&) = delete;

    /// Connects to host:port by the deadline; on failure `errorText` says why (the connection
    /// failures of Error, TimedOut included).
    Error connect(const std::string& host, std::uint16_t port, const Deadline& deadline,
                  std::string& errorText);
    /// Closes the socket; nothing when there is none.
    void close() noexcept;
    /// True while the socket is open.
    [[nodiscard]] bool open() const noexcept { return fd_ >= 0; }

    /// Sends one packet; false when the connection is gone.
    [[nodiscard]] bool send(std::uint16_t command, const std::uint8_t* payload, std::size_t size);
    /// The next packet: None, TimedOut, or ConnectionLost (end of stream, an error, or bytes that
    /// break the packet format's limits).
    Error receive(Packet& packet, const Deadline& deadline);

  private:
    int fd_ = -1;
    std::vector<std::uint8_t> received_;
};

}  // namespace varnoch::client
