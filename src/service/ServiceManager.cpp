#include "ServiceManager.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace service {

namespace {

constexpr const char* kListenPid = "LISTEN_PID";
constexpr const char* kListenFds = "LISTEN_FDS";
constexpr const char* kListenFdNames = "LISTEN_FDNAMES";
// The one socket the daemon serves.
constexpr long kPassedSockets = 1;
// An address beginning with this character names a socket in the abstract namespace.
constexpr char kAbstractPrefix = '@';

// A decimal number and nothing else; -1 otherwise.
long decimalValue(const char* text) {
    if (text == nullptr || *text == '\0') {
        return -1;
    }
    char* end = nullptr;
    errno = 0;
    const long value = std::strtol(text, &end, 10);
    return (errno != 0 || *end != '\0' || value < 0) ? -1 : value;
}

}  // namespace

int passedListeningSocket(const char* listenPid, const char* listenFds, pid_t self) {
    const long pid = decimalValue(listenPid);
    return pid > 0 && pid == static_cast<long>(self) && decimalValue(listenFds) == kPassedSockets
               ? kFirstPassedDescriptor
               : -1;
}

int takePassedListeningSocket() {
    const int fd = passedListeningSocket(std::getenv(kListenPid), std::getenv(kListenFds), getpid());
    if (fd < 0) {
        return -1;
    }
    const int flags = fcntl(fd, F_GETFD);
    if (flags < 0 || fcntl(fd, F_SETFD, flags | FD_CLOEXEC) != 0) {
        // Not an open descriptor: the server's start fails on it and ends the daemon.
        std::fprintf(stderr, "service::takePassedListeningSocket() fcntl: %s\n", std::strerror(errno));
    }
    for (const char* name : {kListenPid, kListenFds, kListenFdNames}) {
        (void)unsetenv(name);  // fails only for an invalid name
    }
    return fd;
}

Notifier::Notifier(const char* address) {
    const std::size_t length = address == nullptr ? 0 : std::strlen(address);
    if (length == 0 || length >= sizeof address_.sun_path ||
        (address[0] != '/' && address[0] != kAbstractPrefix)) {
        return;  // not a socket address this daemon knows how to reach
    }
    address_.sun_family = AF_UNIX;
    std::memcpy(address_.sun_path, address, length);
    if (address[0] == kAbstractPrefix) {
        address_.sun_path[0] = '\0';
    }
    // An abstract name has no terminating zero: its length is part of the name.
    addressLength_ = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + length +
                                            (address[0] == kAbstractPrefix ? 0 : 1));
    socket_ = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (socket_ < 0) {
        std::fprintf(stderr, "service::Notifier() socket: %s\n", std::strerror(errno));
    }
}

Notifier::~Notifier() {
    if (socket_ >= 0) {
        (void)close(socket_);  // a datagram socket has nothing left to flush
    }
}

void Notifier::notify(const std::string& message) const {
    if (socket_ < 0) {
        return;
    }
    // Ignored on purpose: a full or vanished manager socket must not hold up the flasher's threads,
    // and a lost notification is replaced by the next one.
    (void)sendto(socket_, message.data(), message.size(), MSG_DONTWAIT | MSG_NOSIGNAL,
                 reinterpret_cast<const sockaddr*>(&address_), addressLength_);
}

}  // namespace service
