#include "store/LineEndingDetector.h"

#include "charsets/TextEncoding.h"
#include "support/TemporaryFolder.h"

#include <gtest/gtest.h>

namespace brim {
namespace {

using testing::bytes;

TEST(LineEndingDetector, countsEachKindOnce) {
    struct Case {
        const char* name;
        std::string text;
        const TextEncoding* encoding;
        std::map<LineEnding, std::int64_t> counts;
        LineEnding dominant;
    };
    const auto& utf8 = TextEncoding::utf8();
    const std::vector<Case> cases = {
        {"nothing", "no breaks", &utf8, {}, LineEnding::lf},
        {"crlf is one", "a\r\nb\r\nc", &utf8, {{LineEnding::crlf, 2}}, LineEnding::crlf},
        {"lfcr is one", "a\n\rb\n\rc", &utf8, {{LineEnding::lfcr, 2}}, LineEnding::lfcr},
        {"lf before crlf", "a\n\r\nb", &utf8, {{LineEnding::lf, 1}, {LineEnding::crlf, 1}}, LineEnding::lf},
        {"a tie goes to the ordinary kind", "a\nb\r\n", &utf8, {{LineEnding::lf, 1}, {LineEnding::crlf, 1}},
         LineEnding::lf},
        {"utf-8 separators", "a\xC2\x85" "b\xE2\x80\xA8" "c\xE2\x80\xA9",
         &utf8, {{LineEnding::nel, 1}, {LineEnding::ls, 1}, {LineEnding::ps, 1}}, LineEnding::nel},
        {"russian text is not mixed", "\xD0\xBF\xD1\x80\xD0\xB8\xD0\xB2\xD0\xB5\xD1\x82\n\xD0\xBC\xD0\xB8\xD1\x80\n",
         &utf8, {{LineEnding::lf, 2}}, LineEnding::lf},
        {"0x85 in windows-1252 is an ellipsis", "a\x85" "b\n", &TextEncoding::cp1252(), {{LineEnding::lf, 1}},
         LineEnding::lf},
        {"0x85 in latin-1 is NEL", "a\x85" "b\x85", &TextEncoding::latin1(), {{LineEnding::nel, 2}}, LineEnding::nel},
        {"C2 85 in GB18030 is a character", "a\xC2\x85" "b\n", &TextEncoding::gb18030(), {{LineEnding::lf, 1}},
         LineEnding::lf},
        {"vertical tab and form feed", "a\vb\fc\f", &utf8, {{LineEnding::vt, 1}, {LineEnding::ff, 2}}, LineEnding::ff},
        {"ebcdic line feeds", "\xC1\x25\xC2\x25\xC3\x15", &TextEncoding::ebcdic037(),
         {{LineEnding::lf, 2}, {LineEnding::nel, 1}}, LineEnding::lf},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const auto report = LineEndingDetector::detect(bytes(c.text), *c.encoding);
        EXPECT_EQ(report.counts, c.counts);
        EXPECT_EQ(report.dominant, c.dominant);
    }
}

TEST(LineEndingDetector, summariesAndRareKinds) {
    const auto single = LineEndingDetector::detect(bytes("a\r\nb\r\n"), TextEncoding::utf8());
    EXPECT_EQ(single.summary(), "CRLF (Windows)");
    EXPECT_EQ(LineEndingReport().summary(), "LF (Unix)");
    const auto mixed = LineEndingDetector::detect(bytes("a\nb\nc\r\nd\f"), TextEncoding::utf8());
    EXPECT_EQ(mixed.summary(), "Mixed (LF 2, CRLF 1, FF 1)");
    EXPECT_EQ(LineEndingDetector::rareKinds(mixed), std::vector<LineEnding>{});
    const auto rare = LineEndingDetector::detect(bytes("a\rb\rc\xE2\x80\xA8" "d\n"), TextEncoding::utf8());
    EXPECT_EQ(LineEndingDetector::rareKinds(rare), (std::vector<LineEnding>{LineEnding::ls, LineEnding::cr}));
    EXPECT_EQ(LineEndingReport(LineEnding::crlf, 3, 0, 1).counts,
              (std::map<LineEnding, std::int64_t>{{LineEnding::lf, 3}, {LineEnding::cr, 1}}));
}

} // namespace
} // namespace brim
