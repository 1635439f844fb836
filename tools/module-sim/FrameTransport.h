// Where the simulated module meets a bus: one interface, with a SocketCAN raw socket for the tool and
// the daemon's channel layer (and through it the tests' in-process bus) as implementations.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "canchannel.h"

namespace modulesim {

class FrameTransport {
  public:
    enum class Received { Frame, Timeout, Failed };

    virtual ~FrameTransport() = default;
    // Waits at most `timeoutMs` for one data frame; Failed when the bus cannot be read any more.
    [[nodiscard]] virtual Received receive(CanFrame& frame, std::uint32_t timeoutMs) = 0;
    // Puts one frame on the bus; false when it could not be sent.
    [[nodiscard]] virtual bool send(const CanFrame& frame) = 0;
};

// A raw CAN socket bound to one interface by name ("can0", "vcan0"). Error frames and remote
// requests are not delivered; the module's own frames do not come back to it.
class SocketCanTransport final : public FrameTransport {
  public:
    // Opens and binds the socket; null with a one-line `error` when the system has no CAN sockets or
    // there is no such interface.
    static std::unique_ptr<SocketCanTransport> open(const std::string& interfaceName, std::string& error);
    ~SocketCanTransport() override;
    SocketCanTransport(const SocketCanTransport&) = delete;
    SocketCanTransport& operator=(const SocketCanTransport&) = delete;

    Received receive(CanFrame& frame, std::uint32_t timeoutMs) override;
    bool send(const CanFrame& frame) override;

  private:
    struct OwnFd {
        int fd;
    };

  public:
    // Takes over an open socket; only open() has one to give.
    explicit SocketCanTransport(OwnFd socket) : fd_(socket.fd) {}

  private:
    int fd_;
};

// One channel of the daemon's channel layer. The channel must keep a ring (its driver has no queue
// of its own, e.g. a VirtualCanBus endpoint in ChannelRing mode): the layer offers no timed wait, so
// the transport polls the ring.
class ChannelTransport final : public FrameTransport {
  public:
    explicit ChannelTransport(std::int32_t channel) : channel_(channel) {}

    Received receive(CanFrame& frame, std::uint32_t timeoutMs) override;
    bool send(const CanFrame& frame) override;

  private:
    std::int32_t channel_;
};

}  // namespace modulesim
