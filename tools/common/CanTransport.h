// How the tools and benchmarks meet a CAN bus: one small frame interface, and its SocketCAN
// implementation, a raw socket on a named interface that converts frames with the daemon's own port
// conversion (canport.h).
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>

#include "varnoch/protocol/CanFrame.h"

namespace toolsupport {

class FrameTransport {
  public:
    enum class Received { Frame, Timeout, Failed };

    virtual ~FrameTransport() = default;
    /// Waits at most `timeoutMs` for one data frame; Timeout also for a record that is no data frame
    /// (the caller asks again), Failed when the bus cannot be read any more.
    [[nodiscard]] virtual Received receive(CanFrame& frame, std::uint32_t timeoutMs) = 0;
    /// Puts one frame on the bus; false when it could not be sent.
    [[nodiscard]] virtual bool send(const CanFrame& frame) = 0;
    /// When the frame that receive() delivered last arrived: the kernel's time of arrival where the
    /// transport keeps it, else when receive() took it.
    [[nodiscard]] virtual std::chrono::steady_clock::time_point receivedAt() const = 0;
};

/// A raw CAN socket bound to one interface by name ("can0", "vcan0"). Error frames and remote requests
/// are not delivered; the transport's own frames do not come back to it.
class SocketCanTransport final : public FrameTransport {
  public:
    /// Opens and binds the socket; null with a one-line `error` when the system has no CAN sockets or
    /// there is no such interface. An interface that is down is no error: `warning` (when given) then
    /// says so, and is left untouched otherwise.
    static std::unique_ptr<SocketCanTransport> open(const std::string& interfaceName, std::string& error,
                                                    std::string* warning = nullptr);
    ~SocketCanTransport() override;
    SocketCanTransport(const SocketCanTransport&) = delete;
    SocketCanTransport& operator=(const SocketCanTransport&) = delete;

    Received receive(CanFrame& frame, std::uint32_t timeoutMs) override;
    /// A full transmit queue (ENOBUFS) is waited out in short pauses, for up to about 100 ms.
    bool send(const CanFrame& frame) override;
    std::chrono::steady_clock::time_point receivedAt() const override { return receivedAt_; }
    /// Has the kernel stamp each frame when it reaches the socket (SO_TIMESTAMPNS), so that
    /// receivedAt() leaves out how long the reader took to be scheduled; false if it cannot.
    bool stampArrivals();
    /// The kernel's stamp of the frame that receive() delivered last, wall-clock time in microseconds
    /// since the epoch, the time every socket on the bus sees for it; 0 without stampArrivals().
    std::int64_t arrivalMicros() const { return arrivalMicros_; }

  private:
    struct OwnFd {
        int fd;
    };

  public:
    /// Takes over an open socket; only open() has one to give.
    explicit SocketCanTransport(OwnFd socket) : fd_(socket.fd) {}

  private:
    int fd_;
    std::uint32_t receiveTimeoutMs_ = 0;  // the socket's receive time-out; 0: none set yet
    bool stamped_ = false;
    std::chrono::steady_clock::time_point receivedAt_{};
    std::int64_t arrivalMicros_ = 0;
};

}  // namespace toolsupport
