#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <ifaddrs.h>
#include <net/if.h>

#include <memory>

#include "SocketTestSupport.h"
#include "SuiteVersions.h"
#include "tick.h"

using Common = ProprietarySocketCommon;
using Packet = Common::TPacket;

namespace {

// Counts destructions, to see that a packet handed over is deleted rather than leaked or kept.
struct CountedPacket : Packet {
    explicit CountedPacket(int* deaths) : Packet(1, 1001), deaths_(deaths) {}
    ~CountedPacket() override { ++*deaths_; }
    int* deaths_;
};

// Connects and takes the identity that every client receives first.
std::unique_ptr<TestClient> connectClient(const ProprietarySocketServer& server) {
    auto client = std::make_unique<TestClient>(server.boundPort());
    EXPECT_TRUE(client->readPacket(Common::CmdIdentity));
    return client;
}

Bytes payloadOf(const Packet& packet) {
    return Bytes(packet.getPayload(), packet.getPayload() + packet.getPayloadSize());
}

}  // namespace

TEST(PacketTest, HeaderIsBigEndianAndCopiesOwnTheirBytes) {
    Packet packet(3, 1001);
    EXPECT_EQ(Bytes(packet.data, packet.data + 8), Bytes({0, 0, 0, 11, 0x03, 0xE9, 0, 8}));
    packet.getPayload()[0] = 42;
    const Packet copy(packet);
    packet.getPayload()[0] = 7;
    EXPECT_EQ(copy.getPayload()[0], 42);
    EXPECT_EQ(Packet(0, 1).getPayloadSize(), 0u);
}

TEST(PacketTest, IdentityHasLittleEndianPidAndCapsEachStringAt250Bytes) {
    const std::string longName(300, 'n');
    const std::unique_ptr<Packet> packet(
        Common::buildIdentityPacket(0x01020304, longName, "", "VARNOCH 1.01"));
    const Bytes payload = payloadOf(*packet);
    ASSERT_EQ(payload.size(), 7u + 250 + 5 + 12);
    EXPECT_EQ(Bytes(payload.begin(), payload.begin() + 6), Bytes({4, 3, 2, 1, 250, 'n'}));
    EXPECT_EQ(std::string(payload.begin() + 253, payload.end()), "nn\0050.00a\014VARNOCH 1.01");
}

TEST(PacketTest, PeerIdentityDescriptionAndComparison) {
    Common::TPeerIdentity a, b;
    Common::setProcessName(a, "tavrin");
    Common::setProcessName(b, "Tavrin");
    EXPECT_EQ(a.description, "(TC) Task Controller");
    EXPECT_EQ(b.description, "");
    EXPECT_TRUE(Common::compareIdentity(a, b, 15));
    EXPECT_FALSE(Common::compareIdentity(a, b, 13));
}

TEST(ServerTest, EchoIsAnsweredOrSwallowedAndOtherPacketsReachTheApplicationInOrder) {
    RecordingServer server(5);
    auto client = connectClient(server);
    ASSERT_TRUE(client->sendPacket(Common::CmdEcho, {0, 0xAB, 0xCD}));
    EXPECT_EQ(client->readPacket().value(), Bytes({1, 0xAB, 0xCD}));
    ASSERT_TRUE(client->sendPacket(Common::CmdEcho, {1, 9}));
    ASSERT_TRUE(client->sendPacket(Common::CmdEcho, {}));
    for (std::uint8_t i = 0; i < 50; ++i) {
        ASSERT_TRUE(client->sendPacket(1001, {i}));
    }
    const std::vector<std::string> events = server.waitEvents(51);
    ASSERT_EQ(events.size(), 51u);
    EXPECT_EQ(events[0], "connected 0 1");
    for (std::size_t i = 0; i < 50; ++i) {
        EXPECT_EQ(events[i + 1], "packet 0 1001 " + std::to_string(i));
    }
    // Had the reply or the empty echo been answered, that answer would come first.
    ASSERT_TRUE(client->sendPacket(Common::CmdEcho, {0, 0x77}));
    EXPECT_EQ(client->readPacket().value(), Bytes({1, 0x77}));
}

TEST(ServerTest, IdentityNamesThisProcessAndGoesToEveryClientOnEachConnect) {
    RecordingServer server(5);
    auto first = connectClient(server);
    auto second = connectClient(server);
    ASSERT_TRUE(first->readPacket(Common::CmdIdentity));
    TestClient third(server.boundPort());
    for (TestClient* client : {first.get(), second.get(), &third}) {
        const std::unique_ptr<Packet> expected(
            Common::buildIdentityPacket(static_cast<std::uint32_t>(getpid()), threadfunc::processName(),
                                        AgApp::tagVersion(), AgApp::versionDescription()));
        EXPECT_EQ(client->readPacket(Common::CmdIdentity).value(), payloadOf(*expected));
    }
}

TEST(ServerTest, BroadcastReachesEveryClientAndUnclaimedPacketsAreDeleted) {
    RecordingServer server(5);
    int deaths = 0;
    Packet* nobody = new CountedPacket(&deaths);
    server.sendToClient(-1, nobody);
    EXPECT_EQ(nobody, nullptr);
    Packet* outOfRange = new CountedPacket(&deaths);
    server.sendToClient(5, outOfRange);
    EXPECT_EQ(deaths, 2);

    std::vector<std::unique_ptr<TestClient>> clients;
    for (int i = 0; i < 3; ++i) {
        clients.push_back(connectClient(server));
    }
    server.sendValue(-1, 1000, 0x1234);
    for (auto& client : clients) {
        EXPECT_EQ(client->readPacket(1000).value(), Bytes({0x34, 0x12}));
    }
}

TEST(ServerTest, FreedSlotTakesTheWaitingClientAndFullSlotsAreReportedAtMostOncePerSecond) {
    StderrCapture err;
    RecordingServer server(5);
    const std::string report = "Proprietary socket server reports: All 5 client-slots are in use\n";
    std::vector<std::unique_ptr<TestClient>> clients;
    for (int i = 0; i < 4; ++i) {
        clients.push_back(connectClient(server));
    }
    const std::int32_t start = tickMilliseconds();
    clients.push_back(connectClient(server));
    TestClient waiting(server.boundPort());  // completes in the listen backlog
    ASSERT_GE(err.count(report, true), 1);
    EXPECT_EQ(server.clientCount(), 5);
    clients[2]->close();
    EXPECT_TRUE(waiting.readPacket(Common::CmdIdentity));
    EXPECT_EQ(server.waitEvents(7).back(), "connected 2 5");
    const int reports = err.count(report);  // counted before the clock is read: all inside the span
    const std::int32_t elapsed = tickMilliseconds() - start;
    EXPECT_LE(reports, 1 + elapsed / 1000) << elapsed << " ms";
}

TEST(ServerTest, ImpossibleLengthsEndOnlyThatConnection) {
    RecordingServer server(5);
    auto keeper = connectClient(server);
    std::size_t events = 1;
    for (const std::uint32_t length : {0u, 7u, 65537u, 0xFFFFFFFFu}) {
        TestClient bogus(server.boundPort());
        ASSERT_TRUE(bogus.sendRaw(frame(1001, {0}, length)));
        EXPECT_TRUE(bogus.waitClosed()) << length;
        // The accept thread picks its next slot before the previous one is free again.
        EXPECT_THAT(server.waitEvents(events += 2).back(), testing::MatchesRegex("disconnected [12] 1"));
        ASSERT_TRUE(keeper->sendPacket(Common::CmdEcho, {0, 5}));
        EXPECT_EQ(keeper->readPacket(Common::CmdEcho).value(), Bytes({1, 5})) << length;
    }
}

TEST(ServerTest, ClientLeavingInsideAPacketIsDisconnectedWithoutReachingTheApplication) {
    RecordingServer server(5);
    TestClient(server.boundPort()).sendRaw({0, 0, 0, 20, 0x03, 0xE9, 0, 8, 1, 2});
    EXPECT_EQ(server.waitEvents(2), std::vector<std::string>({"connected 0 1", "disconnected 0 0"}));
}

TEST(ServerTest, DestroyedWithClientsConnectedEndsTheirStreams) {
    auto server = std::make_unique<RecordingServer>(5);
    auto first = connectClient(*server);
    auto second = connectClient(*server);
    server.reset();
    EXPECT_TRUE(first->waitClosed());
    EXPECT_TRUE(second->waitClosed());
}

TEST(ServerTest, GlobalAccessDecidesWhetherOtherAddressesOfThisMachineConnect) {
    char address[INET_ADDRSTRLEN] = "";
    ifaddrs* interfaces = nullptr;
    ASSERT_EQ(getifaddrs(&interfaces), 0);
    for (ifaddrs* entry = interfaces; entry != nullptr; entry = entry->ifa_next) {
        if (entry->ifa_addr != nullptr && entry->ifa_addr->sa_family == AF_INET &&
            !(entry->ifa_flags & IFF_LOOPBACK)) {
            inet_ntop(AF_INET, &reinterpret_cast<sockaddr_in*>(entry->ifa_addr)->sin_addr, address,
                      sizeof address);
        }
    }
    freeifaddrs(interfaces);
    if (address[0] == '\0') {
        GTEST_SKIP() << "NO NON-LOOPBACK IPv4 ADDRESS ON THIS MACHINE: global access left untested";
    }
    EXPECT_FALSE(TestClient(RecordingServer(1).boundPort(), address).connected()) << address;
    RecordingServer global(1, true);
    TestClient accepted(global.boundPort(), address);
    EXPECT_TRUE(accepted.readPacket(Common::CmdIdentity)) << address;
}

TEST(ServerDeathTest, NoBindableAddressEndsTheProcess) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    RecordingServer holder(1);  // the re-executed child holds a port of its own
    EXPECT_EXIT(ProprietarySocketServer(holder.boundPort(), 1).startServer(false), testing::ExitedWithCode(1),
                "ProprietarySocketServer::startServer\\(\\) Could not bind on port [0-9]+\n");
}
