// The daemon as a process: command line, console lines, a client over TCP, the end when the last client
// leaves, the socket and notifications of a service manager, and the log files of a detached daemon.
#include <gmock/gmock.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <iterator>
#include <sstream>

#include "Daemon.h"
#include "DaemonTest.h"
#include "varnoch/protocol/FlashTypes.h"

using namespace CANFlasher;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::StartsWith;

namespace {

// Maker, product and the version of a build from the trunk.
const std::string kBanner = "Strale Technologies Varnoch Version 0.00 \n";
const Bytes kInitialStatus{0, 1, 0, 0xFE, 0xFF, 0xFF, 0xFF, 0xFF};

class Daemon : public DaemonTest {
  protected:
    // The daemon with `options` (words apart by blanks), started through `starter` if given.
    std::unique_ptr<ChildProcess> run(const std::string& options,
                                      const std::vector<std::string>& starter = {}) {
        std::istringstream words(options);
        std::vector<std::string> command{kDaemonProgram};
        command.insert(command.end(), std::istream_iterator<std::string>(words), {});
        return std::make_unique<ChildProcess>(folder_.path(), command, starter);
    }
    // A client once something listens on the port: nothing else tells when a detached or
    // socket-activated daemon is up.
    std::unique_ptr<TestClient> clientWhenListening() const {
        std::unique_ptr<TestClient> client;
        EXPECT_TRUE(waitUntil([&] { return (client = std::make_unique<TestClient>(port_))->connected(); }));
        return client;
    }
};

pid_t pidOf(const std::optional<WirePacket>& identity) {
    const Bytes& p = identity.value().payload;
    return static_cast<pid_t>(p.at(0) | p.at(1) << 8 | p.at(2) << 16 | p.at(3) << 24);
}

// A service manager's notify socket: a datagram socket bound to a path.
struct NotifySocket {
    explicit NotifySocket(const std::string& path) : fd(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
        sockaddr_un address{AF_UNIX, {}};
        path.copy(address.sun_path, sizeof address.sun_path - 1);
        if (fd < 0 || bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
            std::abort();
        }
    }
    ~NotifySocket() { (void)close(fd); }  // nothing left to lose
    // The datagrams queued now, in arrival order.
    std::vector<std::string> received() const {
        std::vector<std::string> messages;
        char buffer[512];
        for (ssize_t got; (got = recv(fd, buffer, sizeof buffer, MSG_DONTWAIT)) >= 0;) {
            messages.emplace_back(buffer, static_cast<std::size_t>(got));
        }
        return messages;
    }
    int fd;
};

TEST_F(Daemon, ServesTheSocketAServiceManagerPassesAndNotifiesItOnlyWhenAsked) {
    const std::string notifyPath = folder_.path("notify");
    const NotifySocket manager(notifyPath);
    const std::string port = std::to_string(port_);
    const std::vector<std::string> notifications = {"READY=1\nSTATUS=Idle (0%)", "STATUS=Locked (0%)",
                                                    "STOPPING=1"};
    const auto environment = [](const std::string& variables) {
        return std::vector<std::string>{"sh", "-c", "export " + variables + "; exec \"$@\"", "sh"};
    };
    // clang-format off
    const struct { std::vector<std::string> starter; std::string options, descriptor; std::vector<std::string> notified; } cases[] = {
        // Socket activation: the address and the port are the activator's, -p and -G have no say.
        {{"systemd-socket-activate", "-l", "127.0.0.1:" + port, "-E", "NOTIFY_SOCKET=" + notifyPath},
         "-n -i NULL -p 2000 -G", "3\n", notifications},
        // A socket passed to another process, or more than the one, is none of the daemon's business.
        // Quiet matters only when detaching: with -n everything is still printed.
        {environment("LISTEN_PID=1 LISTEN_FDS=1"), "-n -q -i NULL -p " + port, "", {}},
        {environment("LISTEN_PID=$$ LISTEN_FDS=2 NOTIFY_SOCKET=" + notifyPath), "-n -i NULL -p " + port, "",
         notifications},
    };
    // clang-format on
    for (const auto& row : cases) {
        SCOPED_TRACE(row.options);
        const auto daemon = run(row.options, row.starter);
        const auto client = clientWhenListening();
        EXPECT_EQ(pidOf(client->readPacketOf(kCmdIdentity)), daemon->pid()) << daemon->errors();
        ASSERT_TRUE(daemon->waitFor("Varnoch is running\n"));  // ready, as the service manager was told
        ASSERT_TRUE(client->sendPacket(CmdRequestStatus, {}));
        EXPECT_EQ(client->readPacketOf(CmdStatus).value_or(WirePacket{}).payload, kInitialStatus);
        ASSERT_TRUE(client->sendPacket(CmdSetLock, {1}));
        EXPECT_EQ(client->readPacketOf(CmdStatus).value_or(WirePacket{}).payload,
                  (Bytes{0, 0, 0, 0xFE, 0xFF, 0xFF, 0xFF, 0xFF}));
        client->close();
        EXPECT_EQ(daemon->exitStatus(), 0) << daemon->errors();
        EXPECT_THAT(daemon->output(),
                    StartsWith(kBanner + "ProprietarySocketServer::startServer() Connected. Port: " + port +
                               " File Descriptor: " + row.descriptor));
        EXPECT_THAT(daemon->output(), HasSubstr("CANFlasherServer::clientDisconnected( 0 ) -> 0\n"));
        EXPECT_THAT(daemon->output(), EndsWith("Varnoch is shutting down\n"));
        EXPECT_EQ(manager.received(), row.notified);
    }
}

TEST_F(Daemon, UsageRefusedOptionsAndStartFailures) {
    const std::string defaults =
        " \nDefault values:\n   interface       0\n   portnum         41265\n   folder          \n";
    const std::string range = "\nValid range        : [2000..65535]\n";
    // clang-format off
    const struct {
        std::string options; int status; ::testing::Matcher<std::string> errors; std::string output;
    } cases[] = {
        {"-h", 0,
         ::testing::AllOf(
             StartsWith(std::string("Usage: ") + kDaemonProgram +
                        " [<option>]*\n  Available options:\n   -h / -?         Show this message\n"),
             EndsWith("   -q              Quiet. No text output to stdout/debug log file\n" + defaults)),
         ""},
        {"-?", 1, EndsWith(defaults), ""}, {"-x", 1, EndsWith(defaults), ""},
        {"-n -p", 1, EndsWith(defaults), ""}, {"-n -p abc", 1, "Invalid port number: abc" + range, ""},
        {"-n -p 1999", 1, "Invalid port number: 1999" + range, ""},
        {"-n -p 65536", 1, "Invalid port number: 65536" + range, ""},
        {"-p 2000 -i NULL -f /var/log -h", 0,
         EndsWith("16\n   portnum         2000\n   folder          /var/log\n"), ""},
        {"-p 65535 -h", 0, EndsWith("   portnum         65535\n   folder          \n"), ""},
        {"-n -i 9 -p " + std::to_string(port_), 1, "", "Varnoch reports: Error Initiating CAN-port\n"},
    };
    // clang-format on
    for (const auto& row : cases) {
        const auto daemon = run(row.options);
        EXPECT_EQ(daemon->exitStatus(), row.status) << row.options;
        EXPECT_THAT(daemon->errors(), row.errors) << row.options;
        EXPECT_THAT(daemon->output(), EndsWith(row.output)) << row.options;  // how it ends
    }
}

TEST(DaemonLogFiles, CarryThePidWithAtLeastFourDigits) {
    EXPECT_EQ(varnochd::logFileName("/var/log", 42, "err"), "/var/log/Hobrin_0042.err");
    EXPECT_EQ(varnochd::logFileName("/var/log", 123456, "log"), "/var/log/Hobrin_123456.log");
}

TEST_F(Daemon, DetachedDaemonLogsToFilesNamedAfterItsPid) {
    // The detached daemon becomes our child to reap; user-mode emulators do not offer that.
    if (prctl(PR_SET_CHILD_SUBREAPER, 1) != 0) {
        GTEST_SKIP() << "cannot become a child subreaper here";
    }
    const TempDir logs("logs");
    const auto starter = run("-f " + logs.path() + " -i NULL -p " + std::to_string(port_));
    EXPECT_EQ(starter->exitStatus(), 0);
    EXPECT_EQ(starter->output(),
              "Detaching CAN-Flasher process - PID " + std::to_string(starter->pid()) + "\n");
    const pid_t pid = pidOf(clientWhenListening()->readPacketOf(kCmdIdentity));
    int status = -1;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);  // the probing client was the last one
    EXPECT_EQ(status, 0);
    char name[64];
    std::snprintf(name, sizeof name, "Hobrin_%04i.", pid);
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(logs.path()), {}), 2);
    EXPECT_TRUE(std::filesystem::exists(logs.path(name + std::string("err"))));
    EXPECT_THAT(logs.read(name + std::string("log")),
                ::testing::AllOf(StartsWith(kBanner), EndsWith("Varnoch is shutting down\n")));
}

}  // namespace
