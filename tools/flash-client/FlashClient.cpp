#include "FlashClient.h"

#include <string>

namespace flashclient {

namespace {

using varnoch::client::Client;
using varnoch::client::Error;

int lost(std::FILE* err) {
    std::fprintf(err, "varnoch-flash: connection to the daemon lost\n");
    return kExitConnectionLost;
}

int noAnswer(std::FILE* err, const char* what) {
    std::fprintf(err, "varnoch-flash: the daemon did not %s within %d s\n", what, kAnswerTimeoutSeconds);
    return kExitConnectionLost;
}

int notAccepted(std::FILE* err, const FlashStatus& status) {
    if (status.state == CANFlasher::StateLocked) {
        std::fprintf(err, "varnoch-flash: upload not accepted: a client holds a lock on the daemon\n");
    } else {
        std::fprintf(err,
                     "varnoch-flash: upload not accepted: the daemon is busy with another job (%s, %d%%)\n",
                     CANFlasher::stateName(status.state), static_cast<int>(status.progress));
    }
    return kExitNotAccepted;
}

// The exit status and message of a failure that is not about the job itself.
int failed(Error error, std::FILE* err) {
    return error == Error::TimedOut ? noAnswer(err, "answer") : lost(err);
}

}  // namespace

int followUpload(Client& client, const ClientOptions& options, StatusPrinter& printer, std::FILE* err) {
    varnoch::client::UploadRequest request;
    request.file = options.file;
    request.mode = options.mode;
    request.address = options.address;
    request.identifier = options.identifier;
    request.startTimeout = kAnswerTimeout;
    const varnoch::client::UploadResult result =
        client.upload(request, [&printer](const FlashStatus& status) { printer.report(status); });
    printer.finish();
    switch (result.error) {
        case Error::None:
        case Error::JobFailed:
            return exitStatusForState(result.status.state);
        case Error::NotAccepted:
            return notAccepted(err, result.status);
        case Error::StartTimedOut:
            return noAnswer(err, "start the upload");
        case Error::Aborted:
            std::fprintf(err, "varnoch-flash: the job was aborted (%s)\n",
                         CANFlasher::stateName(result.status.state));
            return kExitAborted;
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
    return failed(result.error, err);
}

int queryStatus(Client& client, Command command, bool json, std::FILE* out, std::FILE* err) {
    Error sent = Error::None;
    switch (command) {
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
        case Command::None:
            break;
    }
    if (sent != Error::None) {
        return lost(err);
    }
    // Answered after the command has been handled, so the status shows its effect.
    const varnoch::client::Result<FlashStatus> status = client.status(kAnswerTimeout);
    if (!status) {
        return failed(status.error, err);
    }
    std::fprintf(out, "%s\n",
                 (json ? formatStatusJson(status.value) : formatStatusLine(status.value)).c_str());
    std::fflush(out);
    return kExitDone;
}

int runClient(const ClientOptions& options, const ClientStreams& streams) {
    Client client;
    const Error connected = client.connect(options.host, options.port, kAnswerTimeout);
    if (connected == Error::TimedOut || connected == Error::ConnectionLost) {
        return failed(connected, streams.err);
    }
    if (connected != Error::None) {
        std::fprintf(streams.err, "varnoch-flash: %s\n", client.errorText().c_str());
        return kExitCannotConnect;
    }
    if (options.command != Command::Upload) {
        return queryStatus(client, options.command, options.json, streams.out, streams.err);
    }
    const StatusPrinter::Style style = options.json       ? StatusPrinter::Style::Json
                                       : streams.terminal ? StatusPrinter::Style::Terminal
                                                          : StatusPrinter::Style::Lines;
    StatusPrinter printer(style, streams.out);
    return followUpload(client, options, printer, streams.err);
}

}  // namespace flashclient
