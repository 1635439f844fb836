// The simulated module's side of the flashing dialogue: which searches it answers, the exact reply to
// each request and a message's time on the bus. Its run over a bus, its fault switches and the image an
// upload builds, byte for byte: the end-to-end tests (tests/e2e).
#include "ModuleSimulator.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>

#include "ModuleRunner.h"

namespace {

using namespace modulesim;

// "C4: 03 FE 00 00 00 00 00 00": identifier and data bytes, all hexadecimal; an extended frame, or a
// standard one with "s" after the identifier.
CanFrame frame(const std::string& text) {
    CanFrame parsed{};
    char* at = nullptr;
    parsed.identifier = static_cast<std::uint32_t>(std::strtoul(text.c_str(), &at, 16));
    parsed.extended = *at == 's' ? 0 : 1;
    for (at += 2 - parsed.extended; *at != '\0' && parsed.length < 8;) {
        parsed.data[parsed.length++] = static_cast<std::uint8_t>(std::strtoul(at, &at, 16));
    }
    return parsed;
}

// The module's answer in the same form; "" for none.
std::string answer(ModuleSimulator& module, const std::string& request) {
    ModuleReaction reaction;
    module.handleFrame(frame(request), reaction);
    char text[64] = "";
    int at = reaction.reply ? std::snprintf(text, sizeof text, "%X:", reaction.replyFrame.identifier) : 0;
    for (int i = 0; reaction.reply && i < reaction.replyFrame.length; ++i) {
        at += std::snprintf(text + at, sizeof text - static_cast<std::size_t>(at), " %02X",
                            reaction.replyFrame.data[i]);
    }
    EXPECT_TRUE(!reaction.reply || reaction.replyFrame.extended);
    return text;
}

const char* const kIso = "18EF26C0: FF 50 72 6F 67 72 61 6D";
const char* const kErase = "C4: 03 FE 00 00 00 00 00 00";
const char* const kFound = "84: 20 00";

TEST(ModuleSearch, EachModesSearchIsAnsweredOnlyWhenThatModeIsAccepted) {
    // clang-format off
    const std::vector<std::pair<std::int32_t, const char*>> searches{
        {0, kIso}, {1, "1FF00444: 20 00 00 78 56 34 12 00"}, {1, "1F800444: 20 00 00 78 56 34 12 00"},
        {2, "1F800444: 20 00 00 FF FF FF 1F 00"}, {3, "0:"}};
    // clang-format on
    for (const auto& [mode, search] : searches) {
        for (const bool accepted : {true, false}) {
            ModuleConfig config;
            config.modes = accepted ? modeBit(mode) : kAllModes & ~modeBit(mode);
            ModuleSimulator module(config);
            EXPECT_EQ(answer(module, search), accepted ? kFound : "") << search;
            EXPECT_EQ(module.selected(), accepted);
        }
    }
    ModuleSimulator module{ModuleConfig{}};
    for (const char* other : {"18EF27C0: FF 50 72 6F 67 72 61 6D", "18EF26C0: FF 50 72 6F 67 72 61 4D",
                              "18EF26C1: FF 50 72 6F 67 72 61 6D", "1FF00444: 20 00 00 79 56 34 12 00",
                              "1FF00444: 20 00 00 78 56 34 12", "0: 00", "18EF26C0s: FF 50 72 6F 67 72 61 6D",
                              kErase, "C4: 04 01 00 00 00 00 00 00"}) {
        EXPECT_EQ(answer(module, other), "") << other;
    }
    EXPECT_FALSE(module.selected());
    EXPECT_TRUE(module.image().empty());
}

TEST(ModuleRequests, EachIsAnsweredExactlyAndMalformedOnesAreIgnored) {
    ModuleSimulator module{ModuleConfig{}};
    // clang-format off
    const std::vector<std::pair<const char*, const char*>> dialogue{
        {kIso, kFound}, {kErase, "1C4: 03 FE 00 00"},
        {"C4: 04 05 01 00 00 00 00 00", "1C4: 04 05 00"}, {"C4: 05 00 00 04 01 02 03 04", "1C4: 05 00"},
        {"C4: 03 FD 00 00 00 00 00 00", ""}, {"C4: 05 00 00 00 01 02 03 04", ""},
        {"C4: 05 00 00 05 01 02 03 04", ""}, {"C4: 06 02 00 00 00 00 00 00", ""},
        {"C4: 07 00 00 00 00 00 00 00", ""}, {"C4: 04 01 00", ""},
        {"C4: 04 00 00 00 00 00 00 00", "1C4: 04 00 00"}, {"C4: 06 01 00 00 00 00 00 00", "1C4: 06 00"},
        {"1F800434: 00", ""},
    };
    // clang-format on
    for (const auto& [request, reply] : dialogue) {
        EXPECT_EQ(answer(module, request), reply) << request;
    }
    EXPECT_EQ(module.uploadsEnded(), 1u);
    EXPECT_EQ(module.uploadsFinished(), 1u);
    EXPECT_FALSE(module.selected());
    // 8 data bytes and a 2-byte acknowledgement, both extended: 214 bits, 0.856 ms at 250 kbit/s.
    EXPECT_EQ(busTime(frame("C4: 05 00 00 02 11 22 00 00"), frame("1C4: 05 00"), 250000),
              std::chrono::microseconds(856));
}

}  // namespace
