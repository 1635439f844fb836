// The hex loader on its own: records to upload messages, the malformed input it refuses.
#include "HexLoader.h"

#include <gmock/gmock.h>

#include "HexRecords.h"
#include "TempDir.h"

using namespace CANFlasher;
using ::testing::ElementsAre;

namespace {

const std::string kEnd = ":00000001FF\n";
const char* const kPage0 = "04 00 00 00 00 00 00 00";  // also the first end message
const char* const kEndSecond = "06 01 00 00 00 00 00 00";

class HexLoaderTest : public ::testing::Test {
  protected:
    HexLoadResult load(
        const std::string& content, const std::function<bool()>& keepReading = [] { return true; }) {
        return loadHexMessages(folder_.write("fw.hex", content), messages_, keepReading);
    }
    std::vector<std::string> loaded(const std::string& content) {
        EXPECT_EQ(load(content), HexLoadResult::Loaded);
        std::vector<std::string> texts;
        for (std::size_t i = 0; i < messages_.size(); ++i) {
            const FlashMessage message = messages_[i];
            EXPECT_EQ(message, FlashMessage(0xC4, 8, message.data, true));
            texts.push_back(hexBytes(message.data, 8));
        }
        return texts;
    }

    TempDir folder_{"hex"};
    UploadMessages messages_;
};

TEST_F(HexLoaderTest, DataIsSplitIntoPagesAndMessagesOfFourBytes) {
    EXPECT_THAT(loaded(kEnd), ElementsAre(kPage0, kEndSecond));
    // Short messages carry the tail of the message before (zeros after a page select).
    EXPECT_THAT(loaded(":040000001122334452\n" + hexRecord(0, 4, {0x55, 0x66}) +
                       hexRecord(0, 0x100, {1, 2, 3}) + kEnd),
                ElementsAre(kPage0, "05 00 00 04 11 22 33 44", "05 04 00 02 55 66 33 44",
                            "05 00 01 03 01 02 03 44", kPage0, kEndSecond));
    EXPECT_THAT(loaded(hexRecord(0, 0x3FFE, {1, 2, 3, 4, 5, 6}) + kEnd),
                ElementsAre(kPage0, "05 FE 3F 02 01 02 00 00", "04 01 00 00 00 00 00 00",
                            "05 00 00 04 03 04 05 06", kPage0, kEndSecond));
}

TEST_F(HexLoaderTest, AddressRecordsMoveTheBase) {
    const std::string data = hexRecord(0, 0, {0xAA});
    // Type 4: 0x10000 is page 4. Type 2 uses its first byte only: 0x10 and 0x12 give 0x10000 and 0x12000.
    EXPECT_THAT(loaded(":020000040001F9\n" + data + kEnd),
                ElementsAre("04 04 00 00 00 00 00 00", "05 00 00 01 AA 00 00 00", kPage0, kEndSecond));
    EXPECT_EQ(loaded(":020000021000EC\n" + data + kEnd), loaded(":020000040001F9\n" + data + kEnd));
    EXPECT_EQ(loaded(":020000021234B6\n" + data + kEnd)[1], "05 00 20 01 AA 00 00 00");
    // Only the low 16 bits of the page go out; start-segment records are skipped.
    EXPECT_EQ(loaded(hexRecord(4, 0, {0x12, 0x34}) + hexRecord(3, 0, {0, 0, 0, 0}) + data + kEnd)[0],
              "04 D0 48 00 00 00 00 00");
    const std::vector<std::string> expected = loaded(":04000000AABBCCDDEE\n" + kEnd);
    EXPECT_EQ(loaded(":04000000aabbccddEE\r\n:00000001FF\r\n"), expected);
    EXPECT_EQ(loaded(":04000000AABBCCDDEE\n:00000001FF\nno record\n\n"), expected);
}

TEST_F(HexLoaderTest, MalformedInputIsRefusedWithItsLineAndRule) {
    const struct {
        std::string content;
        std::uint32_t line;
        HexLineRule rule;
    } cases[] = {
        {"040000001122334452\n" + kEnd, 1, HexLineRule::NoColon},
        {":040000001122334452\n\n" + kEnd, 2, HexLineRule::NoColon},
        {":0000000\n" + kEnd, 1, HexLineRule::TooShort},
        {":040000001122334452\n:0400000011223352\n" + kEnd, 2, HexLineRule::CountBeyondLine},
        {":040000001122334453\n" + kEnd, 1, HexLineRule::Checksum},
        {":040000001122334452\n", 2, HexLineRule::EndBeforeEndRecord},
        {"", 1, HexLineRule::EndBeforeEndRecord},
    };
    for (const auto& c : cases) {
        HexLoadDetail detail;
        EXPECT_EQ(loadHexMessages(folder_.write("fw.hex", c.content), messages_, {}, &detail),
                  HexLoadResult::Malformed)
            << c.content;
        EXPECT_EQ(detail.line, c.line) << c.content;
        EXPECT_EQ(detail.rule, c.rule) << c.content;
    }
    HexLoadDetail detail;
    EXPECT_EQ(loadHexMessages(folder_.write("fw.hex", ":020000040001F9\n" + kEnd), messages_, {}, &detail),
              HexLoadResult::Loaded);
    EXPECT_EQ(detail.records, 2u);
    EXPECT_EQ(loadHexMessages(folder_.path("missing.hex"), messages_, [] { return true; }),
              HexLoadResult::OpenFailed);
    int lines = 0;
    EXPECT_EQ(load(":040000001122334452\n" + kEnd, [&] { return ++lines < 2; }), HexLoadResult::Interrupted);
    EXPECT_EQ(messages_.size(), 2u);  // what was built before stays
}

}  // namespace
