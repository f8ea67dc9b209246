#include "language/LanguageSample.h"

#include "support/TemporaryFolder.h"

#include <gtest/gtest.h>

namespace brim {
namespace {

using testing::bytes;

TEST(LanguageSample, badBytesBecomeReplacementCharacters) {
    const std::string fffd = "\xEF\xBF\xBD";
    const std::pair<std::string_view, std::string> cases[] = {
        {"plain ascii", "plain ascii"},
        {"caf\xC3\xA9", "caf\xC3\xA9"},
        {"a\xFF" "b", "a" + fffd + "b"},
        {"a\xC0\xAF" "b", "a" + fffd + fffd + "b"},          // overlong: both bytes are bad
        {"a\xED\xA0\x80" "b", "a" + fffd + fffd + fffd + "b"},  // a surrogate is not UTF-8
        {"a\xE2\x82" "b", "a" + fffd + "b"},                  // a cut sequence inside is one U+FFFD
        {"\xF0\x9F\x98\x80", "\xF0\x9F\x98\x80"},
        {"end\xE2\x82", "end"},                               // cut by the sample's end: dropped
        {"end\xC3", "end"},
        {"\x80\x80", fffd + fffd},
    };
    for (const auto& [input, expected] : cases) {
        SCOPED_TRACE(input);
        const auto data = bytes(input);
        EXPECT_EQ(LanguageSample::decodeRepairingUTF8(data), expected);
    }
}

TEST(LanguageSample, readsOnlyTheHeadOfAFile) {
    testing::TemporaryFolder folder;
    std::string big(200'000, 'x');
    const auto path = folder.write("big.txt", big);
    const auto sample = LanguageSample::read(path.string());
    ASSERT_TRUE(sample.has_value());
    EXPECT_EQ(sample->size(), static_cast<std::size_t>(LanguageSample::sampleBytes));

    EXPECT_EQ(LanguageSample::read(folder.write("empty", "").string()), std::string());
    EXPECT_FALSE(LanguageSample::read((folder / "missing").string()).has_value());
    EXPECT_FALSE(LanguageSample::read(folder.path().string()).has_value());   // a folder cannot be read
}

} // namespace
} // namespace brim
