// Checks that the CAN test harness delivers a working kernel CAN bus: an extended frame sent on
// can0 reaches a second raw socket on can0 unchanged, and can1 is a CAN interface that is up.
// Exits 0 when all holds, 1 otherwise, saying why on stderr.
#include <linux/can.h>
#include <net/if.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

namespace {

constexpr int kReceiveDeadlineMs = 20000;  // generous: the guest may be emulated on a shared machine

// A raw socket bound to the interface (binding refuses anything but a CAN interface) that is up, or -1.
int upCanSocket(const char* interface) {
    const int fd = ::socket(PF_CAN, SOCK_RAW, CAN_RAW);
    sockaddr_can address{};
    address.can_family = AF_CAN;
    address.can_ifindex = static_cast<int>(::if_nametoindex(interface));
    ifreq request{};
    std::strncpy(request.ifr_name, interface, IFNAMSIZ - 1);
    const bool up = fd >= 0 && ::bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 &&
                    ::ioctl(fd, SIOCGIFFLAGS, &request) == 0 && (request.ifr_flags & IFF_UP) != 0;
    return up ? fd : -1;
}

}  // namespace

// The sockets are left to the process's exit; nothing else runs on can0 while the harness holds it.
int main() {
    const int sender = upCanSocket("can0"), receiver = upCanSocket("can0");
    if (sender < 0 || receiver < 0 || upCanSocket("can1") < 0) {
        std::fputs("vcan_probe: can0 and can1 must be CAN interfaces that are up\n", stderr);
        return 1;
    }
    can_frame sent{}, got{};
    sent.can_id = 0x18EF1234U | CAN_EFF_FLAG;
    sent.len = CAN_MAX_DLEN;
    std::memcpy(sent.data, "\x01\x23\x45\x67\x89\xAB\xCD\xEF", CAN_MAX_DLEN);
    pollfd waiting{receiver, POLLIN, 0};
    const bool carried = ::write(sender, &sent, sizeof sent) == static_cast<ssize_t>(sizeof sent) &&
                         ::poll(&waiting, 1, kReceiveDeadlineMs) == 1 &&
                         ::read(receiver, &got, sizeof got) == static_cast<ssize_t>(sizeof got) &&
                         got.can_id == sent.can_id && got.len == sent.len &&
                         std::memcmp(got.data, sent.data, CAN_MAX_DLEN) == 0;
    std::fputs(carried ? "vcan_probe: can0 carried extended frame 0x18EF1234 intact; can1 is up\n"
                       : "vcan_probe: the frame sent on can0 did not arrive intact at the second socket\n",
               carried ? stdout : stderr);
    return carried ? 0 : 1;
}
