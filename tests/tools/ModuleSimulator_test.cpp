// The simulated module's side of the flashing dialogue: which searches it answers, the exact replies to
// each request, the image an upload builds (and saves), and what each fault switch changes.
#include <gtest/gtest.h>

#include <stdlib.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <initializer_list>
#include <iterator>
#include <string>
#include <vector>

#include "ModuleSimulator.h"

namespace {

using namespace modulesim;

CanFrame extended(std::uint32_t identifier, std::initializer_list<std::uint8_t> bytes) {
    CanFrame frame{};
    frame.identifier = identifier;
    frame.extended = 1;
    frame.length = static_cast<std::uint8_t>(bytes.size());
    std::copy(bytes.begin(), bytes.end(), frame.data);
    return frame;
}

// The daemon's requests, as it puts them on the bus.
CanFrame isoSearch(std::uint8_t address) {
    return extended(kIsoSearchBase + (address << 8u), {0xFF, 'P', 'r', 'o', 'g', 'r', 'a', 'm'});
}
CanFrame mtSearch(std::uint32_t id, std::uint32_t frameId = kMtSearchOddId) {
    const auto byte = [id](int n) { return static_cast<std::uint8_t>(id >> (8 * n)); };
    return extended(frameId, {0x20, 0, 0, byte(0), byte(1), byte(2), byte(3), 0});
}
CanFrame selectPage(std::uint16_t page) {
    return extended(kRequestId, {4, static_cast<std::uint8_t>(page), static_cast<std::uint8_t>(page >> 8), 0,
                                 0, 0, 0, 0});
}
// `countAndBytes`: the count and up to four bytes, the frame's bytes 3 to 7.
CanFrame write(std::uint16_t offset, std::initializer_list<std::uint8_t> countAndBytes) {
    CanFrame frame =
        extended(kRequestId, {5, static_cast<std::uint8_t>(offset), static_cast<std::uint8_t>(offset >> 8)});
    std::copy(countAndBytes.begin(), countAndBytes.end(), frame.data + 3);
    frame.length = 8;
    return frame;
}
const CanFrame kGlobalSearch = extended(kGlobalSearchId, {});
const CanFrame kErase = extended(kRequestId, {3, 0xFE, 0, 0, 0, 0, 0, 0});
const CanFrame kEndFirst = selectPage(0);
const CanFrame kEndSecond = extended(kRequestId, {6, 1, 0, 0, 0, 0, 0, 0});
const CanFrame kFinish = extended(kFinishId, {0});
// The search of each mode for the module's default address and identifier, indexed by mode.
const CanFrame kSearches[] = {isoSearch(0x26), mtSearch(0x12345678),
                              extended(kMtSearchEvenId, {0x20, 0, 0, 0xFF, 0xFF, 0xFF, 0x1F, 0}),
                              kGlobalSearch};

ModuleReaction react(ModuleSimulator& module, const CanFrame& frame) {
    ModuleReaction reaction;
    module.handleFrame(frame, reaction);
    return reaction;
}

// The reply's identifier and bytes, for compact comparisons.
std::vector<std::uint32_t> replyOf(const ModuleReaction& reaction) {
    if (!reaction.reply) {
        return {};
    }
    std::vector<std::uint32_t> reply = {reaction.replyFrame.identifier};
    reply.insert(reply.end(), reaction.replyFrame.data,
                 reaction.replyFrame.data + reaction.replyFrame.length);
    EXPECT_EQ(reaction.replyFrame.extended, 1);
    return reply;
}

const std::vector<std::uint32_t> kSearchReply = {0x84, 0x20, 0x00};
const std::vector<std::uint32_t> kEraseReply = {0x1C4, 0x03, 0xFE, 0x00, 0x00};
const std::vector<std::uint32_t> kWriteReply = {0x1C4, 0x05, 0x00};

// ---- searches ----

class SearchModes : public ::testing::TestWithParam<SearchMode> {};

TEST_P(SearchModes, AnsweredWhenAcceptedAndIgnoredOtherwise) {
    ModuleConfig onlyThis;
    onlyThis.modes = modeBit(GetParam());
    ModuleSimulator accepting(onlyThis);
    EXPECT_EQ(replyOf(react(accepting, kSearches[GetParam()])), kSearchReply);
    EXPECT_TRUE(accepting.selected());

    ModuleConfig allButThis;
    allButThis.modes = kAllModes & ~modeBit(GetParam());
    ModuleSimulator refusing(allButThis);
    const ModuleReaction reaction = react(refusing, kSearches[GetParam()]);
    EXPECT_FALSE(reaction.reply);
    EXPECT_EQ(reaction.kind, FrameKind::Ignored);
    EXPECT_FALSE(refusing.selected());
}

INSTANTIATE_TEST_SUITE_P(EachMode, SearchModes,
                         ::testing::Values(ModeIso, ModeMtCan, ModeNewModule, ModeGlobal));

TEST(ModuleSearch, AnswersTheSecondMtCanIdentifierToo) {
    ModuleSimulator module{ModuleConfig{}};
    EXPECT_EQ(replyOf(react(module, mtSearch(0x12345678, kMtSearchEvenId))), kSearchReply);
}

TEST(ModuleSearch, IgnoresSearchesForOthers) {
    ModuleSimulator module{ModuleConfig{}};
    CanFrame wrongText = isoSearch(0x26);
    wrongText.data[7] = 'M';
    CanFrame standard = isoSearch(0x26);
    standard.extended = 0;
    CanFrame shortSearch = mtSearch(0x12345678);
    shortSearch.length = 7;
    CanFrame globalWithData = kGlobalSearch;
    globalWithData.length = 1;
    for (const CanFrame& frame :
         {isoSearch(0x27), mtSearch(0x12345679), wrongText, standard, shortSearch, globalWithData,
          extended(0x18EF26C1, {0xFF, 'P', 'r', 'o', 'g', 'r', 'a', 'm'})}) {
        EXPECT_FALSE(react(module, frame).reply) << std::hex << frame.identifier;
    }
    EXPECT_FALSE(module.selected());
}

TEST(ModuleSearch, RequestsBeforeASearchAreNotForThisModule) {
    ModuleSimulator module{ModuleConfig{}};
    EXPECT_FALSE(react(module, kErase).reply);
    EXPECT_FALSE(react(module, selectPage(1)).reply);
    EXPECT_TRUE(module.image().empty());
}

// ---- requests ----

class SelectedModule : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_EQ(replyOf(react(module, isoSearch(0x26))), kSearchReply);
        ASSERT_EQ(replyOf(react(module, kErase)), kEraseReply);
    }
    ModuleSimulator module{ModuleConfig{}};
};

TEST_F(SelectedModule, RepliesToEachRequestExactly) {
    EXPECT_EQ(replyOf(react(module, selectPage(0x0105))),
              (std::vector<std::uint32_t>{0x1C4, 0x04, 0x05, 0x00}));
    EXPECT_EQ(replyOf(react(module, write(0, {4, 1, 2, 3, 4}))), kWriteReply);
    EXPECT_EQ(replyOf(react(module, kEndFirst)), (std::vector<std::uint32_t>{0x1C4, 0x04, 0x00, 0x00}));
    const ModuleReaction end = react(module, kEndSecond);
    EXPECT_EQ(replyOf(end), (std::vector<std::uint32_t>{0x1C4, 0x06, 0x00}));
    EXPECT_TRUE(end.imageComplete);
    EXPECT_EQ(module.uploadsEnded(), 1u);

    const ModuleReaction finished = react(module, kFinish);
    EXPECT_EQ(finished.kind, FrameKind::Finish);
    EXPECT_FALSE(finished.reply);
    EXPECT_EQ(module.uploadsFinished(), 1u);
    EXPECT_FALSE(module.selected());
}

TEST_F(SelectedModule, IgnoresMalformedRequests) {
    CanFrame shortRequest = selectPage(1);
    shortRequest.length = 3;
    for (const CanFrame& frame :
         {extended(kRequestId, {0x03, 0xFD, 0, 0, 0, 0, 0, 0}), write(0, {0, 1, 2, 3, 4}),
          write(0, {5, 1, 2, 3, 4}), extended(kRequestId, {0x06, 0x02, 0, 0, 0, 0, 0, 0}),
          extended(kRequestId, {0x07, 0, 0, 0, 0, 0, 0, 0}), shortRequest}) {
        EXPECT_FALSE(react(module, frame).reply) << int{frame.data[0]};
    }
    react(module, kFinish);
    EXPECT_EQ(module.uploadsFinished(), 0u) << "a finish frame without an end command completes nothing";
}

TEST_F(SelectedModule, AssemblesAcrossPagesAndWritesOnlyTheCountedBytes) {
    // A 6-byte record at 0x3FFE as the daemon splits it, then a short write whose tail carries over.
    react(module, selectPage(0));
    react(module, write(0x3FFE, {2, 0xA1, 0xA2, 0xEE, 0xEE}));
    react(module, selectPage(1));
    react(module, write(0x0000, {4, 0xB1, 0xB2, 0xB3, 0xB4}));
    react(module, write(0x0004, {2, 0xC1, 0xC2, 0xB3, 0xB4}));

    const FlashImage& image = module.image();
    const std::vector<std::uint8_t> expected = {0xA1, 0xA2, 0xB1, 0xB2, 0xB3, 0xB4, 0xC1, 0xC2, 0xFF, 0xFF};
    for (std::uint32_t i = 0; i < expected.size(); ++i) {
        EXPECT_EQ(image.byteAt(0x3FFE + i), expected[i]) << "address " << std::hex << 0x3FFE + i;
    }
    EXPECT_EQ(image.lowest(), 0x3FFEu);
    EXPECT_EQ(image.highest(), 0x4005u);
    EXPECT_EQ(image.byteAt(0x3FFD), 0xFF);
}

TEST_F(SelectedModule, PageNumberTakesBothBytes) {
    react(module, selectPage(0x2000));  // 0x08000000, where many controllers keep their flash
    react(module, write(0x0010, {1, 0x5A, 0, 0, 0}));
    EXPECT_EQ(module.image().byteAt(0x08000010), 0x5A);
    EXPECT_EQ(module.image().lowest(), 0x08000010u);
}

TEST(ModuleFlash, WriteBeyondThePoolIsRefusedAndUnanswered) {
    ModuleConfig config;
    config.flashPages = 1;
    ModuleSimulator module(config);
    react(module, kGlobalSearch);
    react(module, kErase);
    react(module, selectPage(0));
    EXPECT_TRUE(react(module, write(0, {1, 0x11, 0, 0, 0})).reply);
    react(module, selectPage(1));
    const ModuleReaction refused = react(module, write(0, {1, 0x22, 0, 0, 0}));
    EXPECT_TRUE(refused.writeRefused);
    EXPECT_FALSE(refused.reply);
    EXPECT_EQ(module.image().byteAt(FlashImage::kPageSize), 0xFF);

    react(module, kErase);  // gives the pool back: the next upload starts from an erased flash
    EXPECT_TRUE(module.image().empty());
    EXPECT_EQ(module.image().byteAt(0), 0xFF);
    react(module, selectPage(1));
    EXPECT_TRUE(react(module, write(0, {1, 0x22, 0, 0, 0})).reply);
}

// ---- the saved image ----

class ImageFile : public ::testing::Test {
  protected:
    void SetUp() override {
        char pattern[] = "/tmp/varnoch-modulesim-XXXXXX";
        ASSERT_NE(mkdtemp(pattern), nullptr);
        directory = pattern;
        path = directory + "/image.bin";
    }
    void TearDown() override {
        for (const std::string& file : {path, path + ".range"}) {
            std::remove(file.c_str());
        }
        rmdir(directory.c_str());
    }
    static std::string contents(const std::string& file) {
        std::ifstream in(file, std::ios::binary);
        return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    }
    std::string directory;
    std::string path;
};

TEST_F(ImageFile, HoldsLowestToHighestWithGapsErased) {
    FlashImage image(4);
    const std::uint8_t first[] = {0x01, 0x02};
    const std::uint8_t last[] = {0x03};
    ASSERT_TRUE(image.write(0, 0x3FFF, first, 1));
    ASSERT_TRUE(image.write(2, 0x0000, last, 1));  // page 1 never written: 16 KiB of 0xFF in between
    ASSERT_TRUE(image.write(0, 0x3FFE, first + 1, 1));
    std::string error;
    ASSERT_TRUE(image.save(path, error)) << error;

    const std::string bytes = contents(path);
    ASSERT_EQ(bytes.size(), 2u + FlashImage::kPageSize + 1u);
    EXPECT_EQ(bytes.substr(0, 2), std::string("\x02\x01"));
    EXPECT_EQ(bytes.find_first_not_of('\xFF', 2), bytes.size() - 1);
    EXPECT_EQ(bytes.back(), '\x03');
    EXPECT_EQ(contents(path + ".range"), "0x00003FFE 0x00008000\n");
}

TEST_F(ImageFile, EmptyImageAndUnwritablePlace) {
    FlashImage image(1);
    std::string error;
    ASSERT_TRUE(image.save(path, error)) << error;
    EXPECT_EQ(contents(path), "");
    EXPECT_EQ(contents(path + ".range"), "empty\n");

    EXPECT_FALSE(image.save(directory + "/missing/image.bin", error));
    EXPECT_NE(error.find("missing/image.bin"), std::string::npos) << error;
}

// ---- fault switches ----

ModuleSimulator withFaults(const ModuleFaults& faults) {
    ModuleConfig config;
    config.faults = faults;
    return ModuleSimulator(config);
}

TEST(ModuleFaults, SilentNeverAnswers) {
    ModuleFaults faults;
    faults.silent = true;
    ModuleSimulator module = withFaults(faults);
    const ModuleReaction search = react(module, kGlobalSearch);
    EXPECT_FALSE(search.reply);
    EXPECT_TRUE(search.withheld);
    EXPECT_FALSE(react(module, kErase).reply);
}

TEST(ModuleFaults, NoEraseAnswersTheSearchOnly) {
    ModuleFaults faults;
    faults.ignoreErase = true;
    ModuleSimulator module = withFaults(faults);
    EXPECT_EQ(replyOf(react(module, kGlobalSearch)), kSearchReply);
    for (int attempt = 0; attempt < 4; ++attempt) {
        const ModuleReaction reaction = react(module, kErase);
        EXPECT_FALSE(reaction.reply);
        EXPECT_TRUE(reaction.withheld);
    }
}

TEST(ModuleFaults, DropAckOnceAnswersTheRepeat) {
    ModuleFaults faults;
    faults.dropAck = 2;
    ModuleSimulator module = withFaults(faults);
    react(module, kGlobalSearch);
    EXPECT_TRUE(react(module, kErase).reply);  // the erase reply is not an acknowledgement
    EXPECT_TRUE(react(module, selectPage(0)).reply);
    EXPECT_TRUE(react(module, write(0, {1, 0x10, 0, 0, 0})).withheld);
    EXPECT_EQ(replyOf(react(module, write(0, {1, 0x10, 0, 0, 0}))), kWriteReply);
    EXPECT_TRUE(react(module, write(1, {1, 0x11, 0, 0, 0})).reply);
    EXPECT_EQ(module.acknowledgements(), 3u);
}

TEST(ModuleFaults, DropAckAlwaysWithholdsEveryRepeat) {
    ModuleFaults faults;
    faults.dropAck = 1;
    faults.dropAckAlways = true;
    ModuleSimulator module = withFaults(faults);
    react(module, kGlobalSearch);
    react(module, kErase);
    for (int attempt = 0; attempt < 4; ++attempt) {
        EXPECT_TRUE(react(module, selectPage(0)).withheld) << attempt;
    }
    react(module, kErase);  // a new upload counts afresh, and drops its first again
    EXPECT_TRUE(react(module, selectPage(0)).withheld);
}

TEST(ModuleFaults, WrongDataSpoilsOnlyTheChosenReplies) {
    ModuleFaults faults;
    faults.wrongData = WrongErase | WrongAck;
    ModuleSimulator module = withFaults(faults);
    EXPECT_EQ(replyOf(react(module, kGlobalSearch)), kSearchReply);
    EXPECT_EQ(replyOf(react(module, kErase)), (std::vector<std::uint32_t>{0x1C4, 0x03, 0xFE, 0x00, 0x01}));
    EXPECT_EQ(replyOf(react(module, selectPage(5))), (std::vector<std::uint32_t>{0x1C4, 0x04, 0x05, 0x01}));
    EXPECT_EQ(replyOf(react(module, write(0, {1, 0, 0, 0, 0}))),
              (std::vector<std::uint32_t>{0x1C4, 0x05, 0x01}));

    faults.wrongData = WrongSearch;
    ModuleSimulator searchOnly = withFaults(faults);
    EXPECT_EQ(replyOf(react(searchOnly, kGlobalSearch)), (std::vector<std::uint32_t>{0x84, 0x20, 0x01}));
}

}  // namespace
