#include <unistd.h>

#include <cstdlib>
#include <deque>
#include <memory>

#include "PacketLink.h"
#include "varnoch/client.h"

namespace varnoch::client {

namespace {

// Records that arrived while a call waited for something else, kept for nextStatus(). A program that
// never takes them loses the oldest first.
constexpr std::size_t kMaxPendingStatuses = 1024;

constexpr std::uint8_t kLockOn = CANFlasher::LockSet;
constexpr std::uint8_t kLockOff = CANFlasher::LockRelease;

using CANFlasher::CmdExitWhenIdle;
using CANFlasher::CmdRequestStatus;
using CANFlasher::CmdReset;
using CANFlasher::CmdSetLock;
using CANFlasher::CmdStatus;
using CANFlasher::CmdUploadHexFile;
using CANFlasher::isBusyState;
using CANFlasher::isErrorState;
using CANFlasher::StateDone;
using CANFlasher::StateErrFileNotFound;
using CANFlasher::StateIdle;
using CANFlasher::StateLocked;
using CANFlasher::StatePreparing;
using CANFlasher::StateSearching;
using protocol::CmdEcho;
using protocol::CmdIdentity;

bool isFinalState(std::int32_t state) {
    return state == StateDone || isErrorState(state);
}

bool isStatus(const Packet& packet) {
    return packet.command == CmdStatus && packet.payload.size() >= Status::kWireSize;
}

// What a status before the upload started tells of the request.
enum class StartAnswer { Started, Refused, Queued };

StartAnswer startAnswer(std::int32_t state) {
    if (state == StatePreparing || state == StateSearching || state == StateErrFileNotFound) {
        // 103 is the one answer to the request itself: the daemon did not find the file.
        return StartAnswer::Started;
    }
    if (state == StateLocked || isBusyState(state)) {
        return StartAnswer::Refused;
    }
    return StartAnswer::Queued;  // Idle: the start is still queued in the daemon; or the reset's broadcast
}

// Opens a new entry in `result.states` when the state changed, closing the time of the one before,
// and brings the total up to now.
void recordState(UploadResult& result, std::int32_t state, Clock::time_point firstAt,
                 Clock::time_point& stateAt) {
    const Clock::time_point now = Clock::now();
    if (result.states.empty() || result.states.back().state != state) {
        if (!result.states.empty()) {
            result.states.back().time = std::chrono::duration_cast<Millis>(now - stateAt);
        }
        result.states.push_back(StateTime{state, Millis(0)});
        stateAt = now;
    }
    result.total = std::chrono::duration_cast<Millis>(now - firstAt);
}

// Marks the time a callback runs, also when it leaves by an exception.
class CallbackScope {
  public:
    explicit CallbackScope(bool& flag) noexcept : flag_(flag) { flag_ = true; }
    ~CallbackScope() { flag_ = false; }
    CallbackScope(const CallbackScope&) = delete;
    CallbackScope& operator=(const CallbackScope&) = delete;

  private:
    bool& flag_;
};

}  // namespace

struct Client::Impl {
    PacketLink link;
    std::deque<Status> pending;
    Identity identity;
    std::string errorText;
    bool inCallback = false;

    Error fail(Error error, std::string text) {
        errorText = std::move(text);
        return error;
    }
    Error lost() {
        link.close();
        return fail(Error::ConnectionLost, "connection to the daemon lost");
    }
    Error send(std::uint16_t command, const std::uint8_t* payload = nullptr, std::size_t size = 0) {
        return link.send(command, payload, size) ? Error::None : lost();
    }
    void keep(const Status& status) {
        if (pending.size() == kMaxPendingStatuses) {
            pending.pop_front();
        }
        pending.push_back(status);
    }
    // The next packet, with TimedOut and ConnectionLost described.
    Error receive(Packet& packet, const Deadline& deadline) {
        const Error error = link.receive(packet, deadline);
        if (error == Error::None) {
            return Error::None;
        }
        // Anything but a time-out leaves the stream unusable.
        return error == Error::TimedOut ? fail(Error::TimedOut, "the daemon did not answer in time") : lost();
    }
    // Whether a job in `state` has ended, and if so with which error.
    bool ended(std::int32_t state, Error& error) {
        if (state == StateDone) {
            error = Error::None;
            return true;
        }
        if (isErrorState(state)) {
            error = fail(Error::JobFailed, "the job failed");
            return true;
        }
        if (state == StateIdle || state == StateLocked) {
            error = fail(Error::Aborted, "the job was aborted");
            return true;
        }
        return false;
    }
    // Follows an upload whose request was sent until it starts and ends, or is refused.
    Error followUpload(const UploadRequest& request, const StatusCallback& onStatus, UploadResult& result) {
        bool started = false;
        Clock::time_point firstAt;
        Clock::time_point stateAt;
        while (true) {
            const Result<Status> next = receiveStatus(Deadline(started ? kNoLimit : request.startTimeout));
            if (next.error == Error::TimedOut) {
                return fail(Error::StartTimedOut, "the daemon did not start the upload in time");
            }
            if (!next) {
                return next.error;
            }
            const Status& status = next.value;
            result.status = status;
            if (!started) {
                const StartAnswer answer = startAnswer(status.state);
                if (answer == StartAnswer::Refused) {
                    return fail(Error::NotAccepted, status.state == StateLocked
                                                        ? "a client holds a lock on the daemon"
                                                        : "the daemon is busy with another job");
                }
                if (answer == StartAnswer::Queued) {
                    continue;
                }
                started = true;
                firstAt = Clock::now();
            }
            recordState(result, status.state, firstAt, stateAt);
            if (onStatus) {
                const CallbackScope scope(inCallback);
                onStatus(status);
            }
            if (Error error = Error::None; ended(status.state, error)) {
                return error;
            }
        }
    }
    // The next status record from the socket (not from `pending`); other packets are passed over.
    Result<Status> receiveStatus(const Deadline& deadline) {
        Packet packet;
        while (true) {
            if (const Error error = receive(packet, deadline); error != Error::None) {
                return {error};
            }
            if (isStatus(packet)) {
                return {Error::None, Status::fromWire(packet.payload.data())};
            }
        }
    }
};

const char* errorName(Error error) noexcept {
    switch (error) {
        case Error::None:
            return "None";
        case Error::CannotResolve:
            return "CannotResolve";
        case Error::Refused:
            return "Refused";
        case Error::CannotConnect:
            return "CannotConnect";
        case Error::NotConnected:
            return "NotConnected";
        case Error::TimedOut:
            return "TimedOut";
        case Error::ConnectionLost:
            return "ConnectionLost";
        case Error::NotAccepted:
            return "NotAccepted";
        case Error::StartTimedOut:
            return "StartTimedOut";
        case Error::JobFailed:
            return "JobFailed";
        case Error::Aborted:
            return "Aborted";
        case Error::InvalidArgument:
            return "InvalidArgument";
        case Error::InCallback:
            return "InCallback";
    }
    return "unknown";
}

std::string absolutePath(const std::string& file) {
    const std::unique_ptr<char, void (*)(void*)> resolved(realpath(file.c_str(), nullptr), std::free);
    if (resolved) {
        return resolved.get();
    }
    if (!file.empty() && file[0] == '/') {
        return file;
    }
    const std::unique_ptr<char, void (*)(void*)> directory(getcwd(nullptr, 0), std::free);
    if (!directory) {
        return file;  // no working directory to join to: the daemon's own will be used
    }
    return std::string(directory.get()) + "/" + file;
}

Client::Client() noexcept = default;
Client::~Client() = default;
Client::Client(Client&& other) noexcept = default;
Client& Client::operator=(Client&& other) noexcept = default;

Error Client::usable() {
    if (impl_ && impl_->inCallback) {
        return Error::InCallback;
    }
    if (!impl_ || !impl_->link.open()) {
        return impl_ ? impl_->fail(Error::NotConnected, "not connected to a daemon") : Error::NotConnected;
    }
    return Error::None;
}

Error Client::connect(const std::string& host, std::uint16_t port, Millis timeout) {
    if (impl_ && impl_->inCallback) {
        return Error::InCallback;
    }
    impl_ = std::make_unique<Impl>();
    const Deadline deadline(timeout);
    if (const Error error = impl_->link.connect(host, port, deadline, impl_->errorText);
        error != Error::None) {
        return error;
    }
    // The greeting is the first packet; a daemon with every client slot taken sends it only when one frees.
    Packet packet;
    while (true) {
        if (const Error error = impl_->receive(packet, deadline); error != Error::None) {
            impl_->link.close();
            return error;
        }
        if (packet.command == CmdIdentity &&
            protocol::decodeIdentity(packet.payload.data(), packet.payload.size(), impl_->identity)) {
            return Error::None;
        }
        if (isStatus(packet)) {
            impl_->keep(Status::fromWire(packet.payload.data()));
        }
    }
}

void Client::close() noexcept {
    if (impl_ && !impl_->inCallback) {
        impl_->link.close();
    }
}

bool Client::connected() const noexcept {
    return impl_ && impl_->link.open();
}

const Identity& Client::identity() const noexcept {
    static const Identity none;
    return impl_ ? impl_->identity : none;
}

const std::string& Client::errorText() const noexcept {
    static const std::string none;
    return impl_ ? impl_->errorText : none;
}

Result<Status> Client::status(Millis timeout) {
    if (const Error error = usable(); error != Error::None) {
        return {error};
    }
    // What came before the question is history: what was kept, and what waits in the socket.
    impl_->pending.clear();
    Packet stale;
    while (impl_->link.receive(stale, Deadline(Millis(0))) == Error::None) {
    }
    if (const Error error = impl_->send(CmdRequestStatus); error != Error::None) {
        return {error};
    }
    return impl_->receiveStatus(Deadline(timeout));
}

Result<Status> Client::nextStatus(Millis timeout) {
    if (impl_ && !impl_->inCallback && !impl_->pending.empty()) {
        const Status status = impl_->pending.front();
        impl_->pending.pop_front();
        return {Error::None, status};
    }
    if (const Error error = usable(); error != Error::None) {
        return {error};
    }
    return impl_->receiveStatus(Deadline(timeout));
}

Error Client::requestStatus() {
    if (const Error error = usable(); error != Error::None) {
        return error;
    }
    return impl_->send(CmdRequestStatus);
}

Error Client::lock() {
    if (const Error error = usable(); error != Error::None) {
        return error;
    }
    return impl_->send(CmdSetLock, &kLockOn, 1);
}

Error Client::unlock() {
    if (const Error error = usable(); error != Error::None) {
        return error;
    }
    return impl_->send(CmdSetLock, &kLockOff, 1);
}

Error Client::reset() {
    if (const Error error = usable(); error != Error::None) {
        return error;
    }
    return impl_->send(CmdReset);
}

Error Client::exitWhenIdle() {
    if (const Error error = usable(); error != Error::None) {
        return error;
    }
    return impl_->send(CmdExitWhenIdle);
}

Error Client::echo(const std::vector<std::uint8_t>& bytes, Millis timeout) {
    if (const Error error = usable(); error != Error::None) {
        return error;
    }
    std::vector<std::uint8_t> request{protocol::EchoRequest};
    request.insert(request.end(), bytes.begin(), bytes.end());
    if (request.size() > protocol::kMaxPacketSize - protocol::kHeaderSize) {
        return impl_->fail(Error::InvalidArgument, "echo payload larger than a packet holds");
    }
    if (const Error error = impl_->send(CmdEcho, request.data(), request.size()); error != Error::None) {
        return error;
    }
    const Deadline deadline(timeout);
    Packet packet;
    while (true) {
        if (const Error error = impl_->receive(packet, deadline); error != Error::None) {
            return error;
        }
        if (isStatus(packet)) {
            impl_->keep(Status::fromWire(packet.payload.data()));
        } else if (packet.command == CmdEcho && !packet.payload.empty() &&
                   packet.payload[0] == protocol::EchoReply &&
                   std::equal(bytes.begin(), bytes.end(), packet.payload.begin() + 1, packet.payload.end())) {
            return Error::None;
        }
    }
}

Error Client::requestUpload(const UploadRequest& request) {
    if (const Error error = usable(); error != Error::None) {
        return error;
    }
    CANFlasher::UploadRequest wire;
    wire.mode = request.mode;
    wire.address = request.address;
    wire.identifier = request.identifier;
    wire.path = absolutePath(request.file);
    const std::vector<std::uint8_t> payload = wire.toPayload();
    return impl_->send(CmdUploadHexFile, payload.data(), payload.size());
}

UploadResult Client::upload(const UploadRequest& request, const StatusCallback& onStatus) {
    UploadResult result;
    if (const Error error = usable(); error != Error::None) {
        result.error = error;
        return result;
    }
    const auto finish = [&result](Error error) {
        result.error = error;
        return result;
    };
    // The daemon answers an upload request only through broadcasts, and ignores it unless Idle: learn
    // the state first, so that what follows can be told apart from an earlier job's leftovers.
    Result<Status> first = status(request.startTimeout);
    if (!first) {
        return finish(first.error);
    }
    result.status = first.value;
    if (isBusyState(first.value.state)) {
        return finish(impl_->fail(Error::NotAccepted, "the daemon is busy with another job"));
    }
    if (isFinalState(first.value.state)) {
        // A Done or failed job blocks new uploads until someone resets it; anyone may.
        if (const Error error = impl_->send(CmdReset); error != Error::None) {
            return finish(error);
        }
    }
    // The status request after the upload request is answered only once the upload request has been
    // handled (one client's packets are handled in order): a Locked answer means it was refused.
    Error error = requestUpload(request);
    if (error == Error::None) {
        error = impl_->send(CmdRequestStatus);
    }
    if (error != Error::None) {
        return finish(error);
    }
    result.error = impl_->followUpload(request, onStatus, result);
    return result;
}

}  // namespace varnoch::client
