// Version identity: location, tag version, version text and description of untagged, branch and tag
// builds; the build-date marker and the stamp the build leaves in it.
#include "SuiteVersions.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdlib>

using namespace AgApp;

const std::string kPlaceholderDate = "1901-01-01 00:00:00 UTC";  // the marker before the build stamps it

TEST(VersionIdentity, LocationIsTagsOrBranchesAndItsNameFoundAfterUsrLocalRepository) {
    const std::string keyword = "$HeadURL: https://repo.example.net/usr/local/Repository/";
    for (const auto& [text, location] :
         {std::pair{keyword + "branches/work/varnoch/src/AgApp/x.cpp $", "branches/work"},
          {std::string("usr/local/Repository/tags/X/y"), "tags/X"},  // five components must follow
          {std::string("usr/local/Repository/tags/X"), ""}}) {
        EXPECT_EQ(locationFromKeyword(text), location) << text;
    }
}

// The stored version 1.00 takes the tag's digits after its own.
TEST(VersionIdentity, TagVersionVersionTextAndDescriptionOfEachKindOfBuild) {
    struct Case {
        std::string location, tagVersion, version, description;
        bool preRelease;
    };
    for (const Case& c : {Case{"", "", "1.00 ", "Dev-trunk " + kPlaceholderDate, false},
                          {"branches/work", "", "1.00 ", "Dev-work " + kPlaceholderDate, false},
                          {"tags/VARNOCH-Ver-1_01", "1.01", "11.01 ", "VARNOCH 1.01", false},
                          {"tags/VARNOCH-1_02", "", "1.00 ", "Dev-unknown TAG " + kPlaceholderDate, false},
                          {"tags/VARNOCH-Ver-2_10b", "2.10b", "12.10b", "VARNOCH 2.10b", true},
                          {"tags/A-B-Ver-3_5", "3.5", "13.05 ", "A-B 3.5", false}}) {
        SCOPED_TRACE(c.location);
        EXPECT_EQ(tagVersionOfLocation(c.location), c.tagVersion);
        EXPECT_EQ(isPreReleaseLocation(c.location), c.preRelease);
        VersionRecord record{"v", "p", 1, 0, ' ', 5};
        if (isTagLocation(c.location)) {
            applyTagVersion(record, c.tagVersion);
        }
        EXPECT_EQ(formatVersion(record), c.version);
        EXPECT_EQ(describeLocation(c.location, kPlaceholderDate), c.description);
    }
    EXPECT_EQ(formatVersion({"v", "p", 1, 2, '#', 7}), "1.02.07");  // '#' selects three numbers
}

TEST(VersionIdentity, DatesOfTheMarkerAndTheIdentityAndBuildTimeOfThisTrunkBuild) {
    // Split: the build stamps a program that holds exactly one marker, its own.
    EXPECT_EQ(dateTextOfMarker(std::string("!Build ") + "Date: 2019-03-05 09:07:03 UTC!"),
              "2019-03-05 09:07:03 UTC");
    EXPECT_EQ(timeOfDateText("2019-03-05 09:07:03 UTC"), 1551776823);
    EXPECT_EQ(timeOfDateText(kPlaceholderDate), -2177452800);
    EXPECT_EQ(std::string(vendorName()) + "|" + versionText() + "|" + versionTextDotted(),
              "Strale Technologies|0.00 |0.00.05");
    EXPECT_EQ(versionDescription(), "Dev-trunk " + buildDateText());
    struct stat info {};  // the build stamps its time into the file: its change time and the stamp agree
    ASSERT_EQ(stat(VERSION_TEST, &info), 0);
    EXPECT_LE(std::llabs(buildTime() - info.st_mtime), 120) << buildDateText();
}
