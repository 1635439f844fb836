// The SocketCAN port: owns the Linux interfaces can0, can1, ... (one raw CAN socket each) and moves
// single CanFrame records in and out of them. The channel layer reaches it only through canPortControl.
//
// On the wire (struct can_frame, 16 bytes): an extended frame's identifier carries CAN_EFF_FLAG
// (0x18EF1234 goes out as 0x98EF1234), a standard one keeps its low 11 bits (0x18EF1234 goes out as
// 0x234); lengths are capped at 8 both ways. Remote frames and error frames are never handed on; each
// error frame leaves one empty line on standard output, its only trace. Interface index 16 stands for
// no interface: every operation accepts it and does nothing, and receiving on it never returns.
//
// Ports are never closed. The port table grows (setting, open) during start-up only: it is not locked.
#pragma once

#include <linux/can.h>

#include <cstdint>

#include "canchannel.h"

// The receive queue size reported for operation 6: the kernel socket is the port's queue.
constexpr std::uint16_t kCanPortQueueSize = 500;
// Port setting of a new table record; stored and kept, never read by the daemon.
constexpr std::uint32_t kCanPortDefaultSetting = 13000;

// Grows the table to hold `index` and stores the value as the port's setting (nothing for 16).
void canPortSetParameter(std::uint32_t value, std::int32_t index);
// Brings canN up and opens a blocking raw socket bound to it; true when ready (always for 16), false
// when the port is already open or any step failed (nothing printed).
[[nodiscard]] bool canPortOpen(std::int32_t index);
// Writes one frame to an open port, retrying while the controller's queue is full; 16 (bytes written)
// or -1 on an error or for a port not in the table; 0 for index 16.
std::int32_t canPortSend(const CanFrame* frame, std::int32_t index);
// Blocks until a data frame arrives and fills `frame`; returns with `frame` untouched for a port that
// is not in the table or not open; never returns for index 16.
void canPortReceive(CanFrame* frame, std::int32_t index);
// The driver entry (CanDriverOperation codes); 0 for an unknown operation or a failed open, else 1.
std::uint32_t canPortControl(CanDriverRequest* request, std::int32_t index);
// Sends on port 0 if it is open; canPortSend's result, 0 when nothing was sent.
std::int32_t canPortSendPort0(const CanFrame* frame);
// Sends on a port under the checks of operation 3; canPortSend's result, 0 when nothing was sent.
std::int32_t canPortSendOn(const CanFrame* frame, std::int32_t index);
// True when the port is in the table and was opened completely.
bool canPortIsOpen(std::int32_t index);

// How the port treats a received kernel record.
enum class CanWireKind { Data, Remote, Error };

// The kernel record for one frame (identifier masked and flagged, length capped at 8).
can_frame canPortToWire(const CanFrame& frame);
// Classifies a received record; only Data records are handed on.
CanWireKind canPortWireKind(const can_frame& wire);
// Fills identifier, extended flag, length (capped at 8) and that many data bytes from a data record;
// the remaining data bytes of `frame` keep their contents.
void canPortFromWire(const can_frame& wire, CanFrame* frame);
