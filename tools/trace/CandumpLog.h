// can-utils' log format, as candump -L writes it and canplayer reads it: one frame a line,
// "(SECONDS.MICROSECONDS) IFACE ID#DATA", the identifier in 3 hex digits for a standard frame and 8
// for an extended one, the data in hex pairs, e.g. "(1700000000.000100) can0 18EF26C0#FF50726F6772616D".
#pragma once

#include <string>

#include "Dialogue.h"

namespace trace {

enum class LogLine : std::uint8_t {
    Frame,      // a classical data frame, in `timed`
    Skipped,    // an empty line, a remote request, an error frame or a CAN FD frame: none is in the dialogue
    Malformed,  // anything else
};

/// Reads one line (without its line end); `interfaceName`, when given, receives the line's interface.
LogLine parseLogLine(const std::string& line, TimedFrame& timed, std::string* interfaceName = nullptr);

/// The line for one frame, with its "\n".
std::string formatLogLine(const TimedFrame& timed, const std::string& interfaceName);

}  // namespace trace
