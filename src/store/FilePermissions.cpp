#include "store/FilePermissions.h"

#include "common/BrimError.h"
#include "common/Localization.h"

#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

namespace brim::FilePermissions {

namespace {

/// The inode flags of a file, or none where the file system keeps none.
std::optional<long> inodeFlags(const std::filesystem::path& path) {
    const int fd = ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC | O_NOFOLLOW);
    if (fd < 0) return std::nullopt;
    long flags = 0;
    const int result = ::ioctl(fd, FS_IOC_GETFLAGS, &flags);
    ::close(fd);
    if (result != 0) return std::nullopt;
    return flags;
}

} // namespace

State state(const std::optional<std::filesystem::path>& path) {
    if (!path || path->empty()) return State::writable;
    struct stat info {};
    if (::stat(path->c_str(), &info) != 0) {
        // A file still to be made is as writable as its folder.
        const auto folder = path->has_parent_path() ? path->parent_path() : std::filesystem::path(".");
        if (::stat(folder.c_str(), &info) != 0 || !S_ISDIR(info.st_mode)) return State::writable;
        return ::access(folder.c_str(), W_OK) == 0 ? State::writable : State::noPermission;
    }
    if (!S_ISREG(info.st_mode)) return State::writable;
    if (const auto flags = inodeFlags(*path); flags && (*flags & FS_IMMUTABLE_FL) != 0) return State::locked;
    return ::access(path->c_str(), W_OK) == 0 ? State::writable : State::noPermission;
}

void unlock(const std::filesystem::path& path) {
    const int fd = ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC | O_NOFOLLOW);
    if (fd < 0) throw posixError(L("Could not unlock %@", path.string()), errno);
    long flags = 0;
    if (::ioctl(fd, FS_IOC_GETFLAGS, &flags) != 0) {
        const int error = errno;
        ::close(fd);
        throw posixError(L("Could not unlock %@", path.string()), error);
    }
    if ((flags & FS_IMMUTABLE_FL) != 0) {
        flags &= ~static_cast<long>(FS_IMMUTABLE_FL);
        if (::ioctl(fd, FS_IOC_SETFLAGS, &flags) != 0) {
            const int error = errno;
            ::close(fd);
            throw posixError(L("Could not unlock %@", path.string()), error);
        }
    }
    ::close(fd);
}

} // namespace brim::FilePermissions
