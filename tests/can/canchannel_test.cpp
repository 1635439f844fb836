// The channel table against a scripted driver (attach, rings, counters, monitor) and against the
// in-process virtual bus (delivery between channels, blocking receive, release on shut-down).
#include <gtest/gtest.h>

#include <chrono>
#include <deque>
#include <future>
#include <map>
#include <tuple>
#include <vector>

#include "VirtualCanBus.h"
#include "canchannel.h"

namespace {

constexpr auto kDeadline = std::chrono::seconds(10);

CanFrame makeFrame(std::uint32_t identifier, std::uint8_t firstByte) {
    CanFrame frame{};
    frame.identifier = identifier;
    frame.extended = 1;
    frame.length = 1;
    frame.data[0] = firstByte;
    return frame;
}

// A driver whose answers the test scripts and whose calls it records.
struct FakeDriver {
    std::vector<std::uint32_t> operations;
    std::map<std::uint32_t, std::uint32_t> answers;  // per operation; 1 when not listed
    std::uint16_t queueSize = 0;                     // written for operation 6
    std::uint16_t waiting = 0;                       // written for operation 7
    std::uint32_t status = 0;                        // stored for operation 5
    std::deque<CanFrame> pollable;
    std::int32_t lastArgument = -1;

    static inline FakeDriver* current = nullptr;

    static std::uint32_t control(CanDriverRequest* request, std::int32_t argument) {
        FakeDriver& self = *current;
        self.operations.push_back(request->operation);
        self.lastArgument = argument;
        switch (request->operation) {
            case kCanOpGetPoll:
                *static_cast<CanPollFunction*>(request->argument) = poll;
                break;
            case kCanOpGetStatus:
                *static_cast<std::uint32_t*>(request->argument) = self.status;
                break;
            case kCanOpQueueSize:
                request->value = self.queueSize;
                break;
            case kCanOpPending:
                request->value = self.waiting;
                break;
            default:
                break;
        }
        const auto answer = self.answers.find(request->operation);
        return answer == self.answers.end() ? 1 : answer->second;
    }

    static std::uint32_t poll(CanFrame* slot, std::int32_t /*argument*/, std::uint32_t* noMore) {
        FakeDriver& self = *current;
        std::uint32_t stored = 0;
        if (slot != nullptr && !self.pollable.empty()) {
            *slot = self.pollable.front();
            self.pollable.pop_front();
            stored = 1;
        }
        *noMore = self.pollable.empty() ? 1 : 0;
        return stored;
    }
};

using MonitorRecord =
    std::tuple<std::uint32_t, std::uint32_t, std::uint32_t>;  // identifier, direction, counter
std::vector<MonitorRecord> monitored;
void recordMonitor(const CanFrame& frame, std::uint32_t direction, std::uint32_t counter) {
    monitored.emplace_back(frame.identifier, direction, counter);
}

class CanChannelTest : public ::testing::Test {
  protected:
    void SetUp() override {
        FakeDriver::current = &fake;
        monitored.clear();
        ASSERT_TRUE(canChannelsInit(10));
    }
    void TearDown() override { canChannelSetMonitor(nullptr); }

    // Attaches channel 3 with a ring of `ringSize` frames and polls the scripted frames into it.
    void attachRingAndPoll(std::uint32_t ringSize, std::vector<CanFrame> frames) {
        ASSERT_TRUE(canChannelAttach(3, FakeDriver::control, 7, ringSize));
        fake.pollable.assign(frames.begin(), frames.end());
        void (*pollEntry)(std::int32_t) = nullptr;
        ASSERT_TRUE(canChannelGetPoll(3, &pollEntry));
        pollEntry(3);
    }

    FakeDriver fake;
};

TEST_F(CanChannelTest, ChannelSixteenIsValidBesideATableOfTen) {
    EXPECT_EQ(canChannelCount(), 10);
    EXPECT_TRUE(canChannelAttach(kNoCanInterface, FakeDriver::control, 0, 4));
    EXPECT_TRUE(canChannelAttach(9, FakeDriver::control, 0, 4));
    EXPECT_FALSE(canChannelAttach(10, FakeDriver::control, 0, 4));
    EXPECT_FALSE(canChannelAttach(-1, FakeDriver::control, 0, 4));

    void (*pollEntry)(std::int32_t) = nullptr;
    EXPECT_TRUE(canChannelGetPoll(kNoCanInterface, &pollEntry));
    EXPECT_FALSE(canChannelGetPoll(kNoCanInterface, nullptr));
    EXPECT_FALSE(canChannelGetPoll(2, &pollEntry)) << "unbound channel";
    const CanFrame frame = makeFrame(0x100, 1);
    EXPECT_EQ(canChannelSend(kNoCanInterface, &frame), 1U);
    EXPECT_FALSE(canChannelsInit(0));
}

TEST_F(CanChannelTest, AttachAsksOpenPollAndQueueSizeAndMakesARingOnlyWithoutADriverQueue) {
    ASSERT_TRUE(canChannelAttach(3, FakeDriver::control, 7, 1000));
    EXPECT_EQ(fake.operations, (std::vector<std::uint32_t>{kCanOpOpen, kCanOpGetPoll, kCanOpQueueSize}));
    EXPECT_EQ(fake.lastArgument, 7);
    EXPECT_EQ(canChannelCapacity(3), 1000);

    fake.queueSize = 500;
    fake.waiting = 12;
    ASSERT_TRUE(canChannelAttach(4, FakeDriver::control, 8, 1000));
    EXPECT_EQ(canChannelCapacity(4), 500) << "a driver queue replaces the requested ring";
    fake.operations.clear();
    EXPECT_EQ(canChannelPending(4), 12U);
    EXPECT_EQ(fake.operations, std::vector<std::uint32_t>{kCanOpPending});
}

TEST_F(CanChannelTest, RefusedAttachLeavesTheChannelUnbound) {
    ASSERT_TRUE(canChannelAttach(3, FakeDriver::control, 7, 4));
    fake.answers[kCanOpGetPoll] = 0;
    EXPECT_FALSE(canChannelAttach(3, FakeDriver::control, 7, 4));
    fake.answers.clear();
    fake.answers[kCanOpOpen] = 0;
    EXPECT_FALSE(canChannelAttach(4, FakeDriver::control, 7, 4));

    fake.operations.clear();
    const CanFrame frame = makeFrame(0x100, 1);
    std::uint32_t status = 0;
    EXPECT_EQ(canChannelSend(3, &frame), 0U);
    EXPECT_EQ(canChannelGetStatus(4, &status), 0U);
    EXPECT_EQ(canChannelStart(3), 0U);
    EXPECT_TRUE(fake.operations.empty());
}

TEST_F(CanChannelTest, EmptyRingReturnsAtOnceAndLeavesTheFrameAlone) {
    ASSERT_TRUE(canChannelAttach(3, FakeDriver::control, 7, 4));
    fake.operations.clear();
    CanFrame frame = makeFrame(0xABC, 0x5A);
    EXPECT_EQ(canChannelReceive(3, &frame), 0U);
    EXPECT_EQ(frame.identifier, 0xABCU);
    EXPECT_EQ(frame.data[0], 0x5A);
    EXPECT_TRUE(fake.operations.empty()) << "a ring channel never asks the driver to receive";
}

TEST_F(CanChannelTest, FullRingOverwritesTheOldestAndRecordsTheOverflow) {
    attachRingAndPoll(2, {makeFrame(0xA, 1), makeFrame(0xB, 2), makeFrame(0xC, 3)});
    EXPECT_EQ(canChannelPending(3), 2U);
    fake.status = 0x5;
    std::uint32_t status = 0;
    EXPECT_EQ(canChannelGetStatus(3, &status), 1U);
    EXPECT_EQ(status, kCanRingOverflow | 0x5);

    CanFrame frame{};
    ASSERT_EQ(canChannelReceive(3, &frame), 1U);
    EXPECT_EQ(frame.identifier, 0xCU) << "the third frame took the oldest frame's slot";
    ASSERT_EQ(canChannelReceive(3, &frame), 1U);
    EXPECT_EQ(frame.identifier, 0xBU);
    EXPECT_EQ(canChannelReceive(3, &frame), 0U);

    EXPECT_EQ(canChannelReset(3), 1U);
    fake.status = 0;
    EXPECT_EQ(canChannelGetStatus(3, &status), 1U);
    EXPECT_EQ(status, 0U) << "reset clears the overflow flag";
}

TEST_F(CanChannelTest, RingKeepsOrderAcrossTheWrap) {
    attachRingAndPoll(3, {makeFrame(1, 0), makeFrame(2, 0)});
    CanFrame frame{};
    ASSERT_EQ(canChannelReceive(3, &frame), 1U);
    fake.pollable = {makeFrame(3, 0), makeFrame(4, 0)};
    canChannelPoll(3);
    std::vector<std::uint32_t> order;
    while (canChannelReceive(3, &frame) != 0) {
        order.push_back(frame.identifier);
    }
    EXPECT_EQ(order, (std::vector<std::uint32_t>{2, 3, 4}));
    std::uint32_t status = 0;
    canChannelGetStatus(3, &status);
    EXPECT_EQ(status & kCanRingOverflow, 0U);
}

TEST_F(CanChannelTest, CountersAndMonitorFollowDeliveredAndAcceptedFrames) {
    canChannelSetMonitor(recordMonitor);
    std::uint32_t received = 0;
    std::uint32_t sent = 0;
    const std::uint32_t total = canChannelCounters(&received, &sent);
    EXPECT_EQ(total, received + sent);

    attachRingAndPoll(4, {makeFrame(0x11, 0)});
    const CanFrame frame = makeFrame(0x22, 0);
    EXPECT_EQ(canChannelSend(3, &frame), 1U);
    fake.answers[kCanOpSend] = 0;
    EXPECT_EQ(canChannelSend(3, &frame), 0U);
    CanFrame taken{};
    EXPECT_EQ(canChannelReceive(3, &taken), 1U);

    std::uint32_t receivedAfter = 0;
    std::uint32_t sentAfter = 0;
    canChannelCounters(&receivedAfter, &sentAfter);
    EXPECT_EQ(receivedAfter, received + 1);
    EXPECT_EQ(sentAfter, sent + 1) << "a refused send is not counted";
    EXPECT_EQ(monitored, (std::vector<MonitorRecord>{{0x22, kCanMonitorSent, sentAfter},
                                                     {0x11, kCanMonitorReceived, receivedAfter}}));
}

class VirtualBusChannelTest : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_TRUE(canChannelsInit(10));
        for (std::int32_t channel = 0; channel < 3; ++channel) {
            endpoint[channel] = bus.addEndpoint();
            ASSERT_TRUE(canChannelAttach(channel, VirtualCanBus::driver, endpoint[channel], 16));
        }
    }

    VirtualCanBus bus;
    std::int32_t endpoint[3] = {};
};

TEST_F(VirtualBusChannelTest, ASentFrameReachesEveryOtherChannelButNotTheSender) {
    const CanFrame frame = makeFrame(0x18EF1234, 0x77);
    ASSERT_EQ(canChannelSend(0, &frame), 1U);
    for (std::int32_t channel : {1, 2}) {
        CanFrame taken{};
        ASSERT_EQ(canChannelReceive(channel, &taken), 1U);
        EXPECT_EQ(taken.identifier, 0x18EF1234U);
        EXPECT_EQ(taken.data[0], 0x77);
    }
    EXPECT_EQ(canChannelPending(0), 0U);
    CanFrame tapped{};
    ASSERT_TRUE(bus.waitForSent(&tapped, kDeadline));
    EXPECT_EQ(tapped.identifier, 0x18EF1234U);
    EXPECT_EQ(bus.sentCount(), 1U);
}

TEST_F(VirtualBusChannelTest, BlockedReceiverTakesTheNextFrame) {
    auto receiver = std::async(std::launch::async, [] {
        CanFrame taken{};
        return canChannelReceive(1, &taken) != 0 ? taken.identifier : 0U;
    });
    ASSERT_TRUE(bus.waitUntilReceiving(endpoint[1], kDeadline));
    bus.injectTo(endpoint[1], makeFrame(0x321, 0));
    ASSERT_EQ(receiver.wait_for(kDeadline), std::future_status::ready);
    EXPECT_EQ(receiver.get(), 0x321U);
}

TEST_F(VirtualBusChannelTest, ShuttingTheBusDownReleasesABlockedReceiver) {
    auto receiver = std::async(std::launch::async, [] {
        CanFrame taken{};
        return canChannelReceive(2, &taken);
    });
    ASSERT_TRUE(bus.waitUntilReceiving(endpoint[2], kDeadline));
    bus.shutdown();
    ASSERT_EQ(receiver.wait_for(kDeadline), std::future_status::ready);
    EXPECT_EQ(receiver.get(), 0U);
    const CanFrame frame = makeFrame(1, 0);
    EXPECT_EQ(canChannelSend(0, &frame), 0U);
}

TEST(VirtualBusTest, DestroyedBusReleasesItsReceiverAndGivesItsEndpointsBack) {
    ASSERT_TRUE(canChannelsInit(10));
    std::int32_t stale = -1;
    std::future<std::uint32_t> receiver;
    {
        VirtualCanBus bus;
        stale = bus.addEndpoint(VirtualCanBus::Reception::ChannelRing);
        ASSERT_TRUE(canChannelAttach(5, VirtualCanBus::driver, stale, 8));
        EXPECT_EQ(canChannelCapacity(5), 8) << "ring mode lets the channel make its ring";
        bus.inject(makeFrame(0x1, 0));
        bus.inject(makeFrame(0x2, 0));
        canChannelPoll(5);
        EXPECT_EQ(canChannelPending(5), 2U);

        const std::int32_t blocking = bus.addEndpoint();
        ASSERT_TRUE(canChannelAttach(6, VirtualCanBus::driver, blocking, 8));
        receiver = std::async(std::launch::async, [] {
            CanFrame taken{};
            return canChannelReceive(6, &taken);
        });
        ASSERT_TRUE(bus.waitUntilReceiving(blocking, kDeadline));
    }
    ASSERT_EQ(receiver.wait_for(kDeadline), std::future_status::ready);
    EXPECT_EQ(receiver.get(), 0U);
    EXPECT_FALSE(canChannelAttach(7, VirtualCanBus::driver, stale, 8)) << "endpoint outlived its bus";
    VirtualCanBus next;
    EXPECT_EQ(next.addEndpoint(), stale) << "the slot is free for the next bus";
}

}  // namespace
