// The daemon (no CAN interface) under clients that send what it does not know, connect over and over
// or stop reading: it ends in order, and at once, whatever its clients do. A segmentation fault in any
// of its threads is reported on standard error and ends it with status 1.
#include <gmock/gmock.h>
#include <signal.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "DaemonTest.h"

namespace {

const Bytes kLargeEcho = packetBytes(kCmdEcho, Bytes(60000, 0));

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
    static void allSlotsAndOneWaiting(Shutdown& t) {
        for (int i = 0; i < 5; ++i) {
            (void)t.add();
        }
        t.clients_.push_back(std::make_unique<TestClient>(t.port_));
        ASSERT_TRUE(t.clients_.back()->connected());
        ASSERT_TRUE(t.daemon_->waitFor("All 5 client-slots are in use"));
        ASSERT_TRUE(t.clients_.front()->floodUntilStalled(kLargeEcho));
    }
    std::vector<std::unique_ptr<TestClient>> clients_;
};

// The handler then waits on a full send queue, holding the slot's mutex.
void echoFlood(Shutdown& t) {
    ASSERT_TRUE(t.add().floodUntilStalled(kLargeEcho));
}
// The same through the flasher's status answers; a small receive buffer fills after a few.
void statusFlood(Shutdown& t) {
    const Bytes request = packetBytes(kCmdRequestStatus, {});
    Bytes requests;  // in one piece, so that the flood's sends stay few
    for (int i = 0; i < 1000; ++i) {
        requests.insert(requests.end(), request.begin(), request.end());
    }
    ASSERT_TRUE(t.add(4096).floodUntilStalled(requests));
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
    const std::chrono::seconds bound(10);
#else
    const std::chrono::seconds bound(std::getenv("VARNOCH_EMULATOR") != nullptr ? 10 : 2);
#endif
    EXPECT_EQ(daemon_->exitStatus(bound), 0) << daemon_->errors();
    EXPECT_EQ(daemon_->count("Varnoch is shutting down\n"), 1) << daemon_->output();
    EXPECT_EQ(daemon_->count("Varnoch: HandleControlC( " + std::to_string(GetParam().signal) + " )\n"),
              GetParam().signal == 0 ? 0 : 1);
    expectNoSanitizerReport();
}

INSTANTIATE_TEST_SUITE_P(
    Clients, Shutdown,
    testing::Values(Case{"EchoFloodNotReadingSigterm", echoFlood, 15},
                    Case{"StatusFloodNotReadingSigterm", statusFlood, 15},
                    Case{"HalfClosedNotReadingSigterm", halfClosed, 15},
                    Case{"MidPacketSigint", midPacket, 2},
                    Case{"AllSlotsAndOneWaitingSigterm", Shutdown::allSlotsAndOneWaiting, 15},
                    Case{"AllSlotsAndOneWaitingLeave", Shutdown::allSlotsAndOneWaiting, 0}),
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

using BadInput = DaemonTest;

TEST_F(BadInput, UnknownCommandsAreIgnoredAndAThousandConnectionsKeepMemoryFlat) {
    ASSERT_NO_FATAL_FAILURE(startDaemon());
    auto keeper = connect();  // the last client leaving would end the daemon
    const Bytes initial{0, 1, 0, 0xFE, 0xFF, 0xFF, 0xFF, 0xFF};
    const auto status = [&] {
        EXPECT_TRUE(keeper->sendPacket(kCmdRequestStatus, {}));
        return keeper->readPacketOf(kCmdStatus).value_or(WirePacket{}).payload;
    };
    for (const std::uint16_t command :
         std::initializer_list<std::uint16_t>{0, 2, 3, 999, 1000, 1006, 1007, 4096, 65535}) {
        ASSERT_TRUE(keeper->sendPacket(command, Bytes(8, 0x01)));
        EXPECT_EQ(status(), initial) << command;
    }
    const auto cycle = [&](int count) {
        for (int i = 1; i <= count; ++i) {
            ASSERT_TRUE(TestClient(port_).readPacketOf(kCmdIdentity)) << "connection " << i;
            ASSERT_TRUE(keeper->readPacketOf(kCmdIdentity));  // broadcast to every client
        }
    };
    const auto residentPages = [this] {
        long size = 0;
        long resident = -1;
        std::ifstream("/proc/" + std::to_string(daemon_->pid()) + "/statm") >> size >> resident;
        return resident;
    };
    cycle(100);
    const long before = residentPages();
    cycle(1000);
    ASSERT_GT(before, 0);
    EXPECT_EQ(status(), initial);
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
    // A sanitizer's bookkeeping grows with the work, and so does an emulator's (cross builds).
    if (std::getenv("VARNOCH_EMULATOR") == nullptr) {
        EXPECT_LE((residentPages() - before) * sysconf(_SC_PAGESIZE), 1 << 20);
    }
#endif
    expectOrderlyEnd(keeper);
}

}  // namespace
