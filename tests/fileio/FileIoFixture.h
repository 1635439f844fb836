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

#include "fileio.h"

using Lines = std::vector<std::string>;

class FileIoTest : public ::testing::Test {
  protected:
    void SetUp() override {
        char pattern[] = "/tmp/varnoch-fileio-XXXXXX";
        ASSERT_NE(mkdtemp(pattern), nullptr);
        dir_ = pattern;
        oldMask_ = umask(0);
    }
    void TearDown() override {
        umask(oldMask_);
        std::filesystem::remove_all(dir_);
    }
    std::string path(const std::string& name) const { return dir_ + "/" + name; }
    void write(const std::string& name, const std::string& bytes) const {
        std::ofstream(path(name), std::ios::binary) << bytes;
    }
    std::string read(const std::string& name) const {
        std::ifstream in(path(name), std::ios::binary);
        return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
    }
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

    std::string dir_;
    mode_t oldMask_ = 0;
};
