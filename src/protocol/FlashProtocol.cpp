#include "varnoch/protocol/FlashProtocol.h"

#include <algorithm>
#include <initializer_list>

namespace CANFlasher {

namespace {

constexpr bool kExtended = true;

FlashMessage extendedMessage(std::uint32_t identifier, std::initializer_list<std::uint8_t> bytes) {
    return FlashMessage(identifier, static_cast<std::int32_t>(bytes.size()), bytes.begin(), kExtended);
}

}  // namespace

FlashMessage searchRequest(std::int32_t mode, std::uint32_t targetAddress, std::uint32_t targetIdentifier,
                           std::uint32_t retriesLeft) {
    const std::uint32_t alternating = (retriesLeft & 1u) != 0 ? kSearchIdentifierOdd : kSearchIdentifierEven;
    switch (mode) {
        case ModeIsoStyle:
            // 0xFF, then "Program".
            return extendedMessage(kIsoSearchIdentifier + (targetAddress & 0xFF) * 256u,
                                   {0xFF, 'P', 'r', 'o', 'g', 'r', 'a', 'm'});
        case ModeMtCan:
            return extendedMessage(alternating,
                                   {0x20, 0x00, 0x00, static_cast<std::uint8_t>(targetIdentifier),
                                    static_cast<std::uint8_t>(targetIdentifier >> 8),
                                    static_cast<std::uint8_t>(targetIdentifier >> 16),
                                    static_cast<std::uint8_t>(targetIdentifier >> 24), 0x00});
        case ModeNewModule:
            return extendedMessage(alternating, {0x20, 0x00, 0x00, 0xFF, 0xFF, 0xFF, 0x1F, 0x00});
        default:
            // Deliberately blank: "Global" modules answer any frame, and the reply is the usual one.
            return extendedMessage(0, {});
    }
}

FlashMessage searchReply() {
    return extendedMessage(kSearchReplyIdentifier, {0x20, 0x00});
}

FlashMessage eraseRequest() {
    return extendedMessage(kUploadIdentifier, {UploadErase, kEraseAll, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00});
}

FlashMessage eraseReply() {
    return extendedMessage(kModuleReplyIdentifier, {UploadErase, kEraseAll, 0x00, 0x00});
}

FlashMessage pageSelectMessage(std::uint32_t page) {
    return extendedMessage(kUploadIdentifier,
                           {UploadSelectPage, static_cast<std::uint8_t>(page & 0xFF),
                            static_cast<std::uint8_t>((page >> 8) & 0xFF), 0x00, 0x00, 0x00, 0x00, 0x00});
}

void writeDataMessage(FlashMessage& message, std::uint32_t offset, const std::uint8_t* bytes,
                      std::uint32_t count) {
    const std::uint32_t taken = std::min(count, kMaxDataPerMessage);
    message.identifier = kUploadIdentifier;
    message.extended = kExtended;
    message.length = FlashMessage::kMaxLength;
    message.data[0] = UploadData;
    message.data[1] = static_cast<std::uint8_t>(offset & 0xFF);
    message.data[2] = static_cast<std::uint8_t>((offset >> 8) & 0xFF);
    message.data[3] = static_cast<std::uint8_t>(taken);
    std::copy_n(bytes, taken, message.data + 4);
}

FlashMessage endSelectMessage() {
    return pageSelectMessage(0);
}

FlashMessage endMessage() {
    return extendedMessage(kUploadIdentifier,
                           {UploadEnd, kEndProgramming, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00});
}

FlashMessage expectedReplyFor(const FlashMessage& uploadMessage) {
    FlashMessage reply = uploadMessage;
    reply.identifier = kModuleReplyIdentifier;
    if (uploadMessage.data[0] == UploadSelectPage) {
        reply.length = 3;
        reply.data[2] = 0;
    } else {
        reply.length = 2;
        reply.data[1] = 0;
    }
    return reply;
}

FlashMessage finishFrame() {
    return extendedMessage(kFinishIdentifier, {0x00});
}

std::uint32_t exchangeBits(const FlashMessage& uploadMessage) {
    const FlashMessage reply = expectedReplyFor(uploadMessage);
    return nominalFrameBits(uploadMessage.extended, uploadMessage.length) +
           nominalFrameBits(reply.extended, reply.length);
}

}  // namespace CANFlasher
