// The flasher server in-process: a scripted module on a virtual bus, TCP clients on an ephemeral port,
// uploads run on a stand-in main thread.
#include "CANFlasherServer.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdio>

#include "FlasherTestSupport.h"

using namespace CANFlasher;
using ::testing::ElementsAre;
using ::testing::ElementsAreArray;

namespace {

// Five upload messages: page 0, two data messages (the second with the first's tail), two end messages.
const std::string kFirmware = ":040000001122334452\n:0200040055663F\n:00000001FF\n";
const CanFrame kErase = extendedFrame(0xC4, {0x03, 0xFE, 0, 0, 0, 0, 0, 0});
const CanFrame kPage0 = extendedFrame(0xC4, {0x04, 0, 0, 0, 0, 0, 0, 0});
const CanFrame kData1 = extendedFrame(0xC4, {0x05, 0x00, 0x00, 0x04, 0x11, 0x22, 0x33, 0x44});
const CanFrame kData2 = extendedFrame(0xC4, {0x05, 0x04, 0x00, 0x02, 0x55, 0x66, 0x33, 0x44});
const CanFrame kEnd2 = extendedFrame(0xC4, {0x06, 0x01, 0, 0, 0, 0, 0, 0});
const CanFrame kFinish = extendedFrame(0x1F800434, {0x00});
const CanFrame kIsoSearch = extendedFrame(0x18EF26C0, {0xFF, 'P', 'r', 'o', 'g', 'r', 'a', 'm'});

std::vector<int> fieldOf(const std::vector<FlashStatus>& statuses, std::int32_t FlashStatus::*field) {
    std::vector<int> values;
    for (const FlashStatus& status : statuses) {
        values.push_back(status.*field);
    }
    return values;
}

struct ModeCase {
    std::uint8_t mode;
    CanFrame search;
};

class UploadInMode : public FlasherTest, public ::testing::WithParamInterface<ModeCase> {};

TEST_P(UploadInMode, SendsEveryFrameInOrderAndReportsEachStep) {
    auto client = connect();
    const auto statuses = upload(*client, folder_.write("fw.hex", kFirmware), StateDone, GetParam().mode);
    EXPECT_THAT(module_->frames(8),
                ElementsAre(GetParam().search, kErase, kPage0, kData1, kData2, kPage0, kEnd2, kFinish));
    EXPECT_THAT(fieldOf(statuses, &FlashStatus::state), ElementsAre(2, 3, 4, 5, 5, 5, 5, 5, 6));
    EXPECT_THAT(fieldOf(statuses, &FlashStatus::progress), ElementsAre(0, 0, 0, 0, 20, 40, 60, 80, 100));
    for (const FlashStatus& status : statuses) {
        EXPECT_EQ(status.mode * 1000 + status.targetAddress, GetParam().mode * 1000 + 0x26);
        EXPECT_EQ(status.targetIdentifier, 0x12345678u);
    }
}

INSTANTIATE_TEST_SUITE_P(
    Modes, UploadInMode,
    ::testing::Values(ModeCase{ModeIsoStyle, kIsoSearch},
                      ModeCase{ModeMtCan, extendedFrame(0x1FF00444, {0x20, 0, 0, 0x78, 0x56, 0x34, 0x12, 0})},
                      ModeCase{ModeNewModule,
                               extendedFrame(0x1FF00444, {0x20, 0, 0, 0xFF, 0xFF, 0xFF, 0x1F, 0})},
                      ModeCase{ModeGlobal, extendedFrame(0, {})}, ModeCase{7, extendedFrame(0, {})}));

TEST_F(FlasherTest, ProgressIsReportedOncePerPercentage) {
    // A page select, 147 data messages (36 records of 16 bytes and one of 12) and the two end messages.
    std::string firmware;
    for (std::uint16_t line = 0; line < 37; ++line) {
        firmware += hexRecord(0, static_cast<std::uint16_t>(line * 16),
                              std::vector<std::uint8_t>(line < 36 ? 16 : 12, 0xA5));
    }
    auto client = connect();
    const auto statuses = upload(*client, folder_.write("fw.hex", firmware + ":00000001FF\n"), StateDone);
    std::vector<int> expected{0, 0, 0, 0};  // Preparing, Searching, Erasing, Programming
    for (unsigned index = 1; index < 150; ++index) {
        if (static_cast<int>(index * 100 / 150) != expected.back()) {
            expected.push_back(static_cast<int>(index * 100 / 150));
        }
    }
    expected.push_back(100);
    EXPECT_EQ(expected.size(), 104u);  // 1 .. 99 once each, then 100 with Done
    EXPECT_THAT(fieldOf(statuses, &FlashStatus::progress), ElementsAreArray(expected));
    EXPECT_EQ(module_->frames(153).size(), 153u);  // search, erase, 150 messages, finish
}

// A module that stays silent at one step: repeats one second apart, then the step's error state.
struct SilenceCase {
    const char* name;
    bool answerSearch;
    bool answerErase;
    int dropAcksFrom;
    std::int32_t endState;
    std::vector<CanFrame> frames;
    std::size_t firstRepeat;  // frames firstRepeat .. endRepeat - 1 are sent by the reply timer
    std::size_t endRepeat;
};

class SilentModule : public FlasherTest, public ::testing::WithParamInterface<SilenceCase> {};

TEST_P(SilentModule, RepeatsEverySecondThenGivesUp) {
    const SilenceCase& run = GetParam();
    module_->answerSearch = run.answerSearch;
    module_->answerErase = run.answerErase;
    module_->dropAcksFrom = run.dropAcksFrom;
    module_->dropAckCount = run.dropAcksFrom == 2 ? 2 : 1000;  // case "recovers": two acknowledgements lost
    auto client = connect();
    upload(*client, folder_.write("fw.hex", kFirmware), run.endState, ModeMtCan);
    const std::vector<SeenFrame> seen = module_->waitForFrames(run.frames.size());
    ASSERT_EQ(seen.size(), run.frames.size());
    for (std::size_t i = 0; i < seen.size(); ++i) {
        EXPECT_EQ(seen[i].frame, run.frames[i]) << i;
        if (i >= run.firstRepeat && i < run.endRepeat) {
            const auto gap =
                std::chrono::duration_cast<std::chrono::milliseconds>(seen[i].at - seen[i - 1].at);
            EXPECT_GE(gap.count(), 800) << i;
            EXPECT_LE(gap.count(), 3000) << i;
        }
    }
}

// Mode 1 alternates its search identifier with the parity of the repeats left (5, 4, .. 0).
const CanFrame kOdd = extendedFrame(0x1FF00444, {0x20, 0, 0, 0x78, 0x56, 0x34, 0x12, 0});
const CanFrame kEven = extendedFrame(0x1F800444, {0x20, 0, 0, 0x78, 0x56, 0x34, 0x12, 0});

INSTANTIATE_TEST_SUITE_P(
    Steps, SilentModule,
    ::testing::Values(
        SilenceCase{
            "search", false, true, -1, StateErrDeviceNotFound, {kOdd, kEven, kOdd, kEven, kOdd, kEven}, 1, 6},
        SilenceCase{
            "erase", true, false, -1, StateErrEraseTimeout, {kOdd, kErase, kErase, kErase, kErase}, 2, 5},
        SilenceCase{"acknowledgement",
                    true,
                    true,
                    1,
                    StateErrResponseTimeout,
                    {kOdd, kErase, kPage0, kData1, kData1, kData1, kData1},
                    4,
                    7},
        SilenceCase{"recovers",
                    true,
                    true,
                    2,
                    StateDone,
                    {kOdd, kErase, kPage0, kData1, kData2, kData2, kData2, kPage0, kEnd2, kFinish},
                    5,
                    7}),
    [](const ::testing::TestParamInfo<SilenceCase>& step) { return std::string(step.param.name); });

// ---------------------------------------------------------------------------------------------
// Replies, driven directly on a server without threads

TEST_F(FlasherTest, OnlyTheExactExpectedReplyAdvancesTheJob) {
    module_->answerSearch = false;
    auto direct = makeDirectServer();
    // Page 5 (base 0x14000), so that the page select's acknowledgement holds a non-zero byte.
    direct->deliver(CmdUploadHexFile,
                    uploadPayload(ModeGlobal, 0, 0,
                                  folder_.write("fw.hex", ":020000021400E8\n:0100000042BD\n:00000001FF\n")));
    direct->handleEvent(EventStartUpload, 0);
    const auto feed = [&](const CanFrame& frame) {
        direct->handleFrame(FlashMessage::fromCanFrame(frame));
        return direct->status().state * 1000 + direct->status().progress;
    };
    EXPECT_EQ(feed(extendedFrame(0x84, {0x20, 0x01})), 3000);
    EXPECT_EQ(feed(extendedFrame(0x84, {0x20, 0x00, 0x00})), 3000);
    EXPECT_EQ(feed(CanFrame{0x84, 0, 2, {0x20, 0x00}}), 3000);  // standard frame
    EXPECT_EQ(feed(extendedFrame(0x84, {0x20, 0x00})), 4000);
    EXPECT_EQ(feed(extendedFrame(0x1C4, {0x03, 0xFE, 0x00, 0x01})), 4000);
    EXPECT_EQ(feed(extendedFrame(0x1C4, {0x03, 0xFE, 0x00, 0x00})), 5000);
    EXPECT_EQ(feed(extendedFrame(0x1C4, {0x04, 0x05, 0x01})), 5000);
    EXPECT_EQ(feed(extendedFrame(0x1C4, {0x04, 0x05, 0x00})), 5025);
    EXPECT_EQ(feed(extendedFrame(0x1C4, {0x05, 0x00})), 5050);
}

TEST_F(FlasherTest, ReplyAfterItsTimeOutWasQueuedIsStillTaken) {
    module_->answerSearch = false;
    auto direct = makeDirectServer();
    direct->deliver(CmdUploadHexFile,
                    uploadPayload(ModeIsoStyle, 0x26, 0, folder_.write("fw.hex", kFirmware)));
    direct->handleEvent(EventStartUpload, 0);
    // Nobody takes this server's time-out queue: the expiry waits there like one not handled yet.
    EXPECT_EQ(direct->timeoutQueue().pop(), CANFlasherServer::kTimeoutExpired);
    direct->handleFrame(FlashMessage::fromCanFrame(extendedFrame(0x84, {0x20, 0x00})));
    EXPECT_EQ(direct->status().state, StateErasing);
    direct->handleTimeout();  // counts as one repeat of the erase request
    EXPECT_EQ(direct->retriesLeft(), CANFlasherServer::kEraseRetries - 1);
    EXPECT_THAT(module_->frames(3), ElementsAre(kIsoSearch, kErase, kErase));
}

// ---------------------------------------------------------------------------------------------
// Commands

TEST_F(FlasherTest, StatusRequestIsAnsweredToEveryClient) {
    auto first = connect();
    auto second = connect();
    ASSERT_TRUE(first->sendPacket(CmdRequestStatus, {}));
    for (TestClient* client : {first.get(), second.get()}) {
        const auto packet = client->readPacketOf(CmdStatus);
        ASSERT_TRUE(packet.has_value());
        EXPECT_THAT(packet->payload, ElementsAre(0x00, 0x01, 0x00, 0xFE, 0xFF, 0xFF, 0xFF, 0xFF));
    }
}

TEST_F(FlasherTest, OnlyTheOwnerAbortsARunningJobButAnyoneResetsAFinishedOne) {
    module_->dropAcksFrom = 0;
    module_->dropAckCount = 1000;
    auto owner = connect();
    auto other = connect();
    upload(*owner, folder_.write("fw.hex", kFirmware), StateProgramming);
    statusesUntil(*other, StateProgramming);
    ASSERT_TRUE(other->sendPacket(CmdReset, {}));
    EXPECT_EQ(askState(*other), StateProgramming);
    ASSERT_TRUE(owner->sendPacket(CmdReset, {}));
    EXPECT_EQ(statusesUntil(*other, StateIdle).size(), 1u);

    module_->dropAckCount = 0;
    upload(*owner, folder_.write("fw.hex", kFirmware), StateDone);
    ASSERT_TRUE(other->sendPacket(CmdReset, {}));
    EXPECT_EQ(statusesUntil(*owner, StateIdle).back().state, StateIdle);
}

TEST_F(FlasherTest, AnyClientsLockBlocksUploadsButNeverARunningJob) {
    auto locker = connect();
    auto uploader = connect();
    const std::string firmware = folder_.write("fw.hex", kFirmware);
    ASSERT_TRUE(locker->sendPacket(CmdSetLock, {5}));
    EXPECT_EQ(statusesUntil(*uploader, StateLocked).size(), 1u);
    ASSERT_TRUE(uploader->sendPacket(CmdUploadHexFile, uploadPayload(0, 0x26, 0, firmware)));
    ASSERT_TRUE(uploader->sendPacket(CmdReset, {}));  // evaluates the locks again: still locked
    EXPECT_EQ(askState(*uploader), StateLocked);
    ASSERT_TRUE(locker->sendPacket(CmdSetLock, {0}));
    EXPECT_EQ(statusesUntil(*uploader, StateIdle).size(), 1u);

    // Locked during a job (the first acknowledgement is lost, so it runs a second): the job ends, the
    // next request finds the server locked.
    module_->dropAcksFrom = 0;
    module_->dropAckCount = 1;
    upload(*uploader, firmware, StateProgramming);
    ASSERT_TRUE(locker->sendPacket(CmdSetLock, {1}));
    EXPECT_THAT(fieldOf(statusesUntil(*uploader, StateDone), &FlashStatus::state),
                ::testing::Each(::testing::Ne(StateLocked)));
    ASSERT_TRUE(uploader->sendPacket(CmdUploadHexFile, uploadPayload(0, 0x26, 0, firmware)));
    EXPECT_EQ(statusesUntil(*uploader, StateLocked).size(), 1u);
}

TEST_F(FlasherTest, UploadsThatCannotStartEndInTheirErrorState) {
    auto client = connect();
    const auto reset = [&] {
        ASSERT_TRUE(client->sendPacket(CmdReset, {}));
        statusesUntil(*client, StateIdle);
    };
    const auto statuses =
        upload(*client, folder_.path() + "/no.hex", StateErrFileNotFound, ModeNewModule, 0xCAFEBABE);
    EXPECT_EQ(statuses.size(), 1u);
    EXPECT_EQ(statuses.back().mode * 1000 + statuses.back().targetAddress, 2038);
    EXPECT_EQ(statuses.back().targetIdentifier, 0xCAFEBABEu);
    // Nothing is taken until a reset, not even a file that exists.
    ASSERT_TRUE(
        client->sendPacket(CmdUploadHexFile, uploadPayload(0, 0, 0, folder_.write("fw.hex", kFirmware))));
    EXPECT_EQ(askState(*client), StateErrFileNotFound);

    // Six bytes, or a path without its terminating 0, name no file; five bytes are no request.
    Bytes unterminated = uploadPayload(0, 0, 0, folder_.path() + "/fw.hex");
    unterminated.back() = 'x';
    for (const Bytes& payload : {Bytes{0, 0, 0, 0, 0, 0}, unterminated}) {
        reset();
        ASSERT_TRUE(client->sendPacket(CmdUploadHexFile, payload));
        statusesUntil(*client, StateErrFileNotFound);
    }
    reset();
    ASSERT_TRUE(client->sendPacket(CmdUploadHexFile, {0, 0, 0, 0, 0}));
    EXPECT_EQ(askState(*client), StateIdle);

    EXPECT_THAT(
        fieldOf(upload(*client, folder_.write("bad.hex", ":040000001122334452\n"), StateErrFileFormat),
                &FlashStatus::state),
        ElementsAre(2, 105));
    EXPECT_TRUE(module_->frames(0).empty());  // no search
}

TEST_F(FlasherTest, FileGoneBeforeTheMainThreadLoadsItCannotBeOpened) {
    auto direct = makeDirectServer();
    const std::string vanishing = folder_.write("gone.hex", kFirmware);
    direct->deliver(CmdUploadHexFile, uploadPayload(0, 0, 0, vanishing));
    ASSERT_EQ(std::remove(vanishing.c_str()), 0);
    direct->handleEvent(EventStartUpload, 0);
    EXPECT_EQ(direct->status().state, StateErrFileOpen);
}

}  // namespace
