// The bootloader side of the flashing dialogue, independent of any transport: takes one received CAN
// frame and decides the reply a control module gives (or withholds, when a fault switch says so), and
// keeps the flash image the upload builds. Handling a frame neither allocates nor prints.
#pragma once

#include <cstdint>

#include "FlashImage.h"
#include "varnoch/protocol/CanFrame.h"
#include "varnoch/protocol/FlashProtocol.h"

namespace modulesim {

// Search dialects are the daemon's modes (CANFlasher::FlashMode); a module answers a set of them.
constexpr std::uint8_t modeBit(std::int32_t mode) {
    return static_cast<std::uint8_t>(1u << mode);
}
constexpr std::uint8_t kAllModes = 0x0F;

// Which replies the wrong-data fault spoils (a bit set).
enum WrongReply : std::uint8_t {
    WrongSearch = 1,
    WrongErase = 2,
    WrongAck = 4,  // acknowledgements of page select, data and end
    WrongAll = WrongSearch | WrongErase | WrongAck,
};

// Misbehaviours to test the daemon against; all off by default.
struct ModuleFaults {
    bool silent = false;             // never answer
    bool ignoreErase = false;        // answer the search, never the erase
    std::uint32_t dropAck = 0;       // withhold the Nth acknowledgement after the erase (1 = first); 0 = none
    bool dropAckAlways = false;      // withhold it every time it is due, not just once
    std::uint32_t replyDelayMs = 0;  // every reply this late
    std::uint8_t wrongData = 0;      // WrongReply bits: those replies carry a wrong last data byte
};

struct ModuleConfig {
    std::uint8_t address = 0x26;            // answered in "ISO Style" searches
    std::uint32_t identifier = 0x12345678;  // answered in "MT CAN" searches
    std::uint8_t modes = kAllModes;         // modeBit() of every search dialect answered
    std::uint32_t flashPages = 256;         // 16 KiB pages available to an upload (4 MiB)
    ModuleFaults faults;
};

// What one received frame was, as far as the module understood it.
enum class FrameKind : std::uint8_t { Ignored, Search, Erase, SelectPage, Write, End, Finish };

// The module's reaction to one frame.
struct ModuleReaction {
    FrameKind kind = FrameKind::Ignored;
    bool reply = false;  // `replyFrame` is to be sent `delayMs` from now
    CanFrame replyFrame{};
    std::uint32_t delayMs = 0;
    bool withheld = false;       // a reply was due, a fault switch kept it back
    bool imageComplete = false;  // the end command: save the image before the reply goes out
    bool writeRefused = false;   // a write the flash could not take (outside the pool); unanswered
};

class ModuleSimulator {
  public:
    explicit ModuleSimulator(const ModuleConfig& config);

    // Reacts to one frame from the bus; never allocates or prints.
    void handleFrame(const CanFrame& frame, ModuleReaction& reaction);

    const FlashImage& image() const { return image_; }
    const ModuleConfig& config() const { return config_; }
    // True between an answered search and the finish frame.
    bool selected() const { return selected_; }
    // End commands (06 01) taken, and finish frames seen after one.
    std::uint32_t uploadsEnded() const { return uploadsEnded_; }
    std::uint32_t uploadsFinished() const { return uploadsFinished_; }
    // Acknowledgements sent since the last erase.
    std::uint32_t acknowledgements() const { return acknowledgements_; }

  private:
    bool isSearchForMe(const CANFlasher::FlashMessage& frame) const;
    void handleRequest(const CANFlasher::FlashMessage& frame, ModuleReaction& reaction);
    // Fills in the reply unless a fault switch withholds it; acknowledgements count for dropAck.
    void answer(ModuleReaction& reaction, const CANFlasher::FlashMessage& reply, WrongReply kind);

    ModuleConfig config_;
    FlashImage image_;
    bool selected_ = false;
    bool endSeen_ = false;  // an end command since the last search: the next finish frame completes
    std::uint16_t page_ = 0;
    std::uint32_t acknowledgements_ = 0;
    bool ackDropped_ = false;
    std::uint32_t uploadsEnded_ = 0;
    std::uint32_t uploadsFinished_ = 0;
};

}  // namespace modulesim
