// The daemon as a process (no CAN interface) under bad client input: random byte streams, truncated
// packets, impossible length fields, every payload size of every command, unknown commands, a
// thousand connections come and gone, and more clients than slots. One client stays connected
// throughout, since the last client leaving ends the daemon. Afterwards the daemon must still answer
// a status request with the right bytes, end in order, and (in the soak) not have grown.
#include <gtest/gtest.h>

#include <cstdio>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "HardeningSupport.h"

namespace {

// Flasher commands and states as they appear on the wire.
constexpr std::uint16_t kStatus = 1000;
constexpr std::uint16_t kRequestStatus = 1001;
constexpr std::uint16_t kReset = 1002;
constexpr std::uint16_t kSetLock = 1003;
constexpr std::uint16_t kUpload = 1004;
constexpr std::uint16_t kExitWhenIdle = 1005;
constexpr std::uint8_t kLocked = 0;
constexpr std::uint8_t kIdle = 1;
constexpr std::uint8_t kFileNotFound = 103;
constexpr int kSlots = 5;

// The status of a daemon that has served no upload request.
const Bytes kInitialStatus = statusBytes(0, kIdle, 0, 254, 0xFFFFFFFF);

Bytes header(std::uint32_t length, std::uint16_t command, std::uint16_t headerLength = 8) {
    return {static_cast<std::uint8_t>(length >> 24),      static_cast<std::uint8_t>(length >> 16),
            static_cast<std::uint8_t>(length >> 8),       static_cast<std::uint8_t>(length),
            static_cast<std::uint8_t>(command >> 8),      static_cast<std::uint8_t>(command),
            static_cast<std::uint8_t>(headerLength >> 8), static_cast<std::uint8_t>(headerLength)};
}

Bytes packet(std::uint16_t command, const Bytes& payload) {
    Bytes bytes = header(static_cast<std::uint32_t>(payload.size() + 8), command);
    bytes.insert(bytes.end(), payload.begin(), payload.end());
    return bytes;
}

// A stream a broken or hostile client might send: pure noise, or packets with believable headers
// (any command, lengths around the real ones, now and then a wrong header length) and noise after.
Bytes randomStream(std::uint32_t seed) {
    std::mt19937 random(seed);
    const auto below = [&random](std::uint32_t bound) {
        return static_cast<std::uint32_t>(random() % bound);
    };
    Bytes stream;
    if (below(2) == 0) {
        stream.resize(1 + below(4096));
        for (std::uint8_t& byte : stream) {
            byte = static_cast<std::uint8_t>(random());
        }
        return stream;
    }
    const std::uint32_t packets = 1 + below(8);
    for (std::uint32_t i = 0; i < packets; ++i) {
        const std::uint32_t payloadLength = below(4) == 0 ? below(400) : below(9);
        const auto command = static_cast<std::uint16_t>(below(3) == 0 ? random() : 1000 + below(8));
        const auto headerLength = static_cast<std::uint16_t>(below(10) == 0 ? below(16) : 8);
        Bytes bytes = header(payloadLength + 8, command, headerLength);
        for (std::uint32_t j = 0; j < payloadLength; ++j) {
            bytes.push_back(static_cast<std::uint8_t>(random()));
        }
        stream.insert(stream.end(), bytes.begin(), bytes.end());
    }
    for (std::uint32_t j = below(3) == 0 ? below(64) : 0; j > 0; --j) {
        stream.push_back(static_cast<std::uint8_t>(random()));
    }
    return stream;
}

class BadInput : public ::testing::Test {
  protected:
    void SetUp() override {
        port_ = freePort();
        // An empty working folder: no relative file name a random upload request holds can exist.
        daemon_ = std::make_unique<ChildProcess>(
            std::vector<std::string>{VARNOCH_DAEMON, "-n", "-i", "NULL", "-p", std::to_string(port_)},
            folder_.path());
        ASSERT_TRUE(daemon_->waitForOutput("Varnoch is running\n")) << daemon_->errors();
        keeper_ = std::make_unique<Peer>(port_);
        ASSERT_TRUE(keeper_->connected());
        ASSERT_TRUE(keeper_->waitForIdentity());
    }

    void TearDown() override {
        if (daemon_ == nullptr) {
            return;
        }
        keeper_.reset();
        EXPECT_EQ(daemon_->exitStatus(), 0) << daemon_->errors();
        EXPECT_TRUE(daemon_->waitForOutput("Varnoch is shutting down\n"));
        EXPECT_FALSE(hasSanitizerReport(daemon_->errors())) << daemon_->errors();
    }

    std::unique_ptr<Peer> connectPeer() {
        auto peer = std::make_unique<Peer>(port_);
        EXPECT_TRUE(peer->connected());
        EXPECT_TRUE(peer->waitForIdentity());
        return peer;
    }

    // Sends `bytes` on a connection of its own, taken into a slot first, and closes it.
    void sendOnce(const Bytes& bytes) {
        Peer peer(port_);
        ASSERT_TRUE(peer.connected());
        ASSERT_TRUE(peer.waitForIdentity());
        (void)peer.sendRaw(bytes);  // the daemon may have closed the stream before the end already
    }

    // Brings the job back to a known status whatever the input did to it, and checks the bytes of the
    // answer to a status request: every slot releases its lock, then a known upload request for a
    // missing file sets mode, address and identifier, and a reset returns to Idle.
    void expectKnownStatusAfterRecovery() {
        std::vector<std::unique_ptr<Peer>> others;
        for (int i = 1; i < kSlots; ++i) {
            others.push_back(connectPeer());  // with the keeper, every slot is taken once
        }
        for (Peer* peer : allOf(others)) {
            ASSERT_TRUE(peer->sendPacket(kSetLock, {0}));
            ASSERT_TRUE(peer->barrier());
        }
        ASSERT_TRUE(keeper_->sendPacket(kReset, {}));
        const Bytes request{1, 0x42, 0x44, 0x33, 0x22, 0x11, 'n', 'o', 'n', 'e', 0};
        ASSERT_TRUE(keeper_->sendPacket(kUpload, request));
        const auto missing = keeper_->askStatus();
        ASSERT_TRUE(missing.has_value());
        EXPECT_EQ(hexText(*missing), hexText(statusBytes(1, kFileNotFound, 0, 0x42, 0x11223344)));
        ASSERT_TRUE(keeper_->sendPacket(kReset, {}));
        const auto idle = keeper_->askStatus();
        ASSERT_TRUE(idle.has_value());
        EXPECT_EQ(hexText(*idle), hexText(statusBytes(1, kIdle, 0, 0x42, 0x11223344)));
    }

    std::vector<Peer*> allOf(const std::vector<std::unique_ptr<Peer>>& others) {
        std::vector<Peer*> peers{keeper_.get()};
        for (const auto& peer : others) {
            peers.push_back(peer.get());
        }
        return peers;
    }

    void expectLengthRefused(std::uint32_t length) {
        Peer peer(port_);
        ASSERT_TRUE(peer.waitForIdentity());
        Bytes bytes = header(length, kRequestStatus);
        bytes.resize(bytes.size() + 64, 0xA5);
        (void)peer.sendRaw(bytes);
        EXPECT_TRUE(peer.waitUntilClosed()) << "length " << length;
        EXPECT_TRUE(daemon_->waitForErrors("refuses packet length " + std::to_string(length)));
    }

    ScratchFolder folder_;
    int port_ = 0;
    std::unique_ptr<ChildProcess> daemon_;
    std::unique_ptr<Peer> keeper_;
};

TEST_F(BadInput, ImpossibleLengthFieldsEndOnlyThatConnection) {
    for (const std::uint32_t length : {0u, 7u, 65537u, 0xFFFFFFFFu}) {
        expectLengthRefused(length);
    }
    // A payload offset outside the packet ends the connection the same way.
    for (const std::uint16_t headerLength : {std::uint16_t{7}, std::uint16_t{13}}) {
        Peer peer(port_);
        ASSERT_TRUE(peer.waitForIdentity());
        Bytes bytes = header(12, kRequestStatus, headerLength);
        bytes.resize(12, 0);
        (void)peer.sendRaw(bytes);
        EXPECT_TRUE(peer.waitUntilClosed()) << "header length " << headerLength;
    }
    EXPECT_TRUE(daemon_->waitForErrors("refuses header length", 2));
    // The largest length still accepted is served.
    Peer largest(port_);
    ASSERT_TRUE(largest.waitForIdentity());
    ASSERT_TRUE(largest.sendPacket(kRequestStatus, Bytes(65536 - 8, 0x5A)));
    const auto answer = largest.barrier();
    ASSERT_TRUE(answer.has_value());
    ASSERT_FALSE(answer->empty());
    EXPECT_EQ(answer->back().command, kStatus);
    EXPECT_EQ(hexText(answer->back().payload), hexText(kInitialStatus));
    largest.close();
    expectKnownStatusAfterRecovery();
}

TEST_F(BadInput, TruncatedPacketsAreDiscarded) {
    // Each cut of a lock request is dropped when its stream ends: the job is never locked.
    const Bytes lock = packet(kSetLock, {1, 2, 3, 4});
    for (std::size_t cut = 1; cut < lock.size(); ++cut) {
        sendOnce(Bytes(lock.begin(), lock.begin() + static_cast<long>(cut)));
    }
    // A header promising more than ever comes, then the connection ends.
    Bytes promise = header(1000, kSetLock);
    promise.push_back(1);
    sendOnce(promise);
    const auto status = keeper_->askStatus();
    ASSERT_TRUE(status.has_value());
    EXPECT_EQ(hexText(*status), hexText(kInitialStatus));
    expectKnownStatusAfterRecovery();
}

TEST_F(BadInput, RandomStreamsLeaveTheDaemonServing) {
    constexpr std::uint32_t kStreams = 300;
    for (std::uint32_t seed = 1; seed <= kStreams; ++seed) {
        sendOnce(randomStream(seed));
    }
    expectKnownStatusAfterRecovery();
}

// Every payload size from 0 to 8 of every command, from one client, checked against the documented
// reaction after each packet: lock and release by byte 0, uploads of 6 bytes and more accepted in Idle
// (naming no file, so ending in 103), resets from Done or an error back to Idle.
TEST_F(BadInput, EveryPayloadSizeOfEveryCommand) {
    auto actor = connectPeer();
    std::uint8_t mode = 0;
    std::uint8_t state = kIdle;
    std::uint8_t address = 254;
    std::uint32_t identifier = 0xFFFFFFFF;
    bool locked = false;
    int missingFiles = 0;
    const auto evaluateLock = [&] {
        if (!locked && state == kLocked) {
            state = kIdle;
        } else if (locked && (state == kIdle || state > 99)) {
            state = kLocked;
        }
    };
    for (const std::uint8_t fill : {std::uint8_t{0x00}, std::uint8_t{0xA5}}) {
        for (std::size_t size = 0; size <= 8; ++size) {
            for (std::uint16_t command = kRequestStatus; command <= kExitWhenIdle; ++command) {
                Bytes payload(size, fill);
                for (std::size_t i = 0; i < size; ++i) {
                    payload[i] = static_cast<std::uint8_t>(fill + i);
                }
                ASSERT_TRUE(actor->sendPacket(command, payload));
                switch (command) {
                    case kReset:
                        if (state == kLocked) {
                            evaluateLock();
                        } else if (state > 99) {
                            state = kIdle;
                        }
                        break;
                    case kSetLock:
                        locked = size > 0 && payload[0] != 0;
                        evaluateLock();
                        break;
                    case kUpload:
                        evaluateLock();
                        if (state == kIdle && size >= 6) {
                            mode = payload[0];
                            address = payload[1];
                            identifier = static_cast<std::uint32_t>(payload[2] | payload[3] << 8 |
                                                                    payload[4] << 16 | payload[5] << 24);
                            state = kFileNotFound;  // no file name, or the empty one
                            ++missingFiles;
                        }
                        break;
                    default:
                        break;
                }
                const auto status = actor->askStatus();
                ASSERT_TRUE(status.has_value()) << command << " size " << size;
                EXPECT_EQ(hexText(*status), hexText(statusBytes(mode, state, 0, address, identifier)))
                    << "command " << command << ", payload " << hexText(payload);
            }
        }
    }
    EXPECT_GE(missingFiles, 3);
    EXPECT_EQ(daemon_->countInOutput("CmdUploadHexFile File not found ()\n"), missingFiles);
    actor.reset();
    expectKnownStatusAfterRecovery();
}

TEST_F(BadInput, UnknownCommandsAreIgnored) {
    auto actor = connectPeer();
    for (const std::uint16_t command : {0, 2, 3, 999, 1000, 1006, 1007, 4096, 65535}) {
        for (const std::size_t size : {0, 1, 8, 300}) {
            ASSERT_TRUE(actor->sendPacket(command, Bytes(size, 0x01)));
            const auto status = actor->askStatus();
            ASSERT_TRUE(status.has_value()) << command;
            EXPECT_EQ(hexText(*status), hexText(kInitialStatus)) << "command " << command << " size " << size;
        }
    }
    // Echo packets that are not requests are swallowed, the empty one included.
    ASSERT_TRUE(actor->sendPacket(kCmdEcho, {}));
    ASSERT_TRUE(actor->sendPacket(kCmdEcho, {1, 2, 3}));
    const auto before = actor->barrier();
    ASSERT_TRUE(before.has_value());
    EXPECT_TRUE(before->empty());
    actor.reset();
    expectKnownStatusAfterRecovery();
}

TEST_F(BadInput, FiveClientsServedAndASixthWaitsForAFreeSlot) {
    std::vector<std::unique_ptr<Peer>> others;
    for (int i = 1; i < kSlots; ++i) {
        others.push_back(connectPeer());
    }
    Peer sixth(port_);
    ASSERT_TRUE(sixth.connected());  // the listen backlog holds it
    const auto fullSince = Clock::now();
    ASSERT_TRUE(daemon_->waitForErrors("All 5 client-slots are in use"));
    // No slot can free while all five stay connected, so nothing can have reached the sixth.
    EXPECT_FALSE(sixth.hasPendingData());
    for (const auto& peer : others) {
        const auto status = peer->askStatus();
        ASSERT_TRUE(status.has_value());
        EXPECT_EQ(hexText(*status), hexText(kInitialStatus));
    }
    others[1].reset();
    ASSERT_TRUE(sixth.waitForIdentity());
    const auto waited = std::chrono::duration_cast<std::chrono::seconds>(Clock::now() - fullSince).count();
    // Reported at most once a second while it waited.
    EXPECT_LE(daemon_->countInErrors("All 5 client-slots are in use"), waited + 2);
    const auto status = sixth.askStatus();
    ASSERT_TRUE(status.has_value());
    EXPECT_EQ(hexText(*status), hexText(kInitialStatus));
    sixth.close();
    others.clear();
    expectKnownStatusAfterRecovery();
}

// The soak: warm up, measure the resident memory, then a thousand connections come and gone, random
// streams and refused lengths, and measure again.
TEST_F(BadInput, ThousandConnectionsAndBadStreamsKeepMemoryFlat) {
    const auto cycle = [this](int count) {
        for (int i = 0; i < count; ++i) {
            Peer peer(port_);
            ASSERT_TRUE(peer.connected());
            ASSERT_TRUE(peer.waitForIdentity()) << "connection " << i;
            if (i % 100 == 99) {
                ASSERT_TRUE(keeper_->barrier());  // the keeper reads the identity broadcasts
            }
        }
    };
    const auto abuse = [this](std::uint32_t firstSeed, std::uint32_t count) {
        for (std::uint32_t seed = firstSeed; seed < firstSeed + count; ++seed) {
            sendOnce(randomStream(seed));
        }
        for (const std::uint32_t length : {0u, 7u, 65537u, 0xFFFFFFFFu}) {
            expectLengthRefused(length);
        }
        expectKnownStatusAfterRecovery();
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
    RecordProperty("rss_before_kib", static_cast<int>(before));
    RecordProperty("rss_after_kib", static_cast<int>(after));
    RecordProperty("connections_ms", static_cast<int>(cycleTime.count()));
    ASSERT_GT(before, 0);
    EXPECT_LT(cycleTime, std::chrono::seconds(120));
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    // The sanitizers' own bookkeeping (quarantine, shadow memory, history) grows with the work done.
    std::printf("memory growth not judged under a sanitizer\n");
#else
    constexpr long kNoiseKiB = 1024;
    EXPECT_LE(after - before, kNoiseKiB);
#endif
}

}  // namespace
