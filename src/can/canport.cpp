#include "canport.h"

#include <fcntl.h>
#include <linux/can/raw.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <iostream>

#include "threadfunc.h"

namespace {

constexpr ssize_t kWireFrameSize = sizeof(can_frame);
static_assert(sizeof(can_frame) == 16, "a classic CAN record is 16 bytes");
constexpr std::uint8_t kMaxDataLength = 8;
constexpr canid_t kStandardIdMask = CAN_SFF_MASK;  // 0x7FF
constexpr canid_t kExtendedIdMask = CAN_EFF_MASK;  // 0x1FFFFFFF
// Every error class but lost arbitration (CAN_ERR_LOSTARB, 0x2) arrives as an error frame.
constexpr can_err_mask_t kErrorFilter = 0x1FFFFFFD;
// The classic sockaddr_can length, accepted by every kernel's raw bind.
constexpr socklen_t kCanAddressLength = 16;
// Pause before retrying a write that found the controller's queue full.
constexpr useconds_t kNoBufferPauseUs = 2000;
// A port without interface parks its receiver in naps of this length, two a round.
constexpr std::int32_t kParkNapMs = 100;

struct PortRecord {
    std::atomic<int> socket{-1};
    std::atomic<bool> open{false};
    std::uint32_t setting = kCanPortDefaultSetting;
};

// A deque keeps records in place as the table grows, so a receiver's record never moves under it.
// The table is never destroyed: the flasher's reception thread is never stopped, and a receiver that
// is skipping error or remote frames still reads its record while the static objects are destroyed
// at exit.
std::deque<PortRecord>& ports = *new std::deque<PortRecord>();

// The record of an index inside the table, or null.
PortRecord* existingPort(std::int32_t index) {
    if (index < 0 || static_cast<std::size_t>(index) >= ports.size()) {
        return nullptr;
    }
    return &ports[static_cast<std::size_t>(index)];
}

// Grows the table to hold `index` (never for 16); null for an index the table cannot hold.
PortRecord* growingPort(std::int32_t index) {
    if (index == kNoCanInterface) {
        return nullptr;
    }
    while (index >= 0 && static_cast<std::size_t>(index) >= ports.size()) {
        ports.emplace_back();
    }
    return existingPort(index);
}

// The checks of operation 3: a real interface whose port is open.
PortRecord* sendablePort(std::int32_t index) {
    PortRecord* port = index == kNoCanInterface ? nullptr : existingPort(index);
    return port != nullptr && port->open.load() ? port : nullptr;
}

// The port has nothing to hand over by polling: the kernel socket is its queue.
std::uint32_t portPoll(CanFrame* /*slot*/, std::int32_t /*driverArgument*/, std::uint32_t* noMore) {
    if (noMore != nullptr) {
        *noMore = 1;
    }
    return 0;
}

bool failOpen(PortRecord& port) {
    port.open.store(false);
    return false;
}

}  // namespace

can_frame canPortToWire(const CanFrame& frame) {
    can_frame wire{};
    wire.can_id = frame.extended != 0 ? (frame.identifier & kExtendedIdMask) | CAN_EFF_FLAG
                                      : frame.identifier & kStandardIdMask;
    wire.len = std::min(frame.length, kMaxDataLength);
    std::memcpy(wire.data, frame.data, wire.len);
    return wire;
}

CanWireKind canPortWireKind(const can_frame& wire) {
    if ((wire.can_id & CAN_RTR_FLAG) != 0) {
        return CanWireKind::Remote;
    }
    if ((wire.can_id & CAN_ERR_FLAG) != 0) {
        return CanWireKind::Error;
    }
    return CanWireKind::Data;
}

void canPortFromWire(const can_frame& wire, CanFrame* frame) {
    const bool extended = (wire.can_id & CAN_EFF_FLAG) != 0;
    frame->extended = extended ? 1 : 0;
    frame->identifier = wire.can_id & (extended ? kExtendedIdMask : kStandardIdMask);
    frame->length = std::min(wire.len, kMaxDataLength);
    std::memcpy(frame->data, wire.data, frame->length);
}

void canPortSetParameter(std::uint32_t value, std::int32_t index) {
    PortRecord* port = growingPort(index);
    if (port != nullptr) {
        port->setting = value;
    }
}

bool canPortOpen(std::int32_t index) {
    if (index == kNoCanInterface) {
        return true;
    }
    PortRecord* port = growingPort(index);
    if (port == nullptr) {
        return false;
    }
    if (port->open.load()) {
        return false;
    }

    // The bit rate is whatever the system configured; a failing or missing ifconfig goes unnoticed,
    // so its result is ignored on purpose. Its output is sent to /dev/null so that a system without
    // the command does not fill the daemon's log with the shell's complaints.
    char command[64];
    std::snprintf(command, sizeof command, "ifconfig can%i up >/dev/null 2>&1", index);
    (void)std::system(command);

    const int descriptor = ::socket(PF_CAN, SOCK_RAW, CAN_RAW);
    port->socket.store(descriptor);
    if (descriptor < 0) {
        return failOpen(*port);
    }

    ifreq request{};
    std::snprintf(request.ifr_name, sizeof request.ifr_name, "can%i", index);
    if (::ioctl(descriptor, SIOCGIFINDEX, &request) < 0) {
        // The socket stays in the record unclosed; the next open attempt overwrites the descriptor.
        return failOpen(*port);
    }

    sockaddr_can address{};
    address.can_family = AF_CAN;
    address.can_ifindex = request.ifr_ifindex;
    if (::bind(descriptor, reinterpret_cast<const sockaddr*>(&address), kCanAddressLength) < 0) {
        ::close(descriptor);  // nothing to do if the close fails: the descriptor is given up either way
        port->socket.store(-1);
        return failOpen(*port);
    }

    const int statusFlags = ::fcntl(descriptor, F_GETFL);
    if (statusFlags == -1 || ::fcntl(descriptor, F_SETFL, statusFlags & ~O_NONBLOCK) == -1) {
        return failOpen(*port);
    }

    const can_err_mask_t errorFilter = kErrorFilter;
    if (::setsockopt(descriptor, SOL_CAN_RAW, CAN_RAW_ERR_FILTER, &errorFilter, sizeof errorFilter) < 0) {
        return failOpen(*port);  // the socket stays open, as after a failed interface lookup
    }

    port->open.store(true);
    return true;
}

std::int32_t canPortSend(const CanFrame* frame, std::int32_t index) {
    if (index == kNoCanInterface || frame == nullptr) {
        return 0;
    }
    PortRecord* port = existingPort(index);
    if (port == nullptr) {
        return -1;
    }
    const can_frame wire = canPortToWire(*frame);
    const int descriptor = port->socket.load();
    // No retry limit: while the controller's queue stays full the sender keeps trying every 2 ms.
    for (;;) {
        const ssize_t written = ::write(descriptor, &wire, sizeof wire);
        if (written == kWireFrameSize) {
            return static_cast<std::int32_t>(written);
        }
        if (written == -1) {
            if (errno == ENOBUFS) {
                (void)::usleep(kNoBufferPauseUs);  // an interrupted pause only retries sooner
            } else if (errno != EAGAIN) {
                return -1;
            }
        }
        // A short write is sent again whole.
    }
}

void canPortReceive(CanFrame* frame, std::int32_t index) {
    if (index == kNoCanInterface) {
        for (;;) {
            threadSleep(kParkNapMs);
            threadSleep(kParkNapMs);
        }
    }
    PortRecord* port = existingPort(index);
    if (port == nullptr || frame == nullptr) {
        return;
    }
    while (port->open.load()) {
        can_frame wire;
        if (::read(port->socket.load(), &wire, sizeof wire) != kWireFrameSize) {
            continue;  // failed and short reads are skipped; the next read starts a fresh record
        }
        switch (canPortWireKind(wire)) {
            case CanWireKind::Remote:
                break;
            case CanWireKind::Error:
                std::cout << std::dec << std::endl;
                break;
            case CanWireKind::Data:
                canPortFromWire(wire, frame);
                return;
        }
    }
}

std::uint32_t canPortControl(CanDriverRequest* request, std::int32_t index) {
    if (request == nullptr) {
        return 0;
    }
    switch (request->operation) {
        case kCanOpOpen:
            return canPortOpen(index) ? 1 : 0;
        case kCanOpStart:
            return 1;
        case kCanOpReconfigure:
            // Only a closed port reacts: the second open retries a failed first one and is otherwise
            // refused because the port is open. The timing record is not used.
            if (index != kNoCanInterface && request->argument != nullptr && existingPort(index) != nullptr) {
                (void)canPortOpen(index);
                (void)canPortOpen(index);
            }
            return 1;
        case kCanOpSend:
            // Answers 1 even when the write failed, so the channel layer counts the frame as sent.
            (void)canPortSendOn(static_cast<const CanFrame*>(request->argument), index);
            return 1;
        case kCanOpGetPoll:
            if (request->argument != nullptr) {
                *static_cast<CanPollFunction*>(request->argument) = portPoll;
            }
            return 1;
        case kCanOpGetStatus:
            if (request->argument != nullptr) {
                *static_cast<std::uint32_t*>(request->argument) = 0;
            }
            return 1;
        case kCanOpQueueSize:
            request->value = kCanPortQueueSize;
            return 1;
        case kCanOpPending:
        case kCanOpQuery8:
            request->value = 0;
            return 1;
        case kCanOpReceive:
            canPortReceive(static_cast<CanFrame*>(request->argument), index);
            return 1;
        default:
            return 0;
    }
}

std::int32_t canPortSendOn(const CanFrame* frame, std::int32_t index) {
    if (frame == nullptr || sendablePort(index) == nullptr) {
        return 0;
    }
    return canPortSend(frame, index);
}

std::int32_t canPortSendPort0(const CanFrame* frame) {
    return canPortSendOn(frame, 0);
}

bool canPortIsOpen(std::int32_t index) {
    const PortRecord* port = existingPort(index);
    return port != nullptr && port->open.load();
}
