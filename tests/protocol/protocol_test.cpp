// The protocol library against the bytes on the wire: packet header, status record, upload request,
// identity payload, names, and the CAN frames of the bootloader dialogue with their replies. (Bus
// times and the upload request as varnoch-flash sends it: tests/tools.)
#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <vector>

#include "varnoch/protocol/FlashProtocol.h"
#include "varnoch/protocol/Packet.h"

using namespace CANFlasher;
namespace protocol = varnoch::protocol;

namespace {

using Bytes = std::vector<std::uint8_t>;

std::string hex(const std::uint8_t* bytes, std::size_t count) {
    std::string text;
    char byte[4];
    for (std::size_t i = 0; i < count; ++i) {
        std::snprintf(byte, sizeof byte, i == 0 ? "%02X" : " %02X", bytes[i]);
        text += byte;
    }
    return text;
}

// "18EF26C0: FF 50 ..." for an extended frame, "s" after the identifier for a standard one.
std::string frameText(const FlashMessage& message) {
    char head[16];
    std::snprintf(head, sizeof head, "%X%s:", message.identifier, message.extended ? "" : "s");
    const std::string data = hex(message.data, static_cast<std::size_t>(message.length));
    return head + (data.empty() ? "" : " " + data);
}

TEST(Packet, HeaderIsBigEndianLengthCommandAndEight) {
    const struct {
        std::uint32_t payload;
        std::uint16_t command;
        const char* wire;
    } rows[] = {{0, CmdStatus, "00 00 00 08 03 E8 00 08"},
                {8, CmdStatus, "00 00 00 10 03 E8 00 08"},
                {0x10000, protocol::CmdEcho, "00 01 00 08 00 01 00 08"}};
    for (const auto& row : rows) {
        std::uint8_t wire[protocol::kHeaderSize];
        protocol::encodeHeader(protocol::headerFor(row.payload, row.command), wire);
        EXPECT_EQ(hex(wire, sizeof wire), row.wire);
        const protocol::PacketHeader back = protocol::decodeHeader(wire);
        EXPECT_EQ(back.length, row.payload + 8);
        EXPECT_EQ(back.command, row.command);
        EXPECT_EQ(back.headerSize, 8);
    }
    EXPECT_EQ(protocol::decodeLength(Bytes{0x12, 0x34, 0x56, 0x78}.data()), 0x12345678u);
}

TEST(Packet, IdentityPidLittleEndianStringsCutAt250) {
    const Bytes small = protocol::encodeIdentity({0x01020304, "ab", "", "t"});
    EXPECT_EQ(hex(small.data(), small.size()), "04 03 02 01 02 61 62 05 30 2E 30 30 61 01 74");  // "0.00a"
    const Bytes large = protocol::encodeIdentity({7, std::string(300, 'n'), "1.01", ""});
    ASSERT_EQ(large.size(), 4u + 1 + 250 + 1 + 4 + 1);
    EXPECT_EQ(large[4], 250);

    protocol::Identity back;
    ASSERT_TRUE(protocol::decodeIdentity(small.data(), small.size(), back));
    EXPECT_EQ(back.pid, 0x01020304u);
    EXPECT_EQ(back.processName + "|" + back.versionText + "|" + back.buildTag, "ab|0.00a|t");
    for (const std::size_t cut : {0U, 3U, 6U, 14U}) {
        EXPECT_FALSE(protocol::decodeIdentity(small.data(), cut, back)) << cut;
    }
}

TEST(FlashTypes, StatusWireFormBothWays) {
    std::uint8_t wire[FlashStatus::kWireSize] = {};
    FlashStatus{}.toWire(wire);
    EXPECT_EQ(hex(wire, sizeof wire), "00 01 00 FE FF FF FF FF");
    FlashStatus{2, 105, 66, 0x126, 0x12345678}.toWire(wire);
    EXPECT_EQ(hex(wire, sizeof wire), "02 69 42 26 78 56 34 12");  // the address's low byte
    const FlashStatus back = FlashStatus::fromWire(wire);
    EXPECT_EQ(std::vector<std::int64_t>(
                  {back.mode, back.state, back.progress, back.targetAddress, back.targetIdentifier}),
              std::vector<std::int64_t>({2, 105, 66, 0x26, 0x12345678}));
}

TEST(FlashTypes, NamesOfStatesAndModes) {
    // The other states' names are in the client's and the trace's expected texts.
    const std::vector<std::pair<int, const char*>> states{
        {102, "Error! Timed out while waiting for response."},
        {-1, "unknown"},
        {7, "unknown"},
        {99, "unknown"},
        {106, "unknown"}};
    for (const auto& [state, name] : states) {
        EXPECT_STREQ(stateName(state), name) << state;
    }
    const char* const modes[] = {"ISO Style", "MT CAN", "New Module", "Global", "unknown", "unknown"};
    const char* const words[] = {"iso", "mtcan", "new", "global", nullptr, nullptr};
    for (int mode = -1; mode <= 4; ++mode) {
        const std::size_t row = mode < 0 ? 5 : static_cast<std::size_t>(mode);
        EXPECT_STREQ(modeName(mode), modes[row]) << mode;
        EXPECT_STREQ(modeOptionName(mode), words[row]) << mode;
        std::int32_t parsed = -1;
        EXPECT_EQ(words[row] != nullptr && modeFromOptionName(words[row], parsed) && parsed == mode,
                  words[row] != nullptr);
    }
    std::int32_t parsed = -1;
    EXPECT_FALSE(modeFromOptionName("ISO", parsed));
}

TEST(FlashTypes, UploadRequestFromPayload) {
    const struct {
        Bytes payload;
        bool taken;
        std::uint32_t identifier;
        const char* path;
    } rows[] = {{{1, 2, 3, 4, 5}, false, 0, ""},
                {{1, 0x26, 0x78, 0x56, 0x34, 0x12, '/', 'a', 0}, true, 0x12345678, "/a"},
                {{0, 0xFE, 0xFF, 0xFF, 0xFF, 0xFF}, true, 0xFFFFFFFF, ""},
                {{0, 0xFE, 0xFF, 0xFF, 0xFF, 0xFF, 'a', 'b'}, true, 0xFFFFFFFF, ""},  // no terminating 0
                {{0, 0xFE, 0xFF, 0xFF, 0xFF, 0xFF, 'a', 0, 'b', 0}, true, 0xFFFFFFFF, "a"}};
    for (const auto& row : rows) {
        UploadRequest back;
        back.path = "old";
        EXPECT_EQ(UploadRequest::fromPayload(row.payload.data(),
                                             static_cast<std::uint32_t>(row.payload.size()), back),
                  row.taken);
        if (row.taken) {
            EXPECT_EQ(std::vector<std::int64_t>({back.mode, back.address, back.identifier}),
                      std::vector<std::int64_t>({row.payload[0], row.payload[1], row.identifier}));
            EXPECT_EQ(back.path, row.path);
        }
    }
}

TEST(FlashProtocol, RequestsAndTheRepliesTheyExpect) {
    FlashMessage data;
    writeDataMessage(data, 0, Bytes{0x11, 0x22, 0x33, 0x44}.data(), 4);
    const std::string firstData = frameText(data);
    writeDataMessage(data, 4, Bytes{0x55, 0x66}.data(), 2);  // the tail carries over
    const std::vector<std::pair<std::string, std::string>> rows{
        {frameText(searchRequest(0, 0x26, 0, 5)), "18EF26C0: FF 50 72 6F 67 72 61 6D"},
        {frameText(searchRequest(1, 0, 0x12345678, 5)), "1FF00444: 20 00 00 78 56 34 12 00"},
        {frameText(searchRequest(1, 0, 0x12345678, 4)), "1F800444: 20 00 00 78 56 34 12 00"},
        {frameText(searchRequest(2, 0x26, 0x12345678, 3)), "1FF00444: 20 00 00 FF FF FF 1F 00"},
        {frameText(searchRequest(3, 0x26, 0x12345678, 5)), "0:"},
        {frameText(searchRequest(7, 0x26, 0x12345678, 5)), "0:"},
        {frameText(searchReply()), "84: 20 00"},
        {frameText(eraseRequest()), "C4: 03 FE 00 00 00 00 00 00"},
        {frameText(eraseReply()), "1C4: 03 FE 00 00"},
        {frameText(pageSelectMessage(0x10105)), "C4: 04 05 01 00 00 00 00 00"},
        {frameText(expectedReplyFor(pageSelectMessage(0x105))), "1C4: 04 05 00"},
        {firstData, "C4: 05 00 00 04 11 22 33 44"},
        {frameText(data), "C4: 05 04 00 02 55 66 33 44"},
        {frameText(expectedReplyFor(data)), "1C4: 05 00"},
        {frameText(endSelectMessage()), "C4: 04 00 00 00 00 00 00 00"},
        {frameText(endMessage()), "C4: 06 01 00 00 00 00 00 00"},
        {frameText(expectedReplyFor(endMessage())), "1C4: 06 00"},
        {frameText(finishFrame()), "1F800434: 00"}};
    for (const auto& [built, expected] : rows) {
        EXPECT_EQ(built, expected);
    }
}

}  // namespace
