// An in-process CAN bus for tests: channels attach to it through VirtualCanBus::driver and exchange
// frames without kernel CAN support. Like a real bus without loop-back, a frame sent through one
// endpoint reaches every other endpoint but not the sender; every sent frame is also kept for the
// test (waitForSent). Destroying the bus releases every receiver still blocked on it.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>

#include "canchannel.h"

class VirtualCanBus {
  public:
    // How an endpoint's channel takes its frames.
    enum class Reception {
        DriverQueue,  // the driver keeps the queue; operation 9 blocks until a frame or shut-down
        ChannelRing,  // the driver answers operation 6 with 0, so the channel makes a ring and polls
    };
    // The queue size an endpoint reports for operation 6 in DriverQueue mode.
    static constexpr std::uint16_t kReportedQueueSize = 256;

    VirtualCanBus();
    ~VirtualCanBus() { shutdown(); }  // its endpoints are refused from then on
    VirtualCanBus(const VirtualCanBus&) = delete;
    VirtualCanBus& operator=(const VirtualCanBus&) = delete;

    // The driver to attach channels with; answers 0 for an unknown endpoint or a shut-down bus.
    static std::uint32_t driver(CanDriverRequest* request, std::int32_t driverArgument);
    // Claims an endpoint; returns the driver argument to attach with (never one of another bus).
    std::int32_t addEndpoint(Reception reception = Reception::DriverQueue);
    // Delivers a frame to one endpoint, as if another node had sent it.
    void injectTo(std::int32_t endpoint, const CanFrame& frame);
    // Takes the oldest sent frame not yet taken; false when none came within the timeout.
    bool waitForSent(CanFrame* frame, std::chrono::milliseconds timeout);
    // Wakes every blocked receiver (they return 0); afterwards every operation answers 0.
    void shutdown();

    struct State;

  private:
    std::shared_ptr<State> state_;
};
