#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <ifaddrs.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <memory>

#include "SocketTestSupport.h"
#include "SuiteVersions.h"
#include "tick.h"

using Packet = ProprietarySocketCommon::TPacket;

namespace {

// Counts destructions, to see that a packet handed over is deleted, not leaked or kept.
struct CountedPacket : Packet {
    explicit CountedPacket(int* deaths) : Packet(1, 1001), deaths_(deaths) {}
    ~CountedPacket() override { ++*deaths_; }
    int* deaths_;
};

// Connects and takes the identity every client receives first.
std::unique_ptr<TestClient> connectClient(const ProprietarySocketServer& server) {
    auto client = std::make_unique<TestClient>(server.boundPort());
    EXPECT_TRUE(client->connected());
    EXPECT_TRUE(client->readPacketOf(ProprietarySocketCommon::CmdIdentity));
    return client;
}

}  // namespace

TEST(PacketTest, HeaderIsBigEndianAndCopiesOwnTheirBytes) {
    Packet packet(3, 1001);
    EXPECT_EQ(Bytes(packet.data, packet.data + 8), Bytes({0, 0, 0, 11, 0x03, 0xE9, 0, 8}));
    EXPECT_EQ(packet.getPayloadSize(), 3u);
    packet.getPayload()[0] = 42;
    const Packet copy(packet);
    packet.getPayload()[0] = 7;
    EXPECT_NE(copy.data, packet.data);
    EXPECT_EQ(copy.getPayload()[0], 42);
    EXPECT_EQ(Packet(0, 1).getPayloadSize(), 0u);
}

TEST(PacketTest, DumpPrintsOnlyPrintableBytesRawAnd127Too) {
    Packet packet(3, 1001);
    packet.getPayload()[0] = 31;
    packet.getPayload()[1] = 127;
    packet.getPayload()[2] = 128;
    OutputCapture out(STDOUT_FILENO);
    packet.dump();
    EXPECT_EQ(out.waitFor("   0:  31 - 1F : '.'\n   1: 127 - 7F : '\x7f'\n   2: 128 - 80 : '.'\n", 1), 1);
}

TEST(PacketTest, IdentityHasLittleEndianPidAndCapsEachStringAt250Bytes) {
    const std::string longName(300, 'n');
    std::unique_ptr<Packet> packet(
        ProprietarySocketCommon::buildIdentityPacket(0x01020304, longName, "", "VARNOCH 1.01"));
    ASSERT_TRUE(packet);
    EXPECT_EQ(packet->getCommand(), ProprietarySocketCommon::CmdIdentity);
    const Bytes payload(packet->getPayload(), packet->getPayload() + packet->getPayloadSize());
    EXPECT_EQ(payload.size(), 7u + 250 + 5 + 12);
    EXPECT_EQ(Bytes(payload.begin(), payload.begin() + 4), Bytes({4, 3, 2, 1}));
    const std::optional<Identity> identity = parseIdentity(payload);
    ASSERT_TRUE(identity);
    EXPECT_EQ(identity->processName, longName.substr(0, 250));
    EXPECT_EQ(identity->versionText, "0.00a");
    EXPECT_EQ(identity->buildTag, "VARNOCH 1.01");
}

TEST(PacketTest, PeerIdentityDescriptionAndComparison) {
    ProprietarySocketCommon::TPeerIdentity a, b;
    ProprietarySocketCommon::setProcessName(a, "tavrin");
    EXPECT_EQ(a.description, "(TC) Task Controller");
    ProprietarySocketCommon::setProcessName(b, "Tavrin");
    EXPECT_EQ(b.description, "");
    b.pid = 5;
    EXPECT_TRUE(ProprietarySocketCommon::compareIdentity(a, b, 15));
    EXPECT_FALSE(ProprietarySocketCommon::compareIdentity(a, b, ProprietarySocketCommon::IgnorePid));
    b.processName = "tavrin";
    EXPECT_TRUE(ProprietarySocketCommon::compareIdentity(a, b, ProprietarySocketCommon::IgnorePid));
}

TEST(FramingTest, PeerClosingInsideAPacketFailsSilentlyAndDiscardsIt) {
    int pair[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, pair), 0);
    const Bytes partial = {0, 0, 0, 20, 0x03, 0xE9, 0, 8, 1, 2};
    ASSERT_EQ(write(pair[1], partial.data(), partial.size()), static_cast<ssize_t>(partial.size()));
    close(pair[1]);
    Packet packet;
    OutputCapture out(STDOUT_FILENO);
    EXPECT_FALSE(ProprietarySocketCommon::receivePacket(packet, pair[0]));
    EXPECT_EQ(packet.data, nullptr);
    EXPECT_EQ(packet.size, 0u);
    EXPECT_EQ(out.count("reports error"), 0);
    close(pair[0]);
}

TEST(ServerTest, EchoIsAnsweredOrSwallowedAndNeverReachesTheApplication) {
    RecordingServer server(5);
    auto client = connectClient(server);
    ASSERT_TRUE(client->sendPacket(ProprietarySocketCommon::CmdEcho, {0, 0xAB, 0xCD}));
    const std::optional<WirePacket> reply = client->readPacket();
    ASSERT_TRUE(reply);
    EXPECT_EQ(reply->command, ProprietarySocketCommon::CmdEcho);
    EXPECT_EQ(reply->payload, Bytes({1, 0xAB, 0xCD}));

    ASSERT_TRUE(client->sendPacket(ProprietarySocketCommon::CmdEcho, {1, 9}));
    ASSERT_TRUE(client->sendPacket(ProprietarySocketCommon::CmdEcho, {}));
    for (std::uint8_t i = 0; i < 50; ++i) {
        ASSERT_TRUE(client->sendPacket(1001, {i, static_cast<std::uint8_t>(i + 1)}));
    }
    const std::vector<std::string> events = server.waitEvents(51);
    ASSERT_EQ(events.size(), 51u);
    EXPECT_EQ(events[0], "connected 0 1");
    for (std::size_t i = 0; i < 50; ++i) {
        char expected[32];
        snprintf(expected, sizeof expected, "packet 0 1001 %02zX %02zX", i, i + 1);
        EXPECT_EQ(events[i + 1], expected);
    }
    // Had the reply or the empty echo been answered, that answer would come first.
    ASSERT_TRUE(client->sendPacket(ProprietarySocketCommon::CmdEcho, {0, 0x77}));
    const std::optional<WirePacket> next = client->readPacket();
    ASSERT_TRUE(next);
    EXPECT_EQ(next->payload, Bytes({1, 0x77}));
}

TEST(ServerTest, IdentityNamesThisProcessAndGoesToEveryClientOnEachConnect) {
    RecordingServer server(5);
    auto first = connectClient(server);
    auto second = connectClient(server);
    ASSERT_TRUE(first->readPacketOf(ProprietarySocketCommon::CmdIdentity));
    TestClient third(server.boundPort());
    for (TestClient* client : {first.get(), second.get(), &third}) {
        const std::optional<WirePacket> packet = client->readPacketOf(ProprietarySocketCommon::CmdIdentity);
        ASSERT_TRUE(packet);
        const std::optional<Identity> identity = parseIdentity(packet->payload);
        ASSERT_TRUE(identity);
        EXPECT_EQ(identity->pid, static_cast<std::uint32_t>(getpid()));
        EXPECT_EQ(identity->processName, threadfunc::processName().substr(0, 250));
        EXPECT_EQ(identity->versionText, AgApp::tagVersion().empty() ? "0.00a" : AgApp::tagVersion());
        EXPECT_EQ(identity->buildTag, AgApp::versionDescription());
    }
}

TEST(ServerTest, BroadcastReachesEveryClientAndUnclaimedPacketsAreDeleted) {
    RecordingServer server(5);
    int deaths = 0;
    Packet* nobody = new CountedPacket(&deaths);
    server.sendToClient(-1, nobody);
    EXPECT_EQ(nobody, nullptr);
    EXPECT_EQ(deaths, 1);
    Packet* outOfRange = new CountedPacket(&deaths);
    server.sendToClient(5, outOfRange);
    EXPECT_EQ(deaths, 2);

    std::vector<std::unique_ptr<TestClient>> clients;
    for (int i = 0; i < 3; ++i) {
        clients.push_back(connectClient(server));
    }
    server.sendValue(-1, 1000, 0x1234);
    for (auto& client : clients) {
        const std::optional<WirePacket> value = client->readPacketOf(1000);
        ASSERT_TRUE(value);
        EXPECT_EQ(value->payload, Bytes({0x34, 0x12}));
    }
}

TEST(ServerTest, SlotFreedByALeavingClientTakesTheWaitingOneAndFullSlotsAreReportedAtMostOncePerSecond) {
    OutputCapture err(STDERR_FILENO);
    RecordingServer server(5);
    const std::string report = "Proprietary socket server reports: All 5 client-slots are in use";
    std::vector<std::unique_ptr<TestClient>> clients;
    for (int i = 0; i < 4; ++i) {
        clients.push_back(connectClient(server));
    }
    const std::int32_t start = tickMilliseconds();
    clients.push_back(connectClient(server));
    TestClient waiting(server.boundPort());
    ASSERT_TRUE(waiting.connected());  // in the listen backlog
    ASSERT_GE(err.waitFor(report, 1), 1);
    EXPECT_FALSE(waiting.hasData());
    clients[2]->close();
    EXPECT_TRUE(waiting.readPacketOf(ProprietarySocketCommon::CmdIdentity));
    EXPECT_TRUE(server.waitLast("connected 2 5"));
    const int reports = err.count(report);  // before the clock: every line counted lies inside the span
    const std::int32_t elapsed = tickMilliseconds() - start;
    EXPECT_LE(reports, 1 + elapsed / 1000) << elapsed << " ms";
}

TEST(ServerTest, ImpossibleLengthsEndOnlyThatConnection) {
    RecordingServer server(5);
    auto keeper = connectClient(server);
    std::size_t expectedEvents = 1;
    for (const std::uint32_t length : {0u, 7u, 65537u, 0xFFFFFFFFu}) {
        TestClient bogus(server.boundPort());
        ASSERT_TRUE(bogus.sendRaw(
            {static_cast<std::uint8_t>(length >> 24), static_cast<std::uint8_t>(length >> 16),
             static_cast<std::uint8_t>(length >> 8), static_cast<std::uint8_t>(length), 0, 1, 0, 8, 0}));
        EXPECT_TRUE(bogus.waitClosed()) << length;
        expectedEvents += 2;
        // The accept thread picks its next slot before the previous one is free again.
        EXPECT_THAT(server.waitEvents(expectedEvents).back(), testing::MatchesRegex("disconnected [12] 1"));
        ASSERT_TRUE(keeper->sendPacket(ProprietarySocketCommon::CmdEcho, {0, 5}));
        const std::optional<WirePacket> reply = keeper->readPacketOf(ProprietarySocketCommon::CmdEcho);
        ASSERT_TRUE(reply) << length;
        EXPECT_EQ(reply->payload, Bytes({1, 5}));
    }
}

TEST(ServerTest, ClientLeavingInsideAPacketIsDisconnectedInOrder) {
    RecordingServer server(5);
    {
        TestClient client(server.boundPort());
        ASSERT_TRUE(client.sendRaw({0, 0, 0, 20, 0x03, 0xE9, 0, 8, 1, 2}));
    }
    ASSERT_TRUE(server.waitLast("disconnected 0 0"));
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
    std::string address;
    ifaddrs* interfaces = nullptr;
    ASSERT_EQ(getifaddrs(&interfaces), 0);
    for (ifaddrs* entry = interfaces; entry != nullptr && address.empty(); entry = entry->ifa_next) {
        if (entry->ifa_addr != nullptr && entry->ifa_addr->sa_family == AF_INET) {
            char text[INET_ADDRSTRLEN];
            inet_ntop(AF_INET, &reinterpret_cast<sockaddr_in*>(entry->ifa_addr)->sin_addr, text, sizeof text);
            address = std::string(text).rfind("127.", 0) == 0 ? "" : text;
        }
    }
    freeifaddrs(interfaces);
    if (address.empty()) {
        GTEST_SKIP() << "NO NON-LOOPBACK IPv4 ADDRESS ON THIS MACHINE: global access left untested";
    }
    {
        RecordingServer local(1);
        TestClient refused(local.boundPort(), address.c_str());
        EXPECT_FALSE(refused.connected());
        EXPECT_EQ(refused.connectError(), ECONNREFUSED);
    }
    RecordingServer global(1, true);
    TestClient accepted(global.boundPort(), address.c_str());
    ASSERT_TRUE(accepted.connected()) << address;
    EXPECT_TRUE(accepted.readPacketOf(ProprietarySocketCommon::CmdIdentity));
}

TEST(ServerDeathTest, NoBindableAddressEndsTheProcess) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const int holder = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    ASSERT_EQ(bind(holder, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    ASSERT_EQ(listen(holder, 1), 0);
    ASSERT_EQ(getsockname(holder, reinterpret_cast<sockaddr*>(&address), &length), 0);
    const int port = ntohs(address.sin_port);  // the re-executed child takes its own port
    EXPECT_EXIT(ProprietarySocketServer(port, 1).startServer(false), testing::ExitedWithCode(1),
                "ProprietarySocketServer::startServer\\(\\) Could not bind on port [0-9]+\n");
    close(holder);
}
