// How varnoch-flash shows job statuses: the one-line text form, and the printer that
// follows an upload on a terminal (one redrawn progress line) or in a log (one line per change).
#pragma once

#include <cstdio>
#include <string>

#include "varnoch/protocol/FlashTypes.h"

namespace flashclient {

using CANFlasher::FlashStatus;

// state 5 "Programming", mode 0 "ISO Style", progress 42%, address 0x26 (38), identifier 0x12345678
std::string formatStatusLine(const FlashStatus& status);
// "Programming 42%" while programming and when done; the state name alone otherwise.
std::string formatChangeLine(const FlashStatus& status);
// "[############--------]  42% Programming" (bar of kProgressBarWidth characters).
std::string formatProgressBar(const FlashStatus& status);

constexpr int kProgressBarWidth = 30;

class StatusPrinter {
  public:
    enum class Style { Terminal, Lines };

    StatusPrinter(Style style, std::FILE* out) : style_(style), out_(out) {}

    // Shows one status of the job; in the Terminal and Lines styles only a change of state or progress.
    void report(const FlashStatus& status);
    // Ends the redrawn line on a terminal; nothing otherwise.
    void finish();

  private:
    Style style_;
    std::FILE* out_;
    bool shown_ = false;
    FlashStatus last_;
};

}  // namespace flashclient
