// varnoch-flash: its command line and exit statuses, the status texts it prints, and whole runs against
// a fake daemon on the loopback interface that answers with identity and scripted status packets.
#include <gtest/gtest.h>

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <functional>
#include <initializer_list>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "FlashClient.h"
#include "ProprietarySocketCommon.h"

namespace {

using namespace flashclient;
using CANFlasher::FlashStatus;
using Packet = ProprietarySocketCommon::TPacket;

FlashStatus statusOf(std::int32_t state, std::int32_t progress = 0) {
    FlashStatus status;
    status.mode = CANFlasher::ModeMtCan;
    status.state = state;
    status.progress = progress;
    status.targetAddress = 0x26;
    status.targetIdentifier = 0x12345678;
    return status;
}

// ---- command line ----

ParseOutcome parse(std::initializer_list<const char*> arguments, ClientOptions& options, std::string& error) {
    const std::vector<const char*> argv(arguments);
    return parseClientArguments(static_cast<int>(argv.size()), argv.data(), options, error);
}

TEST(ClientOptions, UploadWithEveryOptionInAnyOrder) {
    ClientOptions options;
    std::string error;
    ASSERT_EQ(parse({"--json", "upload", "--mode", "mtcan", "fw.hex", "--host=::1", "--address", "0x26",
                     "--identifier=305419896", "--port", "42000"},
                    options, error),
              ParseOutcome::Run)
        << error;
    EXPECT_EQ(options.command, Command::Upload);
    EXPECT_EQ(options.file, "fw.hex");
    EXPECT_EQ(options.mode, CANFlasher::ModeMtCan);
    EXPECT_EQ(options.address, 0x26);
    EXPECT_EQ(options.identifier, 0x12345678u);
    EXPECT_EQ(options.host, "::1");
    EXPECT_EQ(options.port, 42000);
    EXPECT_TRUE(options.json);

    ClientOptions defaults;
    ASSERT_EQ(parse({"exit-when-idle"}, defaults, error), ParseOutcome::Run);
    EXPECT_EQ(defaults.command, Command::ExitWhenIdle);
    EXPECT_EQ(defaults.host, "127.0.0.1");
    EXPECT_EQ(defaults.port, 41265);
    EXPECT_FALSE(defaults.json);
    ASSERT_EQ(parse({"upload", "f", "--mode", "global"}, defaults, error), ParseOutcome::Run);
    EXPECT_EQ(defaults.mode, CANFlasher::ModeGlobal);
    EXPECT_EQ(defaults.address, 254);
    EXPECT_EQ(defaults.identifier, 0xFFFFFFFFu);
}

TEST(ClientOptions, RefusesWithOneLine) {
    const std::vector<std::pair<std::vector<const char*>, std::string>> cases = {
        {{}, "no command given"},
        {{"flash"}, "unknown command 'flash'"},
        {{"upload", "--mode", "iso"}, "upload needs a FILE"},
        {{"upload", "f.hex"}, "upload needs --mode (iso, mtcan, new or global)"},
        {{"upload", "f.hex", "--mode", "ISO"}, "invalid mode 'ISO' (iso, mtcan, new or global)"},
        {{"upload", "f.hex", "--mode", "iso", "--address", "256"},
         "invalid value '256' for --address (0..255)"},
        {{"upload", "a.hex", "b.hex", "--mode", "iso"}, "unexpected argument 'b.hex'"},
        {{"status", "--address", "1"}, "option '--address' belongs to upload"},
        {{"status", "--port", "0"}, "invalid value '0' for --port (1..65535)"},
        {{"status", "--port"}, "option '--port' needs a value"},
        {{"status", "-x"}, "unknown option '-x'"},
    };
    for (const auto& [arguments, message] : cases) {
        ClientOptions options;
        std::string error;
        EXPECT_EQ(parseClientArguments(static_cast<int>(arguments.size()), arguments.data(), options, error),
                  ParseOutcome::Error);
        EXPECT_EQ(error, message);
    }
    ClientOptions options;
    std::string error;
    EXPECT_EQ(parse({"upload", "--help"}, options, error), ParseOutcome::Help);
}

TEST(ClientExitStatus, DoneAndEachErrorStateHaveTheirOwn) {
    EXPECT_EQ(exitStatusForState(CANFlasher::StateDone), 0);
    for (std::int32_t state = 100; state <= 105; ++state) {
        EXPECT_EQ(exitStatusForState(state), 10 + state - 100) << state;
    }
    EXPECT_EQ(exitStatusForState(106), kExitOtherErrorState);
    EXPECT_EQ(exitStatusForState(250), kExitOtherErrorState);
}

// ---- output ----

// A FILE* whose output the test can read back.
class Capture {
  public:
    Capture() : file_(open_memstream(&buffer_, &size_)) {}
    ~Capture() {
        std::fclose(file_);
        std::free(buffer_);
    }
    std::FILE* file() const { return file_; }
    std::string text() {
        std::fflush(file_);
        return std::string(buffer_, size_);
    }

  private:
    char* buffer_ = nullptr;
    std::size_t size_ = 0;
    std::FILE* file_;
};

TEST(StatusOutput, TextAndJsonForms) {
    EXPECT_EQ(
        formatStatusLine(statusOf(5, 42)),
        "state 5 \"Programming\", mode 1 \"MT CAN\", progress 42%, address 0x26 (38), identifier 0x12345678");
    EXPECT_EQ(
        formatStatusJson(statusOf(103)),
        "{\"mode\":1,\"state\":103,\"stateName\":\"Error! Unable to find the hex file.\",\"progress\":0,"
        "\"address\":38,\"identifier\":305419896}");
    FlashStatus defaults;
    EXPECT_EQ(formatStatusJson(defaults),
              "{\"mode\":0,\"state\":1,\"stateName\":\"Idle\",\"progress\":0,"
              "\"address\":254,\"identifier\":4294967295}");
    EXPECT_EQ(formatChangeLine(statusOf(3)), "Searching for device");
    EXPECT_EQ(formatChangeLine(statusOf(5, 7)), "Programming 7%");
    EXPECT_EQ(formatChangeLine(statusOf(6, 100)), "Done 100%");
    EXPECT_EQ(formatProgressBar(statusOf(5, 50)),
              "[" + std::string(15, '#') + std::string(15, '-') + "]  50% Programming");
}

TEST(StatusOutput, PrinterShowsChangesOnly) {
    Capture lines;
    StatusPrinter printer(StatusPrinter::Style::Lines, lines.file());
    for (const FlashStatus& status : {statusOf(5, 0), statusOf(5, 0), statusOf(5, 1), statusOf(6, 100)}) {
        printer.report(status);
    }
    printer.finish();
    EXPECT_EQ(lines.text(), "Programming 0%\nProgramming 1%\nDone 100%\n");

    Capture terminal;
    StatusPrinter bar(StatusPrinter::Style::Terminal, terminal.file());
    bar.report(statusOf(3));
    bar.report(statusOf(100));
    bar.finish();
    EXPECT_EQ(terminal.text(), "\r" + formatProgressBar(statusOf(3)) + "\033[K\r" +
                                   formatProgressBar(statusOf(100)) + "\033[K\n");
}

TEST(UploadRequest, AbsolutePathEvenOfAMissingFile) {
    char here[4096];
    ASSERT_NE(getcwd(here, sizeof here), nullptr);
    EXPECT_EQ(absolutePath("no-such-file.hex"), std::string(here) + "/no-such-file.hex");
    EXPECT_EQ(absolutePath("/no/such/file.hex"), "/no/such/file.hex");
    EXPECT_EQ(absolutePath("/tmp/../tmp"), "/tmp");
}

// ---- runs against a fake daemon ----

// A daemon stand-in on 127.0.0.1 (ephemeral port) that takes one client, greets it with an identity
// packet like the real one, then runs the test's script on that connection.
class FakeDaemon {
  public:
    explicit FakeDaemon(std::function<void(FakeDaemon&)> script) {
        listener_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof address;
        EXPECT_EQ(bind(listener_, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
        EXPECT_EQ(listen(listener_, 1), 0);
        EXPECT_EQ(getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &length), 0);
        port = ntohs(address.sin_port);
        thread_ = std::thread([this, script] {
            fd_ = accept(listener_, nullptr, nullptr);
            if (fd_ < 0) {
                return;
            }
            // A client that stops talking must fail the test, not hang it.
            const timeval limit{10, 0};
            setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
            sendIdentity();
            script(*this);
            close(fd_);
        });
    }
    ~FakeDaemon() {
        join();
        close(listener_);
    }
    // Waits for the script to end; afterwards `commands` holds what the client sent.
    void join() {
        if (thread_.joinable()) {
            shutdown(listener_, SHUT_RDWR);  // releases accept() when no client came
            thread_.join();
        }
    }

    // Reads the client's next packet; its command, or 0 when the client went away.
    std::uint16_t next(std::vector<std::uint8_t>* payload = nullptr) {
        Packet packet;
        if (!ProprietarySocketCommon::receivePacket(packet, fd_)) {
            return 0;
        }
        if (payload != nullptr) {
            payload->assign(packet.getPayload(), packet.getPayload() + packet.getPayloadSize());
        }
        commands.push_back(packet.getCommand());
        return packet.getCommand();
    }
    void sendStatus(const FlashStatus& status) {
        Packet packet(FlashStatus::kWireSize, CANFlasher::CmdStatus);
        status.toWire(packet.getPayload());
        EXPECT_TRUE(ProprietarySocketCommon::sendPacket(packet, fd_));
    }
    void sendIdentity() {
        const std::unique_ptr<Packet> identity(
            ProprietarySocketCommon::buildIdentityPacket(42, "varnoch", "1", "t"));
        EXPECT_TRUE(ProprietarySocketCommon::sendPacket(*identity, fd_));
    }
    // The usual opening of an upload: Idle before, the request and the status request read; then `statuses`.
    void acceptUpload(const std::vector<FlashStatus>& statuses) {
        next();
        sendStatus(statusOf(1));
        next();
        next();
        for (const FlashStatus& status : statuses) {
            sendStatus(status);
        }
    }

    std::uint16_t port = 0;
    std::vector<std::uint16_t> commands;

  private:
    int listener_ = -1;
    int fd_ = -1;
    std::thread thread_;
};

struct ClientRunResult {
    int exitStatus;
    std::string out;
    std::string err;
};

ClientRunResult runAgainst(FakeDaemon& daemon, std::initializer_list<const char*> arguments,
                           bool terminal = false) {
    ClientOptions options;
    std::string error;
    EXPECT_EQ(parse(arguments, options, error), ParseOutcome::Run) << error;
    options.port = daemon.port;
    Capture out;
    Capture err;
    const int status = runClient(options, ClientStreams{out.file(), err.file(), terminal});
    daemon.join();
    return {status, out.text(), err.text()};
}

constexpr std::uint16_t kStatus = CANFlasher::CmdRequestStatus;
constexpr std::uint16_t kUpload = CANFlasher::CmdUploadHexFile;

TEST(ClientRun, FollowsAnUploadToDone) {
    char file[] = "/tmp/varnoch-flash-test-XXXXXX";
    const int fd = mkstemp(file);
    ASSERT_GE(fd, 0);
    close(fd);
    const std::string roundabout = "/tmp/../" + std::string(file).substr(1);
    std::vector<std::uint8_t> request;
    FakeDaemon daemon([&](FakeDaemon& s) {
        ASSERT_EQ(s.next(), kStatus);
        s.sendStatus(statusOf(1));
        ASSERT_EQ(s.next(&request), kUpload);
        ASSERT_EQ(s.next(), kStatus);
        s.sendStatus(statusOf(1));  // the start is still queued in the daemon
        for (const FlashStatus& status :
             {statusOf(2), statusOf(3), statusOf(4), statusOf(5, 0), statusOf(5, 50)}) {
            s.sendStatus(status);
        }
        s.sendIdentity();  // another client connected: not for us
        s.sendStatus(statusOf(5, 50));
        s.sendStatus(statusOf(6, 100));
    });
    const ClientRunResult run = runAgainst(daemon, {"upload", roundabout.c_str(), "--mode", "mtcan",
                                                    "--address", "0x26", "--identifier", "0x12345678"});
    unlink(file);
    EXPECT_EQ(run.exitStatus, 0) << run.err;
    EXPECT_EQ(run.out,
              "Preparing for upload\nSearching for device\nErasing FLASH\nProgramming 0%\nProgramming 50%\n"
              "Done 100%\n");
    EXPECT_EQ(run.err, "");
    // Mode, address, identifier little-endian, then the file's resolved absolute name and a 0 byte.
    std::vector<std::uint8_t> expected = {1, 0x26, 0x78, 0x56, 0x34, 0x12};
    expected.insert(expected.end(), file, file + sizeof file);
    EXPECT_EQ(request, expected);
}

TEST(ClientRun, MissingFileIsTheDaemonsAnswer) {
    FakeDaemon daemon([](FakeDaemon& s) {
        s.next();
        s.sendStatus(statusOf(1));
        s.next();
        s.sendStatus(statusOf(103));  // broadcast while handling the request, before the status request
        s.next();
        s.sendStatus(statusOf(103));
    });
    const ClientRunResult run = runAgainst(daemon, {"--json", "upload", "no-such.hex", "--mode", "iso"});
    EXPECT_EQ(run.exitStatus, 13);
    EXPECT_EQ(run.out, formatStatusJson(statusOf(103)) + "\n");
}

TEST(ClientRun, ResetsAnEarlierJobsResultFirst) {
    FakeDaemon daemon([](FakeDaemon& s) {
        s.next();
        s.sendStatus(statusOf(102));  // an earlier client's failed job
        ASSERT_EQ(s.next(), CANFlasher::CmdReset);
        s.sendStatus(statusOf(1));
        s.next();
        s.next();
        s.sendStatus(statusOf(2));
        s.sendStatus(statusOf(105));
    });
    const ClientRunResult run = runAgainst(daemon, {"upload", "fw.hex", "--mode", "new"});
    EXPECT_EQ(run.exitStatus, 15);
    EXPECT_EQ(daemon.commands, (std::vector<std::uint16_t>{kStatus, CANFlasher::CmdReset, kUpload, kStatus}));
    EXPECT_EQ(run.out, "Preparing for upload\nError! The hex file is incorrectly formatted.\n");
}

TEST(ClientRun, BusyDaemonGetsNoRequest) {
    FakeDaemon busy([](FakeDaemon& s) {
        s.next();
        s.sendStatus(statusOf(5, 12));
    });
    const ClientRunResult run = runAgainst(busy, {"upload", "fw.hex", "--mode", "iso"});
    EXPECT_EQ(run.exitStatus, kExitNotAccepted);
    EXPECT_EQ(run.err,
              "varnoch-flash: upload not accepted: the daemon is busy with another job (Programming, 12%)\n");
    EXPECT_EQ(busy.commands, std::vector<std::uint16_t>{kStatus});
}

TEST(ClientRun, EachWayAJobEndsHasItsExitStatus) {
    struct Case {
        std::vector<FlashStatus> statuses;  // after the request
        int exitStatus;
        std::string err;
    };
    const std::vector<Case> cases = {
        {{statusOf(2), statusOf(3), statusOf(100)}, 10, ""},
        {{statusOf(0)},
         kExitNotAccepted,
         "varnoch-flash: upload not accepted: a client holds a lock on the daemon\n"},
        {{statusOf(2), statusOf(3)}, kExitConnectionLost, "varnoch-flash: connection to the daemon lost\n"},
        {{statusOf(3), statusOf(1)}, kExitAborted, "varnoch-flash: the job was aborted (Idle)\n"},
    };
    for (const Case& c : cases) {
        FakeDaemon daemon([&c](FakeDaemon& s) { s.acceptUpload(c.statuses); });
        const ClientRunResult run = runAgainst(daemon, {"upload", "fw.hex", "--mode", "iso"}, true);
        EXPECT_EQ(run.exitStatus, c.exitStatus);
        EXPECT_EQ(run.err, c.err);
        // A redrawn progress line is ended before the tool ends or complains.
        EXPECT_TRUE(run.out.empty() || run.out.back() == '\n') << run.out;
    }
}

TEST(ClientRun, CommandsSendThenPrintTheStatus) {
    const std::vector<std::tuple<const char*, std::uint16_t, std::vector<std::uint8_t>>> cases = {
        {"lock", CANFlasher::CmdSetLock, {1}},
        {"unlock", CANFlasher::CmdSetLock, {0}},
        {"reset", CANFlasher::CmdReset, {}},
        {"exit-when-idle", CANFlasher::CmdExitWhenIdle, {}},
    };
    for (const auto& [name, command, payload] : cases) {
        std::vector<std::uint8_t> sent;
        FakeDaemon daemon([&, command = command](FakeDaemon& s) {
            EXPECT_EQ(s.next(&sent), command);
            EXPECT_EQ(s.next(), kStatus);
            s.sendStatus(statusOf(0));
        });
        const ClientRunResult run = runAgainst(daemon, {name});
        EXPECT_EQ(run.exitStatus, 0) << name;
        EXPECT_EQ(sent, payload) << name;
        EXPECT_EQ(run.out, formatStatusLine(statusOf(0)) + "\n") << name;
    }

    FakeDaemon daemon([](FakeDaemon& s) {
        s.next();
        s.sendStatus(statusOf(1));
    });
    const ClientRunResult run = runAgainst(daemon, {"--json", "status"});
    EXPECT_EQ(run.exitStatus, 0);
    EXPECT_EQ(daemon.commands, std::vector<std::uint16_t>{kStatus});
    EXPECT_EQ(run.out, formatStatusJson(statusOf(1)) + "\n");
}

TEST(ClientRun, NoDaemon) {
    std::uint16_t port = 0;
    {
        FakeDaemon gone([](FakeDaemon&) {});
        port = gone.port;
    }  // the listener is closed again: nothing listens on the port
    ClientOptions options;
    options.command = Command::Status;
    options.port = port;
    Capture out;
    Capture err;
    EXPECT_EQ(runClient(options, ClientStreams{out.file(), err.file(), false}), kExitCannotConnect);
    EXPECT_EQ(err.text(), "varnoch-flash: cannot connect to 127.0.0.1:" + std::to_string(port) +
                              ": Connection refused\n");
}

}  // namespace
