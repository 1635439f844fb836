#include <linux/can.h>
#include <linux/can/raw.h>
#include <net/if.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "FrameTransport.h"

namespace modulesim {

namespace {

static_assert(sizeof(can_frame) == 16, "a classic CAN record is 16 bytes");
constexpr std::uint8_t kMaxDataLength = 8;
// A full transmit queue empties at bus speed: retry for up to 100 ms before giving the frame up.
constexpr int kNoBufferAttempts = 50;
constexpr long kNoBufferPauseNs = 2000000;

std::string withErrno(const std::string& text) {
    return text + " (" + std::strerror(errno) + ")";
}

}  // namespace

std::unique_ptr<SocketCanTransport> SocketCanTransport::open(const std::string& interfaceName,
                                                             std::string& error) {
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
    if (ioctl(fd, SIOCGIFFLAGS, &request) == 0 && (request.ifr_flags & IFF_UP) == 0) {
        // Not fatal: the daemon brings its interface up itself when it starts.
        std::fprintf(stderr, "varnoch-module-sim: warning: interface '%s' is down\n", interfaceName.c_str());
    }
    return transport;
}

SocketCanTransport::~SocketCanTransport() {
    // Nothing is pending on a raw CAN socket that a failed close could lose.
    static_cast<void>(close(fd_));
}

FrameTransport::Received SocketCanTransport::receive(CanFrame& frame, std::uint32_t timeoutMs) {
    pollfd waiting{fd_, POLLIN, 0};
    const int ready = poll(&waiting, 1, static_cast<int>(timeoutMs));
    if (ready == 0 || (ready < 0 && errno == EINTR)) {
        return Received::Timeout;
    }
    if (ready < 0) {
        return Received::Failed;
    }
    can_frame wire{};
    const ssize_t count = read(fd_, &wire, sizeof wire);
    if (count < 0) {
        return errno == EINTR || errno == EAGAIN ? Received::Timeout : Received::Failed;
    }
    // Short records, remote requests and error frames are not data frames: the caller just asks again.
    if (count != static_cast<ssize_t>(sizeof wire) || (wire.can_id & (CAN_RTR_FLAG | CAN_ERR_FLAG)) != 0) {
        return Received::Timeout;
    }
    frame.extended = (wire.can_id & CAN_EFF_FLAG) != 0 ? 1 : 0;
    frame.identifier = wire.can_id & (frame.extended != 0 ? CAN_EFF_MASK : CAN_SFF_MASK);
    frame.length = wire.can_dlc > kMaxDataLength ? kMaxDataLength : wire.can_dlc;
    std::memset(frame.data, 0, sizeof frame.data);
    std::memcpy(frame.data, wire.data, frame.length);
    return Received::Frame;
}

bool SocketCanTransport::send(const CanFrame& frame) {
    can_frame wire{};
    wire.can_id = frame.extended != 0 ? (frame.identifier & CAN_EFF_MASK) | CAN_EFF_FLAG
                                      : frame.identifier & CAN_SFF_MASK;
    wire.can_dlc = frame.length > kMaxDataLength ? kMaxDataLength : frame.length;
    std::memcpy(wire.data, frame.data, wire.can_dlc);
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

}  // namespace modulesim
