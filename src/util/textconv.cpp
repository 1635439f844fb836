#include "textconv.h"

#include <algorithm>
#include <cstdlib>

namespace util {

namespace {
constexpr char kLowerDigits[] = "0123456789abcdefghijklmnopqrstuvwxyz";
constexpr char kUpperDigits[] = "0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZ";
constexpr int kMinBase = 2;
constexpr int kMaxBase = 36;
}  // namespace

std::string subString(const std::string& text, std::uint32_t first, std::int32_t last) {
    const auto length = static_cast<std::int64_t>(text.size());
    std::int64_t end = last;
    // -1 means the second-to-last character; startsWith relies on that for the empty prefix.
    if (end < 0) {
        end += length - 1;
    }
    if (first >= text.size()) {
        return std::string();
    }
    if (end < 0 || static_cast<std::uint64_t>(end) < first) {
        return std::string();
    }
    return text.substr(first, static_cast<std::size_t>(end - first + 1));
}

std::vector<std::string> splitString(const std::string& text, const std::string& delimiters) {
    std::vector<std::string> tokens;
    if (text.empty()) {
        return tokens;
    }
    const std::size_t length = text.size();
    std::size_t position = 0;
    while (position <= length) {
        std::size_t found = std::string::npos;
        std::string token;
        if (position < length) {
            found = text.find_first_of(delimiters, position);
            if (found != position) {
                const std::size_t last = std::min(found - 1, length);
                token =
                    subString(text, static_cast<std::uint32_t>(position), static_cast<std::int32_t>(last));
            }
        }
        tokens.push_back(token);
        if (found == std::string::npos) {
            break;
        }
        position = found + 1;
    }
    return tokens;
}

bool startsWith(const std::string& text, const std::string& prefix) {
    const auto last = static_cast<std::int32_t>(prefix.size()) - 1;
    return subString(text, 0, last) == prefix;
}

std::string intToText(std::int32_t value, int base, bool upperCase) {
    if (base < kMinBase || base > kMaxBase) {
        return std::string();
    }
    if (value == 0) {
        return "0";
    }
    const char* digits = upperCase ? kUpperDigits : kLowerDigits;
    // 64 bits so that the most negative 32-bit value has an absolute value too.
    std::int64_t rest = std::llabs(static_cast<std::int64_t>(value));
    std::string text;
    while (rest != 0) {
        text.insert(text.begin(), digits[rest % base]);
        rest /= base;
    }
    if (value < 0) {
        text.insert(text.begin(), '-');
    }
    return text;
}

}  // namespace util
