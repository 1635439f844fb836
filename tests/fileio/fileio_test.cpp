#include <fcntl.h>
#include <pwd.h>

#include <cstdlib>
#include <ctime>

#include "FileIoFixture.h"

using namespace fileio;

TEST_F(FileIoTest, NormalizePathExpandsHomeAndTurnsBackslashes) {
    const passwd* user = getpwuid(getuid());
    ASSERT_NE(user, nullptr);
    EXPECT_EQ(normalizePath("~\\data\\x.hex"), std::string(user->pw_dir) + "/data/x.hex");
    EXPECT_EQ(normalizePath("a~\\b"), "a~/b");
}

TEST_F(FileIoTest, ExistenceTellsFilesFromDirectories) {
    write("f", "x");
    EXPECT_TRUE(fileExists(path("f")));
    EXPECT_FALSE(fileExists(dir_));
    EXPECT_FALSE(fileExists(""));
    EXPECT_TRUE(directoryExists(dir_));
    EXPECT_FALSE(directoryExists(path("f")));
    EXPECT_FALSE(directoryExists(""));
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
    EXPECT_LT(openFile(path("r/c.txt"), FILE_READ), 0);
    EXPECT_LT(openFile(path("r/c.txt"), 9), 0);
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
    writeWith(FILE_WRITE, "Y");
    EXPECT_EQ(read("f"), "Yello!");
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
    EXPECT_FALSE(closeFile(h));
    EXPECT_FALSE(getFileSize(h, size));
    EXPECT_EQ(size, 0u);
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

TEST_F(FileIoTest, PathOperations) {
    write("f", "x");
    EXPECT_TRUE(setReadOnly(path("f")));
    EXPECT_EQ(permissions("f") & 0200u, 0u);
    EXPECT_TRUE(clearReadOnly(path("f")));
    EXPECT_EQ(permissions("f") & 0200u, 0200u);
    EXPECT_FALSE(setReadOnly(path("missing")));
    EXPECT_TRUE(renameFile(path("f"), path("g")));
    EXPECT_FALSE(renameFile(path("f"), path("h")));
    EXPECT_TRUE(removeFile(path("g")));
    EXPECT_FALSE(removeFile(path("g")));

    std::string before, inside;
    ASSERT_TRUE(getCurrentDirectory(before));
    ASSERT_TRUE(setCurrentDirectory(dir_));
    ASSERT_TRUE(getCurrentDirectory(inside));
    EXPECT_TRUE(setCurrentDirectory(before));
    EXPECT_EQ(inside, std::filesystem::canonical(dir_).string());
    EXPECT_FALSE(setCurrentDirectory(path("missing")));
}

TEST_F(FileIoTest, DiskSpaceOnlyForKnownDrivesWithTheTotalWrappedAt32Bits) {
    std::uint64_t freeBytes = 0, totalBytes = 0;
    for (const char drive : {'a', 'A', 'c', 'C', '/', '\\'}) {
        EXPECT_TRUE(getDiskSpace(drive, &freeBytes, nullptr)) << drive;
    }
    EXPECT_FALSE(getDiskSpace('d', &freeBytes, &totalBytes));
    EXPECT_EQ(getDiskFree('x'), ~std::uint64_t{0});
    EXPECT_EQ(getDiskTotal32('x'), ~std::uint32_t{0});
    ASSERT_TRUE(getDiskSpace('/', nullptr, &totalBytes));
    EXPECT_LE(totalBytes, 0xFFFFFFFFu);
    EXPECT_EQ(getDiskTotal('c'), totalBytes);
    EXPECT_EQ(getPathTotal("/"), static_cast<std::int64_t>(totalBytes));
    std::uint32_t free32 = 0, total32 = 0;
    EXPECT_TRUE(getDiskSpace32('C', &free32, &total32));
    EXPECT_EQ(total32, static_cast<std::uint32_t>(totalBytes));
    EXPECT_GT(getPathFree(dir_), 0);
    EXPECT_EQ(getPathFree(path("missing/x")), -1);
    EXPECT_EQ(getPathTotal(path("missing/x")), -1);
}

TEST_F(FileIoTest, FindListsDosRecordsInLocalTime) {
    const char* oldTz = std::getenv("TZ");
    const std::string savedTz = oldTz != nullptr ? oldTz : "";
    setenv("TZ", "UTC", 1);
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
    if (oldTz != nullptr) {
        setenv("TZ", savedTz.c_str(), 1);
    } else {
        unsetenv("TZ");
    }
    tzset();
}
