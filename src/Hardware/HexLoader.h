// Intel-HEX firmware files turned into the flasher's upload messages: page selects, data messages of
// at most four bytes that never cross a 16 KiB page of the target's flash, and the two end messages.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "varnoch/protocol/FlashProtocol.h"

namespace CANFlasher {

// Longest line read at once; a longer line is cut and its rest read as the next line.
constexpr std::int32_t kMaxHexLineLength = 1024;

// Intel-HEX record types the loader acts on.
enum HexRecordType : std::uint32_t {
    HexData = 0,
    HexEndOfFile = 1,
    HexExtendedSegmentAddress = 2,
    HexStartSegmentAddress = 3,
    HexExtendedLinearAddress = 4,
};

enum class HexLoadResult {
    Loaded,       // the end-of-file record was reached
    OpenFailed,   // the file could not be opened (state 104)
    Malformed,    // a line is malformed or the file ends early (state 105)
    Interrupted,  // keepReading answered false before the end-of-file record
};

/// Splits one record line into address, type and data bytes; false when the line does not start
/// with ':', is shorter than 11 characters, holds fewer characters than its byte count needs, or its
/// checksum fails. Characters after the checksum are ignored.
bool parseHexLine(const std::string& line, std::uint32_t& address, std::uint32_t& recordType,
                  std::vector<std::uint8_t>& data);

/// Replaces `messages` with the upload messages of the file at `path`. `keepReading` is asked before
/// every line; the messages built before a failure or interruption stay in the list.
HexLoadResult loadHexMessages(const std::string& path, std::vector<FlashMessage>& messages,
                              const std::function<bool()>& keepReading);

}  // namespace CANFlasher
