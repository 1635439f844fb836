// The hex loader on its own: records to upload messages, and every malformed input it refuses.
#include "HexLoader.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <vector>

#include "FlasherTestSupport.h"

using namespace CANFlasher;
using ::testing::ElementsAre;

namespace {

// An Intel-HEX record line with its checksum.
std::string record(std::uint8_t type, std::uint16_t address, const std::vector<std::uint8_t>& bytes) {
    unsigned sum = static_cast<unsigned>(bytes.size()) + (address >> 8) + (address & 0xFF) + type;
    char text[16];
    std::snprintf(text, sizeof text, ":%02X%04X%02X", static_cast<unsigned>(bytes.size()), address, type);
    std::string line = text;
    for (std::uint8_t byte : bytes) {
        std::snprintf(text, sizeof text, "%02X", byte);
        line += text;
        sum += byte;
    }
    std::snprintf(text, sizeof text, "%02X", (0x100 - (sum & 0xFF)) & 0xFF);
    return line + text;
}

const std::string kEnd = ":00000001FF";

// Messages as "<id> <ext|std> <len>: bytes" for readable comparisons.
std::vector<std::string> texts(const std::vector<FlashMessage>& messages) {
    std::vector<std::string> out;
    for (const FlashMessage& message : messages) {
        char text[64];
        int used = std::snprintf(text, sizeof text, "%X %s %d:", message.identifier,
                                 message.extended ? "ext" : "std", message.length);
        for (int i = 0; i < message.length; ++i) {
            used += std::snprintf(text + used, sizeof text - static_cast<std::size_t>(used), " %02X",
                                  message.data[i]);
        }
        out.emplace_back(text);
    }
    return out;
}

class HexLoaderTest : public ::testing::Test {
  protected:
    HexLoadResult load(const std::string& content) {
        return loadHexMessages(folder_.write("firmware.hex", content), messages_, [] { return true; });
    }
    std::vector<std::string> loaded(const std::string& content) {
        EXPECT_EQ(load(content), HexLoadResult::Loaded);
        return texts(messages_);
    }

    TempFolder folder_;
    std::vector<FlashMessage> messages_;
};

const char* const kPage0 = "C4 ext 8: 04 00 00 00 00 00 00 00";
const char* const kEnd1 = "C4 ext 8: 04 00 00 00 00 00 00 00";
const char* const kEnd2 = "C4 ext 8: 06 01 00 00 00 00 00 00";

TEST_F(HexLoaderTest, EndRecordAloneGivesTheTwoEndMessages) {
    EXPECT_THAT(loaded(kEnd + "\n"), ElementsAre(kEnd1, kEnd2));
}

TEST_F(HexLoaderTest, DataRecordSelectsItsPageFirstAndCarriesTheTailOfTheMessageBefore) {
    EXPECT_THAT(loaded(":040000001122334452\n" + record(0, 4, {0x55, 0x66}) + "\n" + kEnd + "\n"),
                ElementsAre(kPage0, "C4 ext 8: 05 00 00 04 11 22 33 44", "C4 ext 8: 05 04 00 02 55 66 33 44",
                            kEnd1, kEnd2));
    // After a page select the tail is that message's zeros; records in one page select it once.
    EXPECT_THAT(loaded(record(0, 0x0100, {1, 2, 3, 4, 5}) + "\n" + kEnd),
                ElementsAre(kPage0, "C4 ext 8: 05 00 01 04 01 02 03 04", "C4 ext 8: 05 04 01 01 05 02 03 04",
                            kEnd1, kEnd2));
}

TEST_F(HexLoaderTest, DataCrossingAPageIsSplitAtTheBoundary) {
    EXPECT_THAT(loaded(record(0, 0x3FFE, {1, 2, 3, 4, 5, 6}) + "\n" + kEnd),
                ElementsAre(kPage0, "C4 ext 8: 05 FE 3F 02 01 02 00 00", "C4 ext 8: 04 01 00 00 00 00 00 00",
                            "C4 ext 8: 05 00 00 04 03 04 05 06", kEnd1, kEnd2));
}

TEST_F(HexLoaderTest, AddressRecordsSetTheBaseAndOnlyTheFirstSegmentByteCounts) {
    // Type 4: base 0x10000, page 4.
    EXPECT_THAT(
        loaded(":020000040001F9\n" + record(0, 0, {0xAA}) + "\n" + kEnd),
        ElementsAre("C4 ext 8: 04 04 00 00 00 00 00 00", "C4 ext 8: 05 00 00 01 AA 00 00 00", kEnd1, kEnd2));
    // Type 2: 0x10 * 4096 = 0x10000; with 12 34 the base is 0x12000 (0x34 plays no part).
    EXPECT_THAT(
        loaded(":020000021000EC\n" + record(0, 0, {0xAA}) + "\n" + kEnd),
        ElementsAre("C4 ext 8: 04 04 00 00 00 00 00 00", "C4 ext 8: 05 00 00 01 AA 00 00 00", kEnd1, kEnd2));
    EXPECT_THAT(
        loaded(":020000021234B6\n" + record(0, 0, {0xAA}) + "\n" + kEnd),
        ElementsAre("C4 ext 8: 04 04 00 00 00 00 00 00", "C4 ext 8: 05 00 20 01 AA 00 00 00", kEnd1, kEnd2));
    // A high linear base still sends only the low 16 bits of the page; start-segment records are skipped.
    EXPECT_THAT(
        loaded(record(4, 0, {0x12, 0x34}) + "\n" + record(3, 0, {0, 0, 0, 0}) + "\n" + record(0, 0, {0xBB}) +
               "\n" + kEnd),
        ElementsAre("C4 ext 8: 04 D0 48 00 00 00 00 00", "C4 ext 8: 05 00 00 01 BB 00 00 00", kEnd1, kEnd2));
}

TEST_F(HexLoaderTest, LineEndsAndCaseDoNotMatterAndNothingAfterTheEndIsRead) {
    const std::string lines[] = {":040000001122334452", record(0, 4, {0x55, 0x66}), kEnd};
    const std::vector<std::string> expected = loaded(lines[0] + "\n" + lines[1] + "\n" + lines[2] + "\n");
    EXPECT_EQ(loaded(lines[0] + "\r\n" + lines[1] + "\r\n" + lines[2] + "\r\n"), expected);
    EXPECT_EQ(loaded(":04000000aabbccdd"
                     "EE\n" +
                     kEnd),
              loaded(":04000000AABBCCDDEE\n" + kEnd));
    EXPECT_EQ(loaded(lines[0] + "\n" + lines[1] + "\n" + lines[2] + "\nnot hex at all\n\n"), expected);
}

TEST_F(HexLoaderTest, MalformedInputIsRefused) {
    // Trailing characters are ignored, up to the 1024 characters read at once: a line of exactly 1024
    // leaves its line end to be read as an empty line of its own.
    const std::string longestLine = ":040000001122334452" + std::string(1023 - 19, 'x');
    EXPECT_EQ(load(longestLine + "\n" + kEnd), HexLoadResult::Loaded);

    const std::string cases[] = {
        "040000001122334452\n" + kEnd,     // no ':'
        ":0000000\n" + kEnd,               // shorter than 11 characters
        ":0400000011223352\n" + kEnd,      // byte count beyond the line
        ":040000001122334453\n" + kEnd,    // checksum
        ":040000001122334452\n\n" + kEnd,  // blank line
        ":040000001122334452\n",           // no end-of-file record
        "",                                // empty file
        longestLine + "x\n" + kEnd,        // 1024 characters
        longestLine + "xx\n" + kEnd,       // 1025 characters: the cut-off rest is no record
    };
    for (const std::string& content : cases) {
        EXPECT_EQ(load(content), HexLoadResult::Malformed) << content.substr(0, 40);
    }
}

TEST_F(HexLoaderTest, UnopenableFileAndInterruptionAreReported) {
    EXPECT_EQ(loadHexMessages(folder_.path() + "/missing.hex", messages_, [] { return true; }),
              HexLoadResult::OpenFailed);
    const std::string path = folder_.write("firmware.hex", ":040000001122334452\n" + kEnd);
    int lines = 0;
    EXPECT_EQ(loadHexMessages(path, messages_, [&] { return ++lines < 2; }), HexLoadResult::Interrupted);
    EXPECT_EQ(messages_.size(), 2u);  // what was built before stays
}

TEST(ParseHexLine, SplitsTheRecord) {
    std::uint32_t address = 0;
    std::uint32_t type = 0;
    std::vector<std::uint8_t> data;
    ASSERT_TRUE(parseHexLine(":10246200464C5549442050524F46494C4500464C33", address, type, data));
    EXPECT_EQ(address, 0x2462u);
    EXPECT_EQ(type, 0u);
    EXPECT_EQ(data.size(), 16u);
    EXPECT_EQ(data.front(), 0x46);
    EXPECT_FALSE(parseHexLine(":10246200464C5549442050524F46494C4500464C34", address, type, data));
}

}  // namespace
