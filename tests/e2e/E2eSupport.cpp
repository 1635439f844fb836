#include "E2eSupport.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>

extern char** environ;

namespace {

constexpr std::uint8_t kErasedByte = 0xFF;
constexpr std::uint32_t kHeaderSize = 8;
constexpr std::uint32_t kSegmentShift = 12;  // the daemon's reading of the type-2 record
constexpr std::uint32_t kLinearShift = 16;

sockaddr_in loopback(int port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

}  // namespace

DaemonClient::DaemonClient(int port) : fd_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    const sockaddr_in peer = loopback(port);
    if (fd_ >= 0 && connect(fd_, reinterpret_cast<const sockaddr*>(&peer), sizeof peer) != 0) {
        close();
    }
}

void DaemonClient::close() {
    if (fd_ >= 0) {
        ::close(fd_);
        fd_ = -1;
    }
}

bool DaemonClient::sendPacket(std::uint16_t command, const Bytes& payload) {
    const auto length = static_cast<std::uint32_t>(payload.size() + kHeaderSize);
    Bytes bytes{static_cast<std::uint8_t>(length >> 24),
                static_cast<std::uint8_t>(length >> 16),
                static_cast<std::uint8_t>(length >> 8),
                static_cast<std::uint8_t>(length),
                static_cast<std::uint8_t>(command >> 8),
                static_cast<std::uint8_t>(command),
                0,
                static_cast<std::uint8_t>(kHeaderSize)};
    bytes.insert(bytes.end(), payload.begin(), payload.end());
    for (std::size_t done = 0; done < bytes.size();) {
        const ssize_t sent = send(fd_, bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
        if (sent < 0 && errno == EINTR) {
            continue;
        }
        if (sent <= 0) {
            return false;
        }
        done += static_cast<std::size_t>(sent);
    }
    return true;
}

std::optional<WirePacket> DaemonClient::readPacketOf(std::uint16_t command,
                                                     std::chrono::milliseconds timeout) {
    const Clock::time_point deadline = Clock::now() + timeout;
    for (;;) {
        std::uint8_t header[kHeaderSize];
        if (!readExactly(header, sizeof header, deadline)) {
            return std::nullopt;
        }
        const std::uint32_t length = (std::uint32_t{header[0]} << 24) | (std::uint32_t{header[1]} << 16) |
                                     (std::uint32_t{header[2]} << 8) | header[3];
        if (length < kHeaderSize) {
            failure_ = "a packet header gives the length " + std::to_string(length);
            return std::nullopt;
        }
        WirePacket packet{static_cast<std::uint16_t>((header[4] << 8) | header[5]),
                          Bytes(length - kHeaderSize)};
        if (!readExactly(packet.payload.data(), packet.payload.size(), deadline)) {
            return std::nullopt;
        }
        if (packet.command == command) {
            return packet;
        }
    }
}

bool DaemonClient::readExactly(std::uint8_t* out, std::size_t length, Clock::time_point deadline) {
    for (std::size_t done = 0; done < length;) {
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
        pollfd wait{fd_, POLLIN, 0};
        const int ready = poll(&wait, 1, left > 0 ? static_cast<int>(left) : 0);
        if (ready < 0 && errno == EINTR) {
            continue;
        }
        if (ready <= 0) {
            failure_ = ready == 0 ? "nothing came in time" : std::string("poll: ") + std::strerror(errno);
            return false;
        }
        const ssize_t got = recv(fd_, out + done, length - done, 0);
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got <= 0) {
            failure_ =
                got == 0 ? "the daemon closed the connection" : std::string("recv: ") + std::strerror(errno);
            return false;
        }
        done += static_cast<std::size_t>(got);
    }
    return true;
}

int freePort() {
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address = loopback(0);
    socklen_t length = sizeof address;
    const bool bound = fd >= 0 &&
                       bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 &&
                       getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) == 0;
    if (fd >= 0) {
        ::close(fd);
    }
    return bound ? ntohs(address.sin_port) : 0;
}

// ---------------------------------------------------------------------------------------------

ChildProcess::ChildProcess(const std::vector<std::string>& argv) {
    std::vector<std::string> arguments = argv;
    std::vector<char*> pointers;
    for (std::string& argument : arguments) {
        pointers.push_back(argument.data());
    }
    pointers.push_back(nullptr);

    // Close-on-exec, so that processes started meanwhile do not hold this pipe open.
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) {
        std::perror("ChildProcess: pipe2");
        return;
    }
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, ends[1], STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&actions, ends[1], STDERR_FILENO);
    // Nothing else of ours goes with it: a client socket that a child held open would keep its
    // connection alive after the test closed it (the cases start processes from two threads).
    posix_spawn_file_actions_addclosefrom_np(&actions, STDERR_FILENO + 1);
    const int spawned = posix_spawn(&pid_, pointers[0], &actions, nullptr, pointers.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    close(ends[1]);
    if (spawned != 0) {
        std::fprintf(stderr, "ChildProcess: cannot start %s: %s\n", pointers[0], std::strerror(spawned));
        pid_ = -1;
        close(ends[0]);
        return;
    }
    reader_ = std::thread([this, fd = ends[0]] {
        char buffer[4096];
        for (ssize_t got; (got = read(fd, buffer, sizeof buffer)) > 0;) {
            std::lock_guard<std::mutex> lock(lock_);
            output_.append(buffer, static_cast<std::size_t>(got));
            changed_.notify_all();
        }
        close(fd);
        std::lock_guard<std::mutex> lock(lock_);
        outputEnded_ = true;
        changed_.notify_all();
    });
    reaper_ = std::thread([this] {
        // Waits without reaping, so that the pid stays this child's until the status is recorded
        // under the lock that the destructor's kill takes too.
        siginfo_t info{};
        int waited;
        while ((waited = waitid(P_PID, static_cast<id_t>(pid_), &info, WEXITED | WNOWAIT)) != 0 &&
               errno == EINTR) {
        }
        std::lock_guard<std::mutex> lock(lock_);
        if (waited != 0) {
            status_ = 128 + SIGKILL;  // cannot happen for our own child; counts as killed
        } else {
            status_ = info.si_code == CLD_EXITED ? info.si_status : 128 + info.si_status;
        }
        // The zombie is ours; its status has been taken above.
        static_cast<void>(waitpid(pid_, nullptr, 0));
        changed_.notify_all();
    });
}

ChildProcess::~ChildProcess() {
    if (!started()) {
        return;
    }
    {
        std::lock_guard<std::mutex> lock(lock_);
        // Not yet reaped, so the pid is still this child's.
        if (status_ == kNoStatus) {
            kill(pid_, SIGKILL);
        }
    }
    reaper_.join();
    reader_.join();
}

int ChildProcess::countLocked(const std::string& text) const {
    int found = 0;
    for (std::size_t at = output_.find(text); at != std::string::npos;
         at = output_.find(text, at + text.size())) {
        ++found;
    }
    return found;
}

bool ChildProcess::waitForOutput(const std::string& text, int times, std::chrono::milliseconds timeout) {
    std::unique_lock<std::mutex> lock(lock_);
    return changed_.wait_for(lock, timeout, [&] { return countLocked(text) >= times; });
}

int ChildProcess::count(const std::string& text) {
    std::lock_guard<std::mutex> lock(lock_);
    return countLocked(text);
}

std::string ChildProcess::output() {
    std::lock_guard<std::mutex> lock(lock_);
    return output_;
}

int ChildProcess::exitStatus(std::chrono::milliseconds timeout) {
    const auto deadline = Clock::now() + timeout;
    std::unique_lock<std::mutex> lock(lock_);
    changed_.wait_until(lock, deadline, [&] { return status_ != kNoStatus; });
    // The pipe ends with the process (unless something it started still holds it): its last words
    // are then in.
    changed_.wait_until(lock, deadline, [&] { return status_ == kNoStatus || outputEnded_; });
    return status_;
}

int ChildProcess::terminate(std::chrono::milliseconds timeout) {
    {
        std::lock_guard<std::mutex> lock(lock_);
        if (status_ == kNoStatus) {
            kill(pid_, SIGTERM);
        }
    }
    return exitStatus(timeout);
}

// ---------------------------------------------------------------------------------------------

TempFolder::TempFolder() {
    char name[] = "/tmp/varnoch-e2e-XXXXXX";
    if (mkdtemp(name) == nullptr) {
        std::perror("TempFolder: mkdtemp");
        std::abort();
    }
    path_ = name;
}

TempFolder::~TempFolder() {
    const std::string command = "rm -rf '" + path_ + "'";
    if (std::system(command.c_str()) != 0) {
        std::fprintf(stderr, "TempFolder: could not remove %s\n", path_.c_str());
    }
}

std::string TempFolder::write(const std::string& name, const std::string& content) const {
    const std::string path = path_ + "/" + name;
    std::ofstream(path, std::ios::binary) << content;
    return path;
}

Bytes readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return Bytes(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// ---------------------------------------------------------------------------------------------

void HexFile::record(std::uint8_t type, std::uint16_t address, const Bytes& bytes) {
    Bytes fields{static_cast<std::uint8_t>(bytes.size()), static_cast<std::uint8_t>(address >> 8),
                 static_cast<std::uint8_t>(address), type};
    fields.insert(fields.end(), bytes.begin(), bytes.end());
    unsigned sum = 0;
    char digits[3];
    text_ += ':';
    for (const std::uint8_t byte : fields) {
        sum += byte;
        std::snprintf(digits, sizeof digits, "%02X", static_cast<unsigned>(byte));
        text_ += digits;
    }
    std::snprintf(digits, sizeof digits, "%02X", (0x100u - (sum & 0xFFu)) & 0xFFu);
    text_ += digits;
    text_ += '\n';
}

void HexFile::extendedLinear(std::uint16_t upper) {
    record(4, 0, {static_cast<std::uint8_t>(upper >> 8), static_cast<std::uint8_t>(upper)});
    base_ = std::uint32_t{upper} << kLinearShift;
}

void HexFile::extendedSegment(std::uint8_t first, std::uint8_t second) {
    record(2, 0, {first, second});
    base_ = std::uint32_t{first} << kSegmentShift;
}

void HexFile::data(std::uint16_t address, const Bytes& bytes) {
    record(0, address, bytes);
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        flash_[base_ + address + static_cast<std::uint32_t>(i)] = bytes[i];
    }
}

void HexFile::end() {
    record(1, 0, {});
}

std::uint32_t HexFile::lowest() const {
    return flash_.empty() ? 0 : flash_.begin()->first;
}

std::uint32_t HexFile::highest() const {
    return flash_.empty() ? 0 : flash_.rbegin()->first;
}

Bytes HexFile::image() const {
    if (flash_.empty()) {
        return {};
    }
    Bytes bytes(highest() - lowest() + 1, kErasedByte);
    for (const auto& [address, byte] : flash_) {
        bytes[address - lowest()] = byte;
    }
    return bytes;
}
