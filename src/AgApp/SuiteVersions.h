// Version identity of the program: vendor, product and version texts, the build date and the version
// description, derived once from the repository location keyword and the build-date marker built in.
#pragma once

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <string>

namespace AgApp {

/// Vendor, product and version numbers of the program; `letter` '#' selects the three-number form.
struct VersionRecord {
    const char* vendor;
    const char* product;
    std::uint8_t major;
    std::uint8_t minor;
    char letter;
    std::uint8_t build;
};

// Pure computations, one per derived value, taking their inputs explicitly.

/// "tags/<name>" or "branches/<name>" from a location keyword; "" when it names neither.
std::string locationFromKeyword(const std::string& keyword);
/// Last "-"-part of a tag with at least three parts, '_' turned into '.'; "" otherwise.
std::string tagVersionOfLocation(const std::string& location);
/// True when the location begins with "tags/".
bool isTagLocation(const std::string& location);
/// True for a tag location whose tag version ends in a lower-case letter.
bool isPreReleaseLocation(const std::string& location);
/// The 23 date characters of a build-date marker; "" when the marker is too short.
std::string dateTextOfMarker(const std::string& marker);
/// Seconds since 1970 (UTC) from a "YYYY-MM-DD hh:mm:ss" text read at fixed places, unvalidated.
std::time_t timeOfDateText(const std::string& dateText);
/// Accumulates the numbers and letter of a tag version ("1.01", "2.10b") onto the record.
void applyTagVersion(VersionRecord& record, const std::string& tagVersion);
/// "%u.%02u.%02u" from major, minor and build, each mod 100.
std::string formatDotted(const VersionRecord& record);
/// "%u.%02u%c" from major, minor (mod 100) and the letter.
std::string formatLettered(const VersionRecord& record);
/// The dotted form when the letter is '#', else the lettered form.
std::string formatVersion(const VersionRecord& record);
/// The description reported to clients for a location and a build date text.
std::string describeLocation(const std::string& location, const std::string& dateText);

// The program's own identity, computed on first use and cached for the life of the process.

/// Build date text, "1901-01-01 00:00:00 UTC" when the build did not patch the marker.
const std::string& buildDateText();
/// The build date as seconds since 1970 (UTC).
std::time_t buildTime();
/// The repository location of this build ("" for an untagged build).
const std::string& repositoryLocation();
/// True for a build from a tag.
bool isTaggedBuild();
/// Version taken from the tag name ("" when untagged or the tag has no version part).
const std::string& tagVersion();
/// True for a tag whose version ends in a lower-case letter.
bool isPreReleaseTag();
/// True for every build that is not from a tag.
bool isDevelopmentBuild();
/// Vendor text of the version record.
const char* vendorName();
/// Product text of the version record (null only when no copy of a name could be made).
const char* productName();
/// Version in the form the record's letter selects.
const char* versionText();
/// Version as "major.minor.build".
const char* versionTextDotted();
/// Version as "major.minor" followed by the letter.
const char* versionTextLettered();
/// major * 100 + minor.
unsigned versionNumber();
/// A copy of the version record.
VersionRecord versionRecord();
/// Replaces the product text with a copy of `name` (null clears it); cached texts are not redone.
/// Must not run while another thread reads the product text.
void setProductName(const char* name);
/// Copies the vendor text into `buffer`; false when the buffer is missing or too small (cut there).
bool copyVendorName(char* buffer, std::size_t size);
/// Copies the product text into `buffer`; false when missing, too small (cut there) or no product.
bool copyProductName(char* buffer, std::size_t size);
/// Description reported to clients, e.g. "VARNOCH 1.01" or "Dev-trunk <build date>".
const std::string& versionDescription();

}  // namespace AgApp
