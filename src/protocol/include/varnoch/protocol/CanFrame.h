// The daemon's record of one CAN data frame: what the channel layer moves, and what the frames of the
// bootloader dialogue are converted to and from. Here, at the bottom, so that code without the channel
// layer (the tools, clients) can hold frames too.
#pragma once

#include <cstdint>

// One CAN data frame as the daemon holds it.
struct CanFrame {
    std::uint32_t identifier;  // 11 significant bits (standard) or 29 (extended); no flag bits
    std::uint8_t extended;     // non-zero for a 29-bit identifier
    std::uint8_t length;       // 0..8
    std::uint8_t data[8];      // only the first `length` bytes are meaningful
};
