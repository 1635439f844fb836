// The decoded dialogue as text: one line for each step worth a look (or every step), and a summary of
// each job with its findings. The same frames always give the same text.
#pragma once

#include <string>

#include "Dialogue.h"

namespace trace {

/// One line a step: time from the job's first request, the request, its sends, the reply's latency,
/// late and wrong replies and unrelated frames a second. Without `every`, only the search, the erase
/// and steps that were repeated, unanswered or got a late or wrong reply.
std::string stepsReport(const Dialogue& dialogue, bool every);

/// Per job: dialect and target, bytes and address ranges written, messages, requests and repeats, the
/// longest gap, throughput, how the job ended, and one "finding:" line per kind of trouble.
std::string summaryReport(const Dialogue& dialogue);

/// The request in words, e.g. "data 0x00003FF8, 4 bytes".
std::string describe(const Step& step);

}  // namespace trace
