// Records and numbers of the flash job that clients, the daemon and the module dialogue share: the
// flasher's packet commands, modes and states with their names, the job status with its 8-byte wire
// form, the upload request payload, and the CAN message as the flasher builds and compares it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "varnoch/protocol/CanFrame.h"

namespace CANFlasher {

// How the target module is addressed (byte 0 of an upload request).
enum FlashMode : std::int32_t {
    ModeIsoStyle = 0,
    ModeMtCan = 1,
    ModeNewModule = 2,
    ModeGlobal = 3,
};

// Job states as broadcast to clients; 2..5 are busy, 100 and above are errors.
enum FlashState : std::int32_t {
    StateLocked = 0,
    StateIdle = 1,
    StatePreparing = 2,
    StateSearching = 3,
    StateErasing = 4,
    StateProgramming = 5,
    StateDone = 6,
    StateErrDeviceNotFound = 100,
    StateErrEraseTimeout = 101,
    StateErrResponseTimeout = 102,
    StateErrFileNotFound = 103,
    StateErrFileOpen = 104,
    StateErrFileFormat = 105,
};

// Packet commands of the flasher (the protocol layer owns 1 and 2).
enum FlashCommand : std::uint16_t {
    CmdStatus = 1000,
    CmdRequestStatus = 1001,
    CmdReset = 1002,
    CmdSetLock = 1003,
    CmdUploadHexFile = 1004,
    CmdExitWhenIdle = 1005,
};

// CmdSetLock's payload byte: any non-zero value sets the sending client's lock, 0 releases it.
enum LockRequest : std::uint8_t {
    LockRelease = 0,
    LockSet = 1,
};

/// True for the states in which a job is under way (Preparing to Programming).
constexpr bool isBusyState(std::int32_t state) {
    return state >= StatePreparing && state <= StateProgramming;
}
/// True for the error states (above 99).
constexpr bool isErrorState(std::int32_t state) {
    return state > 99;
}

/// Name text of a mode; "unknown" outside 0..3.
const char* modeName(std::int32_t mode);
/// The word that names a mode on the tools' command lines ("iso", "mtcan", "new", "global"); null
/// outside 0..3.
const char* modeOptionName(std::int32_t mode);
/// The mode a command-line word names; false for any other word.
bool modeFromOptionName(const std::string& word, std::int32_t& mode);
/// Name text of a state; "unknown" for 7..99 and above 105.
const char* stateName(std::int32_t state);

/// One CAN message as the flasher builds, stores and compares it.
struct FlashMessage {
    static constexpr std::int32_t kMaxLength = 8;

    std::uint32_t identifier = 0;
    bool extended = false;
    std::int32_t length = 0;
    std::uint8_t data[kMaxLength] = {};

    FlashMessage() = default;
    /// Caps the length at 8; copies min(length, 8) bytes from `bytes` when given, the rest stays 0.
    FlashMessage(std::uint32_t identifier, std::int32_t length, const std::uint8_t* bytes, bool extended);

    /// Identifier, extended flag and length equal, and the first `length` data bytes equal.
    bool operator==(const FlashMessage& other) const;
    bool operator!=(const FlashMessage& other) const { return !(*this == other); }

    /// Diagnostic line "%08X ext|std %u:" and the data bytes on standard output.
    void print() const;

    /// The channel layer's frame: identifier and flag copied, length capped to 0..8, data up to it.
    CanFrame toCanFrame() const;
    /// The reverse: length capped at 8, data copied up to the length and zero beyond.
    static FlashMessage fromCanFrame(const CanFrame& frame);
};

/// The job's status, the content of every status packet.
struct FlashStatus {
    static constexpr std::size_t kWireSize = 8;
    static constexpr std::int32_t kDefaultAddress = 254;
    static constexpr std::uint32_t kDefaultIdentifier = 0xFFFFFFFFu;

    std::int32_t mode = ModeIsoStyle;
    std::int32_t state = StateIdle;
    std::int32_t progress = 0;
    std::int32_t targetAddress = kDefaultAddress;
    std::uint32_t targetIdentifier = kDefaultIdentifier;

    /// Writes kWireSize bytes: 0..3 mode, state, progress, address (low 8 bits each); 4..7 the identifier
    /// little-endian.
    void toWire(std::uint8_t* wire) const;
    /// The reverse, from kWireSize bytes, for clients.
    static FlashStatus fromWire(const std::uint8_t* wire);
};

/// CmdUploadHexFile payload: byte 0 mode, byte 1 target address, bytes 2..5 target identifier
/// (little-endian), then the hex file's path and a terminating 0 byte, the payload's last.
struct UploadRequest {
    static constexpr std::uint32_t kHeaderSize = 6;

    std::int32_t mode = ModeIsoStyle;
    std::uint8_t address = static_cast<std::uint8_t>(FlashStatus::kDefaultAddress);
    std::uint32_t identifier = FlashStatus::kDefaultIdentifier;
    std::string path;

    /// The payload; the mode goes out as its low 8 bits.
    std::vector<std::uint8_t> toPayload() const;
    /// Reads a payload as the daemon does: false (the request is ignored) below kHeaderSize bytes; the
    /// path is empty when nothing follows the header or the last byte is not 0, else it runs up to
    /// the first 0 byte.
    static bool fromPayload(const std::uint8_t* payload, std::uint32_t size, UploadRequest& request);
};

}  // namespace CANFlasher
