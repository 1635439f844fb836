// Shared by the hardening and fault tests: child processes (the daemon, the simulated module) with
// their output captured, a TCP peer that talks to the daemon as well or as badly as a test wants, and
// a scratch folder.
#pragma once

#include <sys/types.h>

#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "ClientSupport.h"

constexpr std::uint16_t kCmdEcho = 1;
constexpr std::uint16_t kCmdIdentity = 2;
constexpr std::uint16_t kCmdStatus = 1000;
constexpr std::uint16_t kCmdRequestStatus = 1001;

// A process started from `arguments` in `folder` (empty: ours); standard output and error are drained
// together into one text. The destructor kills it with SIGKILL unless it was waited for.
class ChildProcess {
  public:
    explicit ChildProcess(const std::vector<std::string>& arguments, const std::string& folder = {});
    ~ChildProcess();
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    // True once `text` has appeared `times` times in the output; false at the deadline.
    bool waitFor(const std::string& text, int times = 1, std::chrono::milliseconds timeout = kDeadline);
    int count(const std::string& text);
    std::string output();
    // The exit status, 128 + signal when killed, -1 when it did not end in time.
    int exitStatus(std::chrono::milliseconds timeout = kDeadline);
    bool signal(int number);
    // VmRSS in KiB; -1 when it cannot be read.
    long residentKiB() const;

  private:
    pid_t pid_ = -1;
    int status_ = -1;
    std::mutex lock_;
    std::condition_variable changed_;
    std::string output_;
    std::thread reader_;
};

// The 8-byte big-endian header, any values; then `payload` when given.
Bytes packetBytes(std::uint32_t length, std::uint16_t command, std::uint16_t headerLength = 8,
                  const Bytes& payload = {});

// One TCP connection to the daemon on the loopback address.
class Peer {
  public:
    explicit Peer(int port);
    ~Peer() { close(); }
    Peer(const Peer&) = delete;
    Peer& operator=(const Peer&) = delete;

    bool connected() const { return fd_ >= 0; }
    // False unless every byte went out.
    bool sendRaw(const Bytes& bytes);
    bool sendPacket(std::uint16_t command, const Bytes& payload);
    // The next whole packet; nothing at the deadline or at the end of the stream.
    std::optional<WirePacket> next(std::chrono::milliseconds timeout = kDeadline);
    // Waits for the identity packet the daemon sends each client it takes into a slot.
    bool waitForIdentity(std::chrono::milliseconds timeout = kDeadline);
    bool hasPendingData();
    // An echo round trip; the daemon handles a client's packets in order, so this returns everything
    // sent before the echo reply; nothing when it did not come back in time.
    std::optional<std::vector<WirePacket>> barrier(std::chrono::milliseconds timeout = kDeadline);
    // The payload of the status answering a status request; nothing at the deadline.
    std::optional<Bytes> askStatus(std::chrono::milliseconds timeout = kDeadline);
    // Drops what comes until the daemon ends the stream; false at the deadline.
    bool waitUntilClosed(std::chrono::milliseconds timeout = kDeadline);
    void close();

  private:
    bool readExactly(std::uint8_t* out, std::size_t length, Clock::time_point deadline);
    int fd_ = -1;
    std::uint32_t echoToken_ = 0;
};

// A fresh folder below /tmp, removed with its files at the end.
class ScratchFolder {
  public:
    ScratchFolder();
    ~ScratchFolder();
    ScratchFolder(const ScratchFolder&) = delete;
    ScratchFolder& operator=(const ScratchFolder&) = delete;
    const std::string& path() const { return path_; }
    // Writes a file into the folder; its path.
    std::string write(const std::string& name, const std::string& content) const;

  private:
    std::string path_;
};

// Mode, state, progress, address, identifier little-endian.
Bytes statusBytes(std::uint8_t mode, std::uint8_t state, std::uint8_t progress, std::uint8_t address,
                  std::uint32_t identifier);
// Polls `condition` until it holds (true) or the deadline passes (false).
bool eventually(const std::function<bool()>& condition, std::chrono::milliseconds timeout = kDeadline);
inline bool hasSanitizerReport(const std::string& output) {
    return output.find("Sanitizer") != std::string::npos ||
           output.find("runtime error:") != std::string::npos;
}
