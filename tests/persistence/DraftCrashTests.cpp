// A writer killed at random moments while it rewrites a draft must leave the old text or the new one,
// whole, every time.
#include "persistence/DraftStore.h"
#include "store/TextDocument.h"
#include "support/TemporaryFolder.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <random>
#include <signal.h>
#include <string>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace brim {
namespace {

std::vector<std::uint8_t> patternText(std::size_t size, char letter) {
    std::vector<std::uint8_t> bytes(size);
    for (std::size_t i = 0; i < size; ++i) bytes[i] = i % 64 == 63 ? '\n' : static_cast<std::uint8_t>(letter);
    return bytes;
}

/// Starts the writer and returns once it is about to write: it says so on its standard output.
pid_t startWriter(const std::vector<std::string>& arguments) {
    int ready[2];
    if (::pipe(ready) != 0) return -1;
    const pid_t pid = ::fork();
    if (pid == 0) {
        ::dup2(ready[1], 1);
        ::close(ready[0]);
        ::close(ready[1]);
        std::vector<char*> argv;
        for (const auto& argument : arguments) argv.push_back(const_cast<char*>(argument.c_str()));
        argv.push_back(nullptr);
        ::execv(argv[0], argv.data());
        ::_exit(127);
    }
    ::close(ready[1]);
    char signal = 0;
    while (::read(ready[0], &signal, 1) < 0 && errno == EINTR) {
    }
    ::close(ready[0]);
    return pid;
}

TEST(DraftCrash, aKilledWriterLeavesTheOldOrTheNewTextWhole) {
    testing::TemporaryFolder folder;
    const auto drafts = folder / "Drafts";
    DraftStore::setOverrideDirectory(drafts);
    const std::size_t oldSize = 48'000;
    const std::size_t newSize = 80'000;
    const auto oldText = patternText(oldSize, 'o');
    const auto newText = patternText(newSize, 'n');
    const auto id = DraftStore::newID();
    DraftStore::write(id, *TextDocument::inMemory(oldText, TextEncoding::utf8(), "old"));

    std::mt19937 random(20'240'611);
    std::uniform_int_distribution<int> delayMicroseconds(0, 4'000);
    int trials = 0;
    int sawOld = 0;
    int sawNew = 0;
    for (; trials < 120; ++trials) {
        SCOPED_TRACE("trial " + std::to_string(trials));
        const pid_t pid = startWriter({BRIM_DRAFT_WRITER, "rewrite", drafts.string(), id, std::to_string(oldSize),
                                       std::to_string(newSize)});
        ASSERT_GT(pid, 0);
        std::this_thread::sleep_for(std::chrono::microseconds(delayMicroseconds(random)));
        ::kill(pid, SIGKILL);
        int status = 0;
        ::waitpid(pid, &status, 0);
        ASSERT_TRUE(WIFSIGNALED(status)) << "the writer ended by itself with " << status;

        const auto reading = DraftStore::read(id);
        ASSERT_TRUE(reading.has_value()) << DraftStore::readExplaining(id).second;
        if (reading->second == oldText) {
            ++sawOld;
        } else if (reading->second == newText) {
            ++sawNew;
        } else {
            FAIL() << "the draft holds " << reading->second.size() << " bytes of neither text";
        }
        const auto found = DraftStore::survey();
        ASSERT_EQ(found.damaged.size(), 0u);
        ASSERT_EQ(found.stored.size(), 1u);
    }
    // Kills that always landed between writes would prove nothing: both outcomes must have come up.
    EXPECT_GT(sawOld, 0);
    EXPECT_GT(sawNew, 0);
    std::printf("%d trials: old text %d times, new text %d times\n", trials, sawOld, sawNew);

    // What the killed writers left half done is cleared by the next tidy pass, the draft kept.
    DraftStore::prune({id}, 0, DraftStore::now());
    int leftovers = 0;
    for (const auto& entry : std::filesystem::directory_iterator(drafts)) {
        if (entry.path().filename().string().starts_with(".")) ++leftovers;
    }
    EXPECT_EQ(leftovers, 0);
    EXPECT_TRUE(DraftStore::exists(id));
    DraftStore::setOverrideDirectory(std::nullopt);
}

} // namespace
} // namespace brim
