#include "FlashImage.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>

namespace modulesim {

namespace {

struct FileCloser {
    void operator()(std::FILE* file) const {
        // Only reached on an error path, where a second failure adds nothing to the first.
        static_cast<void>(std::fclose(file));
    }
};
using FileHandle = std::unique_ptr<std::FILE, FileCloser>;

std::string systemError(const char* what, const std::string& path) {
    return std::string(what) + " " + path + ": " + std::strerror(errno);
}

// Writes `fill` to `path` through a temporary file renamed into place, so that a reader never sees a
// half-written file.
template <typename Fill>
bool writeReplacing(const std::string& path, std::string& error, Fill fill) {
    const std::string temporary = path + ".tmp";
    FileHandle file(std::fopen(temporary.c_str(), "wb"));
    if (!file) {
        error = systemError("cannot create", temporary);
        return false;
    }
    if (!fill(file.get())) {
        error = systemError("cannot write", temporary);
        return false;
    }
    if (std::fclose(file.release()) != 0) {
        error = systemError("cannot write", temporary);
        return false;
    }
    if (std::rename(temporary.c_str(), path.c_str()) != 0) {
        error = systemError("cannot rename to", path);
        return false;
    }
    return true;
}

}  // namespace

FlashImage::FlashImage(std::uint32_t pageCapacity)
    : storage_(static_cast<std::size_t>(std::max<std::uint32_t>(pageCapacity, 1)) * kPageSize, kErasedByte),
      pageNumbers_(std::max<std::uint32_t>(pageCapacity, 1), 0) {}

void FlashImage::erase() {
    std::fill(storage_.begin(),
              storage_.begin() + static_cast<std::ptrdiff_t>(std::size_t{pagesInUse_} * kPageSize),
              kErasedByte);
    pagesInUse_ = 0;
    lastSlot_ = -1;
    written_ = false;
    lowest_ = 0;
    highest_ = 0;
}

std::int32_t FlashImage::findSlot(std::uint32_t page) const {
    if (lastSlot_ >= 0 && pageNumbers_[static_cast<std::size_t>(lastSlot_)] == page) {
        return lastSlot_;
    }
    for (std::uint32_t slot = 0; slot < pagesInUse_; ++slot) {
        if (pageNumbers_[slot] == page) {
            lastSlot_ = static_cast<std::int32_t>(slot);
            return lastSlot_;
        }
    }
    return -1;
}

bool FlashImage::write(std::uint16_t page, std::uint16_t offset, const std::uint8_t* bytes,
                       std::uint32_t count) {
    if (count == 0 || static_cast<std::uint32_t>(offset) + count > kPageSize) {
        return false;
    }
    std::int32_t slot = findSlot(page);
    if (slot < 0) {
        if (pagesInUse_ == pageNumbers_.size()) {
            return false;
        }
        slot = static_cast<std::int32_t>(pagesInUse_++);
        pageNumbers_[static_cast<std::size_t>(slot)] = page;
        lastSlot_ = slot;
    }
    std::memcpy(&storage_[static_cast<std::size_t>(slot) * kPageSize + offset], bytes, count);

    const std::uint32_t first = static_cast<std::uint32_t>(page) * kPageSize + offset;
    const std::uint32_t last = first + count - 1;
    lowest_ = written_ ? std::min(lowest_, first) : first;
    highest_ = written_ ? std::max(highest_, last) : last;
    written_ = true;
    return true;
}

std::uint8_t FlashImage::byteAt(std::uint32_t address) const {
    const std::int32_t slot = findSlot(address / kPageSize);
    if (slot < 0) {
        return kErasedByte;
    }
    return storage_[static_cast<std::size_t>(slot) * kPageSize + address % kPageSize];
}

std::string FlashImage::rangeLine() const {
    if (!written_) {
        return "empty\n";
    }
    char line[32];
    std::snprintf(line, sizeof line, "0x%08X 0x%08X\n", static_cast<unsigned>(lowest_),
                  static_cast<unsigned>(highest_));
    return line;
}

bool FlashImage::save(const std::string& path, std::string& error) const {
    static const std::vector<std::uint8_t> erasedPage(kPageSize, kErasedByte);
    const bool imageWritten = writeReplacing(path, error, [this](std::FILE* file) {
        if (!written_) {
            return true;
        }
        // Page by page, so that an unwritten page costs no lookup per byte.
        std::uint32_t address = lowest_;
        while (true) {
            const std::uint32_t offset = address % kPageSize;
            const std::uint32_t pageEnd = address - offset + (kPageSize - 1);
            const std::uint32_t last = std::min(pageEnd, highest_);
            const std::size_t count = last - address + 1;
            const std::int32_t slot = findSlot(address / kPageSize);
            const std::uint8_t* source =
                slot < 0 ? erasedPage.data() : &storage_[static_cast<std::size_t>(slot) * kPageSize + offset];
            if (std::fwrite(source, 1, count, file) != count) {
                return false;
            }
            if (last == highest_) {
                return true;
            }
            address = last + 1;
        }
    });
    if (!imageWritten) {
        return false;
    }
    const std::string line = rangeLine();
    return writeReplacing(path + ".range", error,
                          [&line](std::FILE* file) { return std::fputs(line.c_str(), file) >= 0; });
}

}  // namespace modulesim
