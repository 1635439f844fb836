// The file access layer in a scratch folder, with the permission mask cleared so that created modes
// show as given.
#include "fileio.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <pwd.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cstdlib>
#include <numeric>
#include <tuple>

#include "TempDir.h"

using namespace fileio;
using Lines = std::vector<std::string>;

class FileIo : public ::testing::Test {
  protected:
    void SetUp() override { umask(0); }
    mode_t permissions(const std::string& name) const {
        struct stat info {};
        return ::stat(dir.path(name).c_str(), &info) == 0 ? (info.st_mode & 07777) : 0;
    }
    // The lines of a file holding `bytes`, read with isEndOfFile + readLine; LineReader must agree.
    Lines linesOf(const std::string& bytes, std::int32_t maxLength = 1024) const {
        const FileHandle h = openRead(dir.write("lines", bytes));
        Lines lines, fromReader;
        for (std::string line; !isEndOfFile(h);) {
            EXPECT_TRUE(readLine(h, line, maxLength));
            lines.push_back(line);
        }
        std::string line = "stale";
        EXPECT_FALSE(readLine(h, line, maxLength));
        EXPECT_EQ(line, "");
        ::close(h);  // not closeFile: no system-wide sync for a file only read
        LineReader reader(dir.path("lines"), maxLength);
        while (reader.next(line)) {
            fromReader.push_back(line);
        }
        EXPECT_EQ(fromReader, lines) << "LineReader differs";
        return lines;
    }

    TempDir dir{"fileio"};
};

TEST_F(FileIo, PathsTakeTheHomeForTildeAndSlashesForBackslashesCreatingModesMakeFolders0755AndFiles0775) {
    const passwd* user = getpwuid(getuid());
    ASSERT_NE(user, nullptr);
    EXPECT_EQ(normalizePath("~\\data\\x.hex"), std::string(user->pw_dir) + "/data/x.hex");
    const std::string file = dir.write("f", "x");
    for (const auto& [path, isFile, isFolder] : {std::tuple{file, true, false},
                                                 {dir.path(), false, true},
                                                 {std::string(), false, false},
                                                 {dir.path("no"), false, false}}) {
        EXPECT_EQ(std::pair(fileExists(path), directoryExists(path)), std::pair(isFile, isFolder)) << path;
    }
    for (const int mode : {FILE_READWRITE, FILE_WRITE, FILE_APPEND, FILE_CREATE}) {
        const std::string top = "m" + std::to_string(mode);
        const FileHandle h = openFile(dir.path(top + "\\b/c.txt"), mode);
        EXPECT_TRUE(h >= 0 && closeFile(h)) << mode;
        EXPECT_EQ(std::tuple(permissions(top), permissions(top + "/b"), permissions(top + "/b/c.txt")),
                  std::tuple(0755u, 0755u, 0775u));
    }
    EXPECT_LT(openFile(dir.path("r/c.txt"), 9), 0);  // any other number reads
    EXPECT_FALSE(directoryExists(dir.path("r")));
}

TEST_F(FileIo, ModesOverwriteAppendOrTruncateLinesEndInCrLfReadByteGives255AtTheEndCopyNeverOverwrites) {
    const auto writeWith = [this](int mode, const std::string& text) {
        const FileHandle h = openFile(dir.path("f"), mode);
        EXPECT_TRUE(h >= 0 && writeBlock(h, text.data(), static_cast<std::uint32_t>(text.size())) &&
                    closeFile(h));
    };
    writeWith(FILE_CREATE, "hello");
    writeWith(FILE_READWRITE, "J");
    writeWith(FILE_APPEND, "!");
    writeWith(FILE_WRITE, "Y");
    EXPECT_EQ(dir.read("f"), "Yello!");
    writeWith(FILE_CREATE, "x");
    EXPECT_EQ(dir.read("f"), "x");
    const FileHandle h = openFile(dir.path("f"), FILE_APPEND);
    EXPECT_TRUE(writeLine(h, "ab") && writeLine(h, "") && closeFile(h));
    EXPECT_EQ(dir.read("f"), "xab\r\n\r\n");
    const FileHandle r = openRead(dir.write("f", "z"));
    std::uint8_t byte = 0;
    EXPECT_TRUE(!isEndOfFile(r) && readByte(r, byte) && byte == 'z' && isEndOfFile(r));  // isEndOfFile peeks
    EXPECT_FALSE(readByte(r, byte));
    EXPECT_EQ(byte, 255);
    ::close(r);
    std::string content(1300, '\0');  // several copy blocks, each of its own bytes
    std::iota(content.begin(), content.end(), '\0');
    EXPECT_EQ(copyFile(dir.path("copies/dst"), dir.write("src", content)), 1);
    EXPECT_EQ(dir.read("copies/dst"), content);
    EXPECT_EQ(copyFile(dir.write("dst", "keep"), dir.path("src")), -1);
    EXPECT_EQ(dir.read("dst"), "keep");
    EXPECT_EQ(copyFile(dir.path("new"), dir.path("missing")), 0);
}

TEST_F(FileIo, ReadLinePairsCrLfAndLfCrKeepsEmptyLinesAndCutsAtTheMaximum) {
    const std::string a1024(1024, 'a'), a1023(1023, 'a');
    for (const auto& [bytes, lines] : {std::pair<std::string, Lines>{"AB\r\n\r\nCD", {"AB", "", "CD"}},
                                       {"AB\n\rCD", {"AB", "CD"}},
                                       {"AB\r\rCD\r", {"AB", "", "CD"}},
                                       {"", {}},
                                       {"AB\r\n\n\r\r\nx", {"AB", "", "", "x"}},
                                       {a1024 + "\r\nB", {a1024, "", "B"}},  // the cut leaves the line end
                                       {a1024 + "b\nB", {a1024, "b", "B"}},
                                       {a1023 + "\r\nB", {a1023, "B"}}}) {
        EXPECT_EQ(linesOf(bytes), lines) << testing::PrintToString(bytes.substr(0, 12)) << bytes.size();
    }
    EXPECT_EQ(linesOf("abc\r\ndef", 2), Lines({"ab", "c", "de", "f"}));
    // LineReader reads 64 KiB at a time: a CR LF and a line across the ends of its buffer.
    const std::string a65535(65535, 'a');
    EXPECT_EQ(linesOf(a65535 + "\r\n" + a65535 + "a\n", 1 << 17), Lines({a65535, a65535 + "a"}));
}

TEST_F(FileIo, FindGivesDosAttributesAndLocalTimeAndEndsItsListingForGood) {
    setenv("TZ", "EET-2", 1);  // two hours east of UTC; nothing else here depends on the zone
    tzset();
    const std::string file = dir.write("f", std::string(1234, 'x'));
    const timespec changed[2] = {{1551776823, 0}, {1551776823, 0}};  // 2019-03-05 09:07:03 UTC
    ASSERT_TRUE(utimensat(AT_FDCWD, file.c_str(), changed, 0) == 0 && setReadOnly(file));
    TFileInfo info{};
    ASSERT_TRUE(findFirst(file, info));
    EXPECT_EQ(formatFileInfo(info), "attrib: 0x 1; time: 110703; date: 20190305; size:       1234; 'f'");
    EXPECT_EQ(formatFileInfo({0xab, 1, 2, 3, "n"}),
              "attrib: 0xab; time:      1; date:      2; size:          3; 'n'");
    ASSERT_TRUE(clearReadOnly(file) && mkdir(dir.path("d").c_str(), 0755) == 0 &&
                mkdir(dir.path("e").c_str(), 0555) == 0 && mkfifo(dir.path("p").c_str(), 0644) == 0);
    std::vector<std::pair<std::string, int>> found;
    for (bool more = findFirst(dir.path("*"), info); more; more = findNext(info)) {
        found.emplace_back(info.name, info.attrib);
    }
    EXPECT_EQ(found, (std::vector<std::pair<std::string, int>>{{"d", 16}, {"e", 17}, {"f", 0}, {"p", 4}}));
    EXPECT_FALSE(findNext(info)) << "the listing ended, it does not start again";
    if (findFirst("/dev/loop0", info)) {  // a block device carries the directory bit
        EXPECT_EQ(info.attrib & ~kAttribReadOnly, kAttribDirectory);
    }
}

TEST_F(FileIo, DiskSpaceTakesFiveDriveNamesAndWrapsTheTotalAt32BitsButNotTheFreeBytes) {
    struct statvfs root {};
    ASSERT_EQ(statvfs("/", &root), 0);
    for (const char drive : {'a', 'A', 'c', 'C', '/', '\\'}) {
        std::uint64_t free = 0, total = 0;
        EXPECT_TRUE(getDiskSpace(drive, &free, &total)) << drive;
        EXPECT_EQ(total,
                  static_cast<std::uint32_t>(root.f_bsize) * static_cast<std::uint32_t>(root.f_blocks));
        EXPECT_NEAR(static_cast<double>(free),
                    static_cast<double>(root.f_bsize) * static_cast<double>(root.f_bfree), 1e9)
            << "no wrap (others write meanwhile)";
    }
    for (const char drive : {'b', 'd', 'x', '.'}) {
        EXPECT_FALSE(getDiskSpace(drive, nullptr, nullptr)) << drive;
        EXPECT_EQ(getDiskTotal(drive), ~std::uint64_t{0});
    }
}
