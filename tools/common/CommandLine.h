// The tools' command lines: options read with getopt_long in command-line order, with the complaints
// every tool words alike, and the one number syntax they all accept.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace toolsupport {

/// One option a tool takes: its long name (without "--"), its short letter (0 for none), whether it
/// takes a value, and the code the tool's handler gets for it.
struct OptionSpec {
    const char* longName;
    char shortName;
    bool takesValue;
    int code;
};

/// Code the handler gets for an argument that is no option (the argument is its value).
constexpr int kOperand = -1;

/// Gets each option or operand: its code, its name as complaints show it ("--address", "-i"; the
/// argument itself for an operand) and its value (null for an option without one). Returns false with
/// a one-line `error` to stop reading.
using OptionHandler =
    std::function<bool(int code, const std::string& name, const char* value, std::string& error)>;

/// Reads `argc` arguments (those after the program name) in order. An option's value may follow it
/// as the next argument or, for a long option, after "=". False with a one-line `error` for "unknown
/// option 'X'", "option 'X' needs a value", "option 'X' takes no value", or what the handler says.
bool readOptions(int argc, const char* const argv[], const std::vector<OptionSpec>& options,
                 const OptionHandler& handler, std::string& error);

/// Decimal or 0x-prefixed hexadecimal, no sign, no blanks, nothing trailing, at most `maximum`;
/// false (and `value` untouched) otherwise. "0x10" gives 16, "010" gives 10.
bool parseNumber(const std::string& text, std::uint32_t maximum, std::uint32_t& value);

/// "invalid value 'TEXT' for NAME (0..MAXIMUM)".
std::string invalidNumber(const std::string& text, const std::string& name, std::uint32_t maximum);

}  // namespace toolsupport
