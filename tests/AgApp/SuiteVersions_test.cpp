#include "SuiteVersions.h"
#include "TempDir.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>

using namespace AgApp;

namespace {

const std::string kPlaceholderDate = "1901-01-01 00:00:00 UTC";

// Runs a shell command and returns its standard output and its exit status.
std::pair<std::string, int> run(const std::string& command) {
    std::string output;
    FILE* pipe = popen((command + " 2>&1").c_str(), "r");
    std::array<char, 256> chunk{};
    while (pipe != nullptr && std::fgets(chunk.data(), chunk.size(), pipe) != nullptr) {
        output += chunk.data();
    }
    return {output, pipe != nullptr ? pclose(pipe) : -1};
}

}  // namespace

TEST(VersionIdentity, LocationTagVersionVersionTextAndDescriptionForUntaggedBranchAndTagBuilds) {
    const std::string keyword = "$HeadURL: https://repo.example.net/usr/local/Repository/";
    EXPECT_EQ(locationFromKeyword(keyword + "trunk/varnoch/src/AgApp/SuiteVersions.cpp $"), "");
    EXPECT_EQ(locationFromKeyword(keyword + "branches/work/varnoch/src/AgApp/x.cpp $"), "branches/work");
    EXPECT_EQ(locationFromKeyword("usr/local/Repository/tags/X/y"), "tags/X");  // five components must follow
    struct Case {
        std::string location, tagVersion, version, description;
        bool preRelease;
    };
    for (const Case& c : {Case{"", "", "0.00 ", "Dev-trunk " + kPlaceholderDate, false},
                          {"branches/work", "", "0.00 ", "Dev-work " + kPlaceholderDate, false},
                          {"tags/VARNOCH-Ver-1_01", "1.01", "1.01 ", "VARNOCH 1.01", false},
                          {"tags/VARNOCH-1_02", "", "0.00 ", "Dev-unknown TAG " + kPlaceholderDate, false},
                          {"tags/VARNOCH-Ver-2_10b", "2.10b", "2.10b", "VARNOCH 2.10b", true},
                          {"tags/A-B-Ver-3_5", "3.5", "3.05 ", "A-B 3.5", false}}) {
        SCOPED_TRACE(c.location);
        EXPECT_EQ(tagVersionOfLocation(c.location), c.tagVersion);
        EXPECT_EQ(isPreReleaseLocation(c.location), c.preRelease);
        VersionRecord record{"v", "p", 0, 0, ' ', 5};
        if (isTagLocation(c.location)) {
            applyTagVersion(record, tagVersionOfLocation(c.location));
        }
        EXPECT_EQ(formatVersion(record), c.version);
        EXPECT_EQ(describeLocation(c.location, kPlaceholderDate), c.description);
    }
    VersionRecord record{"v", "p", 1, 2, '#', 7};
    EXPECT_EQ(formatVersion(record), "1.02.07");
    record = {"v", "p", 1, 0, ' ', 5};
    applyTagVersion(record, "2.34");  // digits accumulate onto the stored numbers
    EXPECT_EQ(formatVersion(record), "12.34 ");
}

TEST(VersionIdentity, MarkerDateAndTheUnpatchedPlaceholder) {
    EXPECT_EQ(dateTextOfMarker(std::string("!Build ") + "Date: 2019-03-05 09:07:03 UTC!"),
              "2019-03-05 09:07:03 UTC");
    EXPECT_EQ(timeOfDateText("2019-03-05 09:07:03 UTC"), 1551776823);
    EXPECT_EQ(buildDateText(), kPlaceholderDate);
}

TEST(BuildDateStamp, LinkedProgramReportsItsBuildTimeAndTheScriptStampsExactlyOneMarker) {
    // A cross build runs its programs under the emulator named by VARNOCH_EMULATOR.
    const char* emulator = std::getenv("VARNOCH_EMULATOR");
    const auto [output, status] =
        run((emulator != nullptr ? std::string(emulator) + " " : "") + VERSION_PROBE);
    ASSERT_EQ(status, 0) << output;
    std::istringstream lines(output);
    std::string date;
    long long seconds = 0;
    std::getline(lines, date);
    lines >> seconds;
    EXPECT_NE(date.substr(0, 4), "1901") << date;
    EXPECT_EQ(seconds, timeOfDateText(date));
    struct stat info {};  // the stamp is written into the file, so its change time and the stamp agree
    ASSERT_EQ(stat(VERSION_PROBE, &info), 0);
    EXPECT_LE(std::llabs(seconds - static_cast<long long>(info.st_mtime)), 120) << date;

    const TempDir dir("version");
    const std::string file = dir.path("program"), head = "\177ELF\n!Build ";
    const auto stamp = [&](const std::string& content) {
        std::ofstream(file, std::ios::binary) << content;
        return run(PATCH_BUILD_DATE " " + file).second;
    };
    EXPECT_NE(stamp(head + "Date: none"), 0);
    EXPECT_NE(stamp(head + "Date: 1901-01-01 00:00:00 UTC!" + head + "Date: 2001-01-01 00:00:00 UTC!"), 0);
    ASSERT_EQ(stamp(head + "Date: 1901-01-01 00:00:00 UTC!\n"), 0);
    std::ifstream in(file, std::ios::binary);
    const std::string stamped((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    ASSERT_EQ(stamped.size(), head.size() + 31);
    EXPECT_NE(timeOfDateText(stamped.substr(head.size() + 6, 19)), timeOfDateText(kPlaceholderDate));
    EXPECT_EQ(stamped.substr(head.size() + 25), " UTC!\n");
}
