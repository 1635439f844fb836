#include "JsonEvents.h"

#include "JsonLine.h"

namespace flashclient {

using std::chrono::duration_cast;
using std::chrono::milliseconds;
using toolcommon::JsonLine;

namespace {

constexpr int kVersion = 1;

std::string hex32(std::uint32_t value) {
    char text[16];
    std::snprintf(text, sizeof text, "0x%08X", static_cast<unsigned>(value));
    return text;
}

}  // namespace

std::optional<ProgrammingEstimate> ProgrammingClock::at(const FlashStatus& status,
                                                        std::chrono::steady_clock::time_point now) {
    if (status.state != CANFlasher::StateProgramming || total_ == 0) {
        return std::nullopt;
    }
    if (!started_) {
        started_ = now;
    }
    ProgrammingEstimate estimate;
    estimate.total = total_;
    // The daemon reports index × 100 / total as it changes, i.e. at the first index that reaches it.
    const auto percent = static_cast<std::uint64_t>(status.progress);
    estimate.done = std::min(total_, (percent * total_ + 99) / 100);
    if (estimate.done > 0) {
        const auto spent = static_cast<std::uint64_t>(duration_cast<milliseconds>(now - *started_).count());
        estimate.remainingMs = static_cast<std::int64_t>(spent * (total_ - estimate.done) / estimate.done);
    }
    return estimate;
}

EventWriter::EventWriter(std::FILE* out) : out_(out), start_(std::chrono::steady_clock::now()) {}

JsonLine EventWriter::head(const char* event) const {
    JsonLine line;
    line.num("v", kVersion)
        .str("event", event)
        .str("time", toolcommon::utcTimestamp(std::chrono::system_clock::now()))
        .num("elapsedMs", duration_cast<milliseconds>(std::chrono::steady_clock::now() - start_).count());
    return line;
}

void EventWriter::write(const JsonLine& line) {
    std::fprintf(out_, "%s\n", line.line().c_str());
    std::fflush(out_);
}

void EventWriter::identity(const varnoch::client::Identity& identity) {
    JsonLine line = head("identity");
    line.num("pid", identity.pid)
        .str("processName", identity.processName)
        .str("version", identity.versionText)
        .str("buildTag", identity.buildTag);
    write(line);
}

void EventWriter::status(const FlashStatus& status, const std::optional<ProgrammingEstimate>& programming) {
    JsonLine line = head("status");
    line.num("mode", status.mode)
        .str("modeName", CANFlasher::modeName(status.mode))
        .num("state", status.state)
        .str("stateName", CANFlasher::stateName(status.state))
        .num("progress", status.progress)
        .num("address", status.targetAddress)
        .num("identifier", status.targetIdentifier);
    if (programming) {
        line.num("messagesDone", static_cast<std::int64_t>(programming->done))
            .num("messagesTotal", static_cast<std::int64_t>(programming->total));
        if (programming->remainingMs) {
            line.num("remainingMs", *programming->remainingMs);
        }
    }
    write(line);
}

void EventWriter::result(const ResultEvent& result) {
    JsonLine line = head("result");
    line.str("command", result.command).num("exitStatus", result.exitStatus);
    if (result.state) {
        line.num("state", *result.state).str("stateName", CANFlasher::stateName(*result.state));
    } else {
        line.raw("state", "null").raw("stateName", "null");
    }
    std::string states = "[";
    for (const varnoch::client::StateTime& entry : result.states) {
        JsonLine state;
        state.num("state", entry.state)
            .str("stateName", CANFlasher::stateName(entry.state))
            .num("ms", entry.time.count());
        states += (states.size() > 1 ? "," : "") + state.line();
    }
    line.raw("states", states + "]").num("totalMs", result.total.count());
    if (result.withSha256) {
        result.sha256.empty() ? line.raw("sha256", "null") : line.str("sha256", result.sha256);
    }
    if (!result.error.empty()) {
        line.str("error", result.error);
    }
    if (!result.checkJson.empty()) {
        line.raw("check", result.checkJson);
    }
    write(line);
}

std::string checkJson(const toolcommon::HexCheck& check, const std::string& file, std::uint32_t bitrate) {
    const bool accepted = check.state == CANFlasher::StatePreparing;
    JsonLine line;
    line.str("file", file).flag("accepted", accepted).num("records", check.detail.records);
    if (check.detail.line != 0) {
        line.num("line", check.detail.line).str("rule", toolcommon::hexLineRuleText(check.detail.rule));
    }
    if (!accepted) {
        return line.line();
    }
    std::string ranges = "[";
    for (const toolcommon::AddressRange& range : check.ranges) {
        ranges += (ranges.size() > 1 ? "," : "") +
                  JsonLine().num("first", range.first).num("last", range.last).line();
    }
    line.num("messages", static_cast<std::int64_t>(check.messages))
        .num("pageSelects", static_cast<std::int64_t>(check.pageSelects))
        .num("dataBytes", static_cast<std::int64_t>(check.dataBytes))
        .raw("ranges", ranges + "]")
        .str("sha256", check.sha256)
        .num("bitrate", bitrate)
        .num("busBits", static_cast<std::int64_t>(check.busBits))
        .num("busMicroseconds",
             static_cast<std::int64_t>(toolcommon::busMicroseconds(check.busBits, bitrate)));
    return line.line();
}

std::string checkText(const toolcommon::HexCheck& check, const std::string& file, std::uint32_t bitrate) {
    char text[512];
    if (check.state != CANFlasher::StatePreparing) {
        std::string refused = file + ": refused: state " + std::to_string(check.state) + " \"" +
                              CANFlasher::stateName(check.state) + "\"";
        if (check.detail.line != 0) {
            refused += ", line " + std::to_string(check.detail.line) + ": " +
                       toolcommon::hexLineRuleText(check.detail.rule);
        }
        return refused + "\n";
    }
    std::string report = file + ": the daemon takes it\n";
    std::snprintf(
        text, sizeof text, "records %u, upload messages %llu, page selects %llu, data bytes %llu\n",
        static_cast<unsigned>(check.detail.records), static_cast<unsigned long long>(check.messages),
        static_cast<unsigned long long>(check.pageSelects), static_cast<unsigned long long>(check.dataBytes));
    report += text;
    report += "written:";
    for (const toolcommon::AddressRange& range : check.ranges) {
        report += " " + hex32(range.first) + "-" + hex32(range.last);
    }
    report += check.ranges.empty() ? " nothing\n" : "\n";
    report += "image SHA-256 (lowest to highest written address, gaps 0xFF): " + check.sha256 + "\n";
    const std::uint64_t micros = toolcommon::busMicroseconds(check.busBits, bitrate);
    // Milliseconds below a second, seconds from there on; three decimals either way.
    const bool seconds = micros >= 1000000;
    const std::uint64_t unit = seconds ? 1000000 : 1000;
    std::snprintf(text, sizeof text,
                  "bus time at %u bit/s: at least %llu.%03llu %s (%llu bits of upload messages and their "
                  "acknowledgements)\n",
                  static_cast<unsigned>(bitrate), static_cast<unsigned long long>(micros / unit),
                  static_cast<unsigned long long>(micros % unit / (unit / 1000)), seconds ? "s" : "ms",
                  static_cast<unsigned long long>(check.busBits));
    return report + text;
}

}  // namespace flashclient
