#include "VirtualCanBus.h"

#include <algorithm>
#include <array>
#include <condition_variable>
#include <deque>
#include <map>
#include <mutex>

struct VirtualCanBus::State {
    struct Endpoint {
        Reception reception = Reception::DriverQueue;
        std::deque<CanFrame> queue;
        std::size_t receivers = 0;  // threads blocked in operation 9
    };

    // The endpoint for a driver argument while the bus is up; null otherwise. The caller holds `mutex`.
    Endpoint* liveLocked(std::int32_t driverArgument) {
        const auto found = endpoints.find(driverArgument);
        return down || found == endpoints.end() ? nullptr : &found->second;
    }
    // Queues the frame at every endpoint but `sender` and wakes the waiters. The caller holds `mutex`.
    void deliverLocked(const CanFrame& frame, std::int32_t sender) {
        for (auto& [argument, endpoint] : endpoints) {
            if (argument != sender) {
                endpoint.queue.push_back(frame);
            }
        }
        changed.notify_all();
    }

    mutable std::mutex mutex;
    std::condition_variable changed;  // any change: a frame queued or sent, a receiver waiting, shut-down
    bool down = false;
    std::map<std::int32_t, Endpoint> endpoints;  // by driver argument
    std::deque<CanFrame> sentUntaken;
    std::size_t sentTotal = 0;
};

namespace {

// Driver arguments are slot numbers offset well clear of interface indices (and of 16).
constexpr std::int32_t kFirstEndpoint = 1000;
constexpr std::int32_t kNoSender = -1;

// The process-wide map from driver arguments to buses: each slot is claimed by one bus and given
// back when that bus is destroyed, so tests never meet another test's endpoints.
std::mutex slotsMutex;
std::array<std::shared_ptr<VirtualCanBus::State>, 64> slots;

std::shared_ptr<VirtualCanBus::State> stateFor(std::int32_t driverArgument) {
    const auto slot = static_cast<std::size_t>(driverArgument) - kFirstEndpoint;
    std::lock_guard<std::mutex> lock(slotsMutex);
    return driverArgument >= kFirstEndpoint && slot < slots.size() ? slots[slot] : nullptr;
}

// Hands over one queued frame to a channel ring; never waits.
std::uint32_t pollEndpoint(CanFrame* slot, std::int32_t driverArgument, std::uint32_t* noMore) {
    std::uint32_t stored = 0;
    if (const auto state = stateFor(driverArgument); state != nullptr && slot != nullptr) {
        std::lock_guard<std::mutex> lock(state->mutex);
        if (auto* self = state->liveLocked(driverArgument); self != nullptr && !self->queue.empty()) {
            *slot = self->queue.front();
            self->queue.pop_front();
            stored = 1;
        }
    }
    if (noMore != nullptr) {
        *noMore = stored == 0 ? 1 : 0;
    }
    return stored;
}

}  // namespace

VirtualCanBus::VirtualCanBus() : state_(std::make_shared<State>()) {}

VirtualCanBus::~VirtualCanBus() {
    shutdown();
    std::lock_guard<std::mutex> lock(slotsMutex);
    std::replace(slots.begin(), slots.end(), state_, std::shared_ptr<State>());
}

std::int32_t VirtualCanBus::addEndpoint(Reception reception) {
    std::lock_guard<std::mutex> slotsLock(slotsMutex);
    const auto freeSlot = std::find(slots.begin(), slots.end(), nullptr);
    if (freeSlot == slots.end()) {
        return -1;
    }
    *freeSlot = state_;
    const auto endpoint = kFirstEndpoint + static_cast<std::int32_t>(freeSlot - slots.begin());
    std::lock_guard<std::mutex> lock(state_->mutex);
    state_->endpoints[endpoint].reception = reception;
    return endpoint;
}

std::uint32_t VirtualCanBus::driver(CanDriverRequest* request, std::int32_t driverArgument) {
    const std::shared_ptr<State> state = stateFor(driverArgument);
    if (request == nullptr || state == nullptr) {
        return 0;
    }
    std::unique_lock<std::mutex> lock(state->mutex);
    State::Endpoint* self = state->liveLocked(driverArgument);
    const std::uint32_t operation = request->operation;
    const bool needsArgument = operation == kCanOpSend || operation == kCanOpGetPoll ||
                               operation == kCanOpGetStatus || operation == kCanOpReceive;
    if (self == nullptr || (needsArgument && request->argument == nullptr)) {
        return 0;
    }
    switch (operation) {
        case kCanOpOpen:
        case kCanOpStart:
        case kCanOpReconfigure:
            return 1;
        case kCanOpSend:
            state->deliverLocked(*static_cast<const CanFrame*>(request->argument), driverArgument);
            state->sentUntaken.push_back(*static_cast<const CanFrame*>(request->argument));
            ++state->sentTotal;
            return 1;
        case kCanOpGetPoll:
            *static_cast<CanPollFunction*>(request->argument) = pollEndpoint;
            return 1;
        case kCanOpGetStatus:
            *static_cast<std::uint32_t*>(request->argument) = 0;
            return 1;
        case kCanOpQueueSize:
            request->value = self->reception == Reception::DriverQueue ? kReportedQueueSize : 0;
            return 1;
        case kCanOpPending:
            request->value = static_cast<std::uint16_t>(std::min<std::size_t>(self->queue.size(), 0xFFFF));
            return 1;
        case kCanOpQuery8:
            request->value = 0;
            return 1;
        case kCanOpReceive:
            ++self->receivers;
            state->changed.notify_all();
            state->changed.wait(lock, [&] { return state->down || !self->queue.empty(); });
            --self->receivers;
            if (state->down) {
                return 0;
            }
            *static_cast<CanFrame*>(request->argument) = self->queue.front();
            self->queue.pop_front();
            return 1;
        default:
            return 0;
    }
}

void VirtualCanBus::inject(const CanFrame& frame) {
    std::lock_guard<std::mutex> lock(state_->mutex);
    state_->deliverLocked(frame, kNoSender);
}

void VirtualCanBus::injectTo(std::int32_t endpoint, const CanFrame& frame) {
    std::lock_guard<std::mutex> lock(state_->mutex);
    if (const auto found = state_->endpoints.find(endpoint); found != state_->endpoints.end()) {
        found->second.queue.push_back(frame);
        state_->changed.notify_all();
    }
}

bool VirtualCanBus::waitForSent(CanFrame* frame, std::chrono::milliseconds timeout) {
    std::unique_lock<std::mutex> lock(state_->mutex);
    if (!state_->changed.wait_for(lock, timeout, [&] { return !state_->sentUntaken.empty(); })) {
        return false;
    }
    *frame = state_->sentUntaken.front();
    state_->sentUntaken.pop_front();
    return true;
}

std::size_t VirtualCanBus::sentCount() const {
    std::lock_guard<std::mutex> lock(state_->mutex);
    return state_->sentTotal;
}

bool VirtualCanBus::waitUntilReceiving(std::int32_t endpoint, std::chrono::milliseconds timeout) {
    std::unique_lock<std::mutex> lock(state_->mutex);
    return state_->changed.wait_for(lock, timeout, [&] {
        const auto found = state_->endpoints.find(endpoint);
        return found != state_->endpoints.end() && found->second.receivers > 0;
    });
}

void VirtualCanBus::shutdown() {
    std::lock_guard<std::mutex> lock(state_->mutex);
    state_->down = true;
    state_->changed.notify_all();
}
