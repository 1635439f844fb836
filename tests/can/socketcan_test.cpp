// The SocketCAN port and the channel layer on a real kernel CAN stack: can0 and can1 must be up as
// vcan interfaces (scripts/vcan-vm provides them). Without them every test fails, on purpose: the
// harness guarantees them, so their absence is a fault, not a reason to skip.
//
// Port 0 is opened the daemon's way, through the channel attach; port 1 directly. A second raw socket
// per interface (the peer) plays the other node; with vcan the kernel loops every frame back to the
// other sockets of the interface.
#include <gtest/gtest.h>
#include <linux/can.h>
#include <linux/can/error.h>
#include <linux/can/raw.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <future>
#include <memory>
#include <optional>
#include <string>
#include <thread>

#include "canchannel.h"
#include "canport.h"

namespace {

constexpr auto kDeadline = std::chrono::seconds(10);
constexpr std::int32_t kChannel = 0;

// A raw CAN socket on one interface, reading with a deadline.
class PeerSocket {
  public:
    explicit PeerSocket(const char* interface) : descriptor_(::socket(PF_CAN, SOCK_RAW, CAN_RAW)) {
        ready_ = descriptor_ >= 0 && bindTo(interface);
    }
    ~PeerSocket() {
        if (descriptor_ >= 0) {
            ::close(descriptor_);
        }
    }
    PeerSocket(const PeerSocket&) = delete;
    PeerSocket& operator=(const PeerSocket&) = delete;

    bool ready() const { return ready_; }
    // Writes one record; `data` (null for zeros) holds `length` bytes.
    bool send(canid_t identifier, std::uint8_t length = 0, const char* data = nullptr) {
        can_frame wire{};
        wire.can_id = identifier;
        wire.len = length;
        if (data != nullptr) {
            std::memcpy(wire.data, data, length);
        }
        return ::write(descriptor_, &wire, sizeof wire) == static_cast<ssize_t>(sizeof wire);
    }
    // The next frame, or nothing when none came before the deadline.
    std::optional<can_frame> receive() {
        can_frame wire{};
        if (::read(descriptor_, &wire, sizeof wire) != static_cast<ssize_t>(sizeof wire)) {
            return std::nullopt;
        }
        return wire;
    }

  private:
    bool bindTo(const char* interface) {
        ifreq request{};
        std::strncpy(request.ifr_name, interface, IFNAMSIZ - 1);
        if (::ioctl(descriptor_, SIOCGIFINDEX, &request) != 0) {
            return false;
        }
        sockaddr_can address{};
        address.can_family = AF_CAN;
        address.can_ifindex = request.ifr_ifindex;
        const timeval timeout{static_cast<time_t>(kDeadline.count()), 0};
        return ::bind(descriptor_, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 &&
               ::setsockopt(descriptor_, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout) == 0;
    }

    int descriptor_;
    bool ready_ = false;
};

// Runs a receive that blocks in the port on its own thread; the frame when the receive answered
// non-zero in time, nothing otherwise (a late thread is left blocked in the port: the test fails anyway).
std::optional<CanFrame> receiveWithin(std::uint32_t (*receive)(CanFrame* frame)) {
    auto frame = std::make_shared<CanFrame>();
    std::packaged_task<std::uint32_t()> task([frame, receive] { return receive(frame.get()); });
    auto done = task.get_future();
    std::thread(std::move(task)).detach();
    if (done.wait_for(kDeadline) != std::future_status::ready || done.get() == 0) {
        return std::nullopt;
    }
    return *frame;
}

std::uint32_t receiveOnPort0(CanFrame* frame) {
    canPortReceive(frame, 0);
    return 1;
}

std::uint32_t receiveOnChannel(CanFrame* frame) {
    return canChannelReceive(kChannel, frame);
}

CanFrame frameOf(std::uint32_t identifier, bool extended, std::uint8_t length) {
    CanFrame frame{};
    frame.identifier = identifier;
    frame.extended = extended ? 1 : 0;
    frame.length = length;
    std::memcpy(frame.data, "\x10\x20\x30\x40\x50\x60\x70\x80", 8);
    return frame;
}

class SocketCanTest : public ::testing::Test {
  protected:
    static void SetUpTestSuite() {
        portsOpen =
            canChannelsInit(10) && canChannelAttach(kChannel, canPortControl, 0, 1000) && canPortOpen(1);
    }
    void SetUp() override {
        ASSERT_TRUE(portsOpen) << "can0 and can1 could not be opened: this test needs them up as vcan "
                                  "interfaces; run it through scripts/vcan-vm";
        ASSERT_TRUE(peer0.ready() && peer1.ready()) << "no raw CAN socket on can0/can1";
    }

    static inline bool portsOpen = false;
    PeerSocket peer0{"can0"};
    PeerSocket peer1{"can1"};
};

TEST_F(SocketCanTest, AttachUsesTheSocketQueueAndAnOpenPortRefusesToOpenAgain) {
    EXPECT_EQ(canChannelCapacity(kChannel), kCanPortQueueSize) << "the requested ring of 1000 is not made";
    EXPECT_TRUE(canPortIsOpen(0));
    EXPECT_FALSE(canPortOpen(0));
    EXPECT_FALSE(canChannelAttach(1, canPortControl, 0, 1000)) << "attach opens, and the port is open";
    EXPECT_TRUE(canPortIsOpen(0));
}

TEST_F(SocketCanTest, SentFramesCarryTheWireIdentifierAndLength) {
    const CanFrame extended = frameOf(0x18EF1234, true, 3);
    const CanFrame standard = frameOf(0x18EF1234, false, 8);
    const CanFrame tooLong = frameOf(0x123, false, 12);
    EXPECT_EQ(canPortSend(&extended, 0), 16);
    EXPECT_EQ(canPortSend(&standard, 0), 16);
    EXPECT_EQ(canPortSendPort0(&tooLong), 16);

    auto wire = peer0.receive();
    ASSERT_TRUE(wire.has_value());
    EXPECT_EQ(wire->can_id, 0x98EF1234U);
    EXPECT_EQ(wire->len, 3);
    EXPECT_EQ(std::memcmp(wire->data, extended.data, 3), 0);
    wire = peer0.receive();
    ASSERT_TRUE(wire.has_value());
    EXPECT_EQ(wire->can_id, 0x234U);
    wire = peer0.receive();
    ASSERT_TRUE(wire.has_value());
    EXPECT_EQ(wire->len, 8);
    EXPECT_EQ(std::memcmp(wire->data, tooLong.data, 8), 0);
}

TEST_F(SocketCanTest, EachPortWritesToItsOwnInterface) {
    const CanFrame onOne = frameOf(0x101, false, 1);
    const CanFrame onZero = frameOf(0x100, false, 1);
    EXPECT_EQ(canPortSendOn(&onOne, 1), 16);
    EXPECT_EQ(canPortSendOn(&onZero, 0), 16);
    const auto first1 = peer1.receive();
    ASSERT_TRUE(first1.has_value());
    EXPECT_EQ(first1->can_id, 0x101U);
    const auto first0 = peer0.receive();
    ASSERT_TRUE(first0.has_value());
    EXPECT_EQ(first0->can_id, 0x100U) << "can0 saw the frame for can1";
}

TEST_F(SocketCanTest, PortReceivesDataFramesFromAnotherNode) {
    ASSERT_TRUE(peer0.send(0x98EF1234, 4, "\x01\x02\x03\x04"));
    ASSERT_TRUE(peer0.send(0x234, 1, "\x09"));
    auto frame = receiveWithin(receiveOnPort0);
    ASSERT_TRUE(frame.has_value()) << "nothing arrived through the port";
    EXPECT_EQ(frame->identifier, 0x18EF1234U);
    EXPECT_EQ(frame->extended, 1);
    EXPECT_EQ(frame->length, 4);
    EXPECT_EQ(std::memcmp(frame->data, "\x01\x02\x03\x04", 4), 0);
    frame = receiveWithin(receiveOnPort0);
    ASSERT_TRUE(frame.has_value());
    EXPECT_EQ(frame->identifier, 0x234U);
    EXPECT_EQ(frame->extended, 0);
}

TEST_F(SocketCanTest, RemoteAndErrorFramesAreSkippedAndEachErrorFramePrintsAnEmptyLine) {
    ASSERT_TRUE(peer0.send(0x111 | CAN_RTR_FLAG));
    ASSERT_TRUE(peer0.send(CAN_ERR_FLAG | CAN_ERR_CRTL, CAN_ERR_DLC));
    ASSERT_TRUE(peer0.send(CAN_ERR_FLAG | CAN_ERR_BUSOFF, CAN_ERR_DLC));
    ASSERT_TRUE(peer0.send(0x222, 1, "\x05"));
    ::testing::internal::CaptureStdout();
    const auto frame = receiveWithin(receiveOnPort0);
    const std::string printed = ::testing::internal::GetCapturedStdout();
    ASSERT_TRUE(frame.has_value());
    EXPECT_EQ(frame->identifier, 0x222U);
    EXPECT_EQ(printed, "\n\n");
}

TEST_F(SocketCanTest, ChannelSendsAndReceivesThroughThePort) {
    std::uint32_t receivedBefore = 0;
    std::uint32_t sentBefore = 0;
    canChannelCounters(&receivedBefore, &sentBefore);

    ASSERT_TRUE(peer0.send(0x9CEB00F9, 8, "\x01\x02\x03\x04\x05\x06\x07\x08"));
    const auto frame = receiveWithin(receiveOnChannel);
    ASSERT_TRUE(frame.has_value()) << "nothing arrived through the channel";
    EXPECT_EQ(frame->identifier, 0x1CEB00F9U);
    EXPECT_EQ(frame->length, 8);

    const CanFrame reply = frameOf(0x1CECF900, true, 8);
    EXPECT_EQ(canChannelSend(kChannel, &reply), 1U);
    const auto wire = peer0.receive();
    ASSERT_TRUE(wire.has_value());
    EXPECT_EQ(wire->can_id, 0x9CECF900U);

    std::uint32_t receivedAfter = 0;
    std::uint32_t sentAfter = 0;
    canChannelCounters(&receivedAfter, &sentAfter);
    EXPECT_EQ(receivedAfter, receivedBefore + 1);
    EXPECT_EQ(sentAfter, sentBefore + 1);
}

}  // namespace
