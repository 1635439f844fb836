// The trace's decoding: can-utils' log lines read and written, and captures (as log text) summarised
// with the finding each fault leaves.
#include <gtest/gtest.h>

#include <sstream>

#include "CandumpLog.h"
#include "Dialogue.h"
#include "Report.h"

namespace {

using namespace trace;

TEST(TraceLog, LinesReadAndWrittenAsCandumpDoes) {
    TimedFrame timed;
    std::string name;
    // Identifiers are written with 3 or 8 digits, as the frame is standard or extended.
    for (const auto& [line, written] :
         {std::pair{"(0000000001.999999) vcan1 0c4#03fe", "(0000000001.999999) vcan1 0C4#03FE\n"},
          {"(1700000000.000100) can0 00000084#2000", "(1700000000.000100) can0 00000084#2000\n"}}) {
        ASSERT_EQ(parseLogLine(line, timed, &name), LogLine::Frame) << line;
        EXPECT_EQ(formatLogLine(timed, name), written);
    }
    for (const char* line : {"", "(1700000000.000100) can0 123#R", "(1700000000.000100) can0 123##1AABB",
                             "(1700000000.000100) can0 20000004#0004000000000000"}) {
        EXPECT_EQ(parseLogLine(line, timed), LogLine::Skipped) << line;
    }
    for (const char* line :
         {"1700000000.000100 can0 123#00", "(1700000000.0001) can0 123#00",
          "(1700000000.000100) can0 1234#00", "(1700000000.000100) can0 123#001122334455667788",
          "(1700000000.000100) can0 80000000#00", "(1700000000.000100) can0 12G#00"}) {
        EXPECT_EQ(parseLogLine(line, timed), LogLine::Malformed) << line;
    }
}

// The summary of a capture given as log lines.
std::string summaryOf(const std::string& log) {
    Dialogue dialogue;
    std::istringstream lines(log);
    for (std::string line; std::getline(lines, line);) {
        TimedFrame timed;
        EXPECT_EQ(parseLogLine(line, timed), LogLine::Frame) << line;
        dialogue.add(timed);
    }
    return summaryReport(dialogue);
}

// The upload of the worked example (6 bytes at 0), every request answered at once.
constexpr char kDone[] =
    "(0000000010.000000) can0 18EF26C0#FF50726F6772616D\n"
    "(0000000010.001000) can0 00000084#2000\n"
    "(0000000010.002000) can0 000000C4#03FE000000000000\n"
    "(0000000010.500000) can0 000001C4#03FE0000\n"
    "(0000000010.501000) can0 000000C4#0400000000000000\n"
    "(0000000010.502000) can0 000001C4#040000\n"
    "(0000000010.503000) can0 000000C4#0500000411223344\n"
    "(0000000010.504000) can0 000001C4#0500\n"
    "(0000000010.505000) can0 000000C4#0504000255663344\n"
    "(0000000010.506000) can0 000001C4#0500\n"
    "(0000000010.507000) can0 000000C4#0400000000000000\n"
    "(0000000010.508000) can0 000001C4#040000\n"
    "(0000000010.509000) can0 000000C4#0601000000000000\n"
    "(0000000010.511000) can0 000001C4#0600\n"
    "(0000000010.512000) can0 1F800434#00\n";

struct Fault {
    const char* name;
    const char* log;
    const char* lines;  // expected in the summary, in this order
};

TEST(TraceSummary, TheWorkedExampleEndsDoneAndEachFaultLeavesItsFinding) {
    const Fault rows[] = {
        {"worked example", kDone,
         "Summary of job 1 of 1\n"
         "  dialect:     \"ISO Style\", address 0x26\n"
         "  written:     6 bytes in 1 ranges: 0x00000000..0x00000005\n"
         "  messages:    5 of 5 acknowledged (1 page selects, 2 data, 2 end)\n"
         "  requests:    8, sent 8 times (repeats: 0)\n"
         "  longest gap: 0.498 s, during the erase\n"
         "  throughput:  6 bytes in 0.010 s: 600 bytes/s, 500 messages/s\n"
         "  ended:       Done\n"
         "  finding:     none\n"},
        {"silent",
         "(0000000000.000000) can0 1FF00444#2000007856341200\n(0000000001.000000) can0 "
         "1F800444#2000007856341200\n"
         "(0000000002.000000) can0 1FF00444#2000007856341200\n(0000000003.000000) can0 "
         "1F800444#2000007856341200\n"
         "(0000000004.000000) can0 1FF00444#2000007856341200\n(0000000005.000000) can0 "
         "1F800444#2000007856341200\n",
         "  dialect:     \"MT CAN\", identifier 0x12345678\n"
         "  written:     0 bytes in 0 ranges\n"
         "  messages:    0 of 0 acknowledged (0 page selects, 0 data, 0 end)\n"
         "  requests:    1, sent 6 times (repeats: 5)\n"
         "  longest gap: 1.000 s, during the search \"MT CAN\", identifier 0x12345678\n"
         "  throughput:  nothing acknowledged\n"
         "  ended:       Error! Device not found. (6x search \"MT CAN\", identifier 0x12345678 without a "
         "reply)\n"
         "  finding:     repeats: 5\n  finding:     unanswered requests: 6\n"},
        {"no erase",
         "(0000000000.000000) can0 00000000#\n(0000000000.001000) can0 00000084#2000\n"
         "(0000000000.002000) can0 000000C4#03FE000000000000\n(0000000001.002000) can0 "
         "000000C4#03FE000000000000\n"
         "(0000000002.002000) can0 000000C4#03FE000000000000\n(0000000003.002000) can0 "
         "000000C4#03FE000000000000\n",
         "  ended:       Error! Timed out while waiting for FLASH erase. (4x erase without a reply, after "
         "the search was answered)\n  finding:     repeats: 3\n  finding:     unanswered requests: 4\n"},
        {"dropped acknowledgement, job unfinished",
         "(0000000000.000000) can0 00000000#\n(0000000000.001000) can0 00000084#2000\n"
         "(0000000000.002000) can0 000000C4#03FE000000000000\n(0000000000.003000) can0 000001C4#03FE0000\n"
         "(0000000000.004000) can0 000000C4#0401000000000000\n(0000000001.004000) can0 "
         "000000C4#0401000000000000\n"
         "(0000000001.005000) can0 000001C4#040100\n",
         "  ended:       not ended: the capture stops after the reply to the page select 1\n"
         "  finding:     repeats: 1\n  finding:     unanswered requests: 1\n"},
        {"late replies: the first search answered after the repeat, then once more",
         "(0000000000.000000) can0 18EF26C0#FF50726F6772616D\n(0000000001.000000) can0 "
         "18EF26C0#FF50726F6772616D\n"
         "(0000000001.100000) can0 00000084#2000\n(0000000001.101000) can0 000000C4#03FE000000000000\n"
         "(0000000002.100000) can0 00000084#2000\n",
         "  finding:     replies after 1 s: 1 (longest 1.100 s)\n"},
        {"wrong data",
         "(0000000000.000000) can0 18EF26C0#FF50726F6772616D\n(0000000000.001000) can0 00000084#2001\n",
         "  ended:       not ended: the capture stops while the search \"ISO Style\", address 0x26 waits for "
         "its reply (sent 1x)\n  finding:     unanswered requests: 1\n  finding:     wrong replies: 1\n"},
        {"unrelated traffic",
         "(0000000000.000000) can0 123#00\n(0000000001.000000) can0 18EF26C0#FF50726F6772616D\n"
         "(0000000001.500000) can0 123#00\n(0000000001.750000) can0 18FEF100#0011\n"
         "(0000000002.000000) can0 00000084#2000\n",
         "  finding:     unrelated frames: 2, 2.0 per second\n"},
    };
    for (const Fault& row : rows) {
        const std::string summary = summaryOf(row.log);
        EXPECT_NE(summary.find(row.lines), std::string::npos) << row.name << ":\n" << summary;
    }
}

}  // namespace
