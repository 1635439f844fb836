#include "ClientSupport.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>

namespace {

int msUntil(Clock::time_point deadline) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
    return left > 0 ? static_cast<int>(left) : 0;
}

sockaddr_in loopback(int port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

}  // namespace

TestClient::TestClient(int port) : fd_(socket(AF_INET, SOCK_STREAM, 0)) {
    const sockaddr_in peer = loopback(port);
    if (fd_ >= 0 && connect(fd_, reinterpret_cast<const sockaddr*>(&peer), sizeof peer) != 0) {
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

bool TestClient::sendPacket(std::uint16_t command, const Bytes& payload) {
    const auto length = static_cast<std::uint32_t>(payload.size() + 8);
    Bytes bytes{static_cast<std::uint8_t>(length >> 24),
                static_cast<std::uint8_t>(length >> 16),
                static_cast<std::uint8_t>(length >> 8),
                static_cast<std::uint8_t>(length),
                static_cast<std::uint8_t>(command >> 8),
                static_cast<std::uint8_t>(command),
                0,
                8};
    bytes.insert(bytes.end(), payload.begin(), payload.end());
    return send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(bytes.size());
}

std::optional<WirePacket> TestClient::readPacketOf(std::uint16_t command, std::chrono::milliseconds timeout) {
    const Clock::time_point deadline = Clock::now() + timeout;
    for (;;) {
        std::uint8_t header[8];
        if (!readExactly(header, sizeof header, deadline)) {
            return std::nullopt;
        }
        const std::uint32_t length = (std::uint32_t{header[0]} << 24) | (std::uint32_t{header[1]} << 16) |
                                     (std::uint32_t{header[2]} << 8) | header[3];
        if (length < 8) {
            return std::nullopt;
        }
        WirePacket packet;
        packet.command = static_cast<std::uint16_t>((header[4] << 8) | header[5]);
        packet.payload.resize(length - 8);
        if (!readExactly(packet.payload.data(), packet.payload.size(), deadline)) {
            return std::nullopt;
        }
        if (packet.command == command) {
            return packet;
        }
    }
}

bool TestClient::readExactly(std::uint8_t* out, std::size_t length, Clock::time_point deadline) {
    for (std::size_t done = 0; done < length;) {
        pollfd wait{fd_, POLLIN, 0};
        const ssize_t got =
            poll(&wait, 1, msUntil(deadline)) > 0 ? recv(fd_, out + done, length - done, 0) : -1;
        if (got <= 0) {
            return false;
        }
        done += static_cast<std::size_t>(got);
    }
    return true;
}

// ---------------------------------------------------------------------------------------------

OutputCapture::OutputCapture() {
    std::fflush(stdout);
    int ends[2];
    if (pipe(ends) != 0 || (saved_ = dup(1)) < 0 || dup2(ends[1], 1) < 0) {
        std::perror("OutputCapture");
        std::abort();
    }
    ::close(ends[1]);
    readEnd_ = ends[0];
    reader_ = std::thread([this] {
        char buffer[512];
        for (ssize_t got; (got = read(readEnd_, buffer, sizeof buffer)) > 0;) {
            {
                std::lock_guard<std::mutex> lock(lock_);
                text_.append(buffer, static_cast<std::size_t>(got));
            }
            changed_.notify_all();
        }
    });
}

OutputCapture::~OutputCapture() {
    std::fflush(stdout);
    // Putting the saved descriptor back closes the pipe's last write end, which ends the reader.
    if (dup2(saved_, 1) < 0) {
        std::perror("OutputCapture");
    }
    ::close(saved_);
    reader_.join();
    ::close(readEnd_);
    // What was captured (the test's own messages among it) still belongs in the test's output.
    std::fwrite(text_.data(), 1, text_.size(), stdout);
}

int OutputCapture::countLocked(const std::string& text) const {
    int found = 0;
    for (std::size_t at = text_.find(text); at != std::string::npos;
         at = text_.find(text, at + text.size())) {
        ++found;
    }
    return found;
}

int OutputCapture::waitFor(const std::string& text, int times, std::chrono::milliseconds timeout) {
    std::unique_lock<std::mutex> lock(lock_);
    changed_.wait_for(lock, timeout, [&] { return countLocked(text) >= times; });
    return countLocked(text);
}

int OutputCapture::count(const std::string& text) {
    std::lock_guard<std::mutex> lock(lock_);
    return countLocked(text);
}

int freePort() {
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address = loopback(0);
    socklen_t length = sizeof address;
    int port = 0;
    if (fd >= 0 && bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 &&
        getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) == 0) {
        port = ntohs(address.sin_port);
    }
    if (fd >= 0) {
        ::close(fd);
    }
    return port;
}
