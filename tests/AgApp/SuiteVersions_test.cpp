#include "SuiteVersions.h"

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

std::string keywordFor(const std::string& tree) {
    return "$HeadURL: https://repo.example.net/usr/local/Repository/" + tree +
           "/varnoch/src/AgApp/SuiteVersions.cpp $";
}

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

TEST(RepositoryLocation, TakesKindAndNameAfterTheRepositoryTriple) {
    EXPECT_EQ(locationFromKeyword(keywordFor("trunk")), "");
    EXPECT_EQ(locationFromKeyword(keywordFor("branches/work")), "branches/work");
    EXPECT_EQ(locationFromKeyword(keywordFor("tags/VARNOCH-Ver-1_01")), "tags/VARNOCH-Ver-1_01");
    EXPECT_EQ(locationFromKeyword("$HeadURL: https://host/other/tags/X/a/b/c/d $"), "");
    // The triple is searched only where five components still follow it.
    EXPECT_EQ(locationFromKeyword("usr/local/Repository/tags/X/y"), "tags/X");
    EXPECT_EQ(locationFromKeyword("usr/local/Repository/tags/X"), "");
}

TEST(VersionIdentity, DerivesTagVersionVersionTextAndDescriptionFromTheLocation) {
    struct Case {
        std::string location, tagVersion;
        bool preRelease;
        std::string version, description;
    };
    const Case cases[] = {
        {"", "", false, "0.00 ", "Dev-trunk " + kPlaceholderDate},
        {"branches/work", "", false, "0.00 ", "Dev-work " + kPlaceholderDate},
        {"tags/VARNOCH-Ver-1_01", "1.01", false, "1.01 ", "VARNOCH 1.01"},
        {"tags/VARNOCH-1_02", "", false, "0.00 ", "Dev-unknown TAG " + kPlaceholderDate},
        {"tags/VARNOCH-Ver-2_10b", "2.10b", true, "2.10b", "VARNOCH 2.10b"},
        {"tags/A-B-Ver-3_5", "3.5", false, "3.05 ", "A-B 3.5"},
        {"tags/Ver-x-1_00", "1.00", false, "1.00 ", "Dev-unknown TAG " + kPlaceholderDate},
        {"tags", "", false, "0.00 ", "Dev-unknown TAG " + kPlaceholderDate},
    };
    for (const Case& c : cases) {
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
}

TEST(VersionIdentity, RecordFormsAndTagVersionAccumulation) {
    VersionRecord record{"v", "p", 1, 2, '#', 7};
    EXPECT_EQ(formatVersion(record), "1.02.07");
    record = {"v", "p", 123, 205, 'x', 199};
    EXPECT_EQ(formatDotted(record), "23.05.99");
    EXPECT_EQ(formatLettered(record), "23.05x");
    // Digits accumulate onto the stored numbers; a text without leading digits starts at the separator.
    record = {"v", "p", 1, 0, ' ', 5};
    applyTagVersion(record, "2.34");
    EXPECT_EQ(formatVersion(record), "12.34 ");
    record = {"v", "p", 0, 0, ' ', 5};
    applyTagVersion(record, "v7-rc");
    EXPECT_EQ(formatVersion(record), "0.07-");
}

TEST(BuildDate, DateTextAndTimeOfTheMarker) {
    EXPECT_EQ(dateTextOfMarker(std::string("!Build ") + "Date: 2019-03-05 09:07:03 UTC!"),
              "2019-03-05 09:07:03 UTC");
    EXPECT_EQ(timeOfDateText("2019-03-05 09:07:03 UTC"), 1551776823);
}

TEST(ProcessIdentity, UnpatchedProgramReportsThePlaceholderAndConsistentTexts) {
    EXPECT_EQ(buildDateText(), kPlaceholderDate);
    EXPECT_EQ(buildTime(), -2177452800LL);
    EXPECT_EQ(versionDescription(), describeLocation(repositoryLocation(), buildDateText()));
    EXPECT_STREQ(vendorName(), "Strale Technologies");
    const VersionRecord record = versionRecord();
    EXPECT_EQ(versionText(), formatVersion(record));
    EXPECT_EQ(versionNumber(), record.major * 100u + record.minor);
    ASSERT_NE(productName(), nullptr);

    std::array<char, 8> buffer{};
    EXPECT_FALSE(copyVendorName(buffer.data(), buffer.size()));
    EXPECT_STREQ(buffer.data(), "Strale ");
    setProductName("Probe");
    EXPECT_TRUE(copyProductName(buffer.data(), buffer.size()));
    EXPECT_STREQ(buffer.data(), "Probe");
    setProductName(nullptr);
    EXPECT_FALSE(copyProductName(buffer.data(), buffer.size()));
}

TEST(BuildDateStamp, LinkedProgramReportsItsBuildTime) {
    const auto [output, status] = run(VERSION_PROBE);
    ASSERT_EQ(status, 0) << output;
    std::istringstream lines(output);
    std::string date;
    long long seconds = 0;
    std::getline(lines, date);
    lines >> seconds;
    EXPECT_NE(date.substr(0, 4), "1901") << date;
    EXPECT_EQ(seconds, timeOfDateText(date));
    // The stamp is written into the file, so the file's change time and the stamp agree.
    struct stat info {};
    ASSERT_EQ(stat(VERSION_PROBE, &info), 0);
    EXPECT_LE(std::llabs(seconds - static_cast<long long>(info.st_mtime)), 120) << date;
}

TEST(BuildDateStamp, ScriptStampsExactlyOneMarkerAndRefusesOtherCounts) {
    char dir[] = "/tmp/varnoch-version-XXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    const std::string file = std::string(dir) + "/program";
    const std::string head =
        "\x7f"
        "ELF\n!Build ";
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
    std::remove(file.c_str());
    rmdir(dir);
}
