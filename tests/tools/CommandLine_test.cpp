// The tools' shared command-line reading: the number syntax, and the simulated module's options with
// its complaints in command-line order (those every tool shares, such as a missing value: varnoch-flash's
// test).
#include "CommandLine.h"

#include <gtest/gtest.h>

#include <iterator>
#include <sstream>

#include "SimOptions.h"

namespace {

TEST(ParseNumber, DecimalOrHexWithoutSignsBlanksOrTrailers) {
    const struct {
        const char* text;
        std::uint32_t maximum;
        bool taken;
        std::uint32_t value;
    } rows[] = {{"0", 10, true, 0},       {"4294967295", UINT32_MAX, true, UINT32_MAX},
                {"0x1F", 31, true, 31},   {"0X1f", 255, true, 31},
                {"010", 255, true, 10},   {"256", 255, false, 0},
                {"0x100", 255, false, 0}, {"99999999999999999999", UINT32_MAX, false, 0},
                {"", 255, false, 0},      {"0x", 255, false, 0},
                {"+1", 255, false, 0},    {"-1", 255, false, 0},
                {" 1", 255, false, 0},    {"12a", 255, false, 0}};
    for (const auto& row : rows) {
        std::uint32_t value = 77;
        EXPECT_EQ(toolsupport::parseNumber(row.text, row.maximum, value), row.taken) << row.text;
        EXPECT_EQ(value, row.taken ? row.value : 77u) << row.text;
    }
}

struct Parsed {
    modulesim::ParseOutcome outcome;
    std::string error;
    modulesim::SimSettings settings;
};

// `line` split at blanks.
Parsed parse(const std::string& line) {
    std::istringstream in(line);
    const std::vector<std::string> words{std::istream_iterator<std::string>(in), {}};
    std::vector<const char*> argv;
    for (const std::string& word : words) {
        argv.push_back(word.c_str());
    }
    Parsed parsed;
    parsed.outcome = modulesim::parseSimArguments(static_cast<int>(argv.size()), argv.data(), parsed.settings,
                                                  parsed.error);
    return parsed;
}

TEST(SimOptions, EveryOptionInLongShortAndEqualsForms) {
    const Parsed parsed = parse(
        "-i vcan0 --address 0x30 --identifier=7 --modes iso,global --once -v --silent --no-erase "
        "--image out.bin --flash-size 32 --drop-ack-always 2 --delay 150 --wrong-data erase,ack --traffic 9 "
        "--bitrate 250000");
    ASSERT_EQ(parsed.outcome, modulesim::ParseOutcome::Run) << parsed.error;
    const modulesim::SimSettings& s = parsed.settings;
    EXPECT_EQ(s.interfaceName, "vcan0");
    EXPECT_EQ(std::vector<std::uint32_t>({s.module.address, s.module.identifier, s.module.modes,
                                          s.module.flashPages, s.module.faults.dropAck,
                                          s.module.faults.replyDelayMs, s.module.faults.wrongData,
                                          s.runner.trafficRate, s.runner.bitrate}),
              std::vector<std::uint32_t>({0x30, 7, 0x09, 2, 2, 150, 6, 9, 250000}));
    EXPECT_TRUE(s.runner.once && s.runner.verbose && s.module.faults.silent && s.module.faults.ignoreErase &&
                s.module.faults.dropAckAlways);
    EXPECT_EQ(s.runner.imagePath, "out.bin");
    EXPECT_EQ(parse("-h --address 300").outcome, modulesim::ParseOutcome::Help);
}

TEST(SimOptions, ComplaintsNameTheOffenderAndComeInOrder) {
    const std::pair<const char*, const char*> rows[] = {
        {"", "no CAN interface given (--interface NAME)"},
        {"--address 300 -h", "invalid value '300' for --address (0..255)"},
        {"-i can0 --once=1", "option '--once' takes no value"},
        {"-i can0 --bogus=3", "unknown option '--bogus'"},
        {"-i can0 extra -h", "unexpected argument 'extra'"},
        {"-i can0 --modes iso,foo", "invalid mode list 'iso,foo' (iso, mtcan, new, global, comma-separated)"},
        {"-i can0 --flash-size 20", "invalid value '20' for --flash-size (a multiple of 16 KiB)"},
        {"-i can0 --drop-ack 0", "option '--drop-ack' counts from 1"},
        {"-i can0 --wrong-data some", "invalid value 'some' for --wrong-data (search, erase, ack or all)"},
        {"-i can0 --image=", "option '--image' needs a file name"},
        {"-i can0 --delay 60001", "invalid value '60001' for --delay (0..60000)"},
        {"-i can0 --bitrate 0", "invalid value '0' for --bitrate (1..1000000)"}};
    for (const auto& [line, error] : rows) {
        const Parsed parsed = parse(line);
        EXPECT_EQ(parsed.outcome, modulesim::ParseOutcome::Error) << line;
        EXPECT_EQ(parsed.error, error) << line;
    }
}

}  // namespace
