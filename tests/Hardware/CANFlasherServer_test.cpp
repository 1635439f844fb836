// The flasher server in-process: a scripted module on a virtual bus, real TCP clients on an ephemeral
// port, uploads run on a stand-in main thread.
#include "CANFlasherServer.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <vector>

#include "FlasherTestSupport.h"
#include "canchannel.h"

using namespace CANFlasher;
using namespace std::chrono_literals;
using ::testing::ElementsAre;
using ::testing::ElementsAreArray;

namespace {

// Five upload messages: page 0, two data messages (the second with the first's tail), two end messages.
const std::string kFirmware = ":040000001122334452\n:0200040055663F\n:00000001FF\n";

const CanFrame kErase = extendedFrame(0xC4, {0x03, 0xFE, 0, 0, 0, 0, 0, 0});
const CanFrame kPage0 = extendedFrame(0xC4, {0x04, 0, 0, 0, 0, 0, 0, 0});
const CanFrame kData1 = extendedFrame(0xC4, {0x05, 0x00, 0x00, 0x04, 0x11, 0x22, 0x33, 0x44});
const CanFrame kData2 = extendedFrame(0xC4, {0x05, 0x04, 0x00, 0x02, 0x55, 0x66, 0x33, 0x44});
const CanFrame kEnd1 = kPage0;
const CanFrame kEnd2 = extendedFrame(0xC4, {0x06, 0x01, 0, 0, 0, 0, 0, 0});
const CanFrame kFinish = extendedFrame(0x1F800434, {0x00});
const CanFrame kSearchReply = extendedFrame(0x84, {0x20, 0x00});

std::vector<CanFrame> framesOf(const std::vector<SeenFrame>& seen) {
    std::vector<CanFrame> frames;
    for (const SeenFrame& entry : seen) {
        frames.push_back(entry.frame);
    }
    return frames;
}

std::vector<int> statesOf(const std::vector<FlashStatus>& statuses) {
    std::vector<int> states;
    for (const FlashStatus& status : statuses) {
        states.push_back(status.state);
    }
    return states;
}

std::vector<int> progressOf(const std::vector<FlashStatus>& statuses) {
    std::vector<int> progress;
    for (const FlashStatus& status : statuses) {
        progress.push_back(status.progress);
    }
    return progress;
}

// ---------------------------------------------------------------------------------------------
// Whole uploads

struct ModeCase {
    std::uint8_t mode;
    CanFrame search;
};

class UploadInMode : public FlasherTest, public ::testing::WithParamInterface<ModeCase> {};

TEST_P(UploadInMode, SendsEveryFrameInOrderAndReportsEachStep) {
    auto client = connect();
    const std::vector<FlashStatus> statuses =
        upload(*client, folder_.write("fw.hex", kFirmware), StateDone, GetParam().mode, 0x26, 0x12345678);

    EXPECT_THAT(framesOf(module_->waitForFrames(8, kDeadline)),
                ElementsAre(GetParam().search, kErase, kPage0, kData1, kData2, kEnd1, kEnd2, kFinish));
    EXPECT_THAT(statesOf(statuses),
                ElementsAre(StatePreparing, StateSearching, StateErasing, StateProgramming, StateProgramming,
                            StateProgramming, StateProgramming, StateProgramming, StateDone));
    EXPECT_THAT(progressOf(statuses), ElementsAre(0, 0, 0, 0, 20, 40, 60, 80, 100));
    for (const FlashStatus& status : statuses) {
        EXPECT_EQ(status.mode, GetParam().mode);
        EXPECT_EQ(status.targetAddress, 0x26);
        EXPECT_EQ(status.targetIdentifier, 0x12345678u);
    }
}

INSTANTIATE_TEST_SUITE_P(
    Modes, UploadInMode,
    ::testing::Values(
        ModeCase{ModeIsoStyle, extendedFrame(0x18EF26C0, {0xFF, 'P', 'r', 'o', 'g', 'r', 'a', 'm'})},
        ModeCase{ModeMtCan, extendedFrame(0x1FF00444, {0x20, 0, 0, 0x78, 0x56, 0x34, 0x12, 0})},
        ModeCase{ModeNewModule, extendedFrame(0x1FF00444, {0x20, 0, 0, 0xFF, 0xFF, 0xFF, 0x1F, 0})},
        ModeCase{ModeGlobal, extendedFrame(0, {})}, ModeCase{7, extendedFrame(0, {})}));

TEST_F(FlasherTest, ProgressIsReportedOncePerPercentage) {
    // 147 data messages in one page, plus the page select and the two end messages: 150.
    std::string firmware;
    for (int line = 0; line < 37; ++line) {
        const int count = line < 36 ? 16 : 12;
        char text[64];
        unsigned sum = static_cast<unsigned>(count) + ((line * 16) >> 8) + ((line * 16) & 0xFF);
        std::snprintf(text, sizeof text, ":%02X%04X00", count, line * 16);
        firmware += text;
        for (int i = 0; i < count; ++i) {
            firmware += "A5";
            sum += 0xA5;
        }
        std::snprintf(text, sizeof text, "%02X\n", (0x100 - (sum & 0xFF)) & 0xFF);
        firmware += text;
    }
    firmware += ":00000001FF\n";
    auto client = connect();
    const std::vector<FlashStatus> statuses = upload(*client, folder_.write("fw.hex", firmware), StateDone);

    std::vector<int> reported;
    for (const FlashStatus& status : statuses) {
        if (status.state == StateProgramming) {
            reported.push_back(status.progress);
        }
    }
    std::vector<int> expected{0};  // entering Programming
    for (unsigned index = 1; index < 150; ++index) {
        const int percent = static_cast<int>(index * 100 / 150);
        if (percent != expected.back()) {
            expected.push_back(percent);
        }
    }
    EXPECT_THAT(reported, ElementsAreArray(expected));
    EXPECT_EQ(expected.size(), 100u);  // 0..99: every percentage exactly once
    EXPECT_EQ(statuses.back().progress, 100);
    EXPECT_EQ(module_->waitForFrames(153, kDeadline).size(), 153u);  // search, erase, 150, finish
}

TEST_F(FlasherTest, EndRecordAloneUploadsTheTwoEndMessages) {
    auto client = connect();
    const std::vector<FlashStatus> statuses =
        upload(*client, folder_.write("fw.hex", ":00000001FF\n"), StateDone);
    EXPECT_THAT(progressOf(statuses), ElementsAre(0, 0, 0, 0, 50, 100));
    const std::vector<CanFrame> frames = framesOf(module_->waitForFrames(5, kDeadline));
    EXPECT_THAT(std::vector<CanFrame>(frames.begin() + 2, frames.end()), ElementsAre(kEnd1, kEnd2, kFinish));
}

// ---------------------------------------------------------------------------------------------
// Time-outs and repeats

TEST_F(FlasherTest, SilentModuleGetsSixSearchesASecondApartThenDeviceNotFound) {
    OutputCapture output;
    module_->answerSearch = false;
    auto client = connect();
    const auto started = Clock::now();
    const std::vector<FlashStatus> statuses =
        upload(*client, folder_.write("fw.hex", kFirmware), StateErrDeviceNotFound, ModeMtCan, 0x26,
               0x12345678, 30s);
    const auto elapsed = Clock::now() - started;

    EXPECT_THAT(statesOf(statuses), ElementsAre(StatePreparing, StateSearching, StateErrDeviceNotFound));
    EXPECT_STREQ(stateName(statuses.back().state), "Error! Device not found.");
    const std::vector<SeenFrame> seen = module_->waitForFrames(6, kDeadline);
    ASSERT_EQ(seen.size(), 6u);
    for (std::size_t i = 0; i < seen.size(); ++i) {
        // Retries left 5, 4, ... 0: odd counts use 0x1FF00444, even ones 0x1F800444.
        EXPECT_EQ(seen[i].frame.identifier, i % 2 == 0 ? 0x1FF00444u : 0x1F800444u) << i;
        if (i > 0) {
            const auto gap =
                std::chrono::duration_cast<std::chrono::milliseconds>(seen[i].at - seen[i - 1].at);
            EXPECT_GE(gap.count(), 800) << i;
            EXPECT_LE(gap.count(), 3000) << i;
        }
    }
    EXPECT_GE(elapsed, 5500ms);
    EXPECT_EQ(output.waitFor("CANFlasherServer::handleTimeout() Mode 1\n", 6), 6);
}

TEST_F(FlasherTest, UnansweredEraseIsRepeatedThreeTimesThenTimesOut) {
    module_->answerErase = false;
    auto client = connect();
    const auto statuses =
        upload(*client, folder_.write("fw.hex", kFirmware), StateErrEraseTimeout, ModeIsoStyle, 0x26, 0, 30s);
    EXPECT_THAT(statesOf(statuses),
                ElementsAre(StatePreparing, StateSearching, StateErasing, StateErrEraseTimeout));
    const std::vector<CanFrame> frames = framesOf(module_->waitForFrames(5, kDeadline));
    ASSERT_EQ(frames.size(), 5u);
    EXPECT_THAT(std::vector<CanFrame>(frames.begin() + 1, frames.end()),
                ElementsAre(kErase, kErase, kErase, kErase));
}

TEST_F(FlasherTest, LostAcknowledgementIsRepeatedAndTheUploadGoesOn) {
    module_->dropAckCount = 2;
    module_->dropAcksFrom = 2;  // the first two sends of the second data message
    auto client = connect();
    upload(*client, folder_.write("fw.hex", kFirmware), StateDone, ModeIsoStyle, 0x26, 0, 30s);
    const std::vector<CanFrame> frames = framesOf(module_->waitForFrames(10, kDeadline));
    EXPECT_THAT(std::vector<CanFrame>(frames.begin() + 2, frames.end()),
                ElementsAre(kPage0, kData1, kData2, kData2, kData2, kEnd1, kEnd2, kFinish));
}

TEST_F(FlasherTest, AcknowledgementLostForGoodEndsInResponseTimeoutAfterFourSends) {
    module_->dropAckCount = 1000;
    module_->dropAcksFrom = 1;
    auto client = connect();
    const auto statuses = upload(*client, folder_.write("fw.hex", kFirmware), StateErrResponseTimeout,
                                 ModeIsoStyle, 0x26, 0, 30s);
    EXPECT_EQ(statuses.back().progress, 20);  // the page select was acknowledged
    const std::vector<CanFrame> frames = framesOf(module_->waitForFrames(7, kDeadline));
    EXPECT_THAT(std::vector<CanFrame>(frames.begin() + 2, frames.end()),
                ElementsAre(kPage0, kData1, kData1, kData1, kData1));
}

// ---------------------------------------------------------------------------------------------
// Matching replies, driven directly on a server without threads

TEST_F(FlasherTest, OnlyTheExactExpectedReplyAdvancesTheJob) {
    module_->answerSearch = false;
    auto direct = makeDirectServer();
    // Page 5 (base 0x14000), so that the page select acknowledgement carries a non-zero byte.
    deliver(*direct, CmdUploadHexFile,
            uploadPayload(ModeGlobal, 0, 0,
                          folder_.write("fw.hex", ":020000021400E8\n:0100000042BD\n:00000001FF\n")));
    direct->handleEvent(EventStartUpload, 0);
    ASSERT_EQ(direct->status().state, StateSearching);

    for (const CanFrame& wrong : {extendedFrame(0x84, {0x20, 0x01}), extendedFrame(0x84, {0x20, 0x00, 0x00}),
                                  CanFrame{0x84, 0, 2, {0x20, 0x00}}, extendedFrame(0x85, {0x20, 0x00})}) {
        direct->handleFrame(FlashMessage::fromCanFrame(wrong));
        EXPECT_EQ(direct->status().state, StateSearching) << wrong;
    }
    direct->handleFrame(FlashMessage::fromCanFrame(kSearchReply));
    ASSERT_EQ(direct->status().state, StateErasing);

    direct->handleFrame(FlashMessage::fromCanFrame(extendedFrame(0x1C4, {0x03, 0xFE, 0x00, 0x01})));
    direct->handleFrame(FlashMessage::fromCanFrame(extendedFrame(0x1C4, {0x03, 0xFE, 0x00})));
    EXPECT_EQ(direct->status().state, StateErasing);
    direct->handleFrame(FlashMessage::fromCanFrame(extendedFrame(0x1C4, {0x03, 0xFE, 0x00, 0x00})));
    ASSERT_EQ(direct->status().state, StateProgramming);

    direct->handleFrame(FlashMessage::fromCanFrame(extendedFrame(0x1C4, {0x04, 0x05, 0x01})));
    EXPECT_EQ(direct->status().progress, 0);
    direct->handleFrame(FlashMessage::fromCanFrame(extendedFrame(0x1C4, {0x04, 0x05, 0x00})));
    EXPECT_EQ(direct->status().progress, 25);
    // Bytes beyond the reply's length are not compared.
    direct->handleFrame(FlashMessage::fromCanFrame(extendedFrame(0x1C4, {0x05, 0x00})));
    EXPECT_EQ(direct->status().progress, 50);
}

TEST_F(FlasherTest, ReplyArrivingAfterItsTimeoutWasQueuedIsStillTaken) {
    module_->answerSearch = false;
    auto direct = makeDirectServer();
    deliver(*direct, CmdUploadHexFile,
            uploadPayload(ModeIsoStyle, 0x26, 0, folder_.write("fw.hex", kFirmware)));
    direct->handleEvent(EventStartUpload, 0);
    ASSERT_EQ(direct->status().state, StateSearching);

    // Nobody takes the time-out queue on this server: the expiry waits there like one not yet handled.
    EXPECT_EQ(direct->timeoutQueue().pop(), CANFlasherServer::kTimeoutExpired);
    direct->handleFrame(FlashMessage::fromCanFrame(kSearchReply));
    EXPECT_EQ(direct->status().state, StateErasing);
    EXPECT_EQ(direct->retriesLeft(), CANFlasherServer::kEraseRetries);

    // The stale expiry then counts as one repeat of the erase request.
    direct->handleTimeout();
    EXPECT_EQ(direct->status().state, StateErasing);
    EXPECT_EQ(direct->retriesLeft(), CANFlasherServer::kEraseRetries - 1);
    const std::vector<CanFrame> frames = framesOf(module_->waitForFrames(3, kDeadline));
    EXPECT_THAT(std::vector<CanFrame>(frames.begin() + 1, frames.end()), ElementsAre(kErase, kErase));
}

// ---------------------------------------------------------------------------------------------
// Commands

TEST_F(FlasherTest, StatusRequestIsAnsweredToEveryClientInWireForm) {
    auto first = connect();
    auto second = connect();
    ASSERT_TRUE(first->sendPacket(CmdRequestStatus, {}));
    for (TestClient* client : {first.get(), second.get()}) {
        const auto packet = client->readPacketOf(CmdStatus);
        ASSERT_TRUE(packet.has_value());
        EXPECT_THAT(packet->payload, ElementsAre(0x00, 0x01, 0x00, 0xFE, 0xFF, 0xFF, 0xFF, 0xFF));
    }
}

TEST_F(FlasherTest, OnlyTheOwnerAbortsARunningJob) {
    module_->dropAcksFrom = 0;
    module_->dropAckCount = 1000;
    auto owner = connect();
    auto other = connect();
    upload(*owner, folder_.write("fw.hex", kFirmware), StateProgramming);
    statusesUntilState(*other, StateProgramming);

    ASSERT_TRUE(other->sendPacket(CmdReset, {}));
    EXPECT_EQ(askStatus(*other).state, StateProgramming);
    ASSERT_TRUE(owner->sendPacket(CmdReset, {}));
    EXPECT_THAT(statesOf(statusesUntilState(*other, StateIdle)), ElementsAre(StateIdle));

    // Done and error states are left by anyone's reset.
    module_->dropAckCount = 0;
    upload(*owner, folder_.write("fw.hex", kFirmware), StateDone);
    ASSERT_TRUE(other->sendPacket(CmdReset, {}));
    EXPECT_EQ(statusesUntilState(*owner, StateIdle).back().state, StateIdle);
}

TEST_F(FlasherTest, AnyClientsLockBlocksUploadsButNeverARunningJob) {
    auto locker = connect();
    auto uploader = connect();
    const std::string firmware = folder_.write("fw.hex", kFirmware);

    ASSERT_TRUE(locker->sendPacket(CmdSetLock, {5}));
    EXPECT_EQ(statusesUntilState(*uploader, StateLocked).size(), 1u);
    ASSERT_TRUE(uploader->sendPacket(CmdUploadHexFile, uploadPayload(0, 0x26, 0, firmware)));
    ASSERT_TRUE(uploader->sendPacket(CmdReset, {}));  // re-evaluates, still locked
    EXPECT_EQ(askStatus(*uploader).state, StateLocked);
    EXPECT_TRUE(module_->frames().empty());

    ASSERT_TRUE(locker->sendPacket(CmdSetLock, {0}));
    EXPECT_EQ(statusesUntilState(*uploader, StateIdle).size(), 1u);

    // A lock taken during a job (the first acknowledgement is lost, so it runs for a second) lets it
    // finish; the next request finds the server locked.
    module_->dropAcksFrom = 0;
    module_->dropAckCount = 1;
    upload(*uploader, firmware, StateProgramming);
    ASSERT_TRUE(locker->sendPacket(CmdSetLock, {1}));
    const std::vector<FlashStatus> rest = statusesUntilState(*uploader, StateDone);
    EXPECT_THAT(statesOf(rest), ::testing::Each(::testing::Ne(StateLocked)));
    ASSERT_TRUE(uploader->sendPacket(CmdUploadHexFile, uploadPayload(0, 0x26, 0, firmware)));
    EXPECT_EQ(statusesUntilState(*uploader, StateLocked).size(), 1u);
}

TEST_F(FlasherTest, MissingFileIsReportedWithItsNameAndNeedsAReset) {
    OutputCapture output;
    auto client = connect();
    const std::string missing = folder_.path() + "/missing.hex";
    const auto statuses = upload(*client, missing, StateErrFileNotFound, ModeNewModule, 0x33, 0xCAFEBABE);
    EXPECT_THAT(statesOf(statuses), ElementsAre(StateErrFileNotFound));
    EXPECT_EQ(statuses.back().mode, ModeNewModule);
    EXPECT_EQ(statuses.back().targetAddress, 0x33);
    EXPECT_EQ(statuses.back().targetIdentifier, 0xCAFEBABEu);
    EXPECT_EQ(
        output.waitFor("handleNewPacketFromClient() CmdUploadHexFile File not found (" + missing + ")\n", 1),
        1);

    // Ignored until reset, even for a file that exists.
    ASSERT_TRUE(
        client->sendPacket(CmdUploadHexFile, uploadPayload(0, 0, 0, folder_.write("fw.hex", kFirmware))));
    EXPECT_EQ(askStatus(*client).state, StateErrFileNotFound);

    // Six bytes, or a path without its terminating 0, give an empty name.
    Bytes unterminated = uploadPayload(0, 0, 0, folder_.path() + "/fw.hex");
    unterminated.back() = 'x';
    for (const Bytes& payload : {Bytes{0, 0, 0, 0, 0, 0}, unterminated}) {
        ASSERT_TRUE(client->sendPacket(CmdReset, {}));
        statusesUntilState(*client, StateIdle);
        ASSERT_TRUE(client->sendPacket(CmdUploadHexFile, payload));
        statusesUntilState(*client, StateErrFileNotFound);
    }
    EXPECT_EQ(output.waitFor("File not found ()\n", 2), 2);

    // Five bytes are no request at all.
    ASSERT_TRUE(client->sendPacket(CmdReset, {}));
    statusesUntilState(*client, StateIdle);
    ASSERT_TRUE(client->sendPacket(CmdUploadHexFile, {0, 0, 0, 0, 0}));
    EXPECT_EQ(askStatus(*client).state, StateIdle);
}

TEST_F(FlasherTest, FileThatCannotBeOpenedOrReadEndsTheJobBeforeTheSearch) {
    auto client = connect();
    const std::string vanishing = folder_.write("gone.hex", kFirmware);
    // Removed after the existence check, before the main thread loads it.
    server_->setBeforeUpload([vanishing] { std::remove(vanishing.c_str()); });
    EXPECT_THAT(statesOf(upload(*client, vanishing, StateErrFileOpen)),
                ElementsAre(StatePreparing, StateErrFileOpen));
    server_->setBeforeUpload({});

    ASSERT_TRUE(client->sendPacket(CmdReset, {}));
    statusesUntilState(*client, StateIdle);
    EXPECT_THAT(
        statesOf(upload(*client, folder_.write("bad.hex", ":040000001122334452\n"), StateErrFileFormat)),
        ElementsAre(StatePreparing, StateErrFileFormat));
    EXPECT_TRUE(module_->frames().empty());
}

TEST_F(FlasherTest, ExitWhenIdleAndTheLastClientLeavingAreNotified) {
    OutputCapture output;
    auto first = connect();
    auto second = connect();
    ASSERT_TRUE(first->sendPacket(CmdExitWhenIdle, {}));
    EXPECT_TRUE(server_->waitForExitWhenIdle(1));
    EXPECT_EQ(server_->lastCommandOffset(), CANFlasherServer::kCommandOffset);

    first->close();
    EXPECT_EQ(output.waitFor("CANFlasherServer::clientDisconnected( 0 ) -> 1\n", 1), 1);
    second->close();
    EXPECT_TRUE(server_->waitForAllClientsGone(1));
    EXPECT_EQ(output.waitFor("CANFlasherServer::clientDisconnected( 1 ) -> 0\n", 1), 1);
}

}  // namespace
