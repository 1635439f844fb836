#include <random>

#include "FileIoFixture.h"

using LineEndings = FileIoTest;

TEST_F(LineEndings, PairsCrLfAndLfCrKeepsEmptyLinesAndCutsAt1024) {
    const std::string a1024(1024, 'a');
    const std::pair<std::string, Lines> cases[] = {
        {"AB\r\n\r\nCD", {"AB", "", "CD"}},
        {"AB\n\rCD", {"AB", "CD"}},
        {"AB\r\rCD\r", {"AB", "", "CD"}},
        {"AB\n\n\nCD\n", {"AB", "", "", "CD"}},
        {"", {}},
        {"AB\r\n\n\r\r\nx", {"AB", "", "", "x"}},
        // The cut leaves the line end for the next call, which then yields an empty line.
        {a1024 + "\r\nB", {a1024, "", "B"}},
        {a1024 + "b\nB", {a1024, "b", "B"}},
        {std::string(1023, 'a') + "\r\nB", {std::string(1023, 'a'), "B"}},
    };
    for (const auto& [bytes, lines] : cases) {
        SCOPED_TRACE(testing::PrintToString(bytes.substr(0, 16)) + " size " + std::to_string(bytes.size()));
        EXPECT_EQ(linesOf(bytes), lines);
    }
}

TEST_F(LineEndings, ReaderMatchesReadLineForEveryLineEndAroundTheCutAndOnByteSoup) {
    for (const std::size_t length : {0, 1, 1023, 1024, 1025, 2048, 2049}) {
        for (const char* ending : {"", "\r", "\n", "\r\n", "\n\r", "\r\r", "\n\n", "\r\n\r\n"}) {
            const std::string bytes = std::string(length, 'q') + ending + "x";
            SCOPED_TRACE(std::to_string(length) + testing::PrintToString(std::string(ending)));
            linesOf(bytes);
            linesOf(bytes.substr(0, bytes.size() - 1));
        }
    }
    EXPECT_EQ(linesOf("abc\r\ndef", 2), Lines({"ab", "c", "de", "f"}));
    std::mt19937 random(20190305);
    std::string soup;  // over two buffers' worth, with runs long enough to be cut and line ends of every kind
    while (soup.size() < 150 * 1024) {
        const unsigned choice = random() % 10;
        if (choice < 3) {
            soup += "\r\n"[random() % 2];
        } else if (choice == 3) {
            soup.append(900 + random() % 1300, static_cast<char>('A' + random() % 26));
        } else {
            soup += static_cast<char>(random() % 256);
        }
    }
    linesOf(soup);
    fileio::LineReader missing(path("missing"));
    std::string line = "x";
    EXPECT_TRUE(!missing.isOpen() && missing.atEnd() && !missing.next(line) && line.empty());
}
