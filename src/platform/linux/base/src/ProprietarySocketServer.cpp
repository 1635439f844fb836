#include "ProprietarySocketServer.h"

#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>

#include "SuiteVersions.h"
#include "tick.h"

namespace {

constexpr const char* kThreadOrigin = "platform/linux/base/src/ProprietarySocketServer";
// Node the server resolves; global access widens it to every interface.
constexpr const char* kLoopbackNode = "127.0.0.1";
// Gives startServer's caller time to finish its own start-up before the first report.
constexpr std::int32_t kAcceptStartDelayMs = 10;

using SlotLock = std::lock_guard<threadfunc::mutex>;

}  // namespace

ProprietarySocketServer::ProprietarySocketServer(int port, int slotCount)
    : port_(port),
      slotCount_(slotCount > 0 ? slotCount : 0),
      slots_(std::make_unique<TClientSlot[]>(static_cast<std::size_t>(slotCount_))) {
    for (int i = 0; i < slotCount_; ++i) {
        slotAt(i).index = i;
        slotAt(i).server = this;
    }
}

ProprietarySocketServer::~ProprietarySocketServer() {
    stopServer();
}

void ProprietarySocketServer::stopServer() {
    // The socket is set to -1 before it is shut down so that the accept thread, woken by the failing
    // accept, sees that it has to end. It is closed only after the join, so the descriptor cannot be
    // reused under the accept thread.
    const int listener = listeningSocket_.exchange(-1);
    if (listener >= 0 && shutdown(listener, SHUT_RDWR) != 0) {
        fprintf(stderr, "ProprietarySocketServer::stopServer() shutdown: %s\n", strerror(errno));
        fflush(stderr);
    }
    const threadfunc::ThreadHandle acceptThread = acceptThread_.exchange(0);
    if (acceptThread != 0) {
        (void)threadfunc::threadJoin(acceptThread);
    }
    if (listener >= 0 && close(listener) != 0) {
        fprintf(stderr, "ProprietarySocketServer::stopServer() close: %s\n", strerror(errno));
        fflush(stderr);
    }
    // Ending the streams lets each handler run its ordinary disconnect. Not under the slot mutex: a
    // client that stopped reading leaves a thread waiting on its full send queue with that mutex held,
    // and only the failing sends that the shutdown causes drain the queue again.
    for (int i = 0; i < slotCount_; ++i) {
        TClientSlot& slot = slotAt(i);
        const std::lock_guard<std::mutex> guard(slot.socketGuard);
        if (slot.liveSocket >= 0) {
            (void)shutdown(slot.liveSocket, SHUT_RDWR);  // fails only if the peer is gone already
        }
    }
    for (int i = 0; i < slotCount_; ++i) {
        const threadfunc::ThreadHandle handler = slotAt(i).handlerThread.exchange(0);
        if (handler != 0) {
            (void)threadfunc::threadJoin(handler);
        }
    }
}

threadfunc::ThreadHandle ProprietarySocketServer::startServer(bool globalAccess) {
    int bound = passedSocket_;
    if (bound >= 0) {
        // Address and port are the passer's choice: report the port the socket has.
        const int passedPort = localPort(bound);
        if (passedPort < 0) {
            fprintf(stderr, "ProprietarySocketServer::startServer() passed socket %i is no TCP socket\n",
                    bound);
            exit(1);
        }
        port_ = passedPort;
    } else {
        bound = bindListeningSocket(globalAccess);
    }
    printf("ProprietarySocketServer::startServer() Connected. Port: %i File Descriptor: %i\n", port_, bound);
    fflush(stdout);

    if (listen(bound, slotCount_) != 0) {
        // Without a listening socket the accept loop could only spin on errors.
        fprintf(stderr, "ProprietarySocketServer::startServer() listen: %s\n", strerror(errno));
        exit(1);
    }
    const int local = localPort(bound);
    boundPort_ = local >= 0 ? local : port_;  // what was asked for is what bind took, unless it was 0
    listeningSocket_ = bound;

    const threadfunc::ThreadHandle handle =
        threadfunc::ThreadCreate(kThreadPriority, acceptThreadEntry, this, 0, kThreadOrigin, __LINE__);
    acceptThread_ = handle;
    return handle;
}

void ProprietarySocketServer::useListeningSocket(int fd) {
    passedSocket_ = fd;
}

int ProprietarySocketServer::bindListeningSocket(bool globalAccess) {
    char service[16];
    snprintf(service, sizeof service, "%i", port_);
    addrinfo hints{};
    hints.ai_flags = AI_PASSIVE;
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_protocol = 0;
    addrinfo* results = nullptr;
    const int resolved = getaddrinfo(kLoopbackNode, service, &hints, &results);
    if (resolved != 0) {
        fprintf(stderr, "getaddrinfo: %s\n", gai_strerror(resolved));
        exit(1);
    }

    int bound = -1;
    for (addrinfo* candidate = results; candidate != nullptr && bound < 0; candidate = candidate->ai_next) {
        // The IPv4 loopback literal only yields IPv4 addresses; INADDR_ANY opens every interface.
        if (globalAccess && candidate->ai_family == AF_INET) {
            reinterpret_cast<sockaddr_in*>(candidate->ai_addr)->sin_addr.s_addr = htonl(INADDR_ANY);
        }
        const int fd = socket(candidate->ai_family, candidate->ai_socktype, candidate->ai_protocol);
        if (fd < 0) {
            continue;
        }
        if (candidate->ai_family == AF_INET6) {
            const int v6only = 0;  // dual stack
            if (setsockopt(fd, IPPROTO_IPV6, IPV6_V6ONLY, &v6only, sizeof v6only) != 0) {
                fprintf(stderr, "ProprietarySocketServer::startServer() setsockopt: %s IPV6_V6ONLY\n",
                        strerror(errno));
                (void)close(fd);  // never used; nothing to report beyond the setsockopt failure
                continue;
            }
        }
        const int reuse = 1;
        if (setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &reuse, sizeof reuse) < 0) {
            fprintf(stderr, "ProprietarySocketServer::startServer() setsockopt: %s SO_REUSEADDR\n",
                    strerror(errno));
            (void)close(fd);
            continue;
        }
        if (bind(fd, candidate->ai_addr, candidate->ai_addrlen) != 0) {
            fprintf(stderr, "ProprietarySocketServer::startServer() bind: %s\n", strerror(errno));
            (void)close(fd);
            continue;
        }
        bound = fd;
    }
    if (bound < 0) {
        fprintf(stderr, "ProprietarySocketServer::startServer() Could not bind on port %i\n", port_);
        exit(1);
    }
    freeaddrinfo(results);
    return bound;
}

int ProprietarySocketServer::localPort(int fd) {
    sockaddr_storage local{};
    socklen_t localLength = sizeof local;
    if (getsockname(fd, reinterpret_cast<sockaddr*>(&local), &localLength) != 0 ||
        (local.ss_family != AF_INET && local.ss_family != AF_INET6)) {
        return -1;
    }
    const in_port_t netPort = local.ss_family == AF_INET6
                                  ? reinterpret_cast<const sockaddr_in6*>(&local)->sin6_port
                                  : reinterpret_cast<const sockaddr_in*>(&local)->sin_port;
    return ntohs(netPort);
}

std::uint32_t ProprietarySocketServer::acceptThreadEntry(void* argument) {
    static_cast<ProprietarySocketServer*>(argument)->waitForClient();
    return 0;
}

std::uint32_t ProprietarySocketServer::clientThreadEntry(void* argument) {
    auto* slot = static_cast<TClientSlot*>(argument);
    slot->server->clientThread(*slot);
    return 0;
}

ProprietarySocketServer::TClientSlot* ProprietarySocketServer::freeSlot() const {
    for (int i = 0; i < slotCount_; ++i) {
        if (!slotAt(i).active && !slotAt(i).reserved) {
            return &slotAt(i);
        }
    }
    return nullptr;
}

void ProprietarySocketServer::reportFullSlots(std::int32_t& lastFullReport) const {
    const std::int32_t now = tickMilliseconds();
    if (static_cast<std::int32_t>(static_cast<std::uint32_t>(now) -
                                  static_cast<std::uint32_t>(lastFullReport)) > kFullSlotsReportMs) {
        fprintf(stderr, "Proprietary socket server reports: All %i client-slots are in use\n", slotCount_);
        fflush(stderr);
        lastFullReport = now;
    }
}

void ProprietarySocketServer::waitForClient() {
    threadfunc::sleep(kAcceptStartDelayMs);
    std::int32_t lastFullReport = 0;
    for (;;) {
        const int listener = listeningSocket_;
        if (listener < 0) {
            return;
        }
        TClientSlot* slot = freeSlot();
        if (slot == nullptr) {
            // Later clients wait in the listen backlog until a slot frees.
            reportFullSlots(lastFullReport);
            threadfunc::sleep(kFullSlotsPollMs);
            continue;
        }

        printf("ProprietarySocketServer::waitForClient() Port: %i Waiting for client at index %i\n", port_,
               slot->index);
        fflush(stdout);
        slot->peerAddressLength = sizeof slot->peerAddress;
        const int fd =
            accept(listener, reinterpret_cast<sockaddr*>(&slot->peerAddress), &slot->peerAddressLength);
        const int acceptError = errno;
        printf("ProprietarySocketServer::waitForClient() Port: %i new client fd %i\n", port_, fd);
        fflush(stdout);
        if (fd >= 0) {
            installClient(*slot, fd);
            continue;
        }
        if (acceptError == EINTR) {
            continue;
        }
        if (listeningSocket_ < 0) {
            return;
        }
        fprintf(stderr, "ProprietarySocketServer::waitForClient() reports error: %s\n",
                strerror(acceptError));
        fflush(stderr);
    }
}

void ProprietarySocketServer::installClient(TClientSlot& slot, int fd) {
    // Status records are small and come in bursts: without this, a second record waits for the
    // client's delayed acknowledgement (tens of milliseconds). A failure only costs that delay.
    const int noDelay = 1;
    (void)setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &noDelay, sizeof noDelay);

    // The previous client's handler has finished its disconnect, or is about to.
    const threadfunc::ThreadHandle previous = slot.handlerThread.exchange(0);
    if (previous != 0) {
        (void)threadfunc::threadJoin(previous);
    }
    bool started;
    {
        const SlotLock lock(slot.slotMutex);
        slot.connection = openConnection(fd, &slot.sendQueue, &slot.receiveQueue);
        started = slot.connection.receptionThread != 0 && slot.connection.sendingThread != 0;
        if (started) {
            slot.active = true;
            const std::lock_guard<std::mutex> guard(slot.socketGuard);
            slot.liveSocket = fd;
        }
    }
    if (started) {
        const threadfunc::ThreadHandle handler =
            threadfunc::ThreadCreate(kThreadPriority, clientThreadEntry, &slot, 0, kThreadOrigin, __LINE__);
        slot.handlerThread = handler;
        started = handler != 0;
    }
    if (!started) {
        fprintf(stderr, "ProprietarySocketServer::waitForClient() could not start the threads of fd %i\n",
                fd);
        fflush(stderr);
        abandonConnection(slot);
    }
}

void ProprietarySocketServer::forgetLiveSocket(TClientSlot& slot) {
    // Before the descriptor is closed, so that stopServer never shuts down a number reused since.
    const std::lock_guard<std::mutex> guard(slot.socketGuard);
    slot.liveSocket = -1;
}

void ProprietarySocketServer::abandonConnection(TClientSlot& slot) {
    forgetLiveSocket(slot);
    const SlotLock lock(slot.slotMutex);
    closeConnection(slot.connection);
    drainQueues(slot);
    slot.active = false;
}

void ProprietarySocketServer::clientThread(TClientSlot& slot) {
    ++clientCount_;
    clientConnected(slot.index);
    // Everybody hears it, so the clients already connected learn that another one came.
    sendIdentity();

    for (;;) {
        TPacket* packet = slot.receiveQueue.pop();
        if (packet == nullptr) {
            break;  // the reception thread ended
        }
        if (!handleEcho(slot.index, packet)) {
            handleNewPacketFromClient(slot.index, packet);
        }
        delete packet;  // unless the echo or the application took it over
    }

    --clientCount_;
    forgetLiveSocket(slot);
    const SlotLock lock(slot.slotMutex);
    closeConnection(slot.connection);
    clientDisconnected(slot.index);
    drainQueues(slot);
    slot.active = false;
}

void ProprietarySocketServer::drainQueues(TClientSlot& slot) {
    TPacket* packet = nullptr;
    while (slot.receiveQueue.tryPop(&packet)) {
        delete packet;
    }
    while (slot.sendQueue.tryPop(&packet)) {
        delete packet;
    }
}

void ProprietarySocketServer::handleNewPacketFromClient(int /*clientIndex*/, TPacket*& /*packet*/) {}

void ProprietarySocketServer::clientConnected(int clientIndex) {
    printf("ProprietarySocketServer::clientConnected(%i) @ fd %i Port: %i Client count %i\n", clientIndex,
           slotAt(clientIndex).connection.socket, port_, clientCount());
    fflush(stdout);
}

void ProprietarySocketServer::clientDisconnected(int clientIndex) {
    printf("ProprietarySocketServer::clientDisconnected(%i) Port: %i Client count %i\n", clientIndex, port_,
           clientCount());
    fflush(stdout);
}

void ProprietarySocketServer::sendToClient(int clientIndex, TPacket*& packet) {
    if (packet == nullptr) {
        return;
    }
    int target = clientIndex;
    if (clientIndex < 0) {
        target = -1;
        for (int i = 0; i < slotCount_; ++i) {
            TClientSlot& slot = slotAt(i);
            const SlotLock lock(slot.slotMutex);
            if (!slot.active) {
                continue;
            }
            if (target < 0) {
                target = i;  // gets the packet itself below
            } else {
                slot.sendQueue.push(new TPacket(*packet));
            }
        }
    }
    if (target >= 0 && target < slotCount_) {
        TClientSlot& slot = slotAt(target);
        const SlotLock lock(slot.slotMutex);
        if (slot.active) {
            slot.sendQueue.push(packet);
            packet = nullptr;
            return;
        }
    }
    delete packet;
    packet = nullptr;
}

void ProprietarySocketServer::sendValue(int clientIndex, std::uint16_t command, std::uint16_t value) {
    auto* packet = new TPacket(sizeof value, command);
    if (packet->data == nullptr) {
        delete packet;
        return;
    }
    packet->getPayload()[0] = static_cast<std::uint8_t>(value);
    packet->getPayload()[1] = static_cast<std::uint8_t>(value >> 8);
    sendToClient(clientIndex, packet);
}

bool ProprietarySocketServer::handleEcho(int clientIndex, TPacket*& packet) {
    if (packet == nullptr || packet->getCommand() != CmdEcho) {
        return false;
    }
    // An echo without a byte 0 is neither request nor reply: swallowed like a reply.
    if (packet->getPayloadSize() > 0 && packet->getPayload()[0] == EchoRequest) {
        packet->getPayload()[0] = EchoReply;
        sendToClient(clientIndex, packet);
    }
    return true;
}

void ProprietarySocketServer::sendIdentity() {
    TPacket* packet = buildIdentityPacket(static_cast<std::uint32_t>(getpid()), threadfunc::processName(),
                                          AgApp::tagVersion(), AgApp::versionDescription());
    sendToClient(-1, packet);
}

int ProprietarySocketServer::clientCount() const {
    return clientCount_;
}

int ProprietarySocketServer::boundPort() const {
    return boundPort_;
}
