// Shared by the fuzz targets: a check that aborts, a scratch folder, and a reader that takes typed
// values from the fuzzer's input, answering zeros once the input is used up.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

namespace varnochfuzz {

inline void check(bool condition) {
    if (!condition) {
        std::abort();
    }
}

// A fresh folder below /tmp, removed at exit; aborts when none can be made.
inline std::string scratchFolder() {
    static char name[] = "/tmp/varnoch-fuzz-XXXXXX";  // no destructor: still there when the exit handler runs
    static const bool made = [] {
        check(mkdtemp(name) != nullptr);
        return std::atexit([] {  // when it fails, or the removal does, the folder stays in /tmp
                   std::error_code ignored;
                   std::filesystem::remove_all(name, ignored);
               }) == 0;
    }();
    (void)made;
    return name;
}

// Replaces `path` with `text`; aborts on failure, which no input may cause.
inline void writeFile(const std::string& path, const std::string& text) {
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    check(static_cast<bool>(file << text) && static_cast<bool>(file.flush()));
}

class InputReader {
  public:
    InputReader(const std::uint8_t* data, std::size_t size) : data_(data), size_(size) {}
    bool empty() const { return used_ >= size_; }
    std::uint8_t byte() { return empty() ? 0 : data_[used_++]; }
    std::uint16_t word() {
        const std::uint16_t high = byte();  // the operands of | are unsequenced
        return static_cast<std::uint16_t>(high << 8 | byte());
    }
    std::uint32_t longWord() {
        const std::uint32_t high = word();
        return high << 16 | word();
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
