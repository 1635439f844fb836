// Status wire form, name tables and how messages compare.
#include "FlashTypes.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace CANFlasher;
using ::testing::ElementsAre;

namespace {

TEST(FlashStatus, WireFormBothWaysAndNames) {
    std::uint8_t wire[FlashStatus::kWireSize] = {};
    FlashStatus{ModeNewModule, StateErrFileFormat, 66, 0x126, 0x12345678}.toWire(wire);
    EXPECT_THAT(wire, ElementsAre(2, 105, 66, 0x26, 0x78, 0x56, 0x34, 0x12));  // the address's low byte
    const FlashStatus back = FlashStatus::fromWire(wire);
    EXPECT_EQ(std::vector<int>({back.mode, back.state, back.progress, back.targetAddress}),
              std::vector<int>({2, 105, 66, 0x26}));
    EXPECT_EQ(back.targetIdentifier, 0x12345678u);

    EXPECT_STREQ(modeName(ModeMtCan), "MT CAN");
    EXPECT_STREQ(modeName(4), "unknown");
    EXPECT_STREQ(stateName(StatePreparing), "Preparing for upload");
    EXPECT_STREQ(stateName(StateErrDeviceNotFound), "Error! Device not found.");
    EXPECT_STREQ(stateName(StateErrFileFormat), "Error! The hex file is incorrectly formatted.");
    for (const int unknown : {7, 99, 106, -1}) {
        EXPECT_STREQ(stateName(unknown), "unknown") << unknown;
    }
}

TEST(FlashMessage, OnlyTheBytesWithinTheLengthCount) {
    const std::uint8_t bytes[10] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10};
    EXPECT_EQ(FlashMessage(0x1C4, 12, bytes, true).length, 8);
    const FlashMessage two(0x1C4, 2, bytes, true);
    EXPECT_THAT(two.data, ElementsAre(1, 2, 0, 0, 0, 0, 0, 0));
    FlashMessage other = two;
    other.data[5] = 0x55;
    EXPECT_EQ(other, two);
    other.data[1] = 0x55;
    EXPECT_NE(other, two);
    EXPECT_NE(FlashMessage(0x1C4, 2, bytes, false), two);
}

}  // namespace
