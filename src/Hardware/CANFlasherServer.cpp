#include "CANFlasherServer.h"

#include <pthread.h>

#include <cstdio>
#include <cstring>
#include <utility>

#include "HexLoader.h"
#include "canchannel.h"
#include "fileio.h"
#include "varnoch/protocol/FlashProtocol.h"

namespace CANFlasher {

namespace {

// Call origin the kernel layer reports for the two flasher threads.
constexpr const char* kThreadOrigin = "Hardware/CANFlasherServer";
constexpr std::uint32_t kReceptionOriginLine = 77;
constexpr std::uint32_t kTimeoutOriginLine = 78;
constexpr int kAllClients = -1;
constexpr std::int32_t kFullProgress = 100;

std::uint64_t packData(const std::uint8_t* data) {
    std::uint64_t packed = 0;
    for (int i = FlashMessage::kMaxLength - 1; i >= 0; --i) {
        packed = (packed << 8) | data[i];
    }
    return packed;
}

std::uint32_t packLengthAndFlag(const FlashMessage& message) {
    return (static_cast<std::uint32_t>(message.length) & 0xFFFF) | (message.extended ? 0x10000u : 0u);
}

}  // namespace

void CANFlasherServer::AwaitedReply::store(const FlashMessage& reply) {
    identifier_ = reply.identifier;
    lengthAndFlag_ = packLengthAndFlag(reply);
    data_ = packData(reply.data);
}

bool CANFlasherServer::AwaitedReply::matches(const FlashMessage& frame) const {
    if (frame.identifier != identifier_ || packLengthAndFlag(frame) != lengthAndFlag_) {
        return false;
    }
    const std::int32_t length = frame.length < 0 ? 0 : frame.length;
    const std::uint64_t compared = length >= FlashMessage::kMaxLength ? ~0ull : (1ull << (8 * length)) - 1;
    return ((packData(frame.data) ^ data_) & compared) == 0;
}

CANFlasherServer::CANFlasherServer(std::int32_t canChannel, int port, int slotCount)
    : ProprietarySocketServer(port, slotCount),
      lockFlagCount_(slotCount > 0 ? slotCount : 0),
      canChannel_(canChannel),
      receptionLink_(std::make_shared<ReceptionLink>()) {
    receptionLink_->channel = canChannel;
    receptionLink_->server = this;
    lockFlags_ = std::make_unique<std::atomic<std::uint8_t>[]>(static_cast<std::size_t>(lockFlagCount_));
    for (int i = 0; i < lockFlagCount_; ++i) {
        lockFlags_[static_cast<std::size_t>(i)] = 0;
    }
    expectedReply_.store(FlashMessage(0, 0, nullptr, true));
}

CANFlasherServer::~CANFlasherServer() {
    {
        // Waits for a frame being handled; the thread ends at the next frame it receives.
        const std::lock_guard<std::mutex> detach(receptionLink_->lock);
        receptionLink_->server = nullptr;
    }
    timeoutQueue_.push(kTimeoutStop);
    if (timeoutThread_ != 0) {
        (void)threadfunc::threadJoin(timeoutThread_);  // a failed join is reported by the kernel layer
    }
    replyTimer_.stop();
    // Normally done already by the most derived class, whose hooks the client threads may still call.
    stopServer();
}

threadfunc::ThreadHandle CANFlasherServer::startServer(bool globalAccess) {
    (void)ProprietarySocketServer::startServer(globalAccess);  // the accept thread is the base's to keep
    auto link = std::make_unique<std::shared_ptr<ReceptionLink>>(receptionLink_);
    receptionThread_ = threadfunc::ThreadCreate(kThreadPriority, receptionEntry, link.get(), 0, kThreadOrigin,
                                                kReceptionOriginLine);
    if (receptionThread_ != 0) {
        (void)link.release();  // the thread owns its share of the link now
    }
    timeoutThread_ =
        threadfunc::ThreadCreate(kThreadPriority, timeoutEntry, this, 0, kThreadOrigin, kTimeoutOriginLine);
    return timeoutThread_;
}

void CANFlasherServer::handleNewPacketFromClient(int clientIndex, TPacket*& packet) {
    if (packet == nullptr) {
        return;
    }
    handleCommand(clientIndex, packet->getCommand(), packet->getPayload(), packet->getPayloadSize());
}

void CANFlasherServer::clientDisconnected(int clientIndex) {
    const int remaining = clientCount();
    std::printf("CANFlasherServer::clientDisconnected( %i ) -> %i\n", clientIndex, remaining);
    if (remaining == 0) {
        allClientsGone();
    }
}

void CANFlasherServer::handleEvent(std::int32_t code, std::int32_t /*parameter*/) {
    if (code == EventStartUpload) {
        CANFlasherServer::startUpload();
    }
}

FlashStatus CANFlasherServer::status() const {
    FlashStatus status;
    status.mode = mode_;
    status.state = state_;
    status.progress = progress_;
    status.targetAddress = targetAddress_;
    status.targetIdentifier = targetIdentifier_;
    return status;
}

// ---------------------------------------------------------------------------------------------
// Status

void CANFlasherServer::broadcastStatus() {
    auto owned = std::make_unique<TPacket>(static_cast<std::uint32_t>(FlashStatus::kWireSize), CmdStatus);
    if (owned->data == nullptr) {
        return;  // no memory for the packet: this report is lost, the next one carries the state
    }
    status().toWire(owned->getPayload());
    TPacket* packet = owned.release();
    sendToClient(kAllClients, packet);
}

void CANFlasherServer::setState(std::int32_t state) {
    if (state_.exchange(state) == state) {
        return;
    }
    if (isErrorState(state)) {
        replyTimer_.stop();
        awaitingReply_ = false;
    }
    statusChanged();
}

void CANFlasherServer::statusChanged() {
    broadcastStatus();
    if (statusObserver_) {
        statusObserver_(status());
    }
}

void CANFlasherServer::updateLockState() {
    bool locked = false;
    for (int i = 0; i < lockFlagCount_; ++i) {
        locked = locked || lockFlags_[static_cast<std::size_t>(i)] != 0;
    }
    const std::int32_t state = state_;
    if (!locked) {
        if (state == StateLocked) {
            setState(StateIdle);
        }
    } else if (state == StateIdle || state == StateDone || isErrorState(state)) {
        // A running job is never interrupted by a lock.
        setState(StateLocked);
    }
}

// ---------------------------------------------------------------------------------------------
// Commands

void CANFlasherServer::handleCommand(int clientIndex, std::uint16_t command, const std::uint8_t* payload,
                                     std::uint32_t payloadSize) {
    switch (command) {
        case CmdRequestStatus:
            broadcastStatus();
            break;
        case CmdReset:
            resetJob(clientIndex);
            break;
        case CmdSetLock:
            if (clientIndex >= 0 && clientIndex < lockFlagCount_) {
                // An empty payload releases: there is no byte that could ask for the lock.
                lockFlags_[static_cast<std::size_t>(clientIndex)] =
                    (payloadSize > 0 && payload[0] != 0) ? 1 : 0;
            }
            updateLockState();
            break;
        case CmdUploadHexFile:
            acceptUpload(clientIndex, payload, payloadSize);
            break;
        case CmdExitWhenIdle:
            exitWhenIdleRequested(clientIndex, kCommandOffset, payload);
            break;
        default:
            break;
    }
}

void CANFlasherServer::resetJob(int clientIndex) {
    const std::int32_t state = state_;
    if (state == StateLocked) {
        updateLockState();
    } else if (isBusyState(state)) {
        // Only the owner may abort; a pending reply or time-out is ignored later by the state.
        if (clientIndex == owner_) {
            setState(StateIdle);
        }
    } else if (state == StateDone || isErrorState(state)) {
        setState(StateIdle);
    }
}

void CANFlasherServer::acceptUpload(int clientIndex, const std::uint8_t* payload, std::uint32_t payloadSize) {
    updateLockState();
    UploadRequest request;
    if (state_ != StateIdle || !UploadRequest::fromPayload(payload, payloadSize, request)) {
        return;
    }
    owner_ = clientIndex;
    mode_ = request.mode;
    targetAddress_ = request.address;
    targetIdentifier_ = request.identifier;
    progress_ = 0;
    fileName_ = std::move(request.path);
    if (fileio::fileExists(fileName_)) {
        startUpload();
        return;
    }
    std::printf("handleNewPacketFromClient() CmdUploadHexFile File not found (%s)\n", fileName_.c_str());
    std::fflush(stdout);
    setState(StateErrFileNotFound);
}

// ---------------------------------------------------------------------------------------------
// Upload

void CANFlasherServer::startUpload() {
    setState(StatePreparing);
    loadHexFile();
    if (state_ == StatePreparing) {
        retriesLeft_ = kSearchRetries;
        setState(StateSearching);
        sendSearchRequest();
    }
}

void CANFlasherServer::loadHexFile() {
    messageCount_ = 0;
    // Orders the previous job's last reads of the list before it is rewritten (its value is of no use).
    (void)messageUses_.load(std::memory_order_acquire);
    const HexLoadResult result =
        loadHexMessages(fileName_, messages_, [this] { return state_ == StatePreparing; });
    messageCount_ = static_cast<std::uint32_t>(messages_.size());
    switch (result) {
        case HexLoadResult::OpenFailed:
            setState(StateErrFileOpen);
            break;
        case HexLoadResult::Malformed:
            setState(StateErrFileFormat);
            break;
        case HexLoadResult::Loaded:
        case HexLoadResult::Interrupted:
            break;
    }
}

void CANFlasherServer::transmit(const FlashMessage& message) {
    const CanFrame frame = message.toCanFrame();
    (void)canChannelSend(canChannel_, &frame);  // a lost request is made good by the time-out
}

void CANFlasherServer::sendRequest(const FlashMessage& request, const FlashMessage& reply) {
    expectedReply_.store(reply);
    awaitingReply_ = true;
    replyTimer_.startOnce(kReplyTimeoutMs);
    transmit(request);
}

void CANFlasherServer::sendSearchRequest() {
    sendRequest(searchRequest(mode_, static_cast<std::uint32_t>(targetAddress_.load()), targetIdentifier_,
                              retriesLeft_),
                searchReply());
}

void CANFlasherServer::sendEraseRequest() {
    sendRequest(eraseRequest(), eraseReply());
}

void CANFlasherServer::sendCurrentMessage() {
    const std::uint32_t index = currentIndex_;
    if (index >= messageCount_) {
        return;
    }
    const FlashMessage message = messages_[index];
    messageUses_.fetch_add(1, std::memory_order_release);
    sendRequest(message, expectedReplyFor(message));
}

void CANFlasherServer::sendFinish() {
    transmit(finishFrame());
}

void CANFlasherServer::handleFrame(const FlashMessage& frame) {
    if (awaitingReply_ && expectedReply_.matches(frame)) {
        handleReply(frame);
    }
}

void CANFlasherServer::handleReply(const FlashMessage& /*reply*/) {
    replyTimer_.stop();
    awaitingReply_ = false;
    const std::uint32_t count = messageCount_;
    switch (state_) {
        case StateSearching:
            retriesLeft_ = kEraseRetries;
            setState(StateErasing);
            sendEraseRequest();
            break;
        case StateErasing:
            currentIndex_ = 0;
            retriesLeft_ = kMessageRetries;
            setState(StateProgramming);
            // Without messages the job waits in Programming until its owner resets it.
            if (currentIndex_ < count) {
                sendCurrentMessage();
            }
            break;
        case StateProgramming: {
            const std::uint32_t index = ++currentIndex_;
            retriesLeft_ = kMessageRetries;
            if (index >= count) {
                progress_ = kFullProgress;
                setState(StateDone);
                sendFinish();
                break;
            }
            const auto percent = static_cast<std::int32_t>(index * 100u / count);
            if (percent != progress_) {
                progress_ = percent;
                statusChanged();
            }
            sendCurrentMessage();
            break;
        }
        default:
            break;  // the job was reset meanwhile; the reply is consumed
    }
}

void CANFlasherServer::failStep(std::int32_t errorState) {
    state_ = errorState;
    replyTimer_.stop();
    awaitingReply_ = false;
    statusChanged();
}

void CANFlasherServer::handleTimeout() {
    // The mode, not the state, is what this line has always shown.
    std::printf("CANFlasherServer::handleTimeout() Mode %i\n", mode_.load());
    const std::uint32_t retries = retriesLeft_;
    switch (state_) {
        case StateSearching:
            if (retries == 0) {
                failStep(StateErrDeviceNotFound);
                break;
            }
            retriesLeft_ = retries - 1;
            sendSearchRequest();
            break;
        case StateErasing:
            if (retries == 0) {
                failStep(StateErrEraseTimeout);
                break;
            }
            retriesLeft_ = retries - 1;
            sendEraseRequest();
            break;
        case StateProgramming:
            if (retries == 0) {
                failStep(StateErrResponseTimeout);
                break;
            }
            retriesLeft_ = retries - 1;
            if (currentIndex_ < messageCount_) {
                sendCurrentMessage();
            }
            break;
        default:
            break;
    }
}

// ---------------------------------------------------------------------------------------------
// Threads

std::uint32_t CANFlasherServer::receptionEntry(void* link) {
    const std::unique_ptr<std::shared_ptr<ReceptionLink>> share(
        static_cast<std::shared_ptr<ReceptionLink>*>(link));
    if (share != nullptr && *share != nullptr) {
        receptionLoop(**share);
    }
    return 0;
}

std::uint32_t CANFlasherServer::timeoutEntry(void* server) {
    if (server != nullptr) {
        static_cast<CANFlasherServer*>(server)->timeoutLoop();
    }
    return 0;
}

void CANFlasherServer::receptionLoop(ReceptionLink& link) {
    CanFrame frame{};
    // The daemon's port blocks until a frame arrives; a channel that answers without a frame has no
    // bus behind it any more (a released test bus), so there is nothing left to wait for.
    while (canChannelReceive(link.channel, &frame) != 0) {
        // Only the destructor ever waits for this lock, once.
        const std::lock_guard<std::mutex> handling(link.lock);
        if (link.server == nullptr) {
            // The server is gone, and with it the only holder of this thread's handle: nobody will
            // join it, so it is reclaimed when it ends. Cannot fail for a thread that is still joinable.
            (void)pthread_detach(pthread_self());
            return;
        }
        link.server->handleFrame(FlashMessage::fromCanFrame(frame));
    }
}

void CANFlasherServer::timeoutLoop() {
    for (;;) {
        if (timeoutQueue_.pop() < 0) {
            return;
        }
        handleTimeout();
    }
}

}  // namespace CANFlasher
