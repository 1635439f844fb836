#include "Report.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <utility>

#include "varnoch/protocol/FlashProtocol.h"

namespace trace {

using namespace CANFlasher;

namespace {

constexpr std::size_t kRangesShown = 8;

std::string format(const char* pattern, ...) __attribute__((format(printf, 1, 2)));
std::string format(const char* pattern, ...) {
    char text[256];
    va_list arguments;
    va_start(arguments, pattern);
    const int used = std::vsnprintf(text, sizeof text, pattern, arguments);
    va_end(arguments);
    return used < 0 ? std::string() : std::string(text);
}

double seconds(Micros micros) {
    return static_cast<double>(micros) / 1e6;
}

bool isUpload(StepKind kind) {
    return kind == StepKind::PageSelect || kind == StepKind::Data || kind == StepKind::EndFirst ||
           kind == StepKind::End;
}

std::string dialect(std::int32_t mode, std::uint32_t target) {
    switch (mode) {
        case -1:
            return "unknown (the capture begins after the search)";
        case ModeIsoStyle:
            return format("\"%s\", address 0x%02X", modeName(mode), static_cast<unsigned>(target));
        case ModeMtCan:
            return format("\"%s\", identifier 0x%08X", modeName(mode), static_cast<unsigned>(target));
        default:
            return format("\"%s\"", modeName(mode));
    }
}

// The error state the daemon ends in when this step's last send goes unanswered, and how many sends
// that takes.
std::pair<std::int32_t, std::uint32_t> timeoutOf(StepKind kind) {
    switch (kind) {
        case StepKind::Search:
            return {StateErrDeviceNotFound, kSearchRetries + 1};
        case StepKind::Erase:
            return {StateErrEraseTimeout, kEraseRetries + 1};
        case StepKind::PageSelect:
        case StepKind::Data:
        case StepKind::EndFirst:
        case StepKind::End:
        case StepKind::Finish:
            break;
    }
    return {StateErrResponseTimeout, kMessageRetries + 1};
}

std::string stepLine(const Step& step, Micros origin) {
    std::string line = format("%10.3f  %-34s sent %ux", seconds(step.firstSent - origin),
                              describe(step).c_str(), step.sends);
    if (step.expectsReply()) {
        line += step.latency < 0 ? ", no reply"
                                 : format(", reply in %.1f ms", static_cast<double>(step.latency) / 1e3);
    }
    if (step.lateReplies > 0) {
        line += format(", %u after %u s (%.3f s)", step.lateReplies, kReplyTimeoutMs / 1000,
                       seconds(step.longestLate));
    }
    if (step.wrongReplies > 0) {
        line += format(", %u wrong", step.wrongReplies);
    }
    const Micros span = step.ended - step.firstSent;
    if (step.unrelated > 0 && span > 0) {
        line += format(", unrelated %.0f/s", static_cast<double>(step.unrelated) / seconds(span));
    }
    return line + "\n";
}

struct Totals {
    std::uint64_t bytes = 0;
    std::vector<std::pair<std::uint32_t, std::uint32_t>> ranges;  // first, last address
    std::uint32_t uploadSteps = 0, acknowledged = 0, pages = 0, data = 0, ends = 0;
    std::uint64_t sends = 0, repeats = 0, unanswered = 0, late = 0, wrong = 0, unrelated = 0;
    Micros longestLate = 0, programmingFrom = -1, lastAcknowledged = -1;
};

Totals totalsOf(const Job& job) {
    Totals totals;
    for (const Step& step : job.steps) {
        totals.sends += step.sends;
        totals.repeats += step.sends - 1;
        totals.unanswered += step.unanswered();
        totals.late += step.lateReplies;
        totals.longestLate = std::max(totals.longestLate, step.longestLate);
        totals.wrong += step.wrongReplies;
        totals.unrelated += step.unrelated;
        if (!isUpload(step.kind)) {
            continue;
        }
        ++totals.uploadSteps;
        totals.pages += step.kind == StepKind::PageSelect ? 1 : 0;
        totals.data += step.kind == StepKind::Data ? 1 : 0;
        totals.ends += step.kind == StepKind::EndFirst || step.kind == StepKind::End ? 1 : 0;
        if (totals.programmingFrom < 0) {
            totals.programmingFrom = step.firstSent;
        }
        if (step.replies == 0) {
            continue;
        }
        ++totals.acknowledged;
        totals.lastAcknowledged = std::max(totals.lastAcknowledged, step.answeredAt);
        if (step.kind == StepKind::Data) {
            totals.bytes += step.info.count;
            totals.ranges.emplace_back(step.address, step.address + step.info.count - 1);
        }
    }
    std::sort(totals.ranges.begin(), totals.ranges.end());
    std::vector<std::pair<std::uint32_t, std::uint32_t>> merged;
    for (const auto& range : totals.ranges) {
        if (!merged.empty() && range.first <= merged.back().second + 1) {
            merged.back().second = std::max(merged.back().second, range.second);
        } else {
            merged.push_back(range);
        }
    }
    totals.ranges = std::move(merged);
    return totals;
}

std::string ending(const Job& job, const Totals& totals) {
    // A finish frame goes out only after the last acknowledgement.
    if (std::any_of(job.steps.begin(), job.steps.end(),
                    [](const Step& step) { return step.kind == StepKind::Finish; })) {
        return stateName(StateDone);
    }
    const Step* last = &job.steps.back();
    if (last->replies > 0) {
        return "not ended: the capture stops after the reply to the " + describe(*last);
    }
    const auto [state, limit] = timeoutOf(last->kind);
    if (last->sends < limit) {
        return format("not ended: the capture stops while the %s waits for its reply (sent %ux)",
                      describe(*last).c_str(), last->sends);
    }
    std::string text =
        format("%s (%ux %s without a reply", stateName(state), last->sends, describe(*last).c_str());
    if (last->kind == StepKind::Erase) {
        text += ", after the search was answered";
    } else if (isUpload(last->kind)) {
        text += format(", after %u upload messages acknowledged, %llu bytes", totals.acknowledged,
                       static_cast<unsigned long long>(totals.bytes));
    }
    return text + ")";
}

std::string writtenLine(const Totals& totals) {
    std::string text = format("  written:     %llu bytes in %zu ranges",
                              static_cast<unsigned long long>(totals.bytes), totals.ranges.size());
    for (std::size_t index = 0; index < totals.ranges.size() && index < kRangesShown; ++index) {
        text += format("%s0x%08X..0x%08X", index == 0 ? ": " : ", ",
                       static_cast<unsigned>(totals.ranges[index].first),
                       static_cast<unsigned>(totals.ranges[index].second));
    }
    return text + (totals.ranges.size() > kRangesShown ? ", ...\n" : "\n");
}

std::string throughputLine(const Totals& totals) {
    const Micros programming = totals.lastAcknowledged - totals.programmingFrom;
    if (totals.programmingFrom >= 0 && programming > 0) {
        return format("  throughput:  %llu bytes in %.3f s: %.0f bytes/s, %.0f messages/s\n",
                      static_cast<unsigned long long>(totals.bytes), seconds(programming),
                      static_cast<double>(totals.bytes) / seconds(programming),
                      static_cast<double>(totals.acknowledged) / seconds(programming));
    }
    return "  throughput:  nothing acknowledged\n";
}

// The finding lines of a job; empty when there is nothing to report.
std::string findings(const Job& job, const Totals& totals) {
    std::string text;
    if (totals.repeats > 0) {
        text += format("  finding:     repeats: %llu\n", static_cast<unsigned long long>(totals.repeats));
    }
    if (totals.unanswered > 0) {
        text += format("  finding:     unanswered requests: %llu\n",
                       static_cast<unsigned long long>(totals.unanswered));
    }
    if (totals.late > 0) {
        text += format("  finding:     replies after %u s: %llu (longest %.3f s)\n", kReplyTimeoutMs / 1000,
                       static_cast<unsigned long long>(totals.late), seconds(totals.longestLate));
    }
    if (totals.wrong > 0) {
        text += format("  finding:     wrong replies: %llu\n", static_cast<unsigned long long>(totals.wrong));
    }
    const Micros span = job.steps.back().ended - job.steps.front().firstSent;
    if (totals.unrelated > 0) {
        text += format("  finding:     unrelated frames: %llu",
                       static_cast<unsigned long long>(totals.unrelated));
        text += span > 0
                    ? format(", %.1f per second\n", static_cast<double>(totals.unrelated) / seconds(span))
                    : "\n";
    }
    return text;
}

}  // namespace

std::string describe(const Step& step) {
    switch (step.kind) {
        case StepKind::Search:
            return "search " + dialect(step.info.mode, step.info.target);
        case StepKind::Erase:
            return "erase";
        case StepKind::PageSelect:
            return format("page select %u", static_cast<unsigned>(step.info.page));
        case StepKind::Data:
            return format("data 0x%08X, %u bytes", static_cast<unsigned>(step.address),
                          static_cast<unsigned>(step.info.count));
        case StepKind::EndFirst:
            return "end, first";
        case StepKind::End:
            return "end, second";
        case StepKind::Finish:
            return "finish";
    }
    return "?";
}

std::string stepsReport(const Dialogue& dialogue, bool every) {
    std::string text;
    for (const Job& job : dialogue.jobs()) {
        text += "Steps (seconds from the first request):\n";
        for (const Step& step : job.steps) {
            const bool notable = step.kind == StepKind::Search || step.kind == StepKind::Erase ||
                                 step.sends > 1 || step.unanswered() > 0 || step.lateReplies > 0 ||
                                 step.wrongReplies > 0;
            if (every || notable) {
                text += stepLine(step, job.steps.front().firstSent);
            }
        }
    }
    return text;
}

std::string summaryReport(const Dialogue& dialogue) {
    if (dialogue.jobs().empty()) {
        return format("Summary: no flashing dialogue in %llu frames\n",
                      static_cast<unsigned long long>(dialogue.frames()));
    }
    std::string text;
    std::size_t number = 0;
    for (const Job& job : dialogue.jobs()) {
        const Totals totals = totalsOf(job);
        text += format("Summary of job %zu of %zu\n", ++number, dialogue.jobs().size());
        text += "  dialect:     " + dialect(job.mode, job.target) + "\n";
        text += writtenLine(totals);
        text += format("  messages:    %u of %u acknowledged (%u page selects, %u data, %u end)\n",
                       totals.acknowledged, totals.uploadSteps, totals.pages, totals.data, totals.ends);
        text += format("  requests:    %zu, sent %llu times (repeats: %llu)\n", job.steps.size(),
                       static_cast<unsigned long long>(totals.sends),
                       static_cast<unsigned long long>(totals.repeats));
        text += format("  longest gap: %.3f s, during the %s\n", seconds(job.longestGap),
                       describe(job.steps[job.gapBefore]).c_str());
        text += throughputLine(totals);
        text += "  ended:       " + ending(job, totals) + "\n";
        const std::string found = findings(job, totals);
        text += found.empty() ? "  finding:     none\n" : found;
    }
    return text;
}

}  // namespace trace
