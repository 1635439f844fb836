// varnoch-flash: its command line and exit statuses, the texts it prints, its check of a file and its
// dialogue with a scripted daemon on loopback TCP (tests/support/FakeDaemon.h).
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <iterator>
#include <sstream>

#include "FakeDaemon.h"
#include "FlashClient.h"
#include "JsonSchema.h"
#include "TempDir.h"

namespace {

using namespace flashclient;
using ::testing::HasSubstr;

struct Parsed {
    ParseOutcome outcome;
    ClientOptions options;
    std::string error;
};

// `arguments` split at blanks.
Parsed parse(const std::string& arguments) {
    std::istringstream in(arguments);
    const std::vector<std::string> texts{std::istream_iterator<std::string>(in), {}};
    std::vector<const char*> argv;
    for (const std::string& text : texts) {
        argv.push_back(text.c_str());
    }
    Parsed parsed;
    parsed.outcome =
        parseClientArguments(static_cast<int>(argv.size()), argv.data(), parsed.options, parsed.error);
    return parsed;
}

TEST(ClientOptions, EveryOptionInAnyOrderTheDefaultsTheRefusalsAndTheExitStatuses) {
    const auto summary = [](const std::string& arguments) {
        const Parsed parsed = parse(arguments);
        const ClientOptions& o = parsed.options;
        EXPECT_EQ(parsed.outcome, ParseOutcome::Run) << parsed.error;
        return o.file + " " + o.host + ":" + std::to_string(o.port) + " mode " + std::to_string(o.mode) +
               " address " + std::to_string(o.address) + " identifier " + std::to_string(o.identifier) +
               " bitrate " + std::to_string(o.bitrate) + (o.json ? " json" : "");
    };
    EXPECT_EQ(summary("--json upload --mode mtcan fw.hex --host=::1 --address 0x26 --identifier=305419896 "
                      "--port 42000"),
              "fw.hex ::1:42000 mode 1 address 38 identifier 305419896 bitrate 250000 json");
    EXPECT_EQ(summary("check --bitrate 0x7A120 fw.hex --json"),
              "fw.hex 127.0.0.1:41265 mode -1 address 254 identifier 4294967295 bitrate 500000 json");
    EXPECT_EQ(summary("upload f --mode global"),
              "f 127.0.0.1:41265 mode 3 address 254 identifier 4294967295 bitrate 250000");
    EXPECT_EQ(parse("upload --help").outcome, ParseOutcome::Help);
    // clang-format off
    const std::pair<const char*, const char*> refused[] = {
        {"", "no command given"}, {"flash", "unknown command 'flash'"},
        {"upload --mode iso", "upload needs a FILE"},
        {"upload f.hex", "upload needs --mode (iso, mtcan, new or global)"},
        {"upload f.hex --mode ISO", "invalid mode 'ISO' (iso, mtcan, new or global)"},
        {"upload f.hex --mode iso --address 256", "invalid value '256' for --address (0..255)"},
        {"upload a.hex b.hex --mode iso", "unexpected argument 'b.hex'"},
        {"status --address 1", "option '--address' belongs to upload"},
        {"status --port 0", "invalid value '0' for --port (1..65535)"},
        {"status --port", "option '--port' needs a value"}, {"status -x", "unknown option '-x'"},
        {"check", "check needs a FILE"}, {"check f --mode iso", "option '--mode' belongs to upload"},
        {"status --bitrate 1", "option '--bitrate' belongs to check"},
        {"check f --bitrate 0", "invalid value '0' for --bitrate (1..1000000)"},
        {"check f --bitrate 1000001", "invalid value '1000001' for --bitrate (0..1000000)"},
    };
    const std::pair<int, int> statuses[] = {{6, 0}, {100, 10}, {101, 11}, {102, 12}, {103, 13}, {104, 14},
                                            {105, 15}, {106, 19}, {250, 19}};
    // clang-format on
    for (const auto& [arguments, message] : refused) {
        const Parsed parsed = parse(arguments);
        EXPECT_EQ(parsed.outcome, ParseOutcome::Error) << arguments;
        EXPECT_EQ(parsed.error, message);
    }
    for (const auto& [state, status] : statuses) {
        EXPECT_EQ(exitStatusForState(state), status) << state;
    }
}

// What was written to `file` (a tmpfile()), which is closed.
std::string textOf(std::FILE* file) {
    std::string text(static_cast<std::size_t>(std::ftell(file)), '\0');
    std::rewind(file);
    text.resize(std::fread(text.data(), 1, text.size(), file));
    std::fclose(file);
    return text;
}

TEST(StatusOutput, StatusLineAndProgressBar) {
    EXPECT_EQ(
        formatStatusLine({CANFlasher::ModeMtCan, 5, 42, 0x26, 0x12345678}),
        "state 5 \"Programming\", mode 1 \"MT CAN\", progress 42%, address 0x26 (38), identifier 0x12345678");
    EXPECT_EQ(formatProgressBar({CANFlasher::ModeMtCan, 5, 50, 0x26, 0x12345678}),
              "[" + std::string(15, '#') + std::string(15, '-') + "]  50% Programming");
}

// What the client printed, the commands it sent (as numbers) and the payload of its last one with a payload.
struct Outcome {
    int exitStatus;
    std::string out, err, commands;
    std::vector<std::uint8_t> payload;
};

// Runs `arguments`; with a `script`, against a daemon that answers the client's first status request
// with it (FakeDaemon::serve's words: states, "state/progress", "id" for another client's identity
// packet), the stream then ending.
Outcome runAgainst(const std::string& arguments, const std::string& script = "", bool terminal = false) {
    Parsed parsed = parse(arguments);
    EXPECT_EQ(parsed.outcome, ParseOutcome::Run) << parsed.error;
    fakedaemon::FakeDaemon daemon;
    if (!script.empty()) {
        daemon.serve("await:1001 " + script);
        parsed.options.port = static_cast<std::uint16_t>(daemon.port());
    }
    std::FILE* out = std::tmpfile();
    std::FILE* err = std::tmpfile();
    Outcome run{};
    run.exitStatus = runClient(parsed.options, ClientStreams{out, err, terminal});
    run.commands = daemon.commands();
    for (const fakedaemon::Packet& packet : daemon.finish()) {
        if (!packet.payload.empty()) {
            run.payload = packet.payload;
        }
    }
    run.out = textOf(out);
    run.err = textOf(err);
    return run;
}

TEST(ClientRun, EachWayARunEndsHasItsExitStatus) {
    const TempDir folder;
    // One data record of four bytes, then the end-of-file record; then a byte count beyond its line; then
    // a wrong checksum.
    const std::string good = folder.write("good.hex", ":040000001122334452\n:00000001FF\n");
    const std::string bad = folder.write("bad.hex", ":040000001122334452\n:0400000011223352\n");
    const std::string sum = folder.write("sum.hex", ":040000001122334453\n");
    const std::string file = folder.write("fw.hex", "");
    const std::string upload =
        "upload " + folder.path() + "/./fw.hex --mode mtcan --address 0x26 --identifier 0x12345678";
    const char* const done = "1 1 2 3 4 5/0 5/50 id 5/50 6/100";
    const std::string line =
        "state 0 \"Locked\", mode 1 \"MT CAN\", progress 0%, address 0x26 (38), identifier 0x12345678\n";
    // clang-format off
    // The text is standard output, then standard error; without a script no daemon is served.
    const struct {
        std::string arguments; const char* script; int exitStatus; std::string text; const char* commands;
    } cases[] = {
        {upload, done, 0, "Preparing for upload\nSearching for device\nErasing FLASH\nProgramming 0%\n"
         "Programming 50%\nDone 100%\n", "1001 1004 1001"},
        {"upload f --mode new", "102 1 2 105", 15,
         "Preparing for upload\nError! The hex file is incorrectly formatted.\n", "1001 1002 1004 1001"},
        {"upload f --mode iso", "5/12", kExitNotAccepted,
         "varnoch-flash: upload not accepted: the daemon is busy with another job (Programming, 12%)\n",
         "1001"},
        {"upload f --mode iso", "1 0", kExitNotAccepted,
         "varnoch-flash: upload not accepted: a client holds a lock on the daemon\n", "1001 1004 1001"},
        {"upload f --mode iso", "1 2", kExitConnectionLost,
         "Preparing for upload\nvarnoch-flash: connection to the daemon lost\n", "1001 1004 1001"},
        {"upload f --mode iso", "1 3 1", kExitAborted,
         "Searching for device\nIdle\nvarnoch-flash: the job was aborted (Idle)\n", "1001 1004 1001"},
        {"lock", "0", 0, line, "1003 1001"},
        {"unlock", "0", 0, line, "1003 1001"},
        {"reset", "0", 0, line, "1002 1001"},
        {"exit-when-idle", "0", 0, line, "1005 1001"},
        // Port 1 is privileged: nothing of a test listens there.
        {"--port 1 lock", "", kExitCannotConnect,
         "varnoch-flash: cannot connect to 127.0.0.1:1: Connection refused\n", ""},
        {"check " + good, "", 0,
         good + ": the daemon takes it\nrecords 2, upload messages 4, page selects 1, data bytes 4\n"
         "written: 0x00000000-0x00000003\nimage SHA-256 (lowest to highest written address, gaps 0xFF): "
         "1a835ed8734f86355ca5b835d824d486993aabf1913cd3a011b7446c0514b7c9\n"
         "bus time at 250000 bit/s: at least 3.488 ms (872 bits of upload messages and their "
         "acknowledgements)\n", ""},
        {"check " + bad, "", 15,
         bad + ": refused: state 105 \"Error! The hex file is incorrectly formatted.\", line 2: byte count "
         "beyond the line\n", ""},
        {"check " + sum, "", 15,
         sum + ": refused: state 105 \"Error! The hex file is incorrectly formatted.\", line 1: "
         "checksum\n", ""},
        {"check " + folder.path("none.hex"), "", 14,
         folder.path("none.hex") + ": refused: state 104 \"Error! Unable to open the hex file.\"\n", ""},
    };
    // clang-format on
    for (const auto& row : cases) {
        const Outcome run = runAgainst(row.arguments, row.script);
        EXPECT_EQ(run.exitStatus, row.exitStatus) << row.arguments;
        EXPECT_EQ(run.out + run.err, row.text) << row.arguments;
        EXPECT_EQ(run.commands, row.commands) << row.arguments;
        const std::string drawn = runAgainst(row.arguments, row.script, true).out;
        EXPECT_TRUE(drawn.empty() || drawn.back() == '\n') << row.arguments;
    }
    // Mode, address, identifier little-endian, then the file's resolved absolute name and a 0 byte.
    std::vector<std::uint8_t> expected = {1, 0x26, 0x78, 0x56, 0x34, 0x12};
    expected.insert(expected.end(), file.c_str(), file.c_str() + file.size() + 1);
    EXPECT_EQ(runAgainst(upload, done).payload, expected);
    EXPECT_EQ(runAgainst("lock", "0").payload, std::vector<std::uint8_t>{1});
    EXPECT_EQ(runAgainst("unlock", "0").payload, std::vector<std::uint8_t>{0});
    EXPECT_THAT(runAgainst("check " + good + " --bitrate 1").out,
                HasSubstr("\nbus time at 1 bit/s: at least 872.000 s ("));
}

// Every line printed with --json, checked against docs/json-events.schema.json.
std::vector<std::string> jsonLines(const std::string& text) {
    EXPECT_EQ(jsonschema::checkLines(text), "");
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) {
        lines.push_back(line);
    }
    return lines;
}

std::string eventsOf(const std::vector<std::string>& lines) {
    std::string events;
    for (const std::string& line : lines) {
        const std::size_t at = line.find("\"event\":\"") + 9;
        events += (events.empty() ? "" : " ") + line.substr(at, line.find('"', at) - at);
    }
    return events;
}

TEST(ClientJson, EveryLineFollowsTheSchemaAndTheResultComesLast) {
    const TempDir folder;
    // Six upload messages: page selects and data around a page end, and the two end messages.
    const std::string file = folder.write("fw.hex", ":063FFE00010203040506A8\n:00000001FF\n");
    const struct {
        std::string arguments;
        const char* script;
        const char* events;
        const char* result;  // part of the result line
    } cases[] = {
        {"--json status", "0", "identity status result",
         R"("command":"status","exitStatus":0,"state":0,"stateName":"Locked","states":[],"totalMs":0)"},
        {"--json upload f --mode iso", "5/12", "identity result",
         R"("state":5,"stateName":"Programming","states":[],"totalMs":0,"sha256":null,"error":"upload not )"
         R"x(accepted: the daemon is busy with another job (Programming, 12%)")x"},
        {"--json --port 1 lock", "", "result",
         R"("command":"lock","exitStatus":3,"state":null,"stateName":null,"states":[],"totalMs":0,)"
         R"("error":"cannot connect to 127.0.0.1:1: Connection refused"})"},
        {"--json check " + file, "", "result", R"("command":"check","exitStatus":0,"state":2,)"},
    };
    for (const auto& c : cases) {
        const std::vector<std::string> lines = jsonLines(runAgainst(c.arguments, c.script).out);
        EXPECT_EQ(eventsOf(lines), c.events) << c.arguments;
        EXPECT_THAT(lines.back(), HasSubstr(c.result));
    }
    const std::vector<std::string> upload =
        jsonLines(runAgainst("--json upload " + file + " --mode iso", "1 2 3 4 5/0 5/16 5/33 6/100").out);
    EXPECT_EQ(eventsOf(upload), "identity status status status status status status status result");
    // Programming: the messages done are the first count that reaches the daemon's percentage.
    EXPECT_THAT(upload[5], HasSubstr(R"("progress":16,"address":38,"identifier":305419896,"messagesDone":1,)"
                                     R"("messagesTotal":6,"remainingMs":)"));
    EXPECT_THAT(upload[6],
                HasSubstr(R"("progress":33,"address":38,"identifier":305419896,"messagesDone":2,)"));
    // No estimate before the first message.
    EXPECT_THAT(upload[4], HasSubstr(R"("messagesDone":0,"messagesTotal":6})"));
    EXPECT_THAT(upload.back(), HasSubstr(R"("states":[{"state":2,"stateName":"Preparing for upload","ms":)"));
}

}  // namespace
