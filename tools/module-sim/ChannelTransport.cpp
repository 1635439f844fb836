#include <time.h>

#include <chrono>

#include "FrameTransport.h"

namespace modulesim {

namespace {
// How often an empty ring is looked at again; short against the daemon's one-second reply timer.
constexpr long kRingPollIntervalNs = 1000000;
}  // namespace

FrameTransport::Received ChannelTransport::receive(CanFrame& frame, std::uint32_t timeoutMs) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    while (true) {
        canChannelPoll(channel_);
        if (canChannelReceive(channel_, &frame) != 0) {
            receivedAt_ = std::chrono::steady_clock::now();
            return Received::Frame;
        }
        if (std::chrono::steady_clock::now() >= deadline) {
            return Received::Timeout;
        }
        const timespec pause{0, kRingPollIntervalNs};
        // An interrupted pause only shortens this round of polling.
        static_cast<void>(nanosleep(&pause, nullptr));
    }
}

bool ChannelTransport::send(const CanFrame& frame) {
    return canChannelSend(channel_, &frame) != 0;
}

}  // namespace modulesim
