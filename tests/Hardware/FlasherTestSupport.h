// Shared fixture of the flasher tests: a virtual CAN bus with a scripted module on it, the flasher
// server on an ephemeral port with uploads run on a stand-in main thread, TCP clients, and hex files
// in a private temporary folder.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "CANFlasherServer.h"
#include "ClientSupport.h"
#include "FlashTypes.h"
#include "VirtualCanBus.h"

// One frame as the module saw it, and when.
struct SeenFrame {
    CanFrame frame;
    Clock::time_point at;
};

// Frames compared and printed by value in expectations.
bool operator==(const CanFrame& a, const CanFrame& b);
std::ostream& operator<<(std::ostream& out, const CanFrame& frame);
CanFrame extendedFrame(std::uint32_t identifier, std::vector<std::uint8_t> data);

// A bootloader on the bus that answers the flasher the way the real module does; its replies are
// built here from the protocol tables, not by the code under test. It answers nothing after the
// bus has been shut down.
class ScriptedModule {
  public:
    ScriptedModule(VirtualCanBus& bus, std::int32_t endpoint);
    // The bus must have been shut down first (that releases the module's receiving thread).
    ~ScriptedModule();

    // What the module answers; all on by default.
    std::atomic<bool> answerSearch{true};
    std::atomic<bool> answerErase{true};
    // Upload frames (counted as received, repeats included) whose acknowledgement is lost.
    std::atomic<int> dropAcksFrom{-1};
    std::atomic<int> dropAckCount{0};

    // Waits until `count` frames have come from the flasher; returns all seen so far.
    std::vector<SeenFrame> waitForFrames(std::size_t count, std::chrono::milliseconds timeout);
    std::vector<SeenFrame> frames();

  private:
    void run();
    bool reply(const CanFrame& request, CanFrame& answer);

    std::int32_t endpoint_;
    int uploadFramesSeen_ = 0;
    std::mutex lock_;
    std::condition_variable changed_;
    std::vector<SeenFrame> frames_;
    std::thread thread_;
};

// The server under test: uploads are handed to the fixture's stand-in main thread, as the daemon hands
// them to its event loop; the notifications are counted.
class TestFlasherServer : public CANFlasher::CANFlasherServer {
  public:
    TestFlasherServer(std::int32_t channel, std::function<void()> uploadRequested);
    ~TestFlasherServer() override { stopServer(); }

    void startUpload() override;
    void allClientsGone() override;
    void exitWhenIdleRequested(int clientIndex, int commandOffset, const std::uint8_t* payload) override;
    // Runs on the client's handler thread before the upload is handed over.
    void setBeforeUpload(std::function<void()> hook);

    using CANFlasherServer::handleFrame;
    using CANFlasherServer::handleTimeout;
    using CANFlasherServer::retriesLeft;
    using CANFlasherServer::timeoutQueue;

    // Waits until allClientsGone / exitWhenIdleRequested have been called `count` times.
    bool waitForAllClientsGone(int count);
    bool waitForExitWhenIdle(int count);
    int lastCommandOffset();

  private:
    bool waitForCount(const int& counter, int count);

    std::mutex callLock_;
    std::condition_variable called_;
    int allClientsGoneCalls_ = 0;
    int exitWhenIdleCalls_ = 0;
    int lastCommandOffset_ = 0;
    std::function<void()> uploadRequested_;
    std::mutex hookLock_;
    std::function<void()> beforeUpload_;
};

// A folder under /tmp removed with everything in it.
class TempFolder {
  public:
    TempFolder();
    ~TempFolder();
    const std::string& path() const { return path_; }
    // Writes `content` to a file in the folder and returns its path.
    std::string write(const std::string& name, const std::string& content) const;

  private:
    std::string path_;
};

// Payload of CmdUploadHexFile.
Bytes uploadPayload(std::uint8_t mode, std::uint8_t address, std::uint32_t identifier,
                    const std::string& path);

class FlasherTest : public ::testing::Test {
  public:
    static constexpr int kSlots = 5;

  protected:
    static constexpr std::int32_t kChannel = 3;

    void SetUp() override;
    void TearDown() override;

    // A connected client whose identity packet has been read.
    std::unique_ptr<TestClient> connect();
    // Status packets read until one satisfies `done` (which is included); fails the test at the deadline.
    std::vector<CANFlasher::FlashStatus> statusesUntil(
        TestClient& client, const std::function<bool(const CANFlasher::FlashStatus&)>& done,
        std::chrono::milliseconds timeout = kDeadline);
    std::vector<CANFlasher::FlashStatus> statusesUntilState(TestClient& client, std::int32_t state,
                                                            std::chrono::milliseconds timeout = kDeadline);
    // Asks with CmdRequestStatus and returns the answer.
    CANFlasher::FlashStatus askStatus(TestClient& client);
    // A second server on its own channel of the bus, never started: no socket, no threads. Tests drive
    // its reactions (frames, time-outs, events) directly on the test thread.
    std::unique_ptr<TestFlasherServer> makeDirectServer();
    // Sends a packet to a server as its client slot 0 would.
    static void deliver(CANFlasher::CANFlasherServer& server, std::uint16_t command, const Bytes& payload);

    // Requests an upload of `path` and waits for the job to reach `state`; returns the statuses seen.
    std::vector<CANFlasher::FlashStatus> upload(TestClient& client, const std::string& path,
                                                std::int32_t state,
                                                std::uint8_t mode = CANFlasher::ModeIsoStyle,
                                                std::uint8_t address = 0x26,
                                                std::uint32_t identifier = 0x12345678,
                                                std::chrono::milliseconds timeout = kDeadline);

    static constexpr std::int32_t kDirectChannel = 4;

    VirtualCanBus bus_;
    std::int32_t flasherEndpoint_ = -1;
    std::unique_ptr<ScriptedModule> module_;
    std::unique_ptr<TestFlasherServer> server_;
    TempFolder folder_;

  private:
    void runUploads();

    std::mutex uploadLock_;
    std::condition_variable uploadChanged_;
    int uploadsPending_ = 0;
    bool stopping_ = false;
    std::thread uploadThread_;
};
