#include "bytes/AppendBuffer.h"
#include "bytes/LineIndex.h"
#include "bytes/MappedSource.h"
#include "bytes/MemorySource.h"
#include "common/BrimError.h"
#include "support/TemporaryFolder.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <string>

namespace brim {
namespace {

using testing::TemporaryFolder;

std::string messageOf(const std::function<void()>& action) {
    try {
        action();
    } catch (const BrimError& error) {
        return error.what();
    }
    return "(nothing thrown)";
}

std::string patterned(std::size_t size) {
    std::string text(size, ' ');
    for (std::size_t i = 0; i < size; ++i)
        text[i] = static_cast<char>(i % 61 == 60 ? '\n' : 'A' + static_cast<int>(i % 23));
    return text;
}

TEST(MemorySource, readsWholeFilesAndSaysWhyNot) {
    TemporaryFolder folder;
    const std::string text = patterned(200'000);
    EXPECT_EQ(MemorySource::bytesOfFile(folder.write("a.txt", text)), testing::bytes(text));
    EXPECT_TRUE(MemorySource::bytesOfFile(folder.write("empty", "")).empty());
    EXPECT_EQ(messageOf([&] { (void)MemorySource::bytesOfFile(folder / "missing"); }),
              std::string("open failed: ") + std::strerror(ENOENT));
    // A file whose size says nothing, as under /proc, is still read to its end.
    EXPECT_FALSE(MemorySource::bytesOfFile("/proc/self/status").empty());
    // A pipe with no writer neither hangs the open nor the read.
    const auto pipe = folder / "pipe";
    ASSERT_EQ(::mkfifo(pipe.c_str(), 0600), 0);
    EXPECT_TRUE(MemorySource::bytesOfFile(pipe).empty());
    EXPECT_EQ(messageOf([&] { MappedSource source(pipe); }), "empty file cannot be mapped");
}

TEST(MemorySource, clampsEveryRead) {
    const MemorySource source(testing::bytes("hello"));
    EXPECT_EQ(source.count(), 5);
    EXPECT_EQ(source.readableCount(), 5);
    EXPECT_FALSE(source.prefersBufferedReads());
    EXPECT_EQ(source.data({1, 4}), testing::bytes("ell"));
    EXPECT_EQ(source.data({-3, 2}), testing::bytes("he"));
    EXPECT_EQ(source.data({3, 99}), testing::bytes("lo"));
    EXPECT_TRUE(source.data({7, 9}).empty());
    EXPECT_EQ(source.byte(4), 'o');
    EXPECT_EQ(source.byte(5), 0);
    EXPECT_EQ(source.byte(-1), 0);
    std::uint8_t out[3] = {9, 9, 9};
    source.read({3, 6}, out);
    EXPECT_EQ(out[0], 'l');
    EXPECT_EQ(out[1], 'o');
}

TEST(AppendBuffer, onlyGrowsAndKeepsOffsets) {
    AppendBuffer buffer;
    EXPECT_GE(buffer.bytes().capacity(), AppendBuffer::initialCapacity);
    EXPECT_EQ(buffer.append(testing::bytes("abc")), 0);
    EXPECT_EQ(buffer.append(testing::bytes("de")), 3);
    EXPECT_EQ(buffer.count(), 5);
    EXPECT_EQ(buffer.data({2, 4}), testing::bytes("cd"));
    const std::vector<std::uint8_t> big(100'000, 'x');
    EXPECT_EQ(buffer.append(big), 5);
    EXPECT_EQ(buffer.data({0, 5}), testing::bytes("abcde"));
}

TEST(MappedSource, refusesWhatCannotBeMapped) {
    TemporaryFolder folder;
    EXPECT_EQ(messageOf([&] { MappedSource source(folder / "missing"); }),
              std::string("open failed: ") + std::strerror(ENOENT));
    EXPECT_EQ(messageOf([&] { MappedSource source(folder.write("empty", "")); }),
              "empty file cannot be mapped");
}

TEST(MappedSource, readsLikeMemory) {
    TemporaryFolder folder;
    const std::string text = patterned(3 * 4'096 + 123);
    MappedSource source(folder.write("a.txt", text));
    EXPECT_EQ(source.count(), static_cast<std::int64_t>(text.size()));
    EXPECT_TRUE(source.prefersBufferedReads());
    EXPECT_EQ(source.data({0, source.count()}), testing::bytes(text));
    std::vector<std::uint8_t> out(200);
    source.read({4'000, 4'200}, out.data());
    EXPECT_EQ(std::string(out.begin(), out.end()), text.substr(4'000, 200));
    source.withBytes({5, 10}, [&](std::span<const std::uint8_t> bytes) {
        EXPECT_EQ(bytes.data(), source.base() + 5);  // straight from the map, no copy
        EXPECT_EQ(std::string(bytes.begin(), bytes.end()), text.substr(5, 5));
    });
    source.prefetch({-10, 1'000'000});  // a hint, clamped; must not fail
    EXPECT_EQ(source.refreshReadableSize(), source.count());
}

// A file cut to a fraction of its size under the map, through another descriptor, as log
// rotation does it: nothing faults, lengths stay, what went reads as zeros.
TEST(MappedSource, survivesTheFileBeingCutUnderIt) {
    TemporaryFolder folder;
    const std::int64_t page = ::getpagesize();
    const std::string text = patterned(static_cast<std::size_t>(8 * page + 100));
    const auto path = folder.write("log.txt", text);
    MappedSource source(path);
    const std::int64_t count = source.count();
    const std::int64_t half = 4 * page + 10;

    const int other = ::open(path.c_str(), O_WRONLY);
    ASSERT_GE(other, 0);
    ASSERT_EQ(::ftruncate(other, half), 0);
    ::close(other);

    // Before anyone noticed: `read` goes through the descriptor and zero-fills.
    std::vector<std::uint8_t> out(static_cast<std::size_t>(2 * page), 0xEE);
    source.read({half - page, half + page}, out.data());
    EXPECT_EQ(std::string(out.begin(), out.begin() + page),
              text.substr(static_cast<std::size_t>(half - page), static_cast<std::size_t>(page)));
    EXPECT_TRUE(std::all_of(out.begin() + page, out.end(), [](std::uint8_t b) { return b == 0; }));

    // A pointer into a page that is gone: the touch is answered with zeros, not a signal.
    const std::int64_t faultsBefore = MappedSource::absorbedFaultCount();
    std::int64_t sum = 0;
    source.withBytes({6 * page, 6 * page + 64}, [&](std::span<const std::uint8_t> bytes) {
        for (const auto byte : bytes)
            sum += byte;
    });
    EXPECT_EQ(sum, 0);
    EXPECT_GT(MappedSource::absorbedFaultCount(), faultsBefore);

    // Once told, every path clamps to the new size.
    EXPECT_EQ(source.refreshReadableSize(), half);
    EXPECT_EQ(source.readableCount(), half);
    EXPECT_EQ(source.count(), count);
    source.withBytes({half - 4, half + 4}, [&](std::span<const std::uint8_t> bytes) {
        ASSERT_EQ(bytes.size(), 8u);
        EXPECT_EQ(std::string(bytes.begin(), bytes.begin() + 4),
                  text.substr(static_cast<std::size_t>(half - 4), 4));
        EXPECT_TRUE(std::all_of(bytes.begin() + 4, bytes.end(), [](std::uint8_t b) { return b == 0; }));
    });
    EXPECT_TRUE(source.data({half + 1, half + 50}).empty());
    EXPECT_EQ(source.data({half - 3, half + 50}).size(), 3u);
    EXPECT_EQ(source.byte(half + 1), 0);
    EXPECT_EQ(source.byte(half - 1), static_cast<std::uint8_t>(text[static_cast<std::size_t>(half - 1)]));

    // A scan over the whole source runs to the end and counts only what is left.
    const auto index = LineIndex::build(source, 7);
    ASSERT_TRUE(index.has_value());
    EXPECT_EQ(index->knownNewlines(), std::count(text.begin(), text.begin() + half, '\n'));

    // Cut to nothing: still no fault, and the size never goes below zero.
    const int again = ::open(path.c_str(), O_WRONLY | O_TRUNC);
    ::close(again);
    EXPECT_EQ(source.refreshReadableSize(), 0);
    EXPECT_EQ(source.data({0, count}).size(), 0u);
    source.withBytes({0, 10}, [&](std::span<const std::uint8_t> bytes) {
        EXPECT_TRUE(std::all_of(bytes.begin(), bytes.end(), [](std::uint8_t b) { return b == 0; }));
    });
}

}  // namespace
}  // namespace brim
