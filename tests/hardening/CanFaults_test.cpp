// The daemon on a kernel CAN bus (can0 of the vcan harness) while frames flood it: error and remote frames
// during an upload, SIGTERM in the middle of one.
#include <linux/can.h>
#include <linux/can/error.h>
#include <net/if.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "DaemonTest.h"
#include "HexRecords.h"

namespace {

constexpr const char* kBus = "can0";
constexpr std::chrono::milliseconds kSlow{60000};  // one emulated CPU runs everything
constexpr std::uint16_t kUpload = 1004;
constexpr std::uint8_t kProgramming = 5;
constexpr std::uint8_t kDone = 6;

Bytes firmware(std::size_t size) {
    Bytes bytes(size);
    for (std::size_t i = 0; i < size; ++i) {
        bytes[i] = static_cast<std::uint8_t>(i * 7 + (i >> 8) + 1);
    }
    return bytes;
}

// Error frames of the classes the daemon listens to, and remote requests with the very identifiers and
// lengths of the replies it awaits, about 2000 a second from a raw socket of its own until destroyed.
class Flood {
  public:
    Flood()
        : thread_([this] {
              const int fd = socket(PF_CAN, SOCK_RAW | SOCK_CLOEXEC, CAN_RAW);
              sockaddr_can address{};
              address.can_family = AF_CAN;
              address.can_ifindex = static_cast<int>(if_nametoindex(kBus));
              if (bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
                  ADD_FAILURE() << "no raw socket on " << kBus;
                  stop_ = true;
              }
              // When the machine cannot keep up the flood falls behind rather than burst.
              for (auto tick = Clock::now(); !stop_; std::this_thread::sleep_until(tick)) {
                  for (int k = 0; k < 2; ++k) {
                      const std::uint32_t i = sent_;
                      can_frame frame{};
                      frame.len = i % 3 == 2 ? 2 : CAN_ERR_DLC;
                      frame.can_id = i % 3 == 0   ? CAN_ERR_FLAG | CAN_ERR_CRTL
                                     : i % 3 == 1 ? CAN_ERR_FLAG | CAN_ERR_PROT | CAN_ERR_BUSERROR
                                                  : CAN_EFF_FLAG | CAN_RTR_FLAG | (i % 2 == 0 ? 0x84 : 0x1C4);
                      frame.data[1] = i % 3 == 0 ? CAN_ERR_CRTL_RX_WARNING : 0;
                      frame.data[2] = i % 3 == 1 ? CAN_ERR_PROT_BIT : 0;
                      sent_ += write(fd, &frame, sizeof frame) == sizeof frame ? 1 : 0;
                  }
                  tick = std::max(tick + std::chrono::milliseconds(1),
                                  Clock::now() - std::chrono::milliseconds(100));
              }
              (void)::close(fd);  // a raw CAN socket: nothing to lose
          }) {}
    ~Flood() {
        stop_ = true;
        thread_.join();
    }
    std::atomic<std::uint32_t> sent_{0};

  private:
    std::atomic<bool> stop_{false};
    std::thread thread_;
};

class CanFaults : public DaemonTest {
  protected:
    void SetUp() override {
        if (if_nametoindex(kBus) == 0) {
            GTEST_SKIP() << "no CAN interface " << kBus << " here; run through scripts/vcan-vm";
        }
    }

    void start(const std::vector<std::string>& simulatorOptions) {
        std::vector<std::string> command{VARNOCH_MODULE_SIM, "-i", kBus, "--image",
                                         folder_.path("module.bin")};
        command.insert(command.end(), simulatorOptions.begin(), simulatorOptions.end());
        simulator_ = std::make_unique<ChildProcess>(folder_.path(), command);
        ASSERT_TRUE(simulator_->waitFor("varnoch-module-sim: on", 1, kSlow)) << simulator_->errors();
        ASSERT_NO_FATAL_FAILURE(startDaemon({"-i", "0"}, kSlow));
        client_ = connect(kSlow);
    }

    // An ISO style upload of `bytes` at 0x1000 to the module at 0x26.
    void requestUpload(const Bytes& bytes) {
        std::string hex;
        for (std::size_t at = 0; at < bytes.size(); at += 16) {
            const auto from = bytes.begin() + static_cast<long>(at);
            hex += hexRecord(
                0, static_cast<std::uint16_t>(0x1000 + at),
                Bytes(from, from + static_cast<long>(std::min<std::size_t>(16, bytes.size() - at))));
        }
        const std::string path = folder_.write("firmware.hex", hex + ":00000001FF\n");
        ASSERT_TRUE(client_->sendPacket(kUpload, uploadPayload(0, 0x26, 0, path)));
    }

    // True once a status shows `state` with at least `progress`; false at an error state or the deadline.
    bool statusReaches(std::uint8_t state, std::uint8_t progress = 0) {
        const auto deadline = Clock::now() + kSlow;
        for (std::optional<WirePacket> packet;
             (packet = client_->readPacketOf(
                  kCmdStatus,
                  std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now())));) {
            if (packet->payload.at(1) > 99 ||
                (packet->payload[1] == state && packet->payload[2] >= progress)) {
                return packet->payload[1] == state;
            }
        }
        return false;
    }

    std::unique_ptr<ChildProcess> simulator_;
    std::unique_ptr<TestClient> client_;
};

// The flood goes on while the daemon ends and its statics go; an error frame's only trace is an empty line.
TEST_F(CanFaults, UploadUnderErrorAndRemoteFramesEndsInDoneWithEveryByteInTheModule) {
    ASSERT_NO_FATAL_FAILURE(start({"--once"}));
    Flood flood;
    ASSERT_TRUE(waitUntil([&] { return flood.sent_ >= 300; }, kSlow));
    ASSERT_NO_FATAL_FAILURE(requestUpload(firmware(256)));
    EXPECT_TRUE(statusReaches(kDone));
    EXPECT_EQ(simulator_->exitStatus(kSlow), 0) << simulator_->errors();
    const std::string image = folder_.read("module.bin");
    EXPECT_EQ(Bytes(image.begin(), image.end()), firmware(256));
    EXPECT_TRUE(daemon_->waitFor("\n\n", 1, kSlow));
    expectOrderlyEnd(client_, kSlow);
}

TEST_F(CanFaults, SigtermDuringAnUploadEndsInOrder) {
    ASSERT_NO_FATAL_FAILURE(start({"--traffic", "5000"}));
    ASSERT_NO_FATAL_FAILURE(requestUpload(firmware(8192)));
    ASSERT_TRUE(statusReaches(kProgramming, 2));
    ASSERT_TRUE(daemon_->signal(SIGTERM));
    EXPECT_TRUE(client_->waitClosed(kSlow));
    EXPECT_TRUE(daemon_->waitFor("Varnoch: HandleControlC( 15 )\n", 1, kSlow));
    expectOrderlyEnd(client_, kSlow);
}

}  // namespace
