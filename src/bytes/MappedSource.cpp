#include "bytes/MappedSource.h"

#include "common/BrimError.h"
#include "common/Localization.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <vector>

namespace brim {

namespace {

// A file cut short under its map turns a touch of a page past the new end into SIGBUS. Between
// the cut and the moment the watcher tells us (when `refreshReadableSize` clamps all reads),
// a reader may hold a pointer into such a page. The handler below puts a page of zeros in its
// place and lets the reader go on, which is what every read path shows for missing bytes
// anyway. Faults outside our maps go to whatever handled SIGBUS before.

constexpr std::size_t guardSlotCount = 1'024;

struct GuardedRegion {
    std::atomic<std::uintptr_t> begin{0};  // 0: the slot is free
    std::atomic<std::uintptr_t> end{0};
};

std::array<GuardedRegion, guardSlotCount> guardedRegions;
std::mutex guardLock;                   // serialises claiming and freeing slots
struct sigaction previousBusAction {};  // written once, before the handler is installed
std::uintptr_t guardPageSize = 4'096;   // likewise
std::atomic<std::int64_t> absorbedFaults{0};
std::once_flag guardInstalled;

void onBusError(int signalNumber, siginfo_t* info, void* context) {
    const auto address = reinterpret_cast<std::uintptr_t>(info->si_addr);
    // Only faults raised by the kernel for a memory access; a SIGBUS sent by someone is not ours.
    if (info->si_code > 0) {
        for (auto& region : guardedRegions) {
            const std::uintptr_t begin = region.begin.load(std::memory_order_acquire);
            if (begin == 0 || address < begin || address >= region.end.load(std::memory_order_acquire))
                continue;
            void* page = reinterpret_cast<void*>(address & ~(guardPageSize - 1));
            const int saved = errno;
            void* replaced =
                ::mmap(page, guardPageSize, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED, -1, 0);
            errno = saved;
            if (replaced != MAP_FAILED) {
                absorbedFaults.fetch_add(1, std::memory_order_relaxed);
                return;
            }
            break;
        }
    }
    if ((previousBusAction.sa_flags & SA_SIGINFO) != 0 && previousBusAction.sa_sigaction != nullptr) {
        previousBusAction.sa_sigaction(signalNumber, info, context);
        return;
    }
    if (previousBusAction.sa_handler != SIG_DFL && previousBusAction.sa_handler != SIG_IGN &&
        previousBusAction.sa_handler != nullptr) {
        previousBusAction.sa_handler(signalNumber);
        return;
    }
    // The default action: restore it, and the faulting access, run again, ends the process as
    // it would have without us. A signal that was sent is sent again.
    struct sigaction standard {};
    standard.sa_handler = SIG_DFL;
    sigemptyset(&standard.sa_mask);
    ::sigaction(SIGBUS, &standard, nullptr);
    if (info->si_code <= 0) ::raise(signalNumber);
}

void installGuard() {
    std::call_once(guardInstalled, [] {
        guardPageSize = static_cast<std::uintptr_t>(::getpagesize());
        struct sigaction action {};
        action.sa_sigaction = onBusError;
        action.sa_flags = SA_SIGINFO | SA_ONSTACK;
        sigemptyset(&action.sa_mask);
        ::sigaction(SIGBUS, &action, &previousBusAction);
    });
}

/// Claims a slot for the map; a full table leaves the map unguarded, which only matters if the
/// file is cut while more than a thousand files are mapped.
void guardRegion(const std::uint8_t* base, std::int64_t length) {
    const auto begin = reinterpret_cast<std::uintptr_t>(base);
    std::lock_guard guard(guardLock);
    for (auto& region : guardedRegions) {
        if (region.begin.load(std::memory_order_relaxed) != 0) continue;
        region.end.store(begin + static_cast<std::uintptr_t>(length), std::memory_order_release);
        region.begin.store(begin, std::memory_order_release);
        return;
    }
}

void releaseRegion(const std::uint8_t* base) {
    const auto begin = reinterpret_cast<std::uintptr_t>(base);
    std::lock_guard guard(guardLock);
    for (auto& region : guardedRegions) {
        if (region.begin.load(std::memory_order_relaxed) != begin) continue;
        region.begin.store(0, std::memory_order_release);
        region.end.store(0, std::memory_order_release);
        return;
    }
}

}  // namespace

MappedSource::MappedSource(const std::filesystem::path& path) : path_(path) {
    fd_ = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (fd_ < 0) throw BrimError(L("open failed: %@", std::strerror(errno)));
    struct stat status {};
    if (::fstat(fd_, &status) != 0) {
        ::close(fd_);
        throw BrimError(L("fstat failed"));
    }
    if (status.st_size < 1) {
        ::close(fd_);
        throw BrimError(L("empty file cannot be mapped"));
    }
    count_ = static_cast<std::int64_t>(status.st_size);
    void* mapped = ::mmap(nullptr, static_cast<std::size_t>(count_), PROT_READ, MAP_PRIVATE, fd_, 0);
    if (mapped == MAP_FAILED) {
        const int error = errno;
        ::close(fd_);
        throw BrimError(L("mmap failed: %@", std::strerror(error)));
    }
    base_ = static_cast<const std::uint8_t*>(mapped);
    // Jumps are the rule; read-ahead would be wasted on them.
    ::madvise(mapped, static_cast<std::size_t>(count_), MADV_RANDOM);
    installGuard();
    guardRegion(base_, count_);
}

MappedSource::~MappedSource() {
    releaseRegion(base_);
    ::munmap(const_cast<std::uint8_t*>(base_), static_cast<std::size_t>(count_));
    ::close(fd_);
}

std::int64_t MappedSource::readableCount() const {
    std::lock_guard guard(lock_);
    return truncatedTo_.value_or(count_);
}

std::int64_t MappedSource::refreshReadableSize() {
    struct stat status {};
    const bool known = ::fstat(fd_, &status) == 0;
    std::lock_guard guard(lock_);
    if (known && status.st_size < count_) truncatedTo_ = std::max<std::int64_t>(0, status.st_size);
    return truncatedTo_.value_or(count_);
}

void MappedSource::read(ByteRange range, std::uint8_t* destination) const {
    const ByteRange clamped = range.clampedTo(count_);
    const std::int64_t length = clamped.length();
    std::int64_t done = 0;
    while (done < length) {
        const ssize_t got = ::pread(fd_, destination + done, static_cast<std::size_t>(length - done),
                                    static_cast<off_t>(clamped.lower + done));
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0) break;
        done += got;
    }
    if (done < length) std::memset(destination + done, 0, static_cast<std::size_t>(length - done));
}

void MappedSource::withBytes(ByteRange range,
                             const std::function<void(std::span<const std::uint8_t>)>& body) const {
    const ByteRange clamped = range.clampedTo(count_);
    const std::int64_t readable = readableCount();
    if (clamped.upper <= readable) {
        body(
            std::span<const std::uint8_t>(base_ + clamped.lower, static_cast<std::size_t>(clamped.length())));
        return;
    }
    std::vector<std::uint8_t> copy(static_cast<std::size_t>(clamped.length()), 0);
    const ByteRange head{clamped.lower, std::max(clamped.lower, readable)};
    if (!head.empty()) read(head, copy.data());
    body(copy);
}

void MappedSource::prefetch(ByteRange range) const {
    const ByteRange clamped = range.clampedTo(readableCount());
    if (clamped.empty()) return;
    const auto page = static_cast<std::int64_t>(::getpagesize());
    const std::int64_t start = clamped.lower / page * page;
    const std::int64_t length = std::min(clamped.upper, count_) - start;
    ::madvise(const_cast<std::uint8_t*>(base_) + start, static_cast<std::size_t>(length), MADV_WILLNEED);
}

void MappedSource::adviseSequential(bool sequential) const {
    ::madvise(const_cast<std::uint8_t*>(base_), static_cast<std::size_t>(count_),
              sequential ? MADV_SEQUENTIAL : MADV_RANDOM);
    // Buffered scans read through the descriptor, whose read-ahead is advised apart from the map.
    ::posix_fadvise(fd_, 0, 0, sequential ? POSIX_FADV_SEQUENTIAL : POSIX_FADV_NORMAL);
}

std::int64_t MappedSource::absorbedFaultCount() {
    return absorbedFaults.load(std::memory_order_relaxed);
}

}  // namespace brim
