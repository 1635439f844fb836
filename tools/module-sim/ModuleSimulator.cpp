#include "ModuleSimulator.h"

#include <cstring>

namespace modulesim {

namespace {

constexpr std::uint8_t kFrameLength = 8;
constexpr std::uint8_t kIsoSearchData[kFrameLength] = {0xFF, 'P', 'r', 'o', 'g', 'r', 'a', 'm'};
// A spoiled reply differs from the expected one in its last byte only, so that it looks plausible.
constexpr std::uint8_t kWrongDataFlip = 0x01;

std::uint32_t littleEndian32(const std::uint8_t* bytes) {
    return static_cast<std::uint32_t>(bytes[0]) | static_cast<std::uint32_t>(bytes[1]) << 8 |
           static_cast<std::uint32_t>(bytes[2]) << 16 | static_cast<std::uint32_t>(bytes[3]) << 24;
}

std::uint16_t littleEndian16(const std::uint8_t* bytes) {
    return static_cast<std::uint16_t>(bytes[0] | bytes[1] << 8);
}

}  // namespace

ModuleSimulator::ModuleSimulator(const ModuleConfig& config) : config_(config), image_(config.flashPages) {}

bool ModuleSimulator::isSearchForMe(const CanFrame& frame) const {
    const auto accepts = [this](SearchMode mode) { return (config_.modes & modeBit(mode)) != 0; };
    if (frame.identifier == kGlobalSearchId) {
        return frame.length == 0 && accepts(ModeGlobal);
    }
    if (frame.length != kFrameLength) {
        return false;
    }
    if (frame.identifier ==
        kIsoSearchBase + (static_cast<std::uint32_t>(config_.address) << kIsoSearchAddressShift)) {
        return accepts(ModeIso) && std::memcmp(frame.data, kIsoSearchData, kFrameLength) == 0;
    }
    if (frame.identifier != kMtSearchOddId && frame.identifier != kMtSearchEvenId) {
        return false;
    }
    if (frame.data[0] != kSearchReplyCode || frame.data[1] != 0 || frame.data[2] != 0 || frame.data[7] != 0) {
        return false;
    }
    // A module whose identifier is the "New Module" pattern answers both dialects' searches.
    const std::uint32_t identifier = littleEndian32(&frame.data[3]);
    return (accepts(ModeMtCan) && identifier == config_.identifier) ||
           (accepts(ModeNewModule) && identifier == kNewModuleIdentifier);
}

void ModuleSimulator::handleFrame(const CanFrame& frame, ModuleReaction& reaction) {
    reaction = ModuleReaction{};
    if (frame.extended == 0) {
        return;
    }
    if (isSearchForMe(frame)) {
        reaction.kind = FrameKind::Search;
        selected_ = true;
        endSeen_ = false;
        const std::uint8_t reply[] = {kSearchReplyCode, 0x00};
        answer(reaction, kSearchReplyId, reply, sizeof reply, WrongSearch);
        return;
    }
    if (frame.identifier == kFinishId && frame.length == 1 && frame.data[0] == 0) {
        reaction.kind = FrameKind::Finish;
        if (selected_ && endSeen_) {
            ++uploadsFinished_;
        }
        selected_ = false;
        endSeen_ = false;
        return;
    }
    // Requests carry no address: only the module that answered the last search takes them.
    if (selected_ && frame.identifier == kRequestId && frame.length == kFrameLength) {
        handleRequest(frame, reaction);
    }
}

void ModuleSimulator::handleRequest(const CanFrame& frame, ModuleReaction& reaction) {
    const std::uint8_t* data = frame.data;
    switch (data[0]) {
        case kCmdErase: {
            if (data[1] != kEraseAll) {
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
            const std::uint8_t reply[] = {kCmdErase, kEraseAll, 0x00, 0x00};
            answer(reaction, kRequestReplyId, reply, sizeof reply, WrongErase);
            return;
        }
        case kCmdSelectPage: {
            // The first of the two end messages (04 00 00) is a select of page 0 as well.
            reaction.kind = FrameKind::SelectPage;
            page_ = littleEndian16(&data[1]);
            const std::uint8_t reply[] = {kCmdSelectPage, data[1], 0x00};
            answer(reaction, kRequestReplyId, reply, sizeof reply, WrongAck);
            return;
        }
        case kCmdWrite: {
            const std::uint8_t count = data[3];
            if (count == 0 || count > kMaxWriteBytes) {
                return;
            }
            reaction.kind = FrameKind::Write;
            // Only `count` bytes are data; the rest of the frame is whatever the sender left there.
            if (!image_.write(page_, littleEndian16(&data[1]), &data[4], count)) {
                reaction.writeRefused = true;
                return;
            }
            const std::uint8_t reply[] = {kCmdWrite, 0x00};
            answer(reaction, kRequestReplyId, reply, sizeof reply, WrongAck);
            return;
        }
        case kCmdEnd: {
            if (data[1] != kEndProgramming) {
                return;
            }
            reaction.kind = FrameKind::End;
            reaction.imageComplete = true;
            endSeen_ = true;
            ++uploadsEnded_;
            const std::uint8_t reply[] = {kCmdEnd, 0x00};
            answer(reaction, kRequestReplyId, reply, sizeof reply, WrongAck);
            return;
        }
        default:
            return;
    }
}

void ModuleSimulator::answer(ModuleReaction& reaction, std::uint32_t identifier, const std::uint8_t* bytes,
                             std::uint8_t length, WrongReply kind) {
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
    CanFrame& reply = reaction.replyFrame;
    reply.identifier = identifier;
    reply.extended = 1;
    reply.length = length;
    std::memset(reply.data, 0, sizeof reply.data);
    std::memcpy(reply.data, bytes, length);
    if ((faults.wrongData & kind) != 0) {
        reply.data[length - 1] ^= kWrongDataFlip;
    }
}

}  // namespace modulesim
