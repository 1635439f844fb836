#include "HardeningSupport.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <ftw.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>

extern char** environ;

namespace {

int msUntil(Clock::time_point deadline) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
    return left > 0 ? static_cast<int>(left) : 0;
}

int countOf(const std::string& haystack, const std::string& text) {
    int found = 0;
    for (std::size_t at = haystack.find(text); at != std::string::npos;
         at = haystack.find(text, at + text.size())) {
        ++found;
    }
    return found;
}

// Our environment with the daemon's ThreadSanitizer suppressions added (only tsan builds read them).
std::vector<std::string> childEnvironment() {
    std::vector<std::string> environment;
    std::string tsanOptions = "TSAN_OPTIONS=suppressions=" DAEMON_TSAN_SUPPRESSIONS;
    for (char** entry = environ; *entry != nullptr; ++entry) {
        if (std::strncmp(*entry, "TSAN_OPTIONS=", 13) == 0) {
            tsanOptions += std::string(" ") + (*entry + 13);
        } else {
            environment.emplace_back(*entry);
        }
    }
    environment.push_back(tsanOptions);
    return environment;
}

std::vector<char*> pointersTo(std::vector<std::string>& texts) {
    std::vector<char*> pointers;
    for (std::string& text : texts) {
        pointers.push_back(text.data());
    }
    pointers.push_back(nullptr);
    return pointers;
}

// Waits for a child to end: its exit status, 128 + signal, or kNotEnded at the deadline.
int waitForExit(pid_t pid, std::chrono::milliseconds timeout) {
    const int pidFd = static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
    const auto deadline = Clock::now() + timeout;
    int status = 0;
    int result = ChildProcess::kNotEnded;
    for (;;) {
        const pid_t done = waitpid(pid, &status, WNOHANG);
        if (done == pid) {
            result = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
            break;
        }
        if (done < 0 || Clock::now() >= deadline) {
            break;
        }
        if (pidFd >= 0) {
            pollfd ended{pidFd, POLLIN, 0};
            (void)poll(&ended, 1, msUntil(deadline));  // readable once the process has ended
        } else {
            std::this_thread::sleep_for(std::chrono::milliseconds(10));  // kernels without pidfd
        }
    }
    if (pidFd >= 0) {
        close(pidFd);
    }
    return result;
}

int removeEntry(const char* path, const struct stat* /*status*/, int /*kind*/, FTW* /*walk*/) {
    return ::remove(path);
}

}  // namespace

// ---------------------------------------------------------------------------------------------
// ChildProcess

ChildProcess::ChildProcess(const std::vector<std::string>& arguments, const std::string& workingDirectory) {
    std::vector<std::string> argumentTexts = arguments;
    std::vector<char*> argv = pointersTo(argumentTexts);
    std::vector<std::string> environmentTexts = childEnvironment();
    std::vector<char*> envp = pointersTo(environmentTexts);

    int out[2];
    int err[2];
    if (pipe2(out, O_CLOEXEC) != 0 || pipe2(err, O_CLOEXEC) != 0) {
        std::perror("pipe2");
        std::abort();
    }
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, out[1], 1);
    posix_spawn_file_actions_adddup2(&actions, err[1], 2);
    if (!workingDirectory.empty()) {
        posix_spawn_file_actions_addchdir_np(&actions, workingDirectory.c_str());
    }
    if (posix_spawn(&pid_, argv[0], &actions, nullptr, argv.data(), envp.data()) != 0) {
        pid_ = -1;
    }
    posix_spawn_file_actions_destroy(&actions);
    close(out[1]);
    close(err[1]);
    outReader_ = std::thread([this, fd = out[0]] { drain(fd, out_); });
    errReader_ = std::thread([this, fd = err[0]] { drain(fd, err_); });
}

ChildProcess::~ChildProcess() {
    if (pid_ > 0 && status_ == kNotEnded && kill(pid_, SIGKILL) == 0) {
        (void)waitForExit(pid_, kDeadline);
    }
    outReader_.join();
    errReader_.join();
}

void ChildProcess::drain(int fd, std::string& into) {
    char buffer[4096];
    for (ssize_t got; (got = read(fd, buffer, sizeof buffer)) > 0;) {
        std::lock_guard<std::mutex> lock(lock_);
        into.append(buffer, static_cast<std::size_t>(got));
        changed_.notify_all();
    }
    close(fd);
}

bool ChildProcess::waitFor(const std::string& stream, const std::string& text, int times,
                           std::chrono::milliseconds timeout) {
    std::unique_lock<std::mutex> lock(lock_);
    const std::string& from = stream == "out" ? out_ : err_;
    return changed_.wait_for(lock, timeout, [&] { return countOf(from, text) >= times; });
}

bool ChildProcess::waitForOutput(const std::string& text, int times, std::chrono::milliseconds timeout) {
    return waitFor("out", text, times, timeout);
}

bool ChildProcess::waitForErrors(const std::string& text, int times, std::chrono::milliseconds timeout) {
    return waitFor("err", text, times, timeout);
}

std::string ChildProcess::output() {
    std::lock_guard<std::mutex> lock(lock_);
    return out_;
}

std::string ChildProcess::errors() {
    std::lock_guard<std::mutex> lock(lock_);
    return err_;
}

int ChildProcess::countInOutput(const std::string& text) {
    std::lock_guard<std::mutex> lock(lock_);
    return countOf(out_, text);
}

int ChildProcess::countInErrors(const std::string& text) {
    std::lock_guard<std::mutex> lock(lock_);
    return countOf(err_, text);
}

int ChildProcess::exitStatus(std::chrono::milliseconds timeout) {
    if (pid_ > 0 && status_ == kNotEnded) {
        status_ = waitForExit(pid_, timeout);
    }
    return status_;
}

bool ChildProcess::sendSignal(int signalNumber) {
    return pid_ > 0 && status_ == kNotEnded && kill(pid_, signalNumber) == 0;
}

long ChildProcess::residentKiB() const {
    std::ifstream status("/proc/" + std::to_string(pid_) + "/status");
    std::string line;
    while (std::getline(status, line)) {
        if (line.compare(0, 6, "VmRSS:") == 0) {
            return std::strtol(line.c_str() + 6, nullptr, 10);
        }
    }
    return -1;
}

// ---------------------------------------------------------------------------------------------
// Peer

Peer::Peer(int port) : fd_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (fd_ >= 0 && connect(fd_, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        close();
    }
    // Requests go out at once rather than wait for the answer to the one before (Nagle).
    const int noDelay = 1;
    if (fd_ >= 0 && setsockopt(fd_, IPPROTO_TCP, TCP_NODELAY, &noDelay, sizeof noDelay) != 0) {
        close();
    }
}

Peer::~Peer() {
    close();
}

void Peer::close() {
    if (fd_ >= 0) {
        ::close(fd_);
        fd_ = -1;
    }
}

bool Peer::sendRaw(const Bytes& bytes) {
    std::size_t sent = 0;
    while (fd_ >= 0 && sent < bytes.size()) {
        const ssize_t result = send(fd_, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
        if (result <= 0) {
            return false;
        }
        sent += static_cast<std::size_t>(result);
    }
    return fd_ >= 0;
}

bool Peer::sendPacket(std::uint16_t command, const Bytes& payload) {
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
    return sendRaw(bytes);
}

bool Peer::readExactly(std::uint8_t* out, std::size_t length, Clock::time_point deadline) {
    for (std::size_t done = 0; done < length;) {
        // Acknowledged at once, so that the daemon's next small packet is not held back waiting for it
        // (the setting does not stick, hence every time). Without it the tests only run slower.
        const int quickAck = 1;
        (void)setsockopt(fd_, IPPROTO_TCP, TCP_QUICKACK, &quickAck, sizeof quickAck);
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
    if (fd_ < 0) {
        return std::nullopt;
    }
    const Clock::time_point deadline = Clock::now() + timeout;
    std::uint8_t header[8];
    if (!readExactly(header, sizeof header, deadline)) {
        return std::nullopt;
    }
    const std::uint32_t length = (std::uint32_t{header[0]} << 24) | (std::uint32_t{header[1]} << 16) |
                                 (std::uint32_t{header[2]} << 8) | header[3];
    const std::uint32_t headerLength = static_cast<std::uint32_t>(header[6] << 8 | header[7]);
    if (length < 8 || headerLength != 8) {
        return std::nullopt;  // never sent by the daemon
    }
    WirePacket packet;
    packet.command = static_cast<std::uint16_t>((header[4] << 8) | header[5]);
    packet.payload.resize(length - 8);
    if (!readExactly(packet.payload.data(), packet.payload.size(), deadline)) {
        return std::nullopt;
    }
    return packet;
}

bool Peer::waitForIdentity(std::chrono::milliseconds timeout) {
    const Clock::time_point deadline = Clock::now() + timeout;
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
    if (!sendPacket(kCmdEcho, request)) {
        return std::nullopt;
    }
    Bytes reply = request;
    reply[0] = 1;
    const Clock::time_point deadline = Clock::now() + timeout;
    std::vector<WirePacket> before;
    while (auto packet = next(std::chrono::milliseconds(msUntil(deadline)))) {
        if (packet->command == kCmdEcho && packet->payload == reply) {
            return before;
        }
        before.push_back(std::move(*packet));
    }
    return std::nullopt;
}

std::optional<Bytes> Peer::askStatus(std::chrono::milliseconds timeout) {
    // Earlier broadcasts are passed over first, so that the answer is the last status before the echo.
    if (!barrier(timeout) || !sendPacket(1001, {})) {
        return std::nullopt;
    }
    const auto packets = barrier(timeout);
    if (!packets) {
        return std::nullopt;
    }
    std::optional<Bytes> status;
    for (const WirePacket& packet : *packets) {
        if (packet.command == 1000) {
            status = packet.payload;
        }
    }
    return status;
}

bool Peer::waitUntilClosed(std::chrono::milliseconds timeout) {
    const Clock::time_point deadline = Clock::now() + timeout;
    std::uint8_t buffer[4096];
    while (fd_ >= 0) {
        pollfd wait{fd_, POLLIN, 0};
        if (poll(&wait, 1, msUntil(deadline)) <= 0) {
            return false;
        }
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

// ---------------------------------------------------------------------------------------------

ScratchFolder::ScratchFolder() {
    char name[] = "/tmp/varnoch-hardening-XXXXXX";
    if (mkdtemp(name) == nullptr) {
        std::perror("mkdtemp");
        std::abort();
    }
    path_ = name;
}

ScratchFolder::~ScratchFolder() {
    (void)nftw(path_.c_str(), removeEntry, 8, FTW_DEPTH | FTW_PHYS);  // leftovers in /tmp harm nobody
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

std::string hexText(const Bytes& bytes) {
    std::string text;
    char byte[4];
    for (const std::uint8_t value : bytes) {
        std::snprintf(byte, sizeof byte, "%02X ", value);
        text += byte;
    }
    return text;
}

bool hasSanitizerReport(const std::string& errors) {
    return errors.find("Sanitizer") != std::string::npos ||
           errors.find("runtime error:") != std::string::npos;
}
