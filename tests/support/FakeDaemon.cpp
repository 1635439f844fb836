#include "FakeDaemon.h"

#include "TestClient.h"
#include "varnoch/protocol/Packet.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <sstream>
#include <stdexcept>

namespace fakedaemon {

namespace {

bool sendAll(int fd, const Bytes& bytes) {
    return send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(bytes.size());
}

bool readAll(int fd, std::uint8_t* into, std::size_t size) {
    return size == 0 || recv(fd, into, size, MSG_WAITALL) == static_cast<ssize_t>(size);
}

}  // namespace

FakeDaemon::FakeDaemon() {
    listener_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    if (listener_ < 0 || bind(listener_, reinterpret_cast<sockaddr*>(&address), size) != 0 ||
        listen(listener_, 5) != 0 ||
        getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &size) != 0) {
        throw std::runtime_error("fake daemon: no loopback listener");
    }
    port_ = ntohs(address.sin_port);
}

FakeDaemon::~FakeDaemon() {
    if (listener_ >= 0) {
        close(listener_);
    }
    finish();
}

void FakeDaemon::serve(const std::string& script) {
    thread_ = std::thread([this, script] {
        const int fd = accept(listener_, nullptr, nullptr);
        if (fd >= 0) {
            play(fd, script);
            close(fd);
        }
    });
}

const std::vector<Packet>& FakeDaemon::finish() {
    if (thread_.joinable()) {
        thread_.join();
    }
    return received_;
}

std::string FakeDaemon::commands() {
    std::string text;
    for (const Packet& packet : finish()) {
        text += (text.empty() ? "" : " ") + std::to_string(packet.command);
    }
    return text;
}

bool FakeDaemon::readPacket(int fd, Packet& packet) {
    std::uint8_t header[8];
    if (!readAll(fd, header, sizeof header)) {
        return false;
    }
    const std::uint32_t length = std::uint32_t{header[0]} << 24 | std::uint32_t{header[1]} << 16 |
                                 std::uint32_t{header[2]} << 8 | header[3];
    packet.command = static_cast<std::uint16_t>(header[4] << 8 | header[5]);
    packet.payload.assign(length < 8 ? 0 : length - 8, 0);
    if (length < 8 || !readAll(fd, packet.payload.data(), packet.payload.size())) {
        return false;
    }
    received_.push_back(packet);
    return true;
}

void FakeDaemon::play(int fd, const std::string& script) {
    // The identity payload's bytes are checked in the protocol library's test.
    using varnoch::protocol::encodeIdentity;
    sendAll(fd, packetBytes(kCmdIdentity,
                            encodeIdentity({1234, "varnoch", "0.00a", "Dev-trunk 1901-01-01 00:00:00 UTC"})));
    std::istringstream words(script);
    Packet packet;
    for (std::string word; words >> word;) {
        if (word == ".") {
            while (readPacket(fd, packet)) {
            }
            return;
        }
        if (word == "id") {
            sendAll(fd, packetBytes(kCmdIdentity, encodeIdentity({42, "varnoch", "1", "t"})));
        } else if (word == "bad") {
            sendAll(fd, {0, 0, 0, 4, 0, 1, 0, 8});
        } else if (word[0] == '~') {
            std::this_thread::sleep_for(std::chrono::milliseconds(std::stoi(word.substr(1))));
        } else if (word.rfind("await:", 0) == 0) {
            const int command = std::stoi(word.substr(6));
            while (readPacket(fd, packet) && packet.command != command) {
            }
        } else if (word == "echo") {
            while (readPacket(fd, packet) && packet.command != 1) {
            }
            sendAll(fd, packetBytes(1000, {1, 1, 0, 0x26, 0x78, 0x56, 0x34, 0x12}));
            packet.payload.at(0) = 1;
            sendAll(fd, packetBytes(1, packet.payload));
        } else {
            const std::size_t slash = word.find('/');
            const int progress = slash == std::string::npos ? 0 : std::stoi(word.substr(slash + 1));
            sendAll(fd,
                    packetBytes(1000, {1, static_cast<std::uint8_t>(std::stoi(word)),
                                       static_cast<std::uint8_t>(progress), 0x26, 0x78, 0x56, 0x34, 0x12}));
        }
    }
    shutdown(fd, SHUT_WR);
    while (readPacket(fd, packet)) {
    }
}

}  // namespace fakedaemon
