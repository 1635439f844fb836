// SHA-256 (FIPS 180-4) for the tools: the digest of a flash image, so that a file checked before
// flashing and the image a module holds afterwards can be compared by one line of text.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>

namespace toolcommon {

class Sha256 {
  public:
    using Digest = std::array<std::uint8_t, 32>;

    Sha256();
    /// Adds `count` bytes to the message.
    void update(const std::uint8_t* bytes, std::size_t count);
    /// Adds `count` copies of `byte` (the erased gaps of an image).
    void fill(std::uint8_t byte, std::size_t count);
    /// Pads the message and returns its digest; the object must not be updated afterwards.
    Digest finish();

    /// The digest as 64 lower-case hexadecimal digits.
    static std::string hex(const Digest& digest);

  private:
    void compress(const std::uint8_t* block);

    std::array<std::uint32_t, 8> state_;
    std::array<std::uint8_t, 64> block_{};
    std::size_t used_ = 0;      // bytes waiting in block_
    std::uint64_t length_ = 0;  // message length in bytes
};

}  // namespace toolcommon
