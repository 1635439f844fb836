#include "SocketTestSupport.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>

namespace {

using Clock = std::chrono::steady_clock;

int remainingMs(Clock::time_point deadline) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
    return left > 0 ? static_cast<int>(left) : 0;
}

std::string hex(const Bytes& bytes) {
    std::string text;
    char digits[4];
    for (std::uint8_t byte : bytes) {
        snprintf(digits, sizeof digits, "%02X", byte);
        text += text.empty() ? "" : " ";
        text += digits;
    }
    return text;
}

}  // namespace

Bytes frame(std::uint16_t command, const Bytes& payload) {
    const auto length = static_cast<std::uint32_t>(payload.size() + 8);
    Bytes bytes;
    bytes.reserve(length);
    for (int shift = 24; shift >= 0; shift -= 8) {
        bytes.push_back(static_cast<std::uint8_t>(length >> shift));
    }
    bytes.push_back(static_cast<std::uint8_t>(command >> 8));
    bytes.push_back(static_cast<std::uint8_t>(command));
    bytes.push_back(0);
    bytes.push_back(8);
    bytes.insert(bytes.end(), payload.begin(), payload.end());
    return bytes;
}

TestClient::TestClient(int port, const char* address) {
    sockaddr_in peer{};
    peer.sin_family = AF_INET;
    peer.sin_port = htons(static_cast<std::uint16_t>(port));
    inet_pton(AF_INET, address, &peer.sin_addr);
    fd_ = socket(AF_INET, SOCK_STREAM, 0);
    if (fd_ >= 0 && connect(fd_, reinterpret_cast<const sockaddr*>(&peer), sizeof peer) != 0) {
        error_ = errno;
        close();
    }
}

TestClient::~TestClient() {
    close();
}

void TestClient::close() {
    if (fd_ >= 0) {
        ::close(fd_);
        fd_ = -1;
    }
}

bool TestClient::sendRaw(const Bytes& bytes) {
    return send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(bytes.size());
}

bool TestClient::readExactly(std::uint8_t* out, std::size_t length, int timeoutMs) {
    const auto deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
    std::size_t done = 0;
    while (done < length) {
        pollfd wait{fd_, POLLIN, 0};
        if (poll(&wait, 1, remainingMs(deadline)) <= 0) {
            return false;
        }
        const ssize_t got = recv(fd_, out + done, length - done, 0);
        if (got <= 0) {
            return false;
        }
        done += static_cast<std::size_t>(got);
    }
    return true;
}

std::optional<WirePacket> TestClient::readPacket(int timeoutMs) {
    std::uint8_t header[8];
    if (!readExactly(header, sizeof header, timeoutMs)) {
        return std::nullopt;
    }
    const std::uint32_t length = (std::uint32_t{header[0]} << 24) | (std::uint32_t{header[1]} << 16) |
                                 (std::uint32_t{header[2]} << 8) | header[3];
    WirePacket packet;
    packet.command = static_cast<std::uint16_t>((header[4] << 8) | header[5]);
    if (length < 8 || header[6] != 0 || header[7] != 8) {
        return std::nullopt;
    }
    packet.payload.resize(length - 8);
    if (!readExactly(packet.payload.data(), packet.payload.size(), timeoutMs)) {
        return std::nullopt;
    }
    return packet;
}

std::optional<WirePacket> TestClient::readPacketOf(std::uint16_t command, int timeoutMs) {
    for (;;) {
        std::optional<WirePacket> packet = readPacket(timeoutMs);
        if (!packet || packet->command == command) {
            return packet;
        }
    }
}

bool TestClient::waitClosed(int timeoutMs) {
    const auto deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
    std::uint8_t sink[256];
    for (;;) {
        pollfd wait{fd_, POLLIN, 0};
        if (poll(&wait, 1, remainingMs(deadline)) <= 0) {
            return false;
        }
        const ssize_t got = recv(fd_, sink, sizeof sink, 0);
        if (got == 0 || (got < 0 && errno == ECONNRESET)) {
            return true;
        }
    }
}

bool TestClient::hasData() {
    pollfd wait{fd_, POLLIN, 0};
    return poll(&wait, 1, 0) > 0;
}

std::optional<Identity> parseIdentity(const Bytes& payload) {
    if (payload.size() < 7) {
        return std::nullopt;
    }
    Identity identity;
    identity.pid = payload[0] | (payload[1] << 8) | (payload[2] << 16) | (std::uint32_t{payload[3]} << 24);
    std::size_t at = 4;
    for (std::string* text : {&identity.processName, &identity.versionText, &identity.buildTag}) {
        if (at >= payload.size() || at + 1 + payload[at] > payload.size()) {
            return std::nullopt;
        }
        text->assign(payload.begin() + static_cast<long>(at) + 1,
                     payload.begin() + static_cast<long>(at) + 1 + payload[at]);
        at += 1 + payload[at];
    }
    return at == payload.size() ? std::optional<Identity>(identity) : std::nullopt;
}

RecordingServer::RecordingServer(int slotCount, bool globalAccess) : ProprietarySocketServer(0, slotCount) {
    startServer(globalAccess);
}

void RecordingServer::handleNewPacketFromClient(int clientIndex, TPacket*& packet) {
    const Bytes payload(packet->getPayload(), packet->getPayload() + packet->getPayloadSize());
    record("packet " + std::to_string(clientIndex) + " " + std::to_string(packet->getCommand()) + " " +
           hex(payload));
}

void RecordingServer::clientConnected(int clientIndex) {
    ProprietarySocketServer::clientConnected(clientIndex);
    record("connected " + std::to_string(clientIndex) + " " + std::to_string(clientCount()));
}

void RecordingServer::clientDisconnected(int clientIndex) {
    ProprietarySocketServer::clientDisconnected(clientIndex);
    record("disconnected " + std::to_string(clientIndex) + " " + std::to_string(clientCount()));
}

void RecordingServer::record(const std::string& event) {
    const std::lock_guard<std::mutex> guard(lock_);
    events_.push_back(event);
    changed_.notify_all();
}

std::vector<std::string> RecordingServer::waitEvents(std::size_t count, int timeoutMs) {
    std::unique_lock<std::mutex> guard(lock_);
    changed_.wait_for(guard, std::chrono::milliseconds(timeoutMs), [&] { return events_.size() >= count; });
    return events_;
}

bool RecordingServer::waitLast(const std::string& event, int timeoutMs) {
    std::unique_lock<std::mutex> guard(lock_);
    return changed_.wait_for(guard, std::chrono::milliseconds(timeoutMs),
                             [&] { return !events_.empty() && events_.back() == event; });
}

OutputCapture::OutputCapture(int fd) : fd_(fd) {
    int ends[2];
    if (pipe(ends) != 0) {
        return;
    }
    fflush(nullptr);
    saved_ = dup(fd_);
    dup2(ends[1], fd_);
    ::close(ends[1]);
    readEnd_ = ends[0];
    reader_ = std::thread([this] {
        char buffer[4096];
        ssize_t got;
        while ((got = read(readEnd_, buffer, sizeof buffer)) > 0) {
            const std::lock_guard<std::mutex> guard(lock_);
            text_.append(buffer, static_cast<std::size_t>(got));
            changed_.notify_all();
        }
    });
}

OutputCapture::~OutputCapture() {
    if (saved_ < 0) {
        return;
    }
    fflush(nullptr);
    dup2(saved_, fd_);  // drops the last write end: the reader sees the end of the pipe
    ::close(saved_);
    reader_.join();
    ::close(readEnd_);
}

int OutputCapture::countLocked(const std::string& text) const {
    int found = 0;
    for (std::size_t at = text_.find(text); at != std::string::npos; at = text_.find(text, at + 1)) {
        ++found;
    }
    return found;
}

int OutputCapture::waitFor(const std::string& text, int times, int timeoutMs) {
    std::unique_lock<std::mutex> guard(lock_);
    changed_.wait_for(guard, std::chrono::milliseconds(timeoutMs),
                      [&] { return countLocked(text) >= times; });
    return countLocked(text);
}

int OutputCapture::count(const std::string& text) {
    const std::lock_guard<std::mutex> guard(lock_);
    return countLocked(text);
}
