// A hex file checked without a daemon: the daemon's verdict, what the module receives, the image it
// will hold and the bus time the messages need.
#include "HexCheck.h"

#include <gtest/gtest.h>

#include "TempDir.h"

namespace {

using toolcommon::AddressRange;
using toolcommon::checkHexFile;

const std::string kEnd = ":00000001FF\n";

TEST(HexCheck, FileTakenIsCountedAndHashedAsTheModuleStoresIt) {
    const TempDir folder;
    const struct {
        std::string content;
        std::uint64_t messages, pageSelects, dataBytes;
        std::vector<AddressRange> ranges;
        const char* sha256;
    } cases[] = {
        // clang-format off
        // A gap inside a page is erased bytes: AA BB, six FF, CC.
        {":02000000AABB99\n:01000800CC2B\n" + kEnd, 5, 1, 3, {{0, 1}, {8, 8}},
         "319dd030e872bd4c1a26e605ce0c63e0588a30542dd99b61aa418761ea58c2d0"},
        // Writes that touch across a page end make one range.
        {":063FFE00010203040506A8\n" + kEnd, 6, 2, 6, {{0x3FFE, 0x4003}},
         "7192385c3c0605de55bb9476ce1d90748190ecb32a8eed7f5207b30cf6a1fe89"},
        // A page never written between two written ones: 01, 16384 FF, 02.
        {":013FFF0001C0\n:01800000027D\n" + kEnd, 6, 2, 2, {{0x3FFF, 0x3FFF}, {0x8000, 0x8000}},
         "7e6aa45551e609766c3c0014dc3a818beac04939cd7204524ae9d4b48367facc"},
        // Type 2 takes its first byte only: 0x12 × 4096 = 0x12000.
        {":020000021234B6\n:0100000011EE\n" + kEnd, 4, 1, 1, {{0x12000, 0x12000}},
         "4a64a107f0cb32536e5bce6c98c393db21cca7f4ea187ba8c4dca8b51d4ea80a"},
        // Only end messages: nothing written, the image is empty.
        {kEnd, 2, 0, 0, {}, "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855"},
        // clang-format on
    };
    for (const auto& c : cases) {
        const toolcommon::HexCheck result = checkHexFile(folder.write("fw.hex", c.content));
        EXPECT_EQ(result.state, 2) << c.content;
        EXPECT_EQ(result.messages, c.messages) << c.content;
        EXPECT_EQ(result.pageSelects, c.pageSelects) << c.content;
        EXPECT_EQ(result.dataBytes, c.dataBytes) << c.content;
        EXPECT_EQ(result.ranges, c.ranges) << c.content;
        EXPECT_EQ(result.sha256, c.sha256) << c.content;
    }
}

// A file's bits and bus time at 250 kbit/s, refused files and the simplest file: varnoch-flash check's
// test.
TEST(HexCheck, BusTimeIsRoundedUp) {
    EXPECT_EQ(toolcommon::busMicroseconds(1, 3), 333334u);
}

}  // namespace
