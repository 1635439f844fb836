// The CAN channel layer: a fixed table of numbered channels, each bound to a driver through one
// control function, through which the daemon sends and receives CanFrame records by channel number.
//
// The CAN frames layer in brief:
//  - CanFrame is the daemon's own frame record: a bare identifier (11 or 29 significant bits, never
//    any flag bits), an extended flag, a data length 0..8 and 8 data bytes.
//  - A driver is one function answering CanDriverRequest operations (CanDriverOperation below); the
//    SocketCAN port (canport.h) is the daemon's driver, the in-process virtual bus of the tests another.
//  - A driver that keeps its own receive queue answers operation 6 with its size; the channel then
//    receives by asking the driver (operation 9, which may block). Otherwise the channel keeps a ring
//    of frames that canChannelPoll fills from the driver's poll function and canChannelReceive drains
//    without waiting; a full ring overwrites its oldest frame and records kCanRingOverflow.
//  - Ring state is guarded by threadfunc's process-wide recursive lock; sending, polling and the
//    driver calls run without it. The received and sent counters are updated without a lock.
#pragma once

#include <cstdint>

#include "varnoch/protocol/CanFrame.h"

// One request to a driver. `argument` points to a CanFrame (3, 9), a CanPollFunction cell (4), a
// 32-bit status word (5) or a CanBitTiming (2); `value` is the in/out field of the queries 6, 7 and 8.
struct CanDriverRequest {
    std::uint32_t operation;
    void* argument;
    std::uint16_t value;
};

// Operation codes of CanDriverRequest; a driver answers 0 for failure and for unknown codes.
enum CanDriverOperation : std::uint32_t {
    kCanOpOpen = 0,
    kCanOpStart = 1,
    kCanOpReconfigure = 2,
    kCanOpSend = 3,
    kCanOpGetPoll = 4,
    kCanOpGetStatus = 5,
    kCanOpQueueSize = 6,  // non-zero answer in `value`: the driver keeps its own receive queue
    kCanOpPending = 7,
    kCanOpQuery8 = 8,
    kCanOpReceive = 9,
};

// The record operation 2 (canChannelSetBitTiming) hands to the driver.
struct CanBitTiming {
    std::uint16_t value;
    std::uint8_t timing[4];
};

using CanDriver = std::uint32_t (*)(CanDriverRequest* request, std::int32_t driverArgument);
// Stores one frame in `slot` and returns non-zero, or returns 0; sets *noMore non-zero when it has
// nothing further to hand over.
using CanPollFunction = std::uint32_t (*)(CanFrame* slot, std::int32_t driverArgument, std::uint32_t* noMore);
// Sees every frame the channel layer delivers (direction kCanMonitorReceived) or sends
// (kCanMonitorSent) with the matching counter's new value.
using CanMonitor = void (*)(const CanFrame& frame, std::uint32_t direction, std::uint32_t counter);

constexpr std::uint32_t kCanMonitorReceived = 0;
constexpr std::uint32_t kCanMonitorSent = 1;

// The interface index and channel number that stands for no CAN interface; always a valid channel.
constexpr std::int32_t kNoCanInterface = 16;

// Channel flag: the ring overflowed at least once (reported through canChannelGetStatus).
constexpr std::uint32_t kCanRingOverflow = 0x10000;

// Makes a table of `count` unbound channels (dropping an earlier one); false for 0 or no memory.
[[nodiscard]] bool canChannelsInit(std::uint16_t count);
// Binds a driver (operations 0, 4, 6) and allocates a ring of `ringSize` frames unless the driver keeps
// its own queue; false for an invalid channel, a refusing driver or no memory (the channel is unbound).
[[nodiscard]] bool canChannelAttach(std::int32_t channel, CanDriver driver, std::int32_t driverArgument,
                                    std::uint32_t ringSize);
// Hands out canChannelPoll; false for an invalid channel, a null out pointer or an unbound channel.
[[nodiscard]] bool canChannelGetPoll(std::int32_t channel, void (**pollEntry)(std::int32_t channel));
// Takes one frame: from the ring without waiting, or from the driver (which may block); non-zero if a
// frame was delivered, 0 otherwise (frame untouched for an empty ring or an unbound channel).
std::uint32_t canChannelReceive(std::int32_t channel, CanFrame* frame);
// Sends one frame through the driver; its result, 0 for an invalid or unbound channel.
std::uint32_t canChannelSend(std::int32_t channel, const CanFrame* frame);
// Moves the driver's polled frames into the ring (or polls once without a ring); nothing if invalid.
void canChannelPoll(std::int32_t channel);
// The driver's status word with the channel flags ORed in; the driver's result, 0 if invalid/unbound.
std::uint32_t canChannelGetStatus(std::int32_t channel, std::uint32_t* status);
// Frames waiting in the ring, or the driver's answer to operation 7; 0 if invalid or unbound.
std::uint32_t canChannelPending(std::int32_t channel);
// Asks the driver to start (operation 1); its result, 0 if invalid or unbound.
std::uint32_t canChannelStart(std::int32_t channel);
// Restarts the driver (operation 1) and on success empties the ring and clears the flags.
std::uint32_t canChannelReset(std::int32_t channel);
// Hands a CanBitTiming to the driver (operation 2); its result, 0 if invalid or unbound.
std::uint32_t canChannelSetBitTiming(std::int32_t channel, std::uint16_t value, std::uint8_t b1,
                                     std::uint8_t b2, std::uint8_t b3, std::uint8_t b4);
// The size of the channel table (channel 16 not counted).
std::uint16_t canChannelCount();
// Stores the received and sent totals where the pointers are not null; returns their sum.
std::uint32_t canChannelCounters(std::uint32_t* received, std::uint32_t* sent);
// Installs the hook that sees every delivered and sent frame (null removes it).
void canChannelSetMonitor(CanMonitor monitor);
// The ring's size in frames, or the queue size the driver reported; 0 for an invalid channel.
std::uint16_t canChannelCapacity(std::int32_t channel);
