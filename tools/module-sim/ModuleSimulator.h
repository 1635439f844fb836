// The bootloader side of the flashing dialogue, independent of any transport: takes one received CAN
// frame and decides the reply a control module gives (or withholds, when a fault switch says so), and
// keeps the flash image the upload builds. Handling a frame neither allocates nor prints.
#pragma once

#include <cstdint>

#include "FlashImage.h"
#include "canchannel.h"

namespace modulesim {

// Frame identifiers and payload bytes of the dialogue (all identifiers extended).
constexpr std::uint32_t kIsoSearchBase = 0x18EF00C0;  // + address × 256
constexpr std::uint32_t kIsoSearchAddressShift = 8;
constexpr std::uint32_t kMtSearchOddId = 0x1FF00444;
constexpr std::uint32_t kMtSearchEvenId = 0x1F800444;
constexpr std::uint32_t kGlobalSearchId = 0;
constexpr std::uint32_t kSearchReplyId = 0x84;
constexpr std::uint32_t kRequestId = 0xC4;
constexpr std::uint32_t kRequestReplyId = 0x1C4;
constexpr std::uint32_t kFinishId = 0x1F800434;
constexpr std::uint8_t kSearchReplyCode = 0x20;
constexpr std::uint8_t kCmdErase = 0x03;
constexpr std::uint8_t kEraseAll = 0xFE;
constexpr std::uint8_t kCmdSelectPage = 0x04;
constexpr std::uint8_t kCmdWrite = 0x05;
constexpr std::uint8_t kCmdEnd = 0x06;
constexpr std::uint8_t kEndProgramming = 0x01;
constexpr std::uint8_t kMaxWriteBytes = 4;
// "New Module" searches carry this in place of an identifier.
constexpr std::uint32_t kNewModuleIdentifier = 0x1FFFFFFF;

// Search dialects; their values are the daemon's mode numbers.
enum SearchMode : std::uint8_t { ModeIso = 0, ModeMtCan = 1, ModeNewModule = 2, ModeGlobal = 3 };
constexpr std::uint8_t modeBit(SearchMode mode) {
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
    bool isSearchForMe(const CanFrame& frame) const;
    void handleRequest(const CanFrame& frame, ModuleReaction& reaction);
    // Fills in a reply unless a fault switch withholds it; `acknowledgement` counts it for dropAck.
    void answer(ModuleReaction& reaction, std::uint32_t identifier, const std::uint8_t* bytes,
                std::uint8_t length, WrongReply kind);

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
