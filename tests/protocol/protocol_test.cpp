// What of the protocol library no other test sees on the wire: the identity payload's cut at 250 bytes,
// the status record's layout and one-byte address, and the names of states and modes. (Packet headers:
// the socket and client tests, against a framing of their own; the bootloader frames and replies: the
// flasher's and the simulated module's tests.)
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "varnoch/protocol/FlashTypes.h"
#include "varnoch/protocol/Packet.h"

using namespace CANFlasher;
namespace protocol = varnoch::protocol;

namespace {

using Bytes = std::vector<std::uint8_t>;

TEST(Packet, IdentityPidLittleEndianStringsCutAt250) {
    const Bytes small = protocol::encodeIdentity({0x01020304, "ab", "", "t"});
    // No version text goes as "0.00a".
    EXPECT_EQ(small, (Bytes{4, 3, 2, 1, 2, 'a', 'b', 5, '0', '.', '0', '0', 'a', 1, 't'}));
    const Bytes large = protocol::encodeIdentity({7, std::string(300, 'n'), "1.01", ""});
    ASSERT_EQ(large.size(), 4u + 1 + 250 + 1 + 4 + 1);
    EXPECT_EQ(large[4], 250);

    // Decoding a whole payload: the client library's test.
    protocol::Identity back;
    ASSERT_TRUE(protocol::decodeIdentity(small.data(), small.size(), back));
    for (const std::size_t cut : {0U, 3U, 6U, 14U}) {
        EXPECT_FALSE(protocol::decodeIdentity(small.data(), cut, back)) << cut;
    }
}

// The initial status's bytes: the daemon's test; reading a status: the client library's test.
TEST(FlashTypes, StatusWireForm) {
    std::uint8_t wire[FlashStatus::kWireSize] = {};
    FlashStatus{2, 105, 66, 0x126, 0x12345678}.toWire(wire);  // the address's low byte only
    EXPECT_EQ(Bytes(wire, wire + sizeof wire), (Bytes{2, 105, 66, 0x26, 0x78, 0x56, 0x34, 0x12}));
}

TEST(FlashTypes, NamesOfStatesAndModes) {
    // The other states' names are in the client's and the trace's expected texts; the reading of the
    // option names, in varnoch-flash's.
    const std::vector<std::pair<int, const char*>> states{
        {102, "Error! Timed out while waiting for response."},
        {103, "Error! Unable to find the hex file."},
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
    }
}

}  // namespace
