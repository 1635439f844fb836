#include "canchannel.h"

#include <atomic>
#include <memory>
#include <new>
#include <vector>

#include "threadfunc.h"

namespace {

struct ChannelRecord {
    CanDriver driver = nullptr;
    CanPollFunction poll = nullptr;
    std::int32_t driverArgument = 0;
    std::unique_ptr<CanFrame[]> ring;  // null when the driver keeps its own receive queue
    std::uint16_t capacity = 0;        // ring size in frames, or the driver's queue size
    std::uint16_t pending = 0;
    std::uint16_t writeIndex = 0;
    std::uint16_t readIndex = 0;
    std::uint32_t flags = 0;
};

// The table is made at start-up before any other thread runs; afterwards only ring state changes,
// and that under the global lock. Neither record is ever destroyed: the flasher's reception thread,
// never stopped, has read its channel's record and may still be inside canChannelReceive while the
// static objects are destroyed at exit.
std::vector<ChannelRecord>& channels = *new std::vector<ChannelRecord>();
// Channel 16 (no CAN interface) is valid whatever the table size, so it has a record of its own.
ChannelRecord& noInterfaceChannel = *new ChannelRecord();

// Updated without the lock by design; atomics keep the concurrent senders and the receiver exact.
std::atomic<std::uint32_t> receivedFrames{0};
std::atomic<std::uint32_t> sentFrames{0};
std::atomic<CanMonitor> monitorHook{nullptr};

class GlobalLockGuard {
  public:
    GlobalLockGuard() { threadfunc::globalLock(); }
    ~GlobalLockGuard() { threadfunc::globalUnlock(); }
    GlobalLockGuard(const GlobalLockGuard&) = delete;
    GlobalLockGuard& operator=(const GlobalLockGuard&) = delete;
};

// The channel's record, or null when the number is not valid.
ChannelRecord* recordFor(std::int32_t channel) {
    if (channel >= 0 && static_cast<std::size_t>(channel) < channels.size()) {
        return &channels[static_cast<std::size_t>(channel)];
    }
    if (channel == kNoCanInterface) {
        return &noInterfaceChannel;
    }
    return nullptr;
}

// The record of a valid channel with a driver bound, or null.
ChannelRecord* boundRecordFor(std::int32_t channel) {
    ChannelRecord* record = recordFor(channel);
    return record != nullptr && record->driver != nullptr ? record : nullptr;
}

std::uint32_t callDriver(const ChannelRecord& record, std::uint32_t operation, void* argument,
                         std::uint16_t* value = nullptr) {
    CanDriverRequest request{operation, argument, 0};
    const std::uint32_t result = record.driver(&request, record.driverArgument);
    if (value != nullptr) {
        *value = request.value;
    }
    return result;
}

void unbind(ChannelRecord& record) {
    record.driver = nullptr;
    record.poll = nullptr;
}

void notifyMonitor(const CanFrame& frame, std::uint32_t direction, std::uint32_t counter) {
    const CanMonitor monitor = monitorHook.load();
    if (monitor != nullptr) {
        monitor(frame, direction, counter);
    }
}

}  // namespace

bool canChannelsInit(std::uint16_t count) {
    GlobalLockGuard guard;
    channels.clear();
    channels.shrink_to_fit();
    noInterfaceChannel = ChannelRecord{};
    if (count == 0) {
        return false;
    }
    try {
        channels.resize(count);
    } catch (const std::bad_alloc&) {
        return false;
    }
    return true;
}

bool canChannelAttach(std::int32_t channel, CanDriver driver, std::int32_t driverArgument,
                      std::uint32_t ringSize) {
    GlobalLockGuard guard;
    ChannelRecord* record = recordFor(channel);
    if (record == nullptr) {
        return false;
    }
    record->ring.reset();
    record->capacity = 0;
    record->pending = 0;
    record->writeIndex = 0;
    record->readIndex = 0;

    // The driver is called through a provisional record so that a refusal leaves the channel unbound.
    ChannelRecord probe;
    probe.driver = driver;
    probe.driverArgument = driverArgument;
    if (driver == nullptr || callDriver(probe, kCanOpOpen, nullptr) == 0) {
        unbind(*record);
        return false;
    }
    CanPollFunction poll = nullptr;
    if (callDriver(probe, kCanOpGetPoll, &poll) == 0) {
        unbind(*record);
        return false;
    }
    std::uint16_t driverQueue = 0;
    (void)callDriver(probe, kCanOpQueueSize, nullptr, &driverQueue);  // only the written size matters
    if (driverQueue != 0) {
        record->capacity = driverQueue;
    } else {
        try {
            record->ring = std::make_unique<CanFrame[]>(ringSize == 0 ? 1 : ringSize);
        } catch (const std::bad_alloc&) {
            unbind(*record);
            return false;
        }
        // A ring size of 0 still gets one slot but capacity 0, so every polled frame counts as an
        // overflow; sizes beyond 16 bits keep their low bits as in the record's 16-bit field.
        record->capacity = static_cast<std::uint16_t>(ringSize);
    }
    record->driver = driver;
    record->poll = poll;
    record->driverArgument = driverArgument;
    return true;
}

bool canChannelGetPoll(std::int32_t channel, void (**pollEntry)(std::int32_t channel)) {
    if (pollEntry == nullptr || boundRecordFor(channel) == nullptr) {
        return false;
    }
    *pollEntry = canChannelPoll;
    return true;
}

std::uint32_t canChannelReceive(std::int32_t channel, CanFrame* frame) {
    // Out-of-range numbers are refused rather than read past the table.
    ChannelRecord* record = recordFor(channel);
    if (record == nullptr || frame == nullptr) {
        return 0;
    }
    std::uint32_t result = 0;
    bool hasRing = false;
    {
        GlobalLockGuard guard;
        if (record->ring != nullptr) {
            hasRing = true;
            if (record->pending != 0) {
                *frame = record->ring[record->readIndex];
                if (++record->readIndex >= record->capacity) {
                    record->readIndex = 0;
                }
                --record->pending;
                result = 1;
            }
        }
    }
    if (!hasRing) {
        if (record->driver == nullptr) {
            return 0;
        }
        result = callDriver(*record, kCanOpReceive, frame);
    }
    if (result != 0) {
        notifyMonitor(*frame, kCanMonitorReceived, receivedFrames.fetch_add(1) + 1);
    }
    return result;
}

std::uint32_t canChannelSend(std::int32_t channel, const CanFrame* frame) {
    ChannelRecord* record = boundRecordFor(channel);
    if (record == nullptr) {
        return 0;
    }
    // The request's argument is untyped; drivers only read a frame given to operation 3.
    const std::uint32_t result = callDriver(*record, kCanOpSend, const_cast<CanFrame*>(frame));
    if (result != 0) {
        const std::uint32_t counter = sentFrames.fetch_add(1) + 1;
        if (frame != nullptr) {
            notifyMonitor(*frame, kCanMonitorSent, counter);
        }
    }
    return result;
}

void canChannelPoll(std::int32_t channel) {
    ChannelRecord* record = recordFor(channel);
    if (record == nullptr) {
        return;
    }
    CanPollFunction poll = nullptr;
    std::int32_t argument = 0;
    bool hasRing = false;
    {
        GlobalLockGuard guard;
        poll = record->poll;
        argument = record->driverArgument;
        hasRing = record->ring != nullptr;
    }
    if (poll == nullptr) {
        return;
    }
    std::uint32_t noMore = 0;
    if (!hasRing) {
        (void)poll(nullptr, argument, &noMore);  // a driver with its own queue only gets the chance
        return;
    }
    do {
        // The driver fills a local frame without the lock; it then goes into the slot at the write
        // index, which on a full ring is the oldest pending frame.
        CanFrame incoming{};
        if (poll(&incoming, argument, &noMore) != 0) {
            GlobalLockGuard guard;
            record->ring[record->writeIndex] = incoming;
            if (record->pending < record->capacity) {
                ++record->pending;
                if (++record->writeIndex >= record->capacity) {
                    record->writeIndex = 0;
                }
            } else {
                record->flags |= kCanRingOverflow;
            }
        }
    } while (noMore == 0);
}

std::uint32_t canChannelGetStatus(std::int32_t channel, std::uint32_t* status) {
    ChannelRecord* record = boundRecordFor(channel);
    if (record == nullptr || status == nullptr) {
        return 0;
    }
    const std::uint32_t result = callDriver(*record, kCanOpGetStatus, status);
    GlobalLockGuard guard;
    *status |= record->flags;
    return result;
}

std::uint32_t canChannelPending(std::int32_t channel) {
    ChannelRecord* record = recordFor(channel);
    if (record == nullptr) {
        return 0;
    }
    {
        GlobalLockGuard guard;
        if (record->ring != nullptr) {
            return record->pending;
        }
    }
    if (record->driver == nullptr) {
        return 0;
    }
    std::uint16_t waiting = 0;
    (void)callDriver(*record, kCanOpPending, nullptr, &waiting);  // the answer is the written count
    return waiting;
}

std::uint32_t canChannelStart(std::int32_t channel) {
    ChannelRecord* record = boundRecordFor(channel);
    return record == nullptr ? 0 : callDriver(*record, kCanOpStart, nullptr);
}

std::uint32_t canChannelReset(std::int32_t channel) {
    ChannelRecord* record = boundRecordFor(channel);
    if (record == nullptr) {
        return 0;
    }
    const std::uint32_t result = callDriver(*record, kCanOpStart, nullptr);
    if (result != 0) {
        GlobalLockGuard guard;
        record->pending = 0;
        record->writeIndex = 0;
        record->readIndex = 0;
        record->flags = 0;
    }
    return result;
}

std::uint32_t canChannelSetBitTiming(std::int32_t channel, std::uint16_t value, std::uint8_t b1,
                                     std::uint8_t b2, std::uint8_t b3, std::uint8_t b4) {
    ChannelRecord* record = boundRecordFor(channel);
    if (record == nullptr) {
        return 0;
    }
    CanBitTiming timing{value, {b1, b2, b3, b4}};
    return callDriver(*record, kCanOpReconfigure, &timing);
}

std::uint16_t canChannelCount() {
    return static_cast<std::uint16_t>(channels.size());
}

std::uint32_t canChannelCounters(std::uint32_t* received, std::uint32_t* sent) {
    const std::uint32_t receivedNow = receivedFrames.load();
    const std::uint32_t sentNow = sentFrames.load();
    if (received != nullptr) {
        *received = receivedNow;
    }
    if (sent != nullptr) {
        *sent = sentNow;
    }
    return receivedNow + sentNow;
}

void canChannelSetMonitor(CanMonitor monitor) {
    monitorHook.store(monitor);
}

std::uint16_t canChannelCapacity(std::int32_t channel) {
    ChannelRecord* record = recordFor(channel);
    if (record == nullptr) {
        return 0;
    }
    GlobalLockGuard guard;
    return record->capacity;
}
