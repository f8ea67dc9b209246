#include "bytes/Gzip.h"
#include "support/ProcessRunner.h"
#include "support/TemporaryFolder.h"

#include <gtest/gtest.h>

#include <random>
#include <string>

namespace brim {
namespace {

using testing::bytes;

std::vector<std::uint8_t> gzipOf(std::string_view text, int level = 6, std::optional<std::string> name = {},
                                 std::size_t blockSize = 1'000'000) {
    Gzip::Encoder encoder(std::move(name), level);
    std::vector<std::uint8_t> out = encoder.header();
    for (std::size_t at = 0; at < text.size(); at += blockSize) {
        const auto part = encoder.process(bytes(text.substr(at, blockSize)));
        out.insert(out.end(), part.begin(), part.end());
    }
    const auto tail = encoder.finish();
    out.insert(out.end(), tail.begin(), tail.end());
    return out;
}

std::string text(const std::vector<std::uint8_t>& data) {
    return {data.begin(), data.end()};
}

/// The failure a decompression throws: its kind and its text.
std::pair<Gzip::Failure::Kind, std::string> failureOf(const std::vector<std::uint8_t>& data,
                                                      std::int64_t limit = Gzip::defaultLimit) {
    try {
        (void)Gzip::decompress(data, limit);
    } catch (const Gzip::Failure& failure) {
        return {failure.kind(), failure.what()};
    }
    return {Gzip::Failure::Kind::corrupt, "(nothing thrown)"};
}

std::string damaged(const char* detail) {
    return std::string("The compressed data is damaged: ") + detail;
}

std::string sampleText(std::size_t size, unsigned seed) {
    std::mt19937 random(seed);
    std::string out;
    while (out.size() < size)
        out += "line " + std::to_string(random() % 1'000) + " of the sample\n";
    return out;
}

TEST(Gzip, checksumIsTheUsualCRC32AndCarriesAcrossBlocks) {
    EXPECT_EQ(Gzip::checksum(bytes("123456789")), 0xCBF43926u);
    EXPECT_EQ(Gzip::checksum({}), 0u);
    const std::string whole = sampleText(100'000, 1);
    std::uint32_t carried = 0;
    for (std::size_t at = 0; at < whole.size(); at += 7'777)
        carried = Gzip::checksum(bytes(whole.substr(at, 7'777)), carried);
    EXPECT_EQ(carried, Gzip::checksum(bytes(whole)));
}

TEST(Gzip, encodesAndDecodesWithTheLevelRecorded) {
    const std::string hello = "hello world hello world\n";
    for (const int level : {1, 6, 9}) {
        SCOPED_TRACE(level);
        const auto packed = gzipOf(hello, level);
        EXPECT_TRUE(Gzip::isGzip(packed));
        EXPECT_EQ(text(Gzip::decompress(packed)), hello);
        EXPECT_EQ(Gzip::level(packed), level);
    }
    // Written in many blocks, the checksum and length still come out right.
    const std::string large = sampleText(3'000'000, 2);
    const auto packed = gzipOf(large, 6, "large.txt", 65'537);
    EXPECT_EQ(text(Gzip::decompress(packed)), large);
    EXPECT_EQ(Gzip::decompress(gzipOf("")).size(), 0u);
    EXPECT_EQ(Gzip::level(bytes("not gzip at all")), 6);
}

TEST(Gzip, membersFollowOneAnother) {
    auto packed = gzipOf("first\n");
    const auto empty = gzipOf("");
    const auto second = gzipOf("second\n", 9, "b.txt");
    packed.insert(packed.end(), empty.begin(), empty.end());
    packed.insert(packed.end(), second.begin(), second.end());
    EXPECT_EQ(text(Gzip::decompress(packed)), "first\nsecond\n");
    // Zero bytes after the end are padding.
    packed.insert(packed.end(), 512, 0);
    EXPECT_EQ(text(Gzip::decompress(packed)), "first\nsecond\n");
}

TEST(Gzip, everyDamageHasItsOwnWords) {
    using Kind = Gzip::Failure::Kind;
    const auto good = gzipOf(sampleText(20'000, 3));

    EXPECT_EQ(failureOf(bytes("plain text, not packed")),
              std::make_pair(Kind::notGzip, std::string("This is not a gzip file.")));
    EXPECT_EQ(failureOf(bytes("\x1F\x8B")).first, Kind::notGzip);

    auto badChecksum = good;
    badChecksum[badChecksum.size() - 6] ^= 0x01;
    EXPECT_EQ(failureOf(badChecksum), std::make_pair(Kind::corrupt, damaged("the checksum does not match")));

    auto badLength = good;
    badLength[badLength.size() - 2] ^= 0x01;
    EXPECT_EQ(failureOf(badLength),
              std::make_pair(Kind::corrupt, damaged("it is not as long as it says it is")));

    for (const std::size_t cut : {good.size() / 2, good.size() - 5, good.size() - 8, std::size_t{10}}) {
        SCOPED_TRACE(cut);
        const std::vector<std::uint8_t> shortened(good.begin(),
                                                  good.begin() + static_cast<std::ptrdiff_t>(cut));
        EXPECT_EQ(failureOf(shortened),
                  std::make_pair(Kind::corrupt, damaged("it is not as long as it says it is")));
    }

    auto garbage = good;
    for (const char c : std::string("trailing words"))
        garbage.push_back(static_cast<std::uint8_t>(c));
    EXPECT_EQ(failureOf(garbage),
              std::make_pair(Kind::corrupt, damaged("there is something after the end that is not gzip")));

    // A block type that deflate does not have (0b11) right after the header.
    auto unreadable = gzipOf("x");
    unreadable[10] = 0x07;
    EXPECT_EQ(failureOf(unreadable),
              std::make_pair(Kind::corrupt, damaged("the deflate stream is not readable")));

    const std::string big(5'000, 'z');
    EXPECT_EQ(failureOf(gzipOf(big), 1'000),
              std::make_pair(Kind::tooLarge, std::string("Unpacked it would be more than 1 KB, which is more "
                                                         "than Brim will hold in memory at once.")));
    EXPECT_EQ(Gzip::decompress(gzipOf(big), 5'000).size(), 5'000u);
    EXPECT_EQ(failureOf(gzipOf(big), 4'999).first, Kind::tooLarge);
}

TEST(Gzip, headersWithOptionalFields) {
    // FEXTRA with 3 bytes, FNAME, FCOMMENT, FHCRC: 10 + 2 + 3 + 4 + 3 + 2.
    std::vector<std::uint8_t> header{0x1F, 0x8B, 0x08, 0x02 | 0x04 | 0x08 | 0x10, 0, 0, 0, 0, 0, 3, 3, 0,
                                     'x',  'y',  'z'};
    for (const char c : std::string("a.b"))
        header.push_back(static_cast<std::uint8_t>(c));
    header.push_back(0);
    header.insert(header.end(), {'h', 'i', 0, 0xAB, 0xCD});
    EXPECT_EQ(Gzip::bodyStart(header), header.size());
    for (std::size_t cut = 0; cut < header.size(); ++cut) {
        SCOPED_TRACE(cut);
        EXPECT_FALSE(Gzip::bodyStart(std::span(header).first(cut)).has_value());
    }
    // A real body after such a header reads like any other.
    const auto packed = gzipOf("with fields\n");
    std::vector<std::uint8_t> withFields = header;
    withFields.insert(withFields.end(), packed.begin() + 10, packed.end());
    EXPECT_EQ(text(Gzip::decompress(withFields)), "with fields\n");
    const auto named = gzipOf("n", 6, "name.txt");
    EXPECT_EQ(Gzip::bodyStart(named), 10u + 9u);
}

TEST(Gzip, namesAndMagic) {
    const std::pair<const char*, const char*> names[] = {{"dump.sql.gz", "dump.sql"},
                                                         {"nginx.conf.GZ", "nginx.conf"},
                                                         {"x.tar.gz", "x.tar.gz"},
                                                         {"X.TAR.GZ", "X.TAR.GZ"},
                                                         {".gz", ".gz"},
                                                         {"a.gz", "a"},
                                                         {"notes.txt", "notes.txt"},
                                                         {"gz", "gz"}};
    for (const auto& [name, expected] : names)
        EXPECT_EQ(Gzip::uncompressedName(name), expected) << name;

    testing::TemporaryFolder folder;
    EXPECT_TRUE(Gzip::looksCompressed(folder.write("no-suffix", gzipOf("inside"))));
    EXPECT_FALSE(Gzip::looksCompressed(folder.write("plain.gz", "plain text")));
    EXPECT_FALSE(Gzip::looksCompressed(folder.write("short", "\x1F\x8B")));
    EXPECT_FALSE(Gzip::looksCompressed(folder / "missing"));
}

TEST(Gzip, aPrefixIsUnpackedWithoutChecks) {
    const std::string large = sampleText(200'000, 4);
    const auto packed = gzipOf(large);
    EXPECT_EQ(text(Gzip::unpackPrefix(packed, 4'096)), large.substr(0, 4'096));
    EXPECT_EQ(text(Gzip::unpackPrefix(packed, 10'000'000)), large);
    // Cut short, what is there is still a sample.
    const std::vector<std::uint8_t> cut(packed.begin(),
                                        packed.begin() + static_cast<std::ptrdiff_t>(packed.size() / 2));
    const auto partial = Gzip::unpackPrefix(cut, 10'000'000);
    EXPECT_GT(partial.size(), 0u);
    EXPECT_EQ(text(partial), large.substr(0, partial.size()));
    EXPECT_TRUE(Gzip::unpackPrefix(bytes("not gzip"), 100).empty());
    auto unreadable = gzipOf("x");
    unreadable[10] = 0x07;
    EXPECT_TRUE(Gzip::unpackPrefix(unreadable, 100).empty());
}

TEST(Gzip, agreesWithTheSystemTool) {
    testing::TemporaryFolder folder;
    const std::string content = sampleText(500'000, 5);
    const auto plainPath = folder.write("plain.txt", content);

    // Ours, read by gunzip (which also checks the checksum and length).
    const auto ours = folder.write("ours.gz", gzipOf(content, 9, "plain.txt", 100'000));
    const auto unpacked = testing::runProcess("gunzip", {"-c", ours.string()});
    ASSERT_EQ(unpacked.status, 0) << unpacked.err;
    EXPECT_EQ(unpacked.out, content);
    const auto listed = testing::runProcess("gzip", {"-l", "-N", ours.string()});
    EXPECT_NE(listed.out.find("plain.txt"), std::string::npos) << listed.out;

    // Theirs, read by us, with the level they recorded.
    for (const auto& [flag, level] : {std::pair{"-1", 1}, std::pair{"-6", 6}, std::pair{"-9", 9}}) {
        SCOPED_TRACE(flag);
        const auto packed = testing::runProcess("gzip", {flag, "-c", plainPath.string()});
        ASSERT_EQ(packed.status, 0) << packed.err;
        const auto data = bytes(packed.out);
        EXPECT_EQ(text(Gzip::decompress(data)), content);
        EXPECT_EQ(Gzip::level(data), level);
    }
    // Two files packed apart and joined are one text, as gunzip reads them.
    const auto a = testing::runProcess("gzip", {"-c", folder.write("a.txt", "alpha\n").string()});
    const auto b = testing::runProcess("gzip", {"-c", folder.write("b.txt", "beta\n").string()});
    EXPECT_EQ(text(Gzip::decompress(bytes(a.out + b.out))), "alpha\nbeta\n");
}

}  // namespace
}  // namespace brim
