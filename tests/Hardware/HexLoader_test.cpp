// The hex loader on its own: records to upload messages, and the malformed input it refuses.
#include "HexLoader.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "FlasherTestSupport.h"

using namespace CANFlasher;
using ::testing::ElementsAre;

namespace {

const std::string kEnd = ":00000001FF\n";
const char* const kPage0 = "04 00 00 00 00 00 00 00";
const char* const kEndFirst = kPage0;
const char* const kEndSecond = "06 01 00 00 00 00 00 00";

class HexLoaderTest : public ::testing::Test {
  protected:
    HexLoadResult load(const std::string& content) {
        return loadHexMessages(folder_.write("fw.hex", content), messages_, [] { return true; });
    }
    // The data bytes of the loaded messages (every one is 0xC4, extended, 8 bytes long).
    std::vector<std::string> loaded(const std::string& content) {
        EXPECT_EQ(load(content), HexLoadResult::Loaded);
        std::vector<std::string> texts;
        for (const FlashMessage& message : messages_) {
            EXPECT_EQ(message, FlashMessage(0xC4, 8, message.data, true));
            char text[32];
            std::snprintf(text, sizeof text, "%02X %02X %02X %02X %02X %02X %02X %02X", message.data[0],
                          message.data[1], message.data[2], message.data[3], message.data[4], message.data[5],
                          message.data[6], message.data[7]);
            texts.emplace_back(text);
        }
        return texts;
    }

    TempFolder folder_;
    std::vector<FlashMessage> messages_;
};

TEST_F(HexLoaderTest, DataIsSplitIntoPagesAndMessagesOfFourBytes) {
    EXPECT_THAT(loaded(kEnd), ElementsAre(kEndFirst, kEndSecond));
    // Short messages carry the tail of the message before (zeros after a page select).
    EXPECT_THAT(loaded(":040000001122334452\n" + hexRecord(0, 4, {0x55, 0x66}) +
                       hexRecord(0, 0x100, {1, 2, 3}) + kEnd),
                ElementsAre(kPage0, "05 00 00 04 11 22 33 44", "05 04 00 02 55 66 33 44",
                            "05 00 01 03 01 02 03 44", kEndFirst, kEndSecond));
    EXPECT_THAT(loaded(hexRecord(0, 0x3FFE, {1, 2, 3, 4, 5, 6}) + kEnd),
                ElementsAre(kPage0, "05 FE 3F 02 01 02 00 00", "04 01 00 00 00 00 00 00",
                            "05 00 00 04 03 04 05 06", kEndFirst, kEndSecond));
}

TEST_F(HexLoaderTest, AddressRecordsMoveTheBase) {
    const std::string data = hexRecord(0, 0, {0xAA});
    // Type 4: 0x10000 is page 4. Type 2 uses its first byte only: 0x10 and 0x12 give 0x10000 and 0x12000.
    EXPECT_THAT(loaded(":020000040001F9\n" + data + kEnd),
                ElementsAre("04 04 00 00 00 00 00 00", "05 00 00 01 AA 00 00 00", kEndFirst, kEndSecond));
    EXPECT_EQ(loaded(":020000021000EC\n" + data + kEnd), loaded(":020000040001F9\n" + data + kEnd));
    EXPECT_THAT(loaded(":020000021234B6\n" + data + kEnd)[1], "05 00 20 01 AA 00 00 00");
    // Only the low 16 bits of the page go out; start-segment records are skipped.
    EXPECT_THAT(loaded(hexRecord(4, 0, {0x12, 0x34}) + hexRecord(3, 0, {0, 0, 0, 0}) + data + kEnd)[0],
                "04 D0 48 00 00 00 00 00");
}

TEST_F(HexLoaderTest, LineEndsCaseAndWhatFollowsTheEndDoNotMatter) {
    const std::vector<std::string> expected = loaded(":04000000AABBCCDDEE\n" + kEnd);
    EXPECT_EQ(loaded(":04000000aabbccddEE\r\n:00000001FF\r\n"), expected);
    EXPECT_EQ(loaded(":04000000AABBCCDDEE\n:00000001FF\nno record\n\n"), expected);
}

TEST_F(HexLoaderTest, MalformedInputIsRefused) {
    // Characters after the checksum are ignored, up to the 1024 read at once: a line of 1024 leaves its
    // line end to be read as an empty line.
    const std::string longLine = ":040000001122334452" + std::string(1023 - 19, 'x');
    EXPECT_EQ(load(longLine + "\n" + kEnd), HexLoadResult::Loaded);
    for (const std::string& content : {"040000001122334452\n" + kEnd, ":0000000\n" + kEnd,
                                       ":0400000011223352\n" + kEnd, ":040000001122334453\n" + kEnd,
                                       ":040000001122334452\n\n" + kEnd, std::string(":040000001122334452\n"),
                                       std::string(), longLine + "x\n" + kEnd, longLine + "xx\n" + kEnd}) {
        EXPECT_EQ(load(content), HexLoadResult::Malformed) << content.substr(0, 30);
    }
    EXPECT_EQ(loadHexMessages(folder_.path() + "/missing.hex", messages_, [] { return true; }),
              HexLoadResult::OpenFailed);
    int lines = 0;
    EXPECT_EQ(loadHexMessages(folder_.write("fw.hex", ":040000001122334452\n" + kEnd), messages_,
                              [&] { return ++lines < 2; }),
              HexLoadResult::Interrupted);
    EXPECT_EQ(messages_.size(), 2u);  // what was built before stays
}

}  // namespace
