// Fuzz target: parseHexLine. An accepted line must be, up to letter case, the encoding of what it
// returned with a correct checksum; and every record encoded from the input must be accepted as it is.
#include <algorithm>
#include <cctype>
#include <vector>

#include "FuzzSupport.h"
#include "HexLoader.h"
#include "HexRecords.h"

using varnochfuzz::check;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* input, std::size_t size) {
    std::string line(reinterpret_cast<const char*>(input), size);
    std::uint32_t address = 0;
    std::uint32_t type = 0;
    std::vector<std::uint8_t> data;
    // Fields are read the way strtoul reads them, so signs or blanks in a field can give values beyond
    // a byte ("-2" as the type); only records written in plain hex digits must equal their encoding.
    if (CANFlasher::parseHexLine(line, address, type, data)) {
        const std::size_t length = 11 + 2 * data.size();
        check(line.size() >= length);
        const bool plain =
            std::all_of(line.begin() + 1, line.begin() + static_cast<long>(length),
                        [](char c) { return std::isxdigit(static_cast<unsigned char>(c)) != 0; });
        if (plain) {
            check(address <= 0xFFFF && type <= 0xFF && data.size() <= 0xFF);
            const std::string expected =
                hexRecord(static_cast<std::uint8_t>(type), static_cast<std::uint16_t>(address), data);
            for (std::size_t i = 0; i < length; ++i) {
                check(std::toupper(static_cast<unsigned char>(line[i])) == expected[i]);
            }
        }
    }
    // Round trip: the input's first bytes as address and type, the rest (up to 255) as data.
    varnochfuzz::InputReader in(input, size);
    const std::uint32_t wantAddress = in.take(2);
    const std::uint32_t wantType = in.byte();
    std::vector<std::uint8_t> wantData(size > 3 ? std::min<std::size_t>(size - 3, 255) : 0);
    in.bytes(wantData.data(), wantData.size());
    line = hexRecord(static_cast<std::uint8_t>(wantType), static_cast<std::uint16_t>(wantAddress), wantData);
    if (size % 2 != 0) {
        line.insert(line.size() - 1, "\r");
    }
    check(CANFlasher::parseHexLine(line, address, type, data));
    check(address == wantAddress && type == wantType && data == wantData);
    return 0;
}
