// What a hex file would do to a module, found without a daemon or a bus: the daemon's own loader
// decides whether the file is taken, and its upload messages are read back the way the module reads
// them (the written address ranges and the image it will hold), with the bus time they need.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "HexLoader.h"

namespace toolcommon {

/// A written address range, first and last address inclusive.
struct AddressRange {
    std::uint32_t first = 0;
    std::uint32_t last = 0;
    bool operator==(const AddressRange& other) const { return first == other.first && last == other.last; }
};

struct HexCheck {
    CANFlasher::HexLoadResult result = CANFlasher::HexLoadResult::OpenFailed;
    CANFlasher::HexLoadDetail detail;  // records read; for a malformed file the line and the rule
    /// The job state the daemon's load ends in: 2 ("Preparing for upload", it goes on to search),
    /// 104 or 105.
    std::int32_t state = 0;
    // The rest only for a file the daemon takes.
    std::uint64_t messages = 0;     // upload messages, the two end messages included
    std::uint64_t pageSelects = 0;  // page selects before the end messages
    std::uint64_t dataBytes = 0;
    std::vector<AddressRange> ranges;  // ascending, neither overlapping nor touching
    std::string sha256;                // of the image from the lowest to the highest written address
    std::uint64_t busBits = 0;         // every upload message and its acknowledgement, nominal lengths
};

/// Loads `path` with the daemon's loader and reads back its messages.
HexCheck checkHexFile(const std::string& path);

/// Microseconds `bits` take at `bitsPerSecond`, rounded up.
std::uint64_t busMicroseconds(std::uint64_t bits, std::uint32_t bitsPerSecond);

/// The rule as the check reports it, e.g. "checksum"; "" for None.
const char* hexLineRuleText(CANFlasher::HexLineRule rule);

}  // namespace toolcommon
