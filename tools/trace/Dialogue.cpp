#include "Dialogue.h"

#include "varnoch/protocol/FlashProtocol.h"

namespace trace {

using namespace CANFlasher;

namespace {

// A reply this many steps back may still be a late answer; older ones count as wrong.
constexpr std::size_t kLateLookBack = 8;
constexpr Micros kReplyTimeout = static_cast<Micros>(kReplyTimeoutMs) * 1000;

bool searchOf(const FlashMessage& message, std::int32_t mode, std::uint32_t address, std::uint32_t identifier,
              FrameInfo& info) {
    // Modes 1 and 2 alternate their identifier with the retries left; either parity is the same search.
    for (std::uint32_t parity = 0; parity < 2; ++parity) {
        if (message == searchRequest(mode, address, identifier, parity)) {
            info.kind = FrameKind::Search;
            info.mode = mode;
            info.target = mode == ModeIsoStyle ? address : mode == ModeMtCan ? identifier : 0;
            return true;
        }
    }
    return false;
}

std::uint32_t littleEndian32(const std::uint8_t* bytes) {
    return std::uint32_t{bytes[0]} | std::uint32_t{bytes[1]} << 8u | std::uint32_t{bytes[2]} << 16u |
           std::uint32_t{bytes[3]} << 24u;
}

// The step a request that repeats nothing begins; `earlier` are the job's steps before it.
Step newStep(const FrameInfo& info, const FlashMessage& message, Micros at,
             const std::vector<Step>& earlier) {
    Step step;
    step.info = info;
    step.request = message;
    step.firstSent = step.lastSent = step.ended = at;
    step.sends = 1;
    switch (info.kind) {
        case FrameKind::Search:
            step.kind = StepKind::Search;
            step.expected = searchReply();
            break;
        case FrameKind::Erase:
            step.kind = StepKind::Erase;
            step.expected = eraseReply();
            break;
        case FrameKind::PageSelect:
        case FrameKind::Data:
        case FrameKind::End:
            step.kind = info.kind == FrameKind::PageSelect ? StepKind::PageSelect
                        : info.kind == FrameKind::Data     ? StepKind::Data
                                                           : StepKind::End;
            step.expected = expectedReplyFor(message);
            break;
        case FrameKind::Finish:
        case FrameKind::Reply:
        case FrameKind::Unrelated:
            step.kind = StepKind::Finish;
            break;
    }
    if (step.kind == StepKind::Data) {
        // The page in force is the last one selected in this job.
        for (auto it = earlier.rbegin(); it != earlier.rend(); ++it) {
            if (it->kind == StepKind::PageSelect) {
                step.address = (it->info.page << kPageShift) | info.offset;
                break;
            }
        }
    }
    return step;
}

}  // namespace

FrameInfo classify(const CanFrame& frame) {
    const FlashMessage message = FlashMessage::fromCanFrame(frame);
    FrameInfo info;
    if (!message.extended) {
        return info;
    }
    const std::uint32_t isoAddress = (message.identifier >> 8) & 0xFFu;
    // "New Module" before "MT CAN": an MT CAN search for its identifier would be the same frame.
    if (searchOf(message, ModeIsoStyle, isoAddress, 0, info) ||
        searchOf(message, ModeNewModule, 0, 0, info) ||
        searchOf(message, ModeMtCan, 0, littleEndian32(message.data + 3), info) ||
        searchOf(message, ModeGlobal, 0, 0, info)) {
        return info;
    }
    if (message == eraseRequest()) {
        info.kind = FrameKind::Erase;
    } else if (message == endMessage()) {
        info.kind = FrameKind::End;
    } else if (message == finishFrame()) {
        info.kind = FrameKind::Finish;
    } else if (message.identifier == kSearchReplyIdentifier || message.identifier == kModuleReplyIdentifier) {
        info.kind = FrameKind::Reply;
    } else if (message.identifier == kUploadIdentifier && message.length == FlashMessage::kMaxLength) {
        const std::uint32_t word = std::uint32_t{message.data[1]} | std::uint32_t{message.data[2]} << 8u;
        if (message.data[0] == UploadSelectPage && message == pageSelectMessage(word)) {
            info.kind = FrameKind::PageSelect;
            info.page = word;
        } else if (message.data[0] == UploadData && message.data[3] >= 1 &&
                   message.data[3] <= kMaxDataPerMessage && word + message.data[3] <= kPageSize) {
            info.kind = FrameKind::Data;
            info.offset = word;
            info.count = message.data[3];
        }
    }
    return info;
}

void Dialogue::add(const TimedFrame& timed) {
    ++frames_;
    if (!jobs_.empty() && !jobs_.back().steps.empty()) {
        jobs_.back().steps.back().ended = timed.at;
    }
    const FrameInfo info = classify(timed.frame);
    const FlashMessage message = FlashMessage::fromCanFrame(timed.frame);
    switch (info.kind) {
        case FrameKind::Unrelated:
            if (jobs_.empty() || jobs_.back().steps.empty()) {
                ++unrelatedOutside_;
            } else {
                ++jobs_.back().steps.back().unrelated;
            }
            return;
        case FrameKind::Reply:
            reply(message, timed.at);
            return;
        case FrameKind::Search:
        case FrameKind::Erase:
        case FrameKind::PageSelect:
        case FrameKind::Data:
        case FrameKind::End:
        case FrameKind::Finish:
            request(info, message, timed.at);
            return;
    }
}

void Dialogue::dialogueFrame(Job& job, Micros at) {
    if (job.lastDialogueFrame >= 0 && at - job.lastDialogueFrame > job.longestGap) {
        job.longestGap = at - job.lastDialogueFrame;
        job.gapBefore = job.steps.size() - 1;
    }
    job.lastDialogueFrame = at;
}

void Dialogue::request(const FrameInfo& info, const FlashMessage& message, Micros at) {
    // A search for another target, or after the search phase, begins a new job.
    const bool newJob = jobs_.empty() || (info.kind == FrameKind::Search &&
                                          (jobs_.back().steps.size() != 1 || jobs_.back().mode != info.mode ||
                                           jobs_.back().target != info.target));
    if (newJob) {
        jobs_.emplace_back();
        if (info.kind == FrameKind::Search) {
            jobs_.back().mode = info.mode;
            jobs_.back().target = info.target;
        }
    }
    Job& job = jobs_.back();
    if (!job.steps.empty()) {
        Step& current = job.steps.back();
        const bool repeat =
            current.info.kind == info.kind &&
            (info.kind == FrameKind::Search ? current.info.mode == info.mode : current.request == message);
        if (repeat) {
            ++current.sends;
            current.lastSent = at;
            dialogueFrame(job, at);
            return;
        }
        // Page 0 selected just before the end message was the first end message.
        if (info.kind == FrameKind::End && current.kind == StepKind::PageSelect &&
            current.request == endSelectMessage()) {
            current.kind = StepKind::EndFirst;
        }
    }
    job.steps.push_back(newStep(info, message, at, job.steps));
    dialogueFrame(job, at);
}

void Dialogue::reply(const FlashMessage& message, Micros at) {
    if (jobs_.empty() || jobs_.back().steps.empty()) {
        ++unrelatedOutside_;
        return;
    }
    Job& job = jobs_.back();
    std::vector<Step>& steps = job.steps;
    dialogueFrame(job, at);
    // The latest request first; then earlier ones still owed a reply, which makes this one late.
    Step* answered = nullptr;
    for (std::size_t back = 0; back < steps.size() && back <= kLateLookBack && answered == nullptr; ++back) {
        Step& step = steps[steps.size() - 1 - back];
        if (step.expectsReply() && step.expected == message && (back == 0 || step.sends > step.replies)) {
            answered = &step;
        }
    }
    if (answered == nullptr) {
        ++steps.back().wrongReplies;
        return;
    }
    const Micros latency = at - answered->lastSent;
    if (answered->latency < 0) {
        answered->latency = latency;
        answered->answeredAt = at;
    }
    ++answered->replies;
    if (latency > kReplyTimeout) {
        ++answered->lateReplies;
        answered->longestLate = std::max(answered->longestLate, latency);
    }
}

}  // namespace trace
