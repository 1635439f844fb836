// The C++ client library of the varnoch daemon: one Client object is one TCP connection to the
// daemon, through which an application reads the daemon's identity and status, runs an upload to its
// end, and sends the lock, reset, exit-when-idle and echo commands.
//
// Failures are values (Error), never exceptions. A Client is not thread-safe: use it from the thread
// that owns it. Callbacks run on that thread, inside the call that was given them; while one runs,
// every call on the same Client returns Error::InCallback (see docs/client-library.md).
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "varnoch/protocol/FlashTypes.h"
#include "varnoch/protocol/Packet.h"

namespace varnoch::client {

// The status record with its mode and state tables and names, and the identity, are the protocol
// library's (varnoch/protocol/FlashTypes.h, varnoch/protocol/Packet.h).
using Status = CANFlasher::FlashStatus;
using Identity = varnoch::protocol::Identity;
using varnoch::protocol::kDefaultPort;

using Millis = std::chrono::milliseconds;

/// How long a call waits for the daemon's answer unless told otherwise.
constexpr Millis kDefaultTimeout{10000};
/// A time-out that never expires.
constexpr Millis kNoLimit{-1};
/// The host a Client connects to unless told otherwise: the daemon listens on loopback by default.
constexpr const char* kDefaultHost = "127.0.0.1";

/// Why a call did not succeed. Client::errorText() describes the last failure in words.
enum class [[nodiscard]] Error{
    None = 0,         ///< success
    CannotResolve,    ///< the host name did not resolve
    Refused,          ///< nothing listens at host:port
    CannotConnect,    ///< any other connection failure (unreachable, TCP time-out, ...)
    NotConnected,     ///< the Client has no connection (never connected, closed, or lost earlier)
    TimedOut,         ///< the daemon did not answer in time
    ConnectionLost,   ///< the daemon closed the connection, or sent something that is not a packet
    NotAccepted,      ///< upload refused: a client holds a lock, or another job is busy
    StartTimedOut,    ///< upload requested, but the daemon did not start it in time
    JobFailed,        ///< the upload ended in an error state (UploadResult::status says which)
    Aborted,          ///< the job went back to Idle or Locked before it ended (a reset)
    InvalidArgument,  ///< an argument the protocol cannot carry (e.g. an echo over the packet limit)
    InCallback,       ///< called from inside a callback of the same Client
};

/// The enumerator's name, e.g. "ConnectionLost".
[[nodiscard]] const char* errorName(Error error) noexcept;

/// A value, or the reason there is none.
template <typename T>
struct [[nodiscard]] Result {
    Error error = Error::None;  ///< None when `value` holds the answer
    T value{};                  ///< the answer; default-constructed on failure

    /// True on success.
    [[nodiscard]] bool ok() const noexcept { return error == Error::None; }
    /// True on success.
    explicit operator bool() const noexcept { return ok(); }
};

/// What to upload, and where to.
struct UploadRequest {
    /// Intel-HEX file; sent as absolutePath(file).
    std::string file;
    /// How the target is addressed (CANFlasher::FlashMode).
    std::int32_t mode = CANFlasher::ModeIsoStyle;
    /// Target address (used by "ISO Style").
    std::uint8_t address = static_cast<std::uint8_t>(Status::kDefaultAddress);
    /// Target identifier (used by "MT CAN").
    std::uint32_t identifier = Status::kDefaultIdentifier;
    /// For the answer to the first status request, and for the job's start after the request.
    Millis startTimeout = kDefaultTimeout;
};

/// Time the job spent in one state.
struct StateTime {
    std::int32_t state = CANFlasher::StateIdle;  ///< the state (CANFlasher::FlashState)
    Millis time{0};                              ///< from its first record to the next state's first record
};

/// How an upload ended.
struct UploadResult {
    Error error = Error::None;      ///< None when the job reached Done
    Status status;                  ///< the last record seen: Done, the error state, or the refusal
    std::vector<StateTime> states;  ///< every state of the job in order; the final one with 0 ms
    Millis total{0};                ///< from the job's first record to its last

    /// True when the job reached Done.
    [[nodiscard]] bool ok() const noexcept { return error == Error::None; }
};

/// Called with each status record of a job, on the thread that called upload().
using StatusCallback = std::function<void(const Status&)>;

/// The file's absolute path: resolved when it exists, otherwise joined to the working directory, so
/// that the daemon, whose working directory may differ, looks for the same file.
[[nodiscard]] std::string absolutePath(const std::string& file);

/// One connection to the daemon.
class Client {
  public:
    /// Without a connection; call connect().
    Client() noexcept;
    /// Closes the connection.
    ~Client();
    /// Takes over `other`'s connection; `other` is left without one.
    Client(Client&& other) noexcept;
    /// Closes this connection, then takes over `other`'s.
    Client& operator=(Client&& other) noexcept;
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;

    /// Connects to host:port and waits for the daemon's identity, all within `timeout`; an earlier
    /// connection is closed first. CannotResolve, Refused, CannotConnect or TimedOut on failure.
    Error connect(const std::string& host = kDefaultHost, std::uint16_t port = kDefaultPort,
                  Millis timeout = kDefaultTimeout);
    /// Closes the connection; nothing when there is none.
    void close() noexcept;
    /// True while connected (a lost connection shows only at the next call that uses it).
    [[nodiscard]] bool connected() const noexcept;
    /// The identity the daemon greeted this connection with; empty before connect().
    [[nodiscard]] const Identity& identity() const noexcept;
    /// The last failure in words, e.g. "cannot connect to 127.0.0.1:1: Connection refused".
    [[nodiscard]] const std::string& errorText() const noexcept;

    /// Asks for the status; returns the first record that arrives after the question. Records
    /// received before it and not yet taken by nextStatus() are dropped: this is "what is it now",
    /// not the stream of changes (the protocol does not tie answers to questions, so a record the
    /// daemon sent just before the question may still be the one returned).
    Result<Status> status(Millis timeout = kDefaultTimeout);
    /// The next status record in arrival order (every change of every job, and every answer to any
    /// client's status request), waiting at most `timeout`; kNoLimit waits for ever.
    Result<Status> nextStatus(Millis timeout = kDefaultTimeout);
    /// Asks the daemon to broadcast its status, without waiting; the answer comes to nextStatus().
    Error requestStatus();

    /// Forbids uploads on this connection's client slot (state Locked whenever no job runs).
    Error lock();
    /// Withdraws this slot's lock.
    Error unlock();
    /// Returns a Done or failed job to Idle, or aborts this connection's own running job.
    Error reset();
    /// Asks the daemon to end when its last client has disconnected.
    Error exitWhenIdle();
    /// Sends an echo request carrying `bytes` and waits for the daemon to send them back.
    Error echo(const std::vector<std::uint8_t>& bytes, Millis timeout = kDefaultTimeout);

    /// Sends an upload request without waiting: the daemon takes it only when Idle, and answers only
    /// through status records (nextStatus()). upload() does all that follows for you.
    Error requestUpload(const UploadRequest& request);
    /// Uploads a file and follows the job to its end: Done (None), JobFailed (the error state is in
    /// the result's status), NotAccepted, Aborted, ConnectionLost, TimedOut or StartTimedOut. A Done
    /// or failed job left by an earlier upload is reset first. `onStatus` sees each record of the job
    /// (each change of state or progress) as it arrives. Once the job runs the daemon's own time-outs
    /// end it, so there is no limit of ours.
    [[nodiscard]] UploadResult upload(const UploadRequest& request, const StatusCallback& onStatus = {});

  private:
    struct Impl;
    // None, or why no call can be made now (InCallback, NotConnected).
    [[nodiscard]] Error usable();

    std::unique_ptr<Impl> impl_;
};

}  // namespace varnoch::client
