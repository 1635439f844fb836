// The simulated module's flash memory: 16 KiB pages erased to 0xFF, held in a pool that is allocated
// once, so that writing during an upload never allocates. Tracks the lowest and highest written address.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "varnoch/protocol/FlashProtocol.h"

namespace modulesim {

class FlashImage {
  public:
    static constexpr std::uint32_t kPageSize = CANFlasher::kPageSize;
    static constexpr std::uint8_t kErasedByte = 0xFF;

    // A pool of `pageCapacity` pages (at least one); no page is in use yet.
    explicit FlashImage(std::uint32_t pageCapacity);

    // Returns every page to the pool (all bytes read 0xFF again) and forgets the written range.
    void erase();
    // Writes `count` bytes at page × 16 KiB + offset; false (nothing written) when the bytes cross the
    // page's end or the page would need a pool slot and none is free.
    bool write(std::uint16_t page, std::uint16_t offset, const std::uint8_t* bytes, std::uint32_t count);

    // True while nothing has been written since construction or the last erase.
    bool empty() const { return !written_; }
    // First and last written address (inclusive); both 0 while empty.
    std::uint32_t lowest() const { return lowest_; }
    std::uint32_t highest() const { return highest_; }
    // The byte at a linear address; 0xFF where nothing was written.
    std::uint8_t byteAt(std::uint32_t address) const;
    std::uint32_t pageCapacity() const { return static_cast<std::uint32_t>(pageNumbers_.size()); }
    std::uint32_t pagesInUse() const { return pagesInUse_; }

    // Saves the bytes from lowest() to highest() (gaps as 0xFF; an empty file for an empty image) to
    // `path`, and the range line (rangeLine()) to `path` + ".range"; each goes to a temporary file that
    // is renamed into place. False with `error` set when a file cannot be written.
    bool save(const std::string& path, std::string& error) const;
    // "0x%08X 0x%08X\n" with the lowest and highest written address, or "empty\n".
    std::string rangeLine() const;

  private:
    // Pool slot of a page in use, or -1.
    std::int32_t findSlot(std::uint32_t page) const;

    std::vector<std::uint8_t> storage_;       // pageCapacity × kPageSize bytes
    std::vector<std::uint32_t> pageNumbers_;  // page held by each slot in use
    std::uint32_t pagesInUse_ = 0;
    mutable std::int32_t lastSlot_ = -1;  // consecutive writes nearly always hit the same page
    bool written_ = false;
    std::uint32_t lowest_ = 0;
    std::uint32_t highest_ = 0;
};

}  // namespace modulesim
