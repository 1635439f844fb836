// The SocketCAN port without a CAN bus: frame conversion, the driver operations, index 16 and the
// failure path of opening (this runs where no can9 exists, with or without kernel CAN support).
#include "canport.h"

#include <gtest/gtest.h>

#include <tuple>

namespace {

constexpr std::int32_t kMissingInterface = 9;

std::uint32_t control(std::uint32_t operation, void* argument, std::int32_t index) {
    CanDriverRequest request{operation, argument, 0};
    return canPortControl(&request, index);
}

TEST(CanPort, WireConversionFlagsExtendedIdentifiersMasksStandardOnesAndCapsTheLength) {
    using U8 = std::uint8_t;
    for (const auto& [identifier, extended, length, wireId, wireLength] :
         {std::tuple{0x18EF1234U, U8{1}, U8{3}, 0x98EF1234U, U8{3}},
          {0x18EF1234U, U8{0}, U8{8}, 0x234U, U8{8}},
          {0xFFFFFFFFU, U8{1}, U8{12}, 0x9FFFFFFFU, U8{8}}}) {  // no RTR or error bit leaks out
        const CanFrame frame{identifier, extended, length, {1, 2, 3, 4, 5, 6, 7, 8}};
        const can_frame wire = canPortToWire(frame);
        EXPECT_EQ(std::tuple(wire.can_id, wire.len, wire.data[wireLength - 1]),
                  std::tuple(wireId, wireLength, wireLength));
        CanFrame back{0, 0, 0, {9, 9, 9, 9, 9, 9, 9, 9}};  // only `length` bytes are copied back
        canPortFromWire(wire, &back);
        EXPECT_EQ(
            std::tuple(back.identifier, back.extended, back.length, back.data[wireLength - 1], back.data[7]),
            std::tuple(wireId & CAN_EFF_MASK, extended, wireLength, wireLength, U8(wireLength == 8 ? 8 : 9)));
    }
}

TEST(CanPort, IndexSixteenOpensWithoutASocketTheQueueSizeIs500AndAFailedOpenLeavesAClosedPortThatAnswersOne) {
    EXPECT_TRUE(canPortOpen(kNoCanInterface) && canPortOpen(kNoCanInterface))
        << "no open flag is kept for 16";
    EXPECT_FALSE(canPortIsOpen(kNoCanInterface));
    CanFrame frame{0x100, 0, 1, {}};
    EXPECT_EQ(canPortSend(&frame, kNoCanInterface), 0);
    CanDriverRequest query{kCanOpQueueSize, nullptr, 0};
    EXPECT_EQ(canPortControl(&query, 0), 1U);
    EXPECT_EQ(query.value, 500);
    EXPECT_EQ(control(10, nullptr, 0), 0U);
    ASSERT_TRUE(canChannelsInit(10));
    ASSERT_TRUE(canChannelAttach(kNoCanInterface, canPortControl, kNoCanInterface, 1000));
    EXPECT_EQ(canChannelCapacity(kNoCanInterface), 500) << "no ring of 1000";

    EXPECT_FALSE(canChannelAttach(kMissingInterface, canPortControl, kMissingInterface, 1000));
    CanBitTiming timing{};
    EXPECT_EQ(control(kCanOpReconfigure, &timing, kMissingInterface), 1U) << "reopening fails quietly";
    EXPECT_FALSE(canPortIsOpen(kMissingInterface));
    EXPECT_EQ(control(kCanOpSend, &frame, kMissingInterface), 1U) << "which the channel counts as sent";
    EXPECT_EQ(canPortSend(&frame, 200), -1) << "a port outside the table cannot be written";
    EXPECT_EQ(control(kCanOpReceive, &frame, kMissingInterface), 1U);
    EXPECT_EQ(frame.identifier, 0x100U) << "the frame stays untouched";
}

}  // namespace
