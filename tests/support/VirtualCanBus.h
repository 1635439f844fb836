// An in-process CAN bus for tests: channels of one process attach to it through VirtualCanBus::driver
// and exchange frames without any kernel CAN support. A test creates the bus; nothing is shared
// between buses, and destroying one releases every receiver still blocked on it.
//
// Like a real bus without loop-back, a frame sent through one endpoint reaches every other endpoint
// of the bus but not the sender. Every sent frame is also kept for the test (waitForSent).
#pragma once

#include <chrono>
#include <cstddef>
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
    // Shuts the bus down and gives its endpoints back to the process-wide table.
    ~VirtualCanBus();
    VirtualCanBus(const VirtualCanBus&) = delete;
    VirtualCanBus& operator=(const VirtualCanBus&) = delete;

    // The driver to attach channels with; answers 0 for an unknown endpoint or a shut-down bus.
    static std::uint32_t driver(CanDriverRequest* request, std::int32_t driverArgument);

    // Claims an endpoint; returns the driver argument to attach with, or -1 when none is free.
    std::int32_t addEndpoint(Reception reception = Reception::DriverQueue);

    // Delivers a frame to every endpoint (or one endpoint), as if another node had sent it.
    void inject(const CanFrame& frame);
    void injectTo(std::int32_t endpoint, const CanFrame& frame);

    // Takes the oldest sent frame not yet taken; false when none came within the timeout.
    bool waitForSent(CanFrame* frame, std::chrono::milliseconds timeout);
    // Frames sent on the bus so far.
    std::size_t sentCount() const;
    // True once a receiver is blocked in operation 9 on the endpoint; false after the timeout.
    bool waitUntilReceiving(std::int32_t endpoint, std::chrono::milliseconds timeout);

    // Wakes every blocked receiver (they return 0); afterwards every operation answers 0.
    void shutdown();

    struct State;

  private:
    std::shared_ptr<State> state_;
};
