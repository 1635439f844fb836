// What the tools share: SHA-256 against the standard test vectors, and one-line JSON.
#include <gtest/gtest.h>

#include <chrono>
#include <string>

#include "JsonLine.h"
#include "Sha256.h"

namespace {

using toolcommon::Sha256;

std::string digestOf(const std::string& text) {
    Sha256 sha;
    sha.update(reinterpret_cast<const std::uint8_t*>(text.data()), text.size());
    return Sha256::hex(sha.finish());
}

TEST(Sha256, StandardTestVectorsWholeAndFedInFills) {
    EXPECT_EQ(digestOf("abc"), "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
    EXPECT_EQ(digestOf("abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq"),
              "248d6a61d20638b8e5c026930c3e6039a33ce45964ff2167f6ecedd419db06c1");
    // One million 'a', the standard long vector, fed as fills of odd sizes that cross block ends.
    Sha256 sha;
    sha.fill('a', 3);
    sha.fill('a', 999'997);
    EXPECT_EQ(Sha256::hex(sha.finish()), "cdc76e5c9914fb9281a1c7e284d73e67f1809a48a497200e046d39ccc7112cd0");
}

TEST(JsonLine, MembersInOrderWithEscapedStringsAndUtcTimestamps) {
    toolcommon::JsonLine line;
    line.num("v", 1)
        .str("text", "a\"b\\c\n\x01")
        .flag("ok", false)
        .num("big", 4294967295)
        .raw("list", "[1,2]");
    EXPECT_EQ(line.line(),
              R"({"v":1,"text":"a\"b\\c\u000a\u0001","ok":false,"big":4294967295,"list":[1,2]})");
    const std::chrono::system_clock::time_point time{std::chrono::milliseconds(1795468010123)};
    EXPECT_EQ(toolcommon::utcTimestamp(time), "2026-11-23T21:06:50.123Z");
}

}  // namespace
