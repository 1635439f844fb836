#include <random>

#include "FileIoFixture.h"

using Lines = std::vector<std::string>;
using LineEndings = FileIoTest;

TEST_F(LineEndings, PairsCrLfAndLfCrAndKeepsEmptyLines) {
    const std::string a1024(1024, 'a');
    const std::pair<std::string, Lines> cases[] = {
        {"AB\r\n\r\nCD", {"AB", "", "CD"}},
        {"AB\n\rCD", {"AB", "CD"}},
        {"AB\r\rCD\r", {"AB", "", "CD"}},
        {"AB\n\n\nCD\n", {"AB", "", "", "CD"}},
        {"\r\n\n\r", {"", ""}},
        {"\n", {""}},
        {"", {}},
        {"A", {"A"}},
        {"AB\r\n\n\r\r\nx", {"AB", "", "", "x"}},
        // The cut leaves the line end for the next call, which then yields an empty line.
        {a1024 + "\r\nB", {a1024, "", "B"}},
        {a1024 + "b\nB", {a1024, "b", "B"}},
        {std::string(1023, 'a') + "\r\nB", {std::string(1023, 'a'), "B"}},
    };
    for (const auto& [bytes, lines] : cases) {
        SCOPED_TRACE(testing::PrintToString(bytes.substr(0, 16)) + " size " + std::to_string(bytes.size()));
        write("f", bytes);
        EXPECT_EQ(readLineLines("f"), lines);
        EXPECT_EQ(lineReaderLines("f"), lines);
    }
}

TEST_F(LineEndings, ReaderMatchesReadLineAroundTheCut) {
    for (const std::size_t length : {0, 1, 1023, 1024, 1025, 2047, 2048, 2049}) {
        for (const char* ending : {"", "\r", "\n", "\r\n", "\n\r", "\r\r", "\n\n", "\r\n\r\n"}) {
            for (const char* rest : {"", "x", "\r"}) {
                const std::string bytes = std::string(length, 'q') + ending + rest;
                SCOPED_TRACE(std::to_string(length) + testing::PrintToString(std::string(ending) + rest));
                write("f", bytes);
                EXPECT_EQ(lineReaderLines("f"), readLineLines("f"));
            }
        }
    }
    write("f", "abc\r\ndef");
    EXPECT_EQ(lineReaderLines("f", 2), readLineLines("f", 2));
}

TEST_F(LineEndings, ReaderMatchesReadLineOnByteSoup) {
    std::mt19937 random(20190305);
    std::string bytes;
    // Over two buffers' worth, with runs long enough to be cut and line ends of every kind.
    while (bytes.size() < 150 * 1024) {
        const unsigned choice = random() % 10;
        if (choice < 3) {
            bytes += "\r\n"[random() % 2];
        } else if (choice == 3) {
            bytes.append(900 + random() % 1300, static_cast<char>('A' + random() % 26));
        } else {
            bytes += static_cast<char>(random() % 256);
        }
    }
    write("soup", bytes);
    const Lines expected = readLineLines("soup");
    const Lines actual = lineReaderLines("soup");
    ASSERT_EQ(actual.size(), expected.size());
    for (std::size_t i = 0; i < expected.size(); ++i) {
        ASSERT_EQ(actual[i], expected[i]) << "line " << i;
    }
    fileio::LineReader missing(path("missing"));
    std::string line = "x";
    EXPECT_TRUE(!missing.isOpen() && missing.atEnd() && !missing.next(line) && line.empty());
}
