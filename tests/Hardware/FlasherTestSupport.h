// Shared by the flasher and daemon tests: hex files in a private temporary folder, upload requests, bytes
// as text for readable failures.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <numeric>
#include <sstream>
#include <string>

#include "ClientSupport.h"
#include "varnoch/protocol/FlashTypes.h"

// A folder under /tmp, removed with everything in it.
struct TempFolder {
    TempFolder() {
        if (mkdtemp(name) == nullptr) {
            std::abort();
        }
    }
    ~TempFolder() {
        std::error_code ignored;  // a folder left in /tmp fails no test
        std::filesystem::remove_all(name, ignored);
    }
    std::string path() const { return name; }
    // Writes a file into the folder; returns its path.
    std::string write(const std::string& file, const std::string& content) const {
        std::ofstream(path() + "/" + file, std::ios::binary) << content;
        return path() + "/" + file;
    }
    char name[32] = "/tmp/varnoch-flasher-XXXXXX";
};

inline std::string fileText(const std::string& path) {
    std::stringstream text;
    text << std::ifstream(path).rdbuf();
    return text.str();
}

// "0A 1B ..."
inline std::string hexBytes(const std::uint8_t* bytes, std::size_t count, const char* gap = " ") {
    std::string text;
    for (std::size_t i = 0; i < count; ++i) {
        text += (i == 0 ? "" : gap) +
                std::string{"0123456789ABCDEF"[bytes[i] >> 4], "0123456789ABCDEF"[bytes[i] & 15]};
    }
    return text;
}

// One Intel-HEX record line with its checksum and a line end.
inline std::string hexRecord(std::uint8_t type, std::uint16_t address, const Bytes& bytes) {
    Bytes record{static_cast<std::uint8_t>(bytes.size()), static_cast<std::uint8_t>(address >> 8),
                 static_cast<std::uint8_t>(address), type};
    record.insert(record.end(), bytes.begin(), bytes.end());
    record.push_back(static_cast<std::uint8_t>(0u - std::accumulate(record.begin(), record.end(), 0u)));
    return ":" + hexBytes(record.data(), record.size(), "") + "\n";
}

// Payload of CmdUploadHexFile: mode, address, identifier little-endian, path and its terminating 0.
inline Bytes uploadPayload(std::uint8_t mode, std::uint8_t address, std::uint32_t identifier,
                           const std::string& path) {
    Bytes payload{mode, address};
    for (int shift = 0; shift < 32; shift += 8) {
        payload.push_back(static_cast<std::uint8_t>(identifier >> shift));
    }
    payload.insert(payload.end(), path.begin(), path.end());
    payload.push_back(0);
    return payload;
}
