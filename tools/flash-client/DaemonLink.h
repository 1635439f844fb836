// varnoch-flash's TCP connection to the daemon: sends flasher commands and picks the status packets
// out of what the daemon sends (identity packets and anything else are passed over).
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "varnoch/protocol/FlashTypes.h"

namespace flashclient {

class DaemonLink {
  public:
    enum class Wait { Status, Closed, TimedOut };

    // Connects to host:port; null with `error` = "cannot connect to HOST:PORT: reason" on failure.
    static std::unique_ptr<DaemonLink> connect(const std::string& host, std::uint16_t port,
                                               std::string& error);
    // Takes over a connected stream socket.
    explicit DaemonLink(int fd) : fd_(fd) {}
    ~DaemonLink();
    DaemonLink(const DaemonLink&) = delete;
    DaemonLink& operator=(const DaemonLink&) = delete;

    // Sends one packet with `command` and the payload; false when the connection is gone.
    bool send(std::uint16_t command, const std::uint8_t* payload = nullptr, std::uint32_t size = 0);
    // Waits for the next status packet, at most `timeoutMs` (negative: without limit). Closed when the
    // daemon ended the connection or sent something that is not a packet.
    Wait nextStatus(CANFlasher::FlashStatus& status, int timeoutMs);

  private:
    int fd_;
};

// Payload of an upload request: mode, address, identifier (little-endian), the path and a 0 byte.
std::vector<std::uint8_t> buildUploadPayload(std::int32_t mode, std::uint8_t address,
                                             std::uint32_t identifier, const std::string& path);

// The file's absolute path: resolved when it exists, otherwise joined to the working directory, so that
// the daemon (with its own working directory) looks for the same file and reports it missing.
std::string absolutePath(const std::string& file);

}  // namespace flashclient
