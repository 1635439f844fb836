#include <fcntl.h>
#include <pwd.h>

#include <cstdlib>

#include "FileIoFixture.h"

using namespace fileio;

TEST_F(FileIoTest, NormalizePathExpandsHomeAndTurnsBackslashes) {
    const passwd* user = getpwuid(getuid());
    ASSERT_NE(user, nullptr);
    EXPECT_EQ(normalizePath("~\\data\\x.hex"), std::string(user->pw_dir) + "/data/x.hex");
}

TEST_F(FileIoTest, ExistenceTellsFilesFromDirectories) {
    write("f", "x");
    EXPECT_TRUE(fileExists(path("f")) && directoryExists(dir_));
    EXPECT_FALSE(fileExists(dir_) || fileExists("") || directoryExists(path("f")) || directoryExists(""));
}

TEST_F(FileIoTest, CreatingModesCreateTheMissingDirectories) {
    for (const int mode : {FILE_READWRITE, FILE_WRITE, FILE_APPEND, FILE_CREATE}) {
        const std::string top = "m" + std::to_string(mode);
        const FileHandle h = openFile(path(top + "\\b/c.txt"), mode);
        ASSERT_GE(h, 0) << mode;
        EXPECT_TRUE(closeFile(h));
        EXPECT_EQ(permissions(top), 0755u);
        EXPECT_EQ(permissions(top + "/b"), 0755u);
        EXPECT_EQ(permissions(top + "/b/c.txt"), 0775u);
    }
    EXPECT_LT(openFile(path("r/c.txt"), 9), 0);  // reads, so creates nothing
    EXPECT_FALSE(directoryExists(path("r")));

    std::string before, after;
    ASSERT_TRUE(getCurrentDirectory(before));
    EXPECT_TRUE(createDirectoryPath(path("p/q/")));
    EXPECT_TRUE(directoryExists(path("p/q")));
    EXPECT_FALSE(createDirectoryPath(path("p//z")));
    write("file", "");
    EXPECT_FALSE(createDirectoryPath(path("file/z")));
    ASSERT_TRUE(getCurrentDirectory(after));
    EXPECT_EQ(after, before);
}

TEST_F(FileIoTest, ModesKeepAppendOrTruncate) {
    const auto writeWith = [this](int mode, const std::string& text) {
        const FileHandle h = openFile(path("f"), mode);
        ASSERT_GE(h, 0);
        EXPECT_TRUE(writeBlock(h, text.data(), static_cast<std::uint32_t>(text.size())));
        EXPECT_TRUE(closeFile(h));
    };
    writeWith(FILE_CREATE, "hello");
    writeWith(FILE_READWRITE, "J");
    writeWith(FILE_APPEND, "!");
    EXPECT_EQ(read("f"), "Jello!");
    writeWith(FILE_CREATE, "x");
    EXPECT_EQ(read("f"), "x");
}

TEST_F(FileIoTest, BytesPeekSizeAndLines) {
    const FileHandle h = openReadWrite(path("f"));
    ASSERT_GE(h, 0);
    EXPECT_TRUE(writeLine(h, "ab"));
    EXPECT_TRUE(writeLine(h, ""));
    EXPECT_TRUE(writeByte(h, 'z'));
    std::uint32_t size = 99;
    EXPECT_TRUE(getFileSize(h, size));
    EXPECT_EQ(size, 7u);
    std::uint8_t byte = 0;
    EXPECT_TRUE(seekBack(h));
    EXPECT_FALSE(isEndOfFile(h));  // a peek, not a read
    EXPECT_TRUE(readByte(h, byte));
    EXPECT_EQ(byte, 'z');
    EXPECT_TRUE(isEndOfFile(h));
    EXPECT_FALSE(readByte(h, byte));
    EXPECT_EQ(byte, 255);
    EXPECT_TRUE(truncateFile(h, 2));
    EXPECT_TRUE(flushFile(h));
    EXPECT_TRUE(closeFile(h));
    EXPECT_EQ(read("f"), "ab");
    byte = 7;
    EXPECT_FALSE(readByte(h, byte));
    EXPECT_EQ(byte, 7);
}

TEST_F(FileIoTest, CopyFileCopiesEveryBlockAndNeverOverwrites) {
    for (const std::size_t length : {0, 512, 513, 1300}) {
        std::string content;
        for (std::size_t i = 0; i < length; ++i) {
            content += static_cast<char>(i * 7);
        }
        const std::string name = "src" + std::to_string(length);
        write(name, content);
        EXPECT_EQ(copyFile(path("copies/" + name), path(name)), 1);
        EXPECT_EQ(read("copies/" + name), content);
    }
    write("dst", "keep");
    EXPECT_EQ(copyFile(path("dst"), path("src1300")), -1);
    EXPECT_EQ(read("dst"), "keep");
    EXPECT_EQ(read("src1300").size(), 1300u);
    EXPECT_EQ(copyFile(path("new"), path("missing")), 0);
}

TEST_F(FileIoTest, ReadOnlyRenameAndRemove) {
    write("f", "x");
    EXPECT_TRUE(setReadOnly(path("f")));
    EXPECT_EQ(permissions("f"), 0466u);
    EXPECT_TRUE(clearReadOnly(path("f")));
    EXPECT_EQ(permissions("f"), 0666u);
    EXPECT_FALSE(setReadOnly(path("missing")));
    EXPECT_TRUE(renameFile(path("f"), path("g")));
    EXPECT_TRUE(removeFile(path("g")));
    EXPECT_FALSE(removeFile(path("g")));
}

TEST_F(FileIoTest, DiskSpaceOnlyForKnownDrivesWithTheTotalWrappedAt32Bits) {
    std::uint64_t freeBytes = 0, totalBytes = 0;
    for (const char drive : {'a', 'A', 'c', 'C', '/', '\\'}) {
        EXPECT_TRUE(getDiskSpace(drive, &freeBytes, &totalBytes)) << drive;
    }
    EXPECT_LE(totalBytes, 0xFFFFFFFFu);
    EXPECT_EQ(getPathTotal("/"), static_cast<std::int64_t>(totalBytes));
    EXPECT_FALSE(getDiskSpace('d', &freeBytes, &totalBytes));
    EXPECT_EQ(getDiskFree('x'), ~std::uint64_t{0});
    EXPECT_EQ(getDiskTotal32('x'), ~std::uint32_t{0});
    EXPECT_GT(getPathFree(dir_), 0);
    EXPECT_EQ(getPathFree(path("missing/x")), -1);
}

TEST_F(FileIoTest, FindListsDosRecordsInLocalTime) {
    setenv("TZ", "UTC", 1);  // nothing else here depends on the zone
    tzset();
    write("x", std::string(1234, 'x'));
    const timespec changed[2] = {{1551776823, 0}, {1551776823, 0}};  // 2019-03-05 09:07:03 UTC
    ASSERT_EQ(utimensat(AT_FDCWD, path("x").c_str(), changed, 0), 0);
    ASSERT_TRUE(setReadOnly(path("x")));
    ASSERT_TRUE(createDirectoryPath(path("d")));
    ASSERT_EQ(mkfifo(path("p").c_str(), 0644), 0);

    TFileInfo info{};
    ASSERT_TRUE(findFirst(path("*"), info));
    EXPECT_EQ(info.name, "d");
    EXPECT_EQ(info.attrib, kAttribDirectory);
    ASSERT_TRUE(findNext(info));
    EXPECT_EQ(info.name, "p");
    EXPECT_EQ(info.attrib, kAttribSystem);
    ASSERT_TRUE(findNext(info));
    EXPECT_EQ(formatFileInfo(info), "attrib: 0x 1; time:  90703; date: 20190305; size:       1234; 'x'");
    EXPECT_FALSE(findNext(info));
    EXPECT_FALSE(findNext(info));
    EXPECT_FALSE(findFirst(path("*.none"), info));

    info = {0xab, 1, 2, 3, "n"};
    EXPECT_EQ(formatFileInfo(info), "attrib: 0xab; time:      1; date:      2; size:          3; 'n'");
}
