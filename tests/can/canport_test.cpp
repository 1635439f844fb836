// The SocketCAN port without a CAN bus: frame conversion, the driver operations, index 16 and the
// failure path of opening (this test runs where no can9 exists, with or without kernel CAN support).
#include <gtest/gtest.h>

#include <cstring>

#include "canchannel.h"
#include "canport.h"

namespace {

constexpr std::int32_t kMissingInterface = 9;

CanFrame frameOf(std::uint32_t identifier, bool extended, std::uint8_t length) {
    CanFrame frame{};
    frame.identifier = identifier;
    frame.extended = extended ? 1 : 0;
    frame.length = length;
    for (std::uint8_t i = 0; i < 8; ++i) {
        frame.data[i] = static_cast<std::uint8_t>(0xA0 + i);
    }
    return frame;
}

std::uint32_t control(std::uint32_t operation, void* argument, std::int32_t index,
                      std::uint16_t* value = nullptr) {
    CanDriverRequest request{operation, argument, 0xFFFF};
    const std::uint32_t result = canPortControl(&request, index);
    if (value != nullptr) {
        *value = request.value;
    }
    return result;
}

TEST(CanWireTest, IdentifiersAreMaskedAndFlaggedOnTheWayOut) {
    EXPECT_EQ(canPortToWire(frameOf(0x18EF1234, true, 8)).can_id, 0x98EF1234U);
    EXPECT_EQ(canPortToWire(frameOf(0x18EF1234, false, 8)).can_id, 0x234U);
    EXPECT_EQ(canPortToWire(frameOf(0xFFFFFFFF, true, 8)).can_id, 0x9FFFFFFFU) << "no RTR or error bit leaks";
}

TEST(CanWireTest, LengthIsCappedAtEightBothWays) {
    const can_frame wire = canPortToWire(frameOf(0x100, false, 12));
    EXPECT_EQ(wire.len, 8);
    EXPECT_EQ(std::memcmp(wire.data, frameOf(0, false, 0).data, 8), 0);

    can_frame incoming{};
    incoming.can_id = 0x98EF1234;
    incoming.len = 12;
    CanFrame frame{};
    canPortFromWire(incoming, &frame);
    EXPECT_EQ(frame.identifier, 0x18EF1234U);
    EXPECT_EQ(frame.extended, 1);
    EXPECT_EQ(frame.length, 8);
}

TEST(CanWireTest, ReceptionCopiesOnlyTheDataLength) {
    can_frame incoming{};
    incoming.can_id = 0x0FFF0123;  // bits above the standard 11 are dropped
    incoming.len = 2;
    incoming.data[0] = 0x11;
    incoming.data[1] = 0x22;
    incoming.data[2] = 0x33;
    CanFrame frame = frameOf(0, true, 0);
    canPortFromWire(incoming, &frame);
    EXPECT_EQ(frame.identifier, 0x123U);
    EXPECT_EQ(frame.extended, 0);
    EXPECT_EQ(frame.data[1], 0x22);
    EXPECT_EQ(frame.data[2], 0xA2) << "bytes beyond the length keep their contents";
}

TEST(CanWireTest, RemoteAndErrorRecordsAreNotData) {
    can_frame wire{};
    wire.can_id = 0x123;
    EXPECT_EQ(canPortWireKind(wire), CanWireKind::Data);
    wire.can_id = 0x123 | CAN_RTR_FLAG;
    EXPECT_EQ(canPortWireKind(wire), CanWireKind::Remote);
    wire.can_id = CAN_ERR_FLAG | 0x4;
    EXPECT_EQ(canPortWireKind(wire), CanWireKind::Error);
}

TEST(CanPortTest, IndexSixteenOpensWithoutASocketAndSendsNothing) {
    EXPECT_TRUE(canPortOpen(kNoCanInterface));
    EXPECT_TRUE(canPortOpen(kNoCanInterface)) << "no open flag is kept for 16";
    EXPECT_FALSE(canPortIsOpen(kNoCanInterface));
    const CanFrame frame = frameOf(0x100, false, 1);
    EXPECT_EQ(canPortSend(&frame, kNoCanInterface), 0);
    EXPECT_EQ(canPortSendOn(&frame, kNoCanInterface), 0);
}

TEST(CanPortTest, QueryOperationsAnswerInTheValueField) {
    std::uint16_t value = 0;
    EXPECT_EQ(control(kCanOpQueueSize, nullptr, 0, &value), 1U);
    EXPECT_EQ(value, kCanPortQueueSize);
    EXPECT_EQ(control(kCanOpPending, nullptr, 0, &value), 1U);
    EXPECT_EQ(value, 0);
    value = 7;
    EXPECT_EQ(control(kCanOpQuery8, nullptr, 0, &value), 1U);
    EXPECT_EQ(value, 0);
    EXPECT_EQ(control(kCanOpStart, nullptr, 0), 1U);
    EXPECT_EQ(control(10, nullptr, 0), 0U);
    EXPECT_EQ(canPortControl(nullptr, 0), 0U);

    std::uint32_t status = 0xFFFFFFFF;
    EXPECT_EQ(control(kCanOpGetStatus, &status, 0), 1U);
    EXPECT_EQ(status, 0U);

    CanPollFunction poll = nullptr;
    ASSERT_EQ(control(kCanOpGetPoll, &poll, 0), 1U);
    ASSERT_NE(poll, nullptr);
    CanFrame slot{};
    std::uint32_t noMore = 0;
    EXPECT_EQ(poll(&slot, 0, &noMore), 0U) << "the socket is the queue: nothing to hand over by polling";
    EXPECT_NE(noMore, 0U);
}

TEST(CanPortTest, FailedOpenLeavesThePortClosed) {
    EXPECT_FALSE(canPortOpen(kMissingInterface));
    EXPECT_FALSE(canPortIsOpen(kMissingInterface));
    EXPECT_EQ(control(kCanOpOpen, nullptr, kMissingInterface), 0U);
    CanBitTiming timing{};
    EXPECT_EQ(control(kCanOpReconfigure, &timing, kMissingInterface), 1U) << "reopening fails quietly";
    EXPECT_FALSE(canPortIsOpen(kMissingInterface));

    ASSERT_TRUE(canChannelsInit(10));
    EXPECT_FALSE(canChannelAttach(kMissingInterface, canPortControl, kMissingInterface, 1000));
}

TEST(CanPortTest, ClosedPortSendsAndReceivesNothingButAnswersOne) {
    canPortSetParameter(8000, kMissingInterface);
    CanFrame frame = frameOf(0x100, false, 1);
    EXPECT_EQ(control(kCanOpSend, &frame, kMissingInterface), 1U);
    EXPECT_EQ(canPortSendOn(&frame, kMissingInterface), 0);
    EXPECT_EQ(canPortSendPort0(&frame), 0);
    EXPECT_EQ(canPortSend(&frame, 200), -1) << "a port outside the table cannot be written";
    EXPECT_EQ(control(kCanOpReceive, &frame, kMissingInterface), 1U);
    EXPECT_EQ(frame.identifier, 0x100U) << "the frame stays untouched";
}

TEST(CanPortTest, NoInterfaceChannelGetsTheDriverQueueAndNoRing) {
    ASSERT_TRUE(canChannelsInit(10));
    ASSERT_TRUE(canChannelAttach(kNoCanInterface, canPortControl, kNoCanInterface, 1000));
    EXPECT_EQ(canChannelCapacity(kNoCanInterface), kCanPortQueueSize);
    EXPECT_EQ(canChannelPending(kNoCanInterface), 0U);
    void (*pollEntry)(std::int32_t) = nullptr;
    EXPECT_TRUE(canChannelGetPoll(kNoCanInterface, &pollEntry));

    std::uint32_t sentBefore = 0;
    canChannelCounters(nullptr, &sentBefore);
    const CanFrame frame = frameOf(0x100, false, 1);
    EXPECT_EQ(canChannelSend(kNoCanInterface, &frame), 1U);
    std::uint32_t sentAfter = 0;
    canChannelCounters(nullptr, &sentAfter);
    EXPECT_EQ(sentAfter, sentBefore + 1) << "the port's answer 1 counts the frame as sent";
}

}  // namespace
