#include "Daemon.h"

#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "CANFlasherServer_Orelevents.h"
#include "EventQueue.h"
#include "ServiceManager.h"
#include "SuiteVersions.h"
#include "canchannel.h"
#include "canport.h"
#include "tick.h"

namespace varnochd {

namespace {

constexpr const char* kOptionString = "h?nGi:p:f:q";
constexpr const char* kNoInterfaceArgument = "NULL";
constexpr int kLogNameCapacity = 1024;
// CAN start-up figures: the port setting main stores (nothing reads it), the channel table's size and
// the receive ring asked for where a driver keeps no queue of its own.
constexpr std::uint32_t kPortSetting = 8000;
constexpr std::uint16_t kCanChannels = 10;
constexpr std::uint32_t kReceiveRingFrames = 1000;
constexpr std::int32_t kEventKey = 0;

// Touched only on the main thread: in the event handler and the main loop.
bool exitWhenNoClients = true;
bool stopRequested = false;
CANFlasher::CANFlasherServer* runningServer = nullptr;

// Runs on the main thread (every other thread blocks the signals).
void handleTerminationSignal(int signalNumber) {
    const int savedErrno = errno;  // the interrupted code may be about to read it
    (void)postEvent(kEventKey, CANFlasher::EventTerminate, 0);  // key 0 is never refused
    std::printf("Varnoch: HandleControlC( %i )\n", signalNumber);
    errno = savedErrno;
}

void handleApplicationEvent(std::int32_t code, std::int32_t parameter) {
    switch (code) {
        case CANFlasher::EventNoClientsLeft:
            if (exitWhenNoClients) {
                stopRequested = true;
            }
            return;
        case CANFlasher::EventExitWhenIdle:
            exitWhenNoClients = true;
            return;
        case CANFlasher::EventTerminate:
            stopRequested = true;
            return;
        default:
            if (runningServer != nullptr) {
                runningServer->handleEvent(code, parameter);
            }
            return;
    }
}

// A detached daemon's log is followed with `tail -f`: every line must reach the file at once.
void lineBuffer(std::FILE* stream) {
    if (std::setvbuf(stream, nullptr, _IOLBF, BUFSIZ) != 0) {
        std::perror("setvbuf");  // output still works, only later than a line at a time
    }
}

// The results of freopen are not checked: without a log file the daemon runs on silently.
void redirectOutput(const DaemonSettings& settings) {
    if (settings.quiet) {
        (void)std::freopen("/dev/null", "r", stdin);
        (void)std::freopen("/dev/null", "w", stdout);
        (void)std::freopen("/dev/null", "w", stderr);
        return;
    }
    if (settings.logFolder.empty()) {
        return;  // daemon() already put the streams on /dev/null
    }
    const int pid = static_cast<int>(getpid());
    (void)std::freopen(logFileName(settings.logFolder, pid, "err").c_str(), "w", stderr);
    (void)std::freopen(logFileName(settings.logFolder, pid, "log").c_str(), "w", stdout);
    lineBuffer(stderr);
    lineBuffer(stdout);
}

void detach(const DaemonSettings& settings) {
    if (!settings.quiet) {
        std::printf("Detaching CAN-Flasher process - PID %i\n", static_cast<int>(getpid()));
        std::fflush(stdout);  // nothing buffered may be written twice after the fork
    }
    if (daemon(1, 0) == -1) {
        std::perror("detaching from ctty");
        std::exit(1);
    }
    redirectOutput(settings);
}

void installTerminationHandlers() {
    // An event of code 0 is consumed without a handler call. Posting one creates the queue's list for
    // key 0 now, so that the signal handler's post finds it and need not allocate.
    (void)postEvent(kEventKey, 0, 0);
    struct sigaction action {};
    action.sa_handler = handleTerminationSignal;
    sigemptyset(&action.sa_mask);
    action.sa_flags = 0;  // no SA_RESTART: the main thread's waits see the interruption
    for (const int signalNumber : {SIGINT, SIGTERM}) {
        if (sigaction(signalNumber, &action, nullptr) == -1) {
            std::perror("setting up termination signal");
            std::exit(1);
        }
    }
}

bool startCan(const DaemonSettings& settings) {
    canPortSetParameter(kPortSetting, settings.interfaceIndex);
    (void)startTick();  // a failing clock shows in every later reading; nothing to do about it here
    void (*pollEntry)(std::int32_t) = nullptr;  // only its lookup's success matters
    return canChannelsInit(kCanChannels) &&
           canChannelAttach(settings.interfaceIndex, canPortControl, settings.driverArgument,
                            kReceiveRingFrames) &&
           canChannelGetPoll(settings.interfaceIndex, &pollEntry);
}

// The service manager's status line: the state's name and the progress.
std::string statusNotification(const CANFlasher::FlashStatus& status) {
    return std::string("STATUS=") + CANFlasher::stateName(status.state) + " (" +
           std::to_string(status.progress) + "%)";
}

}  // namespace

std::string logFileName(const std::string& folder, int pid, const char* suffix) {
    char name[kLogNameCapacity];
    std::snprintf(name, sizeof name, "%s/Hobrin_%04i.%s", folder.c_str(), pid, suffix);
    return name;
}

void printUsage(const char* program, const DaemonSettings& settings) {
    std::fprintf(stderr,
                 "Usage: %s [<option>]*\n"
                 "  Available options:\n"
                 "   -h / -?         Show this message\n"
                 "   -n              Don't detach\n"
                 "   -G              Global access. Allows connection from remote clients.\n"
                 "   -i[interface]   CAN interface index (0 => CAN0, 1=> CAN1, etc)\n"
                 "   -p[portnum]     Connect using the indicated port number\n"
                 "   -f[folder]      If we are detaching and not quiet (neither -n nor -q are given),\n"
                 "                   then debug info will be redirected to files in 'folder'.\n"
                 "   -q              Quiet. No text output to stdout/debug log file\n"
                 " \n"
                 "Default values:\n"
                 "   interface       %i\n"
                 "   portnum         %i\n"
                 "   folder          %s\n",
                 program, settings.interfaceIndex, settings.tcpPort, settings.logFolder.c_str());
}

OptionsOutcome parseOptions(int argc, char* argv[], DaemonSettings& settings) {
    opterr = 0;
    optind = 0;  // glibc: rescan from the start, so that the parser can run more than once
    const char* program = argc > 0 ? argv[0] : "varnoch";
    for (int option = getopt(argc, argv, kOptionString); option != -1;
         option = getopt(argc, argv, kOptionString)) {
        switch (option) {
            case 'h':
                printUsage(program, settings);
                return OptionsOutcome::ExitSuccess;
            case '?':  // also an unknown option or a missing argument
                printUsage(program, settings);
                return OptionsOutcome::ExitFailure;
            case 'n':
                settings.detach = false;
                break;
            case 'G':
                settings.globalAccess = true;
                break;
            case 'i':
                // No validation: garbage gives interface 0.
                settings.interfaceIndex = std::strcmp(optarg, kNoInterfaceArgument) == 0
                                              ? kNoCanInterface
                                              : static_cast<std::int32_t>(std::strtol(optarg, nullptr, 10));
                settings.driverArgument = settings.interfaceIndex;
                break;
            case 'p':
                settings.tcpPort = static_cast<std::int32_t>(std::strtol(optarg, nullptr, 10));
                if (static_cast<std::uint32_t>(settings.tcpPort - kLowestTcpPort) >
                    static_cast<std::uint32_t>(kHighestTcpPort - kLowestTcpPort)) {
                    std::fprintf(stderr, "Invalid port number: %s\nValid range        : [%i..%i]\n", optarg,
                                 kLowestTcpPort, kHighestTcpPort);
                    return OptionsOutcome::ExitFailure;
                }
                break;
            case 'f':
                settings.logFolder = optarg;
                break;
            case 'q':
                settings.quiet = true;
                break;
            default:
                break;
        }
    }
    return OptionsOutcome::Run;
}

int runDaemon(int argc, char* argv[]) {
    lineBuffer(stdout);
    lineBuffer(stderr);

    DaemonSettings settings;
    switch (parseOptions(argc, argv, settings)) {
        case OptionsOutcome::ExitSuccess:
            std::exit(0);
        case OptionsOutcome::ExitFailure:
            std::exit(1);
        case OptionsOutcome::Run:
            break;
    }
    // Both are taken before detaching: the passed socket is meant for this process id, and the
    // notifications reach the manager from the detached process as well.
    const int passedSocket = service::takePassedListeningSocket();
    const service::Notifier notifier(std::getenv("NOTIFY_SOCKET"));
    if (settings.detach) {
        detach(settings);
    }
    std::printf("%s %s Version %s\n", AgApp::vendorName(), AgApp::productName(), AgApp::versionText());
    installTerminationHandlers();
    if (!startCan(settings)) {
        std::puts("Varnoch reports: Error Initiating CAN-port");
        std::exit(1);
    }
    initEventQueue();
    setEventHandler(handleApplicationEvent);

    auto server = std::make_unique<CANFlasher::CANFlasherServer_Orelevents>(settings.interfaceIndex,
                                                                            settings.tcpPort, kClientSlots);
    if (passedSocket >= 0) {
        server->useListeningSocket(passedSocket);  // the port and the access come with it
    }
    if (notifier.active()) {
        server->setStatusObserver([&notifier](const CANFlasher::FlashStatus& status) {
            notifier.notify(statusNotification(status));
        });
    }
    // Set before the server starts, so that events its threads post find it.
    runningServer = server.get();
    (void)server->startServer(settings.globalAccess);  // the time-out thread is the server's to join
    // Told before the line, so that whoever reads the line knows that the manager was told.
    notifier.notify("READY=1\n" + statusNotification(server->status()));
    std::puts("Varnoch is running");

    while (!stopRequested) {
        (void)processNextEvent();  // always true
    }
    notifier.notify("STOPPING=1");

    runningServer = nullptr;
    // Client threads still running call the server's hooks: they end before any of it is destroyed.
    server->stopServer();
    server.reset();
    std::puts("Varnoch is shutting down");
    return 0;
}

}  // namespace varnochd
