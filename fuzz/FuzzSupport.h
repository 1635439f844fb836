// Helpers shared by the fuzz targets: a private scratch folder and a reader that takes typed values
// from the fuzzer's input, answering zeros once the input is used up.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace varnochfuzz {

/// Creates a fresh folder below /tmp for the life of the process and removes it (with its files) at
/// exit; aborts when none can be made, since no input could be run without it.
const std::string& scratchFolder();

/// Writes `size` bytes to `path`, replacing it; aborts on failure, which no input may cause.
void writeFile(const std::string& path, const void* bytes, std::size_t size);

class InputReader {
  public:
    InputReader(const std::uint8_t* data, std::size_t size) : data_(data), size_(size) {}

    bool empty() const { return used_ >= size_; }
    std::uint8_t byte() { return empty() ? 0 : data_[used_++]; }
    std::uint16_t word() {
        const std::uint16_t high = byte();
        return static_cast<std::uint16_t>(high << 8 | byte());
    }
    std::uint32_t longWord() {
        const std::uint32_t high = word();
        return high << 16 | word();
    }
    /// Copies up to `count` bytes into `out` and zero-fills the rest.
    void bytes(std::uint8_t* out, std::size_t count) {
        for (std::size_t i = 0; i < count; ++i) {
            out[i] = byte();
        }
    }

  private:
    const std::uint8_t* data_;
    std::size_t size_;
    std::size_t used_ = 0;
};

}  // namespace varnochfuzz
