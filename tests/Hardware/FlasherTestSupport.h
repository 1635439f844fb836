// Shared by the flasher and daemon tests: hex files in a private temporary folder, upload requests,
// and bytes as text for readable failures.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "ClientSupport.h"
#include "FlashTypes.h"

// A folder under /tmp, removed with everything in it.
class TempFolder {
  public:
    TempFolder() {
        char name[] = "/tmp/varnoch-flasher-XXXXXX";
        if (mkdtemp(name) == nullptr) {
            std::perror("mkdtemp");
            std::abort();
        }
        path_ = name;
    }
    ~TempFolder() {
        std::error_code ignored;  // a folder left in /tmp fails no test
        std::filesystem::remove_all(path_, ignored);
    }
    const std::string& path() const { return path_; }
    // Writes a file into the folder; returns its path.
    std::string write(const std::string& name, const std::string& content) const {
        std::ofstream(path_ + "/" + name, std::ios::binary) << content;
        return path_ + "/" + name;
    }

  private:
    std::string path_;
};

inline std::string fileText(const std::string& path) {
    std::stringstream text;
    text << std::ifstream(path).rdbuf();
    return text.str();
}

// "0A 1B ..."
inline std::string hexBytes(const std::uint8_t* bytes, std::size_t count) {
    std::string text;
    for (std::size_t i = 0; i < count; ++i) {
        char digits[4];
        std::snprintf(digits, sizeof digits, i == 0 ? "%02X" : " %02X", bytes[i]);
        text += digits;
    }
    return text;
}

// One Intel-HEX record line with its checksum and a line end.
inline std::string hexRecord(std::uint8_t type, std::uint16_t address, const Bytes& bytes) {
    Bytes record{static_cast<std::uint8_t>(bytes.size()), static_cast<std::uint8_t>(address >> 8),
                 static_cast<std::uint8_t>(address), type};
    record.insert(record.end(), bytes.begin(), bytes.end());
    unsigned sum = 0;
    std::string line = ":";
    for (const std::uint8_t byte : record) {
        sum += byte;
        line += hexBytes(&byte, 1);
    }
    const auto checksum = static_cast<std::uint8_t>(0x100 - (sum & 0xFF));
    return line + hexBytes(&checksum, 1) + "\n";
}

// Payload of CmdUploadHexFile: mode, address, identifier little-endian, path and its terminating 0.
inline Bytes uploadPayload(std::uint8_t mode, std::uint8_t address, std::uint32_t identifier,
                           const std::string& path) {
    Bytes payload{mode, address};
    for (int i = 0; i < 4; ++i) {
        payload.push_back(static_cast<std::uint8_t>(identifier >> (8 * i)));
    }
    payload.insert(payload.end(), path.begin(), path.end());
    payload.push_back(0);
    return payload;
}
