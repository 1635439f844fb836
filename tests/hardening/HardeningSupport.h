// Shared by the hardening and fault tests: child processes (the daemon, the simulated module) with
// their output captured, peers that talk to the daemon over TCP as well or as badly as a test wants,
// and a scratch folder.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "ClientSupport.h"

// Command codes of the protocol as the tests send them.
constexpr std::uint16_t kCmdEcho = 1;
constexpr std::uint16_t kCmdIdentity = 2;

// A process started from `arguments` (the first is the program) in `workingDirectory` (empty: ours),
// with standard output and error drained into strings by two threads. The destructor kills it with
// SIGKILL if it has not been waited for, and reaps it.
class ChildProcess {
  public:
    explicit ChildProcess(const std::vector<std::string>& arguments,
                          const std::string& workingDirectory = {});
    ~ChildProcess();
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    pid_t pid() const { return pid_; }
    bool started() const { return pid_ > 0; }
    // True once `text` has appeared `times` times on standard output (or error); false at the deadline.
    bool waitForOutput(const std::string& text, int times = 1, std::chrono::milliseconds timeout = kDeadline);
    bool waitForErrors(const std::string& text, int times = 1, std::chrono::milliseconds timeout = kDeadline);
    // What has arrived so far.
    std::string output();
    std::string errors();
    int countInOutput(const std::string& text);
    int countInErrors(const std::string& text);
    // Waits for the end: the exit status, 128 + signal when killed, kNotEnded when it did not end in time.
    int exitStatus(std::chrono::milliseconds timeout = kDeadline);
    bool sendSignal(int signalNumber);
    // Resident memory (VmRSS of /proc/<pid>/status) in KiB; -1 when it cannot be read.
    long residentKiB() const;

    static constexpr int kNotEnded = -1000;

  private:
    bool waitFor(const std::string& stream, const std::string& text, int times,
                 std::chrono::milliseconds timeout);
    void drain(int fd, std::string& into);

    pid_t pid_ = -1;
    int status_ = kNotEnded;
    std::mutex lock_;
    std::condition_variable changed_;
    std::string out_;
    std::string err_;
    std::thread outReader_;
    std::thread errReader_;
};

// One TCP connection to the daemon on the loopback address.
class Peer {
  public:
    explicit Peer(int port);
    ~Peer();
    Peer(const Peer&) = delete;
    Peer& operator=(const Peer&) = delete;

    bool connected() const { return fd_ >= 0; }
    // Sends the bytes as they are; false unless every byte went out.
    bool sendRaw(const Bytes& bytes);
    // A well-formed packet: 8-byte big-endian header, then the payload.
    bool sendPacket(std::uint16_t command, const Bytes& payload);
    // The next whole packet; nothing at the deadline or when the stream ended.
    std::optional<WirePacket> next(std::chrono::milliseconds timeout = kDeadline);
    // Waits for the identity packet the daemon sends every client it takes into a slot.
    bool waitForIdentity(std::chrono::milliseconds timeout = kDeadline);
    // True when a byte is waiting to be read right now.
    bool hasPendingData();
    // An echo round trip: the daemon handles one client's packets in order, so everything it sent in
    // answer to earlier packets has arrived once the echo is back. Returns the packets before the echo
    // reply; nothing when the echo did not come back in time.
    std::optional<std::vector<WirePacket>> barrier(std::chrono::milliseconds timeout = kDeadline);
    // Asks with CmdRequestStatus; the payload of the status packet that answered it.
    std::optional<Bytes> askStatus(std::chrono::milliseconds timeout = kDeadline);
    // Reads and drops whatever comes until the daemon ends the stream; false at the deadline.
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
    // Writes a file into the folder and returns its path.
    std::string write(const std::string& name, const std::string& content) const;

  private:
    std::string path_;
};

// The 8 status bytes: mode, state, progress, address, identifier little-endian.
Bytes statusBytes(std::uint8_t mode, std::uint8_t state, std::uint8_t progress, std::uint8_t address,
                  std::uint32_t identifier);
// "xx xx ..." for failure messages.
std::string hexText(const Bytes& bytes);
// True when the daemon's standard error holds a sanitizer report.
bool hasSanitizerReport(const std::string& errors);
