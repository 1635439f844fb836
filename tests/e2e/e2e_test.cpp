// End to end on a kernel CAN bus (can0, given by scripts/vcan-vm; ctest -L e2e runs it): the daemon
// varnoch, varnoch-module-sim and clients (varnoch-flash, or the test's own) as processes; two uploads
// under bus faults (a flood of error and remote frames, SIGTERM mid-upload) also carry ctest's label faults.
#include <linux/can.h>
#include <linux/can/error.h>
#include <net/if.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gmock/gmock.h>

#include <atomic>
#include <csignal>
#include <cstdio>
#include <iterator>
#include <memory>
#include <optional>
#include <sstream>
#include <thread>

#include "DaemonTest.h"
#include "HexRecords.h"
#include "JsonSchema.h"
#include "varnoch/protocol/FlashTypes.h"

using namespace CANFlasher;
using ::testing::ElementsAre;
using Millis = std::chrono::milliseconds;

namespace {

// The guest emulates its CPU and the machine may be busy: waits that end early when all is well.
constexpr Millis kWait{30000};
constexpr std::uint8_t kAddress = 0x26;
constexpr std::uint32_t kIdentifier = 0x12345678;
constexpr const char* kModeNames[] = {"iso", "mtcan", "new", "global"};  // by FlashMode
constexpr Millis kJobTimeout{60000};
constexpr Millis kLargeJobTimeout{600000};  // ThreadSanitizer builds take minutes
constexpr std::size_t kBlock = 0x10000;     // the large image: 4 blocks from kBlock on

// 16 bytes across the page boundary at 0x4000, then 3 bytes after a gap that stays erased.
constexpr char kSmallHex[] = ":103FF800000102030405060708090A0B0C0D0E0F41\n:03401000A1B2C397\n:00000001FF\n";
constexpr std::uint32_t kSmallOrigin = 0x3FF8;
const Bytes kSmallImage{0,  1,  2,    3,    4,    5,    6,    7,    8,    9,    10,   11,   12,  13,
                        14, 15, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xA1, 0xB2, 0xC3};

struct Seen {
    FlashStatus status;
    Bytes wire;
    Clock::time_point at;
    bool operator==(const Seen& other) const { return wire == other.wire; }
};

bool isFinal(const FlashStatus& status) {
    return status.state == StateDone || status.state >= StateErrDeviceNotFound;
}

// Statuses until one satisfies `done` (included), or as many as came in time.
template <typename Done>
std::vector<Seen> statusesUntil(TestClient& client, Done done, Millis timeout = kJobTimeout) {
    std::vector<Seen> seen;
    const auto deadline = Clock::now() + timeout;
    while (seen.empty() || !done(seen.back().status)) {
        const auto packet =
            client.readPacketOf(CmdStatus, std::chrono::duration_cast<Millis>(deadline - Clock::now()));
        if (!packet || packet->payload.size() != FlashStatus::kWireSize) {
            break;
        }
        seen.push_back({FlashStatus::fromWire(packet->payload.data()), packet->payload, Clock::now()});
    }
    return seen;
}

// The states, repeats folded and leading Idle (answers to a client's status request) dropped.
std::vector<std::int32_t> statesOf(const std::vector<Seen>& seen) {
    std::vector<std::int32_t> states;
    for (const Seen& entry : seen) {
        if (states.empty() ? entry.status.state != StateIdle : states.back() != entry.status.state) {
            states.push_back(entry.status.state);
        }
    }
    return states;
}

// Seconds from the first status in `state` to the last status; -1 without one in `state`.
double secondsFrom(const std::vector<Seen>& seen, std::int32_t state) {
    for (const Seen& entry : seen) {
        if (entry.status.state == state) {
            return std::chrono::duration<double>(seen.back().at - entry.at).count();
        }
    }
    return -1;
}

// 256 KiB into `image`, as hex text: two 64 KiB blocks behind extended linear address records, two
// behind extended segment address records whose second byte the daemon ignores on purpose (30 55
// means 0x30000 there). Varied record lengths split writes at 4 bytes and at page ends.
std::string largeHex(Bytes& image) {
    static constexpr std::uint8_t kBases[4][3] = {
        {4, 0x00, 0x01}, {4, 0x00, 0x02}, {2, 0x30, 0x55}, {2, 0x40, 0xA7}};
    static constexpr std::size_t kLengths[] = {32, 7, 16, 29, 1, 19, 200};
    image.resize(4 * kBlock);
    std::uint32_t seed = 12345;
    for (std::uint8_t& byte : image) {
        seed = seed * 1103515245u + 12345u;
        byte = static_cast<std::uint8_t>(seed >> 16);
    }
    std::string text;
    for (std::size_t block = 0, next = 0; block < 4; ++block) {
        text += hexRecord(kBases[block][0], 0, {kBases[block][1], kBases[block][2]});
        for (std::size_t at = 0; at < kBlock;) {
            const std::size_t length = std::min(kLengths[next++ % std::size(kLengths)], kBlock - at);
            const auto from = image.begin() + static_cast<std::ptrdiff_t>(block * kBlock + at);
            text += hexRecord(0, static_cast<std::uint16_t>(at),
                              Bytes(from, from + static_cast<std::ptrdiff_t>(length)));
            at += length;
        }
    }
    return text + hexRecord(1, 0, {});
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
              address.can_ifindex = static_cast<int>(if_nametoindex("can0"));
              if (bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
                  ADD_FAILURE() << "no raw socket on can0";
                  stop_ = true;
              }
              // When the machine cannot keep up the flood falls behind rather than burst.
              for (auto tick = Clock::now(); !stop_; std::this_thread::sleep_until(tick)) {
                  const std::uint32_t i = sent_;
                  can_frame frame{};
                  frame.len = i % 3 == 2 ? 2 : CAN_ERR_DLC;
                  frame.can_id = i % 3 == 0   ? CAN_ERR_FLAG | CAN_ERR_CRTL
                                 : i % 3 == 1 ? CAN_ERR_FLAG | CAN_ERR_PROT | CAN_ERR_BUSERROR
                                              : CAN_EFF_FLAG | CAN_RTR_FLAG | (i % 2 == 0 ? 0x84 : 0x1C4);
                  frame.data[1] = i % 3 == 0 ? CAN_ERR_CRTL_RX_WARNING : 0;
                  frame.data[2] = i % 3 == 1 ? CAN_ERR_PROT_BIT : 0;
                  sent_ += write(fd, &frame, sizeof frame) == sizeof frame ? 1 : 0;
                  tick = std::max(tick + std::chrono::microseconds(500), Clock::now() - Millis(100));
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

// The module and the daemon on can0, with a folder for their files and logs.
class EndToEnd : public DaemonTest {
  protected:
    std::unique_ptr<ChildProcess> run(const std::vector<std::string>& command) const {
        return std::make_unique<ChildProcess>(folder_.path(), command);
    }

    // The module with `options` (split at blanks), then the daemon, on can0.
    void start(const std::string& options) {
        std::istringstream words("--interface can0 --address " + std::to_string(kAddress) + " --identifier " +
                                 std::to_string(kIdentifier) + " " + options);
        std::vector<std::string> argv{VARNOCH_MODULE_SIM, "--image", folder_.path("image.bin")};
        argv.insert(argv.end(), std::istream_iterator<std::string>(words), {});
        module_ = run(argv);
        ASSERT_TRUE(module_->waitFor("varnoch-module-sim: on ", 1, kWait));
        startDaemon({"-i", "0"}, kWait);
    }

    // A watcher, then an owner asking for the 256 KiB upload.
    void startLargeUpload(const std::string& options) {
        const std::string hex = folder_.write("large.hex", largeHex(largeImage_));
        ASSERT_NO_FATAL_FAILURE(start(options));
        watcher_ = connect(kWait);
        owner_ = connect(kWait);
        ASSERT_TRUE(
            owner_->sendPacket(CmdUploadHexFile, uploadPayload(ModeIsoStyle, kAddress, kIdentifier, hex)));
    }

    // The module (started with --once) ends after the upload, having saved `expected` from `origin` on.
    void expectImage(const Bytes& expected, std::uint32_t origin) {
        EXPECT_EQ(module_->exitStatus(kWait), 0) << "the module did not end after the upload";
        const std::string image = folder_.read("image.bin");
        EXPECT_TRUE(image == std::string(expected.begin(), expected.end())) << image.size() << " bytes";
        char range[32];
        std::snprintf(range, sizeof range, "0x%08X 0x%08X\n", origin,
                      origin + static_cast<std::uint32_t>(expected.size()) - 1);
        EXPECT_EQ(folder_.read("image.bin.range"), range);
    }

    std::unique_ptr<ChildProcess> module_;
    std::unique_ptr<TestClient> watcher_;
    std::unique_ptr<TestClient> owner_;
    Bytes largeImage_;
};

// varnoch-flash as the owner, the test's client watching, varnoch-trace too. Time-out errors come after the
// step's repeats at one-second intervals.
struct Case {
    const char* name;
    FlashMode mode;
    const char* module;  // its options
    bool small;          // kSmallHex rather than the sample firmware
    std::int32_t final;
    int exitStatus;                    // varnoch-flash's
    const char* daemonSays = nullptr;  // proves a repeat happened
    std::int32_t clockFrom = StatePreparing;
    double seconds = 0;
    const char* finding = nullptr;  // in varnoch-trace's summary
    bool flood = false;             // of error and remote frames, from before the upload to the daemon's end
};

class Upload : public EndToEnd, public ::testing::WithParamInterface<Case> {};

TEST_P(Upload, EndsAsExpected) {
    const Case& c = GetParam();
    ASSERT_NO_FATAL_FAILURE(start(c.module));
    std::optional<Flood> flood;
    if (c.flood) {
        flood.emplace();
        ASSERT_TRUE(waitUntil([&] { return flood->sent_ >= 300; }, kWait));
    }
    watcher_ = connect(kWait);
    const auto trace = run({VARNOCH_TRACE, "watch", "can0"});
    ASSERT_TRUE(trace->waitFor("varnoch-trace: watching can0", 1, kWait));
    const auto flash = run({VARNOCH_FLASH_CLIENT, "--json", "--port", std::to_string(port_), "upload",
                            c.small ? folder_.write("small.hex", kSmallHex) : VARNOCH_SAMPLE_HEX, "--mode",
                            kModeNames[c.mode], "--address", std::to_string(kAddress), "--identifier",
                            std::to_string(kIdentifier)});
    const auto seen = statusesUntil(*watcher_, isFinal);
    EXPECT_EQ(flash->exitStatus(kJobTimeout), c.exitStatus);
    // Every line meets docs/json-events.schema.json; the last is the result.
    const std::string printed = flash->output();
    EXPECT_EQ(jsonschema::checkLines(printed), "");
    EXPECT_THAT(printed, ::testing::ContainsRegex("\"event\":\"result\",.*\"exitStatus\":" +
                                                  std::to_string(c.exitStatus) + ",[^\n]*\n$"));
    ASSERT_FALSE(seen.empty());
    EXPECT_EQ(seen.back().status.state, c.final);
    EXPECT_EQ(seen.back().status.mode, c.mode);
    if (c.final == StateDone) {
        EXPECT_THAT(statesOf(seen),
                    ElementsAre(StatePreparing, StateSearching, StateErasing, StateProgramming, StateDone));
        const std::string sample = readText(VARNOCH_SAMPLE_BIN);
        expectImage(c.small ? kSmallImage : Bytes(sample.begin(), sample.end()),
                    c.small ? kSmallOrigin : VARNOCH_SAMPLE_ORIGIN);
        if (c.small) {  // the client's reading of the file foretold the image (sha256sum of kSmallImage)
            EXPECT_THAT(printed, ::testing::HasSubstr("\"sha256\":\"c03838efa0d624dd5621a6043b50d1486"
                                                      "1b510335fb9d262584d7be0133ce2b6\""));
        }
    } else {
        // Timers never fire early; the report's trip to us may start the clock a little late.
        EXPECT_THAT(secondsFrom(seen, c.clockFrom),
                    ::testing::AllOf(::testing::Ge(c.seconds - 1.0), ::testing::Le(c.seconds * 2.0)));
    }
    watcher_->close();
    EXPECT_EQ(daemon_->exitStatus(kWait), 0) << "the daemon ends when its last client has left";
    EXPECT_TRUE(c.daemonSays == nullptr || daemon_->count(c.daemonSays) > 0) << c.daemonSays;
    EXPECT_TRUE(trace->signal(SIGINT));  // as a user ends the watch
    EXPECT_EQ(trace->exitStatus(kWait), 0);
    EXPECT_THAT(trace->output(), ::testing::HasSubstr(c.finding));
}

INSTANTIATE_TEST_SUITE_P(
    Table, Upload,
    ::testing::Values(
        // An error frame's only trace on the daemon's console is an empty line.
        Case{"isoUnderTrafficAndFlood", ModeIsoStyle, "--once --modes iso --traffic 500", false, StateDone, 0,
             "\n\n", StatePreparing, 0, "  finding:     unrelated frames: ", true},
        Case{"mtcan", ModeMtCan, "--once --modes mtcan --drop-ack 3", false, StateDone, 0,
             "CANFlasherServer::handleTimeout() Mode 1\n", StatePreparing, 0,
             "  finding:     unanswered requests: 1\n"},
        Case{"new", ModeNewModule, "--once --modes new", false, StateDone, 0, nullptr, StatePreparing, 0,
             "  ended:       Done\n  finding:     none\n"},
        Case{"global", ModeGlobal, "--once --modes global", false, StateDone, 0, nullptr, StatePreparing, 0,
             "  dialect:     \"Global\"\n"},
        Case{"LateReplies", ModeIsoStyle, "--once --delay 1100", true, StateDone, 0,
             "CANFlasherServer::handleTimeout() Mode 0\n", StatePreparing, 0,
             "  finding:     replies after 1 s: "},
        Case{"DeviceNotFound", ModeIsoStyle, "--verbose --silent", false, StateErrDeviceNotFound, 10, nullptr,
             StateSearching, 6.0,
             "  ended:       Error! Device not found. (6x search \"ISO Style\", address 0x26 without a "
             "reply)\n"},
        Case{"EraseTimeout", ModeIsoStyle, "--verbose --no-erase", false, StateErrEraseTimeout, 11, nullptr,
             StateErasing, 4.0,
             "  ended:       Error! Timed out while waiting for FLASH erase. (4x erase without a reply"},
        Case{"ResponseTimeout", ModeIsoStyle, "--verbose --drop-ack-always 1", false, StateErrResponseTimeout,
             12, nullptr, StateProgramming, 4.0,
             "  ended:       Error! Timed out while waiting for response. (4x page select 2 without a reply"},
        Case{"WrongData", ModeIsoStyle, "--verbose --wrong-data erase", false, StateErrEraseTimeout, 11,
             nullptr, StateErasing, 4.0, "  finding:     wrong replies: 4\n"}),
    [](const ::testing::TestParamInfo<Case>& c) { return c.param.name; });

// The client library's example program (examples/upload.cpp) as the only client.
TEST_F(EndToEnd, ClientLibraryExampleFlashesTheModule) {
    ASSERT_NO_FATAL_FAILURE(start("--once --modes iso"));
    const auto example = run({VARNOCH_EXAMPLE_UPLOAD, folder_.write("small.hex", kSmallHex),
                              std::to_string(kAddress), std::to_string(port_)});
    EXPECT_EQ(example->exitStatus(kJobTimeout), 0);
    const std::string printed = example->output();
    // Progress lines, then the time spent in each state, then the final state.
    EXPECT_THAT(printed, ::testing::HasSubstr("\nDone                   100%\n"));
    EXPECT_THAT(printed, ::testing::ContainsRegex("\n  Programming +[0-9]+ ms\n"));
    EXPECT_THAT(printed, ::testing::EndsWith("\nDone\n"));
    expectImage(kSmallImage, kSmallOrigin);
}

TEST_F(EndToEnd, LargeImageArrivesByteForByteAndTwoClientsSeeTheSameStatuses) {
    ASSERT_NO_FATAL_FAILURE(startLargeUpload("--once"));
    const auto seen = statusesUntil(*owner_, isFinal, kLargeJobTimeout);
    ASSERT_FALSE(seen.empty());
    EXPECT_EQ(seen.back().status.state, StateDone);
    EXPECT_EQ(seen, statusesUntil(*watcher_, isFinal));
    watcher_->close();
    expectOrderlyEnd(owner_, kWait);
    expectImage(largeImage_, kBlock);
}

TEST_F(EndToEnd, SigtermDuringAnUploadEndsInOrder) {
    ASSERT_NO_FATAL_FAILURE(startLargeUpload("--traffic 5000"));
    const auto seen = statusesUntil(*owner_, [](const FlashStatus& status) {
        return isFinal(status) || (status.state == StateProgramming && status.progress >= 2);
    });
    ASSERT_FALSE(seen.empty());
    ASSERT_EQ(seen.back().status.state, StateProgramming);
    ASSERT_TRUE(daemon_->signal(SIGTERM));
    EXPECT_TRUE(owner_->waitClosed(kWait));
    EXPECT_TRUE(daemon_->waitFor("Varnoch: HandleControlC( 15 )\n", 1, kWait));
    expectOrderlyEnd(owner_, kWait);
}

}  // namespace
