#include "FlashClient.h"

#include <optional>
#include <string>

#include "JsonEvents.h"

namespace flashclient {

namespace {

using varnoch::client::Client;
using varnoch::client::Error;

const char* commandName(Command command) {
    switch (command) {
        case Command::Upload:
            return "upload";
        case Command::Status:
            return "status";
        case Command::Lock:
            return "lock";
        case Command::Unlock:
            return "unlock";
        case Command::Reset:
            return "reset";
        case Command::ExitWhenIdle:
            return "exit-when-idle";
        case Command::Check:
            return "check";
        case Command::None:
            break;
    }
    return "";
}

// One run of the tool: its failures go to standard error and, with --json, into the result line,
// which is always the last line printed.
class Run {
  public:
    Run(const ClientOptions& options, const ClientStreams& streams)
        : options_(options), streams_(streams), events_(streams.out) {
        result_.command = commandName(options.command);
    }

    int fail(int exitStatus, const std::string& text) {
        std::fprintf(streams_.err, "varnoch-flash: %s\n", text.c_str());
        std::fflush(streams_.err);
        result_.error = text;
        return exitStatus;
    }
    int lost() { return fail(kExitConnectionLost, "connection to the daemon lost"); }
    int noAnswer(const char* what) {
        return fail(kExitConnectionLost, std::string("the daemon did not ") + what + " within " +
                                             std::to_string(kAnswerTimeoutSeconds) + " s");
    }
    // A failure that is not about the job itself.
    int failed(Error error) { return error == Error::TimedOut ? noAnswer("answer") : lost(); }

    int finish(int exitStatus) {
        if (options_.json) {
            result_.exitStatus = exitStatus;
            events_.result(result_);
        }
        return exitStatus;
    }

    int connectAndRun() {
        Client client;
        const Error connected = client.connect(options_.host, options_.port, kAnswerTimeout);
        if (connected == Error::TimedOut || connected == Error::ConnectionLost) {
            return failed(connected);
        }
        if (connected != Error::None) {
            return fail(kExitCannotConnect, client.errorText());
        }
        if (options_.json) {
            events_.identity(client.identity());
        }
        return options_.command == Command::Upload ? upload(client) : query(client);
    }

    int check() {
        const toolcommon::HexCheck check = toolcommon::checkHexFile(options_.file);
        result_.state = check.state;
        if (options_.json) {
            result_.checkJson = checkJson(check, options_.file, options_.bitrate);
        } else {
            std::fputs(checkText(check, options_.file, options_.bitrate).c_str(), streams_.out);
        }
        return check.state == CANFlasher::StatePreparing ? kExitDone : exitStatusForState(check.state);
    }

  private:
    int upload(Client& client) {
        std::optional<ProgrammingClock> clock;
        if (options_.json) {
            // The client's own load of the file: the messages the daemon will send, and the image.
            const toolcommon::HexCheck check = toolcommon::checkHexFile(options_.file);
            const bool loaded = check.state == CANFlasher::StatePreparing;
            result_.withSha256 = true;
            result_.sha256 = loaded ? check.sha256 : "";
            clock.emplace(loaded ? check.messages : 0);
        }
        const StatusPrinter::Style style =
            streams_.terminal ? StatusPrinter::Style::Terminal : StatusPrinter::Style::Lines;
        StatusPrinter printer(style, streams_.out);
        varnoch::client::UploadRequest request;
        request.file = options_.file;
        request.mode = options_.mode;
        request.address = options_.address;
        request.identifier = options_.identifier;
        request.startTimeout = kAnswerTimeout;
        const varnoch::client::UploadResult result = client.upload(request, [&](const FlashStatus& status) {
            if (clock) {
                events_.status(status, clock->at(status, std::chrono::steady_clock::now()));
            } else {
                printer.report(status);
            }
        });
        printer.finish();
        if (!result.states.empty() || result.error == Error::NotAccepted) {  // a status was seen
            result_.state = result.status.state;
        }
        result_.states = result.states;
        result_.total = result.total;
        switch (result.error) {
            case Error::None:
            case Error::JobFailed:
                return exitStatusForState(result.status.state);
            case Error::NotAccepted:
                if (result.status.state == CANFlasher::StateLocked) {
                    return fail(kExitNotAccepted, "upload not accepted: a client holds a lock on the daemon");
                }
                return fail(kExitNotAccepted,
                            std::string("upload not accepted: the daemon is busy with another job (") +
                                CANFlasher::stateName(result.status.state) + ", " +
                                std::to_string(result.status.progress) + "%)");
            case Error::StartTimedOut:
                return noAnswer("start the upload");
            case Error::Aborted:
                return fail(kExitAborted, std::string("the job was aborted (") +
                                              CANFlasher::stateName(result.status.state) + ")");
            case Error::TimedOut:
            case Error::ConnectionLost:
            case Error::NotConnected:
            case Error::CannotResolve:
            case Error::Refused:
            case Error::CannotConnect:
            case Error::InvalidArgument:
            case Error::InCallback:
                break;
        }
        return failed(result.error);
    }

    int query(Client& client) {
        Error sent = Error::None;
        switch (options_.command) {
            case Command::Lock:
                sent = client.lock();
                break;
            case Command::Unlock:
                sent = client.unlock();
                break;
            case Command::Reset:
                sent = client.reset();
                break;
            case Command::ExitWhenIdle:
                sent = client.exitWhenIdle();
                break;
            case Command::Status:
            case Command::Upload:
            case Command::Check:
            case Command::None:
                break;
        }
        if (sent != Error::None) {
            return lost();
        }
        // Answered after the command has been handled, so the status shows its effect.
        const varnoch::client::Result<FlashStatus> status = client.status(kAnswerTimeout);
        if (!status) {
            return failed(status.error);
        }
        result_.state = status.value.state;
        if (options_.json) {
            events_.status(status.value, std::nullopt);
        } else {
            std::fprintf(streams_.out, "%s\n", formatStatusLine(status.value).c_str());
            std::fflush(streams_.out);
        }
        return kExitDone;
    }

    const ClientOptions& options_;
    const ClientStreams& streams_;
    EventWriter events_;
    ResultEvent result_;
};

}  // namespace

int runClient(const ClientOptions& options, const ClientStreams& streams) {
    Run run(options, streams);
    return run.finish(options.command == Command::Check ? run.check() : run.connectAndRun());
}

}  // namespace flashclient
