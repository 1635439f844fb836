// File handles: opening by mode number, block, byte and line access.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "fileio.h"
#include "fileio_internal.h"

namespace fileio {

namespace {

using detail::isLineEnd;

constexpr std::uint8_t kEndOfFileByte = 0xFF;
constexpr char kLineEnd[] = "\r\n";
constexpr std::uint32_t kLineEndLength = 2;

int flagsOf(int mode) {
    switch (mode) {
        case FILE_READWRITE:
            return O_RDWR | O_CREAT;
        case FILE_WRITE:
            return O_WRONLY | O_CREAT;
        case FILE_APPEND:
            return O_WRONLY | O_CREAT | O_APPEND;
        case FILE_CREATE:
            return O_WRONLY | O_CREAT | O_TRUNC;
        default:
            return O_RDONLY;
    }
}

bool isCreatingMode(int mode) {
    return mode >= FILE_READWRITE && mode <= FILE_CREATE;
}

// Steps back over a byte just read. Callers ignore the result on purpose: the peek's answer stands
// even where the step fails (after a failed read, for instance).
void stepBack(FileHandle h) {
    (void)::lseek(h, -1, SEEK_CUR);
}

}  // namespace

FileHandle openFile(const std::string& path, int mode) {
    const std::string target = normalizePath(path);
    if (isCreatingMode(mode)) {
        const std::size_t slash = target.rfind('/');
        const std::string directory = slash == std::string::npos ? std::string() : target.substr(0, slash);
        if (!directory.empty() && !directoryExists(directory)) {
            // Result ignored: the open below fails by itself when the directory is still missing.
            (void)createDirectoryPath(directory);
        }
    }
    // Narrowed to 16 bits on purpose: handles have always been 16-bit values.
    return static_cast<FileHandle>(::open(target.c_str(), flagsOf(mode), detail::kFileMode));
}

FileHandle openRead(const std::string& path) {
    return openFile(path, FILE_READ);
}

FileHandle openReadWrite(const std::string& path) {
    return openFile(path, FILE_READWRITE);
}

FileHandle openWrite(const std::string& path) {
    return openFile(path, FILE_WRITE);
}

bool closeFile(FileHandle h) {
    // Ignored: descriptors that cannot be synced (pipes, terminals) must still be closed.
    (void)::fsync(h);
    const bool closed = ::close(h) == 0;
    ::sync();
    return closed;
}

bool flushFile(FileHandle h) {
    return ::fsync(h) == 0;
}

bool truncateFile(FileHandle h, std::uint32_t length) {
    return ::ftruncate(h, static_cast<off_t>(length)) == 0;
}

bool getFileSize(FileHandle h, std::uint32_t& size) {
    struct stat info {};
    if (::fstat(h, &info) != 0) {
        size = 0;
        return false;
    }
    size = static_cast<std::uint32_t>(info.st_size);
    return true;
}

bool readBlock(FileHandle h, void* buffer, std::uint32_t length) {
    return ::read(h, buffer, length) == static_cast<ssize_t>(length);
}

bool writeBlock(FileHandle h, const void* buffer, std::uint32_t length) {
    return ::write(h, buffer, length) == static_cast<ssize_t>(length);
}

bool readByte(FileHandle h, std::uint8_t& byte) {
    std::uint8_t value = 0;
    const ssize_t got = ::read(h, &value, 1);
    if (got == 1) {
        byte = value;
        return true;
    }
    if (got == 0) {
        byte = kEndOfFileByte;
    }
    return false;
}

bool writeByte(FileHandle h, std::uint8_t byte) {
    return ::write(h, &byte, 1) == 1;
}

bool isEndOfFile(FileHandle h) {
    std::uint8_t value = 0;
    if (::read(h, &value, 1) == 0) {
        return true;
    }
    stepBack(h);
    return false;
}

bool seekRelative(FileHandle h, std::int32_t offset) {
    return ::lseek(h, offset, SEEK_CUR) != -1;
}

bool seekBack(FileHandle h) {
    return seekRelative(h, -1);
}

bool readLine(FileHandle h, std::string& line, std::int32_t maxLength) {
    line.clear();
    if (isEndOfFile(h)) {
        return false;
    }
    if (maxLength <= 0) {
        return true;
    }
    std::uint8_t byte = 0;
    for (std::int32_t count = 0; count < maxLength; ++count) {
        if (::read(h, &byte, 1) != 1) {
            return false;
        }
        if (isLineEnd(byte)) {
            std::uint8_t following = 0;
            if (::read(h, &following, 1) != 1) {
                return true;  // the line end was the file's last byte
            }
            // The other line-end byte completes a CR LF or LF CR pair; anything else (the same
            // line end included, which starts an empty line) belongs to the next line.
            if (following == byte || !isLineEnd(following)) {
                stepBack(h);
            }
            return true;
        }
        line.push_back(static_cast<char>(byte));
        if (isEndOfFile(h)) {
            return true;
        }
    }
    return true;  // cut at the maximum; the rest is the next line
}

bool writeLine(FileHandle h, const std::string& line) {
    const bool textWritten =
        line.empty() || writeBlock(h, line.data(), static_cast<std::uint32_t>(line.size()));
    return writeBlock(h, kLineEnd, kLineEndLength) && textWritten;
}

}  // namespace fileio
