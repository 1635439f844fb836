// The daemon as a process: command line, console lines, a client over TCP, signals, the end when the
// last client leaves, and the log files of a detached daemon.
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <memory>
#include <thread>
#include <vector>

#include "Daemon.h"
#include "FlasherTestSupport.h"
#include "ProprietarySocketCommon.h"

using namespace CANFlasher;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::StartsWith;

namespace {

// The daemon with `options`, started by `starter` (which execs it) if given: its standard output read
// through a pipe, its standard error in a file.
struct Daemon {
    explicit Daemon(const std::string& options, const std::string& starter = "")
        : pipe(popen(("echo $$; exec " + starter + " $VARNOCH_EMULATOR " VARNOCH_DAEMON " " + options +
                      " 2>" + folder.path() + "/err")
                         .c_str(),
                     "re")) {
        if (pipe == nullptr || !waitFor("\n")) {
            std::abort();
        }
        pid = std::stoi(output);  // the shell's, which then becomes the daemon
        output.erase(0, output.find('\n') + 1);
    }
    ~Daemon() { (void)exitStatus(); }
    std::string errors() const { return fileText(folder.path() + "/err"); }
    // Reads standard output until it holds `text`: false when it ended or the deadline passed before.
    bool waitFor(const std::string& text) {
        const auto deadline = Clock::now() + kDeadline;
        for (char buffer[4096]; output.find(text) == std::string::npos;) {
            pollfd wait{fileno(pipe), POLLIN, 0};
            const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
            const ssize_t got = left.count() > 0 && poll(&wait, 1, static_cast<int>(left.count())) == 1
                                    ? read(wait.fd, buffer, sizeof buffer)
                                    : 0;
            if (got <= 0) {
                return false;
            }
            output.append(buffer, static_cast<std::size_t>(got));
        }
        return true;
    }
    // Reads standard output to its end, kills a daemon still running then; 128 + signal when killed.
    int exitStatus() {
        if (pipe != nullptr) {
            (void)waitFor(std::string(1, '\0'));  // never printed
            (void)kill(pid, SIGKILL);             // no effect once it has ended
            status = pclose(pipe);
            pipe = nullptr;
        }
        return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }

    TempFolder folder;
    FILE* pipe;
    pid_t pid = -1;
    int status = -1;
    std::string output;
};

// Maker, product and the version of a build from the trunk.
std::string banner() {
    return "Strale Technologies Varnoch Version 0.00 \n";
}

pid_t pidOf(const WirePacket& identity) {
    return static_cast<pid_t>(identity.payload.at(0) | identity.payload.at(1) << 8 |
                              identity.payload.at(2) << 16 | identity.payload.at(3) << 24);
}

// A client of the daemon on `port` once something listens there: nothing else tells when a detached
// or socket-activated daemon is up.
std::unique_ptr<TestClient> clientWhenListening(int port) {
    std::unique_ptr<TestClient> client;
    for (const auto deadline = Clock::now() + kDeadline;
         !(client = std::make_unique<TestClient>(port))->connected() && Clock::now() < deadline;) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return client;
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
    ~NotifySocket() { close(fd); }
    // The datagrams queued now, in arrival order.
    std::vector<std::string> received() const {
        std::vector<std::string> messages;
        for (char buffer[512];;) {
            const ssize_t got = recv(fd, buffer, sizeof buffer, MSG_DONTWAIT);
            if (got < 0) {
                return messages;
            }
            messages.emplace_back(buffer, static_cast<std::size_t>(got));
        }
    }
    int fd;
};

// Quiet matters only when detaching: with -n everything is still printed.
TEST(Daemon, ServesClientsRunsUploadsOnItsMainLoopAndEndsWhenTheLastClientLeaves) {
    const int port = freePort();
    Daemon daemon("-n -q -i NULL -p " + std::to_string(port));
    ASSERT_TRUE(daemon.waitFor("Varnoch is running\n"));
    EXPECT_THAT(daemon.output, StartsWith(banner()));
    TestClient client(port);
    const auto identity = client.readPacketOf(ProprietarySocketCommon::CmdIdentity);
    ASSERT_TRUE(identity.has_value());
    EXPECT_EQ(pidOf(*identity), daemon.pid);
    ASSERT_TRUE(client.sendPacket(CmdRequestStatus, {}));
    EXPECT_EQ(hexBytes(client.readPacketOf(CmdStatus).value().payload.data(), 8), "00 01 00 FE FF FF FF FF");
    TempFolder folder;
    ASSERT_TRUE(client.sendPacket(CmdUploadHexFile,
                                  uploadPayload(ModeGlobal, 0, 0, folder.write("fw.hex", ":00000001FF\n"))));
    for (const int state : {StatePreparing, StateSearching}) {
        EXPECT_EQ(client.readPacketOf(CmdStatus).value().payload.at(1), state);
    }
    client.close();
    EXPECT_EQ(daemon.exitStatus(), 0) << daemon.errors();
    EXPECT_THAT(daemon.output, ::testing::HasSubstr("CANFlasherServer::clientDisconnected( 0 ) -> 0\n"));
    EXPECT_THAT(daemon.output, EndsWith("Varnoch is shutting down\n"));
}

TEST(Daemon, ServesTheSocketAServiceManagerPassesAndNotifiesItOnlyWhenAsked) {
    TempFolder folder;
    const std::string notifyPath = folder.path() + "/notify";
    const NotifySocket manager(notifyPath);
    const std::string port = std::to_string(freePort());
    const std::vector<std::string> notifications = {"READY=1\nSTATUS=Idle (0%)", "STATUS=Locked (0%)",
                                                    "STOPPING=1"};
    // clang-format off
    const struct { std::string starter, options, descriptor; std::vector<std::string> notified; } cases[] = {
        // Socket activation: the address and the port are the activator's, -p and -G have no say.
        {"systemd-socket-activate -l 127.0.0.1:" + port + " -E NOTIFY_SOCKET=" + notifyPath,
         "-n -i NULL -p 2000 -G", " File Descriptor: 3\n", notifications},
        {"", "-n -i NULL -p " + port, "", {}},
        // A socket passed to another process, or more than the one, is none of the daemon's business.
        {"env LISTEN_PID=1 LISTEN_FDS=1", "-n -i NULL -p " + port, "", {}},
        {"env LISTEN_PID=$$ LISTEN_FDS=2 NOTIFY_SOCKET=" + notifyPath, "-n -i NULL -p " + port, "",
         notifications},
    };
    // clang-format on
    for (const auto& row : cases) {
        SCOPED_TRACE(row.starter);
        Daemon daemon(row.options, row.starter);
        const auto client = clientWhenListening(std::stoi(port));
        ASSERT_TRUE(client->connected()) << daemon.errors();
        const auto identity = client->readPacketOf(ProprietarySocketCommon::CmdIdentity);
        ASSERT_TRUE(identity.has_value()) << daemon.errors();
        EXPECT_EQ(pidOf(*identity), daemon.pid);
        ASSERT_TRUE(daemon.waitFor("Varnoch is running\n"));  // ready, as the service manager was told
        ASSERT_TRUE(client->sendPacket(CmdRequestStatus, {}));
        EXPECT_EQ(hexBytes(client->readPacketOf(CmdStatus).value().payload.data(), 8),
                  "00 01 00 FE FF FF FF FF");
        ASSERT_TRUE(client->sendPacket(CmdSetLock, {1}));
        EXPECT_EQ(client->readPacketOf(CmdStatus).value().payload.at(1), StateLocked);
        client->close();
        EXPECT_EQ(daemon.exitStatus(), 0) << daemon.errors();
        EXPECT_THAT(daemon.output,
                    StartsWith(banner() + "ProprietarySocketServer::startServer() Connected. Port: " + port +
                               " File Descriptor: "));
        EXPECT_THAT(daemon.output, HasSubstr(" Port: " + port + row.descriptor));
        EXPECT_THAT(daemon.output, EndsWith("Varnoch is shutting down\n"));
        EXPECT_EQ(manager.received(), row.notified);
    }
}

TEST(Daemon, TerminationSignalsEndItInOrder) {
    for (const int signal : {SIGINT, SIGTERM}) {
        Daemon daemon("-n -i NULL -p " + std::to_string(freePort()));
        ASSERT_TRUE(daemon.waitFor("Varnoch is running\n"));
        ASSERT_EQ(kill(daemon.pid, signal), 0);
        EXPECT_EQ(daemon.exitStatus(), 0) << daemon.errors();
        EXPECT_THAT(daemon.output,
                    ::testing::ContainsRegex("Varnoch: HandleControlC\\( " + std::to_string(signal) +
                                             " \\)\n.*Varnoch is shutting down\n$"));
    }
}

TEST(Daemon, UsageRefusedOptionsAndStartFailures) {
    const std::string defaults =
        " \nDefault values:\n   interface       0\n   portnum         41265\n   folder          \n";
    const std::string range = "\nValid range        : [2000..65535]\n";
    // clang-format off
    const struct {
        std::string options; int status; ::testing::Matcher<std::string> errors; std::string output;
    } cases[] = {
        {"-h", 0,
         ::testing::AllOf(
             StartsWith(std::string("Usage: ") + VARNOCH_DAEMON +
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
        {"-n -i 9 -p " + std::to_string(freePort()), 1, "", "Varnoch reports: Error Initiating CAN-port\n"},
    };
    // clang-format on
    for (const auto& row : cases) {
        Daemon daemon(row.options);
        EXPECT_EQ(daemon.exitStatus(), row.status) << row.options;
        EXPECT_THAT(daemon.errors(), row.errors) << row.options;
        EXPECT_THAT(daemon.output, EndsWith(row.output)) << row.options;  // how it ends
    }
}

TEST(Daemon, LogFilesCarryThePidWithAtLeastFourDigits) {
    EXPECT_EQ(varnochd::logFileName("/var/log", 42, "err"), "/var/log/Hobrin_0042.err");
    EXPECT_EQ(varnochd::logFileName("/var/log", 123456, "log"), "/var/log/Hobrin_123456.log");
}

TEST(Daemon, DetachedDaemonLogsToFilesNamedAfterItsPidUnlessQuiet) {
    // The detached daemon becomes our child to reap; user-mode emulators do not offer that.
    if (prctl(PR_SET_CHILD_SUBREAPER, 1) != 0) {
        GTEST_SKIP() << "cannot become a child subreaper here";
    }
    for (const bool quiet : {false, true}) {
        TempFolder logs;
        const int port = freePort();
        Daemon starter("-f " + logs.path() + " -i NULL -p " + std::to_string(port) + (quiet ? " -q" : ""));
        EXPECT_EQ(starter.exitStatus(), 0);
        EXPECT_EQ(starter.output,
                  quiet ? "" : "Detaching CAN-Flasher process - PID " + std::to_string(starter.pid) + "\n");
        auto client = clientWhenListening(port);
        const auto identity = client->readPacketOf(ProprietarySocketCommon::CmdIdentity);
        ASSERT_TRUE(identity.has_value());
        client.reset();
        const pid_t pid = pidOf(*identity);
        int status = -1;
        ASSERT_EQ(waitpid(pid, &status, 0), pid);  // the probing client was the last one
        EXPECT_EQ(status, 0);

        char name[64];
        std::snprintf(name, sizeof name, "%s/Hobrin_%04i", logs.path().c_str(), pid);
        EXPECT_EQ(std::distance(std::filesystem::directory_iterator(logs.path()), {}), quiet ? 0 : 2);
        EXPECT_EQ(std::filesystem::exists(name + std::string(".err")), !quiet);
        const std::string log = fileText(name + std::string(".log"));
        EXPECT_THAT(log, StartsWith(quiet ? "" : banner()));
        EXPECT_THAT(log, EndsWith(quiet ? "" : "Varnoch is shutting down\n"));
    }
}

}  // namespace
