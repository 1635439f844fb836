#include "FlashTypes.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <iterator>

#include "canchannel.h"

namespace CANFlasher {

namespace {

constexpr const char* kUnknownName = "unknown";

constexpr const char* kModeNames[] = {"ISO Style", "MT CAN", "New Module", "Global"};

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

std::int32_t cappedLength(std::int32_t length) {
    return std::clamp(length, 0, FlashMessage::kMaxLength);
}

}  // namespace

const char* modeName(std::int32_t mode) {
    const auto index = static_cast<std::uint32_t>(mode);
    return index < std::size(kModeNames) ? kModeNames[index] : kUnknownName;
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
    for (int i = 0; i < 4; ++i) {
        wire[4 + i] = static_cast<std::uint8_t>(targetIdentifier >> (8 * i));
    }
}

FlashStatus FlashStatus::fromWire(const std::uint8_t* wire) {
    FlashStatus status;
    status.mode = wire[0];
    status.state = wire[1];
    status.progress = wire[2];
    status.targetAddress = wire[3];
    status.targetIdentifier = 0;
    for (int i = 0; i < 4; ++i) {
        status.targetIdentifier |= static_cast<std::uint32_t>(wire[4 + i]) << (8 * i);
    }
    return status;
}

}  // namespace CANFlasher
