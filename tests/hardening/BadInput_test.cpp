// The daemon (no CAN interface) under bad client input. One client stays connected, since the last
// one leaving ends the daemon; afterwards it must still report the right status and end in order.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <iterator>
#include <memory>
#include <numeric>
#include <random>

#include "HardeningSupport.h"

namespace {

constexpr std::uint16_t kReset = 1002;
constexpr std::uint16_t kSetLock = 1003;
constexpr std::uint16_t kUpload = 1004;
constexpr std::uint16_t kExitWhenIdle = 1005;
constexpr std::uint8_t kLocked = 0;
constexpr std::uint8_t kIdle = 1;
constexpr std::uint8_t kFileNotFound = 103;
constexpr int kSlots = 5;
const Bytes kInitialStatus = statusBytes(0, kIdle, 0, 254, 0xFFFFFFFF);

// Pure noise, or believable packets (near-real lengths, now and then a wrong header length), noise after.
Bytes randomStream(std::uint32_t seed) {
    std::mt19937 random(seed);
    const auto below = [&random](std::uint32_t bound) {
        return static_cast<std::uint32_t>(random() % bound);
    };
    const auto noise = [&](Bytes& into, std::uint32_t count) {
        std::generate_n(std::back_inserter(into), count, [&] { return static_cast<std::uint8_t>(random()); });
    };
    Bytes stream;
    if (below(2) == 0) {
        noise(stream, 1 + below(4096));
        return stream;
    }
    for (std::uint32_t packets = 1 + below(8); packets > 0; --packets) {
        const std::uint32_t length = below(4) == 0 ? below(400) : below(9);
        const auto command = static_cast<std::uint16_t>(below(3) == 0 ? random() : 1000 + below(8));
        const Bytes header =
            packetBytes(length + 8, command, static_cast<std::uint16_t>(below(10) == 0 ? below(16) : 8));
        stream.insert(stream.end(), header.begin(), header.end());
        noise(stream, length);
    }
    noise(stream, below(3) == 0 ? below(64) : 0);
    return stream;
}

class BadInput : public DaemonTest {
  protected:
    void SetUp() override {
        ASSERT_NO_FATAL_FAILURE(startDaemon("NULL", kDeadline));
        keeper_ = connect();
    }

    void TearDown() override {
        if (keeper_ == nullptr || !keeper_->connected()) {
            return;
        }
        expectKnownStatus();
        expectOrderlyEnd(keeper_, kDeadline);
    }

    std::unique_ptr<Peer> connect() {
        auto peer = std::make_unique<Peer>(port_);
        EXPECT_TRUE(peer->next(kCmdIdentity));
        return peer;
    }

    void sendOnce(const Bytes& bytes) {
        (void)connect()->sendRaw(bytes);  // the daemon may have ended the stream before the end
    }

    // Locks released everywhere, an upload of a missing file and a reset behave as documented.
    void expectKnownStatus() {
        std::vector<std::unique_ptr<Peer>> others;
        for (int i = 1; i < kSlots; ++i) {
            others.push_back(connect());
            ASSERT_TRUE(others.back()->sendPacket(kSetLock, {0}) && others.back()->barrier());
        }
        ASSERT_TRUE(keeper_->sendPacket(kSetLock, {0}) && keeper_->sendPacket(kReset, {}));
        ASSERT_TRUE(keeper_->sendPacket(kUpload, {1, 0x42, 0x44, 0x33, 0x22, 0x11, 'n', 'o', 0}));
        EXPECT_EQ(keeper_->askStatus(), statusBytes(1, kFileNotFound, 0, 0x42, 0x11223344));
        ASSERT_TRUE(keeper_->sendPacket(kReset, {}));
        EXPECT_EQ(keeper_->askStatus(), statusBytes(1, kIdle, 0, 0x42, 0x11223344));
    }

    void expectRefused(std::uint32_t length, std::uint16_t headerLength, const std::string& message) {
        auto peer = connect();
        Bytes bytes = packetBytes(length, kCmdRequestStatus, headerLength);
        bytes.resize(12 + (length == 12 ? 0 : 64), 0xA5);
        (void)peer->sendRaw(bytes);
        EXPECT_TRUE(peer->waitUntilClosed()) << length << " " << headerLength;
        EXPECT_TRUE(daemon_->waitFor(message)) << message;
    }

    std::unique_ptr<Peer> keeper_;
};

TEST_F(BadInput, ImpossibleLengthFieldsEndOnlyThatConnection) {
    for (const std::uint32_t length : {0u, 7u, 65537u, 0xFFFFFFFFu}) {
        expectRefused(length, 8, "refuses packet length " + std::to_string(length));
    }
    expectRefused(12, 7, "refuses header length 7 ");
    expectRefused(12, 13, "refuses header length 13 ");
    auto largest = connect();  // the largest length still accepted is served
    ASSERT_TRUE(largest->sendPacket(kCmdRequestStatus, Bytes(65536 - 8, 0x5A)));
    const auto answer = largest->barrier();
    ASSERT_TRUE(answer && !answer->empty());
    EXPECT_EQ(answer->back().command, kCmdStatus);
    EXPECT_EQ(answer->back().payload, kInitialStatus);
}

TEST_F(BadInput, TruncatedPacketsAreDiscarded) {
    const Bytes lock = packetBytes(12, kSetLock, 8, {1, 2, 3, 4});
    for (long cut = 1; cut < static_cast<long>(lock.size()); ++cut) {
        sendOnce(Bytes(lock.begin(), lock.begin() + cut));
    }
    sendOnce(packetBytes(1000, kSetLock, 8, {1}));    // promises more than ever comes
    EXPECT_EQ(keeper_->askStatus(), kInitialStatus);  // never locked
}

TEST_F(BadInput, RandomStreamsLeaveTheDaemonServing) {
    for (std::uint32_t seed = 1; seed <= 300; ++seed) {
        sendOnce(randomStream(seed));
    }
}

// Payload sizes 0..8 of each command against the documented reaction: lock by byte 0, uploads of 6
// bytes and more taken in Idle (no file: 103), reset from an error to Idle.
TEST_F(BadInput, EveryPayloadSizeOfEveryCommand) {
    auto actor = connect();
    Bytes expected = kInitialStatus;
    std::uint8_t& state = expected[1];
    bool locked = false;
    int missingFiles = 0;
    const auto evaluateLock = [&] {
        if (!locked && state == kLocked) {
            state = kIdle;
        } else if (locked && (state == kIdle || state > 99)) {
            state = kLocked;
        }
    };
    for (const std::uint8_t fill : {0x00, 0xA5}) {
        for (std::size_t size = 0; size <= 8; ++size) {
            for (std::uint16_t command = kCmdRequestStatus; command <= kExitWhenIdle; ++command) {
                Bytes payload(size);
                std::iota(payload.begin(), payload.end(), fill);
                ASSERT_TRUE(actor->sendPacket(command, payload));
                if (command == kReset && state == kLocked) {
                    evaluateLock();
                } else if (command == kReset && state > 99) {
                    state = kIdle;
                } else if (command == kSetLock) {
                    locked = size > 0 && payload[0] != 0;
                    evaluateLock();
                } else if (command == kUpload) {
                    evaluateLock();
                    if (state == kIdle && size >= 6) {
                        expected = {payload[0], kFileNotFound, 0,          payload[1],
                                    payload[2], payload[3],    payload[4], payload[5]};
                        ++missingFiles;
                    }
                }
                EXPECT_EQ(actor->askStatus(), expected)
                    << "command " << command << ", size " << size << ", fill " << +fill;
            }
        }
    }
    EXPECT_GE(missingFiles, 3);
    EXPECT_EQ(daemon_->count("CmdUploadHexFile File not found ()\n"), missingFiles);
}

TEST_F(BadInput, UnknownCommandsAreIgnored) {
    auto actor = connect();
    for (const std::uint16_t command : {0, 2, 3, 999, 1000, 1006, 1007, 4096, 65535}) {
        for (const std::size_t size : {0, 1, 8, 300}) {
            ASSERT_TRUE(actor->sendPacket(command, Bytes(size, 0x01)));
            EXPECT_EQ(actor->askStatus(), kInitialStatus) << "command " << command << " size " << size;
        }
    }
    ASSERT_TRUE(actor->sendPacket(kCmdEcho, {}) && actor->sendPacket(kCmdEcho, {1, 2, 3}));
    EXPECT_EQ(actor->barrier().value_or(std::vector<WirePacket>(1)).size(), 0u);
}

TEST_F(BadInput, FiveClientsServedAndASixthWaitsForAFreeSlot) {
    std::vector<std::unique_ptr<Peer>> others;
    for (int i = 1; i < kSlots; ++i) {
        others.push_back(connect());
    }
    Peer sixth(port_);
    ASSERT_TRUE(sixth.connected());  // held by the listen backlog
    const auto fullSince = Clock::now();
    ASSERT_TRUE(daemon_->waitFor("All 5 client-slots are in use"));
    EXPECT_FALSE(sixth.next(kAnyCommand, std::chrono::milliseconds(0)));  // no slot can have freed
    for (const auto& peer : others) {
        EXPECT_EQ(peer->askStatus(), kInitialStatus);
    }
    others[1].reset();
    ASSERT_TRUE(sixth.next(kCmdIdentity));
    const auto waited = std::chrono::duration_cast<std::chrono::seconds>(Clock::now() - fullSince).count();
    EXPECT_LE(daemon_->count("All 5 client-slots are in use"), waited + 2);  // at most once a second
    EXPECT_EQ(sixth.askStatus(), kInitialStatus);
}

// Warm up, measure, then a thousand connections and more bad streams, and measure again.
TEST_F(BadInput, ThousandConnectionsAndBadStreamsKeepMemoryFlat) {
    const auto cycle = [this](int count) {
        for (int i = 1; i <= count; ++i) {
            ASSERT_TRUE(Peer(port_).next(kCmdIdentity)) << "connection " << i;
            if (i % 100 == 0) {
                ASSERT_TRUE(keeper_->barrier());  // the keeper reads the identity broadcasts
            }
        }
    };
    const auto abuse = [this](std::uint32_t firstSeed, std::uint32_t count) {
        for (std::uint32_t seed = firstSeed; seed < firstSeed + count; ++seed) {
            sendOnce(randomStream(seed));
        }
        for (const std::uint32_t length : {0u, 7u, 65537u, 0xFFFFFFFFu}) {
            expectRefused(length, 8, "refuses packet length " + std::to_string(length));
        }
        expectKnownStatus();
    };
    cycle(100);
    abuse(1000, 50);
    const long before = daemon_->residentKiB();
    const auto start = Clock::now();
    cycle(1000);
    const auto cycleTime = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start);
    abuse(2000, 100);
    const long after = daemon_->residentKiB();
    std::printf("resident memory before %ld KiB, after %ld KiB; 1000 connections in %lld ms\n", before, after,
                static_cast<long long>(cycleTime.count()));
    ASSERT_GT(before, 0);
    EXPECT_LT(cycleTime, std::chrono::seconds(120));
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    std::printf("memory growth not judged under a sanitizer (its own bookkeeping grows with the work)\n");
#else
    // Under a user-mode emulator (cross builds) the process measured is the emulator, whose
    // translation caches and per-thread state grow with every thread the daemon starts.
    if (std::getenv("VARNOCH_EMULATOR") != nullptr) {
        std::printf("memory growth not judged under an emulator\n");
    } else {
        EXPECT_LE(after - before, 1024);
    }
#endif
}

}  // namespace
