// The channel table over the in-process virtual bus: channel numbers, rings (overflow, wrap, reset),
// counters and delivery between channels; and the SocketCAN port without a CAN bus: frame conversion,
// the driver operations, index 16 and the failure path of opening (this runs where no can9 exists,
// with or without kernel CAN support).
#include <gtest/gtest.h>

#include <tuple>
#include <vector>

#include "VirtualCanBus.h"
#include "canchannel.h"
#include "canport.h"

namespace {

using Ids = std::vector<std::uint32_t>;

class CanChannel : public ::testing::Test {
  protected:
    void SetUp() override { ASSERT_TRUE(canChannelsInit(10)); }
    // Attaches a ring channel, delivers the frames to its endpoint and polls them into the ring.
    void pollIn(std::int32_t channel, const Ids& identifiers, std::uint32_t ringSize = 0) {
        if (ringSize != 0) {
            endpoint_ = bus.addEndpoint(VirtualCanBus::Reception::ChannelRing);
            ASSERT_TRUE(canChannelAttach(channel, VirtualCanBus::driver, endpoint_, ringSize));
        }
        for (const std::uint32_t identifier : identifiers) {
            bus.injectTo(endpoint_, CanFrame{identifier, 1, 1, {}});
        }
        canChannelPoll(channel);
    }
    // Identifiers taken from a ring channel until it is empty.
    static Ids drain(std::int32_t channel) {
        Ids taken;
        for (CanFrame frame{}; canChannelReceive(channel, &frame) != 0;) {
            taken.push_back(frame.identifier);
        }
        return taken;
    }

    VirtualCanBus bus;
    std::int32_t endpoint_ = -1;
};

TEST_F(CanChannel, SixteenIsValidBesideATableOfTenAndARefusedAttachLeavesTheChannelUnbound) {
    for (const auto& [channel, valid] :
         {std::pair{kNoCanInterface, true}, {9, true}, {10, false}, {-1, false}}) {
        EXPECT_EQ(canChannelAttach(channel, VirtualCanBus::driver, bus.addEndpoint(), 4), valid) << channel;
    }
    const CanFrame frame{0x100, 1, 1, {}};
    EXPECT_EQ(canChannelSend(kNoCanInterface, &frame), 1U);
    EXPECT_FALSE(canChannelAttach(9, VirtualCanBus::driver, 5, 4)) << "no such endpoint: open refused";
    EXPECT_EQ(canChannelSend(9, &frame), 0U);
    EXPECT_FALSE(canChannelsInit(0));
}

TEST_F(CanChannel, RingReturnsAtOnceWhenEmptyOverwritesTheOldestWhenFullAndKeepsOrderAcrossTheWrap) {
    pollIn(3, {}, 2);
    EXPECT_EQ(canChannelCapacity(3), 2);
    CanFrame untouched{0xABC, 1, 1, {0x5A}};
    EXPECT_EQ(canChannelReceive(3, &untouched), 0U);
    EXPECT_EQ(untouched.identifier, 0xABCU);
    pollIn(3, {0xA, 0xB, 0xC});
    EXPECT_EQ(canChannelPending(3), 2U);
    std::uint32_t flags = 0;
    EXPECT_TRUE(canChannelGetStatus(3, &flags) == 1U && flags == kCanRingOverflow) << flags;
    EXPECT_EQ(drain(3), (Ids{0xC, 0xB})) << "the third frame took the oldest frame's slot";
    EXPECT_EQ(canChannelReset(3), 1U);
    EXPECT_TRUE(canChannelGetStatus(3, &flags) == 1U && flags == 0U) << "reset clears the overflow flag";

    pollIn(4, {1, 2}, 3);
    EXPECT_EQ(drain(4).size(), 2U);
    pollIn(4, {3, 4});
    EXPECT_EQ(drain(4), (Ids{3, 4}));
}

TEST_F(CanChannel, DriverQueueChannelsPassFramesThroughAndCountOnlyWhatMoved) {
    for (std::int32_t channel : {0, 1}) {
        ASSERT_TRUE(canChannelAttach(channel, VirtualCanBus::driver, bus.addEndpoint(), 16));
    }
    EXPECT_EQ(canChannelCapacity(0), VirtualCanBus::kReportedQueueSize) << "a driver queue: no ring of 16";
    std::uint32_t received = 0, sent = 0, receivedAfter = 0, sentAfter = 0;
    canChannelCounters(&received, &sent);
    const CanFrame frame{0x18EF1234, 1, 1, {0x77}};
    ASSERT_EQ(canChannelSend(0, &frame), 1U);
    CanFrame taken{};
    ASSERT_EQ(canChannelReceive(1, &taken), 1U);
    EXPECT_EQ(std::pair(taken.identifier, taken.data[0]), std::pair(0x18EF1234U, std::uint8_t{0x77}));
    bus.shutdown();
    EXPECT_EQ(canChannelSend(0, &frame), 0U);
    canChannelCounters(&receivedAfter, &sentAfter);
    EXPECT_EQ(std::pair(receivedAfter - received, sentAfter - sent), std::pair(1U, 1U)) << "a refused send";
}

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
