// Fuzz target: one line through parseHexLine. Besides staying within the line, an accepted record
// must agree with its own byte count, and a line of plain hexadecimal digits must be judged exactly
// as Intel HEX defines it (checked against a reading written independently below).
#include <cctype>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "HexLoader.h"

namespace {

int digitValue(char c) {
    return std::isdigit(static_cast<unsigned char>(c)) != 0 ? c - '0' : std::tolower(c) - 'a' + 10;
}

bool allHexDigits(const std::string& line, std::size_t from, std::size_t to) {
    for (std::size_t i = from; i < to; ++i) {
        if (std::isxdigit(static_cast<unsigned char>(line[i])) == 0) {
            return false;
        }
    }
    return true;
}

unsigned byteAt(const std::string& line, std::size_t at) {
    return static_cast<unsigned>(digitValue(line[at]) * 16 + digitValue(line[at + 1]));
}

void check(bool condition) {
    if (!condition) {
        std::abort();
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* input, std::size_t size) {
    const std::string line(reinterpret_cast<const char*>(input), size);
    std::uint32_t address = 0;
    std::uint32_t type = 0;
    std::vector<std::uint8_t> data;
    const bool accepted = CANFlasher::parseHexLine(line, address, type, data);
    if (accepted) {
        check(line.size() >= 11 && line[0] == ':');
        check(line.size() >= 11 + 2 * data.size());
    }

    // The strict shape: ':' and nothing but hexadecimal digits up to the checksum.
    if (line.size() < 11 || line[0] != ':' || !allHexDigits(line, 1, 3)) {
        return 0;
    }
    const unsigned count = byteAt(line, 1);
    const std::size_t end = 11 + 2 * std::size_t{count};
    if (line.size() < end) {
        check(!accepted);  // the byte count promises more than the line holds
        return 0;
    }
    if (!allHexDigits(line, 3, end)) {
        return 0;
    }
    unsigned sum = 0;
    for (std::size_t at = 1; at < end; at += 2) {
        sum += byteAt(line, at);
    }
    check(accepted == (sum % 256 == 0));
    if (!accepted) {
        return 0;
    }
    check(data.size() == count);
    check(address == (byteAt(line, 3) << 8 | byteAt(line, 5)));
    check(type == byteAt(line, 7));
    for (unsigned i = 0; i < count; ++i) {
        check(data[i] == byteAt(line, 9 + 2 * i));
    }
    return 0;
}
