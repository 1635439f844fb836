#include "JsonLine.h"

#include <cstdio>
#include <ctime>

namespace toolcommon {

std::string jsonString(const std::string& text) {
    std::string quoted = "\"";
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (c == '"' || c == '\\') {
            quoted += '\\';
            quoted += c;
        } else if (byte < 0x20 || byte == 0x7F) {
            char escaped[8];
            std::snprintf(escaped, sizeof escaped, "\\u%04x", byte);
            quoted += escaped;
        } else {
            quoted += c;
        }
    }
    return quoted + "\"";
}

std::string utcTimestamp(std::chrono::system_clock::time_point time) {
    const auto sinceEpoch = std::chrono::duration_cast<std::chrono::milliseconds>(time.time_since_epoch());
    const std::time_t seconds = static_cast<std::time_t>(sinceEpoch.count() / 1000);
    std::tm utc{};
    if (gmtime_r(&seconds, &utc) == nullptr) {
        return "1970-01-01T00:00:00.000Z";  // only for a time beyond what struct tm holds
    }
    char text[96];
    std::snprintf(text, sizeof text, "%04d-%02d-%02dT%02d:%02d:%02d.%03dZ", utc.tm_year + 1900,
                  utc.tm_mon + 1, utc.tm_mday, utc.tm_hour, utc.tm_min, utc.tm_sec,
                  static_cast<int>(sinceEpoch.count() % 1000));
    return text;
}

JsonLine& JsonLine::member(const char* key, const std::string& json) {
    if (body_.size() > 1) {
        body_ += ',';
    }
    body_ += jsonString(key) + ':' + json;
    return *this;
}

JsonLine& JsonLine::str(const char* key, const std::string& value) {
    return member(key, jsonString(value));
}

JsonLine& JsonLine::num(const char* key, std::int64_t value) {
    return member(key, std::to_string(value));
}

JsonLine& JsonLine::flag(const char* key, bool value) {
    return member(key, value ? "true" : "false");
}

JsonLine& JsonLine::raw(const char* key, const std::string& json) {
    return member(key, json);
}

}  // namespace toolcommon
