#include "ModuleRunner.h"

#include <time.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <iterator>

namespace modulesim {

namespace {

using Clock = std::chrono::steady_clock;

// Longest single wait, so that a stop request is seen promptly even on a silent bus.
constexpr std::uint32_t kStopCheckMs = 100;
// Replies that may wait for their delay at once; the daemon has one request outstanding at a time.
constexpr std::size_t kMaxPendingReplies = 64;
// Traffic more than this far behind its schedule restarts from now instead of bursting.
constexpr auto kTrafficCatchUpLimit = std::chrono::seconds(1);

struct PendingReply {
    Clock::time_point due;
    CanFrame frame;
};

// Replies waiting for their delay. Every reply has the same delay, so they fall due in arrival order.
class ReplyQueue {
  public:
    bool full() const { return count_ == slots_.size(); }
    bool empty() const { return count_ == 0; }
    const PendingReply& front() const { return slots_[head_]; }
    void push(const PendingReply& reply) {
        slots_[(head_ + count_) % slots_.size()] = reply;
        ++count_;
    }
    void pop() {
        head_ = (head_ + 1) % slots_.size();
        --count_;
    }

  private:
    std::array<PendingReply, kMaxPendingReplies> slots_{};
    std::size_t head_ = 0;
    std::size_t count_ = 0;
};

// Names in FrameKind order, for the verbose lines.
constexpr const char* kKindNames[] = {"ignored", "search", "erase", "select page", "write", "end", "finish"};
static_assert(std::size(kKindNames) == static_cast<std::size_t>(FrameKind::Finish) + 1, "a name per kind");

// How long before a bus-timed reply is due the runner stops sleeping and watches the clock instead:
// a wake-up from sleep comes late by the scheduler's latency, which in an emulated machine on a busy
// host is itself about a frame's time.
constexpr auto kSpinBeforeDue = std::chrono::milliseconds(2);

void waitUntil(Clock::time_point due) {
    const Clock::time_point wakeAt = due - kSpinBeforeDue;
    if (Clock::now() < wakeAt) {
        // The steady clock is CLOCK_MONOTONIC; an absolute wake-up does not drift with the call's cost.
        const auto sinceEpoch =
            std::chrono::duration_cast<std::chrono::nanoseconds>(wakeAt.time_since_epoch());
        const timespec at{static_cast<time_t>(sinceEpoch.count() / 1000000000),
                          static_cast<long>(sinceEpoch.count() % 1000000000)};
        // An interruption (a stop request) only ends the sleep early.
        static_cast<void>(clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &at, nullptr));
    }
    while (Clock::now() < due) {
    }
}

const char* kindName(FrameKind kind) {
    return kKindNames[static_cast<std::size_t>(kind)];
}

class Runner {
  public:
    Runner(ModuleSimulator& module, FrameTransport& transport, const RunnerOptions& options)
        : module_(module), transport_(transport), options_(options) {}

    RunOutcome run(const std::atomic<bool>& stop) {
        if (options_.trafficRate > 0) {
            trafficInterval_ = std::chrono::nanoseconds(std::chrono::seconds(1)) / options_.trafficRate;
            nextTraffic_ = Clock::now();
        }
        while (!stop.load()) {
            sendDueReplies();
            sendDueTraffic();
            CanFrame frame{};
            switch (transport_.receive(frame, nextWaitMs())) {
                case FrameTransport::Received::Failed:
                    return RunOutcome::TransportFailed;
                case FrameTransport::Received::Timeout:
                    continue;
                case FrameTransport::Received::Frame:
                    break;
            }
            if (handle(frame)) {
                return RunOutcome::UploadFinished;
            }
        }
        return RunOutcome::Stopped;
    }

  private:
    // True when the frame completed the upload that `once` waits for.
    bool handle(const CanFrame& frame) {
        const std::uint32_t finishedBefore = module_.uploadsFinished();
        module_.handleFrame(frame, reaction_);
        if (options_.verbose) {
            printReaction(frame);
        }
        if (reaction_.writeRefused && !warnedFlashFull_) {
            warnedFlashFull_ = true;
            std::fprintf(
                options_.err,
                "varnoch-module-sim: the flash is full (%u pages of 16 KiB); writes to further pages "
                "are not acknowledged\n",
                static_cast<unsigned>(module_.image().pageCapacity()));
        }
        if (reaction_.imageComplete && !saveImage()) {
            // Unacknowledged, the end command fails the daemon's job, so nobody mistakes it for success.
            return false;
        }
        if (reaction_.reply) {
            // On a bus of a given speed the reply is complete only when the request and the reply
            // have been on the wire: counted from the request's arrival, not from when this process
            // got round to reading it.
            const Clock::time_point start =
                options_.bitrate == 0
                    ? Clock::now()
                    : transport_.receivedAt() + busTime(frame, reaction_.replyFrame, options_.bitrate);
            if (reaction_.delayMs == 0) {
                if (options_.bitrate != 0) {
                    // Under a millisecond at any usual bit rate: waited out here, the module's one
                    // request at a time has nothing else to do meanwhile.
                    waitUntil(start);
                }
                sendReply(reaction_.replyFrame);
            } else if (pending_.full()) {
                // Never reached with the daemon's one request at a time; better early than lost.
                sendReply(reaction_.replyFrame);
            } else {
                pending_.push({start + std::chrono::milliseconds(reaction_.delayMs), reaction_.replyFrame});
            }
        }
        return options_.once && module_.uploadsFinished() > finishedBefore;
    }

    bool saveImage() {
        std::string error;
        if (!module_.image().save(options_.imagePath, error)) {
            std::fprintf(options_.err, "varnoch-module-sim: image not saved: %s\n", error.c_str());
            return false;
        }
        const FlashImage& image = module_.image();
        if (image.empty()) {
            std::fprintf(options_.out,
                         "varnoch-module-sim: upload ended, nothing written; empty image saved to %s\n",
                         options_.imagePath.c_str());
        } else {
            std::fprintf(options_.out,
                         "varnoch-module-sim: upload ended; image of 0x%08X..0x%08X (%u bytes) saved to %s\n",
                         static_cast<unsigned>(image.lowest()), static_cast<unsigned>(image.highest()),
                         static_cast<unsigned>(image.highest() - image.lowest() + 1),
                         options_.imagePath.c_str());
        }
        std::fflush(options_.out);
        return true;
    }

    void sendReply(const CanFrame& frame) {
        const bool sent = transport_.send(frame);
        if (options_.verbose || !sent) {
            char text[48];
            formatFrame(frame, text, sizeof text);
            std::fprintf(sent ? options_.out : options_.err, "varnoch-module-sim: tx %s%s\n", text,
                         sent ? "" : " failed");
        }
    }

    void sendDueReplies() {
        const auto now = Clock::now();
        while (!pending_.empty() && pending_.front().due <= now) {
            sendReply(pending_.front().frame);
            pending_.pop();
        }
    }

    void sendDueTraffic() {
        if (options_.trafficRate == 0) {
            return;
        }
        const auto now = Clock::now();
        if (now - nextTraffic_ > kTrafficCatchUpLimit) {
            nextTraffic_ = now;
        }
        while (nextTraffic_ <= now) {
            const CanFrame frame = trafficFrame(trafficSequence_++);
            // Background traffic is best effort: a frame the bus refuses is simply not there.
            static_cast<void>(transport_.send(frame));
            nextTraffic_ += trafficInterval_;
        }
    }

    // Time until the next delayed reply or traffic frame is due, capped for the stop check.
    std::uint32_t nextWaitMs() const {
        auto wait = std::chrono::milliseconds(kStopCheckMs);
        const auto now = Clock::now();
        const auto until = [&](Clock::time_point when) {
            // Rounded up, so that the next round does not wake a little early and spin.
            return std::chrono::ceil<std::chrono::milliseconds>(
                std::max(when - now, Clock::duration::zero()));
        };
        if (!pending_.empty()) {
            wait = std::min(wait, until(pending_.front().due));
        }
        if (options_.trafficRate > 0) {
            wait = std::min(wait, until(nextTraffic_));
        }
        return static_cast<std::uint32_t>(wait.count());
    }

    void printReaction(const CanFrame& frame) {
        char text[48];
        formatFrame(frame, text, sizeof text);
        const char* outcome = reaction_.reply ? "" : reaction_.withheld ? " (reply withheld)" : "";
        std::fprintf(options_.out, "varnoch-module-sim: rx %s: %s%s\n", text, kindName(reaction_.kind),
                     outcome);
        if (reaction_.reply && reaction_.delayMs > 0) {
            std::fprintf(options_.out, "varnoch-module-sim: reply in %u ms\n",
                         static_cast<unsigned>(reaction_.delayMs));
        }
    }

    ModuleSimulator& module_;
    FrameTransport& transport_;
    const RunnerOptions& options_;
    ModuleReaction reaction_;
    ReplyQueue pending_;
    Clock::duration trafficInterval_{};
    Clock::time_point nextTraffic_{};
    std::uint32_t trafficSequence_ = 0;
    bool warnedFlashFull_ = false;
};

}  // namespace

RunOutcome runModule(ModuleSimulator& module, FrameTransport& transport, const RunnerOptions& options,
                     const std::atomic<bool>& stop) {
    Runner runner(module, transport, options);
    return runner.run(stop);
}

std::chrono::nanoseconds busTime(const CanFrame& request, const CanFrame& reply, std::uint32_t bitrate) {
    const std::uint64_t bits = CANFlasher::nominalFrameBits(request.extended != 0, request.length) +
                               CANFlasher::nominalFrameBits(reply.extended != 0, reply.length);
    return std::chrono::nanoseconds(bitrate == 0 ? 0 : bits * 1000000000u / bitrate);
}

CanFrame trafficFrame(std::uint32_t sequence) {
    static constexpr CanFrame kTraffic[] = {
        {0x0CF00400, 1, 8, {0x00, 0x7D, 0x7D, 0x40, 0x1F, 0x00, 0xF0, 0x7D}},  // engine speed
        {0x18FEF100, 1, 8, {0x00, 0x40, 0x1F, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF}},  // vehicle speed
        {0x0CFE4980, 1, 8, {0x00, 0x00, 0x00, 0x00, 0xFF, 0xFF, 0xFF, 0xFF}},  // wheel-based speed
        {0x321, 0, 4, {0x00, 0x11, 0x22, 0x33, 0x00, 0x00, 0x00, 0x00}},       // an 11-bit node
    };
    constexpr std::uint32_t kCount = sizeof kTraffic / sizeof kTraffic[0];
    CanFrame frame = kTraffic[sequence % kCount];
    frame.data[0] = static_cast<std::uint8_t>(sequence / kCount);
    return frame;
}

void formatFrame(const CanFrame& frame, char* text, std::size_t size) {
    int used = std::snprintf(text, size, "%08X %s %u:", static_cast<unsigned>(frame.identifier),
                             frame.extended != 0 ? "ext" : "std", static_cast<unsigned>(frame.length));
    for (std::uint8_t i = 0;
         i < frame.length && i < sizeof frame.data && used > 0 && static_cast<std::size_t>(used) < size;
         ++i) {
        used += std::snprintf(text + used, size - static_cast<std::size_t>(used), " %02X",
                              static_cast<unsigned>(frame.data[i]));
    }
}

}  // namespace modulesim
