#include "HexLoader.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <iterator>

#include "fileio.h"

namespace CANFlasher {

namespace {

// ':' + count (2) + address (4) + type (2) + checksum (2).
constexpr std::size_t kMinRecordLength = 11;
constexpr std::size_t kCountAt = 1;
constexpr std::size_t kAddressAt = 3;
constexpr std::size_t kTypeAt = 7;
constexpr std::size_t kDataAt = 9;
constexpr std::uint32_t kMaxByteCount = 0xFF;

// Value of each character as a hexadecimal digit; 0xFF for every other character.
struct HexDigits {
    std::uint8_t value[256];
    constexpr HexDigits() : value() {
        for (int i = 0; i < 256; ++i) {
            value[i] = 0xFF;
        }
        for (int i = 0; i < 10; ++i) {
            value['0' + i] = static_cast<std::uint8_t>(i);
        }
        for (int i = 0; i < 6; ++i) {
            value['A' + i] = static_cast<std::uint8_t>(10 + i);
            value['a' + i] = static_cast<std::uint8_t>(10 + i);
        }
    }
};
constexpr HexDigits kHexDigits;

int hexDigit(char c) {
    const std::uint8_t value = kHexDigits.value[static_cast<unsigned char>(c)];
    return value == 0xFF ? -1 : value;
}

// The field's characters converted as strtoul in base 16 does: it stops at the first non-digit.
unsigned long hexField(const std::string& line, std::size_t at, std::size_t width) {
    // Fields of hex digits only (every well-formed record) are converted here; anything else the way
    // strtoul reads it (signs, blanks, a 0x prefix, a stop at the first other character).
    unsigned long value = 0;
    std::size_t i = 0;
    for (; i < width; ++i) {
        const int digit = hexDigit(line[at + i]);
        if (digit < 0) {
            break;
        }
        value = (value << 4) | static_cast<unsigned long>(digit);
    }
    if (i == width) {
        return value;
    }
    char field[8] = {};
    std::memcpy(field, line.data() + at, width);
    return std::strtoul(field, nullptr, 16);
}

// Builds the messages of one load; the template's data bytes carry over from message to message.
class MessageBuilder {
  public:
    explicit MessageBuilder(UploadMessages& messages)
        : messages_(messages), template_(kUploadIdentifier, FlashMessage::kMaxLength, nullptr, true) {}

    void addData(std::uint32_t address, const std::vector<std::uint8_t>& bytes) {
        const std::uint32_t linear = base_ + address;
        std::int32_t page = static_cast<std::int32_t>(linear >> kPageShift);
        std::uint32_t offset = linear & (kPageSize - 1);
        const auto count = static_cast<std::uint32_t>(bytes.size());
        std::uint32_t position = 0;
        while (position < count) {
            std::uint32_t k = std::min(count - position, kMaxDataPerMessage);
            if (offset + k > kPageSize) {
                k = kPageSize - offset;
            }
            if (page != lastPage_) {
                selectPage(static_cast<std::uint32_t>(page));
            }
            // Bytes after the k new ones keep what the previous message left: the module ignores them.
            writeDataMessage(template_, offset, bytes.data() + position, k);
            messages_.append(template_.data);
            lastPage_ = page;
            position += k;
            offset += k;
            if (offset == kPageSize) {
                offset = 0;
                ++page;
            }
        }
    }

    void addEnd() {
        template_ = endSelectMessage();
        messages_.append(template_.data);
        template_ = endMessage();
        messages_.append(template_.data);
    }

    // Only the first data byte counts: this departs from the usual reading of the record on purpose.
    void setSegmentBase(std::uint8_t high) { base_ = static_cast<std::uint32_t>(high) << 12; }
    void setLinearBase(std::uint8_t high, std::uint8_t low) {
        base_ = (static_cast<std::uint32_t>(high) * 256u + low) << 16;
    }

  private:
    void selectPage(std::uint32_t page) {
        template_ = pageSelectMessage(page);
        messages_.append(template_.data);
    }

    UploadMessages& messages_;
    FlashMessage template_;
    std::uint32_t base_ = 0;
    std::int32_t lastPage_ = -1;  // no page selected yet
};

}  // namespace

void UploadMessages::append(const std::uint8_t (&data)[FlashMessage::kMaxLength]) {
    Payload& payload = payloads_.emplace_back();
    std::copy(std::begin(data), std::end(data), payload.begin());
}

void UploadMessages::clear() {
    // A cleared deque keeps one block; swapping with an empty one frees them all.
    std::deque<Payload>().swap(payloads_);
}

FlashMessage UploadMessages::operator[](std::size_t index) const {
    return FlashMessage(kUploadIdentifier, FlashMessage::kMaxLength, payloads_[index].data(), true);
}

bool parseHexLine(const std::string& line, std::uint32_t& address, std::uint32_t& recordType,
                  std::vector<std::uint8_t>& data) {
    return checkHexLine(line, address, recordType, data) == HexLineRule::None;
}

HexLineRule checkHexLine(const std::string& line, std::uint32_t& address, std::uint32_t& recordType,
                         std::vector<std::uint8_t>& data) {
    data.clear();
    if (line.empty() || line[0] != ':') {
        return HexLineRule::NoColon;
    }
    if (line.size() < kMinRecordLength) {
        return HexLineRule::TooShort;
    }
    const unsigned long count = hexField(line, kCountAt, 2);
    address = static_cast<std::uint32_t>(hexField(line, kAddressAt, 4));
    recordType = static_cast<std::uint32_t>(hexField(line, kTypeAt, 2));
    // A count above 0xFF can only come from a signed field ("-1"); it never fits a line anyway.
    if (count > kMaxByteCount || kMinRecordLength + 2 * count > line.size()) {
        return HexLineRule::CountBeyondLine;
    }
    unsigned long sum = count + (address >> 8) + (address & 0xFF) + recordType;
    for (std::size_t i = 0; i < count; ++i) {
        const unsigned long byte = hexField(line, kDataAt + 2 * i, 2);
        data.push_back(static_cast<std::uint8_t>(byte));
        sum += byte;
    }
    const unsigned long checksum = hexField(line, kDataAt + 2 * count, 2);
    return ((sum + checksum) & 0xFF) == 0 ? HexLineRule::None : HexLineRule::Checksum;
}

HexLoadResult loadHexMessages(const std::string& path, UploadMessages& messages,
                              const std::function<bool()>& keepReading, HexLoadDetail* detail) {
    HexLoadDetail unused;
    HexLoadDetail& read = detail != nullptr ? *detail : unused;
    read = HexLoadDetail();
    const auto malformed = [&read](HexLineRule rule) {
        read.line = read.records + 1;
        read.rule = rule;
        return HexLoadResult::Malformed;
    };
    messages.clear();
    fileio::LineReader reader(path, kMaxHexLineLength);
    if (!reader.isOpen()) {
        return HexLoadResult::OpenFailed;
    }
    MessageBuilder builder(messages);
    std::string line;
    std::vector<std::uint8_t> data;
    std::uint32_t address = 0;
    std::uint32_t recordType = HexData;
    while (recordType != HexEndOfFile) {
        if (keepReading && !keepReading()) {
            return HexLoadResult::Interrupted;
        }
        // A file that ends before its end-of-file record is as malformed as a bad line.
        if (reader.atEnd()) {
            return malformed(HexLineRule::EndBeforeEndRecord);
        }
        (void)reader.next(line);  // cannot fail: the reader is not at its end
        const HexLineRule broken = checkHexLine(line, address, recordType, data);
        if (broken != HexLineRule::None) {
            return malformed(broken);
        }
        ++read.records;
        // Records of types 2 and 4 are read as carrying at least two bytes; missing ones count as 0.
        const std::uint8_t first = data.empty() ? 0 : data[0];
        const std::uint8_t second = data.size() < 2 ? 0 : data[1];
        switch (recordType) {
            case HexData:
                builder.addData(address, data);
                break;
            case HexEndOfFile:
                builder.addEnd();
                break;
            case HexExtendedSegmentAddress:
                builder.setSegmentBase(first);
                break;
            case HexExtendedLinearAddress:
                builder.setLinearBase(first, second);
                break;
            default:  // start segment address (3) and unknown types carry nothing for the module
                break;
        }
    }
    return HexLoadResult::Loaded;
}

}  // namespace CANFlasher
