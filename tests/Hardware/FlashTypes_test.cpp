// Status wire form, name tables, message records and the frames of the bootloader dialogue.
#include "FlashTypes.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "FlashProtocol.h"
#include "FlasherTestSupport.h"
#include "canchannel.h"

using namespace CANFlasher;
using ::testing::ElementsAre;

namespace {

TEST(FlashStatus, WireFormBothWays) {
    std::uint8_t wire[FlashStatus::kWireSize] = {};
    FlashStatus{}.toWire(wire);
    EXPECT_THAT(wire, ElementsAre(0x00, 0x01, 0x00, 0xFE, 0xFF, 0xFF, 0xFF, 0xFF));

    FlashStatus status;
    status.mode = ModeNewModule;
    status.state = StateErrFileFormat;
    status.progress = 66;
    status.targetAddress = 0x126;  // only the low byte goes out
    status.targetIdentifier = 0x12345678;
    status.toWire(wire);
    EXPECT_THAT(wire, ElementsAre(2, 105, 66, 0x26, 0x78, 0x56, 0x34, 0x12));

    const FlashStatus back = FlashStatus::fromWire(wire);
    EXPECT_EQ(back.mode, 2);
    EXPECT_EQ(back.state, 105);
    EXPECT_EQ(back.progress, 66);
    EXPECT_EQ(back.targetAddress, 0x26);
    EXPECT_EQ(back.targetIdentifier, 0x12345678u);
}

TEST(FlashNames, ModeAndStateTables) {
    EXPECT_STREQ(modeName(ModeIsoStyle), "ISO Style");
    EXPECT_STREQ(modeName(ModeMtCan), "MT CAN");
    EXPECT_STREQ(modeName(ModeNewModule), "New Module");
    EXPECT_STREQ(modeName(ModeGlobal), "Global");
    EXPECT_STREQ(modeName(4), "unknown");
    EXPECT_STREQ(modeName(-1), "unknown");

    EXPECT_STREQ(stateName(StateLocked), "Locked");
    EXPECT_STREQ(stateName(StatePreparing), "Preparing for upload");
    EXPECT_STREQ(stateName(StateDone), "Done");
    EXPECT_STREQ(stateName(StateErrEraseTimeout), "Error! Timed out while waiting for FLASH erase.");
    EXPECT_STREQ(stateName(StateErrFileOpen), "Error! Unable to open the hex file.");
    EXPECT_STREQ(stateName(StateErrFileFormat), "Error! The hex file is incorrectly formatted.");
    for (const int unknown : {7, 50, 99, 106, -1}) {
        EXPECT_STREQ(stateName(unknown), "unknown") << unknown;
    }
}

TEST(FlashMessage, ConstructionComparisonAndFrames) {
    const std::uint8_t bytes[10] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10};
    const FlashMessage capped(0x1C4, 12, bytes, true);
    EXPECT_EQ(capped.length, 8);
    const FlashMessage shortOne(0x1C4, 2, bytes, true);
    EXPECT_THAT(shortOne.data, ElementsAre(1, 2, 0, 0, 0, 0, 0, 0));

    // Only the first `length` bytes count.
    FlashMessage other = shortOne;
    other.data[5] = 0x55;
    EXPECT_EQ(other, shortOne);
    other.data[1] = 0x55;
    EXPECT_NE(other, shortOne);
    EXPECT_NE(FlashMessage(0x1C4, 2, bytes, false), shortOne);
    EXPECT_NE(FlashMessage(0x1C4, 3, bytes, true), shortOne);

    const CanFrame frame = capped.toCanFrame();
    EXPECT_EQ(frame, extendedFrame(0x1C4, {1, 2, 3, 4, 5, 6, 7, 8}));
    CanFrame received{0x84, 0, 2, {0x20, 0x00, 0xAA, 0xAA, 0xAA, 0xAA, 0xAA, 0xAA}};
    const FlashMessage back = FlashMessage::fromCanFrame(received);
    EXPECT_FALSE(back.extended);
    EXPECT_THAT(back.data, ElementsAre(0x20, 0, 0, 0, 0, 0, 0, 0));
}

TEST(FlashProtocol, SearchRequestsPerMode) {
    EXPECT_EQ(searchRequest(ModeIsoStyle, 0x26, 0, 5).toCanFrame(),
              extendedFrame(0x18EF26C0, {0xFF, 0x50, 0x72, 0x6F, 0x67, 0x72, 0x61, 0x6D}));
    EXPECT_EQ(searchRequest(ModeMtCan, 0, 0x12345678, 5).toCanFrame(),
              extendedFrame(0x1FF00444, {0x20, 0, 0, 0x78, 0x56, 0x34, 0x12, 0}));
    EXPECT_EQ(searchRequest(ModeMtCan, 0, 0x12345678, 4).identifier, 0x1F800444u);
    EXPECT_EQ(searchRequest(ModeNewModule, 0, 0x12345678, 0).toCanFrame(),
              extendedFrame(0x1F800444, {0x20, 0, 0, 0xFF, 0xFF, 0xFF, 0x1F, 0}));
    EXPECT_EQ(searchRequest(ModeGlobal, 0x26, 0x12345678, 5).toCanFrame(), extendedFrame(0, {}));
    EXPECT_EQ(searchRequest(200, 0x26, 0x12345678, 5).toCanFrame(), extendedFrame(0, {}));
}

TEST(FlashProtocol, RepliesExpectedForUploadMessages) {
    const std::uint8_t page[8] = {0x04, 0x05, 0x01, 0, 0, 0, 0, 0};
    EXPECT_EQ(expectedReplyFor(FlashMessage(0xC4, 8, page, true)).toCanFrame(),
              extendedFrame(0x1C4, {0x04, 0x05, 0x00}));
    const std::uint8_t data[8] = {0x05, 0x10, 0x02, 0x04, 1, 2, 3, 4};
    EXPECT_EQ(expectedReplyFor(FlashMessage(0xC4, 8, data, true)).toCanFrame(),
              extendedFrame(0x1C4, {0x05, 0x00}));
    const std::uint8_t end[8] = {0x06, 0x01, 0, 0, 0, 0, 0, 0};
    EXPECT_EQ(expectedReplyFor(FlashMessage(0xC4, 8, end, true)).toCanFrame(),
              extendedFrame(0x1C4, {0x06, 0x00}));
    EXPECT_EQ(eraseReply().toCanFrame(), extendedFrame(0x1C4, {0x03, 0xFE, 0x00, 0x00}));
    EXPECT_EQ(finishFrame().toCanFrame(), extendedFrame(0x1F800434, {0x00}));
}

}  // namespace
