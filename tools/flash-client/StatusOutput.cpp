#include "StatusOutput.h"

namespace flashclient {

std::string formatStatusLine(const FlashStatus& status) {
    char line[256];
    std::snprintf(line, sizeof line,
                  "state %d \"%s\", mode %d \"%s\", progress %d%%, address 0x%02X (%d), identifier 0x%08X",
                  static_cast<int>(status.state), CANFlasher::stateName(status.state),
                  static_cast<int>(status.mode), CANFlasher::modeName(status.mode),
                  static_cast<int>(status.progress), static_cast<unsigned>(status.targetAddress),
                  static_cast<int>(status.targetAddress), static_cast<unsigned>(status.targetIdentifier));
    return line;
}

std::string formatChangeLine(const FlashStatus& status) {
    std::string line = CANFlasher::stateName(status.state);
    if (status.state == CANFlasher::StateProgramming || status.state == CANFlasher::StateDone) {
        line += " " + std::to_string(status.progress) + "%";
    }
    return line;
}

std::string formatProgressBar(const FlashStatus& status) {
    const int progress = status.progress < 0 ? 0 : status.progress > 100 ? 100 : status.progress;
    const int filled = progress * kProgressBarWidth / 100;
    char percent[16];
    std::snprintf(percent, sizeof percent, "%3d%%", progress);
    return "[" + std::string(static_cast<std::size_t>(filled), '#') +
           std::string(static_cast<std::size_t>(kProgressBarWidth - filled), '-') + "] " + percent + " " +
           CANFlasher::stateName(status.state);
}

void StatusPrinter::report(const FlashStatus& status) {
    const bool changed = !shown_ || status.state != last_.state || status.progress != last_.progress;
    if (!changed) {
        return;
    }
    shown_ = true;
    last_ = status;
    switch (style_) {
        case Style::Lines:
            std::fprintf(out_, "%s\n", formatChangeLine(status).c_str());
            break;
        case Style::Terminal:
            // Back to the line's start, then clear what a longer earlier text left behind.
            std::fprintf(out_, "\r%s\033[K", formatProgressBar(status).c_str());
            break;
    }
    std::fflush(out_);
}

void StatusPrinter::finish() {
    if (style_ == Style::Terminal && shown_) {
        std::fputc('\n', out_);
        std::fflush(out_);
    }
}

}  // namespace flashclient
