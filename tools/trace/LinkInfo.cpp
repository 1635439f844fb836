#include "LinkInfo.h"

// glibc's interface header before the kernel's, which then leave out what it defines.
#include <net/if.h>
#include <sys/socket.h>

#include <linux/can/netlink.h>
#include <linux/if_arp.h>
#include <linux/if_link.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <vector>

namespace trace {

namespace {

constexpr std::size_t kAlign = 4;  // netlink messages and attributes are padded to 4 bytes
constexpr std::size_t kAnswerBuffer = 32768;
constexpr std::uint32_t kSequence = 1;

std::size_t aligned(std::size_t size) {
    return (size + kAlign - 1) & ~(kAlign - 1);
}

// Calls `visit(type, payload, size)` for each attribute in [data, data + size); the nested flag is
// masked off the type.
template <typename Visit>
void forEachAttribute(const std::uint8_t* data, std::size_t size, Visit visit) {
    while (size >= sizeof(rtattr)) {
        rtattr attribute;
        std::memcpy(&attribute, data, sizeof attribute);
        if (attribute.rta_len < sizeof attribute || attribute.rta_len > size) {
            return;
        }
        visit(static_cast<unsigned>(attribute.rta_type) & static_cast<unsigned>(NLA_TYPE_MASK),
              data + sizeof attribute, attribute.rta_len - sizeof attribute);
        const std::size_t step = std::min(aligned(attribute.rta_len), size);
        data += step;
        size -= step;
    }
}

template <typename T>
bool read(const std::uint8_t* payload, std::size_t size, T& value) {
    if (size < sizeof value) {
        return false;
    }
    std::memcpy(&value, payload, sizeof value);
    return true;
}

void readCanData(const std::uint8_t* data, std::size_t size, LinkInfo& info) {
    info.hasCanData = true;
    forEachAttribute(data, size, [&](unsigned type, const std::uint8_t* payload, std::size_t length) {
        can_bittiming timing{};
        can_berr_counter counter{};
        if (type == IFLA_CAN_STATE) {
            info.hasState = read(payload, length, info.state);
        } else if (type == IFLA_CAN_BITTIMING && read(payload, length, timing)) {
            info.bitrate = timing.bitrate;
            info.samplePoint = timing.sample_point;
        } else if (type == IFLA_CAN_BERR_COUNTER && read(payload, length, counter)) {
            info.hasErrorCounters = true;
            info.transmitErrors = counter.txerr;
            info.receiveErrors = counter.rxerr;
        }
    });
}

void readLink(const std::uint8_t* data, std::size_t size, LinkInfo& info) {
    ifinfomsg link{};
    if (!read(data, size, link)) {
        return;
    }
    info.isCan = link.ifi_type == ARPHRD_CAN;
    info.up = (link.ifi_flags & IFF_UP) != 0;
    info.running = (link.ifi_flags & IFF_RUNNING) != 0;
    const std::size_t header = aligned(sizeof link);
    forEachAttribute(
        data + header, size - header, [&](unsigned type, const std::uint8_t* payload, std::size_t length) {
            if (type == IFLA_TXQLEN) {
                info.hasTransmitQueue = read(payload, length, info.transmitQueue);
            } else if (type == IFLA_LINKINFO) {
                forEachAttribute(
                    payload, length, [&](unsigned inner, const std::uint8_t* value, std::size_t bytes) {
                        if (inner == IFLA_INFO_KIND) {
                            info.kind.assign(reinterpret_cast<const char*>(value),
                                             strnlen(reinterpret_cast<const char*>(value), bytes));
                        } else if (inner == IFLA_INFO_DATA) {
                            readCanData(value, bytes, info);
                        }
                    });
            }
        });
}

std::string withErrno(const char* text) {
    return std::string(text) + " (" + std::strerror(errno) + ")";
}

const char* stateName(std::uint32_t state) {
    switch (state) {
        case CAN_STATE_ERROR_ACTIVE:
            return "error-active";
        case CAN_STATE_ERROR_WARNING:
            return "error-warning (still error-active, an error counter is at 96 or more)";
        case CAN_STATE_ERROR_PASSIVE:
            return "error-passive";
        case CAN_STATE_BUS_OFF:
            return "bus-off";
        case CAN_STATE_STOPPED:
            return "stopped (the interface is down)";
        case CAN_STATE_SLEEPING:
            return "sleeping";
        default:
            return "unknown";
    }
}

// Sends the RTM_GETLINK question for the interface; false, with `error` set, if it did not go out.
bool askKernel(int fd, unsigned index, std::string& error) {
    struct Request {
        nlmsghdr header;
        ifinfomsg link;
    } request{};
    request.header.nlmsg_len = sizeof request;
    request.header.nlmsg_type = RTM_GETLINK;
    request.header.nlmsg_flags = NLM_F_REQUEST;
    request.header.nlmsg_seq = kSequence;
    request.link.ifi_family = AF_UNSPEC;
    request.link.ifi_index = static_cast<int>(index);
    sockaddr_nl kernel{};
    kernel.nl_family = AF_NETLINK;
    if (sendto(fd, &request, sizeof request, 0, reinterpret_cast<const sockaddr*>(&kernel), sizeof kernel) !=
        static_cast<ssize_t>(sizeof request)) {
        error = withErrno("cannot ask the kernel (rtnetlink)");
        return false;
    }
    return true;
}

// Reads the netlink messages in the first `count` bytes of `buffer`; true once the answer to the question
// is among them. A refusal sets `error`.
bool readMessages(const std::vector<std::uint8_t>& buffer, std::size_t count, LinkInfo& info,
                  std::string& error) {
    bool answered = false;
    std::size_t at = 0;
    while (!answered && count - at >= sizeof(nlmsghdr)) {
        nlmsghdr header;
        std::memcpy(&header, buffer.data() + at, sizeof header);
        if (header.nlmsg_len < sizeof header || header.nlmsg_len > count - at) {
            break;
        }
        const std::uint8_t* payload = buffer.data() + at + aligned(sizeof header);
        const std::size_t size = header.nlmsg_len - aligned(sizeof header);
        if (header.nlmsg_seq == kSequence && header.nlmsg_type == RTM_NEWLINK) {
            readLink(payload, size, info);
            answered = true;
        } else if (header.nlmsg_seq == kSequence && header.nlmsg_type == NLMSG_ERROR) {
            nlmsgerr failure{};
            errno = read(payload, size, failure) ? -failure.error : EPROTO;
            if (errno == ENODEV) {
                info.exists = false;  // gone since the look-up
                answered = true;
            } else {
                error = withErrno("the kernel refused the question (rtnetlink)");
            }
        }
        at += aligned(header.nlmsg_len);
    }
    return answered;
}

// Receives until the answer comes or something fails (`error` set).
void readAnswer(int fd, LinkInfo& info, std::string& error) {
    std::vector<std::uint8_t> buffer(kAnswerBuffer);
    bool answered = false;
    while (error.empty() && !answered) {
        const ssize_t count = recv(fd, buffer.data(), buffer.size(), 0);
        if (count < 0) {
            if (errno != EINTR) {
                error = withErrno("no answer from the kernel (rtnetlink)");
            }
            continue;
        }
        answered = readMessages(buffer, static_cast<std::size_t>(count), info, error);
    }
}

}  // namespace

bool queryLink(const std::string& name, LinkInfo& info, std::string& error) {
    info = LinkInfo{};
    if (name.empty() || name.size() >= IFNAMSIZ) {
        return true;
    }
    info.index = if_nametoindex(name.c_str());
    if (info.index == 0) {
        if (errno == ENODEV || errno == ENXIO) {
            return true;
        }
        error = withErrno("cannot look the interface up");
        return false;
    }
    info.exists = true;
    const int fd = socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE);
    if (fd < 0) {
        error = withErrno("cannot open a netlink socket");
        return false;
    }
    if (askKernel(fd, info.index, error)) {
        readAnswer(fd, info, error);
    }
    // Nothing was written that a failed close could lose.
    static_cast<void>(close(fd));
    return error.empty();
}

std::string linkReport(const std::string& name, const LinkInfo& info) {
    if (!info.exists) {
        return "interface:      " + name +
               " does not exist (the daemon's \"Device not found\" is then certain)\n";
    }
    std::string text = "interface:      " + name + ", index " + std::to_string(info.index) + "\n";
    text += "type:           " + std::string(info.isCan ? "CAN" : "not CAN");
    text += info.kind.empty() ? "\n" : " (driver kind " + info.kind + ")\n";
    text += "administrative: " + std::string(info.up ? "up" : "down") + "\n";
    text += "link:           " + std::string(info.running ? "running" : "not running") + "\n";
    if (info.hasTransmitQueue) {
        text += "transmit queue: " + std::to_string(info.transmitQueue) + " frames\n";
    }
    if (!info.isCan) {
        return text + "controller:     none: not a CAN interface\n";
    }
    if (!info.hasCanData) {
        text += "controller:     no CAN controller data from this driver" +
                std::string(info.kind == "vcan" ? " (a virtual CAN interface has no controller, bit rate or "
                                                  "error counters)\n"
                                                : "\n");
        return text;
    }
    text +=
        "controller:     " + std::string(info.hasState ? stateName(info.state) : "state not reported") + "\n";
    if (info.bitrate != 0) {
        text += "bit rate:       " + std::to_string(info.bitrate) + " bit/s, sample point " +
                std::to_string(info.samplePoint / 10) + "." + std::to_string(info.samplePoint % 10) + " %\n";
    } else {
        text += "bit rate:       not reported by the driver\n";
    }
    if (info.hasErrorCounters) {
        text += "error counters: transmit " + std::to_string(info.transmitErrors) + ", receive " +
                std::to_string(info.receiveErrors) + "\n";
    } else {
        text += "error counters: not reported by the driver\n";
    }
    return text;
}

}  // namespace trace
