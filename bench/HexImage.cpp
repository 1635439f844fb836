#include "HexImage.h"

#include <cstdio>
#include <memory>

namespace varnochbench {

namespace {

constexpr std::uint32_t kSegmentBytes = 0x10000;  // reach of a record's 16-bit address
constexpr std::uint8_t kTypeData = 0;
constexpr std::uint8_t kTypeEndOfFile = 1;
constexpr std::uint8_t kTypeExtendedLinear = 4;

// The same bytes on every run and machine, without runs that a loader could take a shortcut on.
class ByteSource {
  public:
    std::uint8_t next() {
        state_ ^= state_ << 13;
        state_ ^= state_ >> 17;
        state_ ^= state_ << 5;
        return static_cast<std::uint8_t>(state_ >> 24);
    }

  private:
    std::uint32_t state_ = 0x9E3779B9u;
};

bool writeRecord(std::FILE* file, std::uint16_t address, std::uint8_t type, const std::uint8_t* data,
                 std::uint32_t count) {
    std::uint32_t sum = count + (address >> 8) + (address & 0xFFu) + type;
    if (std::fprintf(file, ":%02X%04X%02X", static_cast<unsigned>(count), static_cast<unsigned>(address),
                     static_cast<unsigned>(type)) < 0) {
        return false;
    }
    for (std::uint32_t i = 0; i < count; ++i) {
        sum += data[i];
        if (std::fprintf(file, "%02X", static_cast<unsigned>(data[i])) < 0) {
            return false;
        }
    }
    return std::fprintf(file, "%02X\n", static_cast<unsigned>((0x100u - (sum & 0xFFu)) & 0xFFu)) >= 0;
}

struct FileCloser {
    void operator()(std::FILE* file) const {
        if (file != nullptr) {
            (void)std::fclose(file);  // writeHexImage closes it itself when the result matters
        }
    }
};

}  // namespace

bool writeHexImage(const std::string& path, std::uint32_t bytes) {
    std::unique_ptr<std::FILE, FileCloser> file(std::fopen(path.c_str(), "w"));
    if (!file) {
        return false;
    }
    ByteSource source;
    std::uint8_t data[kHexRecordBytes];
    for (std::uint32_t at = 0; at < bytes; at += kHexRecordBytes) {
        if (at % kSegmentBytes == 0 && at != 0) {
            const std::uint8_t upper[2] = {static_cast<std::uint8_t>(at >> 24),
                                           static_cast<std::uint8_t>(at >> 16)};
            if (!writeRecord(file.get(), 0, kTypeExtendedLinear, upper, 2)) {
                return false;
            }
        }
        const std::uint32_t count = bytes - at < kHexRecordBytes ? bytes - at : kHexRecordBytes;
        for (std::uint32_t i = 0; i < count; ++i) {
            data[i] = source.next();
        }
        if (!writeRecord(file.get(), static_cast<std::uint16_t>(at & 0xFFFFu), kTypeData, data, count)) {
            return false;
        }
    }
    if (!writeRecord(file.get(), 0, kTypeEndOfFile, nullptr, 0)) {
        return false;
    }
    return std::fclose(file.release()) == 0;
}

}  // namespace varnochbench
