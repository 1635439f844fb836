#include "varnoch/protocol/FlashTypes.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <iterator>

namespace CANFlasher {

namespace {

constexpr const char* kUnknownName = "unknown";

constexpr const char* kModeNames[] = {"ISO Style", "MT CAN", "New Module", "Global"};
constexpr const char* kModeOptionNames[] = {"iso", "mtcan", "new", "global"};
static_assert(std::size(kModeOptionNames) == std::size(kModeNames), "one command-line word per mode");
constexpr std::size_t kIdentifierBytes = 4;

constexpr std::uint32_t kStateNameCount = 106;

struct StateNameRow {
    std::int32_t state;
    const char* name;
};

constexpr StateNameRow kStateNames[] = {
    {StateLocked, "Locked"},
    {StateIdle, "Idle"},
    {StatePreparing, "Preparing for upload"},
    {StateSearching, "Searching for device"},
    {StateErasing, "Erasing FLASH"},
    {StateProgramming, "Programming"},
    {StateDone, "Done"},
    {StateErrDeviceNotFound, "Error! Device not found."},
    {StateErrEraseTimeout, "Error! Timed out while waiting for FLASH erase."},
    {StateErrResponseTimeout, "Error! Timed out while waiting for response."},
    {StateErrFileNotFound, "Error! Unable to find the hex file."},
    {StateErrFileOpen, "Error! Unable to open the hex file."},
    {StateErrFileFormat, "Error! The hex file is incorrectly formatted."},
};

void writeLittleEndian32(std::uint8_t* out, std::uint32_t value) {
    for (std::size_t i = 0; i < kIdentifierBytes; ++i) {
        out[i] = static_cast<std::uint8_t>(value >> (8 * i));
    }
}

std::uint32_t readLittleEndian32(const std::uint8_t* in) {
    std::uint32_t value = 0;
    for (std::size_t i = 0; i < kIdentifierBytes; ++i) {
        value |= static_cast<std::uint32_t>(in[i]) << (8 * i);
    }
    return value;
}

std::int32_t cappedLength(std::int32_t length) {
    return std::clamp(length, 0, FlashMessage::kMaxLength);
}

}  // namespace

const char* modeName(std::int32_t mode) {
    const auto index = static_cast<std::uint32_t>(mode);
    return index < std::size(kModeNames) ? kModeNames[index] : kUnknownName;
}

const char* modeOptionName(std::int32_t mode) {
    const auto index = static_cast<std::uint32_t>(mode);
    return index < std::size(kModeOptionNames) ? kModeOptionNames[index] : nullptr;
}

bool modeFromOptionName(const std::string& word, std::int32_t& mode) {
    for (std::size_t i = 0; i < std::size(kModeOptionNames); ++i) {
        if (word == kModeOptionNames[i]) {
            mode = static_cast<std::int32_t>(i);
            return true;
        }
    }
    return false;
}

const char* stateName(std::int32_t state) {
    if (static_cast<std::uint32_t>(state) >= kStateNameCount) {
        return kUnknownName;
    }
    for (const StateNameRow& row : kStateNames) {
        if (row.state == state) {
            return row.name;
        }
    }
    return kUnknownName;
}

FlashMessage::FlashMessage(std::uint32_t identifier_, std::int32_t length_, const std::uint8_t* bytes,
                           bool extended_)
    : identifier(identifier_), extended(extended_), length(std::min(length_, kMaxLength)) {
    if (bytes != nullptr && length > 0) {
        std::memcpy(data, bytes, static_cast<std::size_t>(length));
    }
}

bool FlashMessage::operator==(const FlashMessage& other) const {
    if (identifier != other.identifier || extended != other.extended || length != other.length) {
        return false;
    }
    return std::memcmp(data, other.data, static_cast<std::size_t>(cappedLength(length))) == 0;
}

void FlashMessage::print() const {
    std::printf("%08X %s %u:", identifier, extended ? "ext" : "std", static_cast<unsigned>(length));
    for (std::int32_t i = 0; i < cappedLength(length); ++i) {
        std::printf(" %02X", data[i]);
    }
    std::printf("\n");
}

CanFrame FlashMessage::toCanFrame() const {
    CanFrame frame{};
    frame.identifier = identifier;
    frame.extended = extended ? 1 : 0;
    frame.length = static_cast<std::uint8_t>(cappedLength(length));
    std::memcpy(frame.data, data, frame.length);
    return frame;
}

FlashMessage FlashMessage::fromCanFrame(const CanFrame& frame) {
    return FlashMessage(frame.identifier, frame.length, frame.data, frame.extended != 0);
}

void FlashStatus::toWire(std::uint8_t* wire) const {
    wire[0] = static_cast<std::uint8_t>(mode);
    wire[1] = static_cast<std::uint8_t>(state);
    wire[2] = static_cast<std::uint8_t>(progress);
    wire[3] = static_cast<std::uint8_t>(targetAddress);
    writeLittleEndian32(wire + 4, targetIdentifier);
}

FlashStatus FlashStatus::fromWire(const std::uint8_t* wire) {
    FlashStatus status;
    status.mode = wire[0];
    status.state = wire[1];
    status.progress = wire[2];
    status.targetAddress = wire[3];
    status.targetIdentifier = readLittleEndian32(wire + 4);
    return status;
}

std::vector<std::uint8_t> UploadRequest::toPayload() const {
    std::vector<std::uint8_t> payload(kHeaderSize + path.size() + 1, 0);
    payload[0] = static_cast<std::uint8_t>(mode);
    payload[1] = address;
    writeLittleEndian32(payload.data() + 2, identifier);
    std::memcpy(payload.data() + kHeaderSize, path.data(), path.size());
    return payload;
}

bool UploadRequest::fromPayload(const std::uint8_t* payload, std::uint32_t size, UploadRequest& request) {
    if (size < kHeaderSize) {
        return false;
    }
    request.mode = payload[0];
    request.address = payload[1];
    request.identifier = readLittleEndian32(payload + 2);
    if (size == kHeaderSize || payload[size - 1] != 0) {
        request.path.clear();
    } else {
        request.path.assign(reinterpret_cast<const char*>(payload + kHeaderSize));
    }
    return true;
}

}  // namespace CANFlasher
