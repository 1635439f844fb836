// Buffered line reading with the line rules of readLine.
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "fileio.h"
#include "fileio_internal.h"

namespace fileio {

using detail::isLineEnd;

LineReader::LineReader(const std::string& path, std::int32_t maxLength)
    : fd_(::open(normalizePath(path).c_str(), O_RDONLY | O_CLOEXEC)),
      maxLength_(maxLength),
      buffer_(kBufferSize) {}

LineReader::~LineReader() {
    if (fd_ >= 0) {
        (void)::close(fd_);  // read only: nothing can be lost
    }
}

int LineReader::peek() {
    if (position_ == filled_) {
        if (fd_ < 0) {
            return kNoByte;
        }
        ssize_t got = 0;
        do {
            got = ::read(fd_, buffer_.data(), buffer_.size());
        } while (got < 0 && errno == EINTR);
        // A read error ends the file here, as it ends readLine's line.
        if (got <= 0) {
            return kNoByte;
        }
        position_ = 0;
        filled_ = static_cast<std::size_t>(got);
    }
    return buffer_[position_];
}

int LineReader::get() {
    const int byte = peek();
    if (byte != kNoByte) {
        ++position_;
    }
    return byte;
}

bool LineReader::atEnd() {
    return peek() == kNoByte;
}

bool LineReader::next(std::string& line) {
    line.clear();
    if (atEnd()) {
        return false;
    }
    std::int32_t count = 0;
    while (count < maxLength_) {
        if (position_ == filled_ && peek() == kNoByte) {
            return true;
        }
        // Take the run of ordinary bytes in the buffer at once.
        const std::size_t room = static_cast<std::size_t>(maxLength_ - count);
        const std::size_t end = std::min(filled_, position_ + room);
        std::size_t stop = position_;
        while (stop < end && !isLineEnd(buffer_[stop])) {
            ++stop;
        }
        line.append(reinterpret_cast<const char*>(buffer_.data() + position_), stop - position_);
        count += static_cast<std::int32_t>(stop - position_);
        position_ = stop;
        if (stop < end) {
            const int byte = get();
            const int following = peek();
            if (following != byte && isLineEnd(following)) {
                ++position_;
            }
            return true;
        }
    }
    return true;  // cut at the maximum (or nothing taken for a maximum of 0 or less)
}

}  // namespace fileio
