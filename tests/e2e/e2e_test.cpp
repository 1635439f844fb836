// End to end on a kernel CAN bus: the daemon varnoch and the simulated module varnoch-module-sim as
// processes on can0 (and can1), clients over TCP (varnoch-flash, or the test's own). Every mode ends
// Done with the module holding the file's bytes; the three time-out errors come at their times; late
// replies, a large image with extended address records, two clients watching, the owner aborting.
// Runs through scripts/vcan-vm (ctest -L e2e), which provides can0 and can1.
#include <net/if.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "E2eSupport.h"
#include "FlashTypes.h"

using namespace CANFlasher;
using namespace std::chrono_literals;
using ::testing::ElementsAre;

namespace {

using Seconds = std::chrono::duration<double>;

constexpr std::uint8_t kModuleAddress = 0x26;
constexpr std::uint32_t kModuleIdentifier = 0x12345678;
constexpr char kModuleAddressText[] = "0x26";
constexpr char kModuleIdentifierText[] = "0x12345678";
// The daemon's reply timer; a reply this much later than it arrives after the repeat went out.
constexpr int kReplyTimerMs = 1000;
constexpr int kLateReplyMs = kReplyTimerMs + 100;
// The guest emulates its CPU in software, several times slower than the host, and the machine may be
// busy with builds: every wait is generous.
constexpr std::chrono::milliseconds kStartTimeout = 30s;
constexpr std::chrono::milliseconds kJobTimeout = 60s;
constexpr std::chrono::milliseconds kLargeJobTimeout = 600s;  // ThreadSanitizer builds take 2-3 minutes
constexpr std::uint32_t kLargeImageBytes = 256 * 1024;
// Percentage points the job goes on after another client's reset, to show that it was ignored.
constexpr std::int32_t kProgressWhileIgnored = 5;

constexpr char kDaemonReady[] = "Varnoch is running\n";
constexpr char kModuleReady[] = "varnoch-module-sim: on ";
constexpr std::uint16_t kCommandIdentity = 2;  // the protocol layer's identity packet

struct TimedStatus {
    FlashStatus status;
    Clock::time_point at;
};

bool isFinal(const FlashStatus& status) {
    return status.state == StateDone || status.state >= StateErrDeviceNotFound;
}

// Seconds between the first status in `state` and the last status.
double secondsFrom(const std::vector<TimedStatus>& statuses, std::int32_t state) {
    for (const TimedStatus& entry : statuses) {
        if (entry.status.state == state) {
            return Seconds(statuses.back().at - entry.at).count();
        }
    }
    return -1;
}

// The states in order, repeats folded.
std::vector<std::int32_t> stateSequence(const std::vector<TimedStatus>& statuses) {
    std::vector<std::int32_t> states;
    for (const TimedStatus& entry : statuses) {
        if (states.empty() || states.back() != entry.status.state) {
            states.push_back(entry.status.state);
        }
    }
    return states;
}

void report(const std::string& what, double seconds) {
    std::printf("[ e2e time ] %s: %.2f s\n", what.c_str(), seconds);
    std::fflush(stdout);
}

std::string rangeLine(std::uint32_t lowest, std::uint32_t highest) {
    char line[32];
    std::snprintf(line, sizeof line, "0x%08X 0x%08X\n", static_cast<unsigned>(lowest),
                  static_cast<unsigned>(highest));
    return line;
}

// 256 KiB from 0x10000 on: two 64 KiB blocks behind extended linear address records and two behind
// extended segment address records whose second byte is not zero (the daemon ignores it: 30 55 means
// 0x30000 there, not 0x30550). Record lengths vary, so that writes are split at 4 bytes and at page
// ends and short writes leave the previous message's tail in the frame.
HexFile largeHex() {
    static constexpr std::uint16_t kRecordLengths[] = {32, 7, 16, 29, 1, 19, 200};
    HexFile hex;
    std::uint32_t seed = 12345;
    std::size_t nextLength = 0;
    for (int block = 0; block < 4; ++block) {
        switch (block) {
            case 0:
                hex.extendedLinear(0x0001);
                break;
            case 1:
                hex.extendedLinear(0x0002);
                break;
            case 2:
                hex.extendedSegment(0x30, 0x55);
                break;
            default:
                hex.extendedSegment(0x40, 0xA7);
                break;
        }
        for (std::uint32_t address = 0; address < 0x10000;) {
            const std::uint32_t length = std::min<std::uint32_t>(
                kRecordLengths[nextLength++ % std::size(kRecordLengths)], 0x10000 - address);
            Bytes bytes(length);
            for (std::uint8_t& byte : bytes) {
                seed = seed * 1103515245u + 12345u;
                byte = static_cast<std::uint8_t>(seed >> 16);
            }
            hex.data(static_cast<std::uint16_t>(address), bytes);
            address += length;
        }
    }
    hex.end();
    return hex;
}

// Statuses read until one satisfies `done` (it is included); false when none came in time.
bool readStatuses(DaemonClient& client, const std::function<bool(const FlashStatus&)>& done,
                  std::chrono::milliseconds timeout, std::vector<TimedStatus>& statuses) {
    const auto deadline = Clock::now() + timeout;
    for (;;) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
        const auto packet = client.readPacketOf(CmdStatus, std::max(left, 0ms));
        if (!packet || packet->payload.size() != FlashStatus::kWireSize) {
            return false;
        }
        statuses.push_back({FlashStatus::fromWire(packet->payload.data()), Clock::now()});
        if (done(statuses.back().status)) {
            return true;
        }
    }
}

// Sends CmdUploadHexFile for the module's address and identifier; false when it could not be sent.
bool sendUpload(DaemonClient& client, const std::string& path, FlashMode mode = ModeIsoStyle) {
    // Mode, address, identifier little-endian, then the path with its terminating 0.
    Bytes payload(6 + path.size() + 1, 0);
    payload[0] = static_cast<std::uint8_t>(mode);
    payload[1] = kModuleAddress;
    for (int i = 0; i < 4; ++i) {
        payload[2 + i] = static_cast<std::uint8_t>(kModuleIdentifier >> (8 * i));
    }
    std::copy(path.begin(), path.end(), payload.begin() + 6);
    return client.sendPacket(CmdUploadHexFile, payload);
}

// One CAN bus with the daemon and the module on it, and a folder for their files. It reports by its
// results rather than by test assertions, so that a run in the background can use it too.
class Bench {
  public:
    explicit Bench(int busIndex) : busIndex_(busIndex), bus_("can" + std::to_string(busIndex)) {}

    const std::string& bus() const { return bus_; }
    const TempFolder& folder() const { return folder_; }
    int port() const { return port_; }
    ChildProcess& daemon() { return *daemon_; }
    ChildProcess& module() { return *module_; }
    std::string imagePath() const { return folder_.path() + "/module-image.bin"; }

    // The daemon on this bus, on a free port; false when it did not come up (its output says why).
    bool startDaemon() {
        port_ = freePort();
        daemon_ = std::make_unique<ChildProcess>(std::vector<std::string>{
            VARNOCH_DAEMON, "-n", "-i", std::to_string(busIndex_), "-p", std::to_string(port_)});
        return daemon().waitForOutput(kDaemonReady, 1, kStartTimeout);
    }

    // The module on this bus, saving its image in the folder; `options` appended.
    bool startModule(const std::vector<std::string>& options) {
        std::vector<std::string> argv{VARNOCH_MODULE_SIM, "--interface",  bus_,
                                      "--image",          imagePath(),    "--address",
                                      kModuleAddressText, "--identifier", kModuleIdentifierText};
        argv.insert(argv.end(), options.begin(), options.end());
        module_ = std::make_unique<ChildProcess>(argv);
        return module().waitForOutput(kModuleReady, 1, kStartTimeout);
    }

    // A client whose identity packet has come, so the daemon counts it; null when that failed.
    std::unique_ptr<DaemonClient> connect() const {
        auto client = std::make_unique<DaemonClient>(port_);
        if (!client->connected() || !client->readPacketOf(kCommandIdentity, kStartTimeout)) {
            return nullptr;
        }
        return client;
    }

    // Empty when the module (started with --once) has ended after the upload and saved `expected` as
    // the bytes from `lowest` on; otherwise what is wrong.
    std::string imageProblem(const Bytes& expected, std::uint32_t lowest) {
        if (const int status = module().exitStatus(kStartTimeout); status != 0) {
            return "the module did not end in order after the upload (status " + std::to_string(status) + ")";
        }
        const Bytes image = readFile(imagePath());
        const auto [got, want] = std::mismatch(image.begin(), image.end(), expected.begin(), expected.end());
        if (got != image.end() || want != expected.end()) {
            char text[160];
            std::snprintf(text, sizeof text,
                          "the module's image (%zu bytes) differs from the file's (%zu) first at 0x%08X",
                          image.size(), expected.size(),
                          static_cast<unsigned>(lowest + (got - image.begin())));
            return text;
        }
        const Bytes range = readFile(imagePath() + ".range");
        const std::string expectedRange =
            rangeLine(lowest, lowest + static_cast<std::uint32_t>(expected.size()) - 1);
        if (std::string(range.begin(), range.end()) != expectedRange) {
            return "the module's address range is " + std::string(range.begin(), range.end()) + ", not " +
                   expectedRange;
        }
        return {};
    }

    // The end of the daemon's and the module's output, for a failed test.
    void printOutputs() {
        for (const auto& [name, process] : {std::pair{"varnoch", daemon_.get()}, {"module", module_.get()}}) {
            if (process != nullptr) {
                const std::string text = process->output();
                constexpr std::size_t kTail = 4000;
                std::printf("---- %s on %s, output (end) ----\n%s\n", name, bus_.c_str(),
                            text.substr(text.size() > kTail ? text.size() - kTail : 0).c_str());
            }
        }
    }

  private:
    int busIndex_;
    std::string bus_;
    TempFolder folder_;
    int port_ = 0;
    std::unique_ptr<ChildProcess> daemon_;
    std::unique_ptr<ChildProcess> module_;
};

// The cases on can0, one after the other.
class EndToEnd : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_NE(if_nametoindex(bench_.bus().c_str()), 0u)
            << "there is no CAN interface " << bench_.bus() << " here: run this through scripts/vcan-vm "
            << "(ctest -L e2e does)";
    }

    void TearDown() override {
        if (HasFailure()) {
            bench_.printOutputs();
        }
    }

    void startDaemon() { ASSERT_TRUE(bench_.startDaemon()) << bench_.daemon().output(); }
    void startModule(const std::vector<std::string>& options) {
        ASSERT_TRUE(bench_.startModule(options)) << bench_.module().output();
    }
    std::unique_ptr<DaemonClient> connect() {
        auto client = bench_.connect();
        EXPECT_TRUE(client) << "cannot connect to the daemon";
        return client ? std::move(client) : std::make_unique<DaemonClient>(bench_.port());
    }
    static void requestUpload(DaemonClient& client, const std::string& path, FlashMode mode = ModeIsoStyle) {
        ASSERT_TRUE(sendUpload(client, path, mode));
    }
    // Statuses until one satisfies `done` (included); fails the test when none does in time.
    static std::vector<TimedStatus> statusesUntil(DaemonClient& client,
                                                  const std::function<bool(const FlashStatus&)>& done,
                                                  std::chrono::milliseconds timeout) {
        std::vector<TimedStatus> statuses;
        EXPECT_TRUE(readStatuses(client, done, timeout, statuses))
            << "no further status: " << client.failure() << "; last state "
            << (statuses.empty() ? -1 : statuses.back().status.state);
        return statuses;
    }
    static std::vector<TimedStatus> statusesUntilEnd(DaemonClient& client,
                                                     std::chrono::milliseconds timeout = kJobTimeout) {
        return statusesUntil(client, isFinal, timeout);
    }
    void expectModuleImage(const Bytes& expected, std::uint32_t lowest) {
        EXPECT_EQ(bench_.imageProblem(expected, lowest), "");
    }
    // objcopy's reading of the sample firmware (made by the build), which starts at its origin.
    static Bytes sampleImage() { return readFile(VARNOCH_SAMPLE_BIN); }

    ChildProcess& daemon() { return bench_.daemon(); }
    ChildProcess& module() { return bench_.module(); }

    Bench bench_{0};
};

// ---------------------------------------------------------------------------------------------
// Uploads that succeed

struct ModeCase {
    const char* name;  // as varnoch-flash and varnoch-module-sim spell it
    FlashMode mode;
};

void PrintTo(const ModeCase& mode, std::ostream* out) {
    *out << mode.name;
}

class EveryMode : public EndToEnd, public ::testing::WithParamInterface<ModeCase> {};

// The real client; the module answers this dialect only, so a wrong search frame would fail.
TEST_P(EveryMode, SampleFirmwareEndsDoneAndTheModuleHoldsItsBytes) {
    const ModeCase& mode = GetParam();
    ASSERT_NO_FATAL_FAILURE(startModule({"--once", "--modes", mode.name}));
    ASSERT_NO_FATAL_FAILURE(startDaemon());

    const auto started = Clock::now();
    ChildProcess client({VARNOCH_FLASH_CLIENT, "--port", std::to_string(bench_.port()), "--json", "upload",
                         VARNOCH_SAMPLE_HEX, "--mode", mode.name, "--address", kModuleAddressText,
                         "--identifier", kModuleIdentifierText});
    ASSERT_EQ(client.exitStatus(kJobTimeout), 0) << client.output();
    report(std::string("upload of the sample firmware, mode ") + mode.name,
           Seconds(Clock::now() - started).count());

    // One JSON object per line: collect the state and progress of each.
    std::vector<std::int32_t> states;
    std::vector<std::int32_t> progress;
    const std::string output = client.output();
    for (std::size_t at = output.find("\"state\":"); at != std::string::npos;
         at = output.find("\"state\":", at + 1)) {
        const std::int32_t state = std::atoi(output.c_str() + at + 8);
        if (states.empty() || states.back() != state) {
            states.push_back(state);
        }
        const std::size_t percent = output.find("\"progress\":", at);
        ASSERT_NE(percent, std::string::npos);
        if (state == StateProgramming) {
            progress.push_back(std::atoi(output.c_str() + percent + 11));
        }
    }
    if (!states.empty() && states.front() == StateIdle) {
        states.erase(states.begin());  // the client's look at the job before it asks for the upload
    }
    EXPECT_THAT(states,
                ElementsAre(StatePreparing, StateSearching, StateErasing, StateProgramming, StateDone))
        << output;
    EXPECT_TRUE(std::is_sorted(progress.begin(), progress.end()) &&
                std::adjacent_find(progress.begin(), progress.end()) == progress.end())
        << output;
    EXPECT_NE(output.find("\"mode\":" + std::to_string(mode.mode) + ",\"state\":6,"), std::string::npos);

    EXPECT_EQ(daemon().exitStatus(kStartTimeout), 0) << "the daemon ends when its last client has left";
    expectModuleImage(sampleImage(), VARNOCH_SAMPLE_ORIGIN);
}

INSTANTIATE_TEST_SUITE_P(Modes, EveryMode,
                         ::testing::Values(ModeCase{"iso", ModeIsoStyle}, ModeCase{"mtcan", ModeMtCan},
                                           ModeCase{"new", ModeNewModule}, ModeCase{"global", ModeGlobal}),
                         [](const ::testing::TestParamInfo<ModeCase>& param) { return param.param.name; });

// Every reply comes a little after the reply timer: each request is repeated once, the late reply is
// still taken, and the module copes with the repeats.
TEST_F(EndToEnd, LateRepliesStillEndDone) {
    HexFile hex;
    hex.extendedLinear(0x0000);
    hex.data(0x1000, {0x11, 0x22, 0x33, 0x44});
    hex.data(0x1004, {0x55, 0x66, 0x77});
    hex.end();
    const std::string path = bench_.folder().write("small.hex", hex.text());
    ASSERT_NO_FATAL_FAILURE(startModule({"--once", "--delay", std::to_string(kLateReplyMs)}));
    ASSERT_NO_FATAL_FAILURE(startDaemon());
    auto client = connect();

    ASSERT_NO_FATAL_FAILURE(requestUpload(*client, path));
    const auto statuses = statusesUntilEnd(*client);
    ASSERT_FALSE(statuses.empty());
    EXPECT_EQ(statuses.back().status.state, StateDone);
    report("upload with replies " + std::to_string(kLateReplyMs) + " ms late",
           secondsFrom(statuses, StatePreparing));
    EXPECT_GE(daemon().count("CANFlasherServer::handleTimeout() Mode 0\n"), 1) << "no reply was late";

    client->close();
    EXPECT_EQ(daemon().exitStatus(kStartTimeout), 0);
    expectModuleImage(hex.image(), hex.lowest());
}

// ---------------------------------------------------------------------------------------------
// Time-out errors: each request is repeated every second until the step's repeats run out.

struct ErrorCase {
    const char* name;
    const char* fault;  // the module's fault switch
    const char* faultArgument;
    std::int32_t from;  // the state whose first report starts the clock
    std::int32_t error;
    double nominalSeconds;  // from that report to the error
    const char* withheld;   // the module's verbose line for each unanswered request
    int requests;
};

void PrintTo(const ErrorCase& error, std::ostream* out) {
    *out << error.name;
}

class TimeoutError : public EndToEnd, public ::testing::WithParamInterface<ErrorCase> {};

TEST_P(TimeoutError, ComesAfterTheRepeatsAtOneSecondIntervals) {
    const ErrorCase& error = GetParam();
    std::vector<std::string> options{"--verbose", error.fault};
    if (error.faultArgument != nullptr) {
        options.emplace_back(error.faultArgument);
    }
    ASSERT_NO_FATAL_FAILURE(startModule(options));
    ASSERT_NO_FATAL_FAILURE(startDaemon());
    auto client = connect();

    ASSERT_NO_FATAL_FAILURE(requestUpload(*client, VARNOCH_SAMPLE_HEX));
    const auto statuses = statusesUntilEnd(*client);
    ASSERT_FALSE(statuses.empty());
    EXPECT_EQ(statuses.back().status.state, error.error) << stateName(statuses.back().status.state);
    const double seconds = secondsFrom(statuses, error.from);
    report(std::string(error.name) + ": \"" + stateName(error.from) + "\" to error " +
               std::to_string(error.error),
           seconds);
    // Timers never fire early; a late start of the clock (the report travels to us) is allowed a little.
    EXPECT_GE(seconds, error.nominalSeconds - 1.0);
    EXPECT_LE(seconds, error.nominalSeconds * 2.0);
    // The module's verbose lines sit in its output buffer until it ends.
    EXPECT_EQ(module().terminate(kStartTimeout), 0);
    EXPECT_EQ(module().count(error.withheld), error.requests);

    client->close();
    EXPECT_EQ(daemon().exitStatus(kStartTimeout), 0);
}

INSTANTIATE_TEST_SUITE_P(
    Errors, TimeoutError,
    ::testing::Values(ErrorCase{"DeviceNotFound", "--silent", nullptr, StateSearching, StateErrDeviceNotFound,
                                6.0, ": search (reply withheld)\n", 6},
                      ErrorCase{"EraseTimeout", "--no-erase", nullptr, StateErasing, StateErrEraseTimeout,
                                4.0, ": erase (reply withheld)\n", 4},
                      ErrorCase{"ResponseTimeout", "--drop-ack-always", "1", StateProgramming,
                                StateErrResponseTimeout, 4.0, ": select page (reply withheld)\n", 4}),
    [](const ::testing::TestParamInfo<ErrorCase>& param) { return param.param.name; });

// ---------------------------------------------------------------------------------------------
// Several clients

TEST_F(EndToEnd, TwoClientsSeeTheSameStatusSequence) {
    ASSERT_NO_FATAL_FAILURE(startModule({"--once"}));
    ASSERT_NO_FATAL_FAILURE(startDaemon());
    auto watcher = connect();
    auto owner = connect();

    ASSERT_NO_FATAL_FAILURE(requestUpload(*owner, VARNOCH_SAMPLE_HEX));
    const auto seenByOwner = statusesUntilEnd(*owner);
    const auto seenByWatcher = statusesUntilEnd(*watcher);
    ASSERT_FALSE(seenByOwner.empty());
    EXPECT_EQ(seenByOwner.back().status.state, StateDone);
    ASSERT_EQ(seenByOwner.size(), seenByWatcher.size());
    for (std::size_t i = 0; i < seenByOwner.size(); ++i) {
        Bytes ownerWire(FlashStatus::kWireSize);
        Bytes watcherWire(FlashStatus::kWireSize);
        seenByOwner[i].status.toWire(ownerWire.data());
        seenByWatcher[i].status.toWire(watcherWire.data());
        EXPECT_EQ(ownerWire, watcherWire) << "status " << i;
    }

    owner->close();
    watcher->close();
    EXPECT_EQ(daemon().exitStatus(kStartTimeout), 0);
    expectModuleImage(sampleImage(), VARNOCH_SAMPLE_ORIGIN);
}

// The other client's reset does not stop a running job; the owner's does, and both see Idle.
TEST_F(EndToEnd, OwnerAbortsMidUpload) {
    const std::string path = bench_.folder().write("large.hex", largeHex().text());
    ASSERT_NO_FATAL_FAILURE(startModule({}));
    ASSERT_NO_FATAL_FAILURE(startDaemon());
    auto watcher = connect();
    auto owner = connect();

    ASSERT_NO_FATAL_FAILURE(requestUpload(*owner, path));
    const auto isProgrammingFrom = [](std::int32_t percent) {
        return [percent](const FlashStatus& status) {
            return status.state == StateIdle || isFinal(status) ||
                   (status.state == StateProgramming && status.progress >= percent);
        };
    };
    auto statuses = statusesUntil(*owner, isProgrammingFrom(1), kJobTimeout);
    ASSERT_FALSE(statuses.empty());
    ASSERT_EQ(statuses.back().status.state, StateProgramming);
    ASSERT_TRUE(watcher->sendPacket(CmdReset, {}));
    const std::int32_t ignoredAt = statuses.back().status.progress;
    statuses = statusesUntil(*owner, isProgrammingFrom(ignoredAt + kProgressWhileIgnored), kJobTimeout);
    ASSERT_FALSE(statuses.empty());
    ASSERT_EQ(statuses.back().status.state, StateProgramming) << "the watcher's reset was not ignored";

    ASSERT_TRUE(owner->sendPacket(CmdReset, {}));
    const auto isIdle = [](const FlashStatus& status) { return status.state == StateIdle; };
    statusesUntil(*owner, isIdle, kJobTimeout);
    const auto watcherSaw = statusesUntil(*watcher, isIdle, kJobTimeout);
    ASSERT_FALSE(watcherSaw.empty());
    EXPECT_THAT(stateSequence(watcherSaw),
                ElementsAre(StatePreparing, StateSearching, StateErasing, StateProgramming, StateIdle));
    EXPECT_LT(watcherSaw[watcherSaw.size() - 2].status.progress, 100);

    // The job stays aborted: late acknowledgements and time-outs bring no Done.
    ASSERT_TRUE(watcher->sendPacket(CmdRequestStatus, {}));
    for (const TimedStatus& entry : statusesUntil(*watcher, isIdle, kJobTimeout)) {
        EXPECT_NE(entry.status.state, StateDone);
    }

    owner->close();
    watcher->close();
    EXPECT_EQ(daemon().exitStatus(kStartTimeout), 0);
}

// ---------------------------------------------------------------------------------------------
// The large image, on can1 alongside the rest

// The 256 KiB upload is the longest case by far in the emulated guest, while the time-out cases mostly
// wait; so it starts on can1 before the first test and runs beside the cases on can0. Its test comes
// last and checks what the run saw.
class LargeUploadOnCan1 : public ::testing::Environment {
  public:
    static constexpr int kBusIndex = 1;

    struct Outcome {
        std::string problem;  // why the run stopped short; empty when it got to the end
        std::vector<TimedStatus> statuses;
        int daemonStatus = ChildProcess::kNoStatus;
        std::string imageProblem;
    };

    void SetUp() override {
        if (selected()) {
            thread_ = std::thread([this] { run(); });
        }
    }
    void TearDown() override { join(); }

    // Waits for the run to end.
    const Outcome& outcome() {
        join();
        return outcome_;
    }
    Bench& bench() { return bench_; }

  private:
    // Only when its test is to run, so that a filtered run does not pay for it.
    static bool selected() {
        const ::testing::UnitTest& tests = *::testing::UnitTest::GetInstance();
        for (int i = 0; i < tests.total_test_suite_count(); ++i) {
            const ::testing::TestSuite& suite = *tests.GetTestSuite(i);
            for (int j = 0; j < suite.total_test_count(); ++j) {
                if (suite.GetTestInfo(j)->should_run() &&
                    std::string(suite.name()).find("LargeUpload") != std::string::npos) {
                    return true;
                }
            }
        }
        return false;
    }

    void join() {
        if (thread_.joinable()) {
            thread_.join();
        }
    }

    void run() {
        const HexFile hex = largeHex();
        const std::string path = bench_.folder().write("large.hex", hex.text());
        if (!bench_.startModule({"--once"}) || !bench_.startDaemon()) {
            outcome_.problem = "the module or the daemon did not start on " + bench_.bus();
            return;
        }
        auto client = bench_.connect();
        if (!client || !sendUpload(*client, path)) {
            outcome_.problem = "cannot ask the daemon for the upload";
            return;
        }
        if (!readStatuses(*client, isFinal, kLargeJobTimeout, outcome_.statuses)) {
            outcome_.problem = "the job did not end: " + client->failure();
            return;
        }
        client->close();
        outcome_.daemonStatus = bench_.daemon().exitStatus(kStartTimeout);
        outcome_.imageProblem = bench_.imageProblem(hex.image(), hex.lowest());
    }

    Bench bench_{kBusIndex};
    Outcome outcome_;
    std::thread thread_;
};

// gtest owns and deletes the environment.
LargeUploadOnCan1* const largeUpload =
    static_cast<LargeUploadOnCan1*>(::testing::AddGlobalTestEnvironment(new LargeUploadOnCan1));

// Parameterised so that it is registered after, and so runs after, the other cases.
class LargeUpload : public ::testing::TestWithParam<int> {};

TEST_P(LargeUpload, ImageWithExtendedAddressRecordsArrivesByteForByte) {
    ASSERT_EQ(largeHex().image().size(), kLargeImageBytes);
    const auto& run = largeUpload->outcome();
    if (!run.problem.empty() || run.statuses.empty()) {
        largeUpload->bench().printOutputs();
        FAIL() << run.problem << "; " << run.statuses.size() << " statuses, the last in state "
               << (run.statuses.empty() ? -1 : run.statuses.back().status.state);
    }
    EXPECT_EQ(run.statuses.back().status.state, StateDone);
    report("upload of 256 KiB on can1", secondsFrom(run.statuses, StatePreparing));
    // One report per percentage point reached, never the same twice.
    std::vector<std::int32_t> progress;
    for (const TimedStatus& entry : run.statuses) {
        if (entry.status.state == StateProgramming && entry.status.progress > 0) {
            progress.push_back(entry.status.progress);
        }
    }
    EXPECT_EQ(progress.size(), 99u);
    EXPECT_TRUE(std::is_sorted(progress.begin(), progress.end()));
    EXPECT_EQ(run.daemonStatus, 0);
    EXPECT_EQ(run.imageProblem, "");
    if (HasFailure()) {
        largeUpload->bench().printOutputs();
    }
}

INSTANTIATE_TEST_SUITE_P(Background, LargeUpload, ::testing::Values(LargeUploadOnCan1::kBusIndex),
                         [](const ::testing::TestParamInfo<int>& bus) {
                             return "can" + std::to_string(bus.param);
                         });

}  // namespace
