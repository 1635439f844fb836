// The daemon on a kernel CAN bus (can0 of the vcan harness) under bus faults. Each upload ends in Done
// with the module holding every byte, or in the documented error state; the daemon ends in order.
#include <linux/can.h>
#include <linux/can/error.h>
#include <net/if.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <fstream>
#include <iterator>
#include <memory>
#include <numeric>

#include "FrameTransport.h"
#include "HardeningSupport.h"
#include "ModuleRunner.h"
#include "ModuleSimulator.h"

namespace {

constexpr const char* kBus = "can0";
constexpr std::chrono::milliseconds kSlow{60000};  // one emulated CPU runs everything
constexpr std::uint16_t kReset = 1002;
constexpr std::uint16_t kUpload = 1004;
constexpr std::uint8_t kIdle = 1;
constexpr std::uint8_t kProgramming = 5;
constexpr std::uint8_t kDone = 6;
constexpr std::uint8_t kResponseTimeout = 102;
constexpr std::uint8_t kModuleAddress = 0x26;
constexpr std::uint32_t kImageAddress = 0x1000;

Bytes firmware(std::size_t size) {
    Bytes bytes(size);
    for (std::size_t i = 0; i < size; ++i) {
        bytes[i] = static_cast<std::uint8_t>(i * 7 + (i >> 8) + 1);
    }
    return bytes;
}

// Intel HEX of `bytes` at kImageAddress in 16-byte records.
std::string hexFile(const Bytes& bytes) {
    std::string text;
    char digits[3];
    for (std::size_t at = 0; at < bytes.size(); at += 16) {
        const auto where = static_cast<std::uint32_t>(kImageAddress + at);
        Bytes record{static_cast<std::uint8_t>(std::min<std::size_t>(16, bytes.size() - at)),
                     static_cast<std::uint8_t>(where >> 8), static_cast<std::uint8_t>(where), 0};
        const auto from = bytes.begin() + static_cast<long>(at);
        record.insert(record.end(), from, from + record[0]);
        record.push_back(
            static_cast<std::uint8_t>(0x100 - std::accumulate(record.begin(), record.end(), 0u)));
        text += ":";
        for (const std::uint8_t byte : record) {
            std::snprintf(digits, sizeof digits, "%02X", byte);
            text += digits;
        }
        text += "\n";
    }
    return text + ":00000001FF\n";
}

// Frames from `next` at about `rate` a second from a raw socket of its own until destroyed; when the
// machine cannot keep up it falls behind rather than burst.
class Flood {
  public:
    Flood(std::function<can_frame(std::uint32_t)> next, std::uint32_t rate)
        : thread_([this, next, rate] {
              const int fd = socket(PF_CAN, SOCK_RAW | SOCK_CLOEXEC, CAN_RAW);
              sockaddr_can address{};
              address.can_family = AF_CAN;
              address.can_ifindex = static_cast<int>(if_nametoindex(kBus));
              if (bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
                  ADD_FAILURE() << "no raw socket on " << kBus;
                  stop_ = true;
              }
              for (auto tick = Clock::now(); !stop_;) {
                  for (std::uint32_t k = 0; k < std::max<std::uint32_t>(1, rate / 1000); ++k) {
                      const can_frame frame = next(sent_);
                      sent_ += write(fd, &frame, sizeof frame) == sizeof frame ? 1 : 0;
                  }
                  tick = std::max(tick + std::chrono::milliseconds(1),
                                  Clock::now() - std::chrono::milliseconds(100));
                  std::this_thread::sleep_until(tick);  // pacing, not waiting for anything
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

can_frame traffic(std::uint32_t i) {
    const CanFrame frame = modulesim::trafficFrame(i);
    can_frame wire{};
    wire.can_id = frame.extended != 0 ? (frame.identifier | CAN_EFF_FLAG) : frame.identifier;
    wire.len = frame.length;
    std::memcpy(wire.data, frame.data, frame.length);
    return wire;
}

// The module's logic in this process, with its n-th reply (counted from 1) held back for `delay`.
class LateModule {
  public:
    LateModule(std::uint32_t lateReply, std::chrono::milliseconds delay)
        : module_(modulesim::ModuleConfig{}) {
        std::string error;
        auto transport = modulesim::SocketCanTransport::open(kBus, error);
        EXPECT_NE(transport, nullptr) << error;
        thread_ = std::thread([this, lateReply, delay,
                               bus = std::shared_ptr<modulesim::SocketCanTransport>(std::move(transport))] {
            std::uint32_t replies = 0;
            std::optional<std::pair<CanFrame, Clock::time_point>> held;
            while (bus && !stop_) {
                if (held && Clock::now() >= held->second) {
                    (void)bus->send(held->first);
                    held.reset();
                    lateSent_ = true;
                }
                CanFrame frame{};
                modulesim::ModuleReaction reaction;
                if (bus->receive(frame, held ? 5 : 50) != modulesim::FrameTransport::Received::Frame) {
                    continue;
                }
                module_.handleFrame(frame, reaction);
                if (reaction.reply && ++replies == lateReply) {
                    held.emplace(reaction.replyFrame, Clock::now() + delay);
                } else if (reaction.reply) {
                    (void)bus->send(reaction.replyFrame);
                }
            }
        });
    }
    ~LateModule() { (void)stoppedImage(); }
    const modulesim::FlashImage& stoppedImage() {
        stop_ = true;
        if (thread_.joinable()) {
            thread_.join();
        }
        return module_.image();
    }
    std::atomic<bool> lateSent_{false};

  private:
    modulesim::ModuleSimulator module_;
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

    void start(bool simulator, const std::vector<std::string>& options = {}) {
        if (simulator) {
            std::vector<std::string> arguments{VARNOCH_MODULE_SIM, "-i", kBus, "--image", imagePath()};
            arguments.insert(arguments.end(), options.begin(), options.end());
            simulator_ = std::make_unique<ChildProcess>(arguments, folder_.path());
            ASSERT_TRUE(simulator_->waitFor("varnoch-module-sim: on", 1, kSlow)) << simulator_->output();
        }
        ASSERT_NO_FATAL_FAILURE(startDaemon("0", kSlow));
        client_ = std::make_unique<Peer>(port_);
        ASSERT_TRUE(client_->next(kCmdIdentity, kSlow));
    }

    std::string imagePath() const { return folder_.path() + "/module.bin"; }

    void requestUpload(const Bytes& bytes) {
        const std::string path = folder_.write("firmware.hex", hexFile(bytes));
        Bytes payload(6 + path.size() + 1, 0);  // ISO style, identifier 0, the path
        payload[1] = kModuleAddress;
        std::memcpy(payload.data() + 6, path.data(), path.size());
        ASSERT_TRUE(client_->sendPacket(kUpload, payload));
    }

    // The first status that satisfies `done` (Done or an error when none is given); nothing at the deadline.
    Bytes statusWhen(std::function<bool(const Bytes&)> done = {}) {
        if (!done) {
            done = [](const Bytes& status) { return status[1] == kDone || status[1] > 99; };
        }
        const auto deadline = Clock::now() + kSlow;
        for (std::optional<WirePacket> packet;
             (packet = client_->next(kCmdStatus, std::chrono::milliseconds(msUntil(deadline))));) {
            if (packet->payload.size() == 8 && done(packet->payload)) {
                return packet->payload;
            }
        }
        return Bytes(8, 0xEE);
    }

    void expectImage(const Bytes& bytes) {
        EXPECT_EQ(simulator_->exitStatus(kSlow), 0) << simulator_->output();
        std::ifstream image(imagePath(), std::ios::binary);
        EXPECT_EQ(Bytes(std::istreambuf_iterator<char>(image), {}), bytes);
    }

    std::unique_ptr<ChildProcess> simulator_;
    std::unique_ptr<Peer> client_;
};

// Error frames of the classes the daemon listens to, and remote requests with the very identifiers and
// lengths of the replies it awaits.
can_frame errorOrRemote(std::uint32_t i) {
    can_frame frame{};
    frame.len = i % 3 == 2 ? 2 : CAN_ERR_DLC;
    frame.can_id = i % 3 == 0   ? CAN_ERR_FLAG | CAN_ERR_CRTL
                   : i % 3 == 1 ? CAN_ERR_FLAG | CAN_ERR_PROT | CAN_ERR_BUSERROR
                                : CAN_EFF_FLAG | CAN_RTR_FLAG | (i % 2 == 0 ? 0x84 : 0x1C4);
    frame.data[1] = i % 3 == 0 ? CAN_ERR_CRTL_RX_WARNING : 0;
    frame.data[2] = i % 3 == 1 ? CAN_ERR_PROT_BIT : 0;
    return frame;
}

struct FloodCase {
    const char* name;
    can_frame (*frame)(std::uint32_t);
    std::uint32_t rate, warmUp, size;
    const char* trace;  // what the daemon must have logged, if anything
};

class Flooded : public CanFaults, public ::testing::WithParamInterface<FloodCase> {};

// The flood goes on while the daemon ends and its statics go.
TEST_P(Flooded, UploadEndsInDone) {
    const FloodCase& c = GetParam();
    ASSERT_NO_FATAL_FAILURE(start(true, {"--once"}));
    Flood flood(c.frame, c.rate);
    ASSERT_TRUE(eventually([&] { return flood.sent_ >= c.warmUp; }, kSlow));
    const auto started = Clock::now();
    const std::uint32_t sentBefore = flood.sent_;
    ASSERT_NO_FATAL_FAILURE(requestUpload(firmware(c.size)));
    EXPECT_EQ(statusWhen()[1], kDone);
    std::printf("%s: %.0f frames/s during the upload\n", c.name,
                (flood.sent_ - sentBefore) / std::chrono::duration<double>(Clock::now() - started).count());
    expectImage(firmware(c.size));
    EXPECT_TRUE(c.trace == nullptr || daemon_->waitFor(c.trace, 1, kSlow));
    expectOrderlyEnd(client_, kSlow);
}

// An error frame's only trace is an empty line.
INSTANTIATE_TEST_SUITE_P(Frames, Flooded,
                         ::testing::Values(FloodCase{"Unrelated", traffic, 5000, 500, 512, nullptr},
                                           FloodCase{"ErrorAndRemote", errorOrRemote, 2000, 300, 256,
                                                     "\n\n"}),
                         [](const auto& p) { return std::string(p.param.name); });

TEST_F(CanFaults, ModuleStoppingMidUploadEndsInResponseTimeout) {
    ASSERT_NO_FATAL_FAILURE(start(true));
    ASSERT_NO_FATAL_FAILURE(requestUpload(firmware(4096)));
    ASSERT_EQ(statusWhen([](const Bytes& s) { return s[1] == kProgramming && s[2] >= 5; })[1], kProgramming);
    ASSERT_TRUE(simulator_->signal(SIGKILL));
    const Bytes last = statusWhen();
    EXPECT_EQ(last[1], kResponseTimeout);
    // Three repeats of the unanswered message, one second apart, came first.
    EXPECT_TRUE(daemon_->waitFor("CANFlasherServer::handleTimeout() Mode 0\n", 4, kSlow));
    ASSERT_TRUE(client_->sendPacket(kReset, {}));
    EXPECT_EQ(client_->askStatus(kSlow), statusBytes(0, kIdle, last[2], kModuleAddress, 0));
    expectOrderlyEnd(client_, kSlow);
}

// The reply comes 100 ms after the reply timer fired; the request was repeated meanwhile.
class LateReply : public CanFaults, public ::testing::WithParamInterface<std::uint32_t> {};

TEST_P(LateReply, JustAfterTheTimerStillEndsInDone) {
    const Bytes bytes = firmware(128);
    LateModule module(GetParam(), std::chrono::milliseconds(1100));
    ASSERT_NO_FATAL_FAILURE(start(false));
    ASSERT_NO_FATAL_FAILURE(requestUpload(bytes));
    EXPECT_EQ(statusWhen()[1], kDone);
    EXPECT_TRUE(daemon_->waitFor("CANFlasherServer::handleTimeout()", 1, kSlow));
    ASSERT_TRUE(eventually([&] { return module.lateSent_.load(); }, kSlow));
    const auto status = client_->askStatus(kSlow);  // the late reply, even after Done, changes nothing
    EXPECT_TRUE(status && (*status)[1] == kDone);
    const modulesim::FlashImage& image = module.stoppedImage();
    ASSERT_EQ(image.lowest(), kImageAddress);
    ASSERT_EQ(image.highest(), kImageAddress + bytes.size() - 1);
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        ASSERT_EQ(image.byteAt(static_cast<std::uint32_t>(kImageAddress + i)), bytes[i]) << i;
    }
    expectOrderlyEnd(client_, kSlow);
}

// Replies counted from the search: 1 the search, 2 the erase, 3 the page select, 4 and on data.
INSTANTIATE_TEST_SUITE_P(OneReplyLate, LateReply, ::testing::Values(1u, 2u, 3u, 10u));

TEST_F(CanFaults, SigtermDuringAnUploadEndsInOrder) {
    ASSERT_NO_FATAL_FAILURE(start(true));
    Flood flood(traffic, 5000);
    ASSERT_NO_FATAL_FAILURE(requestUpload(firmware(8192)));
    ASSERT_EQ(statusWhen([](const Bytes& s) { return s[1] == kProgramming && s[2] >= 2; })[1], kProgramming);
    ASSERT_TRUE(daemon_->signal(SIGTERM));
    EXPECT_TRUE(client_->waitUntilClosed(kSlow));
    EXPECT_TRUE(daemon_->waitFor("Varnoch: HandleControlC( 15 )\n", 1, kSlow));
    expectOrderlyEnd(client_, kSlow);
}

}  // namespace
