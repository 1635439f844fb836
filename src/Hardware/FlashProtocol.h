// The frames of the CAN bootloader dialogue: the search request of each mode, erase, the reply each
// request expects, and the finish frame. Every frame uses an extended identifier.
#pragma once

#include <cstdint>

#include "FlashTypes.h"

namespace CANFlasher {

// Identifier pattern of the mode-0 search: an ISO 11783 proprietary-A message (priority 6, PDU format
// 0xEF) from source address 0xC0, with the target address in bits 8..15.
constexpr std::uint32_t kIsoSearchIdentifier = 0x18EF00C0;
// Mode 1 and 2 searches alternate between these two with the parity of the retries left.
constexpr std::uint32_t kSearchIdentifierOdd = 0x1FF00444;
constexpr std::uint32_t kSearchIdentifierEven = 0x1F800444;
// Every reply of the module to the search, and to erase and upload messages.
constexpr std::uint32_t kSearchReplyIdentifier = 0x84;
constexpr std::uint32_t kModuleReplyIdentifier = 0x1C4;
constexpr std::uint32_t kFinishIdentifier = 0x1F800434;
// Erase command byte (the upload commands are in HexLoader.h).
constexpr std::uint8_t kEraseCommand = 0x03;

/// Search request of `mode` (modes above 3 search like mode 3: a blank frame, identifier 0).
FlashMessage searchRequest(std::int32_t mode, std::uint32_t targetAddress, std::uint32_t targetIdentifier,
                           std::uint32_t retriesLeft);
/// The module's answer to every search request: 0x84, 20 00.
FlashMessage searchReply();
/// 0xC4, 03 FE 00 00 00 00 00 00.
FlashMessage eraseRequest();
/// 0x1C4, 03 FE 00 00.
FlashMessage eraseReply();
/// Reply expected for an upload message: identifier 0x1C4; 3 bytes with byte 2 cleared for a page
/// select (command 4), else 2 bytes with byte 1 cleared.
FlashMessage expectedReplyFor(const FlashMessage& uploadMessage);
/// 0x1F800434, 00: tells the module that programming has ended; nothing answers it.
FlashMessage finishFrame();

}  // namespace CANFlasher
