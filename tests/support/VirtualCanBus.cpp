#include "VirtualCanBus.h"

#include <condition_variable>
#include <deque>
#include <map>
#include <mutex>

struct VirtualCanBus::State {
    struct Endpoint {
        Reception reception = Reception::DriverQueue;
        std::deque<CanFrame> queue;
    };
    mutable std::mutex mutex;
    std::condition_variable changed;  // a frame queued or sent, or shut-down
    bool down = false;
    std::map<std::int32_t, Endpoint> endpoints;  // by driver argument
    std::deque<CanFrame> sentUntaken;
};

namespace {

// Driver arguments of every bus of the process, numbered well clear of interface indices (and of 16)
// and never reused, so that tests never meet another test's endpoints.
std::mutex registryMutex;
std::map<std::int32_t, std::weak_ptr<VirtualCanBus::State>> registry;
std::int32_t nextEndpoint = 1000;

std::shared_ptr<VirtualCanBus::State> stateFor(std::int32_t driverArgument) {
    std::lock_guard<std::mutex> lock(registryMutex);
    const auto found = registry.find(driverArgument);
    return found == registry.end() ? nullptr : found->second.lock();
}

// Hands over one queued frame to a channel ring; never waits.
std::uint32_t pollEndpoint(CanFrame* slot, std::int32_t driverArgument, std::uint32_t* noMore) {
    CanDriverRequest request{kCanOpReceive, slot, 1};  // a value of 1: do not wait
    const std::uint32_t stored = VirtualCanBus::driver(&request, driverArgument);
    *noMore = stored == 0 ? 1 : 0;
    return stored;
}

}  // namespace

VirtualCanBus::VirtualCanBus() : state_(std::make_shared<State>()) {}

std::int32_t VirtualCanBus::addEndpoint(Reception reception) {
    std::lock_guard<std::mutex> registryLock(registryMutex);
    registry[nextEndpoint] = state_;
    std::lock_guard<std::mutex> lock(state_->mutex);
    state_->endpoints[nextEndpoint].reception = reception;
    return nextEndpoint++;
}

std::uint32_t VirtualCanBus::driver(CanDriverRequest* request, std::int32_t driverArgument) {
    const std::shared_ptr<State> state = stateFor(driverArgument);
    if (state == nullptr) {
        return 0;
    }
    std::unique_lock<std::mutex> lock(state->mutex);
    State::Endpoint* self = &state->endpoints.at(driverArgument);  // registered with its bus
    if (state->down) {
        return 0;
    }
    switch (request->operation) {
        case kCanOpOpen:
        case kCanOpStart:
        case kCanOpReconfigure:
            return 1;
        case kCanOpSend: {
            const CanFrame& frame = *static_cast<const CanFrame*>(request->argument);
            for (auto& [argument, endpoint] : state->endpoints) {
                if (argument != driverArgument) {
                    endpoint.queue.push_back(frame);
                }
            }
            state->sentUntaken.push_back(frame);
            state->changed.notify_all();
            return 1;
        }
        case kCanOpGetPoll:
            *static_cast<CanPollFunction*>(request->argument) = pollEndpoint;
            return 1;
        case kCanOpGetStatus:
            *static_cast<std::uint32_t*>(request->argument) = 0;
            return 1;
        case kCanOpQueueSize:
            request->value = self->reception == Reception::DriverQueue ? kReportedQueueSize : 0;
            return 1;
        case kCanOpReceive:
            state->changed.wait(lock,
                                [&] { return request->value != 0 || state->down || !self->queue.empty(); });
            if (state->down || self->queue.empty()) {
                return 0;
            }
            *static_cast<CanFrame*>(request->argument) = self->queue.front();
            self->queue.pop_front();
            return 1;
        default:
            return 0;
    }
}

void VirtualCanBus::injectTo(std::int32_t endpoint, const CanFrame& frame) {
    std::lock_guard<std::mutex> lock(state_->mutex);
    state_->endpoints.at(endpoint).queue.push_back(frame);
    state_->changed.notify_all();
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

void VirtualCanBus::shutdown() {
    std::lock_guard<std::mutex> lock(state_->mutex);
    state_->down = true;
    state_->changed.notify_all();
}
