// The frames of the CAN bootloader dialogue: the search request of each mode, erase, the upload
// messages (page select, data, end), the reply each request expects, and the finish frame. Every frame
// uses an extended identifier.
#pragma once

#include <cstdint>

#include "varnoch/protocol/FlashTypes.h"

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
// Identifier of the erase request and of every upload message.
constexpr std::uint32_t kUploadIdentifier = 0xC4;

// Command bytes (data byte 0) of the requests to the module, and the byte each one carries after it.
enum UploadCommand : std::uint8_t {
    UploadErase = 0x03,
    UploadSelectPage = 0x04,
    UploadData = 0x05,
    UploadEnd = 0x06,
};
constexpr std::uint8_t kEraseAll = 0xFE;        // erase: byte 1
constexpr std::uint8_t kEndProgramming = 0x01;  // end: byte 1

// The module selects its flash in pages of 16 KiB of the linear address space; only the low 16 bits
// of a page number are sent.
constexpr std::uint32_t kPageShift = 14;
constexpr std::uint32_t kPageSize = 1u << kPageShift;
// Data bytes one data message carries at most.
constexpr std::uint32_t kMaxDataPerMessage = 4;

// Every request waits this long for its reply before it is sent again; a step is given up after its
// repeats (the first send not counted) have timed out too.
constexpr std::uint32_t kReplyTimeoutMs = 1000;
constexpr std::uint32_t kSearchRetries = 5;
constexpr std::uint32_t kEraseRetries = 3;
constexpr std::uint32_t kMessageRetries = 3;

/// Search request of `mode` (modes above 3 search like mode 3: a blank frame, identifier 0).
FlashMessage searchRequest(std::int32_t mode, std::uint32_t targetAddress, std::uint32_t targetIdentifier,
                           std::uint32_t retriesLeft);
/// The module's answer to every search request: 0x84, 20 00.
FlashMessage searchReply();
/// 0xC4, 03 FE 00 00 00 00 00 00.
FlashMessage eraseRequest();
/// 0x1C4, 03 FE 00 00.
FlashMessage eraseReply();
/// 0xC4, 04, page low byte, page high byte, 00 00 00 00 00.
FlashMessage pageSelectMessage(std::uint32_t page);
/// Turns `message` into a data message: 05, offset low and high byte, `count` (at most 4), the bytes.
/// Data bytes 4 + count to 7 keep what the message held before: a load carries them over from the
/// previous message.
void writeDataMessage(FlashMessage& message, std::uint32_t offset, const std::uint8_t* bytes,
                      std::uint32_t count);
/// The two messages that end an upload: 04 00 00 00 00 00 00 00, then 06 01 00 00 00 00 00 00.
FlashMessage endSelectMessage();
FlashMessage endMessage();
/// Reply expected for an upload message: identifier 0x1C4; 3 bytes with byte 2 cleared for a page
/// select (command 4), else 2 bytes with byte 1 cleared.
FlashMessage expectedReplyFor(const FlashMessage& uploadMessage);
/// 0x1F800434, 00: tells the module that programming has ended; nothing answers it.
FlashMessage finishFrame();

/// Bits a data frame with `length` data bytes (capped at 8) occupies on the bus, stuff bits left out:
/// start of frame, arbitration, control, data, CRC, acknowledgement, end of frame and the interframe
/// space; 67 + 8n for an extended identifier, 47 + 8n for a standard one.
constexpr std::uint32_t nominalFrameBits(bool extended, std::int32_t length) {
    const std::int32_t bytes = length < 0                          ? 0
                               : length > FlashMessage::kMaxLength ? FlashMessage::kMaxLength
                                                                   : length;
    return (extended ? 67u : 47u) + 8u * static_cast<std::uint32_t>(bytes);
}
/// Bit rate of an ISOBUS (ISO 11783) network, and the fastest a classic CAN bus runs.
constexpr std::uint32_t kIsobusBitrate = 250000;
constexpr std::uint32_t kMaxCanBitrate = 1000000;
/// Bus time of one upload message and its acknowledgement, in bits: what bounds an upload.
std::uint32_t exchangeBits(const FlashMessage& uploadMessage);

}  // namespace CANFlasher
