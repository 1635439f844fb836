// Intel-HEX firmware files turned into the flasher's upload messages: page selects, data messages of
// at most four bytes that never cross a 16 KiB page of the target's flash, and the two end messages.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <deque>
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

/// The upload messages of one load. Every upload message has the same identifier (0xC4), extended flag
/// and length (8), so only its eight data bytes are kept: 8 bytes a message where a FlashMessage takes
/// 20. They live in a deque, whose blocks never move once written: the list grows without copying, so
/// a load needs the list itself and not, as an array that doubles, up to three times its size while it
/// reallocates. A 4 MiB image (1.05 million messages) takes about 8.5 MB.
class UploadMessages {
  public:
    using Payload = std::array<std::uint8_t, FlashMessage::kMaxLength>;

    /// Appends the upload message with these data bytes.
    void append(const std::uint8_t (&data)[FlashMessage::kMaxLength]);
    /// Empties the list and gives its memory back.
    void clear();
    std::size_t size() const { return payloads_.size(); }
    bool empty() const { return payloads_.empty(); }
    /// The message at `index` (below size()) as it goes on the bus.
    FlashMessage operator[](std::size_t index) const;
    /// Its data bytes alone (data byte 0 is the command: page select, data or end).
    const Payload& payload(std::size_t index) const { return payloads_[index]; }

  private:
    std::deque<Payload> payloads_;
};

enum class HexLoadResult {
    Loaded,       // the end-of-file record was reached
    OpenFailed,   // the file could not be opened (state 104)
    Malformed,    // a line is malformed or the file ends early (state 105)
    Interrupted,  // keepReading answered false before the end-of-file record
};

/// The rule a malformed file breaks, in the order the loader checks them.
enum class HexLineRule {
    None,
    NoColon,             // the line does not start with ':' (an empty line included)
    TooShort,            // fewer than 11 characters
    CountBeyondLine,     // the byte count needs more characters than the line holds
    Checksum,            // the checksum does not match
    EndBeforeEndRecord,  // the file ends before its end-of-file record
};

/// What a load read: records taken, and for a Malformed file the line (counted from 1) and the rule.
struct HexLoadDetail {
    std::uint32_t records = 0;
    std::uint32_t line = 0;
    HexLineRule rule = HexLineRule::None;
};

/// The rule `line` breaks as a record, or None.
HexLineRule checkHexLine(const std::string& line, std::uint32_t& address, std::uint32_t& recordType,
                         std::vector<std::uint8_t>& data);

/// Splits one record line into address, type and data bytes; false when the line does not start
/// with ':', is shorter than 11 characters, holds fewer characters than its byte count needs, or its
/// checksum fails. Characters after the checksum are ignored.
[[nodiscard]] bool parseHexLine(const std::string& line, std::uint32_t& address, std::uint32_t& recordType,
                                std::vector<std::uint8_t>& data);

/// Replaces `messages` with the upload messages of the file at `path`. `keepReading` is asked before
/// every line; the messages built before a failure or interruption stay in the list. `detail`, when
/// given, tells what was read and why a malformed file was refused; the load itself is the same.
[[nodiscard]] HexLoadResult loadHexMessages(const std::string& path, UploadMessages& messages,
                                            const std::function<bool()>& keepReading,
                                            HexLoadDetail* detail = nullptr);

}  // namespace CANFlasher
