// Fuzz target: parseHexLine. An accepted line must be, up to letter case, the encoding of what it
// returned with a correct checksum (the loader's test has well-formed records of every kind).
#include <algorithm>
#include <cctype>
#include <vector>

#include "FuzzSupport.h"
#include "HexLoader.h"
#include "HexRecords.h"

using varnochfuzz::check;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* input, std::size_t size) {
    const std::string line(reinterpret_cast<const char*>(input), size);
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
    return 0;
}
