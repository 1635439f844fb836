// The flashing dialogue read back from the bus: each frame classified, requests grouped into steps
// with their repeats and replies, jobs from one search to the next. No I/O: timestamped frames go
// in, the steps and jobs come out (Report.h turns them into text).
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "varnoch/protocol/CanFrame.h"
#include "varnoch/protocol/FlashTypes.h"

namespace trace {

// Timestamps and durations in microseconds; a timestamp's origin is the capture's (epoch for logs).
using Micros = std::int64_t;

struct TimedFrame {
    Micros at = 0;
    CanFrame frame{};
};

// What one frame is in the dialogue. `Reply` is any extended frame with one of the module's reply
// identifiers: whether it is the one expected depends on the requests before it.
enum class FrameKind : std::uint8_t { Search, Erase, PageSelect, Data, End, Finish, Reply, Unrelated };

struct FrameInfo {
    FrameKind kind = FrameKind::Unrelated;
    std::int32_t mode = -1;    // Search: the dialect (CANFlasher::FlashMode)
    std::uint32_t target = 0;  // Search: target address ("ISO Style") or identifier ("MT CAN")
    std::uint32_t page = 0;    // PageSelect: page number as sent (16 bits)
    std::uint32_t offset = 0;  // Data: offset in the page
    std::uint32_t count = 0;   // Data: bytes written, 1..4
};

/// Recognises a frame of the dialogue by its exact form; everything else is Unrelated. A page select
/// of page 0 and the first end message are the same frame: it is a PageSelect here.
FrameInfo classify(const CanFrame& frame);

// One request as the daemon sends it, with its repeats and the replies to it.
enum class StepKind : std::uint8_t { Search, Erase, PageSelect, Data, EndFirst, End, Finish };

struct Step {
    StepKind kind = StepKind::Search;
    FrameInfo info;
    CANFlasher::FlashMessage request;   // as first sent
    CANFlasher::FlashMessage expected;  // the reply that answers it; none for the finish frame
    Micros firstSent = 0;
    Micros lastSent = 0;
    Micros ended = 0;  // when the next request went out, or the last frame of the capture
    std::uint32_t sends = 0;
    std::uint32_t replies = 0;      // matching replies, late ones for an earlier step included
    Micros latency = -1;            // first matching reply after the send before it; -1: no reply
    Micros answeredAt = -1;         // when that reply came
    std::uint32_t lateReplies = 0;  // matching replies more than the reply time-out after their send
    Micros longestLate = 0;
    std::uint32_t wrongReplies = 0;  // reply-like frames that answer nothing outstanding
    std::uint32_t unrelated = 0;     // other frames while this step was the latest
    std::uint32_t address = 0;       // Data: linear address (page and offset)

    /// True for the requests a reply is expected to.
    bool expectsReply() const { return kind != StepKind::Finish; }
    /// Sends that no reply answered.
    std::uint32_t unanswered() const { return expectsReply() && sends > replies ? sends - replies : 0; }
};

// One job: a search and everything after it until the next search of another job.
struct Job {
    std::int32_t mode = -1;  // -1: the capture began after the search
    std::uint32_t target = 0;
    std::vector<Step> steps;
    Micros longestGap = 0;      // between two frames of the dialogue
    std::size_t gapBefore = 0;  // index of the step whose frame ended that gap
    Micros lastDialogueFrame = -1;
};

class Dialogue {
  public:
    /// Takes the next frame of the capture (frames in the order seen, timestamps not decreasing).
    void add(const TimedFrame& timed);

    const std::vector<Job>& jobs() const { return jobs_; }
    /// Frames seen, and those before the first job that belong to no step.
    std::uint64_t frames() const { return frames_; }
    std::uint64_t unrelatedOutsideJobs() const { return unrelatedOutside_; }

  private:
    void request(const FrameInfo& info, const CANFlasher::FlashMessage& message, Micros at);
    void reply(const CANFlasher::FlashMessage& message, Micros at);
    void dialogueFrame(Job& job, Micros at);

    std::vector<Job> jobs_;
    std::uint64_t frames_ = 0;
    std::uint64_t unrelatedOutside_ = 0;
};

}  // namespace trace
