// Shared by the fuzz targets: a check that aborts, a scratch folder for files, and a reader that takes
// values from the fuzzer's input, answering zeros once the input is used up.
#pragma once

#include <cstdint>
#include <cstdlib>

#include "TempDir.h"

namespace varnochfuzz {

inline void check(bool condition) {
    if (!condition) {
        std::abort();
    }
}

// The target's folder for its files, made on first use and removed at exit.
inline const TempDir& scratch() {
    static const TempDir folder("fuzz");
    return folder;
}

class InputReader {
  public:
    InputReader(const std::uint8_t* data, std::size_t size) : data_(data), size_(size) {}
    bool empty() const { return used_ >= size_; }
    std::uint8_t byte() { return empty() ? 0 : data_[used_++]; }
    std::uint32_t take(int count) {  // `count` bytes, most significant first
        std::uint32_t value = 0;
        while (count-- > 0) {
            value = value << 8 | byte();
        }
        return value;
    }
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
