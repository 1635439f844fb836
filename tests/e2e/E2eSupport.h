// Helpers of the end-to-end tests: the programs under test as child processes whose output can be
// awaited, a TCP client of the daemon, private temporary folders, and Intel-HEX files built together
// with the image a module must hold after flashing them.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

using Bytes = std::vector<std::uint8_t>;
using Clock = std::chrono::steady_clock;

// For waits that end early when all is well.
constexpr std::chrono::milliseconds kDeadline{30000};

struct WirePacket {
    std::uint16_t command = 0;
    Bytes payload;
};

// A client of the daemon on the loopback address: the 8-byte big-endian packet header (length,
// command, payload offset) framed by hand. Reads are robust to interruptions and short reads; the
// reason of a failed read is kept.
class DaemonClient {
  public:
    // Connects; check connected().
    explicit DaemonClient(int port);
    ~DaemonClient() { close(); }
    DaemonClient(const DaemonClient&) = delete;
    DaemonClient& operator=(const DaemonClient&) = delete;

    bool connected() const { return fd_ >= 0; }
    // False unless every byte went out.
    bool sendPacket(std::uint16_t command, const Bytes& payload);
    // The next packet of `command`, skipping others; nothing when none came in time or the stream
    // ended (failure() says which).
    std::optional<WirePacket> readPacketOf(std::uint16_t command, std::chrono::milliseconds timeout);
    const std::string& failure() const { return failure_; }
    void close();

  private:
    bool readExactly(std::uint8_t* out, std::size_t length, Clock::time_point deadline);

    int fd_ = -1;
    std::string failure_;
};

// A loopback TCP port that was free a moment ago (bound to port 0 and released); 0 on failure.
int freePort();

// A program run with its standard output and error in one pipe that a thread drains; a second
// thread reaps it. The destructor kills it (SIGKILL) if it still runs.
class ChildProcess {
  public:
    static constexpr int kNoStatus = -1000;

    explicit ChildProcess(const std::vector<std::string>& argv);
    ~ChildProcess();
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    bool started() const { return pid_ > 0; }
    // Waits until the output holds `text` `times` times; false when it did not in time.
    bool waitForOutput(const std::string& text, int times = 1, std::chrono::milliseconds timeout = kDeadline);
    int count(const std::string& text);
    std::string output();
    // Waits for the end and for the rest of its output; the exit status, 128 + signal when killed,
    // kNoStatus when it still runs.
    int exitStatus(std::chrono::milliseconds timeout = kDeadline);
    // Asks it to end (SIGTERM), which also makes it write out what its standard output buffers;
    // then as exitStatus.
    int terminate(std::chrono::milliseconds timeout = kDeadline);

  private:
    int countLocked(const std::string& text) const;

    pid_t pid_ = -1;
    std::mutex lock_;
    std::condition_variable changed_;
    std::string output_;
    bool outputEnded_ = false;
    int status_ = kNoStatus;
    std::thread reader_;
    std::thread reaper_;
};

// A folder under /tmp removed with everything in it.
class TempFolder {
  public:
    TempFolder();
    ~TempFolder();
    TempFolder(const TempFolder&) = delete;
    TempFolder& operator=(const TempFolder&) = delete;
    const std::string& path() const { return path_; }
    // Writes `content` to a file in the folder and returns its path.
    std::string write(const std::string& name, const std::string& content) const;

  private:
    std::string path_;
};

// Whole file contents; empty when it cannot be read.
Bytes readFile(const std::string& path);

// Builds an Intel-HEX text record by record and keeps, independently of the daemon's loader, the bytes
// each data record puts into the module's flash: the extended segment record (type 2) sets the base to
// its first byte × 4096 and ignores the second, as the daemon reads it on purpose.
class HexFile {
  public:
    void extendedLinear(std::uint16_t upper);                       // type 4
    void extendedSegment(std::uint8_t first, std::uint8_t second);  // type 2
    void data(std::uint16_t address, const Bytes& bytes);           // type 0
    void end();                                                     // type 1
    const std::string& text() const { return text_; }

    std::uint32_t lowest() const;
    std::uint32_t highest() const;
    // The bytes from lowest() to highest(), unwritten gaps as erased flash (0xFF).
    Bytes image() const;

  private:
    void record(std::uint8_t type, std::uint16_t address, const Bytes& bytes);

    std::string text_;
    std::uint32_t base_ = 0;
    std::map<std::uint32_t, std::uint8_t> flash_;
};
