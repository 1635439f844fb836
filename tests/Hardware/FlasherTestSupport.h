// Shared fixture of the flasher tests: a virtual CAN bus with a scripted module on it, the daemon's
// flasher server on an ephemeral port with a stand-in main thread draining the event queue, and hex
// files in a private temporary folder.
#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <ostream>
#include <string>
#include <thread>
#include <vector>

#include "CANFlasherServer_Orelevents.h"
#include "ClientSupport.h"
#include "VirtualCanBus.h"

bool operator==(const CanFrame& a, const CanFrame& b);
std::ostream& operator<<(std::ostream& out, const CanFrame& frame);
CanFrame extendedFrame(std::uint32_t identifier, std::vector<std::uint8_t> data);
// One Intel-HEX record line with its checksum and a line end.
std::string hexRecord(std::uint8_t type, std::uint16_t address, const std::vector<std::uint8_t>& bytes);
// Payload of CmdUploadHexFile.
Bytes uploadPayload(std::uint8_t mode, std::uint8_t address, std::uint32_t identifier,
                    const std::string& path);

// A folder under /tmp, removed with everything in it.
class TempFolder {
  public:
    TempFolder();
    ~TempFolder();
    const std::string& path() const { return path_; }
    // Writes a file into the folder; returns its path.
    std::string write(const std::string& name, const std::string& content) const;

  private:
    std::string path_;
};

struct SeenFrame {
    CanFrame frame;
    Clock::time_point at;
};

// A bootloader that answers every frame the flasher sends (seen through the channel layer's monitor,
// on the sending thread) as the real module does, built from the protocol tables rather than by the
// code under test. Upload frames are counted as sent, repeats included.
class ScriptedModule {
  public:
    ScriptedModule(VirtualCanBus& bus, std::int32_t flasherEndpoint);
    ~ScriptedModule();  // nothing may send any more

    std::atomic<bool> answerSearch{true};
    std::atomic<bool> answerErase{true};
    std::atomic<int> dropAcksFrom{-1};  // the acknowledgements of upload frames dropAcksFrom ..
    std::atomic<int> dropAckCount{0};   // .. dropAcksFrom + dropAckCount - 1 are lost

    // Waits until `count` frames were sent; returns all sent so far.
    std::vector<SeenFrame> waitForFrames(std::size_t count);
    std::vector<CanFrame> frames(std::size_t count);

  private:
    static void monitor(const CanFrame& frame, std::uint32_t direction, std::uint32_t counter);
    bool reply(const CanFrame& request, CanFrame& answer);

    VirtualCanBus& bus_;
    std::int32_t flasherEndpoint_;
    int uploadFrames_ = 0;
    std::mutex lock_;
    std::condition_variable changed_;
    std::vector<SeenFrame> seen_;
};

// A server that is never started (no socket, no threads): tests drive its reactions directly.
class DirectServer : public CANFlasher::CANFlasherServer_Orelevents {
  public:
    using CANFlasherServer_Orelevents::CANFlasherServer_Orelevents;
    void startUpload() override {}  // the test calls handleEvent itself
    // Hands a packet to the server as client slot 0 would.
    void deliver(std::uint16_t command, const Bytes& payload);
    using CANFlasherServer::handleFrame;
    using CANFlasherServer::handleTimeout;
    using CANFlasherServer::retriesLeft;
    using CANFlasherServer::timeoutQueue;
};

class FlasherTest : public ::testing::Test {
  protected:
    static constexpr std::int32_t kChannel = 3;

    void SetUp() override;
    void TearDown() override;

    // A connected client whose identity packet has been read.
    std::unique_ptr<TestClient> connect();
    // Status records read until one in `state` (included); fails the test if it does not come.
    std::vector<CANFlasher::FlashStatus> statusesUntil(TestClient& client, std::int32_t state);
    // Requests an upload of `path` (address 0x26) and reads the statuses until `state`.
    std::vector<CANFlasher::FlashStatus> upload(TestClient& client, const std::string& path,
                                                std::int32_t state,
                                                std::uint8_t mode = CANFlasher::ModeIsoStyle,
                                                std::uint32_t identifier = 0x12345678);
    // Sends CmdRequestStatus and returns the state answered: the client must have read every earlier status.
    std::int32_t askState(TestClient& client);
    // A DirectServer on a channel of its own.
    std::unique_ptr<DirectServer> makeDirectServer();

    VirtualCanBus bus_;
    std::unique_ptr<ScriptedModule> module_;
    std::unique_ptr<CANFlasher::CANFlasherServer_Orelevents> server_;
    TempFolder folder_;

  private:
    static void onEvent(std::int32_t code, std::int32_t parameter);
    std::thread mainLoop_;
};
