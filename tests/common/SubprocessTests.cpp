#include "common/Subprocess.h"

#include "support/TemporaryFolder.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace brim {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using ::testing::HasSubstr;

std::string text(const std::vector<std::uint8_t>& bytes) { return {bytes.begin(), bytes.end()}; }

Subprocess::Result runBash(const std::string& script, const Subprocess::Options& options = {}) {
    const std::vector<std::string> arguments = {"-c", script};
    return Subprocess::run("/bin/bash", arguments, options);
}

/// Whether a process is gone: no such process, or a zombie waiting for its parent to reap it.
bool isGone(pid_t pid) {
    if (::kill(pid, 0) != 0) return true;
    std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
    std::string content((std::istreambuf_iterator<char>(stat)), std::istreambuf_iterator<char>());
    const auto close = content.rfind(')');
    return close == std::string::npos || (close + 2 < content.size() && content[close + 2] == 'Z');
}

bool waitUntilGone(pid_t pid, std::chrono::milliseconds limit) {
    const auto deadline = Clock::now() + limit;
    while (Clock::now() < deadline) {
        if (isGone(pid)) return true;
        std::this_thread::sleep_for(10ms);
    }
    return isGone(pid);
}

TEST(Subprocess, passesArgumentsFolderEnvironmentAndStatus) {
    testing::TemporaryFolder folder;
    Subprocess::Options options;
    options.workingFolder = folder.path();
    options.environment = {{"BRIM_SUBPROCESS_TEST", "a value with blanks"}};
    const auto result = runBash(R"(pwd; printf '%s|' "$BRIM_SUBPROCESS_TEST" "$0"; echo oops >&2; exit 7)", options);
    EXPECT_TRUE(result.started);
    EXPECT_EQ(result.status, 7);
    EXPECT_FALSE(result.succeeded());
    EXPECT_FALSE(result.timedOut);
    EXPECT_EQ(text(result.output), std::filesystem::canonical(folder.path()).string() + "\na value with blanks|/bin/bash|");
    EXPECT_EQ(result.errorOutput, "oops\n");
}

TEST(Subprocess, removedVariablesAreNotInherited) {
    ::setenv("BRIM_SUBPROCESS_REMOVED", "present", 1);
    Subprocess::Options options;
    options.removedEnvironment = {"BRIM_SUBPROCESS_REMOVED"};
    const auto removed = runBash("printf %s \"${BRIM_SUBPROCESS_REMOVED-unset}\"", options);
    const auto kept = runBash("printf %s \"${BRIM_SUBPROCESS_REMOVED-unset}\"");
    ::unsetenv("BRIM_SUBPROCESS_REMOVED");
    EXPECT_EQ(text(removed.output), "unset");
    EXPECT_EQ(text(kept.output), "present");
}

TEST(Subprocess, aMissingProgramIsStatus127) {
    for (const std::string program : {"brim-no-such-program-anywhere", "/nonexistent/folder/tool"}) {
        SCOPED_TRACE(program);
        const auto result = Subprocess::run(program, {});
        EXPECT_FALSE(result.started);
        EXPECT_EQ(result.status, Subprocess::notFoundStatus);
        EXPECT_THAT(result.errorOutput, HasSubstr(program));
    }
    EXPECT_EQ(Subprocess::findInPath("brim-no-such-program-anywhere"), std::nullopt);
    const auto bash = Subprocess::findInPath("bash");
    ASSERT_TRUE(bash.has_value());
    EXPECT_TRUE(Subprocess::isExecutableFile(*bash));
    EXPECT_FALSE(Subprocess::isExecutableFile("/etc/passwd"));
    EXPECT_FALSE(Subprocess::isExecutableFile("/usr/bin"));
}

TEST(Subprocess, aTimeOutStopsTheWholeGroup) {
    Subprocess::Options options;
    options.timeout = 300ms;
    options.gracePeriod = 200ms;
    const auto started = Clock::now();
    // The grandchild keeps its own copy of the pipes; the group kill must reach it too.
    const auto result = runBash("sleep 30 & echo $!; sleep 30", options);
    const auto elapsed = Clock::now() - started;
    EXPECT_TRUE(result.timedOut);
    EXPECT_FALSE(result.succeeded());
    EXPECT_EQ(result.status, 128 + SIGTERM);
    EXPECT_LT(elapsed, 5s);
    const std::string printed = text(result.output);
    ASSERT_FALSE(printed.empty());
    const pid_t grandchild = static_cast<pid_t>(std::stol(printed));
    EXPECT_TRUE(waitUntilGone(grandchild, 5s)) << "the background sleep outlived the time-out";
}

TEST(Subprocess, aBackgroundProcessHoldingThePipesDoesNotHoldTheCaller) {
    Subprocess::Options options;
    options.timeout = 20s;
    options.gracePeriod = 200ms;
    const auto started = Clock::now();
    const auto result = runBash("sleep 30 & echo $!", options);
    const auto elapsed = Clock::now() - started;
    const std::string printed = text(result.output);
    ASSERT_FALSE(printed.empty());
    ::kill(static_cast<pid_t>(std::stol(printed)), SIGKILL);
    EXPECT_TRUE(result.succeeded());
    EXPECT_FALSE(result.timedOut);
    EXPECT_LT(elapsed, 5s);
}

TEST(Subprocess, aChildThatIgnoresTermIsKilledAfterTheGracePeriod) {
    Subprocess::Options options;
    options.timeout = 200ms;
    options.gracePeriod = 300ms;
    const auto started = Clock::now();
    const auto result = runBash("trap '' TERM; echo ready; while :; do sleep 0.05; done", options);
    const auto elapsed = Clock::now() - started;
    EXPECT_TRUE(result.timedOut);
    EXPECT_EQ(result.status, 128 + SIGKILL);
    EXPECT_GE(elapsed, 450ms);
    EXPECT_LT(elapsed, 5s);
    EXPECT_EQ(text(result.output), "ready\n");
}

TEST(Subprocess, cancellingStopsTheChild) {
    std::atomic<bool> stop = false;
    Subprocess::Options options;
    options.timeout = 30s;
    options.isCancelled = [&] { return stop.load(); };
    std::jthread canceller([&] {
        std::this_thread::sleep_for(100ms);
        stop = true;
    });
    const auto started = Clock::now();
    const auto result = runBash("sleep 30", options);
    EXPECT_TRUE(result.cancelled);
    EXPECT_FALSE(result.timedOut);
    EXPECT_LT(Clock::now() - started, 5s);
}

TEST(Subprocess, outputBeyondTheLimitIsReadAndDropped) {
    struct Case {
        std::size_t produced;
        std::size_t limit;
    };
    for (const Case& c : {Case{4'000'000, 1'000}, Case{1'000, 1'000}, Case{999, 1'000}, Case{0, 1'000}}) {
        SCOPED_TRACE(::testing::Message() << c.produced << " bytes, limit " << c.limit);
        Subprocess::Options options;
        options.outputLimit = c.limit;
        options.timeout = 20s;
        const auto result = runBash("head -c " + std::to_string(c.produced) + " /dev/zero; echo finished >&2", options);
        // The child is never left blocked on a full pipe: it runs to the end.
        EXPECT_TRUE(result.succeeded());
        EXPECT_EQ(result.output.size(), std::min(c.produced, c.limit));
        EXPECT_EQ(result.outputLimitReached, c.produced >= c.limit);
        EXPECT_EQ(result.errorOutput, "finished\n");
    }
}

TEST(Subprocess, standardErrorIsDrainedWhileOutputIsRead) {
    Subprocess::Options options;
    options.errorLimit = 100;
    options.timeout = 20s;
    // Far more than a pipe holds on standard error before the answer on standard output.
    const auto result = runBash("head -c 3000000 /dev/zero | tr '\\0' e >&2; echo answer", options);
    EXPECT_TRUE(result.succeeded());
    EXPECT_EQ(text(result.output), "answer\n");
    EXPECT_EQ(result.errorOutput, std::string(100, 'e'));
}

TEST(Subprocess, theChildGetsSIGPIPEAtItsDefault) {
    // This process ignoring SIGPIPE is what the program does; the child must not inherit it.
    struct sigaction ignore {};
    ignore.sa_handler = SIG_IGN;
    struct sigaction previous {};
    ::sigaction(SIGPIPE, &ignore, &previous);
    const auto result = runBash("yes | head -n 1 >/dev/null; echo \"${PIPESTATUS[0]}\"");
    ::sigaction(SIGPIPE, &previous, nullptr);
    EXPECT_EQ(text(result.output), std::to_string(128 + SIGPIPE) + "\n");
}

TEST(Subprocess, standardInputIsTheNullDeviceOrTheGivenText) {
    const auto none = runBash("cat; echo end");
    EXPECT_EQ(text(none.output), "end\n");

    std::string big;
    for (int i = 0; big.size() < 2'000'000; ++i) big += "line " + std::to_string(i) + "\n";
    Subprocess::Options options;
    options.input = big;
    options.timeout = 20s;
    const std::vector<std::string> noArguments;
    const auto echoed = Subprocess::run("cat", noArguments, options);
    EXPECT_TRUE(echoed.succeeded());
    EXPECT_EQ(text(echoed.output), big);

    // A child that never reads its input must not hurt the writer.
    const auto ignored = Subprocess::run("true", noArguments, options);
    EXPECT_TRUE(ignored.succeeded());
}

TEST(Subprocess, noDescriptorOfOursLeaksIntoTheChild) {
    testing::TemporaryFolder folder;
    const auto file = folder.write("open.txt", "x");
    const int leaky = ::open(file.c_str(), O_RDONLY);   // deliberately without close-on-exec
    ASSERT_GE(leaky, 3);
    // What the child has open, by target; the glob's own folder handle is closed by then.
    const auto result = runBash(R"sh(for f in /proc/$$/fd/*; do echo "$(readlink "$f")"; done)sh");
    ::close(leaky);
    std::istringstream listing(text(result.output));
    std::vector<std::string> targets;
    for (std::string line; std::getline(listing, line);) targets.push_back(line);
    EXPECT_THAT(targets, ::testing::Contains("/dev/null"));
    EXPECT_THAT(targets, ::testing::Not(::testing::Contains(file.string())));
}

TEST(Subprocess, manyAtOnceFromSeveralThreads) {
    std::vector<std::jthread> threads;
    std::atomic<int> correct = 0;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([t, &correct] {
            for (int i = 0; i < 10; ++i) {
                const std::string expected = std::to_string(t * 100 + i);
                const auto result = runBash("echo " + expected);
                if (result.succeeded() && text(result.output) == expected + "\n") ++correct;
            }
        });
    }
    threads.clear();
    EXPECT_EQ(correct.load(), 40);
}

} // namespace
} // namespace brim
