#include "HexCheck.h"

#include <algorithm>
#include <set>

#include "FlashImage.h"
#include "Sha256.h"
#include "varnoch/protocol/FlashProtocol.h"

namespace toolcommon {

namespace {

using CANFlasher::UploadMessages;

std::uint16_t littleEndian16(const std::uint8_t* bytes) {
    return static_cast<std::uint16_t>(bytes[0] | bytes[1] << 8);
}

// The written address ranges, merged where they touch or overlap, and the pages written; counts the
// page selects and data bytes into `check`.
std::set<std::uint16_t> collectWrites(const UploadMessages& messages, std::size_t count, HexCheck& check) {
    std::set<std::uint16_t> pages;
    std::vector<AddressRange> writes;
    std::uint16_t page = 0;
    for (std::size_t i = 0; i < count; ++i) {
        const UploadMessages::Payload& data = messages.payload(i);
        if (data[0] == CANFlasher::UploadSelectPage) {
            page = littleEndian16(&data[1]);
            ++check.pageSelects;
        } else if (data[0] == CANFlasher::UploadData) {
            const std::uint32_t first = page * CANFlasher::kPageSize + littleEndian16(&data[1]);
            writes.push_back({first, first + data[3] - 1});
            pages.insert(page);
            check.dataBytes += data[3];
        }
    }

    std::sort(writes.begin(), writes.end(),
              [](const AddressRange& a, const AddressRange& b) { return a.first < b.first; });
    for (const AddressRange& write : writes) {
        if (!check.ranges.empty() && write.first <= check.ranges.back().last + 1) {
            check.ranges.back().last = std::max(check.ranges.back().last, write.last);
        } else {
            check.ranges.push_back(write);
        }
    }
    return pages;
}

void writeImage(const UploadMessages& messages, std::size_t count, modulesim::FlashImage& image) {
    std::uint16_t page = 0;
    for (std::size_t i = 0; i < count; ++i) {
        const UploadMessages::Payload& data = messages.payload(i);
        if (data[0] == CANFlasher::UploadSelectPage) {
            page = littleEndian16(&data[1]);
        } else if (data[0] == CANFlasher::UploadData) {
            (void)image.write(page, littleEndian16(&data[1]), &data[4],
                              data[3]);  // the pool holds every page
        }
    }
}

void hashImage(const modulesim::FlashImage& image, const std::set<std::uint16_t>& pages, Sha256& sha) {
    if (image.empty()) {
        return;
    }
    // Page by page: a page never written hashes as erased bytes without being looked up byte by byte.
    std::vector<std::uint8_t> bytes;
    for (std::uint32_t at = image.lowest(); at <= image.highest();) {
        const std::uint32_t pageNumber = at / CANFlasher::kPageSize;
        const std::uint32_t end = std::min(image.highest(), (pageNumber + 1) * CANFlasher::kPageSize - 1);
        const std::size_t length = end - at + 1;
        if (pages.count(static_cast<std::uint16_t>(pageNumber)) == 0) {
            sha.fill(modulesim::FlashImage::kErasedByte, length);
        } else {
            bytes.resize(length);
            for (std::size_t k = 0; k < length; ++k) {
                bytes[k] = image.byteAt(at + static_cast<std::uint32_t>(k));
            }
            sha.update(bytes.data(), length);
        }
        if (end == image.highest()) {
            break;
        }
        at = end + 1;
    }
}

// Plays the messages into a module's flash as the simulated module does: a page select sets the page
// (its low 16 bits), a data message writes its count of bytes at page × 16 KiB + offset.
void readBack(const UploadMessages& messages, std::size_t count, HexCheck& check) {
    const std::set<std::uint16_t> pages = collectWrites(messages, count, check);
    modulesim::FlashImage image(static_cast<std::uint32_t>(pages.size()));
    writeImage(messages, count, image);
    Sha256 sha;
    hashImage(image, pages, sha);
    check.sha256 = Sha256::hex(sha.finish());
}

}  // namespace

HexCheck checkHexFile(const std::string& path) {
    HexCheck check;
    UploadMessages messages;
    check.result = CANFlasher::loadHexMessages(path, messages, {}, &check.detail);
    switch (check.result) {
        case CANFlasher::HexLoadResult::Loaded:
        case CANFlasher::HexLoadResult::Interrupted:  // never: nothing interrupts this load
            check.state = CANFlasher::StatePreparing;
            break;
        case CANFlasher::HexLoadResult::OpenFailed:
            check.state = CANFlasher::StateErrFileOpen;
            return check;
        case CANFlasher::HexLoadResult::Malformed:
            check.state = CANFlasher::StateErrFileFormat;
            return check;
    }
    check.messages = messages.size();
    for (std::size_t i = 0; i < messages.size(); ++i) {
        check.busBits += CANFlasher::exchangeBits(messages[i]);
    }
    // The two end messages close every loaded file; the first looks like a select of page 0.
    readBack(messages, messages.size() >= 2 ? messages.size() - 2 : 0, check);
    return check;
}

std::uint64_t busMicroseconds(std::uint64_t bits, std::uint32_t bitsPerSecond) {
    return (bits * 1000000 + bitsPerSecond - 1) / bitsPerSecond;
}

const char* hexLineRuleText(CANFlasher::HexLineRule rule) {
    switch (rule) {
        case CANFlasher::HexLineRule::None:
            return "";
        case CANFlasher::HexLineRule::NoColon:
            return "no ':' at the start";
        case CANFlasher::HexLineRule::TooShort:
            return "shorter than 11 characters";
        case CANFlasher::HexLineRule::CountBeyondLine:
            return "byte count beyond the line";
        case CANFlasher::HexLineRule::Checksum:
            return "checksum";
        case CANFlasher::HexLineRule::EndBeforeEndRecord:
            return "end of file before the end-of-file record";
    }
    return "";
}

}  // namespace toolcommon
