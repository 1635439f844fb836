// One JSON object written on one line, for the tools' machine-readable output: keys in the order they
// are added, strings escaped so that any text stays one valid line.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>

namespace toolcommon {

/// `text` as a JSON string literal, quotes included; control characters, '"' and '\' escaped.
std::string jsonString(const std::string& text);

/// "2026-11-23T21:06:50.123Z": a UTC time with milliseconds.
std::string utcTimestamp(std::chrono::system_clock::time_point time);

class JsonLine {
  public:
    JsonLine& str(const char* key, const std::string& value);
    JsonLine& num(const char* key, std::int64_t value);
    JsonLine& flag(const char* key, bool value);
    /// A value that is already JSON (an array or an object built elsewhere).
    JsonLine& raw(const char* key, const std::string& json);
    /// The object, without a line end.
    std::string line() const { return body_ + "}"; }

  private:
    JsonLine& member(const char* key, const std::string& json);

    std::string body_ = "{";
};

}  // namespace toolcommon
