#include "SuiteVersions.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <memory>
#include <new>
#include <vector>

#include "SuiteVersionsBuild.h"
#include "textconv.h"

namespace AgApp {

namespace {

// The build patches the date and time inside this text in the linked program (same length, in
// place). It is writable and read through volatile so that the compiler keeps every byte in the
// binary and never folds the placeholder into the code that reads it.
volatile char buildDateMarker[] = "!Build Date: 1901-01-01 00:00:00 UTC!";

constexpr std::size_t kDateTextOffset = 13;
constexpr std::size_t kDateTextLength = 23;

constexpr char kVendorName[] = "Strale Technologies";
constexpr char kFallbackProductName[] = "Strale Computer";
constexpr char kDottedLetter = '#';
constexpr std::uint8_t kInitialBuild = 5;
constexpr unsigned kTwoDigits = 100;

constexpr char kTagsKind[] = "tags";
constexpr char kBranchesKind[] = "branches";
constexpr char kTagsPrefix[] = "tags/";
constexpr char kVersionPart[] = "Ver";
constexpr std::size_t kMinTagParts = 3;

std::string readMarker() {
    std::string text;
    for (const volatile char& c : buildDateMarker) {
        if (c == '\0') {
            break;
        }
        text.push_back(c);
    }
    return text;
}

bool isDigit(char c) {
    return c >= '0' && c <= '9';
}

// Heap copy that reports an allocation failure as null instead of throwing: the product name has a
// fall-back for exactly that case.
std::unique_ptr<char[]> heapCopy(const char* text) {
    const std::size_t size = std::strlen(text) + 1;
    std::unique_ptr<char[]> copy(new (std::nothrow) char[size]);
    if (copy) {
        std::memcpy(copy.get(), text, size);
    }
    return copy;
}

bool copyInto(const char* text, char* buffer, std::size_t size) {
    if (buffer == nullptr || size == 0) {
        return false;
    }
    if (text == nullptr) {
        buffer[0] = '\0';
        return false;
    }
    const std::size_t length = std::strlen(text);
    const std::size_t count = std::min(length, size - 1);
    std::memcpy(buffer, text, count);
    buffer[count] = '\0';
    return count == length;
}

struct Identity {
    VersionRecord record{kVendorName, nullptr, 0, 0, ' ', kInitialBuild};
    std::unique_ptr<char[]> product;
};

// The completed record; completion runs once, on the first use of any record operation.
Identity& identity() {
    static Identity state = [] {
        Identity completed;
        // The fall-back covers a failed copy only, never an empty configured name.
        completed.product = heapCopy(build::kProductName);
        if (!completed.product) {
            completed.product = heapCopy(kFallbackProductName);
        }
        completed.record.product = completed.product.get();
        if (isTaggedBuild()) {
            applyTagVersion(completed.record, tagVersion());
        }
        return completed;
    }();
    return state;
}

}  // namespace

std::string locationFromKeyword(const std::string& keyword) {
    const std::vector<std::string> parts = util::splitString(keyword, "/");
    const auto count = static_cast<std::int64_t>(parts.size());
    for (std::int64_t i = 0; i < count - 5; ++i) {
        const auto at = static_cast<std::size_t>(i);
        if (parts[at] == "usr" && parts[at + 1] == "local" && parts[at + 2] == "Repository") {
            const std::string& kind = parts[at + 3];
            if (kind == kBranchesKind || kind == kTagsKind) {
                return kind + "/" + parts[at + 4];
            }
            return std::string();
        }
    }
    return std::string();
}

bool isTagLocation(const std::string& location) {
    return util::startsWith(location, kTagsPrefix);
}

std::string tagVersionOfLocation(const std::string& location) {
    if (!isTagLocation(location)) {
        return std::string();
    }
    const std::vector<std::string> components = util::splitString(location, "/");
    if (components.size() < 2) {
        return std::string();
    }
    const std::vector<std::string> parts = util::splitString(components[1], "-");
    if (parts.size() < kMinTagParts) {
        return std::string();
    }
    std::string version = parts.back();
    std::replace(version.begin(), version.end(), '_', '.');
    return version;
}

bool isPreReleaseLocation(const std::string& location) {
    if (!isTagLocation(location)) {
        return false;
    }
    const std::string version = tagVersionOfLocation(location);
    return !version.empty() && version.back() >= 'a' && version.back() <= 'z';
}

std::string dateTextOfMarker(const std::string& marker) {
    if (marker.size() < kDateTextOffset + kDateTextLength) {
        return std::string();
    }
    return marker.substr(kDateTextOffset, kDateTextLength);
}

std::time_t timeOfDateText(const std::string& dateText) {
    // No validation: any character counts by its code minus '0'.
    const auto number = [&dateText](std::size_t first, std::size_t count) {
        int value = 0;
        for (std::size_t i = first; i < first + count; ++i) {
            const char c = i < dateText.size() ? dateText[i] : '0';
            value = value * 10 + (c - '0');
        }
        return value;
    };
    std::tm calendar{};
    calendar.tm_year = number(0, 4) - 1900;
    calendar.tm_mon = number(5, 2) - 1;
    calendar.tm_mday = number(8, 2);
    calendar.tm_hour = number(11, 2);
    calendar.tm_min = number(14, 2);
    calendar.tm_sec = number(17, 2);
    return timegm(&calendar);
}

void applyTagVersion(VersionRecord& record, const std::string& version) {
    std::size_t i = 0;
    const std::size_t length = version.size();
    for (; i < length && isDigit(version[i]); ++i) {
        record.major = static_cast<std::uint8_t>(record.major * 10 + (version[i] - '0'));
    }
    if (i >= length) {
        return;
    }
    ++i;  // the separator, whatever it is
    for (; i < length && isDigit(version[i]); ++i) {
        record.minor = static_cast<std::uint8_t>(record.minor * 10 + (version[i] - '0'));
    }
    if (i < length) {
        record.letter = version[i];
    }
}

std::string formatDotted(const VersionRecord& record) {
    char text[16];
    std::snprintf(text, sizeof text, "%u.%02u.%02u", record.major % kTwoDigits, record.minor % kTwoDigits,
                  record.build % kTwoDigits);
    return text;
}

std::string formatLettered(const VersionRecord& record) {
    char text[16];
    std::snprintf(text, sizeof text, "%u.%02u%c", record.major % kTwoDigits, record.minor % kTwoDigits,
                  record.letter);
    return text;
}

std::string formatVersion(const VersionRecord& record) {
    return record.letter == kDottedLetter ? formatDotted(record) : formatLettered(record);
}

// A tag's name up to its version part, then the version: empty when the tag has no version part.
std::string describeTag(const std::string& tag, const std::string& location) {
    const std::vector<std::string> parts = util::splitString(tag, "-");
    std::string description;
    for (std::size_t i = 1; i + 1 < parts.size(); ++i) {
        if (parts[i] != kVersionPart) {
            continue;
        }
        for (std::size_t j = 0; j < i; ++j) {
            description += (j == 0 ? "" : "-") + parts[j];
        }
        if (!description.empty()) {
            description += " " + tagVersionOfLocation(location);
        }
        break;
    }
    return description;
}

std::string describeLocation(const std::string& location, const std::string& dateText) {
    if (location.empty()) {
        return "Dev-trunk " + dateText;
    }
    std::string description;
    const std::vector<std::string> components = util::splitString(location, "/");
    if (components.size() >= 2) {
        if (components[0] == kBranchesKind) {
            description = "Dev-" + components[1] + " " + dateText;
        } else if (components[0] == kTagsKind) {
            description = describeTag(components[1], location);
        }
    }
    if (description.empty()) {
        description = "Dev-unknown TAG " + dateText;
    }
    return description;
}

const std::string& buildDateText() {
    static const std::string text = dateTextOfMarker(readMarker());
    return text;
}

std::time_t buildTime() {
    return timeOfDateText(buildDateText());
}

const std::string& repositoryLocation() {
    static const std::string location = locationFromKeyword(build::kLocationKeyword);
    return location;
}

bool isTaggedBuild() {
    return isTagLocation(repositoryLocation());
}

const std::string& tagVersion() {
    static const std::string version = tagVersionOfLocation(repositoryLocation());
    return version;
}

bool isPreReleaseTag() {
    return isPreReleaseLocation(repositoryLocation());
}

bool isDevelopmentBuild() {
    return !isTaggedBuild();
}

const char* vendorName() {
    return identity().record.vendor;
}

const char* productName() {
    return identity().record.product;
}

const char* versionText() {
    return identity().record.letter == kDottedLetter ? versionTextDotted() : versionTextLettered();
}

const char* versionTextDotted() {
    static const std::string text = formatDotted(identity().record);
    return text.c_str();
}

const char* versionTextLettered() {
    static const std::string text = formatLettered(identity().record);
    return text.c_str();
}

unsigned versionNumber() {
    const VersionRecord& record = identity().record;
    return record.major * kTwoDigits + record.minor;
}

VersionRecord versionRecord() {
    return identity().record;
}

void setProductName(const char* name) {
    Identity& state = identity();
    state.product = name != nullptr ? heapCopy(name) : nullptr;
    state.record.product = state.product.get();
}

bool copyVendorName(char* buffer, std::size_t size) {
    return copyInto(vendorName(), buffer, size);
}

bool copyProductName(char* buffer, std::size_t size) {
    return copyInto(productName(), buffer, size);
}

const std::string& versionDescription() {
    static const std::string description = describeLocation(repositoryLocation(), buildDateText());
    return description;
}

}  // namespace AgApp
