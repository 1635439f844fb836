// What the kernel knows of a network interface, asked over rtnetlink: whether it exists and is a CAN
// interface, up or down, the controller's state, bit rate and error counters where its driver has
// them, and the transmit queue length.
#pragma once

#include <cstdint>
#include <string>

namespace trace {

struct LinkInfo {
    bool exists = false;
    unsigned index = 0;
    bool isCan = false;    // link type CAN
    bool up = false;       // administratively up (IFF_UP)
    bool running = false;  // carrier, the driver says the link works (IFF_RUNNING)
    std::string kind;      // the driver's kind ("can", "vcan", ...), empty when it names none
    std::uint32_t transmitQueue = 0;
    bool hasTransmitQueue = false;
    bool hasCanData = false;  // controller data: real CAN drivers have it, vcan does not
    bool hasState = false;
    std::uint32_t state = 0;        // the kernel's CAN controller state
    std::uint32_t bitrate = 0;      // 0: the driver reports none
    std::uint32_t samplePoint = 0;  // tenths of a percent
    bool hasErrorCounters = false;
    std::uint16_t transmitErrors = 0;
    std::uint16_t receiveErrors = 0;
};

/// Asks the kernel about `name`; false with a one-line `error` when rtnetlink cannot be asked. A
/// missing interface is not an error: `exists` stays false.
bool queryLink(const std::string& name, LinkInfo& info, std::string& error);

/// The answers, one per line, in plain words.
std::string linkReport(const std::string& name, const LinkInfo& info);

}  // namespace trace
