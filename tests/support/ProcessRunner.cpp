#include "support/ProcessRunner.h"

#include "support/TemporaryFolder.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <stdexcept>

namespace brim::testing {

ProcessResult runProcess(const std::string& program, const std::vector<std::string>& arguments,
                         const ProcessOptions& options) {
    TemporaryFolder home;
    int inPipe[2] = {-1, -1};
    int outPipe[2] = {-1, -1};
    int errPipe[2] = {-1, -1};
    if (::pipe2(inPipe, O_CLOEXEC) != 0 || ::pipe2(outPipe, O_CLOEXEC) != 0 || ::pipe2(errPipe, O_CLOEXEC) != 0) {
        throw std::runtime_error("pipe failed");
    }
    std::vector<std::string> environment = {"XDG_CONFIG_HOME=" + (home.path() / "config").string(),
                                            "XDG_DATA_HOME=" + (home.path() / "data").string(),
                                            "XDG_RUNTIME_DIR=" + (home.path() / "run").string()};
    for (const auto& [name, value] : options.environment) environment.push_back(name + "=" + value);

    if (options.closeStandardOutput) {
        // No reader from the start, so the child's first write fails for certain.
        ::close(outPipe[0]);
        outPipe[0] = -1;
    }
    const pid_t child = ::fork();
    if (child < 0) throw std::runtime_error("fork failed");
    if (child == 0) {
        ::dup2(inPipe[0], 0);
        ::dup2(outPipe[1], 1);
        ::dup2(errPipe[1], 2);
        ::signal(SIGPIPE, SIG_DFL);
        for (const auto& entry : environment) ::putenv(const_cast<char*>(entry.c_str()));
        if (options.workingFolder && ::chdir(options.workingFolder->c_str()) != 0) ::_exit(126);
        std::vector<char*> argv;
        argv.push_back(const_cast<char*>(program.c_str()));
        for (const auto& argument : arguments) argv.push_back(const_cast<char*>(argument.c_str()));
        argv.push_back(nullptr);
        ::execvp(program.c_str(), argv.data());
        ::_exit(127);
    }
    ::close(inPipe[0]);
    ::close(outPipe[1]);
    ::close(errPipe[1]);
    // Feed the input from this thread while reading; large inputs interleave through poll.
    std::size_t written = 0;
    if (options.input.empty()) {
        ::close(inPipe[1]);
        inPipe[1] = -1;
    } else {
        ::fcntl(inPipe[1], F_SETFL, O_NONBLOCK);
    }
    ProcessResult result;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(options.timeoutSeconds);
    char buffer[65536];
    while (outPipe[0] >= 0 || errPipe[0] >= 0) {
        pollfd fds[3];
        nfds_t n = 0;
        if (outPipe[0] >= 0) fds[n++] = {outPipe[0], POLLIN, 0};
        if (errPipe[0] >= 0) fds[n++] = {errPipe[0], POLLIN, 0};
        if (inPipe[1] >= 0) fds[n++] = {inPipe[1], POLLOUT, 0};
        if (std::chrono::steady_clock::now() > deadline) {
            ::kill(child, SIGKILL);
            break;
        }
        if (::poll(fds, n, 1000) < 0 && errno != EINTR) break;
        for (nfds_t i = 0; i < n; ++i) {
            if (fds[i].revents == 0) continue;
            if (fds[i].fd == inPipe[1]) {
                const ssize_t sent = ::write(inPipe[1], options.input.data() + written, options.input.size() - written);
                if (sent > 0) written += static_cast<std::size_t>(sent);
                if (sent < 0 || written == options.input.size()) {
                    ::close(inPipe[1]);
                    inPipe[1] = -1;
                }
                continue;
            }
            const ssize_t got = ::read(fds[i].fd, buffer, sizeof buffer);
            std::string& sink = fds[i].fd == outPipe[0] ? result.out : result.err;
            if (got > 0) {
                sink.append(buffer, static_cast<std::size_t>(got));
            } else {
                if (fds[i].fd == outPipe[0]) outPipe[0] = -1;
                else errPipe[0] = -1;
                ::close(fds[i].fd);
            }
        }
    }
    for (int fd : {inPipe[1], outPipe[0], errPipe[0]}) {
        if (fd >= 0) ::close(fd);
    }
    int status = 0;
    ::waitpid(child, &status, 0);
    result.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    return result;
}

ProcessResult runBrim(const std::vector<std::string>& arguments, const ProcessOptions& options) {
    return runProcess(BRIM_EXECUTABLE, arguments, options);
}

} // namespace brim::testing
