#include "HardeningSupport.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

extern char** environ;

namespace {

int msUntil(Clock::time_point deadline) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
    return left > 0 ? static_cast<int>(left) : 0;
}

int countOf(const std::string& haystack, const std::string& text) {
    int found = 0;
    for (auto at = haystack.find(text); at != std::string::npos; at = haystack.find(text, at + text.size())) {
        ++found;
    }
    return found;
}

}  // namespace

bool eventually(const std::function<bool()>& condition, std::chrono::milliseconds timeout) {
    for (const auto deadline = Clock::now() + timeout; !condition();) {
        if (Clock::now() >= deadline) {
            return false;
        }
        std::this_thread::sleep_for(
            std::chrono::milliseconds(2));  // polling interval, not a wait for the event
    }
    return true;
}

ChildProcess::ChildProcess(const std::vector<std::string>& arguments, const std::string& folder) {
    // A cross build runs the daemon under the emulator that VARNOCH_EMULATOR names (words split at blanks).
    std::vector<std::string> texts;
    if (const char* emulator = std::getenv("VARNOCH_EMULATOR")) {
        std::istringstream words(emulator);
        for (std::string word; words >> word;) {
            texts.push_back(word);
        }
    }
    texts.insert(texts.end(), arguments.begin(), arguments.end());
    std::vector<char*> argv;
    for (std::string& text : texts) {
        argv.push_back(text.data());
    }
    argv.push_back(nullptr);
    int pipeEnds[2];
    if (pipe2(pipeEnds, O_CLOEXEC) != 0) {
        std::abort();
    }
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, pipeEnds[1], 1);
    posix_spawn_file_actions_adddup2(&actions, pipeEnds[1], 2);
    if (!folder.empty()) {
        posix_spawn_file_actions_addchdir_np(&actions, folder.c_str());
    }
    if (posix_spawnp(&pid_, argv[0], &actions, nullptr, argv.data(), environ) != 0) {
        pid_ = -1;
    }
    posix_spawn_file_actions_destroy(&actions);
    ::close(pipeEnds[1]);
    reader_ = std::thread([this, fd = pipeEnds[0]] {
        char buffer[4096];
        for (ssize_t got; (got = read(fd, buffer, sizeof buffer)) > 0;) {
            const std::lock_guard<std::mutex> lock(lock_);
            output_.append(buffer, static_cast<std::size_t>(got));
            changed_.notify_all();
        }
        ::close(fd);
    });
}

ChildProcess::~ChildProcess() {
    if (signal(SIGKILL)) {
        (void)exitStatus();
    }
    reader_.join();
}

bool ChildProcess::waitFor(const std::string& text, int times, std::chrono::milliseconds timeout) {
    std::unique_lock<std::mutex> lock(lock_);
    return changed_.wait_for(lock, timeout, [&] { return countOf(output_, text) >= times; });
}

int ChildProcess::count(const std::string& text) {
    const std::lock_guard<std::mutex> lock(lock_);
    return countOf(output_, text);
}

std::string ChildProcess::output() {
    const std::lock_guard<std::mutex> lock(lock_);
    return output_;
}

int ChildProcess::exitStatus(std::chrono::milliseconds timeout) {
    int status = 0;
    const bool ended = pid_ > 0 && status_ < 0 &&
                       eventually([&] { return waitpid(pid_, &status, WNOHANG) == pid_; }, timeout);
    if (ended) {
        status_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }
    return status_;
}

bool ChildProcess::signal(int number) {
    return pid_ > 0 && status_ < 0 && kill(pid_, number) == 0;
}

long ChildProcess::residentKiB() const {
    std::ifstream status("/proc/" + std::to_string(pid_) + "/status");
    for (std::string line; std::getline(status, line);) {
        if (line.compare(0, 6, "VmRSS:") == 0) {
            return std::strtol(line.c_str() + 6, nullptr, 10);
        }
    }
    return -1;
}

Bytes packetBytes(std::uint32_t length, std::uint16_t command, std::uint16_t headerLength,
                  const Bytes& payload) {
    Bytes bytes;
    const std::uint64_t header = std::uint64_t{length} << 32 | std::uint64_t{command} << 16 | headerLength;
    for (int shift = 56; shift >= 0; shift -= 8) {
        bytes.push_back(static_cast<std::uint8_t>(header >> shift));
    }
    bytes.insert(bytes.end(), payload.begin(), payload.end());
    return bytes;
}

Peer::Peer(int port) : fd_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const int on = 1;  // requests go out at once, not after the answer to the one before (Nagle)
    if (fd_ >= 0 && (connect(fd_, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
                     setsockopt(fd_, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on) != 0)) {
        close();
    }
}

void Peer::close() {
    if (fd_ >= 0) {
        ::close(fd_);
        fd_ = -1;
    }
}

bool Peer::sendRaw(const Bytes& bytes) {
    for (std::size_t sent = 0; sent < bytes.size();) {
        const ssize_t result = send(fd_, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
        if (result <= 0) {
            return false;
        }
        sent += static_cast<std::size_t>(result);
    }
    return fd_ >= 0;
}

bool Peer::sendPacket(std::uint16_t command, const Bytes& payload) {
    return sendRaw(packetBytes(static_cast<std::uint32_t>(payload.size() + 8), command, 8, payload));
}

bool Peer::readExactly(std::uint8_t* out, std::size_t length, Clock::time_point deadline) {
    for (std::size_t done = 0; done < length;) {
        // The daemon's next small packet is not held back for our delayed acknowledgement; only speed.
        const int on = 1;
        (void)setsockopt(fd_, IPPROTO_TCP, TCP_QUICKACK, &on, sizeof on);
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

std::optional<WirePacket> Peer::next(std::chrono::milliseconds timeout) {
    const auto deadline = Clock::now() + timeout;
    std::uint32_t header[2];
    if (fd_ < 0 || !readExactly(reinterpret_cast<std::uint8_t*>(header), 8, deadline) ||
        ntohl(header[0]) < 8 || (ntohl(header[1]) & 0xFFFF) != 8) {
        return std::nullopt;
    }
    WirePacket packet{static_cast<std::uint16_t>(ntohl(header[1]) >> 16), Bytes(ntohl(header[0]) - 8)};
    if (!readExactly(packet.payload.data(), packet.payload.size(), deadline)) {
        return std::nullopt;
    }
    return packet;
}

bool Peer::waitForIdentity(std::chrono::milliseconds timeout) {
    const auto deadline = Clock::now() + timeout;
    while (const auto packet = next(std::chrono::milliseconds(msUntil(deadline)))) {
        if (packet->command == kCmdIdentity) {
            return true;
        }
    }
    return false;
}

bool Peer::hasPendingData() {
    pollfd wait{fd_, POLLIN, 0};
    return fd_ >= 0 && poll(&wait, 1, 0) > 0;
}

std::optional<std::vector<WirePacket>> Peer::barrier(std::chrono::milliseconds timeout) {
    const std::uint32_t token = ++echoToken_;
    Bytes request{0, static_cast<std::uint8_t>(token >> 24), static_cast<std::uint8_t>(token >> 16),
                  static_cast<std::uint8_t>(token >> 8), static_cast<std::uint8_t>(token)};
    Bytes reply = request;
    reply[0] = 1;
    const auto deadline = Clock::now() + timeout;
    std::vector<WirePacket> before;
    for (bool sent = sendPacket(kCmdEcho, request); sent;) {
        auto packet = next(std::chrono::milliseconds(msUntil(deadline)));
        if (!packet) {
            break;
        }
        if (packet->command == kCmdEcho && packet->payload == reply) {
            return before;
        }
        before.push_back(std::move(*packet));
    }
    return std::nullopt;
}

std::optional<Bytes> Peer::askStatus(std::chrono::milliseconds timeout) {
    std::optional<Bytes> status;  // the last status before the echo answers the request
    const auto packets = sendPacket(kCmdRequestStatus, {}) ? barrier(timeout) : std::nullopt;
    for (const WirePacket& packet : packets.value_or(std::vector<WirePacket>{})) {
        if (packet.command == kCmdStatus) {
            status = packet.payload;
        }
    }
    return status;
}

bool Peer::waitUntilClosed(std::chrono::milliseconds timeout) {
    const auto deadline = Clock::now() + timeout;
    std::uint8_t buffer[4096];
    for (pollfd wait{fd_, POLLIN, 0}; fd_ >= 0 && poll(&wait, 1, msUntil(deadline)) > 0;) {
        const ssize_t got = recv(fd_, buffer, sizeof buffer, 0);
        if (got == 0 || (got < 0 && errno == ECONNRESET)) {
            return true;
        }
        if (got < 0 && errno != EINTR) {
            return false;
        }
    }
    return false;
}

ScratchFolder::ScratchFolder() {
    char name[] = "/tmp/varnoch-hardening-XXXXXX";
    if (mkdtemp(name) == nullptr) {
        std::abort();
    }
    path_ = name;
}

ScratchFolder::~ScratchFolder() {
    std::error_code ignored;  // leftovers in /tmp harm nobody
    std::filesystem::remove_all(path_, ignored);
}

std::string ScratchFolder::write(const std::string& name, const std::string& content) const {
    const std::string path = path_ + "/" + name;
    std::ofstream(path, std::ios::binary) << content;
    return path;
}

Bytes statusBytes(std::uint8_t mode, std::uint8_t state, std::uint8_t progress, std::uint8_t address,
                  std::uint32_t identifier) {
    return {mode,
            state,
            progress,
            address,
            static_cast<std::uint8_t>(identifier),
            static_cast<std::uint8_t>(identifier >> 8),
            static_cast<std::uint8_t>(identifier >> 16),
            static_cast<std::uint8_t>(identifier >> 24)};
}
