// A scratch directory under /tmp per test, with permissions unmasked so created modes show as given.
#pragma once

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "fileio.h"

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
    // The lines that repeated isEndOfFile + readLine give, as the hex loader reads them.
    std::vector<std::string> readLineLines(const std::string& name, std::int32_t maxLength = 1024) const {
        std::vector<std::string> lines;
        const fileio::FileHandle h = fileio::openRead(path(name));
        EXPECT_GE(h, 0);
        std::string line = "stale";
        while (!fileio::isEndOfFile(h)) {
            EXPECT_TRUE(fileio::readLine(h, line, maxLength));
            lines.push_back(line);
        }
        EXPECT_FALSE(fileio::readLine(h, line, maxLength));
        EXPECT_EQ(line, "");
        ::close(h);  // not closeFile: no system-wide sync needed for a file only read
        return lines;
    }
    std::vector<std::string> lineReaderLines(const std::string& name, std::int32_t maxLength = 1024) const {
        std::vector<std::string> lines;
        fileio::LineReader reader(path(name), maxLength);
        EXPECT_TRUE(reader.isOpen());
        for (std::string line; reader.next(line);) {
            lines.push_back(line);
        }
        EXPECT_TRUE(reader.atEnd());
        return lines;
    }

    std::string dir_;
    mode_t oldMask_ = 0;
};
