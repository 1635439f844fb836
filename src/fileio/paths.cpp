// Paths, directories, whole-file operations and file-system space.
#include <pwd.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <vector>

#include "fileio.h"
#include "fileio_internal.h"

namespace fileio {

namespace {

using detail::kDirectoryMode;
using detail::kPathBufferSize;

constexpr std::size_t kCopyBlockSize = 512;
constexpr std::size_t kFallbackPasswdBufferSize = 16384;
constexpr std::uint64_t kNoSpace = ~std::uint64_t{0};

bool realUserHome(std::string& home) {
    const long suggested = ::sysconf(_SC_GETPW_R_SIZE_MAX);
    std::vector<char> buffer(suggested > 0 ? static_cast<std::size_t>(suggested) : kFallbackPasswdBufferSize);
    passwd entry{};
    passwd* found = nullptr;
    if (::getpwuid_r(::getuid(), &entry, buffer.data(), buffer.size(), &found) != 0 || found == nullptr ||
        entry.pw_dir == nullptr) {
        return false;
    }
    home = entry.pw_dir;
    return true;
}

bool statIs(const std::string& path, mode_t type) {
    const std::string target = normalizePath(path);
    struct stat info {};
    return !target.empty() && ::stat(target.c_str(), &info) == 0 && (info.st_mode & S_IFMT) == type;
}

bool changeOwnerWrite(const std::string& path, bool writable) {
    const std::string target = normalizePath(path);
    struct stat info {};
    if (::stat(target.c_str(), &info) != 0) {
        return false;
    }
    const mode_t permissions = info.st_mode & 07777;
    return ::chmod(target.c_str(),
                   writable ? (permissions | S_IWUSR) : (permissions & ~static_cast<mode_t>(S_IWUSR))) == 0;
}

struct Space {
    std::uint64_t freeBytes;
    std::uint64_t totalBytes;
};

bool spaceOf(const std::string& path, Space& space) {
    const std::unique_ptr<char, decltype(&std::free)> resolved(::realpath(path.c_str(), nullptr), &std::free);
    struct statvfs info {};
    if (!resolved || ::statvfs(resolved.get(), &info) != 0) {
        return false;
    }
    space.freeBytes = static_cast<std::uint64_t>(info.f_bsize) * static_cast<std::uint64_t>(info.f_bfree);
    // 32-bit on purpose: callers have always seen the total wrap above 4 GiB.
    space.totalBytes = static_cast<std::uint32_t>(static_cast<std::uint32_t>(info.f_bsize) *
                                                  static_cast<std::uint32_t>(info.f_blocks));
    return true;
}

bool isDriveAccepted(char drive) {
    return drive == 'a' || drive == 'A' || drive == 'c' || drive == 'C' || drive == '/' || drive == '\\';
}

// Syncs and closes one end of a copy whatever way the copy ends.
struct CopyEnd {
    FileHandle handle;
    ~CopyEnd() {
        if (handle >= 0) {
            // Both ignored: the copy's result is already decided by its reads and writes.
            (void)::fsync(handle);
            (void)::close(handle);
        }
    }
};

}  // namespace

std::string normalizePath(const std::string& path) {
    std::string result = path;
    std::string home;
    if (!result.empty() && result[0] == '~' && realUserHome(home)) {
        result.replace(0, 1, home);
    }
    std::replace(result.begin(), result.end(), '\\', '/');
    return result;
}

bool fileExists(const std::string& path) {
    return statIs(path, S_IFREG);
}

bool directoryExists(const std::string& path) {
    return statIs(path, S_IFDIR);
}

bool createDirectoryPath(const std::string& path) {
    std::array<char, kPathBufferSize> saved{};
    if (::getcwd(saved.data(), saved.size()) == nullptr) {
        return false;  // the walk could not come back
    }
    const std::string target = normalizePath(path);
    bool entered = true;
    std::size_t position = 0;
    if (!target.empty() && target[0] == '/') {
        entered = ::chdir("/") == 0;
        position = 1;
    }
    while (entered && position < target.size()) {
        const std::size_t slash = std::min(target.find('/', position), target.size());
        const std::string component = target.substr(position, slash - position);
        if (component.empty()) {
            entered = false;
            break;
        }
        if (::chdir(component.c_str()) != 0) {
            // mkdir's result is not needed: entering the directory afterwards tells.
            (void)::mkdir(component.c_str(), kDirectoryMode);
            entered = ::chdir(component.c_str()) == 0;
        }
        position = slash + 1;
    }
    if (::chdir(saved.data()) != 0) {
        return false;
    }
    return entered;
}

bool removeFile(const std::string& path) {
    return std::remove(normalizePath(path).c_str()) == 0;
}

bool renameFile(const std::string& oldPath, const std::string& newPath) {
    return std::rename(normalizePath(oldPath).c_str(), normalizePath(newPath).c_str()) == 0;
}

std::int32_t copyFile(const std::string& destination, const std::string& source) {
    if (fileExists(destination)) {
        return -1;
    }
    const CopyEnd out{openFile(destination, FILE_READWRITE)};
    const CopyEnd in{openFile(source, FILE_READ)};
    struct stat info {};
    if (out.handle < 0 || in.handle < 0 || ::fstat(in.handle, &info) != 0) {
        return 0;
    }
    std::array<std::uint8_t, kCopyBlockSize> block{};
    auto remaining = static_cast<std::uint64_t>(info.st_size);
    while (remaining > kCopyBlockSize) {
        if (!readBlock(in.handle, block.data(), kCopyBlockSize) ||
            !writeBlock(out.handle, block.data(), kCopyBlockSize)) {
            return 0;
        }
        remaining -= kCopyBlockSize;
    }
    const auto rest = static_cast<std::uint32_t>(remaining);
    return readBlock(in.handle, block.data(), rest) && writeBlock(out.handle, block.data(), rest) ? 1 : 0;
}

bool setReadOnly(const std::string& path) {
    return changeOwnerWrite(path, false);
}

bool clearReadOnly(const std::string& path) {
    return changeOwnerWrite(path, true);
}

bool getCurrentDirectory(std::string& out) {
    std::array<char, kPathBufferSize> buffer{};
    if (::getcwd(buffer.data(), buffer.size()) == nullptr) {
        return false;
    }
    out = buffer.data();
    return true;
}

bool setCurrentDirectory(const std::string& path) {
    return ::chdir(normalizePath(path).c_str()) == 0;
}

bool getDiskSpace(char drive, std::uint64_t* freeBytes, std::uint64_t* totalBytes) {
    Space space{};
    if (!isDriveAccepted(drive) || !spaceOf("/", space)) {
        return false;
    }
    if (freeBytes != nullptr) {
        *freeBytes = space.freeBytes;
    }
    if (totalBytes != nullptr) {
        *totalBytes = space.totalBytes;
    }
    return true;
}

std::uint64_t getDiskFree(char drive) {
    std::uint64_t bytes = 0;
    return getDiskSpace(drive, &bytes, nullptr) ? bytes : kNoSpace;
}

std::uint64_t getDiskTotal(char drive) {
    std::uint64_t bytes = 0;
    return getDiskSpace(drive, nullptr, &bytes) ? bytes : kNoSpace;
}

std::uint32_t getDiskFree32(char drive) {
    return static_cast<std::uint32_t>(getDiskFree(drive));
}

std::uint32_t getDiskTotal32(char drive) {
    return static_cast<std::uint32_t>(getDiskTotal(drive));
}

bool getDiskSpace32(char drive, std::uint32_t* freeBytes, std::uint32_t* totalBytes) {
    std::uint64_t freeValue = 0;
    std::uint64_t totalValue = 0;
    if (!getDiskSpace(drive, &freeValue, &totalValue)) {
        return false;
    }
    if (freeBytes != nullptr) {
        *freeBytes = static_cast<std::uint32_t>(freeValue);
    }
    if (totalBytes != nullptr) {
        *totalBytes = static_cast<std::uint32_t>(totalValue);
    }
    return true;
}

std::int64_t getPathFree(const std::string& path) {
    Space space{};
    return spaceOf(normalizePath(path), space) ? static_cast<std::int64_t>(space.freeBytes) : -1;
}

std::int64_t getPathTotal(const std::string& path) {
    Space space{};
    return spaceOf(normalizePath(path), space) ? static_cast<std::int64_t>(space.totalBytes) : -1;
}

}  // namespace fileio
