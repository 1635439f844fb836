// The simulated module served over the channel layer and the in-process bus, as a test or an in-process
// end-to-end run uses it: replies reach the bus, late ones no earlier than their delay, the image is
// saved before the end command is acknowledged, traffic flows at its rate, and stopping is prompt.
#include <gtest/gtest.h>

#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <future>
#include <string>

#include "ModuleRunner.h"
#include "SimOptions.h"
#include "VirtualCanBus.h"

namespace {

using namespace modulesim;
using Clock = std::chrono::steady_clock;

constexpr auto kDeadline = std::chrono::seconds(10);
constexpr std::int32_t kModuleChannel = 0;
constexpr std::uint32_t kRingSize = 64;

CanFrame extended(std::uint32_t identifier, std::initializer_list<std::uint8_t> bytes) {
    CanFrame frame{};
    frame.identifier = identifier;
    frame.extended = 1;
    frame.length = static_cast<std::uint8_t>(bytes.size());
    std::copy(bytes.begin(), bytes.end(), frame.data);
    return frame;
}

// A module running on its own thread, attached to a fresh bus through channel 0.
class RunningModule : public ::testing::Test {
  protected:
    void SetUp() override {
        char pattern[] = "/tmp/varnoch-modulerun-XXXXXX";
        ASSERT_NE(mkdtemp(pattern), nullptr);
        directory = pattern;
        options.imagePath = directory + "/image.bin";
        options.out = tmpfile();
        ASSERT_NE(options.out, nullptr);
        ASSERT_TRUE(canChannelsInit(1));
        endpoint = bus.addEndpoint(VirtualCanBus::Reception::ChannelRing);
        ASSERT_GE(endpoint, 0);
        ASSERT_TRUE(canChannelAttach(kModuleChannel, VirtualCanBus::driver, endpoint, kRingSize));
    }

    void TearDown() override {
        stop.store(true);
        if (outcome.valid()) {
            EXPECT_EQ(outcome.wait_for(kDeadline), std::future_status::ready) << "the runner did not stop";
        }
        std::fclose(options.out);
        for (const std::string& file : {options.imagePath, options.imagePath + ".range"}) {
            std::remove(file.c_str());
        }
        rmdir(directory.c_str());
    }

    void start(const ModuleConfig& config) {
        module = std::make_unique<ModuleSimulator>(config);
        outcome =
            std::async(std::launch::async, [this] { return runModule(*module, transport, options, stop); });
    }

    // Sends a request and returns the module's answer, or fails the test.
    CanFrame exchange(const CanFrame& request) {
        bus.injectTo(endpoint, request);
        CanFrame reply{};
        EXPECT_TRUE(bus.waitForSent(&reply, kDeadline)) << "no reply to " << std::hex << request.identifier;
        return reply;
    }

    bool imageSaved() const {
        struct stat info {};
        return stat(options.imagePath.c_str(), &info) == 0 &&
               stat((options.imagePath + ".range").c_str(), &info) == 0;
    }

    VirtualCanBus bus;
    std::int32_t endpoint = -1;
    ChannelTransport transport{kModuleChannel};
    RunnerOptions options;
    std::atomic<bool> stop{false};
    std::unique_ptr<ModuleSimulator> module;
    std::future<RunOutcome> outcome;
    std::string directory;
};

TEST_F(RunningModule, ServesAWholeUploadAndEndsAfterItWithOnce) {
    options.once = true;
    start(ModuleConfig{});
    EXPECT_EQ(exchange(extended(0, {})).identifier, kSearchReplyId);
    EXPECT_EQ(exchange(extended(kRequestId, {3, 0xFE, 0, 0, 0, 0, 0, 0})).data[0], kCmdErase);
    EXPECT_EQ(exchange(extended(kRequestId, {4, 0, 0, 0, 0, 0, 0, 0})).data[0], kCmdSelectPage);
    EXPECT_EQ(exchange(extended(kRequestId, {5, 0, 0, 4, 0x11, 0x22, 0x33, 0x44})).data[0], kCmdWrite);
    EXPECT_EQ(exchange(extended(kRequestId, {4, 0, 0, 0, 0, 0, 0, 0})).data[0], kCmdSelectPage);
    const CanFrame ended = exchange(extended(kRequestId, {6, 1, 0, 0, 0, 0, 0, 0}));
    EXPECT_EQ(ended.data[0], kCmdEnd);
    // Saved before the acknowledgement went out: whoever sees the job done finds the image.
    EXPECT_TRUE(imageSaved());

    ASSERT_EQ(outcome.wait_for(std::chrono::milliseconds(200)), std::future_status::timeout)
        << "ended before the finish frame";
    bus.injectTo(endpoint, extended(kFinishId, {0}));
    ASSERT_EQ(outcome.wait_for(kDeadline), std::future_status::ready);
    EXPECT_EQ(outcome.get(), RunOutcome::UploadFinished);
    EXPECT_EQ(module->image().highest(), 3u);
}

TEST_F(RunningModule, LateRepliesComeNoEarlierThanTheirDelay) {
    ModuleConfig config;
    config.faults.replyDelayMs = 300;
    start(config);
    const auto sent = Clock::now();
    exchange(extended(0, {}));
    EXPECT_GE(Clock::now() - sent, std::chrono::milliseconds(300));
}

TEST_F(RunningModule, UnrelatedTrafficFlowsAtItsRateAndIsNotAnswered) {
    options.trafficRate = 200;  // one frame each 5 ms
    const auto started = Clock::now();
    start(ModuleConfig{});
    constexpr int kFrames = 21;
    CanFrame frame{};
    for (int i = 0; i < kFrames; ++i) {
        ASSERT_TRUE(bus.waitForSent(&frame, kDeadline));
        EXPECT_NE(frame.identifier, kSearchReplyId);
        EXPECT_NE(frame.identifier, kRequestReplyId);
    }
    // The 21st frame is due 20 intervals of 5 ms after the first; a loaded machine can only be later.
    EXPECT_GE(Clock::now() - started, std::chrono::milliseconds(100));
}

TEST_F(RunningModule, StopsWhenAsked) {
    start(ModuleConfig{});
    EXPECT_EQ(exchange(extended(0, {})).identifier, kSearchReplyId);
    stop.store(true);
    ASSERT_EQ(outcome.wait_for(kDeadline), std::future_status::ready);
    EXPECT_EQ(outcome.get(), RunOutcome::Stopped);
}

TEST(TrafficFrames, NeverLookLikeTheDialogue) {
    ModuleSimulator module{ModuleConfig{}};
    ModuleReaction reaction;
    for (std::uint32_t sequence = 0; sequence < 64; ++sequence) {
        const CanFrame frame = trafficFrame(sequence);
        module.handleFrame(frame, reaction);
        EXPECT_EQ(reaction.kind, FrameKind::Ignored);
        EXPECT_NE(frame.identifier, kRequestId);
        EXPECT_NE(frame.identifier, kSearchReplyId);
        EXPECT_NE(frame.identifier, kRequestReplyId);
    }
}

// ---- command line ----

ParseOutcome parse(std::initializer_list<const char*> arguments, SimSettings& settings, std::string& error) {
    const std::vector<const char*> argv(arguments);
    return parseSimArguments(static_cast<int>(argv.size()), argv.data(), settings, error);
}

TEST(SimOptions, DefaultsAndEveryOption) {
    SimSettings defaults;
    std::string error;
    ASSERT_EQ(parse({"-i", "vcan0"}, defaults, error), ParseOutcome::Run) << error;
    EXPECT_EQ(defaults.interfaceName, "vcan0");
    EXPECT_EQ(defaults.module.address, 0x26);
    EXPECT_EQ(defaults.module.modes, kAllModes);
    EXPECT_EQ(defaults.runner.imagePath, "module-image.bin");

    SimSettings s;
    ASSERT_EQ(parse({"--interface=can1",
                     "--address",
                     "0x80",
                     "--identifier=305419896",
                     "--modes",
                     "iso,global",
                     "--image",
                     "out.bin",
                     "--flash-size",
                     "64",
                     "--once",
                     "-v",
                     "--silent",
                     "--no-erase",
                     "--drop-ack-always",
                     "3",
                     "--delay=1500",
                     "--wrong-data",
                     "search,ack",
                     "--wrong-data=erase",
                     "--traffic",
                     "100"},
                    s, error),
              ParseOutcome::Run)
        << error;
    EXPECT_EQ(s.interfaceName, "can1");
    EXPECT_EQ(s.module.address, 0x80);
    EXPECT_EQ(s.module.identifier, 0x12345678u);
    EXPECT_EQ(s.module.modes, modeBit(ModeIso) | modeBit(ModeGlobal));
    EXPECT_EQ(modeList(s.module.modes), "iso,global");
    EXPECT_EQ(s.runner.imagePath, "out.bin");
    EXPECT_EQ(s.module.flashPages, 4u);
    EXPECT_TRUE(s.runner.once && s.runner.verbose && s.module.faults.silent && s.module.faults.ignoreErase);
    EXPECT_EQ(s.module.faults.dropAck, 3u);
    EXPECT_TRUE(s.module.faults.dropAckAlways);
    EXPECT_EQ(s.module.faults.replyDelayMs, 1500u);
    EXPECT_EQ(s.module.faults.wrongData, WrongAll);
    EXPECT_EQ(s.runner.trafficRate, 100u);
}

TEST(SimOptions, RefusesWithOneLine) {
    const std::vector<std::pair<std::vector<const char*>, std::string>> cases = {
        {{"--bogus", "-i", "can0"}, "unknown option '--bogus'"},
        {{"--once"}, "no CAN interface given (--interface NAME)"},
        {{"-i"}, "option '-i' needs a value"},
        {{"-i", "can0", "--address", "-1"}, "invalid value '-1' for --address (0..255)"},
        {{"-i", "can0", "--modes", "iso,ISO"},
         "invalid mode list 'iso,ISO' (iso, mtcan, new, global, comma-separated)"},
        {{"-i", "can0", "--flash-size", "24"}, "invalid value '24' for --flash-size (a multiple of 16 KiB)"},
        {{"-i", "can0", "--drop-ack", "0"}, "option '--drop-ack' counts from 1"},
        {{"-i", "can0", "--once=yes"}, "option '--once' takes no value"},
    };
    for (const auto& [arguments, message] : cases) {
        SimSettings settings;
        std::string error;
        EXPECT_EQ(parseSimArguments(static_cast<int>(arguments.size()), arguments.data(), settings, error),
                  ParseOutcome::Error);
        EXPECT_EQ(error, message);
    }
    SimSettings settings;
    std::string error;
    EXPECT_EQ(parse({"--bogus", "--help"}, settings, error), ParseOutcome::Error);
    EXPECT_EQ(parse({"--help", "--bogus"}, settings, error), ParseOutcome::Help);
}

}  // namespace
