// Helpers of the end-to-end tests: a program under test as a child process writing to a log file, and
// a TCP client of the daemon.
#pragma once

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <fstream>
#include <iterator>
#include <optional>
#include <string>
#include <thread>
#include <vector>

extern char** environ;

using Bytes = std::vector<std::uint8_t>;
using Clock = std::chrono::steady_clock;
using Millis = std::chrono::milliseconds;

// The guest emulates its CPU and the machine may be busy: waits that end early when all is well.
constexpr Millis kDeadline{30000};

// Polls `done` until it holds (true) or the deadline passes (false).
template <typename Done>
bool eventually(Done done, Millis timeout = kDeadline) {
    for (const auto deadline = Clock::now() + timeout; !done(); std::this_thread::sleep_for(Millis(20))) {
        if (Clock::now() > deadline) {
            return false;
        }
    }
    return true;
}

// Whole file contents; empty when it cannot be read.
inline Bytes readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return Bytes(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// A program started with posix_spawn, its standard output and error into `log`; killed on destruction.
class Process {
  public:
    static constexpr int kRunning = -1;
    Process(std::vector<std::string> argv, std::string log) : log_(std::move(log)) {
        std::vector<char*> pointers;
        for (std::string& argument : argv) {
            pointers.push_back(argument.data());
        }
        pointers.push_back(nullptr);
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, log_.c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                                         0644);
        posix_spawn_file_actions_adddup2(&actions, STDOUT_FILENO, STDERR_FILENO);
        // A client socket a child inherited would keep the connection up after the test closed it.
        posix_spawn_file_actions_addclosefrom_np(&actions, STDERR_FILENO + 1);
        if (posix_spawn(&pid_, pointers[0], &actions, nullptr, pointers.data(), environ) != 0) {
            status_ = 127;
        }
        posix_spawn_file_actions_destroy(&actions);
    }
    ~Process() {
        if (!ended()) {
            kill(pid_, SIGKILL);
            waitpid(pid_, nullptr, 0);  // its status no longer matters
        }
    }

    bool ended() {
        int status = 0;
        if (status_ == kRunning && waitpid(pid_, &status, WNOHANG) == pid_) {
            status_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
        }
        return status_ != kRunning;
    }
    static std::string read(const std::string& path) {
        const Bytes bytes = readFile(path);
        return std::string(bytes.begin(), bytes.end());
    }
    std::string output() const { return read(log_); }
    int count(const std::string& text) const {
        const std::string all = output();
        int found = 0;
        for (auto at = all.find(text); at != std::string::npos; at = all.find(text, at + text.size())) {
            ++found;
        }
        return found;
    }
    bool waitFor(const std::string& text) {
        return eventually([&] { return count(text) > 0; });
    }
    // The exit status, 128 + signal when killed, kRunning when it still ran at the deadline.
    int wait(Millis timeout = kDeadline) {
        eventually([this] { return ended(); }, timeout);
        return status_;
    }
    // SIGTERM, which also makes it write out its buffered output; then as wait().
    int terminate() {
        if (!ended()) {
            kill(pid_, SIGTERM);
        }
        return wait();
    }

  private:
    pid_t pid_ = -1;
    std::string log_;
    int status_ = kRunning;
};

inline sockaddr_in loopback(int port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

// A loopback TCP port that was free a moment ago; 0 on failure.
inline int freePort() {
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address = loopback(0);
    socklen_t length = sizeof address;
    const bool bound = fd >= 0 &&
                       bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 &&
                       getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) == 0;
    if (fd >= 0) {
        close(fd);
    }
    return bound ? ntohs(address.sin_port) : 0;
}

// A client of the daemon on the loopback address; packets have an 8-byte big-endian header (length,
// command, payload offset).
class Client {
  public:
    static constexpr std::uint8_t kHeaderSize = 8;
    explicit Client(int port) : fd_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        const sockaddr_in peer = loopback(port);
        if (fd_ >= 0 && connect(fd_, reinterpret_cast<const sockaddr*>(&peer), sizeof peer) != 0) {
            close();
        }
    }
    ~Client() { close(); }

    bool connected() const { return fd_ >= 0; }
    void close() {
        if (fd_ >= 0) {
            ::close(fd_);  // nothing to do about a failure
            fd_ = -1;
        }
    }
    // False unless every byte went out (a blocking send returns short only on failure).
    bool send(std::uint16_t command, const Bytes& payload = {}) {
        const auto length = static_cast<std::uint32_t>(payload.size() + kHeaderSize);
        Bytes bytes{static_cast<std::uint8_t>(length >> 24),
                    static_cast<std::uint8_t>(length >> 16),
                    static_cast<std::uint8_t>(length >> 8),
                    static_cast<std::uint8_t>(length),
                    static_cast<std::uint8_t>(command >> 8),
                    static_cast<std::uint8_t>(command),
                    0,
                    kHeaderSize};
        bytes.insert(bytes.end(), payload.begin(), payload.end());
        return ::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(bytes.size());
    }
    // The payload of the next packet of `command`, others skipped; nothing on time-out or end of stream.
    std::optional<Bytes> next(std::uint16_t command, Millis timeout = kDeadline) {
        const auto deadline = Clock::now() + timeout;
        for (Bytes header(kHeaderSize);;) {
            if (!read(header, deadline)) {
                return std::nullopt;
            }
            const std::uint32_t length = (std::uint32_t{header[0]} << 24) | (std::uint32_t{header[1]} << 16) |
                                         (std::uint32_t{header[2]} << 8) | header[3];
            Bytes payload(length > kHeaderSize ? length - kHeaderSize : 0);
            if (length < kHeaderSize || !read(payload, deadline)) {
                return std::nullopt;
            }
            if (((header[4] << 8) | header[5]) == command) {
                return payload;
            }
        }
    }

  private:
    bool read(Bytes& out, Clock::time_point deadline) {
        const auto left =
            std::chrono::duration_cast<std::chrono::microseconds>(deadline - Clock::now()).count();
        const timeval limit{static_cast<time_t>(left / 1000000), static_cast<suseconds_t>(left % 1000000)};
        return left > 0 && setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit) == 0 &&
               (out.empty() ||
                recv(fd_, out.data(), out.size(), MSG_WAITALL) == static_cast<ssize_t>(out.size()));
    }

    int fd_ = -1;
};
