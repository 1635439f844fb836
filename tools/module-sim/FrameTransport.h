// Where the simulated module meets a bus: the tools' frame interface, with the shared SocketCAN
// transport for the tool and the daemon's channel layer (and through it the tests' in-process bus) as
// implementations.
#pragma once

#include <cstdint>

#include "CanTransport.h"
#include "canchannel.h"

namespace modulesim {

using toolsupport::FrameTransport;
using toolsupport::SocketCanTransport;

// One channel of the daemon's channel layer. The channel must keep a ring (its driver has no queue
// of its own, e.g. a VirtualCanBus endpoint in ChannelRing mode): the layer offers no timed wait, so
// the transport polls the ring.
class ChannelTransport final : public FrameTransport {
  public:
    explicit ChannelTransport(std::int32_t channel) : channel_(channel) {}

    Received receive(CanFrame& frame, std::uint32_t timeoutMs) override;
    bool send(const CanFrame& frame) override;
    std::chrono::steady_clock::time_point receivedAt() const override { return receivedAt_; }

  private:
    std::int32_t channel_;
    std::chrono::steady_clock::time_point receivedAt_{};
};

}  // namespace modulesim
