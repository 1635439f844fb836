#include "CanTransport.h"

#include <linux/can.h>
#include <linux/can/raw.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/uio.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "canport.h"

namespace toolsupport {

namespace {

// A full transmit queue empties at bus speed: retry for up to 100 ms before giving the frame up.
constexpr int kNoBufferAttempts = 50;
constexpr long kNoBufferPauseNs = 2000000;

std::string withErrno(const std::string& text) {
    return text + " (" + std::strerror(errno) + ")";
}

// When the frame read with `message` arrived: the kernel's stamp where it gave one, else now. The stamp
// itself goes to `wallMicros` (microseconds since the epoch), which stays as it is without one.
std::chrono::steady_clock::time_point arrival(msghdr& message, std::int64_t& wallMicros) {
    const auto now = std::chrono::steady_clock::now();
    for (cmsghdr* item = CMSG_FIRSTHDR(&message); item != nullptr; item = CMSG_NXTHDR(&message, item)) {
        if (item->cmsg_level != SOL_SOCKET || item->cmsg_type != SCM_TIMESTAMPNS) {
            continue;
        }
        // The stamp is wall-clock time: its age, taken against the wall clock now, dates the frame on
        // the monotonic clock.
        timespec stamp{};
        std::memcpy(&stamp, CMSG_DATA(item), sizeof stamp);
        wallMicros = static_cast<std::int64_t>(stamp.tv_sec) * 1000000 + stamp.tv_nsec / 1000;
        timespec wall{};
        if (clock_gettime(CLOCK_REALTIME, &wall) != 0) {
            break;
        }
        const auto age = std::chrono::seconds(wall.tv_sec - stamp.tv_sec) +
                         std::chrono::nanoseconds(wall.tv_nsec - stamp.tv_nsec);
        return age > std::chrono::nanoseconds::zero()
                   ? now - std::chrono::duration_cast<std::chrono::steady_clock::duration>(age)
                   : now;
    }
    return now;
}

}  // namespace

std::unique_ptr<SocketCanTransport> SocketCanTransport::open(const std::string& interfaceName,
                                                             std::string& error, std::string* warning) {
    if (interfaceName.empty() || interfaceName.size() >= IFNAMSIZ) {
        error = "invalid interface name '" + interfaceName + "'";
        return nullptr;
    }
    const int fd = socket(PF_CAN, SOCK_RAW | SOCK_CLOEXEC, CAN_RAW);
    if (fd < 0) {
        if (errno == EAFNOSUPPORT || errno == EPROTONOSUPPORT) {
            error = withErrno("this system has no CAN socket support (PF_CAN)");
        } else {
            error = withErrno("cannot create a CAN socket");
        }
        return nullptr;
    }
    // From here on the object owns the descriptor and closes it on every early return.
    auto transport = std::make_unique<SocketCanTransport>(OwnFd{fd});

    ifreq request{};
    std::memcpy(request.ifr_name, interfaceName.c_str(), interfaceName.size() + 1);
    if (ioctl(fd, SIOCGIFINDEX, &request) < 0) {
        error = errno == ENODEV ? "no network interface named '" + interfaceName + "'"
                                : withErrno("cannot look up interface '" + interfaceName + "'");
        return nullptr;
    }
    sockaddr_can address{};
    address.can_family = AF_CAN;
    address.can_ifindex = request.ifr_ifindex;
    if (bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) < 0) {
        error = errno == ENODEV ? "'" + interfaceName + "' is not a CAN interface"
                                : withErrno("cannot bind to '" + interfaceName + "'");
        return nullptr;
    }
    // Not fatal: the daemon brings its interface up itself when it starts. A failed look-up leaves
    // nothing to warn about.
    if (warning != nullptr && ioctl(fd, SIOCGIFFLAGS, &request) == 0 && (request.ifr_flags & IFF_UP) == 0) {
        *warning = "interface '" + interfaceName + "' is down";
    }
    return transport;
}

SocketCanTransport::~SocketCanTransport() {
    // Nothing is pending on a raw CAN socket that a failed close could lose.
    static_cast<void>(close(fd_));
}

FrameTransport::Received SocketCanTransport::receive(CanFrame& frame, std::uint32_t timeoutMs) {
    // A blocking read bounded by the socket's receive time-out: one system call per frame while the
    // time-out stays the same (a request/answer exchange pays for nothing else). A time-out of 0
    // would mean no bound at all, so that case only looks.
    if (timeoutMs != 0 && timeoutMs != receiveTimeoutMs_) {
        const timeval limit{static_cast<time_t>(timeoutMs / 1000),
                            static_cast<suseconds_t>(timeoutMs % 1000) * 1000};
        if (setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit) != 0) {
            return Received::Failed;
        }
        receiveTimeoutMs_ = timeoutMs;
    }
    can_frame wire{};
    iovec part{&wire, sizeof wire};
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(timespec))];
    msghdr message{};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    if (stamped_) {
        message.msg_control = control;
        message.msg_controllen = sizeof control;
    }
    const ssize_t count = recvmsg(fd_, &message, timeoutMs == 0 ? MSG_DONTWAIT : 0);
    if (count < 0) {
        // EINTR: a signal, which the caller may be waiting for.
        return errno == EINTR || errno == EAGAIN || errno == EWOULDBLOCK ? Received::Timeout
                                                                         : Received::Failed;
    }
    // Short records, remote requests and error frames are not data frames: the caller just asks again.
    if (count != static_cast<ssize_t>(sizeof wire) || canPortWireKind(wire) != CanWireKind::Data) {
        return Received::Timeout;
    }
    frame = CanFrame{};
    canPortFromWire(wire, &frame);
    receivedAt_ = stamped_ ? arrival(message, arrivalMicros_) : std::chrono::steady_clock::now();
    return Received::Frame;
}

bool SocketCanTransport::stampArrivals() {
    const int on = 1;
    stamped_ = setsockopt(fd_, SOL_SOCKET, SO_TIMESTAMPNS, &on, sizeof on) == 0;
    return stamped_;
}

bool SocketCanTransport::send(const CanFrame& frame) {
    const can_frame wire = canPortToWire(frame);
    int attempts = 0;
    while (true) {
        const ssize_t count = write(fd_, &wire, sizeof wire);
        if (count == static_cast<ssize_t>(sizeof wire)) {
            return true;
        }
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (count < 0 && errno != ENOBUFS) {
            return false;
        }
        // The transmit queue is full (a raw CAN socket writes whole records or nothing): let it drain.
        if (++attempts == kNoBufferAttempts) {
            return false;
        }
        const timespec pause{0, kNoBufferPauseNs};
        // An interrupted pause only shortens the wait before the next attempt.
        static_cast<void>(nanosleep(&pause, nullptr));
    }
}

}  // namespace toolsupport
