#include "FakeDaemon.h"

#include <sys/socket.h>
#include <unistd.h>

#include <sstream>

#include "varnoch/protocol/Packet.h"

namespace fakedaemon {

namespace {

// Longer than any test holds a served connection idle.
constexpr std::chrono::minutes kServedIdle{1};

Bytes status(int state, int progress) {
    return packetBytes(kCmdStatus, {1, static_cast<std::uint8_t>(state), static_cast<std::uint8_t>(progress),
                                    0x26, 0x78, 0x56, 0x34, 0x12});
}

}  // namespace

FakeDaemon::FakeDaemon() : listener_(listenOnLoopback(&port_)) {}

FakeDaemon::~FakeDaemon() {
    (void)close(listener_);  // -1 when it could not listen
    finish();
}

void FakeDaemon::serve(const std::string& script) {
    thread_ = std::thread([this, script] {
        TestClient connection(TestClient::Accepted{accept(listener_, nullptr, nullptr)});
        play(connection, script);
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

bool FakeDaemon::readUntil(TestClient& connection, int command) {
    while (auto packet = connection.readPacketOf(kAnyCommand, kServedIdle)) {
        received_.push_back(*packet);
        if (packet->command == command) {
            return true;
        }
    }
    return false;
}

void FakeDaemon::play(TestClient& connection, const std::string& script) {
    // The identity payload's bytes are checked in the protocol library's test.
    using varnoch::protocol::encodeIdentity;
    connection.sendPacket(kCmdIdentity,
                          encodeIdentity({1234, "varnoch", "0.00a", "Dev-trunk 1901-01-01 00:00:00 UTC"}));
    std::istringstream words(script);
    for (std::string word; words >> word;) {
        if (word == ".") {
            readUntil(connection, kAnyCommand);
            return;
        }
        if (word == "id") {
            connection.sendPacket(kCmdIdentity, encodeIdentity({42, "varnoch", "1", "t"}));
        } else if (word == "bad") {
            connection.sendRaw(craftedPacket(4, 1, 8));
        } else if (word[0] == '~') {
            std::this_thread::sleep_for(std::chrono::milliseconds(std::stoi(word.substr(1))));
        } else if (word.rfind("await:", 0) == 0) {
            readUntil(connection, std::stoi(word.substr(6)));
        } else if (word == "echo") {
            if (readUntil(connection, kCmdEcho)) {
                connection.sendRaw(status(1, 0));
                Bytes reply = received_.back().payload;
                reply.at(0) = 1;
                connection.sendPacket(kCmdEcho, reply);
            }
        } else {
            const std::size_t slash = word.find('/');
            connection.sendRaw(
                status(std::stoi(word), slash == std::string::npos ? 0 : std::stoi(word.substr(slash + 1))));
        }
    }
    connection.shutdownWrite();
    readUntil(connection, kAnyCommand);
}

}  // namespace fakedaemon
