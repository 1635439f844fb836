#include "CandumpLog.h"

#include <linux/can.h>

#include <algorithm>
#include <cstdio>

namespace trace {

namespace {

constexpr std::size_t kStandardDigits = 3;
constexpr std::size_t kExtendedDigits = 8;
constexpr std::size_t kMicrosecondDigits = 6;
constexpr Micros kMicrosPerSecond = 1000000;
constexpr std::size_t kMaxDataLength = 8;

int hexDigit(char c) {
    if (c >= '0' && c <= '9') {
        return c - '0';
    }
    if (c >= 'a' && c <= 'f') {
        return c - 'a' + 10;
    }
    return c >= 'A' && c <= 'F' ? c - 'A' + 10 : -1;
}

// Reads `count` hex digits from `at` on; false if any is not one.
bool readHex(const std::string& text, std::size_t at, std::size_t count, std::uint32_t& value) {
    value = 0;
    for (std::size_t index = at; index < at + count; ++index) {
        const int digit = index < text.size() ? hexDigit(text[index]) : -1;
        if (digit < 0) {
            return false;
        }
        value = value << 4 | static_cast<std::uint32_t>(digit);
    }
    return true;
}

bool readDecimal(const std::string& text, std::size_t from, std::size_t to, Micros& value) {
    value = 0;
    if (from >= to || to - from > 12) {
        return false;
    }
    for (std::size_t index = from; index < to; ++index) {
        if (text[index] < '0' || text[index] > '9') {
            return false;
        }
        value = value * 10 + (text[index] - '0');
    }
    return true;
}

}  // namespace

LogLine parseLogLine(const std::string& line, TimedFrame& timed, std::string* interfaceName) {
    if (line.find_first_not_of(" \t\r") == std::string::npos) {
        return LogLine::Skipped;
    }
    const std::size_t dot = line.find('.');
    const std::size_t close = line.find(") ");
    Micros secondsPart = 0;
    Micros microsPart = 0;
    if (line[0] != '(' || dot == std::string::npos || close != dot + 1 + kMicrosecondDigits ||
        !readDecimal(line, 1, dot, secondsPart) || !readDecimal(line, dot + 1, close, microsPart)) {
        return LogLine::Malformed;
    }
    const std::size_t name = close + 2;
    const std::size_t blank = line.find(' ', name);
    if (blank == std::string::npos || blank == name) {
        return LogLine::Malformed;
    }
    const std::size_t id = blank + 1;
    const std::size_t hash = line.find('#', id);
    if (hash == std::string::npos || (hash - id != kStandardDigits && hash - id != kExtendedDigits)) {
        return LogLine::Malformed;
    }
    std::uint32_t identifier = 0;
    if (!readHex(line, id, hash - id, identifier)) {
        return LogLine::Malformed;
    }
    const bool extended = hash - id == kExtendedDigits;
    if ((extended && (identifier & CAN_ERR_FLAG) != 0) || line.compare(hash, 2, "##") == 0 ||
        line.compare(hash, 2, "#R") == 0) {
        return LogLine::Skipped;
    }
    if (identifier > (extended ? CAN_EFF_MASK : CAN_SFF_MASK)) {
        return LogLine::Malformed;
    }
    TimedFrame parsed;
    parsed.at = secondsPart * kMicrosPerSecond + microsPart;
    parsed.frame.identifier = identifier;
    parsed.frame.extended = extended ? 1 : 0;
    std::size_t at = hash + 1;
    // A classical frame's "_" and length code after the data only say how its 8 bytes were coded.
    const std::size_t end = std::min(line.find_first_of("_\r", at), line.size());
    if ((end - at) % 2 != 0 || (end - at) / 2 > kMaxDataLength) {
        return LogLine::Malformed;
    }
    for (; at < end; at += 2) {
        std::uint32_t byte = 0;
        if (!readHex(line, at, 2, byte)) {
            return LogLine::Malformed;
        }
        parsed.frame.data[parsed.frame.length++] = static_cast<std::uint8_t>(byte);
    }
    timed = parsed;
    if (interfaceName != nullptr) {
        *interfaceName = line.substr(name, blank - name);
    }
    return LogLine::Frame;
}

std::string formatLogLine(const TimedFrame& timed, const std::string& interfaceName) {
    char text[96];
    int used = std::snprintf(text, sizeof text, "(%010lld.%06lld) %s ",
                             static_cast<long long>(timed.at / kMicrosPerSecond),
                             static_cast<long long>(timed.at % kMicrosPerSecond), interfaceName.c_str());
    if (used < 0 || static_cast<std::size_t>(used) >= sizeof text - 32) {
        return {};
    }
    const CanFrame& frame = timed.frame;
    used += std::snprintf(
        text + used, sizeof text - static_cast<std::size_t>(used), frame.extended != 0 ? "%08X#" : "%03X#",
        static_cast<unsigned>(frame.identifier & (frame.extended != 0 ? CAN_EFF_MASK : CAN_SFF_MASK)));
    const std::size_t length = std::min<std::size_t>(frame.length, kMaxDataLength);
    for (std::size_t index = 0; index < length; ++index) {
        used += std::snprintf(text + used, sizeof text - static_cast<std::size_t>(used), "%02X",
                              static_cast<unsigned>(frame.data[index]));
    }
    return std::string(text, static_cast<std::size_t>(used)) + "\n";
}

}  // namespace trace
