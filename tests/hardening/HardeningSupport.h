// Shared by the hardening and fault tests: child processes logging into a scratch folder, and a TCP
// peer that talks to the daemon as well or as badly as a test wants.
#pragma once

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <memory>
#include <sstream>
#include <string>
#include <thread>

#include "ClientSupport.h"

extern char** environ;

constexpr std::uint16_t kCmdEcho = 1;
constexpr std::uint16_t kCmdIdentity = 2;
constexpr std::uint16_t kCmdStatus = 1000;
constexpr std::uint16_t kCmdRequestStatus = 1001;
constexpr int kAnyCommand = -1;
constexpr int kNoCommand = -2;  // reads until the stream ends

// Polls `condition` until it holds (true) or the deadline passes (false).
inline bool eventually(const std::function<bool()>& condition,
                       std::chrono::milliseconds timeout = kDeadline) {
    for (const auto deadline = Clock::now() + timeout; !condition();) {
        if (Clock::now() >= deadline) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));  // polling interval, not a wait
    }
    return true;
}

inline int msUntil(Clock::time_point deadline) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
    return left > 0 ? static_cast<int>(left) : 0;
}

// A fresh folder below /tmp, removed with its files at the end.
class ScratchFolder {
  public:
    ScratchFolder() {
        char name[] = "/tmp/varnoch-hardening-XXXXXX";
        path_ = mkdtemp(name) != nullptr ? name : (std::abort(), "");
    }
    ~ScratchFolder() {
        std::error_code ignored;  // leftovers in /tmp harm nobody
        std::filesystem::remove_all(path_, ignored);
    }
    ScratchFolder(const ScratchFolder&) = delete;
    ScratchFolder& operator=(const ScratchFolder&) = delete;
    const std::string& path() const { return path_; }
    // Writes a file into the folder; its path.
    std::string write(const std::string& name, const std::string& content) const {
        std::ofstream(path_ + "/" + name, std::ios::binary) << content;
        return path_ + "/" + name;
    }

  private:
    std::string path_;
};

// A process started from `arguments` in `folder`, under the emulator $VARNOCH_EMULATOR names (cross
// builds; words split at blanks); standard output and error go to <folder>/<program>.log. Killed with
// SIGKILL at the end unless it was waited for.
class ChildProcess {
  public:
    ChildProcess(const std::vector<std::string>& arguments, const std::string& folder)
        : log_(folder + "/" + std::filesystem::path(arguments[0]).filename().string() + ".log") {
        std::istringstream words(std::getenv("VARNOCH_EMULATOR") ? std::getenv("VARNOCH_EMULATOR") : "");
        std::vector<std::string> texts(std::istream_iterator<std::string>(words), {});
        texts.insert(texts.end(), arguments.begin(), arguments.end());
        std::vector<char*> argv;
        for (std::string& text : texts) {
            argv.push_back(text.data());
        }
        argv.push_back(nullptr);
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_addopen(&actions, 1, log_.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        posix_spawn_file_actions_adddup2(&actions, 1, 2);
        posix_spawn_file_actions_addchdir_np(&actions, folder.c_str());
        if (posix_spawnp(&pid_, argv[0], &actions, nullptr, argv.data(), environ) != 0) {
            pid_ = -1;
        }
        posix_spawn_file_actions_destroy(&actions);
    }
    ~ChildProcess() {
        if (signal(SIGKILL)) {
            (void)exitStatus();
        }
    }
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    std::string output() const {
        std::ifstream in(log_, std::ios::binary);
        return std::string(std::istreambuf_iterator<char>(in), {});
    }
    int count(const std::string& text) const {
        const std::string all = output();
        int found = 0;
        for (auto at = all.find(text); at != std::string::npos; at = all.find(text, at + text.size())) {
            ++found;
        }
        return found;
    }
    // True once `text` has appeared `times` times in the output; false at the deadline.
    bool waitFor(const std::string& text, int times = 1,
                 std::chrono::milliseconds timeout = kDeadline) const {
        return eventually([&] { return count(text) >= times; }, timeout);
    }
    // The exit status, 128 + signal when killed, -1 when it did not end in time.
    int exitStatus(std::chrono::milliseconds timeout = kDeadline) {
        int status = 0;
        if (pid_ > 0 && status_ < 0 &&
            eventually([&] { return waitpid(pid_, &status, WNOHANG) == pid_; }, timeout)) {
            status_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
        }
        return status_;
    }
    bool signal(int number) { return pid_ > 0 && status_ < 0 && kill(pid_, number) == 0; }
    pid_t pid() const { return pid_; }
    // VmRSS in KiB; -1 when it cannot be read.
    long residentKiB() const {
        std::ifstream status("/proc/" + std::to_string(pid_) + "/status");
        for (std::string line; std::getline(status, line);) {
            if (line.compare(0, 6, "VmRSS:") == 0) {
                return std::strtol(line.c_str() + 6, nullptr, 10);
            }
        }
        return -1;
    }

  private:
    std::string log_;
    pid_t pid_ = -1;
    int status_ = -1;
};

// The 8-byte big-endian header, any values; then `payload`.
inline Bytes packetBytes(std::uint32_t length, std::uint16_t command, std::uint16_t headerLength = 8,
                         const Bytes& payload = {}) {
    Bytes bytes;
    const std::uint64_t header = std::uint64_t{length} << 32 | std::uint64_t{command} << 16 | headerLength;
    for (int shift = 56; shift >= 0; shift -= 8) {
        bytes.push_back(static_cast<std::uint8_t>(header >> shift));
    }
    bytes.insert(bytes.end(), payload.begin(), payload.end());
    return bytes;
}

// One TCP connection to the daemon on the loopback address.
class Peer {
  public:
    // A non-zero `receiveBuffer` keeps the kernel from buffering much of what the daemon sends.
    explicit Peer(int port, int receiveBuffer = 0) : fd_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        const sockaddr_in address{
            AF_INET, htons(static_cast<std::uint16_t>(port)), {htonl(INADDR_LOOPBACK)}, {}};
        const int on = 1;  // requests go out at once, not after the answer to the one before (Nagle)
        if (fd_ >= 0 && receiveBuffer > 0 &&
            setsockopt(fd_, SOL_SOCKET, SO_RCVBUF, &receiveBuffer, sizeof receiveBuffer) != 0) {
            close();
        }
        if (fd_ >= 0 && (connect(fd_, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
                         setsockopt(fd_, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on) != 0)) {
            close();
        }
    }
    ~Peer() { close(); }
    Peer(const Peer&) = delete;
    Peer& operator=(const Peer&) = delete;

    bool connected() const { return fd_ >= 0; }
    // Ends our direction of the stream; the daemon's direction stays open.
    bool shutdownWrite() { return fd_ >= 0 && shutdown(fd_, SHUT_WR) == 0; }
    void close() {
        if (fd_ >= 0) {
            ::close(fd_);  // nothing to do about a failure
            fd_ = -1;
        }
    }
    // False unless every byte went out.
    bool sendRaw(const Bytes& bytes) {
        for (std::size_t sent = 0; sent < bytes.size();) {
            const ssize_t result = send(fd_, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
            if (result <= 0) {
                return false;
            }
            sent += static_cast<std::size_t>(result);
        }
        return fd_ >= 0;
    }
    // Sends `bytes` again and again, reading nothing, until the daemon has taken nothing for `stall`
    // (its threads for this client wait on full queues then); false if it never stalled.
    bool floodUntilStalled(const Bytes& bytes,
                           std::chrono::milliseconds stall = std::chrono::milliseconds(300)) {
        const auto deadline = Clock::now() + kDeadline;
        for (std::size_t offset = 0; fd_ >= 0 && Clock::now() < deadline;) {
            const ssize_t sent =
                send(fd_, bytes.data() + offset, bytes.size() - offset, MSG_DONTWAIT | MSG_NOSIGNAL);
            if (sent > 0) {
                offset = (offset + static_cast<std::size_t>(sent)) % bytes.size();
                continue;
            }
            pollfd wait{fd_, POLLOUT, 0};
            if (sent < 0 && errno == EAGAIN && poll(&wait, 1, static_cast<int>(stall.count())) == 0) {
                return true;
            }
            if (sent < 0 && errno != EAGAIN && errno != EINTR) {
                return false;
            }
        }
        return false;
    }
    bool sendPacket(std::uint16_t command, const Bytes& payload) {
        return sendRaw(packetBytes(static_cast<std::uint32_t>(payload.size() + 8), command, 8, payload));
    }
    // The next whole packet of `command` (kAnyCommand: any), others dropped; nothing at the deadline or
    // at the end of the stream.
    std::optional<WirePacket> next(int command = kAnyCommand, std::chrono::milliseconds timeout = kDeadline) {
        const auto deadline = Clock::now() + timeout;
        for (std::uint32_t header[2]; fd_ >= 0 &&
                                      readExactly(reinterpret_cast<std::uint8_t*>(header), 8, deadline) &&
                                      ntohl(header[0]) >= 8 && (ntohl(header[1]) & 0xFFFF) == 8;) {
            WirePacket packet{static_cast<std::uint16_t>(ntohl(header[1]) >> 16),
                              Bytes(ntohl(header[0]) - 8)};
            if (!readExactly(packet.payload.data(), packet.payload.size(), deadline)) {
                break;
            }
            if (command == kAnyCommand || command == packet.command) {
                return packet;
            }
        }
        return std::nullopt;
    }
    // Drops what comes until the daemon ends the stream; false at the deadline.
    bool waitUntilClosed(std::chrono::milliseconds timeout = kDeadline) {
        return !next(kNoCommand, timeout) && closed_;
    }
    // An echo round trip; the daemon handles a client's packets in order, so this returns everything
    // sent before the echo reply; nothing when it did not come back in time.
    std::optional<std::vector<WirePacket>> barrier(std::chrono::milliseconds timeout = kDeadline) {
        ++echoToken_;
        Bytes request{0, static_cast<std::uint8_t>(echoToken_ >> 8), static_cast<std::uint8_t>(echoToken_)};
        Bytes reply = request;
        reply[0] = 1;
        const auto deadline = Clock::now() + timeout;
        std::vector<WirePacket> before;
        for (bool sent = sendPacket(kCmdEcho, request); sent;) {
            auto packet = next(kAnyCommand, std::chrono::milliseconds(msUntil(deadline)));
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
    // The payload of the status answering a status request; nothing at the deadline.
    std::optional<Bytes> askStatus(std::chrono::milliseconds timeout = kDeadline) {
        std::optional<Bytes> status;  // the last status before the echo answers the request
        const auto packets = sendPacket(kCmdRequestStatus, {}) ? barrier(timeout) : std::nullopt;
        for (const WirePacket& packet : packets.value_or(std::vector<WirePacket>{})) {
            if (packet.command == kCmdStatus) {
                status = packet.payload;
            }
        }
        return status;
    }

  private:
    bool readExactly(std::uint8_t* out, std::size_t length, Clock::time_point deadline) {
        for (std::size_t done = 0; done < length;) {
            // The daemon's next small packet is not held back for our delayed acknowledgement; only speed.
            const int on = 1;
            (void)setsockopt(fd_, IPPROTO_TCP, TCP_QUICKACK, &on, sizeof on);
            pollfd wait{fd_, POLLIN, 0};
            const ssize_t got =
                poll(&wait, 1, msUntil(deadline)) > 0 ? recv(fd_, out + done, length - done, 0) : -2;
            closed_ = closed_ || got == 0 || (got == -1 && errno == ECONNRESET);
            if (got <= 0) {
                return false;
            }
            done += static_cast<std::size_t>(got);
        }
        return true;
    }
    int fd_ = -1;
    bool closed_ = false;
    std::uint16_t echoToken_ = 0;
};

// Mode, state, progress, address, identifier little-endian.
inline Bytes statusBytes(std::uint8_t mode, std::uint8_t state, std::uint8_t progress, std::uint8_t address,
                         std::uint32_t identifier) {
    Bytes bytes{mode, state, progress, address};
    for (int shift = 0; shift < 32; shift += 8) {
        bytes.push_back(static_cast<std::uint8_t>(identifier >> shift));
    }
    return bytes;
}
inline bool hasSanitizerReport(const std::string& output) {
    return output.find("Sanitizer") != std::string::npos ||
           output.find("runtime error:") != std::string::npos;
}

// The daemon in a scratch folder; it ends in order once its last client has left.
class DaemonTest : public ::testing::Test {
  protected:
    void startDaemon(const char* interface, std::chrono::milliseconds timeout) {
        daemon_ = std::make_unique<ChildProcess>(
            std::vector<std::string>{VARNOCH_DAEMON, "-n", "-i", interface, "-p", std::to_string(port_)},
            folder_.path());
        ASSERT_TRUE(daemon_->waitFor("Varnoch is running\n", 1, timeout)) << daemon_->output();
    }
    void expectOrderlyEnd(std::unique_ptr<Peer>& lastClient, std::chrono::milliseconds timeout) {
        lastClient.reset();
        EXPECT_EQ(daemon_->exitStatus(timeout), 0) << daemon_->output();
        EXPECT_TRUE(daemon_->waitFor("Varnoch is shutting down\n", 1, timeout));
        EXPECT_FALSE(hasSanitizerReport(daemon_->output())) << daemon_->output();
    }

    ScratchFolder folder_;
    int port_ = freePort();
    std::unique_ptr<ChildProcess> daemon_;
};
