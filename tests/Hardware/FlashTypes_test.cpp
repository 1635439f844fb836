// Status wire form and the name lookups at their edges.
#include "FlasherTestSupport.h"

using namespace CANFlasher;

namespace {

TEST(FlashTypes, WireFormBothWaysAndNames) {
    std::uint8_t wire[FlashStatus::kWireSize] = {};
    FlashStatus{ModeNewModule, StateErrFileFormat, 66, 0x126, 0x12345678}.toWire(wire);
    EXPECT_EQ(hexBytes(wire, sizeof wire), "02 69 42 26 78 56 34 12");  // the address's low byte
    const FlashStatus back = FlashStatus::fromWire(wire);
    EXPECT_EQ(std::vector<std::int64_t>(
                  {back.mode, back.state, back.progress, back.targetAddress, back.targetIdentifier}),
              std::vector<std::int64_t>({2, 105, 66, 0x26, 0x12345678}));
    EXPECT_STREQ(modeName(ModeGlobal), "Global");
    EXPECT_STREQ(stateName(StateErrFileFormat), "Error! The hex file is incorrectly formatted.");
    for (const int unknown : {-1, 4, 7, 99, 106}) {
        EXPECT_STREQ(stateName(unknown), unknown == 4 ? "Erasing FLASH" : "unknown") << unknown;
        EXPECT_STREQ(modeName(unknown), "unknown") << unknown;
    }
}

}  // namespace
