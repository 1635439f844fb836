// The daemon as a process: command line, console lines, a client over TCP, signals, the end when the
// last client leaves, and the log files of a detached daemon.
#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

#include "FlasherTestSupport.h"
#include "SuiteVersions.h"

using namespace CANFlasher;
using ::testing::ElementsAre;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::StartsWith;

namespace {

constexpr int kRunning = -1;

std::string fileText(const std::string& path) {
    std::stringstream text;
    text << std::ifstream(path).rdbuf();
    return text.str();
}

// Polls (the daemon writes files and leaves no other trace) until `done` holds or the deadline passed.
bool eventually(const std::function<bool()>& done) {
    for (const auto deadline = Clock::now() + kDeadline; !done();
         std::this_thread::sleep_for(std::chrono::milliseconds(10))) {
        if (Clock::now() > deadline) {
            return false;
        }
    }
    return true;
}

// Exit status of a child (or an orphan taken over as subreaper); 128 + signal if killed; kRunning
// when it did not end in time.
int exitStatusOf(pid_t pid) {
    int status = 0;
    if (!eventually([&] { return waitpid(pid, &status, WNOHANG) == pid; })) {
        return kRunning;
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

// The daemon with its standard output and error in files of a private folder.
class Daemon {
  public:
    explicit Daemon(std::vector<std::string> arguments) {
        arguments.insert(arguments.begin(), VARNOCH_DAEMON);
        std::vector<char*> argv;
        for (std::string& text : arguments) {
            argv.push_back(text.data());
        }
        argv.push_back(nullptr);
        // The CAN layer's table is destroyed at exit while the parked reception thread has read it.
        const char* caller = std::getenv("TSAN_OPTIONS");
        const std::string tsan =
            std::string("suppressions=" DAEMON_TSAN_SUPPRESSIONS " ") + (caller ? caller : "");
        setenv("TSAN_OPTIONS", tsan.c_str(), 1);
        const std::string out = folder_.path() + "/out";
        const std::string err = folder_.path() + "/err";
        if ((pid_ = fork()) == 0) {  // nothing but async-signal-safe calls until exec
            dup2(open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644), 1);
            dup2(open(err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644), 2);
            execv(argv[0], argv.data());
            _exit(127);
        }
    }
    ~Daemon() {
        if (status_ == kRunning && kill(pid_, SIGKILL) == 0) {
            (void)exitStatusOf(pid_);
        }
    }

    pid_t pid() const { return pid_; }
    int exitStatus() { return status_ = status_ == kRunning ? exitStatusOf(pid_) : status_; }
    std::string output() const { return fileText(folder_.path() + "/out"); }
    std::string errors() const { return fileText(folder_.path() + "/err"); }
    bool waitForOutput(const std::string& text) const {
        return eventually([&] { return output().find(text) != std::string::npos; });
    }

  private:
    TempFolder folder_;
    pid_t pid_ = -1;
    int status_ = kRunning;
};

std::string banner() {
    return std::string(AgApp::vendorName()) + " " + AgApp::productName() + " Version " +
           AgApp::versionText() + "\n";
}

std::vector<std::string> runningOptions(int port) {
    return {"-n", "-i", "NULL", "-p", std::to_string(port)};
}

std::uint32_t pidOf(const WirePacket& identity) {
    return identity.payload.at(0) | identity.payload.at(1) << 8 | identity.payload.at(2) << 16 |
           static_cast<std::uint32_t>(identity.payload.at(3)) << 24;
}

TEST(Daemon, ServesClientsAndEndsWhenTheLastOneLeaves) {
    const int port = freePort();
    Daemon daemon(runningOptions(port));
    ASSERT_TRUE(daemon.waitForOutput("Varnoch is running\n"));
    TestClient client(port);
    const auto identity = client.readPacketOf(ProprietarySocketCommon::CmdIdentity);
    ASSERT_TRUE(identity.has_value());
    EXPECT_EQ(pidOf(*identity), static_cast<std::uint32_t>(daemon.pid()));
    ASSERT_TRUE(client.sendPacket(CmdRequestStatus, {}));
    EXPECT_THAT(client.readPacketOf(CmdStatus).value().payload,
                ElementsAre(0, 1, 0, 0xFE, 0xFF, 0xFF, 0xFF, 0xFF));

    // A missing file is named on the console; an upload then runs on the main loop: without a CAN
    // interface nobody answers the search, and each time-out shows the mode.
    TempFolder folder;
    ASSERT_TRUE(
        client.sendPacket(CmdUploadHexFile, uploadPayload(ModeGlobal, 0, 0, folder.path() + "/no.hex")));
    EXPECT_EQ(client.readPacketOf(CmdStatus).value().payload[1], StateErrFileNotFound);
    EXPECT_TRUE(daemon.waitForOutput("handleNewPacketFromClient() CmdUploadHexFile File not found (" +
                                     folder.path() + "/no.hex)\n"));
    ASSERT_TRUE(client.sendPacket(CmdReset, {}));
    ASSERT_TRUE(client.sendPacket(CmdUploadHexFile,
                                  uploadPayload(ModeGlobal, 0, 0, folder.write("fw.hex", ":00000001FF\n"))));
    for (const int state : {StateIdle, StatePreparing, StateSearching}) {
        EXPECT_EQ(client.readPacketOf(CmdStatus).value().payload[1], state);
    }
    EXPECT_TRUE(daemon.waitForOutput("CANFlasherServer::handleTimeout() Mode 3\n"));

    client.close();
    EXPECT_EQ(daemon.exitStatus(), 0) << daemon.errors();
    EXPECT_THAT(daemon.output(), StartsWith(banner()));
    EXPECT_THAT(daemon.output(), HasSubstr("CANFlasherServer::clientDisconnected( 0 ) -> 0\n"));
    EXPECT_THAT(daemon.output(), EndsWith("Varnoch is shutting down\n"));
}

TEST(Daemon, TerminationSignalsEndItInOrder) {
    for (const int signal : {SIGINT, SIGTERM}) {
        Daemon daemon(runningOptions(freePort()));
        ASSERT_TRUE(daemon.waitForOutput("Varnoch is running\n"));
        ASSERT_EQ(kill(daemon.pid(), signal), 0);
        EXPECT_EQ(daemon.exitStatus(), 0) << daemon.errors();
        const std::string output = daemon.output();
        const auto handled = output.find("Varnoch: HandleControlC( " + std::to_string(signal) + " )\n");
        EXPECT_NE(handled, std::string::npos) << output;
        EXPECT_GT(output.find("Varnoch is shutting down\n"), handled) << output;
        EXPECT_THAT(output, EndsWith("Varnoch is shutting down\n"));
    }
}

TEST(Daemon, UsageTextPortRangeAndExitStatus) {
    Daemon help({"-h"});
    EXPECT_EQ(help.exitStatus(), 0);
    EXPECT_EQ(help.errors(),
              std::string("Usage: ") + VARNOCH_DAEMON +
                  " [<option>]*\n  Available options:\n"
                  "   -h / -?         Show this message\n"
                  "   -n              Don't detach\n"
                  "   -G              Global access. Allows connection from remote clients.\n"
                  "   -i[interface]   CAN interface index (0 => CAN0, 1=> CAN1, etc)\n"
                  "   -p[portnum]     Connect using the indicated port number\n"
                  "   -f[folder]      If we are detaching and not quiet (neither -n nor -q are given),\n"
                  "                   then debug info will be redirected to files in 'folder'.\n"
                  "   -q              Quiet. No text output to stdout/debug log file\n \n"
                  "Default values:\n   interface       0\n   portnum         41265\n   folder          \n");
    for (const auto& options : std::vector<std::vector<std::string>>{{"-?"}, {"-x"}, {"-n", "-p"}}) {
        Daemon refused(options);
        EXPECT_EQ(refused.exitStatus(), 1) << options.back();
        EXPECT_THAT(refused.errors(), HasSubstr("Default values:\n")) << options.back();
    }
    for (const char* port : {"1999", "65536", "abc"}) {
        Daemon refused({"-n", "-p", port});
        EXPECT_EQ(refused.exitStatus(), 1) << port;
        EXPECT_EQ(refused.errors(),
                  std::string("Invalid port number: ") + port + "\nValid range        : [2000..65535]\n");
    }
    // Options before -h show as the current values.
    for (const char* port : {"2000", "5000", "65535"}) {
        Daemon accepted({"-p", port, "-i", "NULL", "-f", "/var/log", "-h"});
        EXPECT_EQ(accepted.exitStatus(), 0) << port;
        EXPECT_THAT(accepted.errors(), EndsWith(std::string("   interface       16\n   portnum         ") +
                                                port + "\n   folder          /var/log\n"));
    }
}

TEST(Daemon, FailingCanInterfaceEndsTheStart) {
    Daemon daemon({"-n", "-i", "9", "-p", std::to_string(freePort())});
    EXPECT_EQ(daemon.exitStatus(), 1);
    EXPECT_THAT(daemon.output(), EndsWith("Varnoch reports: Error Initiating CAN-port\n"));
}

TEST(Daemon, DetachedDaemonLogsToFilesNamedAfterItsPidUnlessQuiet) {
    ASSERT_EQ(prctl(PR_SET_CHILD_SUBREAPER, 1), 0);  // the detached daemon becomes our child to reap
    for (const bool quiet : {false, true}) {
        TempFolder logs;
        const int port = freePort();
        std::vector<std::string> options{"-f", logs.path(), "-i", "NULL", "-p", std::to_string(port)};
        if (quiet) {
            options.emplace_back("-q");
        }
        Daemon starter(options);
        EXPECT_EQ(starter.exitStatus(), 0);
        EXPECT_EQ(starter.output(),
                  quiet ? "" : "Detaching CAN-Flasher process - PID " + std::to_string(starter.pid()) + "\n");

        std::unique_ptr<TestClient> client;  // the daemon is up once it accepts a client
        ASSERT_TRUE(eventually([&] { return (client = std::make_unique<TestClient>(port))->connected(); }));
        const auto identity = client->readPacketOf(ProprietarySocketCommon::CmdIdentity);
        ASSERT_TRUE(identity.has_value());
        client.reset();
        const auto pid = static_cast<pid_t>(pidOf(*identity));
        EXPECT_NE(pid, starter.pid());    // daemon() forked
        ASSERT_EQ(exitStatusOf(pid), 0);  // the probing client was the last one

        std::vector<std::string> files;
        for (const auto& entry : std::filesystem::directory_iterator(logs.path())) {
            files.push_back(entry.path().filename());
        }
        std::sort(files.begin(), files.end());
        if (quiet) {
            EXPECT_TRUE(files.empty());
            continue;
        }
        char name[32];
        std::snprintf(name, sizeof name, "Hobrin_%04i", pid);
        EXPECT_THAT(files, ElementsAre(std::string(name) + ".err", std::string(name) + ".log"));
        const std::string log = fileText(logs.path() + "/" + name + ".log");
        EXPECT_THAT(log, StartsWith(banner()));
        EXPECT_THAT(log, EndsWith("Varnoch is shutting down\n"));
    }
}

}  // namespace
