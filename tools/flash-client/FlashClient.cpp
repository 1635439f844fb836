#include "FlashClient.h"

#include <string>

namespace flashclient {

namespace {

using CANFlasher::FlashStatus;

constexpr std::uint8_t kLockOn = 1;
constexpr std::uint8_t kLockOff = 0;

int lost(std::FILE* err) {
    std::fprintf(err, "varnoch-flash: connection to the daemon lost\n");
    return kExitConnectionLost;
}

int noAnswer(std::FILE* err, const char* what) {
    std::fprintf(err, "varnoch-flash: the daemon did not %s within %d s\n", what, kAnswerTimeoutMs / 1000);
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

}  // namespace

int followUpload(DaemonLink& link, const ClientOptions& options, const std::string& path,
                 StatusPrinter& printer, std::FILE* err) {
    // The daemon answers an upload request only by broadcasts, and ignores it unless Idle: learn
    // the state first, so that what follows can be told apart from an earlier job's leftovers.
    FlashStatus status;
    if (!link.send(CANFlasher::CmdRequestStatus)) {
        return lost(err);
    }
    switch (link.nextStatus(status, kAnswerTimeoutMs)) {
        case DaemonLink::Wait::Closed:
            return lost(err);
        case DaemonLink::Wait::TimedOut:
            return noAnswer(err, "answer");
        case DaemonLink::Wait::Status:
            break;
    }
    if (CANFlasher::isBusyState(status.state)) {
        return notAccepted(err, status);
    }
    // A Done or failed job blocks new uploads until someone resets it; anyone may.
    const bool leftover = status.state == CANFlasher::StateDone || CANFlasher::isErrorState(status.state);
    if (leftover && !link.send(CANFlasher::CmdReset)) {
        return lost(err);
    }
    const std::vector<std::uint8_t> payload =
        buildUploadPayload(options.mode, options.address, options.identifier, path);
    // The status request after the upload request is answered only once the upload request has been
    // handled (one client's packets are handled in order): a Locked answer means it was refused.
    if (!link.send(CANFlasher::CmdUploadHexFile, payload.data(),
                   static_cast<std::uint32_t>(payload.size())) ||
        !link.send(CANFlasher::CmdRequestStatus)) {
        return lost(err);
    }

    bool started = false;
    while (true) {
        // Once the job runs, the daemon's own time-outs guarantee that it ends: no limit of ours.
        switch (link.nextStatus(status, started ? -1 : kAnswerTimeoutMs)) {
            case DaemonLink::Wait::Closed:
                printer.finish();
                return lost(err);
            case DaemonLink::Wait::TimedOut:
                return noAnswer(err, "start the upload");
            case DaemonLink::Wait::Status:
                break;
        }
        const std::int32_t state = status.state;
        if (!started) {
            if (state == CANFlasher::StatePreparing || state == CANFlasher::StateSearching) {
                started = true;
            } else if (state == CANFlasher::StateErrFileNotFound) {
                // The one answer to the request itself: the daemon did not find the file.
                printer.report(status);
                printer.finish();
                return exitStatusForState(state);
            } else if (state == CANFlasher::StateLocked || CANFlasher::isBusyState(state)) {
                return notAccepted(err, status);
            } else {
                continue;  // Idle: the start is still queued in the daemon; or the reset's broadcast
            }
        }
        printer.report(status);
        if (state == CANFlasher::StateDone || CANFlasher::isErrorState(state)) {
            printer.finish();
            return exitStatusForState(state);
        }
        if (state == CANFlasher::StateIdle || state == CANFlasher::StateLocked) {
            printer.finish();
            std::fprintf(err, "varnoch-flash: the job was aborted (%s)\n", CANFlasher::stateName(state));
            return kExitAborted;
        }
    }
}

int queryStatus(DaemonLink& link, Command command, bool json, std::FILE* out, std::FILE* err) {
    bool sent = true;
    switch (command) {
        case Command::Lock:
            sent = link.send(CANFlasher::CmdSetLock, &kLockOn, 1);
            break;
        case Command::Unlock:
            sent = link.send(CANFlasher::CmdSetLock, &kLockOff, 1);
            break;
        case Command::Reset:
            sent = link.send(CANFlasher::CmdReset);
            break;
        case Command::ExitWhenIdle:
            sent = link.send(CANFlasher::CmdExitWhenIdle);
            break;
        case Command::Status:
        case Command::Upload:
        case Command::None:
            break;
    }
    // Answered after the command has been handled, so the status shows its effect.
    if (!sent || !link.send(CANFlasher::CmdRequestStatus)) {
        return lost(err);
    }
    FlashStatus status;
    switch (link.nextStatus(status, kAnswerTimeoutMs)) {
        case DaemonLink::Wait::Closed:
            return lost(err);
        case DaemonLink::Wait::TimedOut:
            return noAnswer(err, "answer");
        case DaemonLink::Wait::Status:
            break;
    }
    std::fprintf(out, "%s\n", (json ? formatStatusJson(status) : formatStatusLine(status)).c_str());
    std::fflush(out);
    return kExitDone;
}

int runClient(const ClientOptions& options, const ClientStreams& streams) {
    std::string error;
    const std::unique_ptr<DaemonLink> link = DaemonLink::connect(options.host, options.port, error);
    if (!link) {
        std::fprintf(streams.err, "varnoch-flash: %s\n", error.c_str());
        return kExitCannotConnect;
    }
    if (options.command != Command::Upload) {
        return queryStatus(*link, options.command, options.json, streams.out, streams.err);
    }
    const StatusPrinter::Style style = options.json       ? StatusPrinter::Style::Json
                                       : streams.terminal ? StatusPrinter::Style::Terminal
                                                          : StatusPrinter::Style::Lines;
    StatusPrinter printer(style, streams.out);
    return followUpload(*link, options, absolutePath(options.file), printer, streams.err);
}

}  // namespace flashclient
