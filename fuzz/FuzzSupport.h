// Shared by the fuzz targets: a check that aborts, files in a scratch folder, and a reader that takes
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

// A fresh folder below /tmp, made on first use and removed at exit.
inline std::string scratchFolder() {
    static char name[] = "/tmp/varnoch-fuzz-XXXXXX";  // no destructor: still there when the exit handler runs
    static const bool made =
        mkdtemp(name) != nullptr && std::atexit([] {
                                        std::error_code ignored;  // a folder that cannot be removed stays
                                        std::filesystem::remove_all(name, ignored);
                                    }) == 0;
    check(made);
    return name;
}

// Replaces the scratch file `name` with `text` and returns its path; no input may make this fail.
inline std::string writeFile(const std::string& name, const std::string& text) {
    const std::string path = scratchFolder() + "/" + name;
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    check(static_cast<bool>(file << text) && static_cast<bool>(file.flush()));
    return path;
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
