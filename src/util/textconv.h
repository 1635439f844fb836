// Text and number helpers on standard strings: substrings with inclusive ends, splitting on a set of
// delimiter characters, prefix tests and integer-to-text conversion. Pure functions without state.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace util {

/// Characters from `first` to `last`, both included. A negative `last` counts from the
/// second-to-last character (-1 is length - 2); out-of-range or reversed positions give "".
std::string subString(const std::string& text, std::uint32_t first, std::int32_t last);

/// Tokens of `text` separated by any character of `delimiters`; empty tokens are kept and an
/// empty text gives no tokens.
std::vector<std::string> splitString(const std::string& text, const std::string& delimiters);

/// True when `text` begins with `prefix`. An empty prefix matches only texts of length 0 or 1.
bool startsWith(const std::string& text, const std::string& prefix);

/// `value` written in `base` (2..36) with a leading '-' when negative; "" for other bases.
std::string intToText(std::int32_t value, int base, bool upperCase);

}  // namespace util
