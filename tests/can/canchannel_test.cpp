// The channel table over the in-process virtual bus: channel numbers, rings (overflow, wrap, reset),
// counters and delivery between channels.
#include "canchannel.h"

#include <gtest/gtest.h>

#include <vector>

#include "VirtualCanBus.h"

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

}  // namespace
