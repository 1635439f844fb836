// Checks that the CAN test harness delivers a working kernel CAN bus: an extended frame sent on
// can0 reaches a second raw socket on can0 unchanged, and can1 is a CAN interface that is up.
// Exits 0 when all holds, 1 otherwise, saying why on stderr.
#include <linux/can.h>
#include <net/if.h>
#include <net/if_arp.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>

namespace {

constexpr canid_t kProbeId = 0x18EF1234U;  // 29-bit, so the frame must carry CAN_EFF_FLAG
constexpr unsigned char kProbeData[CAN_MAX_DLEN] = {0x01, 0x23, 0x45, 0x67, 0x89, 0xAB, 0xCD, 0xEF};
// Generous: the guest is emulated in software on a machine other jobs share.
constexpr std::chrono::seconds kReceiveDeadline{20};

class Fd {
  public:
    explicit Fd(int fd) : fd_(fd) {}
    ~Fd() {
        if (fd_ >= 0) {
            ::close(fd_);  // result ignored on purpose: a raw CAN socket holds nothing a close could lose
        }
    }
    Fd(const Fd&) = delete;
    Fd(Fd&& other) noexcept : fd_(other.fd_) { other.fd_ = -1; }
    Fd& operator=(const Fd&) = delete;
    int get() const { return fd_; }
    bool valid() const { return fd_ >= 0; }

  private:
    int fd_;
};

bool fail(const char* what) {
    std::fprintf(stderr, "vcan_probe: %s: %s\n", what, std::strerror(errno));
    return false;
}

bool fail_plain(const char* what) {
    std::fprintf(stderr, "vcan_probe: %s\n", what);
    return false;
}

// Opens a raw CAN socket bound to `ifname`; an invalid Fd (reason on stderr) on failure.
Fd open_raw(const char* ifname) {
    Fd fd(::socket(PF_CAN, SOCK_RAW, CAN_RAW));
    if (!fd.valid()) {
        fail("socket(PF_CAN, SOCK_RAW, CAN_RAW)");
        return fd;
    }
    sockaddr_can addr{};
    addr.can_family = AF_CAN;
    addr.can_ifindex = static_cast<int>(::if_nametoindex(ifname));
    if (addr.can_ifindex == 0) {
        fail(ifname);
        return Fd(-1);
    }
    if (::bind(fd.get(), reinterpret_cast<const sockaddr*>(&addr), sizeof addr) != 0) {
        fail("bind");
        return Fd(-1);
    }
    return fd;
}

// True when `ifname` exists, is a CAN interface and is up.
bool check_interface(int fd, const char* ifname) {
    ifreq ifr{};
    std::strncpy(ifr.ifr_name, ifname, IFNAMSIZ - 1);
    if (::ioctl(fd, SIOCGIFHWADDR, &ifr) != 0) {
        return fail(ifname);
    }
    if (ifr.ifr_hwaddr.sa_family != ARPHRD_CAN) {
        std::fprintf(stderr, "vcan_probe: %s is no CAN interface (type %u)\n", ifname,
                     static_cast<unsigned>(ifr.ifr_hwaddr.sa_family));
        return false;
    }
    if (::ioctl(fd, SIOCGIFFLAGS, &ifr) != 0) {
        return fail(ifname);
    }
    if ((ifr.ifr_flags & IFF_UP) == 0) {
        std::fprintf(stderr, "vcan_probe: %s is down\n", ifname);
        return false;
    }
    return true;
}

bool same_frame(const can_frame& a, const can_frame& b) {
    return a.can_id == b.can_id && a.can_dlc == b.can_dlc && std::memcmp(a.data, b.data, a.can_dlc) == 0;
}

// Waits for `expected` on `fd` until the deadline, passing over any other traffic on the bus.
bool receive(int fd, const can_frame& expected) {
    const auto deadline = std::chrono::steady_clock::now() + kReceiveDeadline;
    for (;;) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0) {
            return fail_plain("the frame sent on can0 did not arrive at the second socket");
        }
        pollfd pfd{fd, POLLIN, 0};
        const int ready = ::poll(&pfd, 1, static_cast<int>(left.count()));
        if (ready < 0 && errno != EINTR) {
            return fail("poll");
        }
        if (ready <= 0) {
            continue;
        }
        can_frame got{};
        const ssize_t n = ::read(fd, &got, sizeof got);
        if (n < 0) {
            return fail("read");
        }
        if (static_cast<size_t>(n) != sizeof got) {
            return fail_plain("short read of a CAN frame");
        }
        if (same_frame(got, expected)) {
            return true;
        }
        std::fprintf(stderr, "vcan_probe: passing over frame id 0x%08X dlc %u\n", got.can_id,
                     static_cast<unsigned>(got.can_dlc));
    }
}

bool probe() {
    const Fd tx = open_raw("can0");
    if (!tx.valid()) {
        return false;
    }
    const Fd rx = open_raw("can0");
    if (!rx.valid()) {
        return false;
    }
    if (!check_interface(tx.get(), "can0") || !check_interface(tx.get(), "can1")) {
        return false;
    }
    can_frame frame{};
    frame.can_id = kProbeId | CAN_EFF_FLAG;
    frame.can_dlc = CAN_MAX_DLEN;
    std::memcpy(frame.data, kProbeData, sizeof kProbeData);
    const ssize_t n = ::write(tx.get(), &frame, sizeof frame);
    if (n < 0) {
        return fail("write");
    }
    if (static_cast<size_t>(n) != sizeof frame) {
        return fail_plain("short write of a CAN frame");
    }
    return receive(rx.get(), frame);
}

}  // namespace

int main() {
    if (!probe()) {
        return 1;
    }
    std::printf("vcan_probe: can0 carried extended frame 0x%08X intact; can1 is up\n", kProbeId);
    return 0;
}
