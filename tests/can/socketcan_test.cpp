// The SocketCAN port and the channel layer on can0 and can1 (vcan, from scripts/vcan-vm; without them the
// tests fail, on purpose). A raw socket per interface plays the other node: vcan loops frames back to it.
#include <gtest/gtest.h>
#include <linux/can.h>
#include <linux/can/error.h>
#include <net/if.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <future>
#include <optional>
#include <thread>
#include <tuple>

#include "canchannel.h"
#include "canport.h"

namespace {

constexpr auto kDeadline = std::chrono::seconds(10);
constexpr std::int32_t kChannel = 0;

// A raw CAN socket on one interface whose reads give up after the deadline.
struct Peer {
    explicit Peer(const char* interface) {
        sockaddr_can address{};
        address.can_family = AF_CAN;
        address.can_ifindex = static_cast<int>(if_nametoindex(interface));
        const timeval timeout{static_cast<time_t>(kDeadline.count()), 0};
        EXPECT_TRUE(fd >= 0 && ::bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 &&
                    ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout) == 0)
            << "no raw CAN socket on " << interface;
    }
    ~Peer() { ::close(fd); }  // result ignored on purpose: nothing is left to flush on a raw socket
    bool send(canid_t identifier, std::uint8_t length = 0, const char* data = "\0\0\0\0\0\0\0") {
        can_frame wire{};
        wire.can_id = identifier;
        wire.len = length;
        std::memcpy(wire.data, data, length);
        return ::write(fd, &wire, sizeof wire) == static_cast<ssize_t>(sizeof wire);
    }
    can_frame receive() {  // can_id 0xFFFFFFFF when nothing came in time
        can_frame wire{};
        wire.can_id = ::read(fd, &wire, sizeof wire) == static_cast<ssize_t>(sizeof wire) ? wire.can_id : ~0U;
        return wire;
    }

    const int fd = ::socket(PF_CAN, SOCK_RAW, CAN_RAW);
};

// Runs a receive that blocks in the port on a thread of its own; the frame when it answered non-zero
// in time (a thread still blocked after the deadline is left behind: the test fails anyway).
std::optional<CanFrame> receiveWithin(std::uint32_t (*receive)(CanFrame* frame)) {
    std::packaged_task<std::optional<CanFrame>()> task([receive] {
        CanFrame frame{};
        return receive(&frame) != 0 ? std::optional(frame) : std::nullopt;
    });
    auto done = task.get_future();
    std::thread(std::move(task)).detach();
    return done.wait_for(kDeadline) == std::future_status::ready ? done.get() : std::nullopt;
}

// Port 0 opens through the channel attach, as the daemon does, and port 1 directly.
TEST(SocketCanTest, OpenPortsRefuseToOpenAgainSendWireIdentifiersAndLengthsAndReceiveOnlyDataFrames) {
    ASSERT_TRUE(canChannelsInit(10) && canChannelAttach(kChannel, canPortControl, 0, 1000) && canPortOpen(1))
        << "can0 and can1 could not be opened: run this test through scripts/vcan-vm";
    Peer peer0("can0"), peer1("can1");
    EXPECT_FALSE(canPortOpen(0));
    EXPECT_FALSE(canChannelAttach(1, canPortControl, 0, 1000)) << "attach opens, and the port is open";
    EXPECT_TRUE(canPortIsOpen(0));

    const CanFrame onOne{0x101, 0, 1, {}};
    EXPECT_EQ(canPortSendOn(&onOne, 1), 16);
    EXPECT_EQ(peer1.receive().can_id, 0x101U);
    for (const auto& [identifier, extended, wireId] :
         {std::tuple{0x18EF1234U, 1, 0x98EF1234U}, {0x18EF1234U, 0, 0x234U}}) {
        const CanFrame frame{identifier, static_cast<std::uint8_t>(extended), 12, {1, 2, 3, 4, 5, 6, 7, 8}};
        EXPECT_EQ(canPortSend(&frame, 0), 16);
        const can_frame wire = peer0.receive();
        EXPECT_EQ(std::tuple(wire.can_id, int{wire.len}), std::tuple(wireId, 8)) << "can1's frame on can0?";
        EXPECT_EQ(std::memcmp(wire.data, frame.data, 8), 0);
    }

    ASSERT_TRUE(peer0.send(0x111 | CAN_RTR_FLAG));
    ASSERT_TRUE(peer0.send(CAN_ERR_FLAG | CAN_ERR_CRTL, CAN_ERR_DLC));
    ASSERT_TRUE(peer0.send(CAN_ERR_FLAG | CAN_ERR_BUSOFF, CAN_ERR_DLC));
    ASSERT_TRUE(peer0.send(0x98EF1234, 4, "\x11\x12\x13\x14"));
    ASSERT_TRUE(peer0.send(0x234, 1, "\x09"));
    ::testing::internal::CaptureStdout();
    auto frame = receiveWithin([](CanFrame* taken) { return canPortReceive(taken, 0), 1U; });
    EXPECT_EQ(::testing::internal::GetCapturedStdout(), "\n\n") << "one empty line per error frame";
    ASSERT_TRUE(frame.has_value()) << "nothing arrived through the port";
    EXPECT_EQ(std::tuple(frame->identifier, frame->extended, frame->length), std::tuple(0x18EF1234U, 1, 4));
    EXPECT_EQ(std::memcmp(frame->data, "\x11\x12\x13\x14", 4), 0);
    frame = receiveWithin([](CanFrame* taken) { return canChannelReceive(kChannel, taken); });
    ASSERT_TRUE(frame.has_value()) << "nothing arrived through the channel";
    EXPECT_EQ(std::tuple(frame->identifier, frame->extended, frame->length), std::tuple(0x234U, 0, 1));

    const CanFrame reply{0x1CECF900, 1, 8, {}};
    EXPECT_EQ(canChannelSend(kChannel, &reply), 1U);
    EXPECT_EQ(peer0.receive().can_id, 0x9CECF900U);
}

}  // namespace
