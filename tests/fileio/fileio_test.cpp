#include <fcntl.h>
#include <pwd.h>

#include <cstdlib>
#include <numeric>
#include <tuple>

#include "FileIoFixture.h"

using namespace fileio;

TEST_F(FileIoTest, HomeAndBackslashesAreNormalisedAndExistenceTellsFilesFromDirectories) {
    const passwd* user = getpwuid(getuid());
    ASSERT_NE(user, nullptr);
    EXPECT_EQ(normalizePath("~\\data\\x.hex"), std::string(user->pw_dir) + "/data/x.hex");
    write("f", "x");
    EXPECT_TRUE(fileExists(path("f")) && directoryExists(dir_));
    EXPECT_FALSE(fileExists(dir_) || fileExists("") || directoryExists(path("f")) || directoryExists(""));
}

TEST_F(FileIoTest, CreatingModesCreateTheMissingDirectoriesAndAppendOrTruncate) {
    for (const int mode : {FILE_READWRITE, FILE_WRITE, FILE_APPEND, FILE_CREATE}) {
        const std::string top = "m" + std::to_string(mode);
        const FileHandle h = openFile(path(top + "\\b/c.txt"), mode);
        EXPECT_TRUE(h >= 0 && closeFile(h)) << mode;
        EXPECT_EQ(std::tuple(permissions(top), permissions(top + "/b"), permissions(top + "/b/c.txt")),
                  std::tuple(0755u, 0755u, 0775u));
    }
    EXPECT_LT(openFile(path("r/c.txt"), 9), 0);  // reads, so creates nothing
    EXPECT_FALSE(directoryExists(path("r")));
    const auto writeWith = [this](int mode, const std::string& text) {
        const FileHandle h = openFile(path("f"), mode);
        EXPECT_TRUE(h >= 0 && writeBlock(h, text.data(), static_cast<std::uint32_t>(text.size())) &&
                    closeFile(h));
    };
    writeWith(FILE_CREATE, "hello");
    writeWith(FILE_READWRITE, "J");
    writeWith(FILE_APPEND, "!");
    EXPECT_EQ(read("f"), "Jello!");
    writeWith(FILE_CREATE, "x");
    EXPECT_EQ(read("f"), "x");
}

TEST_F(FileIoTest, ReadByteAtTheEndGives255AndCopyFileNeverOverwrites) {
    write("f", "z");
    const FileHandle h = openRead(path("f"));
    std::uint8_t byte = 0;
    EXPECT_TRUE(!isEndOfFile(h) && readByte(h, byte) && byte == 'z' && isEndOfFile(h));  // isEndOfFile peeks
    EXPECT_FALSE(readByte(h, byte));
    EXPECT_EQ(byte, 255);
    ::close(h);

    std::string content(1300, '\0');  // several copy blocks, each of its own bytes
    std::iota(content.begin(), content.end(), '\0');
    write("src", content);
    EXPECT_EQ(copyFile(path("copies/dst"), path("src")), 1);
    EXPECT_EQ(read("copies/dst"), content);
    write("dst", "keep");
    EXPECT_EQ(copyFile(path("dst"), path("src")), -1);
    EXPECT_EQ(read("dst"), "keep");
    EXPECT_EQ(copyFile(path("new"), path("missing")), 0);
}

TEST_F(FileIoTest, FindGivesDosRecordsInLocalTimeAndFormatsThem) {
    setenv("TZ", "UTC", 1);  // nothing else here depends on the zone
    tzset();
    write("x", std::string(1234, 'x'));
    const timespec changed[2] = {{1551776823, 0}, {1551776823, 0}};  // 2019-03-05 09:07:03 UTC
    ASSERT_TRUE(utimensat(AT_FDCWD, path("x").c_str(), changed, 0) == 0 && setReadOnly(path("x")));
    TFileInfo info{};
    ASSERT_TRUE(findFirst(path("*"), info));
    EXPECT_EQ(formatFileInfo(info), "attrib: 0x 1; time:  90703; date: 20190305; size:       1234; 'x'");
    EXPECT_FALSE(findNext(info));
    EXPECT_EQ(formatFileInfo({0xab, 1, 2, 3, "n"}),
              "attrib: 0xab; time:      1; date:      2; size:          3; 'n'");
}
