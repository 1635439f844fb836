// The daemon on a kernel CAN bus (can0, from the vcan harness) under bus faults: a flood of unrelated
// frames, error and remote frames, a module that stops in the middle of an upload, replies that come
// just after the reply timer fired, and SIGTERM during an upload. Each run ends in Done with the
// module holding every byte of the file, or in the documented error state; nothing hangs, and the
// daemon still answers and ends in order.
#include <linux/can.h>
#include <linux/can/error.h>
#include <net/if.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "FrameTransport.h"
#include "HardeningSupport.h"
#include "ModuleRunner.h"
#include "ModuleSimulator.h"

namespace {

constexpr const char* kBus = "can0";
// One emulated CPU runs the daemon, the module, the test and any flood: waits are generous.
constexpr std::chrono::milliseconds kSlow{60000};

constexpr std::uint16_t kStatus = 1000;
constexpr std::uint16_t kReset = 1002;
constexpr std::uint16_t kUpload = 1004;
constexpr std::uint8_t kIdle = 1;
constexpr std::uint8_t kProgramming = 5;
constexpr std::uint8_t kDone = 6;
constexpr std::uint8_t kResponseTimeout = 102;
constexpr std::uint8_t kModuleAddress = 0x26;

// `size` bytes of firmware, different at every address.
Bytes firmware(std::size_t size) {
    Bytes bytes(size);
    for (std::size_t i = 0; i < size; ++i) {
        bytes[i] = static_cast<std::uint8_t>(i * 7 + (i >> 8) + 1);
    }
    return bytes;
}

// Intel HEX of `bytes` at `address` (below 64 KiB) in 16-byte records.
std::string hexFile(std::uint32_t address, const Bytes& bytes) {
    std::string text;
    char field[8];
    for (std::size_t at = 0; at < bytes.size(); at += 16) {
        const std::size_t count = std::min<std::size_t>(16, bytes.size() - at);
        const auto where = static_cast<std::uint32_t>(address + at);
        unsigned sum = static_cast<unsigned>(count) + (where >> 8 & 0xFF) + (where & 0xFF);
        std::snprintf(field, sizeof field, ":%02X", static_cast<unsigned>(count));
        text += field;
        std::snprintf(field, sizeof field, "%04X00", static_cast<unsigned>(where & 0xFFFF));
        text += field;
        for (std::size_t i = 0; i < count; ++i) {
            std::snprintf(field, sizeof field, "%02X", bytes[at + i]);
            text += field;
            sum += bytes[at + i];
        }
        std::snprintf(field, sizeof field, "%02X\n", (0x100 - (sum & 0xFF)) & 0xFF);
        text += field;
    }
    return text + ":00000001FF\n";
}

Bytes uploadRequest(const std::string& path) {
    Bytes payload(6 + path.size() + 1, 0);
    payload[0] = 0;  // ISO Style
    payload[1] = kModuleAddress;
    std::memcpy(payload.data() + 6, path.data(), path.size());
    return payload;
}

std::string fileBytes(const std::string& path) {
    std::string text;
    if (std::FILE* file = std::fopen(path.c_str(), "rb")) {
        char buffer[4096];
        for (std::size_t got; (got = std::fread(buffer, 1, sizeof buffer, file)) > 0;) {
            text.append(buffer, got);
        }
        std::fclose(file);
    }
    return text;
}

// A raw socket on the bus for frames no module would send: error frames and remote requests.
class RawBus {
  public:
    RawBus() : fd_(socket(PF_CAN, SOCK_RAW | SOCK_CLOEXEC, CAN_RAW)) {
        ifreq request{};
        std::snprintf(request.ifr_name, sizeof request.ifr_name, "%s", kBus);
        sockaddr_can address{};
        address.can_family = AF_CAN;
        if (fd_ < 0 || ioctl(fd_, SIOCGIFINDEX, &request) < 0) {
            close();
            return;
        }
        address.can_ifindex = request.ifr_ifindex;
        if (bind(fd_, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
            close();
        }
    }
    ~RawBus() { close(); }
    RawBus(const RawBus&) = delete;
    RawBus& operator=(const RawBus&) = delete;

    bool open() const { return fd_ >= 0; }
    bool send(const can_frame& frame) { return write(fd_, &frame, sizeof frame) == sizeof frame; }

  private:
    void close() {
        if (fd_ >= 0) {
            ::close(fd_);
            fd_ = -1;
        }
    }
    int fd_;
};

// Sends frames from `next` on the bus from a thread of its own at `rate` frames a second until
// destroyed, paced by the clock; when the machine cannot keep up it falls behind rather than burst.
class Flood {
  public:
    Flood(std::function<can_frame(std::uint32_t)> next, std::uint32_t rate)
        : thread_([this, next, rate] {
              RawBus bus;
              const std::uint32_t perTick = std::max<std::uint32_t>(1, rate / 1000);
              auto tick = Clock::now();
              for (std::uint32_t i = 0; !stop_.load();) {
                  for (std::uint32_t k = 0; k < perTick; ++k, ++i) {
                      if (bus.send(next(i)) && ++sent_ % kNotifyEvery == 0) {
                          const std::lock_guard<std::mutex> lock(
                              lock_);  // orders the wake-up after the wait's test
                          counted_.notify_all();
                      }
                  }
                  tick += std::chrono::milliseconds(1);
                  if (Clock::now() - tick > std::chrono::milliseconds(100)) {
                      tick = Clock::now();
                  }
                  std::this_thread::sleep_until(tick);  // pacing, not waiting for anything
              }
          }) {}
    ~Flood() {
        stop_ = true;
        thread_.join();
    }
    Flood(const Flood&) = delete;
    Flood& operator=(const Flood&) = delete;

    std::uint32_t sent() const { return sent_.load(); }
    // True once `count` frames have gone out; false at the deadline.
    bool waitForSent(std::uint32_t count, std::chrono::milliseconds timeout) {
        std::unique_lock<std::mutex> lock(lock_);
        return counted_.wait_for(lock, timeout, [&] { return sent_.load() >= count; });
    }

  private:
    // Waiters are woken every so many frames: waking them for each would slow the flood itself.
    static constexpr std::uint32_t kNotifyEvery = 50;

    std::atomic<bool> stop_{false};
    std::mutex lock_;
    std::condition_variable counted_;
    std::atomic<std::uint32_t> sent_{0};
    std::thread thread_;
};

can_frame toWire(const CanFrame& frame) {
    can_frame wire{};
    wire.can_id = frame.extended != 0 ? (frame.identifier | CAN_EFF_FLAG) : frame.identifier;
    wire.len = frame.length;
    std::memcpy(wire.data, frame.data, frame.length);
    return wire;
}

// The module's protocol logic in this process, answering like the simulator, but with one reply (the
// n-th, counted from 1) held back for `delay`.
class LateModule {
  public:
    LateModule(std::uint32_t lateReply, std::chrono::milliseconds delay)
        : lateReply_(lateReply), delay_(delay), module_(modulesim::ModuleConfig{}) {
        std::string error;
        transport_ = modulesim::SocketCanTransport::open(kBus, error);
        EXPECT_NE(transport_, nullptr) << error;
        if (transport_ != nullptr) {
            thread_ = std::thread([this] { run(); });
        }
    }
    ~LateModule() { stop(); }
    LateModule(const LateModule&) = delete;
    LateModule& operator=(const LateModule&) = delete;

    void stop() {
        stop_ = true;
        if (thread_.joinable()) {
            thread_.join();
        }
    }
    // Valid after stop().
    const modulesim::FlashImage& image() const { return module_.image(); }
    // True once the held reply has gone out; false at the deadline.
    bool waitForLateReply(std::chrono::milliseconds timeout) {
        std::unique_lock<std::mutex> lock(lock_);
        return sent_.wait_for(lock, timeout, [this] { return lateSent_; });
    }

  private:
    void run() {
        std::uint32_t replies = 0;
        bool holding = false;
        Clock::time_point due;
        CanFrame held{};
        while (!stop_.load()) {
            if (holding && Clock::now() >= due) {
                (void)transport_->send(held);
                holding = false;
                const std::lock_guard<std::mutex> lock(lock_);
                lateSent_ = true;
                sent_.notify_all();
            }
            CanFrame frame{};
            const std::uint32_t waitMs = holding ? 5 : 50;
            if (transport_->receive(frame, waitMs) != modulesim::FrameTransport::Received::Frame) {
                continue;
            }
            modulesim::ModuleReaction reaction;
            module_.handleFrame(frame, reaction);
            if (!reaction.reply) {
                continue;
            }
            if (++replies == lateReply_) {
                held = reaction.replyFrame;
                due = Clock::now() + delay_;
                holding = true;
            } else {
                (void)transport_->send(reaction.replyFrame);
            }
        }
    }

    std::uint32_t lateReply_;
    std::chrono::milliseconds delay_;
    modulesim::ModuleSimulator module_;
    std::unique_ptr<modulesim::SocketCanTransport> transport_;
    std::atomic<bool> stop_{false};
    std::mutex lock_;
    std::condition_variable sent_;
    bool lateSent_ = false;
    std::thread thread_;
};

class CanFaults : public ::testing::Test {
  protected:
    void SetUp() override {
        if (!RawBus().open()) {
            GTEST_SKIP() << "no CAN interface " << kBus << " here; run through scripts/vcan-vm";
        }
        port_ = freePort();
    }

    void startDaemon() {
        daemon_ = std::make_unique<ChildProcess>(
            std::vector<std::string>{VARNOCH_DAEMON, "-n", "-i", "0", "-p", std::to_string(port_)},
            folder_.path());
        ASSERT_TRUE(daemon_->waitForOutput("Varnoch is running\n", 1, kSlow)) << daemon_->errors();
        client_ = std::make_unique<Peer>(port_);
        ASSERT_TRUE(client_->connected());
        ASSERT_TRUE(client_->waitForIdentity(kSlow));
    }

    void startSimulator(const std::vector<std::string>& options) {
        std::vector<std::string> arguments{VARNOCH_MODULE_SIM, "-i", kBus, "--image", imagePath()};
        arguments.insert(arguments.end(), options.begin(), options.end());
        simulator_ = std::make_unique<ChildProcess>(arguments, folder_.path());
        ASSERT_TRUE(simulator_->waitForOutput("varnoch-module-sim: on", 1, kSlow)) << simulator_->errors();
    }

    std::string imagePath() const { return folder_.path() + "/module.bin"; }

    // Requests the upload of `bytes` (at 0x1000) and returns the file's path.
    void requestUpload(const Bytes& bytes) {
        const std::string path = folder_.write("firmware.hex", hexFile(kImageAddress, bytes));
        ASSERT_TRUE(client_->sendPacket(kUpload, uploadRequest(path)));
    }

    // Status payloads until one satisfies `done` (included); the last one is checked by the caller.
    std::vector<Bytes> statusesUntil(const std::function<bool(const Bytes&)>& done,
                                     std::chrono::milliseconds timeout = kSlow) {
        std::vector<Bytes> seen;
        const auto deadline = Clock::now() + timeout;
        while (Clock::now() < deadline) {
            const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
            const auto packet = client_->next(left);
            if (!packet) {
                break;
            }
            if (packet->command == kStatus && packet->payload.size() == 8) {
                seen.push_back(packet->payload);
                if (done(seen.back())) {
                    break;
                }
            }
        }
        return seen;
    }

    static bool finished(const Bytes& status) { return status[1] == kDone || status[1] > 99; }

    // The client leaves, which ends the daemon in order.
    void expectOrderlyEnd() {
        client_.reset();
        EXPECT_EQ(daemon_->exitStatus(kSlow), 0) << daemon_->errors();
        EXPECT_TRUE(daemon_->waitForOutput("Varnoch is shutting down\n", 1, kSlow));
        EXPECT_FALSE(hasSanitizerReport(daemon_->errors())) << daemon_->errors();
    }

    static constexpr std::uint32_t kImageAddress = 0x1000;

    ScratchFolder folder_;
    int port_ = 0;
    std::unique_ptr<ChildProcess> simulator_;
    std::unique_ptr<ChildProcess> daemon_;
    std::unique_ptr<Peer> client_;
};

TEST_F(CanFaults, UploadCompletesThroughAFloodOfUnrelatedFrames) {
    const Bytes bytes = firmware(512);
    ASSERT_NO_FATAL_FAILURE(startSimulator({"--once"}));
    ASSERT_NO_FATAL_FAILURE(startDaemon());
    // Engine and vehicle messages as the simulator's traffic switch sends them, at 5,000 frames a
    // second from a sender of their own, so that the module's replies are not held up behind them.
    Flood flood([](std::uint32_t i) { return toWire(modulesim::trafficFrame(i)); }, 5000);
    ASSERT_TRUE(flood.waitForSent(500, kSlow));
    const auto started = Clock::now();
    const std::uint32_t sentBefore = flood.sent();
    ASSERT_NO_FATAL_FAILURE(requestUpload(bytes));
    const auto statuses = statusesUntil(finished);
    const auto seconds = std::chrono::duration<double>(Clock::now() - started).count();
    std::printf("flood: %.0f frames/s during the upload\n", (flood.sent() - sentBefore) / seconds);
    ASSERT_FALSE(statuses.empty());
    EXPECT_EQ(statuses.back()[1], kDone);
    EXPECT_EQ(simulator_->exitStatus(kSlow), 0) << simulator_->errors();
    EXPECT_EQ(fileBytes(imagePath()), std::string(bytes.begin(), bytes.end()));
    expectOrderlyEnd();
}

TEST_F(CanFaults, ErrorAndRemoteFramesAreIgnored) {
    const Bytes bytes = firmware(256);
    ASSERT_NO_FATAL_FAILURE(startSimulator({"--once"}));
    ASSERT_NO_FATAL_FAILURE(startDaemon());
    // Error frames of the classes the daemon listens to, and remote requests that carry the very
    // identifiers and lengths of the replies it awaits.
    Flood flood(
        [](std::uint32_t i) {
            can_frame frame{};
            switch (i % 3) {
                case 0:
                    frame.can_id = CAN_ERR_FLAG | CAN_ERR_CRTL;
                    frame.len = CAN_ERR_DLC;
                    frame.data[1] = CAN_ERR_CRTL_RX_WARNING;
                    break;
                case 1:
                    frame.can_id = CAN_ERR_FLAG | CAN_ERR_PROT | CAN_ERR_BUSERROR;
                    frame.len = CAN_ERR_DLC;
                    frame.data[2] = CAN_ERR_PROT_BIT;
                    break;
                default:
                    frame.can_id = CAN_EFF_FLAG | CAN_RTR_FLAG | (i % 2 == 0 ? 0x84 : 0x1C4);
                    frame.len = 2;
                    break;
            }
            return frame;
        },
        2000);
    ASSERT_TRUE(flood.waitForSent(300, kSlow));
    ASSERT_NO_FATAL_FAILURE(requestUpload(bytes));
    const auto statuses = statusesUntil(finished);
    ASSERT_FALSE(statuses.empty());
    EXPECT_EQ(statuses.back()[1], kDone);
    EXPECT_EQ(simulator_->exitStatus(kSlow), 0) << simulator_->errors();
    EXPECT_EQ(fileBytes(imagePath()), std::string(bytes.begin(), bytes.end()));
    // Each error frame leaves an empty line on the daemon's output, its only trace.
    EXPECT_TRUE(daemon_->waitForOutput("\n\n", 1, kSlow));
    // The flood goes on while the daemon shuts down: its CAN reception thread, never stopped, is
    // still taking error frames while the process's static objects go.
    expectOrderlyEnd();
}

TEST_F(CanFaults, ModuleStoppingMidUploadEndsInResponseTimeout) {
    ASSERT_NO_FATAL_FAILURE(startSimulator({}));
    ASSERT_NO_FATAL_FAILURE(startDaemon());
    ASSERT_NO_FATAL_FAILURE(requestUpload(firmware(4096)));
    const auto under =
        statusesUntil([](const Bytes& status) { return status[1] == kProgramming && status[2] >= 5; });
    ASSERT_FALSE(under.empty());
    ASSERT_EQ(under.back()[1], kProgramming);
    ASSERT_TRUE(simulator_->sendSignal(SIGKILL));
    const auto statuses = statusesUntil(finished);
    ASSERT_FALSE(statuses.empty());
    EXPECT_EQ(statuses.back()[1], kResponseTimeout) << hexText(statuses.back());
    // Three repeats of the unanswered message, one second apart, came first.
    EXPECT_TRUE(daemon_->waitForOutput("CANFlasherServer::handleTimeout() Mode 0\n", 4, kSlow));
    // The daemon still serves: a reset returns the job to Idle.
    ASSERT_TRUE(client_->sendPacket(kReset, {}));
    const auto status = client_->askStatus(kSlow);
    ASSERT_TRUE(status.has_value());
    EXPECT_EQ(hexText(*status), hexText(statusBytes(0, kIdle, statuses.back()[2], kModuleAddress, 0)));
    expectOrderlyEnd();
}

// The reply comes 100 ms after the reply timer fired: the request was repeated meanwhile, and both
// the late reply and the answer to the repeat reach the daemon.
class LateReply : public CanFaults, public ::testing::WithParamInterface<std::uint32_t> {};

TEST_P(LateReply, JustAfterTheTimerStillEndsInDone) {
    const Bytes bytes = firmware(128);
    LateModule module(GetParam(), std::chrono::milliseconds(1100));
    ASSERT_NO_FATAL_FAILURE(startDaemon());
    ASSERT_NO_FATAL_FAILURE(requestUpload(bytes));
    const auto statuses = statusesUntil(finished);
    ASSERT_FALSE(statuses.empty());
    EXPECT_EQ(statuses.back()[1], kDone);
    EXPECT_TRUE(daemon_->waitForOutput("CANFlasherServer::handleTimeout()", 1, kSlow));
    // Whether it came during the upload or after Done, the late reply changes nothing now.
    ASSERT_TRUE(module.waitForLateReply(kSlow));
    const auto status = client_->askStatus(kSlow);
    ASSERT_TRUE(status.has_value());
    EXPECT_EQ((*status)[1], kDone);
    module.stop();
    ASSERT_FALSE(module.image().empty());
    EXPECT_EQ(module.image().lowest(), kImageAddress);
    EXPECT_EQ(module.image().highest(), kImageAddress + bytes.size() - 1);
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        ASSERT_EQ(module.image().byteAt(static_cast<std::uint32_t>(kImageAddress + i)), bytes[i]) << i;
    }
    expectOrderlyEnd();
}

// Replies are counted from the search: 1 the search, 2 the erase, 3 the page select, 4 and on data.
INSTANTIATE_TEST_SUITE_P(OneReplyLate, LateReply, ::testing::Values(1u, 2u, 3u, 10u));

TEST_F(CanFaults, SigtermDuringAnUploadEndsInOrder) {
    ASSERT_NO_FATAL_FAILURE(startSimulator({}));
    ASSERT_NO_FATAL_FAILURE(startDaemon());
    // Frames keep arriving while the daemon shuts down.
    Flood flood([](std::uint32_t i) { return toWire(modulesim::trafficFrame(i)); }, 5000);
    ASSERT_NO_FATAL_FAILURE(requestUpload(firmware(8192)));
    const auto under =
        statusesUntil([](const Bytes& status) { return status[1] == kProgramming && status[2] >= 2; });
    ASSERT_FALSE(under.empty());
    ASSERT_EQ(under.back()[1], kProgramming);
    ASSERT_TRUE(daemon_->sendSignal(SIGTERM));
    EXPECT_EQ(daemon_->exitStatus(kSlow), 0) << daemon_->errors();
    EXPECT_TRUE(daemon_->waitForOutput("Varnoch: HandleControlC( 15 )\n", 1, kSlow));
    EXPECT_TRUE(daemon_->waitForOutput("Varnoch is shutting down\n", 1, kSlow));
    EXPECT_FALSE(hasSanitizerReport(daemon_->errors())) << daemon_->errors();
    EXPECT_TRUE(client_->waitUntilClosed(kSlow));
}

}  // namespace
