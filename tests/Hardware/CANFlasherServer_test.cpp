// The flasher server in-process: on a virtual bus where the test plays the module, with TCP clients on
// an ephemeral port; and servers that are never started, whose reactions the tests drive one by one.
#include "CANFlasherServer_Orelevents.h"

#include <atomic>
#include <cstdio>
#include <functional>

#include <gmock/gmock.h>

#include "HexRecords.h"
#include "TempDir.h"
#include "TestClient.h"
#include "VirtualCanBus.h"
#include "varnoch/protocol/FlashTypes.h"

using namespace CANFlasher;
using ::testing::ElementsAre;

namespace {

const std::string kFirmware = ":040000001122334452\n:0200040055663F\n:00000001FF\n";
const std::string kIso = "18EF26C0: FF 50 72 6F 67 72 61 6D";
const std::string kOdd = "1FF00444: 20 00 00 78 56 34 12 00";  // mode 1 alternates with the repeats left
const std::string kEven = "1F800444: 20 00 00 78 56 34 12 00";
const std::string kErase = "C4: 03 FE 00 00 00 00 00 00";
const std::string kPage0 = "C4: 04 00 00 00 00 00 00 00";
const std::string kData1 = "C4: 05 00 00 04 11 22 33 44";

CanFrame frame(std::uint32_t identifier, const Bytes& data) {
    CanFrame made{identifier, 1, static_cast<std::uint8_t>(data.size()), {}};
    std::copy(data.begin(), data.end(), made.data);
    return made;
}
const CanFrame kSearchReply = frame(0x84, {0x20, 0x00});

CanFrame reply(const CanFrame& request) {
    if (request.identifier != 0xC4) {  // a search
        return kSearchReply;
    }
    const std::uint8_t command = request.data[0];
    return command == 0x03   ? frame(0x1C4, {0x03, 0xFE, 0x00, 0x00})
           : command == 0x04 ? frame(0x1C4, {0x04, request.data[1], 0x00})
                             : frame(0x1C4, {command, 0x00});
}

// Starts an accepted upload at once, or (atOnce false) leaves it to the test; the daemon's deferral to its
// main thread is run by the daemon test.
struct TestServer : CANFlasherServer_Orelevents {
    TestServer(std::int32_t channel, bool atOnce)
        : CANFlasherServer_Orelevents(channel, 0, 5), startAtOnce(atOnce) {}
    void startUpload() override {
        accepted = true;
        if (startAtOnce) {
            CANFlasherServer::startUpload();
        }
    }
    using CANFlasherServer::handleFrame;
    using CANFlasherServer::handleTimeout;
    using CANFlasherServer::retriesLeft;
    using CANFlasherServer::timeoutQueue;
    const bool startAtOnce;
    std::atomic<bool> accepted{false};
};

class FlasherTest : public ::testing::Test {
  protected:
    static constexpr std::int32_t kChannel = 3;
    static constexpr std::int32_t kDirectChannel = 4;  // for the servers that are never started

    void SetUp() override {
        ASSERT_TRUE(canChannelsInit(10));
        ASSERT_TRUE(canChannelAttach(kChannel, VirtualCanBus::driver, flasher_, 0));
        ASSERT_TRUE(canChannelAttach(kDirectChannel, VirtualCanBus::driver, bus_.addEndpoint(), 0));
        ASSERT_NE(server_.startServer(false), threadfunc::ThreadHandle{0});
    }
    void TearDown() override {
        server_.stopServer();  // joins the client threads, which call into the server
        bus_.shutdown();       // ends the reception thread, joined before the next test's channel table
        (void)threadfunc::threadJoin(server_.receptionThread());
    }

    // The next `count` frames on the bus as "identifier: data" ("s" after a standard identifier), the first
    // `answered` of them answered as the module's bootloader does.
    std::vector<std::string> sent(std::size_t count, std::size_t answered = 0) {
        std::vector<std::string> texts;
        for (CanFrame taken{}; texts.size() < count && bus_.waitForSent(&taken, kWaitDeadline);) {
            char id[16];
            std::snprintf(id, sizeof id, "%X%s:%s", taken.identifier, taken.extended ? "" : "s",
                          taken.length > 0 ? " " : "");
            texts.push_back(id + hexBytes(taken.data, std::min<std::size_t>(taken.length, 8)));
            if (texts.size() <= answered) {
                bus_.injectTo(flasher_, reply(taken));
            }
        }
        return texts;
    }
    std::unique_ptr<TestClient> connect() {
        auto client = std::make_unique<TestClient>(server_.boundPort());
        EXPECT_TRUE(client->readPacketOf(ProprietarySocketCommon::CmdIdentity).has_value());
        return client;
    }
    // Statuses as state * 1000 + progress up to one in `state`; `ask` requests a single one.
    static std::vector<int> statusesUntil(TestClient& client, std::int32_t state, bool ask = false) {
        std::vector<int> seen;
        EXPECT_TRUE(!ask || client.sendPacket(CmdRequestStatus, {}));
        while (seen.empty() || (!ask && seen.back() / 1000 != state)) {
            const std::optional<WirePacket> packet = client.readPacketOf(CmdStatus);
            if (!packet || packet->payload.size() != FlashStatus::kWireSize) {
                break;
            }
            seen.push_back(packet->payload[1] * 1000 + packet->payload[2]);
        }
        EXPECT_TRUE(!seen.empty() && seen.back() / 1000 == state) << "no status " << state << " came";
        return seen;
    }
    std::unique_ptr<TestServer> directUpload(
        const Bytes& payload, const std::function<void()>& beforeStart = [] {}) {
        auto direct = std::make_unique<TestServer>(kDirectChannel, false);
        auto packet = std::make_unique<ProprietarySocketCommon::TPacket>(
            static_cast<std::uint32_t>(payload.size()), CmdUploadHexFile);
        std::copy(payload.begin(), payload.end(), packet->getPayload());
        ProprietarySocketCommon::TPacket* handed = packet.get();
        direct->handleNewPacketFromClient(0, handed);
        EXPECT_EQ(handed, packet.get());  // never taken over
        beforeStart();
        if (direct->accepted) {
            direct->handleEvent(EventStartUpload, 0);
        }
        return direct;
    }

    VirtualCanBus bus_;
    const std::int32_t flasher_ = bus_.addEndpoint();
    TestServer server_{kChannel, true};
    TempDir folder_{"flasher"};
};

TEST_F(FlasherTest, UploadSendsEveryFrameInOrderAndReportsProgressOncePerPercentage) {
    auto client = connect();
    const Bytes request = uploadPayload(ModeIsoStyle, 0x26, 0, folder_.write("fw.hex", kFirmware));
    ASSERT_TRUE(client->sendPacket(CmdUploadHexFile, request));
    EXPECT_THAT(sent(8, 7), ElementsAre(kIso, kErase, kPage0, kData1, "C4: 05 04 00 02 55 66 33 44", kPage0,
                                        "C4: 06 01 00 00 00 00 00 00", "1F800434: 00"));
    EXPECT_THAT(statusesUntil(*client, StateDone),
                ElementsAre(2000, 3000, 4000, 5000, 5020, 5040, 5060, 5080, 6100));

    std::string firmware;
    for (std::uint16_t line = 0; line < 50; ++line) {
        firmware += hexRecord(0, static_cast<std::uint16_t>(line * 16), Bytes(16, 0xA5));
    }
    folder_.write("fw.hex", firmware + ":00000001FF\n");
    ASSERT_TRUE(client->sendPacket(CmdReset, {}));
    ASSERT_TRUE(client->sendPacket(CmdUploadHexFile, request));
    std::vector<int> expected{1100, 2000, 3000, 4000};
    // Once each: 203 messages cover every percentage; 202 of them acknowledged are 99.5 %, cut to 99.
    for (int percent = 0; percent < 100; ++percent) {
        expected.push_back(5000 + percent);
    }
    expected.push_back(6100);
    EXPECT_EQ(sent(206, 205).size(), 206u);  // search, erase, 203 messages, finish
    EXPECT_EQ(statusesUntil(*client, StateDone), expected);
}

TEST_F(FlasherTest, EachModeSearchesWithItsOwnFrameAndTakesOnlyTheExactReplies) {
    const std::string blank = "0:";  // mode 3, and any mode above, sends a blank frame with identifier 0
    // clang-format off
    const std::vector<std::pair<std::uint8_t, std::vector<std::string>>> modes{
        {ModeIsoStyle, {kIso, kIso}}, {ModeMtCan, {kOdd, kEven}},
        {ModeNewModule, {"1FF00444: 20 00 00 FF FF FF 1F 00", "1F800444: 20 00 00 FF FF FF 1F 00"}},
        {ModeGlobal, {blank, blank}}, {7, {blank, blank}}};
    const std::vector<std::pair<CanFrame, int>> replies{
        {frame(0x84, {0x20, 0x01}), 3000}, {frame(0x84, {0x20, 0x00, 0x00}), 3000},
        {CanFrame{0x84, 0, 2, {0x20, 0x00}}, 3000} /* standard frame */, {kSearchReply, 4000},
        {frame(0x1C4, {0x03, 0xFE, 0x00, 0x01}), 4000}, {frame(0x1C4, {0x03, 0xFE, 0x00, 0x00}), 5000},
        {frame(0x1C4, {0x04, 0x05, 0x01}), 5000}, {frame(0x1C4, {0x04, 0x05, 0x00}), 5025},
        {frame(0x1C4, {0x05, 0x00}), 5050}};
    // clang-format on
    // Page 5 (base 0x14000), so that the page select's acknowledgement holds a non-zero byte.
    const std::string path = folder_.write("fw.hex", ":020000021400E8\n:0100000042BD\n:00000001FF\n");
    for (const auto& mode : modes) {
        auto direct = directUpload(uploadPayload(mode.first, 0x26, 0x12345678, path));
        direct->handleTimeout();
        for (const auto& step : replies) {
            direct->handleFrame(FlashMessage::fromCanFrame(step.first));
            EXPECT_EQ(direct->status().state * 1000 + direct->status().progress, step.second)
                << int{mode.first};
        }
        EXPECT_THAT(sent(6),
                    ElementsAre(mode.second[0], mode.second[1], kErase, "C4: 04 05 00 00 00 00 00 00",
                                "C4: 05 00 00 01 42 00 00 00", kPage0))
            << int{mode.first};
    }
}

TEST_F(FlasherTest, UnansweredStepsAreRepeatedThenEndInTheirErrorState) {
    const std::vector<CanFrame> answers{kSearchReply, frame(0x1C4, {0x03, 0xFE, 0, 0}),
                                        frame(0x1C4, {0x04, 0, 0})};
    const struct {
        std::size_t answered;  // of the answers above
        int repeats;
        std::int32_t state;
        std::vector<std::string> frames;
    } steps[] = {
        {0, 5, StateErrDeviceNotFound, {kOdd, kEven, kOdd, kEven, kOdd, kEven}},
        {1, 3, StateErrEraseTimeout, {kOdd, kErase, kErase, kErase, kErase}},
        {3, 3, StateErrResponseTimeout, {kOdd, kErase, kPage0, kData1, kData1, kData1, kData1}},
    };
    for (const auto& step : steps) {
        auto direct =
            directUpload(uploadPayload(ModeMtCan, 0x26, 0x12345678, folder_.write("fw.hex", kFirmware)));
        for (std::size_t i = 0; i < step.answered; ++i) {
            direct->handleFrame(FlashMessage::fromCanFrame(answers[i]));
        }
        const std::int32_t waiting = direct->status().state;
        for (int i = 0; i < step.repeats; ++i) {
            direct->handleTimeout();
        }
        EXPECT_EQ(direct->status().state, waiting);
        direct->handleTimeout();
        EXPECT_EQ(direct->status().state, step.state);
        EXPECT_EQ(sent(step.frames.size()), step.frames);
    }
}

TEST_F(FlasherTest, ReplyAfterItsTimeOutWasQueuedIsStillTaken) {
    auto direct = directUpload(uploadPayload(ModeIsoStyle, 0x26, 0, folder_.write("fw.hex", kFirmware)));
    // Nobody takes this server's time-out queue: the expiry waits there like one not handled yet.
    const auto armed = Clock::now();
    EXPECT_EQ(direct->timeoutQueue().pop(), CANFlasherServer::kTimeoutExpired);
    const auto waited = Clock::now() - armed;  // the reply timer is 1000 ms, started just before `armed`
    EXPECT_GE(waited, std::chrono::milliseconds(700));
    EXPECT_LT(waited, std::chrono::milliseconds(2000));
    direct->handleFrame(FlashMessage::fromCanFrame(kSearchReply));
    EXPECT_EQ(direct->status().state, StateErasing);
    direct->handleTimeout();  // counts as one repeat of the erase request
    EXPECT_EQ(direct->retriesLeft(), 2u);
    EXPECT_THAT(sent(3), ElementsAre(kIso, kErase, kErase));
}

TEST_F(FlasherTest, UploadsThatCannotStartEndInTheirErrorState) {
    const std::string gone = folder_.write("gone.hex", kFirmware);
    Bytes unterminated = uploadPayload(0, 0, 0, folder_.write("fw.hex", kFirmware));
    unterminated.back() = 'x';
    const struct {
        const char* name;
        Bytes payload;
        std::int32_t state;
        std::string file;  // in the file-not-found line
    } cases[] = {
        {"gone before loading", uploadPayload(0, 0, 0, gone), StateErrFileOpen, ""},  // removed once taken
        {"missing file", uploadPayload(0, 0, 0, folder_.path("no.hex")), StateErrFileNotFound,
         folder_.path("no.hex")},
        {"no name", Bytes(6, 0), StateErrFileNotFound, ""},
        {"name not terminated", unterminated, StateErrFileNotFound, ""},
        {"five bytes", Bytes(5, 0), StateIdle, ""},
        {"no end record", uploadPayload(0, 0, 0, folder_.write("bad.hex", ":040000001122334452\n")),
         StateErrFileFormat, ""},
    };
    for (const auto& row : cases) {
        testing::internal::CaptureStdout();
        auto direct = directUpload(row.payload, [&] { std::remove(gone.c_str()); });
        const std::string printed = testing::internal::GetCapturedStdout();
        EXPECT_EQ(direct->status().state, row.state) << row.name;
        EXPECT_EQ(direct->accepted, row.state > StateErrFileNotFound) << row.name;
        EXPECT_EQ(printed.find("handleNewPacketFromClient() CmdUploadHexFile File not found (" + row.file +
                               ")\n") != std::string::npos,
                  row.state == StateErrFileNotFound)
            << row.name << ": " << printed;
    }
    CanFrame none{};
    EXPECT_FALSE(bus_.waitForSent(&none, std::chrono::milliseconds(0)));  // no search
}

TEST_F(FlasherTest, LocksBlockUploadsOfOthersAndOnlyTheOwnerAbortsARunningJob) {
    auto a = connect();
    auto b = connect();
    const Bytes request = uploadPayload(0, 0x26, 0, folder_.write("fw.hex", kFirmware));
    ASSERT_TRUE(a->sendPacket(CmdRequestStatus, {}));  // answered to every client
    EXPECT_THAT(statusesUntil(*b, StateIdle), ElementsAre(1000));
    ASSERT_TRUE(a->sendPacket(CmdSetLock, {5}));
    EXPECT_THAT(statusesUntil(*b, StateLocked), ElementsAre(0));
    ASSERT_TRUE(b->sendPacket(CmdUploadHexFile, request));
    ASSERT_TRUE(b->sendPacket(CmdReset, {}));  // evaluates the locks again: still locked
    statusesUntil(*b, StateLocked, true);
    ASSERT_TRUE(a->sendPacket(CmdSetLock, {0}));
    EXPECT_THAT(statusesUntil(*b, StateIdle), ElementsAre(1000));

    ASSERT_TRUE(b->sendPacket(CmdUploadHexFile, request));  // its first message never acknowledged: repeated
    EXPECT_THAT(sent(4, 2), ElementsAre(kIso, kErase, kPage0, kPage0));
    statusesUntil(*a, StateProgramming);
    ASSERT_TRUE(a->sendPacket(CmdSetLock, {1}));  // neither a lock nor a reset by another client stops it
    ASSERT_TRUE(a->sendPacket(CmdReset, {}));
    statusesUntil(*a, StateProgramming, true);
    ASSERT_TRUE(b->sendPacket(CmdReset, {}));
    EXPECT_THAT(statusesUntil(*a, StateIdle), ElementsAre(1000));
    ASSERT_TRUE(b->sendPacket(CmdUploadHexFile, request));
    EXPECT_THAT(statusesUntil(*a, StateLocked), ElementsAre(0));

    ASSERT_TRUE(a->sendPacket(CmdSetLock, {0}));  // a failed job is reset by any client
    statusesUntil(*a, StateIdle);
    const Bytes missing = uploadPayload(0, 0x26, 0, folder_.path("none.hex"));
    ASSERT_TRUE(b->sendPacket(CmdUploadHexFile, missing));
    statusesUntil(*a, StateErrFileNotFound);
    ASSERT_TRUE(a->sendPacket(CmdReset, {}));
    EXPECT_THAT(statusesUntil(*a, StateIdle), ElementsAre(1000));
    ASSERT_TRUE(b->sendPacket(CmdUploadHexFile, missing));  // a lock takes effect in an error state too
    statusesUntil(*a, StateErrFileNotFound);
    ASSERT_TRUE(a->sendPacket(CmdSetLock, {1}));
    EXPECT_THAT(statusesUntil(*a, StateLocked), ElementsAre(0));
}

}  // namespace
