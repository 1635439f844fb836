// varnoch-bench-pingpong: the practical limit of a request/acknowledge exchange on a SocketCAN
// interface. One process sends a request and waits for its answer before sending the next; the
// answering side is a second process of its own (--peer fork, the plain limit) or a running module
// simulator (--peer sim). Requests and answers are the flasher's data messages and acknowledgements.
//
// The switches add the flasher's per-message work one piece at a time, to show what each costs:
// --channel goes through the daemon's CAN channel layer and SocketCAN port instead of a bare socket,
// --rt runs the exchange on a thread at the flasher's reception priority, and --timer re-arms a
// reply timer of the kernel layer for every request as the flasher does.
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "CANFlasherServer.h"
#include "CanTransport.h"
#include "CommandLine.h"
#include "Marks.h"
#include "ModuleSimulator.h"
#include "canchannel.h"
#include "canport.h"
#include "threadfunc.h"
#include "varnoch/protocol/FlashProtocol.h"

namespace {

using CANFlasher::FlashMessage;

constexpr std::uint32_t kStopId = 0x1C5;  // tells a forked answering process to end
constexpr std::uint32_t kWritesPerPage = CANFlasher::kPageSize / CANFlasher::kMaxDataPerMessage;
// The flasher's: the timer never expires while the peer answers.
constexpr std::uint32_t kReplyTimeoutMs = CANFlasher::kReplyTimeoutMs;
constexpr int kReceptionPriority = CANFlasher::CANFlasherServer::kThreadPriority;
constexpr std::int32_t kChannel = 0;

constexpr std::uint32_t kReplyTimeoutS = 5;
constexpr int kExitUsage = 2;
constexpr int kExitFailure = 1;
constexpr unsigned long kDefaultCount = 20000;
constexpr unsigned long kDefaultWarmup = 500;
constexpr int kStopChecks = 50;
constexpr int kStopCheckMs = 20;

struct Options {
    std::string interfaceName = "can0";
    unsigned long count = kDefaultCount;
    unsigned long warmup = kDefaultWarmup;
    bool simPeer = false;
    bool channel = false;
    bool realtime = false;
    bool timer = false;
    std::string marks;  // file for the begin and end marks of the timed stretch
};

// The words that name a run in its result line and its marks.
std::string runLabel(const Options& options) {
    return std::string("pingpong peer=") + (options.simPeer ? "sim" : "fork") +
           " path=" + (options.channel ? "channel" : "socket") + " rt=" + (options.realtime ? "1" : "0") +
           " timer=" + (options.timer ? "1" : "0");
}

CanFrame extendedFrame(std::uint32_t identifier, std::uint8_t length, const std::uint8_t* data) {
    CanFrame frame{};
    frame.identifier = identifier;
    frame.extended = 1;
    frame.length = length;
    std::memcpy(frame.data, data, length);
    return frame;
}

// The acknowledgement the flasher expects for an upload message.
CanFrame replyFor(const CanFrame& request) {
    return CANFlasher::expectedReplyFor(FlashMessage::fromCanFrame(request)).toCanFrame();
}

bool sameFrame(const CanFrame& a, const CanFrame& b) {
    return a.identifier == b.identifier && a.extended == b.extended && a.length == b.length &&
           std::memcmp(a.data, b.data, a.length) == 0;
}

bool fail(const char* what) {
    std::fprintf(stderr, "varnoch-bench-pingpong: %s: %s\n", what, std::strerror(errno));
    return false;
}

class Endpoint {
  public:
    virtual ~Endpoint() = default;
    virtual bool send(const CanFrame& frame) = 0;
    // Blocks for the next data frame; false on an error or (bare socket) after kReplyTimeoutS.
    virtual bool receive(CanFrame& frame) = 0;
};

// A bare raw socket: the tools' SocketCAN transport.
class SocketEndpoint final : public Endpoint {
  public:
    // Opens and binds to the interface; false with a message on standard error.
    bool open(const std::string& interfaceName) {
        std::string error;
        transport_ = toolsupport::SocketCanTransport::open(interfaceName, error);
        if (!transport_) {
            std::fprintf(stderr, "varnoch-bench-pingpong: %s\n", error.c_str());
            return false;
        }
        return true;
    }

    // Makes every receive give up after kReplyTimeoutS instead of waiting for ever.
    void limitReceiveTime() { limited_ = true; }

    bool send(const CanFrame& frame) override { return transport_->send(frame) || fail("write"); }

    bool receive(CanFrame& frame) override {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(kReplyTimeoutS);
        for (;;) {
            switch (transport_->receive(frame, kReplyTimeoutS * 1000)) {
                case toolsupport::FrameTransport::Received::Frame:
                    return true;
                case toolsupport::FrameTransport::Received::Failed:
                    return fail("read");
                case toolsupport::FrameTransport::Received::Timeout:
                    break;
            }
            if (limited_ && std::chrono::steady_clock::now() >= deadline) {
                std::fprintf(stderr, "varnoch-bench-pingpong: no answer within %u s\n", kReplyTimeoutS);
                return false;
            }
        }
    }

  private:
    std::unique_ptr<toolsupport::SocketCanTransport> transport_;
    bool limited_ = false;
};

// The daemon's own path: channel 0 over the SocketCAN port of can0 (it blocks without a limit).
class ChannelEndpoint final : public Endpoint {
  public:
    bool open() {
        if (!canChannelsInit(1) || !canChannelAttach(kChannel, canPortControl, 0, 0)) {
            std::fprintf(stderr, "varnoch-bench-pingpong: cannot open channel %d on can0\n", kChannel);
            return false;
        }
        return true;
    }
    bool send(const CanFrame& frame) override { return canChannelSend(kChannel, &frame) != 0; }
    bool receive(CanFrame& frame) override { return canChannelReceive(kChannel, &frame) != 0; }
};

// The forked answering process: acknowledges every request until the stop frame comes.
int answer(const char* interfaceName, int readyPipe) {
    SocketEndpoint bus;
    if (!bus.open(interfaceName)) {
        return kExitFailure;
    }
    const char ready = 1;
    if (write(readyPipe, &ready, 1) != 1) {
        return kExitFailure;
    }
    (void)close(readyPipe);  // only a write end: nothing left to flush
    CanFrame request{};
    for (;;) {
        if (!bus.receive(request)) {
            return kExitFailure;
        }
        if (request.identifier == kStopId) {
            return 0;
        }
        if (request.identifier == CANFlasher::kUploadIdentifier && !bus.send(replyFor(request))) {
            return kExitFailure;
        }
    }
}

// The requesting side: one exchange at a time, timed after the warm-up.
class Pinger {
  public:
    Pinger(const Options& options, Endpoint& bus) : options_(options), bus_(bus) {
        if (options.timer) {
            timeouts_ = std::make_unique<threadfunc::queue_template<int>>(1);
            timer_ = std::make_unique<threadfunc::timer_template<int>>(kReplyTimeoutMs, timeouts_.get(), 0);
        }
    }

    // Runs the whole exchange; false when the peer stopped answering.
    bool run() {
        if (options_.simPeer && !selectModule()) {
            return false;
        }
        const std::uint8_t writeData[CANFlasher::kMaxDataPerMessage] = {0x11, 0x22, 0x33, 0x44};
        FlashMessage write;
        const unsigned long total = options_.warmup + options_.count;
        std::uint32_t page = 0;
        std::uint32_t offset = 0;
        bool pageSelected = false;
        started_ = std::chrono::steady_clock::now();
        for (unsigned long n = 0; n < total; ++n) {
            if (n == options_.warmup) {
                // A lost mark only loses the figure that the watcher would have made of it.
                (void)varnochbench::appendMark(options_.marks, "begin", runLabel(options_));
                started_ = std::chrono::steady_clock::now();
            }
            // Like an image, a page select before every 16 KiB, so that a simulator takes every write.
            if (!pageSelected) {
                if (!exchange(CANFlasher::pageSelectMessage(page).toCanFrame())) {
                    return false;
                }
                pageSelected = true;
                continue;
            }
            CANFlasher::writeDataMessage(write, offset * CANFlasher::kMaxDataPerMessage, writeData,
                                         CANFlasher::kMaxDataPerMessage);
            if (!exchange(write.toCanFrame())) {
                return false;
            }
            offset = (offset + 1) % kWritesPerPage;
            if (offset == 0) {
                page = (page + 1) % modulesim::ModuleConfig{}.flashPages;
                pageSelected = false;
            }
        }
        elapsed_ = std::chrono::steady_clock::now() - started_;
        (void)varnochbench::appendMark(options_.marks, "end", runLabel(options_));
        return true;
    }

    double seconds() const { return elapsed_.count(); }

  private:
    bool selectModule() {
        const modulesim::ModuleConfig simulator;
        return exchange(
                   CANFlasher::searchRequest(CANFlasher::ModeIsoStyle, simulator.address, 0, 0).toCanFrame(),
                   CANFlasher::searchReply().toCanFrame()) &&
               exchange(CANFlasher::eraseRequest().toCanFrame(), CANFlasher::eraseReply().toCanFrame());
    }

    bool exchange(const CanFrame& request) { return exchange(request, replyFor(request)); }

    bool exchange(const CanFrame& request, const CanFrame& expected) {
        if (timer_) {
            timer_->startOnce(kReplyTimeoutMs);
        }
        if (!bus_.send(request)) {
            return false;
        }
        CanFrame reply{};
        do {
            if (!bus_.receive(reply)) {
                return false;
            }
        } while (!sameFrame(reply, expected));
        if (timer_) {
            timer_->stop();
        }
        return true;
    }

    const Options& options_;
    Endpoint& bus_;
    std::unique_ptr<threadfunc::queue_template<int>> timeouts_;
    std::unique_ptr<threadfunc::timer_template<int>> timer_;
    std::chrono::steady_clock::time_point started_;
    std::chrono::duration<double> elapsed_{0};
};

struct ThreadRun {
    Pinger* pinger;
    bool ok;
};

std::uint32_t runOnThread(void* argument) {
    auto* run = static_cast<ThreadRun*>(argument);
    run->ok = run->pinger->run();
    return 0;
}

// Runs the pinger on the calling thread or, with --rt, on a thread at the reception priority.
bool runPinger(const Options& options, Endpoint& bus, double& seconds) {
    Pinger pinger(options, bus);
    ThreadRun run{&pinger, false};
    if (options.realtime) {
        const threadfunc::ThreadHandle thread =
            threadfunc::ThreadCreate(kReceptionPriority, runOnThread, &run, 0, "bench/pingpong", __LINE__);
        if (thread == 0) {
            return false;
        }
        (void)threadfunc::threadJoin(thread);  // its outcome is in `run`
    } else {
        (void)runOnThread(&run);
    }
    seconds = pinger.seconds();
    return run.ok;
}

bool parseCount(const char* text, unsigned long& value) {
    std::uint32_t count = 0;
    if (!toolsupport::parseNumber(text, UINT32_MAX, count)) {
        return false;
    }
    value = count;
    return true;
}

int usage() {
    std::fprintf(
        stderr,
        "Usage: varnoch-bench-pingpong [-i INTERFACE] [-n ROUND_TRIPS] [-w WARMUP]\n"
        "                              [--peer fork|sim] [--channel] [--rt] [--timer] [--mark FILE]\n"
        "Times ROUND_TRIPS (default %lu) request/answer exchanges on INTERFACE (default can0)\n"
        "after WARMUP (default %lu) untimed ones and prints one line\n"
        "'pingpong peer=... path=... rt=... timer=... round_trips=... seconds=... rate=...'.\n"
        "  --peer fork  a forked process answers on a socket of its own (default)\n"
        "  --peer sim   a running varnoch-module-sim (address 0x26) answers; it is searched\n"
        "               and erased first, then written page by page\n"
        "  --channel    send and receive through the daemon's channel layer and port (can0 only)\n"
        "  --rt         exchange from a thread at the flasher's reception priority\n"
        "  --timer      re-arm a kernel-layer reply timer for every request, as the flasher does\n"
        "  --mark FILE  append 'begin LABEL' and 'end LABEL' to FILE around the timed stretch\n",
        kDefaultCount, kDefaultWarmup);
    return kExitUsage;
}

// An option that takes a value; false when the option is unknown or its value is refused.
bool parseValueOption(const std::string& option, const char* value, Options& options) {
    if (option == "-i") {
        options.interfaceName = value;
        return true;
    }
    if (option == "-n") {
        return parseCount(value, options.count) && options.count != 0;
    }
    if (option == "-w") {
        return parseCount(value, options.warmup);
    }
    if (option == "--peer") {
        const std::string peer = value;
        options.simPeer = peer == "sim";
        return peer == "fork" || peer == "sim";
    }
    if (option == "--mark") {
        options.marks = value;
        return true;
    }
    return false;
}

bool parseOptions(int argc, char* argv[], Options& options) {
    for (int i = 1; i < argc; ++i) {
        const std::string option = argv[i];
        if (option == "--channel") {
            options.channel = true;
        } else if (option == "--rt") {
            options.realtime = true;
        } else if (option == "--timer") {
            options.timer = true;
        } else if (i + 1 >= argc || !parseValueOption(option, argv[++i], options)) {
            return false;
        }
    }
    // The channel layer's port names its interfaces canN; the bench uses can0.
    return !options.channel || options.interfaceName == "can0";
}

// Starts the forked answering process and waits until it listens; its pid, or -1.
pid_t startAnswering(const Options& options) {
    int readyPipe[2];
    if (pipe2(readyPipe, O_CLOEXEC) != 0) {
        fail("pipe");
        return -1;
    }
    const pid_t child = fork();
    if (child < 0) {
        fail("fork");
        return -1;
    }
    if (child == 0) {
        (void)close(readyPipe[0]);  // the read end is the parent's
        std::_Exit(answer(options.interfaceName.c_str(), readyPipe[1]));
    }
    (void)close(readyPipe[1]);  // the write end is the child's
    char ready = 0;
    ssize_t got = 0;
    do {
        got = read(readyPipe[0], &ready, 1);
    } while (got < 0 && errno == EINTR);
    (void)close(readyPipe[0]);  // read to its end
    return got == 1 ? child : -1;
}

// Sends the stop frame and reaps the answering process, ending it should the frame have been lost.
void stopAnswering(pid_t child, Endpoint& bus) {
    (void)bus.send(extendedFrame(kStopId, 0, nullptr));  // if it is lost the child is killed below
    int childStatus = 0;
    for (int attempt = 0; attempt < kStopChecks && waitpid(child, &childStatus, WNOHANG) == 0; ++attempt) {
        (void)poll(nullptr, 0, kStopCheckMs);  // a pause; an interrupted one only checks sooner
    }
    if (waitpid(child, &childStatus, WNOHANG) == 0) {
        (void)kill(child, SIGTERM);
        (void)waitpid(child, &childStatus, 0);  // the status of a killed helper does not matter
    }
}

}  // namespace

int main(int argc, char* argv[]) {
    Options options;
    if (!parseOptions(argc, argv, options)) {
        return usage();
    }
    const pid_t child = options.simPeer ? 0 : startAnswering(options);
    if (child < 0) {
        return kExitFailure;
    }
    std::unique_ptr<Endpoint> bus;
    bool opened = false;
    if (options.channel) {
        auto channel = std::make_unique<ChannelEndpoint>();
        opened = channel->open();
        bus = std::move(channel);
    } else {
        auto socketBus = std::make_unique<SocketEndpoint>();
        opened = socketBus->open(options.interfaceName);
        socketBus->limitReceiveTime();
        bus = std::move(socketBus);
    }
    double seconds = 0;
    const bool ok = opened && runPinger(options, *bus, seconds);
    if (ok) {
        std::printf("%s round_trips=%lu seconds=%.6f rate=%.1f\n", runLabel(options).c_str(), options.count,
                    seconds, static_cast<double>(options.count) / seconds);
    }
    if (!options.simPeer) {
        stopAnswering(child, *bus);
    }
    return ok ? 0 : kExitFailure;
}
