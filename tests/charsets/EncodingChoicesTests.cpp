#include "charsets/EncodingChoices.h"

#include "EncodingPrinting.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace brim {
namespace {

using Bytes = std::vector<std::uint8_t>;

Bytes bytesOf(std::string_view text) { return Bytes(text.begin(), text.end()); }

TEST(EncodingChoices, theTellingStretchIsWhereTheHighBytesAre) {
    EXPECT_EQ(EncodingChoices::interestingRange(bytesOf("short")), (ByteRange{0, 5}));
    Bytes plain(1'000, 'a');
    EXPECT_EQ(EncodingChoices::interestingRange(plain), (ByteRange{0, 240}));
    // High bytes around 600: the first window of 240, in steps of 60, that holds the most of them.
    Bytes accented(1'000, 'a');
    for (std::size_t i = 600; i < 640; ++i) accented[i] = 0xE9;
    EXPECT_EQ(EncodingChoices::interestingRange(accented), (ByteRange{420, 660}));
}

TEST(EncodingChoices, aSetThatCannotReadTheBytesIsNotOffered) {
    const Bytes latin = bytesOf("Gr\xFC\xDF" "e");
    EXPECT_TRUE(EncodingChoices::canRead(latin, TextEncoding::latin1()));
    EXPECT_TRUE(EncodingChoices::canRead(latin, TextEncoding::cp1250()));
    // US-ASCII cannot read 0xFC, whatever its converter makes of it; nor can ISO-2022-JP.
    EXPECT_FALSE(EncodingChoices::canRead(latin, TextEncoding::ascii()));
    EXPECT_FALSE(EncodingChoices::canRead(latin, TextEncoding::iso2022JP()));
    EXPECT_FALSE(EncodingChoices::canRead(latin, TextEncoding::utf8()));
}

TEST(EncodingChoices, samplesShowControlsAndLineBreaks) {
    EXPECT_EQ(EncodingChoices::oneLine("a\nb\r\nc\td\x7F\x01"), "a\u2424b\u2424\u2424c\u2409d\u2421\u2401");
    EXPECT_EQ(EncodingChoices::oneLine("x\u2028y\u0085z"), "x\u2424y\u2424z");
    EXPECT_EQ(EncodingChoices::oneLine(std::string("nul\0here", 8)), "nul\u2400here");
}

TEST(EncodingChoices, candidatesPutTheCurrentAndDetectedSetsFirst) {
    const Bytes german = TextEncoding::cp1252().encode("Über die Größe der Äpfel, schön und süß.").bytes;
    const std::vector<TextEncoding> among = {TextEncoding::utf8(), TextEncoding::ascii(), TextEncoding::macRoman(),
                                             TextEncoding::cp1252(), TextEncoding::latin1(), TextEncoding::cp1250()};
    const auto choices = EncodingChoices::candidates(german, TextEncoding::utf8(), TextEncoding::cp1252(), among);
    ASSERT_GE(choices.size(), 4u);
    EXPECT_EQ(choices[0].encoding, TextEncoding::utf8());       // current, even though it can't read them
    EXPECT_TRUE(choices[0].isCurrent);
    EXPECT_EQ(choices[1].encoding, TextEncoding::cp1252());
    EXPECT_TRUE(choices[1].isDetected);
    EXPECT_EQ(choices[1].sample, "Über die Größe der Äpfel, schön und süß.");
    for (std::size_t i = 3; i < choices.size(); ++i) EXPECT_GE(choices[i - 1].score, choices[i].score);
    for (const auto& choice : choices) EXPECT_NE(choice.encoding, TextEncoding::ascii());
}

} // namespace
} // namespace brim
