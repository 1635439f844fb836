#include "ModuleSimulator.h"

namespace modulesim {

namespace {

using CANFlasher::FlashMessage;

// A spoiled reply differs from the expected one in its last byte only, so that it looks plausible.
constexpr std::uint8_t kWrongDataFlip = 0x01;

std::uint16_t littleEndian16(const std::uint8_t* bytes) {
    return static_cast<std::uint16_t>(bytes[0] | bytes[1] << 8);
}

}  // namespace

ModuleSimulator::ModuleSimulator(const ModuleConfig& config) : config_(config), image_(config.flashPages) {}

bool ModuleSimulator::isSearchForMe(const FlashMessage& frame) const {
    // The searches this module answers are those the daemon sends for its address or identifier; for
    // modes 1 and 2 either of the two alternating identifiers. A module whose identifier is the "New
    // Module" pattern answers both dialects' searches.
    const auto isSearch = [this, &frame](std::int32_t mode) {
        if ((config_.modes & modeBit(mode)) == 0) {
            return false;
        }
        for (std::uint32_t retriesLeft = 0; retriesLeft < 2; ++retriesLeft) {
            if (frame == CANFlasher::searchRequest(mode, config_.address, config_.identifier, retriesLeft)) {
                return true;
            }
        }
        return false;
    };
    return isSearch(CANFlasher::ModeIsoStyle) || isSearch(CANFlasher::ModeMtCan) ||
           isSearch(CANFlasher::ModeNewModule) || isSearch(CANFlasher::ModeGlobal);
}

void ModuleSimulator::handleFrame(const CanFrame& received, ModuleReaction& reaction) {
    reaction = ModuleReaction{};
    if (received.extended == 0) {
        return;
    }
    const FlashMessage frame = FlashMessage::fromCanFrame(received);
    // Requests carry no address: only the module that answered the last search takes them. Looked
    // at first, as nearly every frame of an upload is one; no search uses their identifier.
    if (selected_ && frame.identifier == CANFlasher::kUploadIdentifier &&
        frame.length == FlashMessage::kMaxLength) {
        handleRequest(frame, reaction);
        return;
    }
    if (isSearchForMe(frame)) {
        reaction.kind = FrameKind::Search;
        selected_ = true;
        endSeen_ = false;
        answer(reaction, CANFlasher::searchReply(), WrongSearch);
        return;
    }
    if (frame == CANFlasher::finishFrame()) {
        reaction.kind = FrameKind::Finish;
        if (selected_ && endSeen_) {
            ++uploadsFinished_;
        }
        selected_ = false;
        endSeen_ = false;
    }
}

void ModuleSimulator::handleRequest(const FlashMessage& frame, ModuleReaction& reaction) {
    const std::uint8_t* data = frame.data;
    switch (data[0]) {
        case CANFlasher::UploadErase: {
            if (data[1] != CANFlasher::kEraseAll) {
                return;
            }
            reaction.kind = FrameKind::Erase;
            image_.erase();
            page_ = 0;
            acknowledgements_ = 0;
            ackDropped_ = false;
            if (config_.faults.ignoreErase) {
                reaction.withheld = true;
                return;
            }
            answer(reaction, CANFlasher::eraseReply(), WrongErase);
            return;
        }
        case CANFlasher::UploadSelectPage:
            // The first of the two end messages (04 00 00) is a select of page 0 as well.
            reaction.kind = FrameKind::SelectPage;
            page_ = littleEndian16(&data[1]);
            answer(reaction, CANFlasher::expectedReplyFor(frame), WrongAck);
            return;
        case CANFlasher::UploadData: {
            const std::uint8_t count = data[3];
            if (count == 0 || count > CANFlasher::kMaxDataPerMessage) {
                return;
            }
            reaction.kind = FrameKind::Write;
            // Only `count` bytes are data; the rest of the frame is whatever the sender left there.
            if (!image_.write(page_, littleEndian16(&data[1]), &data[4], count)) {
                reaction.writeRefused = true;
                return;
            }
            answer(reaction, CANFlasher::expectedReplyFor(frame), WrongAck);
            return;
        }
        case CANFlasher::UploadEnd:
            if (data[1] != CANFlasher::kEndProgramming) {
                return;
            }
            reaction.kind = FrameKind::End;
            reaction.imageComplete = true;
            endSeen_ = true;
            ++uploadsEnded_;
            answer(reaction, CANFlasher::expectedReplyFor(frame), WrongAck);
            return;
        default:
            return;
    }
}

void ModuleSimulator::answer(ModuleReaction& reaction, const FlashMessage& reply, WrongReply kind) {
    const ModuleFaults& faults = config_.faults;
    if (faults.silent) {
        reaction.withheld = true;
        return;
    }
    if (kind == WrongAck) {
        const std::uint32_t number = acknowledgements_ + 1;
        if (faults.dropAck == number && (faults.dropAckAlways || !ackDropped_)) {
            ackDropped_ = true;
            reaction.withheld = true;
            return;
        }
        acknowledgements_ = number;
    }
    reaction.reply = true;
    reaction.delayMs = faults.replyDelayMs;
    reaction.replyFrame = reply.toCanFrame();
    if ((faults.wrongData & kind) != 0) {
        reaction.replyFrame.data[reaction.replyFrame.length - 1] ^= kWrongDataFlip;
    }
}

}  // namespace modulesim
