// File access layer: DOS-style file handles and open modes over POSIX descriptors, line reading,
// path normalisation ('~', backslashes), file-system queries and a find-first/find-next listing.
// Nothing is printed; failures come back as false, a negative handle or the stated failure value.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace fileio {

/// A POSIX descriptor narrowed to 16 bits; negative means failure.
using FileHandle = std::int16_t;

/// Open modes; any number outside 1..4 opens for reading. The creating modes also create the
/// missing directories of the path.
enum OpenMode : int { FILE_READ = 0, FILE_READWRITE = 1, FILE_WRITE = 2, FILE_APPEND = 3, FILE_CREATE = 4 };

/// Longest line the bulk readers of hex files take at once.
constexpr std::int32_t kDefaultLineLength = 1024;

/// Copy of `path` with a leading '~' replaced by the real user's home directory and every
/// backslash turned into '/'.
std::string normalizePath(const std::string& path);
/// True when the path is non-empty and names a regular file.
[[nodiscard]] bool fileExists(const std::string& path);
/// True when the path is non-empty and names a directory.
[[nodiscard]] bool directoryExists(const std::string& path);
/// Enters (creating with mode 0755 where missing) every directory of the path, then returns to the
/// current directory; false when a component cannot be entered. Changes the process's current
/// directory meanwhile: do not run concurrently with anything that depends on it.
[[nodiscard]] bool createDirectoryPath(const std::string& path);
/// Removes a file; false on failure.
[[nodiscard]] bool removeFile(const std::string& path);
/// Renames a file; false on failure.
[[nodiscard]] bool renameFile(const std::string& oldPath, const std::string& newPath);
/// Copies `source` to a new file `destination`: 1 copied, 0 failed, -1 refused because the
/// destination already exists as a regular file.
[[nodiscard]] std::int32_t copyFile(const std::string& destination, const std::string& source);
/// Clears the owner write bit; false on failure.
[[nodiscard]] bool setReadOnly(const std::string& path);
/// Sets the owner write bit; false on failure.
[[nodiscard]] bool clearReadOnly(const std::string& path);
/// Current directory into `out`; false (and `out` untouched) on failure.
[[nodiscard]] bool getCurrentDirectory(std::string& out);
/// Changes the current directory; false on failure.
[[nodiscard]] bool setCurrentDirectory(const std::string& path);

/// Free and total bytes of the root file system for drive 'a', 'A', 'c', 'C', '/' or '\'; either
/// output may be null. The total wraps at 4 GiB. False for other drives or a failed query.
[[nodiscard]] bool getDiskSpace(char drive, std::uint64_t* freeBytes, std::uint64_t* totalBytes);
/// Free bytes of the drive; all bits set on failure.
std::uint64_t getDiskFree(char drive);
/// Total bytes of the drive (wrapped at 4 GiB); all bits set on failure.
std::uint64_t getDiskTotal(char drive);
/// Low 32 bits of getDiskFree; all bits set on failure.
std::uint32_t getDiskFree32(char drive);
/// Low 32 bits of getDiskTotal; all bits set on failure.
std::uint32_t getDiskTotal32(char drive);
/// getDiskSpace with the low 32 bits of each value; false on failure.
bool getDiskSpace32(char drive, std::uint32_t* freeBytes, std::uint32_t* totalBytes);
/// Free bytes of the file system holding `path`; -1 on failure.
std::int64_t getPathFree(const std::string& path);
/// Total bytes (wrapped at 4 GiB) of the file system holding `path`; -1 on failure.
std::int64_t getPathTotal(const std::string& path);

/// Opens `path` in one of the OpenMode modes (new files get mode 0775); negative on failure.
[[nodiscard]] FileHandle openFile(const std::string& path, int mode);
/// openFile in FILE_READ mode.
[[nodiscard]] FileHandle openRead(const std::string& path);
/// openFile in FILE_READWRITE mode.
[[nodiscard]] FileHandle openReadWrite(const std::string& path);
/// openFile in FILE_WRITE mode.
[[nodiscard]] FileHandle openWrite(const std::string& path);
/// Flushes and closes the handle, then syncs all file systems; false when the close failed.
bool closeFile(FileHandle h);
/// Flushes the file to its device; false on failure.
bool flushFile(FileHandle h);
/// Sets the file's length; false on failure.
[[nodiscard]] bool truncateFile(FileHandle h, std::uint32_t length);
/// File size into `size` (0 on failure); false on failure.
[[nodiscard]] bool getFileSize(FileHandle h, std::uint32_t& size);
/// One read; false unless exactly `length` bytes came.
[[nodiscard]] bool readBlock(FileHandle h, void* buffer, std::uint32_t length);
/// One write; false unless exactly `length` bytes went.
[[nodiscard]] bool writeBlock(FileHandle h, const void* buffer, std::uint32_t length);
/// Reads one byte; false at end of file (byte set to 255) or on an error (byte untouched).
[[nodiscard]] bool readByte(FileHandle h, std::uint8_t& byte);
/// Writes one byte; false on failure.
[[nodiscard]] bool writeByte(FileHandle h, std::uint8_t byte);
/// Peeks one byte: true when none is left. Steps back after any other read result, an error too.
bool isEndOfFile(FileHandle h);
/// Moves the position by `offset` from where it is; false on failure.
[[nodiscard]] bool seekRelative(FileHandle h, std::int32_t offset);
/// Moves the position back by one byte; false on failure.
[[nodiscard]] bool seekBack(FileHandle h);
/// Reads one line of at most `maxLength` characters without its end (CR, LF, CR LF or LF CR);
/// false (line cleared) at end of file or on a read error inside the line.
[[nodiscard]] bool readLine(FileHandle h, std::string& line, std::int32_t maxLength);
/// Writes the text and "\r\n"; false unless both were written completely.
[[nodiscard]] bool writeLine(FileHandle h, const std::string& line);

/// One file of a listing, with DOS-style attribute bits and decimal-packed local time and date.
struct TFileInfo {
    std::uint8_t attrib;  ///< 1 read-only, 4 system (neither file nor directory), 16 directory
    std::uint32_t time;   ///< hour * 10000 + minute * 100 + second
    std::uint32_t date;   ///< year * 10000 + month * 100 + day
    std::uint32_t size;
    std::string name;  ///< without its directory
};

/// Attribute bit of a read-only file.
constexpr std::uint8_t kAttribReadOnly = 1;
/// Attribute bit of anything that is neither a regular file nor a directory.
constexpr std::uint8_t kAttribSystem = 4;
/// Attribute bit of a directory.
constexpr std::uint8_t kAttribDirectory = 16;

/// Starts the process-wide listing of the paths matching the wildcard pattern and fills `info` for
/// the first; false when nothing matches. Callers must serialise the use of the listing.
[[nodiscard]] bool findFirst(const std::string& pattern, TFileInfo& info);
/// Moves to the next path of the listing and fills `info`; false (listing emptied) past the end.
[[nodiscard]] bool findNext(TFileInfo& info);
/// One-line text of a record: "attrib: 0x%2x; time: %6u; date: %6u; size: %10u; '<name>'".
std::string formatFileInfo(const TFileInfo& info);

/// Reads a file's lines through a 64 KiB buffer, yielding exactly the lines that repeated
/// `isEndOfFile` + `readLine(h, line, maxLength)` give, without a system call per byte.
class LineReader {
  public:
    /// Opens `path` (normalised) for reading; check isOpen().
    explicit LineReader(const std::string& path, std::int32_t maxLength = kDefaultLineLength);
    ~LineReader();
    LineReader(const LineReader&) = delete;
    LineReader& operator=(const LineReader&) = delete;

    /// True when the file could be opened.
    bool isOpen() const { return fd_ >= 0; }
    /// True when no byte is left (also when not open or after a read error).
    bool atEnd();
    /// Next line as readLine yields it; false (line cleared) at end of file.
    [[nodiscard]] bool next(std::string& line);

  private:
    static constexpr std::size_t kBufferSize = std::size_t{64} * 1024;
    static constexpr int kNoByte = -1;

    int peek();
    int get();

    int fd_;
    std::int32_t maxLength_;
    std::vector<std::uint8_t> buffer_;
    std::size_t position_ = 0;
    std::size_t filled_ = 0;
};

}  // namespace fileio
