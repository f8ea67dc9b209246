#include "common/Subprocess.h"

#include "common/BrimError.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

extern char** environ;

namespace brim::Subprocess {

namespace {

using Clock = std::chrono::steady_clock;

/// A descriptor closed when it goes out of scope.
class Descriptor {
public:
    Descriptor() = default;
    explicit Descriptor(int fd) : fd_(fd) {}
    ~Descriptor() { close(); }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    Descriptor(Descriptor&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    Descriptor& operator=(Descriptor&& other) noexcept {
        if (this != &other) {
            close();
            fd_ = std::exchange(other.fd_, -1);
        }
        return *this;
    }

    [[nodiscard]] int get() const { return fd_; }
    [[nodiscard]] bool isOpen() const { return fd_ >= 0; }
    void close() {
        if (fd_ >= 0) ::close(fd_);
        fd_ = -1;
    }

private:
    int fd_ = -1;
};

struct Pipe {
    Descriptor read;
    Descriptor write;
};

Pipe makePipe() {
    int fds[2] = {-1, -1};
    // Close-on-exec from the start: another thread may be spawning at this very moment, and its
    // child must not inherit our ends (a stray write end would keep our reader waiting for EOF).
    if (::pipe2(fds, O_CLOEXEC) != 0) throw posixError("Could not make a pipe for a helper process", errno);
    return {Descriptor(fds[0]), Descriptor(fds[1])};
}

/// The parent's environment with `options`' changes, as "NAME=value" strings.
std::vector<std::string> childEnvironment(const Options& options) {
    auto isReplaced = [&](std::string_view entry) {
        const auto equals = entry.find('=');
        const std::string_view name = entry.substr(0, equals);
        for (const auto& [key, value] : options.environment) {
            if (key == name) return true;
        }
        return std::find(options.removedEnvironment.begin(), options.removedEnvironment.end(), name) !=
               options.removedEnvironment.end();
    };
    std::vector<std::string> result;
    for (char** entry = environ; entry != nullptr && *entry != nullptr; ++entry) {
        if (!isReplaced(*entry)) result.emplace_back(*entry);
    }
    for (const auto& [key, value] : options.environment) result.push_back(key + "=" + value);
    return result;
}

/// posix_spawn's attribute and file-action records, destroyed with the object.
class SpawnSetup {
public:
    SpawnSetup() {
        ::posix_spawnattr_init(&attributes);
        ::posix_spawn_file_actions_init(&actions);
    }
    ~SpawnSetup() {
        ::posix_spawnattr_destroy(&attributes);
        ::posix_spawn_file_actions_destroy(&actions);
    }
    SpawnSetup(const SpawnSetup&) = delete;
    SpawnSetup& operator=(const SpawnSetup&) = delete;

    posix_spawnattr_t attributes{};
    posix_spawn_file_actions_t actions{};
};

/// Writes to a pipe whose reader may have gone without letting SIGPIPE end this process, whatever
/// the process does with SIGPIPE elsewhere (tests do not ignore it).
ssize_t writeWithoutSignal(int fd, const char* data, std::size_t length) {
    sigset_t pipeSignal;
    sigemptyset(&pipeSignal);
    sigaddset(&pipeSignal, SIGPIPE);
    sigset_t pendingBefore;
    sigpending(&pendingBefore);
    const bool wasPending = sigismember(&pendingBefore, SIGPIPE) == 1;
    sigset_t previousMask;
    pthread_sigmask(SIG_BLOCK, &pipeSignal, &previousMask);
    const ssize_t written = ::write(fd, data, length);
    const int writeError = errno;
    if (written < 0 && writeError == EPIPE && !wasPending) {
        const timespec zero{0, 0};
        while (sigtimedwait(&pipeSignal, nullptr, &zero) < 0 && errno == EINTR) {
        }
    }
    pthread_sigmask(SIG_SETMASK, &previousMask, nullptr);
    errno = writeError;
    return written;
}

int pidDescriptor(pid_t pid) {
#ifdef SYS_pidfd_open
    return static_cast<int>(::syscall(SYS_pidfd_open, pid, 0));
#else
    (void)pid;
    return -1;
#endif
}

int millisecondsUntil(Clock::time_point moment) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(moment - Clock::now()).count();
    return static_cast<int>(std::clamp<long long>(left, 0, 60'000));
}

/// Appends what `fd` has to `sink` up to `limit` bytes, dropping the rest. False at end of file.
template <typename Sink>
bool drain(int fd, Sink& sink, std::size_t limit, std::size_t& total) {
    char buffer[65'536];
    const ssize_t got = ::read(fd, buffer, sizeof buffer);
    if (got < 0) return errno == EINTR || errno == EAGAIN;
    if (got == 0) return false;
    const auto count = static_cast<std::size_t>(got);
    if (sink.size() < limit) {
        const std::size_t kept = std::min(count, limit - sink.size());
        sink.insert(sink.end(), buffer, buffer + kept);
    }
    total += count;
    return true;
}

} // namespace

bool isExecutableFile(const std::filesystem::path& path) {
    struct stat info {};
    return ::stat(path.c_str(), &info) == 0 && S_ISREG(info.st_mode) && ::access(path.c_str(), X_OK) == 0;
}

std::optional<std::filesystem::path> findInPath(std::string_view name) {
    if (name.empty()) return std::nullopt;
    if (name.find('/') != std::string_view::npos) {
        if (isExecutableFile(std::filesystem::path(name))) return std::filesystem::path(name);
        return std::nullopt;
    }
    const char* path = std::getenv("PATH");
    const std::string_view folders = path != nullptr ? path : "/usr/local/bin:/usr/bin:/bin";
    std::size_t start = 0;
    while (start <= folders.size()) {
        const std::size_t end = std::min(folders.find(':', start), folders.size());
        const std::string_view folder = folders.substr(start, end - start);
        const std::filesystem::path candidate =
            std::filesystem::path(folder.empty() ? "." : std::string(folder)) / std::string(name);
        if (isExecutableFile(candidate)) return candidate;
        start = end + 1;
    }
    return std::nullopt;
}

Result run(const std::string& program, std::span<const std::string> arguments, const Options& options) {
    Result result;
    Pipe output = makePipe();
    Pipe errors = makePipe();
    std::optional<Pipe> input;
    if (options.input) input = makePipe();

    SpawnSetup setup;
    short flags = POSIX_SPAWN_SETPGROUP | POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK;
    ::posix_spawnattr_setflags(&setup.attributes, flags);
    // A group of its own, so that a time-out reaches whatever the child starts in turn.
    ::posix_spawnattr_setpgroup(&setup.attributes, 0);
    // This program ignores SIGPIPE, and ignored signals survive exec: give the child the defaults
    // it expects, so `git log | head` style pipelines inside it end as they should.
    sigset_t defaults;
    sigemptyset(&defaults);
    for (int signal = 1; signal < NSIG; ++signal) {
        if (signal != SIGKILL && signal != SIGSTOP) sigaddset(&defaults, signal);
    }
    ::posix_spawnattr_setsigdefault(&setup.attributes, &defaults);
    sigset_t emptyMask;
    sigemptyset(&emptyMask);
    ::posix_spawnattr_setsigmask(&setup.attributes, &emptyMask);

    if (input) {
        ::posix_spawn_file_actions_adddup2(&setup.actions, input->read.get(), 0);
    } else {
        ::posix_spawn_file_actions_addopen(&setup.actions, 0, "/dev/null", O_RDONLY, 0);
    }
    ::posix_spawn_file_actions_adddup2(&setup.actions, output.write.get(), 1);
    ::posix_spawn_file_actions_adddup2(&setup.actions, errors.write.get(), 2);
    ::posix_spawn_file_actions_addclosefrom_np(&setup.actions, 3);
    if (options.workingFolder) {
        ::posix_spawn_file_actions_addchdir_np(&setup.actions, options.workingFolder->c_str());
    }

    std::vector<std::string> argumentStrings;
    argumentStrings.reserve(arguments.size() + 1);
    argumentStrings.push_back(program);
    argumentStrings.insert(argumentStrings.end(), arguments.begin(), arguments.end());
    std::vector<char*> argv;
    for (auto& argument : argumentStrings) argv.push_back(argument.data());
    argv.push_back(nullptr);
    std::vector<std::string> environment = childEnvironment(options);
    std::vector<char*> envp;
    for (auto& entry : environment) envp.push_back(entry.data());
    envp.push_back(nullptr);

    pid_t pid = -1;
    const bool searchesPath = program.find('/') == std::string::npos;
    const int spawnError =
        searchesPath ? ::posix_spawnp(&pid, program.c_str(), &setup.actions, &setup.attributes, argv.data(), envp.data())
                     : ::posix_spawn(&pid, program.c_str(), &setup.actions, &setup.attributes, argv.data(), envp.data());
    output.write.close();
    errors.write.close();
    if (input) input->read.close();
    if (spawnError != 0) {
        result.status = notFoundStatus;
        result.errorOutput = program + ": " + std::strerror(spawnError);
        return result;
    }
    result.started = true;

    Descriptor exitWatch(pidDescriptor(pid));
    std::size_t written = 0;
    if (input) {
        if (options.input->empty()) {
            input->write.close();
        } else {
            ::fcntl(input->write.get(), F_SETFL, O_NONBLOCK);
        }
    }

    const Clock::time_point deadline = Clock::now() + options.timeout;
    std::optional<Clock::time_point> killAt;       // SIGTERM sent; SIGKILL due then
    bool killed = false;
    std::optional<Clock::time_point> drainUntil;   // the child is gone; its pipes get this long
    bool exited = false;
    int waitStatus = 0;
    std::size_t outputTotal = 0;
    std::size_t errorTotal = 0;

    auto reap = [&](int waitFlags) {
        if (exited) return;
        pid_t got = 0;
        do {
            got = ::waitpid(pid, &waitStatus, waitFlags);
        } while (got < 0 && errno == EINTR);
        if (got == pid || (got < 0 && errno == ECHILD)) {
            exited = true;
            drainUntil = Clock::now() + options.gracePeriod;
            exitWatch.close();
        }
    };
    auto stopGroup = [&](bool cancelledByCaller) {
        if (killAt || exited) return;
        if (cancelledByCaller) result.cancelled = true;
        else result.timedOut = true;
        ::kill(-pid, SIGTERM);
        killAt = Clock::now() + options.gracePeriod;
    };

    while (true) {
        const bool pipesOpen = output.read.isOpen() || errors.read.isOpen();
        if (exited && !pipesOpen) break;
        if (exited && drainUntil && Clock::now() >= *drainUntil) break;   // a grandchild holds a pipe

        if (!exited) {
            if (Clock::now() >= deadline) stopGroup(false);
            else if (options.isCancelled && options.isCancelled()) stopGroup(true);
            if (killAt && !killed && Clock::now() >= *killAt) {
                ::kill(-pid, SIGKILL);
                killed = true;
            }
        }

        pollfd fds[4];
        nfds_t count = 0;
        if (output.read.isOpen()) fds[count++] = {output.read.get(), POLLIN, 0};
        if (errors.read.isOpen()) fds[count++] = {errors.read.get(), POLLIN, 0};
        if (input && input->write.isOpen()) fds[count++] = {input->write.get(), POLLOUT, 0};
        if (exitWatch.isOpen()) fds[count++] = {exitWatch.get(), POLLIN, 0};

        int wait = 50;
        if (!exited) {
            if (!killed) wait = std::min(wait, killAt ? millisecondsUntil(*killAt) : millisecondsUntil(deadline));
            // Without a pid descriptor the child's exit is only seen by asking.
            if (!exitWatch.isOpen()) wait = std::min(wait, 10);
        } else if (drainUntil) {
            wait = std::min(wait, millisecondsUntil(*drainUntil));
        }
        const int ready = ::poll(fds, count, std::max(wait, 0));
        if (ready < 0 && errno != EINTR) break;

        for (nfds_t i = 0; ready > 0 && i < count; ++i) {
            if (fds[i].revents == 0) continue;
            const int fd = fds[i].fd;
            if (fd == output.read.get()) {
                if (!drain(fd, result.output, options.outputLimit, outputTotal)) output.read.close();
            } else if (fd == errors.read.get()) {
                if (!drain(fd, result.errorOutput, options.errorLimit, errorTotal)) errors.read.close();
            } else if (input && fd == input->write.get()) {
                const std::string& data = *options.input;
                const ssize_t sent = writeWithoutSignal(fd, data.data() + written, data.size() - written);
                if (sent > 0) written += static_cast<std::size_t>(sent);
                if ((sent < 0 && errno != EAGAIN && errno != EINTR) || written == data.size()) input->write.close();
            } else if (fd == exitWatch.get()) {
                reap(WNOHANG);
            }
        }
        if (!exitWatch.isOpen()) reap(WNOHANG);
    }

    if (input) input->write.close();
    output.read.close();
    errors.read.close();
    if (!exited) {
        // Only reached if poll itself failed: make certain nothing is left behind.
        ::kill(-pid, SIGKILL);
        reap(0);
    }
    if (WIFEXITED(waitStatus)) result.status = WEXITSTATUS(waitStatus);
    else if (WIFSIGNALED(waitStatus)) result.status = 128 + WTERMSIG(waitStatus);
    result.outputLimitReached = options.outputLimit == 0 ? outputTotal > 0 : outputTotal >= options.outputLimit;
    return result;
}

} // namespace brim::Subprocess
