// The daemon ends in order, and at once, whatever its clients do; a segmentation fault in any of its
// threads is reported on standard error and ends it with status 1.
#include <gtest/gtest.h>
#include <sys/syscall.h>

#include <filesystem>

#include "HardeningSupport.h"

namespace {

using namespace std::chrono_literals;

constexpr int kSlots = 5;
constexpr std::size_t kLargeEchoPayload = 60000;

// The emulator of a cross build runs the daemon several times slower.
std::chrono::milliseconds shutdownLimit() {
    return std::getenv("VARNOCH_EMULATOR") != nullptr ? 10s : 2s;
}

Bytes echoRequest(std::size_t payloadSize) {
    Bytes payload(payloadSize, 0x5A);
    payload[0] = 0;
    return packetBytes(static_cast<std::uint32_t>(payloadSize + 8), kCmdEcho, 8, payload);
}

Bytes manyStatusRequests() {
    Bytes requests;
    for (int i = 0; i < 1000; ++i) {
        const Bytes one = packetBytes(8, kCmdRequestStatus);
        requests.insert(requests.end(), one.begin(), one.end());
    }
    return requests;
}

enum class Clients {
    EchoFloodNotReading,    // the handler waits on a full send queue, holding the slot's mutex
    StatusFloodNotReading,  // the same through the flasher's status answers
    HalfClosedNotReading,   // a flooder that then ends its own direction; another client stays
    MidPacket,              // a packet's header and part of its payload, then nothing
    AllSlotsAndOneWaiting,  // five clients (one flooding) and a sixth in the listen backlog
};
enum class Ending { Sigterm, Sigint, LastClientLeaves };

struct Case {
    const char* name;
    Clients clients;
    Ending ending;
};

class Shutdown : public DaemonTest, public testing::WithParamInterface<Case> {
  protected:
    Peer& connect(int receiveBuffer = 0) {
        peers_.push_back(std::make_unique<Peer>(port_, receiveBuffer));
        EXPECT_TRUE(peers_.back()->next(kCmdIdentity));
        return *peers_.back();
    }

    void arrange(Clients clients) {
        switch (clients) {
            case Clients::EchoFloodNotReading:
                ASSERT_TRUE(connect().floodUntilStalled(echoRequest(kLargeEchoPayload)));
                return;
            case Clients::StatusFloodNotReading:
                // A small receive buffer, so that the daemon's answers fill it after a few requests.
                ASSERT_TRUE(connect(4096).floodUntilStalled(manyStatusRequests()));
                return;
            case Clients::HalfClosedNotReading: {
                (void)connect();
                Peer& flooder = connect();
                ASSERT_TRUE(flooder.floodUntilStalled(echoRequest(kLargeEchoPayload)));
                ASSERT_TRUE(flooder.shutdownWrite());
                return;
            }
            case Clients::MidPacket: {
                const Bytes whole = echoRequest(1000);
                ASSERT_TRUE(connect().sendRaw(Bytes(whole.begin(), whole.begin() + 100)));
                return;
            }
            case Clients::AllSlotsAndOneWaiting: {
                // The flood comes last: a stalled client holds up the identity every newcomer gets.
                Peer& flooder = connect();
                for (int i = 1; i < kSlots; ++i) {
                    (void)connect();
                }
                peers_.push_back(std::make_unique<Peer>(port_));
                ASSERT_TRUE(peers_.back()->connected());
                ASSERT_TRUE(daemon_->waitFor("All 5 client-slots are in use"));
                ASSERT_TRUE(flooder.floodUntilStalled(echoRequest(kLargeEchoPayload)));
                return;
            }
        }
    }

    std::vector<std::unique_ptr<Peer>> peers_;
};

TEST_P(Shutdown, EndsWithStatusZeroWithinTwoSeconds) {
    ASSERT_NO_FATAL_FAILURE(startDaemon("NULL", kDeadline));
    ASSERT_NO_FATAL_FAILURE(arrange(GetParam().clients));
    switch (GetParam().ending) {
        case Ending::Sigterm:
            ASSERT_TRUE(daemon_->signal(SIGTERM));
            break;
        case Ending::Sigint:
            ASSERT_TRUE(daemon_->signal(SIGINT));
            break;
        case Ending::LastClientLeaves:
            peers_.clear();
            break;
    }
    EXPECT_EQ(daemon_->exitStatus(shutdownLimit()), 0) << daemon_->output();
    EXPECT_EQ(daemon_->count("Varnoch is shutting down\n"), 1) << daemon_->output();
    if (GetParam().ending != Ending::LastClientLeaves) {
        const int number = GetParam().ending == Ending::Sigterm ? 15 : 2;
        EXPECT_EQ(daemon_->count("Varnoch: HandleControlC( " + std::to_string(number) + " )\n"), 1);
    }
    EXPECT_FALSE(hasSanitizerReport(daemon_->output())) << daemon_->output();
}

INSTANTIATE_TEST_SUITE_P(
    Clients, Shutdown,
    testing::Values(Case{"EchoFloodNotReadingSigterm", Clients::EchoFloodNotReading, Ending::Sigterm},
                    Case{"StatusFloodNotReadingSigterm", Clients::StatusFloodNotReading, Ending::Sigterm},
                    Case{"HalfClosedNotReadingSigterm", Clients::HalfClosedNotReading, Ending::Sigterm},
                    Case{"MidPacketSigint", Clients::MidPacket, Ending::Sigint},
                    Case{"AllSlotsAndOneWaitingSigterm", Clients::AllSlotsAndOneWaiting, Ending::Sigterm},
                    Case{"EchoFloodNotReadingLeaves", Clients::EchoFloodNotReading, Ending::LastClientLeaves},
                    Case{"AllSlotsAndOneWaitingLeave", Clients::AllSlotsAndOneWaiting,
                         Ending::LastClientLeaves}),
    [](const testing::TestParamInfo<Case>& row) { return std::string(row.param.name); });

using CrashReport = DaemonTest;

// Every thread but the main one runs the reporter; the newest is a client connection's.
TEST_F(CrashReport, SegmentationFaultInAWorkerThreadPrintsTwoLinesAndEndsWithStatusOne) {
    if (std::getenv("VARNOCH_EMULATOR") != nullptr) {
        GTEST_SKIP() << "the emulator takes a host signal sent to one of its threads as its own fault";
    }
    ASSERT_NO_FATAL_FAILURE(startDaemon("NULL", kDeadline));
    Peer peer(port_);
    ASSERT_TRUE(peer.next(kCmdIdentity));
    const pid_t pid = daemon_->pid();
    pid_t newest = 0;
    for (const auto& task : std::filesystem::directory_iterator("/proc/" + std::to_string(pid) + "/task")) {
        newest = std::max(newest, static_cast<pid_t>(std::stol(task.path().filename().string())));
    }
    ASSERT_NE(newest, pid);
    ASSERT_EQ(syscall(SYS_tgkill, pid, newest, SIGSEGV), 0);
    EXPECT_EQ(daemon_->exitStatus(), 1) << daemon_->output();
    const std::string report = "Process: " + std::to_string(pid) + ", thread: " + std::to_string(newest) +
                               ", reports segmentation fault\nThread: signal address 0x";
    EXPECT_NE(daemon_->output().find(report), std::string::npos) << daemon_->output();
}

}  // namespace
