// The daemon (no CAN interface) under clients that send what it does not know and connect over and
// over; one client stays connected, since the last one leaving ends the daemon.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>

#include "DaemonTest.h"

namespace {

const Bytes kInitialStatus{0, 1, 0, 0xFE, 0xFF, 0xFF, 0xFF, 0xFF};

class BadInput : public DaemonTest {
  protected:
    void SetUp() override {
        ASSERT_NO_FATAL_FAILURE(startDaemon());
        keeper_ = connect();
    }
    void TearDown() override { expectOrderlyEnd(keeper_); }

    // VmRSS in KiB; -1 when it cannot be read.
    long residentKiB() const {
        std::ifstream status("/proc/" + std::to_string(daemon_->pid()) + "/status");
        for (std::string line; std::getline(status, line);) {
            if (line.compare(0, 6, "VmRSS:") == 0) {
                return std::strtol(line.c_str() + 6, nullptr, 10);
            }
        }
        return -1;
    }
    // The status the daemon broadcasts on a request; empty when none came.
    Bytes status() const {
        EXPECT_TRUE(keeper_->sendPacket(kCmdRequestStatus, {}));
        return keeper_->readPacketOf(kCmdStatus).value_or(WirePacket{}).payload;
    }

    std::unique_ptr<TestClient> keeper_;
};

TEST_F(BadInput, UnknownCommandsAreIgnored) {
    for (const std::uint16_t command :
         std::initializer_list<std::uint16_t>{0, 2, 3, 999, 1000, 1006, 1007, 4096, 65535}) {
        ASSERT_TRUE(keeper_->sendPacket(command, Bytes(8, 0x01)));
        EXPECT_EQ(status(), kInitialStatus) << command;
    }
}

TEST_F(BadInput, AThousandConnectionsKeepMemoryFlat) {
    const auto cycle = [this](int count) {
        for (int i = 1; i <= count; ++i) {
            ASSERT_TRUE(TestClient(port_).readPacketOf(kCmdIdentity)) << "connection " << i;
            ASSERT_TRUE(keeper_->readPacketOf(kCmdIdentity));  // broadcast to every client
        }
    };
    cycle(100);
    const long before = residentKiB();
    cycle(1000);
    const long after = residentKiB();
    std::printf("resident memory before %ld KiB, after %ld KiB\n", before, after);
    ASSERT_GT(before, 0);
    EXPECT_EQ(status(), kInitialStatus);
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
    // A sanitizer's bookkeeping grows with the work, and so does an emulator's (cross builds).
    if (std::getenv("VARNOCH_EMULATOR") == nullptr) {
        EXPECT_LE(after - before, 1024);
    }
#endif
}

}  // namespace
