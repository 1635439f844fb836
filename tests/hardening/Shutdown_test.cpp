// The daemon ends in order, and at once, whatever its clients do; a segmentation fault in any of its
// threads is reported on standard error and ends it with status 1.
#include <gmock/gmock.h>
#include <signal.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <filesystem>

#include "DaemonTest.h"

namespace {

Bytes repeated(const Bytes& packet, int times) {
    Bytes bytes;
    for (int i = 0; i < times; ++i) {
        bytes.insert(bytes.end(), packet.begin(), packet.end());
    }
    return bytes;
}
const Bytes kLargeEcho = packetBytes(kCmdEcho, Bytes(60000, 0));
const Bytes kStatusRequests = repeated(packetBytes(kCmdRequestStatus, {}), 1000);

class Shutdown;
struct Case {
    const char* name;
    void (*arrange)(Shutdown&);
    int signal;  // 0: the last client leaves instead
};

class Shutdown : public DaemonTest, public testing::WithParamInterface<Case> {
  public:
    TestClient& add(int receiveBuffer = 0) {
        clients_.push_back(std::make_unique<TestClient>(port_, "127.0.0.1", receiveBuffer));
        EXPECT_TRUE(clients_.back()->readPacketOf(kCmdIdentity));
        return *clients_.back();
    }
    // Five clients, the first flooding, and a sixth in the listen backlog. The flood comes last: a
    // stalled client holds up the identity every newcomer gets.
    void fillSlots() {
        for (int i = 0; i < 5; ++i) {
            (void)add();
        }
        clients_.push_back(std::make_unique<TestClient>(port_));
        ASSERT_TRUE(clients_.back()->connected());
        ASSERT_TRUE(daemon_->waitFor("All 5 client-slots are in use"));
        ASSERT_TRUE(clients_.front()->floodUntilStalled(kLargeEcho));
    }
    std::vector<std::unique_ptr<TestClient>> clients_;
};

// The handler then waits on a full send queue, holding the slot's mutex.
void echoFlood(Shutdown& t) {
    ASSERT_TRUE(t.add().floodUntilStalled(kLargeEcho));
}
// The same through the flasher's status answers; a small receive buffer fills after a few.
void statusFlood(Shutdown& t) {
    ASSERT_TRUE(t.add(4096).floodUntilStalled(kStatusRequests));
}
// A flooder that then ends its own direction; another client stays.
void halfClosed(Shutdown& t) {
    (void)t.add();
    TestClient& flooder = t.add();
    ASSERT_TRUE(flooder.floodUntilStalled(kLargeEcho));
    ASSERT_TRUE(flooder.shutdownWrite());
}
void midPacket(Shutdown& t) {
    ASSERT_TRUE(t.add().sendRaw(Bytes(kLargeEcho.begin(), kLargeEcho.begin() + 100)));
}
void allSlotsAndOneWaiting(Shutdown& t) {
    t.fillSlots();
}

TEST_P(Shutdown, EndsWithStatusZeroWithinTwoSeconds) {
    ASSERT_NO_FATAL_FAILURE(startDaemon());
    ASSERT_NO_FATAL_FAILURE(GetParam().arrange(*this));
    if (GetParam().signal == 0) {
        clients_.clear();
    } else {
        ASSERT_TRUE(daemon_->signal(GetParam().signal));
    }
    // The emulator of a cross build and the sanitizers run the daemon several times slower: a
    // ThreadSanitizer build on a loaded machine once took more than 2 s.
#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
    constexpr bool kSlowBuild = true;
#else
    constexpr bool kSlowBuild = false;
#endif
    const auto bound =
        std::chrono::seconds(kSlowBuild || std::getenv("VARNOCH_EMULATOR") != nullptr ? 10 : 2);
    const auto signalled = Clock::now();
    const int status = daemon_->exitStatus(bound);
    EXPECT_EQ(status, 0) << daemon_->errors();
    if (status == -1) {  // late or hung: which one tells where to look
        const int late = daemon_->exitStatus();
        ADD_FAILURE()
            << "ended with " << late << " after "
            << std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - signalled).count()
            << " ms";
    }
    EXPECT_EQ(daemon_->count("Varnoch is shutting down\n"), 1) << daemon_->output();
    EXPECT_EQ(daemon_->count("Varnoch: HandleControlC( " + std::to_string(GetParam().signal) + " )\n"),
              GetParam().signal == 0 ? 0 : 1);
    expectNoSanitizerReport();
}

INSTANTIATE_TEST_SUITE_P(Clients, Shutdown,
                         testing::Values(Case{"EchoFloodNotReadingSigterm", echoFlood, 15},
                                         Case{"StatusFloodNotReadingSigterm", statusFlood, 15},
                                         Case{"HalfClosedNotReadingSigterm", halfClosed, 15},
                                         Case{"MidPacketSigint", midPacket, 2},
                                         Case{"AllSlotsAndOneWaitingSigterm", allSlotsAndOneWaiting, 15},
                                         Case{"AllSlotsAndOneWaitingLeave", allSlotsAndOneWaiting, 0}),
                         [](const testing::TestParamInfo<Case>& row) { return std::string(row.param.name); });

using CrashReport = DaemonTest;

// Every thread but the main one runs the reporter; the newest is a client connection's.
TEST_F(CrashReport, SegmentationFaultInAWorkerThreadPrintsTwoLinesAndEndsWithStatusOne) {
    if (std::getenv("VARNOCH_EMULATOR") != nullptr) {
        GTEST_SKIP() << "the emulator takes a host signal sent to one of its threads as its own fault";
    }
    ASSERT_NO_FATAL_FAILURE(startDaemon());
    const auto client = connect();
    const pid_t pid = daemon_->pid();
    pid_t newest = 0;
    for (const auto& task : std::filesystem::directory_iterator("/proc/" + std::to_string(pid) + "/task")) {
        newest = std::max(newest, static_cast<pid_t>(std::stol(task.path().filename().string())));
    }
    ASSERT_NE(newest, pid);
    ASSERT_EQ(syscall(SYS_tgkill, pid, newest, SIGSEGV), 0);
    EXPECT_EQ(daemon_->exitStatus(), 1) << daemon_->errors();
    EXPECT_THAT(daemon_->errors(),
                testing::HasSubstr("Process: " + std::to_string(pid) + ", thread: " + std::to_string(newest) +
                                   ", reports segmentation fault\nThread: signal address 0x"));
}

}  // namespace
