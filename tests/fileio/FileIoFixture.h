// A scratch directory under /tmp per test, with permissions unmasked so created modes show as given.
#pragma once

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "TempDir.h"
#include "fileio.h"

using Lines = std::vector<std::string>;

class FileIoTest : public ::testing::Test {
  protected:
    void SetUp() override { oldMask_ = umask(0); }
    void TearDown() override { umask(oldMask_); }
    std::string path(const std::string& name) const { return temp_.path(name); }
    void write(const std::string& name, const std::string& bytes) const { temp_.write(name, bytes); }
    std::string read(const std::string& name) const { return temp_.read(name); }
    mode_t permissions(const std::string& name) const {
        struct stat info {};
        return ::stat(path(name).c_str(), &info) == 0 ? (info.st_mode & 07777) : 0;
    }
    // Writes the bytes to a file and reads its lines twice, with isEndOfFile + readLine as the hex loader
    // did and with LineReader, which must agree; returns the lines.
    Lines linesOf(const std::string& bytes, std::int32_t maxLength = 1024) const {
        write("lines", bytes);
        Lines lines, fromReader;
        const fileio::FileHandle h = fileio::openRead(path("lines"));
        std::string line = "stale";
        while (!fileio::isEndOfFile(h)) {
            EXPECT_TRUE(fileio::readLine(h, line, maxLength));
            lines.push_back(line);
        }
        EXPECT_FALSE(fileio::readLine(h, line, maxLength));
        EXPECT_EQ(line, "");
        ::close(h);  // not closeFile: no system-wide sync needed for a file only read
        fileio::LineReader reader(path("lines"), maxLength);
        for (line = "stale"; reader.next(line);) {
            fromReader.push_back(line);
        }
        EXPECT_TRUE(reader.isOpen() && reader.atEnd());
        const auto differ = std::mismatch(lines.begin(), lines.end(), fromReader.begin(), fromReader.end());
        EXPECT_TRUE(differ.first == lines.end() && differ.second == fromReader.end())
            << "LineReader differs from line " << differ.first - lines.begin();
        return lines;
    }

    TempDir temp_{"fileio"};
    const std::string& dir_ = temp_.path();
    mode_t oldMask_ = 0;
};
