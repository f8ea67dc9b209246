#include "bytes/MemorySource.h"

#include "common/BrimError.h"
#include "common/Localization.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace brim {

namespace {

/// Closes a descriptor when it goes out of scope.
struct Descriptor {
    int fd = -1;
    ~Descriptor() {
        if (fd >= 0) ::close(fd);
    }
};

/// Reads until `size` bytes are in or the file ends; returns how many came.
std::int64_t readUpTo(int fd, std::uint8_t* destination, std::int64_t size) {
    std::int64_t done = 0;
    while (done < size) {
        const ssize_t got = ::read(fd, destination + done, static_cast<std::size_t>(size - done));
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0) break;
        done += got;
    }
    return done;
}

}  // namespace

std::vector<std::uint8_t> MemorySource::bytesOfFile(const std::filesystem::path& path) {
    // Not blocking: a pipe or device given by name must not hang the open; it reads as empty.
    Descriptor file{::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK)};
    if (file.fd < 0) throw BrimError(L("open failed: %@", std::strerror(errno)));
    // The bytes are read once, front to back; the page cache need not keep them for us.
    ::posix_fadvise(file.fd, 0, 0, POSIX_FADV_SEQUENTIAL);
    struct stat status {};
    if (::fstat(file.fd, &status) != 0) throw BrimError(L("fstat failed"));
    std::vector<std::uint8_t> bytes;
    if (status.st_size <= 0) {
        if (S_ISREG(status.st_mode) && status.st_size == 0) {
            // Files that report no size but have contents (those under /proc) are read to
            // their end; a truly empty file costs one read that returns nothing.
            std::vector<std::uint8_t> block(65'536);
            while (true) {
                const std::int64_t got =
                    readUpTo(file.fd, block.data(), static_cast<std::int64_t>(block.size()));
                bytes.insert(bytes.end(), block.begin(), block.begin() + got);
                if (got < static_cast<std::int64_t>(block.size())) break;
            }
        }
        return bytes;
    }
    bytes.resize(static_cast<std::size_t>(status.st_size));
    const std::int64_t got = readUpTo(file.fd, bytes.data(), static_cast<std::int64_t>(bytes.size()));
    if (got == 0) throw BrimError(L("read failed"));
    bytes.resize(static_cast<std::size_t>(got));
    return bytes;
}

void MemorySource::read(ByteRange range, std::uint8_t* destination) const {
    const ByteRange clamped = range.clampedTo(count());
    if (clamped.empty()) return;
    std::memcpy(destination, bytes_.data() + clamped.lower, static_cast<std::size_t>(clamped.length()));
}

void MemorySource::withBytes(ByteRange range,
                             const std::function<void(std::span<const std::uint8_t>)>& body) const {
    const ByteRange clamped = range.clampedTo(count());
    body(std::span<const std::uint8_t>(bytes_.data() + clamped.lower,
                                       static_cast<std::size_t>(clamped.length())));
}

}  // namespace brim
