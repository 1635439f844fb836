// The flasher's application server: owns the one flashing job, interprets the client commands,
// broadcasts every change of the job's status, loads the hex file and drives the bootloader dialogue
// with the module over CAN (a reply timer and limited repeats per step).
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "HexLoader.h"
#include "ProprietarySocketServer.h"
#include "threadfunc.h"
#include "varnoch/protocol/FlashProtocol.h"
#include "varnoch/protocol/FlashTypes.h"

namespace CANFlasher {

// Application events that the concrete server posts and the daemon's main thread handles.
enum ApplicationEvent : std::int32_t {
    EventTerminate = 21,
    EventNoClientsLeft = 22,
    EventExitWhenIdle = 23,
    EventStartUpload = 24,
};

class CANFlasherServer : public ProprietarySocketServer {
  public:
    static constexpr std::uint32_t kTimeoutQueueCapacity = 100;
    // Priority (threadfunc scale) of the reception and time-out threads.
    static constexpr int kThreadPriority = 30;
    // Values in the time-out queue: an expiry of the reply timer, and the destructor's stop.
    static constexpr int kTimeoutExpired = 0;
    static constexpr int kTimeoutStop = -1;
    // Offset of the payload in a packet as handed to exitWhenIdleRequested.
    static constexpr int kCommandOffset = 4;

    /// Not listening yet; every frame of a job goes through `canChannel`.
    CANFlasherServer(std::int32_t canChannel, int port, int slotCount);
    /// Detaches the reception thread, ends the time-out thread, stops the reply timer and the socket
    /// server. The reception thread stays blocked in the channel; a frame that still arrives ends it
    /// without touching this object, and so does a channel that can deliver nothing any more.
    ~CANFlasherServer() override;

    /// Starts the socket server (ends the process if it cannot bind), then the CAN reception and
    /// time-out threads; returns the time-out thread's handle (0 if it could not be started).
    threadfunc::ThreadHandle startServer(bool globalAccess) override;
    /// Runs the flasher command in the packet; never takes the packet over.
    void handleNewPacketFromClient(int clientIndex, TPacket*& packet) override;
    /// Prints the slot and the clients left; calls allClientsGone when none are left.
    void clientDisconnected(int clientIndex) override;

    /// Prepares the accepted upload (load the hex file) and sends the first search request. Derived
    /// classes may defer it to another thread, which then calls this base version.
    virtual void startUpload();
    /// The last client has disconnected.
    virtual void allClientsGone() = 0;
    /// A client sent CmdExitWhenIdle; the arguments may be ignored.
    virtual void exitWhenIdleRequested(int clientIndex, int commandOffset, const std::uint8_t* payload) = 0;

    /// The main thread's entry for application events: EventStartUpload runs the base startUpload on
    /// the calling thread; every other code is ignored.
    void handleEvent(std::int32_t code, std::int32_t parameter);

    /// Called with the new status after every change of state or progress, on the thread that made
    /// the change; must not block. Set before startServer.
    using StatusObserver = std::function<void(const FlashStatus&)>;
    void setStatusObserver(StatusObserver observer) { statusObserver_ = std::move(observer); }

    /// A consistent-enough copy of the job's status (each field read on its own).
    FlashStatus status() const;
    /// Handle of the CAN reception thread (0 before startServer). The daemon never joins it; an owner
    /// that releases the channel (a test's bus) may join it once receiving can deliver nothing more.
    threadfunc::ThreadHandle receptionThread() const { return receptionThread_; }

  protected:
    /// Sends the status wire form as CmdStatus to every connected client.
    void broadcastStatus();
    /// Stores and broadcasts a changed state; an error state also stops the timer and the wait.
    void setState(std::int32_t state);
    /// Locks the idle/finished job while any client forbids uploads, unlocks when none does.
    void updateLockState();
    /// Loads the file named in the request into the upload messages; ends in 104 or 105 on failure.
    void loadHexFile();

    void sendSearchRequest();
    void sendEraseRequest();
    void sendCurrentMessage();
    void sendFinish();

    /// A received frame: taken by handleReply only while a reply is awaited and it matches.
    void handleFrame(const FlashMessage& frame);
    /// Advances the job after the awaited reply.
    void handleReply(const FlashMessage& reply);
    /// Repeats the current request, or ends the step in its error state.
    void handleTimeout();

    threadfunc::queue_template<int>& timeoutQueue() { return timeoutQueue_; }
    std::uint32_t retriesLeft() const { return retriesLeft_; }

  private:
    // The reply a request waits for, held so that the reception thread can compare it without a lock.
    class AwaitedReply {
      public:
        void store(const FlashMessage& reply);
        bool matches(const FlashMessage& frame) const;

      private:
        std::atomic<std::uint32_t> identifier_{0};
        std::atomic<std::uint32_t> lengthAndFlag_{0};
        std::atomic<std::uint64_t> data_{0};
    };

    // What the reception thread shares with the server. It outlives the server, so that the thread,
    // left blocked in the channel when the server is destroyed, never reaches a destroyed object.
    struct ReceptionLink {
        std::int32_t channel;
        std::mutex lock;           // held while one frame is handled, and to detach
        CANFlasherServer* server;  // null once the server is being destroyed
    };

    static std::uint32_t receptionEntry(void* link);
    static std::uint32_t timeoutEntry(void* server);
    static void receptionLoop(ReceptionLink& link);
    void timeoutLoop();

    // Broadcasts the changed status and tells the observer.
    void statusChanged();
    void handleCommand(int clientIndex, std::uint16_t command, const std::uint8_t* payload,
                       std::uint32_t payloadSize);
    void acceptUpload(int clientIndex, const std::uint8_t* payload, std::uint32_t payloadSize);
    void resetJob(int clientIndex);
    // Sets the error state even if it is already set, and reports it.
    void failStep(std::int32_t errorState);
    // Arms the timer and the awaited reply before the request goes out, so that an instant answer
    // cannot overtake them.
    void sendRequest(const FlashMessage& request, const FlashMessage& reply);
    void transmit(const FlashMessage& message);

    // Job fields: shared by the main thread, the client handler threads and the two flasher threads
    // without a lock; each step is started by the one before it. The messages are written before the
    // first request of a job goes out and published with their count; readers release the list after
    // every use (messageUses_), so that the next job's load is ordered after the last job's reads. The
    // file name is written before the upload is started.
    std::unique_ptr<std::atomic<std::uint8_t>[]> lockFlags_;
    int lockFlagCount_;
    UploadMessages messages_;
    std::atomic<std::uint32_t> messageCount_{0};
    std::atomic<std::uint32_t> messageUses_{0};
    std::atomic<std::uint32_t> currentIndex_{0};
    std::atomic<std::int32_t> owner_{-1};
    std::atomic<std::int32_t> mode_{ModeIsoStyle};
    std::atomic<std::int32_t> state_{StateIdle};
    std::atomic<std::int32_t> progress_{0};
    std::atomic<std::int32_t> targetAddress_{FlashStatus::kDefaultAddress};
    std::atomic<std::uint32_t> targetIdentifier_{FlashStatus::kDefaultIdentifier};
    std::string fileName_;
    std::atomic<std::uint32_t> retriesLeft_{0};
    threadfunc::queue_template<int> timeoutQueue_{kTimeoutQueueCapacity};
    threadfunc::timer_template<int> replyTimer_{kReplyTimeoutMs, &timeoutQueue_, kTimeoutExpired};
    std::int32_t canChannel_;
    AwaitedReply expectedReply_;
    std::atomic<bool> awaitingReply_{false};
    threadfunc::ThreadHandle timeoutThread_ = 0;
    threadfunc::ThreadHandle receptionThread_ = 0;
    std::shared_ptr<ReceptionLink> receptionLink_;
    StatusObserver statusObserver_;
};

}  // namespace CANFlasher
