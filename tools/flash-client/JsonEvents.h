// varnoch-flash --json: one JSON object per line, version 1 (docs/json-events.md). Every line carries
// "v", "event", a UTC "time" with milliseconds and "elapsedMs" since the command started.
#pragma once

#include <chrono>
#include <cstdio>
#include <optional>
#include <string>
#include <vector>

#include "HexCheck.h"
#include "JsonLine.h"
#include "varnoch/client.h"

namespace flashclient {

using CANFlasher::FlashStatus;

// How far an upload's programming has come, in upload messages: done from the daemon's percentage
// (the first message count that reaches it), all of them from the client's own load of the file.
struct ProgrammingEstimate {
    std::uint64_t done = 0;
    std::uint64_t total = 0;
    std::optional<std::int64_t> remainingMs;  // once a message is done: the rate so far, extrapolated
};

// Follows the Programming statuses of one upload of a file of `total` messages.
class ProgrammingClock {
  public:
    explicit ProgrammingClock(std::uint64_t total) : total_(total) {}
    // The estimate for `status` seen at `now`; nothing outside Programming.
    std::optional<ProgrammingEstimate> at(const FlashStatus& status,
                                          std::chrono::steady_clock::time_point now);

  private:
    std::uint64_t total_;
    std::optional<std::chrono::steady_clock::time_point> started_;
};

// What the last line says.
struct ResultEvent {
    const char* command = "";
    int exitStatus = 0;
    std::optional<std::int32_t> state;  // none when no status was ever seen
    std::vector<varnoch::client::StateTime> states;
    std::chrono::milliseconds total{0};
    bool withSha256 = false;  // an upload: "sha256" is given, null when the file could not be loaded
    std::string sha256;
    std::string error;      // the failure as standard error shows it, without the program name
    std::string checkJson;  // a check's findings (checkJson())
};

class EventWriter {
  public:
    explicit EventWriter(std::FILE* out);
    void identity(const varnoch::client::Identity& identity);
    void status(const FlashStatus& status, const std::optional<ProgrammingEstimate>& programming);
    void result(const ResultEvent& result);

  private:
    void write(const toolcommon::JsonLine& line);
    toolcommon::JsonLine head(const char* event) const;

    std::FILE* out_;
    std::chrono::steady_clock::time_point start_;
};

// The "check" object of a check's result.
std::string checkJson(const toolcommon::HexCheck& check, const std::string& file, std::uint32_t bitrate);
// The report of a check as text lines.
std::string checkText(const toolcommon::HexCheck& check, const std::string& file, std::uint32_t bitrate);

}  // namespace flashclient
