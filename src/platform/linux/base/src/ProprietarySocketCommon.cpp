#include "ProprietarySocketCommon.h"

#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <new>
#include <vector>

namespace {

constexpr const char* kThreadOrigin = "platform/linux/base/src/ProprietarySocketCommon";

// Shared by the reception and sending threads of one connection; freed when both are done with it.
struct ConnectionRecord {
    ProprietarySocketCommon* owner;
    int socket;
    ProprietarySocketCommon::PacketQueue* receiveQueue;
    ProprietarySocketCommon::PacketQueue* sendQueue;
};
using ConnectionShare = std::shared_ptr<ConnectionRecord>;

struct ProcessDescription {
    const char* processName;
    const char* description;
};
constexpr ProcessDescription kProcessDescriptions[] = {
    {"velmar", "(FS) File Server"},       {"quistrel", "(UT) Universal Terminal"},
    {"nodarq", "ISOBUS Network Manager"}, {"tavrin", "(TC) Task Controller"},
    {"ombrisound", "(SM) Sound Manager"},
};

// Sends the whole buffer in one call. MSG_NOSIGNAL: a peer that went away must give EPIPE, not a
// SIGPIPE that would end the process (a test's main thread, unlike the daemon's threads, takes it).
ssize_t sendWhole(int fd, const std::uint8_t* data, std::uint32_t size) {
    ssize_t sent;
    do {
        sent = send(fd, data, size, MSG_NOSIGNAL);
    } while (sent < 0 && errno == EINTR);
    return sent;
}

std::uint32_t receptionThread(void* argument) {
    const std::unique_ptr<ConnectionShare> share(static_cast<ConnectionShare*>(argument));
    ConnectionRecord& record = **share;
    for (;;) {
        auto* packet = new ProprietarySocketCommon::TPacket();
        if (!ProprietarySocketCommon::receivePacket(*packet, record.socket)) {
            delete packet;
            packet = nullptr;
        }
        record.receiveQueue->push(packet);
        if (packet == nullptr) {
            break;
        }
    }
    record.sendQueue->push(nullptr);  // wakes and ends the sending thread
    return 0;
}

std::uint32_t sendingThread(void* argument) {
    const std::unique_ptr<ConnectionShare> share(static_cast<ConnectionShare*>(argument));
    ConnectionRecord& record = **share;
    for (;;) {
        std::unique_ptr<ProprietarySocketCommon::TPacket> packet(record.sendQueue->pop());
        if (!packet) {
            break;
        }
        // A short send or a send error is not followed up: the packet counts as done.
        (void)sendWhole(record.socket, packet->data, packet->size);
    }
    return 0;
}

// Starts one connection thread on its own reference to the shared record; 0 when it cannot start.
threadfunc::ThreadHandle startConnectionThread(threadfunc::ThreadEntry entry, const ConnectionShare& share,
                                               std::uint32_t originLine) {
    auto reference = std::make_unique<ConnectionShare>(share);
    const threadfunc::ThreadHandle handle = threadfunc::ThreadCreate(
        ProprietarySocketCommon::kThreadPriority, entry, reference.get(), 0, kThreadOrigin, originLine);
    if (handle != 0) {
        (void)reference.release();  // the new thread owns it now
    }
    return handle;
}

}  // namespace

// ---------------------------------------------------------------------------------------------
// TPacket

ProprietarySocketCommon::TPacket::TPacket() = default;

ProprietarySocketCommon::TPacket::TPacket(std::uint32_t payloadLength, std::uint16_t packetCommand)
    : data(new (std::nothrow) std::uint8_t[std::size_t{payloadLength} + kHeaderSize]) {
    if (data == nullptr) {
        headerSize = 0;
        return;
    }
    const varnoch::protocol::PacketHeader header = varnoch::protocol::headerFor(payloadLength, packetCommand);
    size = header.length;
    command = header.command;
    headerSize = header.headerSize;
    varnoch::protocol::encodeHeader(header, data);
}

ProprietarySocketCommon::TPacket::TPacket(const TPacket& other)
    : data(other.data != nullptr ? new std::uint8_t[other.size] : nullptr),
      size(other.data != nullptr ? other.size : 0),
      command(other.command),
      headerSize(other.headerSize) {
    if (data != nullptr) {
        std::memcpy(data, other.data, size);
    }
}

ProprietarySocketCommon::TPacket::~TPacket() {
    delete[] data;
    data = nullptr;
}

std::uint32_t ProprietarySocketCommon::TPacket::getPayloadSize() const {
    return size - headerSize;
}

std::uint16_t ProprietarySocketCommon::TPacket::getCommand() const {
    return command;
}

std::uint8_t* ProprietarySocketCommon::TPacket::getPayload() {
    return data + headerSize;
}

const std::uint8_t* ProprietarySocketCommon::TPacket::getPayload() const {
    return data + headerSize;
}

void ProprietarySocketCommon::TPacket::dump() const {
    const std::uint8_t* payload = getPayload();
    for (std::uint32_t i = 0; i < getPayloadSize(); ++i) {
        const unsigned value = payload[i];
        // 127 is printed raw on purpose: printable means value - 32 <= 95, taken unsigned.
        const char shown = value - 32U <= 95U ? static_cast<char>(value) : '.';
        printf("%4u: %3u - %02X : '%c'\n", i, value, value, shown);
    }
    fflush(stdout);
}

// ---------------------------------------------------------------------------------------------
// Framing

ProprietarySocketCommon::~ProprietarySocketCommon() = default;

std::uint32_t ProprietarySocketCommon::receiveChunk(int fd, void* buffer, std::uint32_t length) {
    if (length == 0) {
        return 0;
    }
    auto* bytes = static_cast<std::uint8_t*>(buffer);
    std::uint32_t countRead = 0;
    for (;;) {
        const ssize_t result = recv(fd, bytes + countRead, length - countRead, 0);
        if (result > 0) {
            countRead += static_cast<std::uint32_t>(result);
            if (countRead >= length) {
                return length;
            }
            continue;
        }
        if (result == 0) {
            return 0;  // peer closed the stream
        }
        const int error = errno;
        if (error == EINTR) {
            continue;
        }
        if (error != ECONNRESET) {
            printf(
                "ProprietarySocketCommon::receiveChunk() reports error: %i - %i (%s)- fd: %i, Size: %lu, "
                "nRead: %lu\n",
                static_cast<int>(result), error, strerror(error), fd, static_cast<unsigned long>(length),
                static_cast<unsigned long>(countRead));
            fflush(stdout);
        }
        return 0;
    }
}

bool ProprietarySocketCommon::receivePacket(TPacket& packet, int fd) {
    std::uint8_t lengthField[varnoch::protocol::kLengthFieldSize];
    if (receiveChunk(fd, lengthField, sizeof lengthField) == 0) {
        return false;
    }
    const std::uint32_t length = varnoch::protocol::decodeLength(lengthField);
    const auto discard = [&packet]() {
        delete[] packet.data;
        packet.data = nullptr;
        packet.size = 0;
        packet.command = 0;
        return false;
    };
    // The wire length is never trusted: nothing of an impossible size is allocated, and the stream
    // cannot be resynchronised after it, so the connection ends as if the peer had closed it.
    if (length < kHeaderSize || length > kMaxPacketSize) {
        fprintf(stderr, "ProprietarySocketCommon::receivePacket() refuses packet length %lu - fd: %i\n",
                static_cast<unsigned long>(length), fd);
        fflush(stderr);
        return discard();
    }
    if (packet.data == nullptr || packet.size != length) {
        delete[] packet.data;
        packet.data = new (std::nothrow) std::uint8_t[length];
        if (packet.data == nullptr) {
            packet.size = 0;
            packet.command = 0;
            packet.headerSize = 0;
            return false;
        }
        packet.size = length;
    }
    std::memcpy(packet.data, lengthField, sizeof lengthField);
    if (receiveChunk(fd, packet.data + sizeof lengthField,
                     length - static_cast<std::uint32_t>(sizeof lengthField)) == 0) {
        return discard();
    }
    const varnoch::protocol::PacketHeader header = varnoch::protocol::decodeHeader(packet.data);
    const std::uint16_t headerSize = header.headerSize;
    // A payload offset outside the packet would make every payload access run past the buffer.
    if (headerSize < kHeaderSize || headerSize > length) {
        fprintf(stderr, "ProprietarySocketCommon::receivePacket() refuses header length %u - fd: %i\n",
                static_cast<unsigned>(headerSize), fd);
        fflush(stderr);
        return discard();
    }
    packet.command = header.command;
    packet.headerSize = headerSize;
    return true;
}

bool ProprietarySocketCommon::sendPacket(const TPacket& packet, int fd) {
    const ssize_t sent = sendWhole(fd, packet.data, packet.size);
    return sent >= 0 && static_cast<std::uint32_t>(sent) == packet.size;
}

ProprietarySocketCommon::TConnection ProprietarySocketCommon::openConnection(int fd, PacketQueue* sendQueue,
                                                                             PacketQueue* receiveQueue) {
    const auto share =
        std::make_shared<ConnectionRecord>(ConnectionRecord{this, fd, receiveQueue, sendQueue});
    TConnection connection;
    connection.receptionThread = startConnectionThread(receptionThread, share, __LINE__);
    connection.sendingThread = startConnectionThread(sendingThread, share, __LINE__);
    connection.socket = fd;
    return connection;
}

void ProprietarySocketCommon::closeConnection(TConnection& connection) {
    if (connection.socket < 0) {
        return;
    }
    // Ends the reception thread's recv; its end-of-stream nulls then end the sending thread.
    // A failure (the peer reset the connection already) changes nothing about that.
    (void)shutdown(connection.socket, SHUT_RDWR);
    if (connection.receptionThread != 0) {
        (void)threadfunc::threadJoin(connection.receptionThread);
    }
    if (connection.sendingThread != 0) {
        (void)threadfunc::threadJoin(connection.sendingThread);
    }
    if (close(connection.socket) != 0) {
        fprintf(stderr, "ProprietarySocketCommon::closeConnection() close: %s\n", strerror(errno));
        fflush(stderr);
    }
    connection.receptionThread = 0;
    connection.sendingThread = 0;
    connection.socket = -1;
}

// ---------------------------------------------------------------------------------------------
// Identity

void ProprietarySocketCommon::setProcessName(TPeerIdentity& identity, const std::string& name) {
    identity.processName = name;
    identity.description.clear();
    for (const ProcessDescription& row : kProcessDescriptions) {
        if (name == row.processName) {
            identity.description = row.description;
            break;
        }
    }
}

bool ProprietarySocketCommon::compareIdentity(const TPeerIdentity& a, const TPeerIdentity& b,
                                              std::uint32_t ignoreMask) {
    if ((ignoreMask & IgnorePid) == 0 && a.pid != b.pid) {
        return false;
    }
    if ((ignoreMask & IgnoreProcessName) == 0 && a.processName != b.processName) {
        return false;
    }
    if ((ignoreMask & IgnoreVersionText) == 0 && a.versionText != b.versionText) {
        return false;
    }
    if ((ignoreMask & IgnoreBuildTag) == 0 && a.buildTag != b.buildTag) {
        return false;
    }
    return true;
}

ProprietarySocketCommon::TPacket* ProprietarySocketCommon::buildIdentityPacket(std::uint32_t pid,
                                                                               const std::string& processName,
                                                                               const std::string& versionText,
                                                                               const std::string& buildTag) {
    const std::vector<std::uint8_t> payload =
        varnoch::protocol::encodeIdentity({pid, processName, versionText, buildTag});
    auto packet = std::make_unique<TPacket>(static_cast<std::uint32_t>(payload.size()), CmdIdentity);
    if (packet->data == nullptr) {
        return nullptr;
    }
    std::memcpy(packet->getPayload(), payload.data(), payload.size());
    return packet.release();
}
