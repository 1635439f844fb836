// Bytes as hex text for readable expectations, and Intel-HEX records written independently of the loader.
#pragma once

#include <cstdint>
#include <numeric>
#include <string>
#include <vector>

// "0A 1B ..." (with another `gap`, or none).
inline std::string hexBytes(const std::uint8_t* bytes, std::size_t count, const char* gap = " ") {
    std::string text;
    for (std::size_t i = 0; i < count; ++i) {
        text += (i == 0 ? "" : gap) +
                std::string{"0123456789ABCDEF"[bytes[i] >> 4], "0123456789ABCDEF"[bytes[i] & 15]};
    }
    return text;
}

// One record line with its checksum and a line end.
inline std::string hexRecord(std::uint8_t type, std::uint16_t address,
                             const std::vector<std::uint8_t>& bytes) {
    std::vector<std::uint8_t> record{static_cast<std::uint8_t>(bytes.size()),
                                     static_cast<std::uint8_t>(address >> 8),
                                     static_cast<std::uint8_t>(address), type};
    record.insert(record.end(), bytes.begin(), bytes.end());
    record.push_back(static_cast<std::uint8_t>(0u - std::accumulate(record.begin(), record.end(), 0u)));
    return ":" + hexBytes(record.data(), record.size(), "") + "\n";
}
