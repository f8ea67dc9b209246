#include "store/GitAttributes.h"

#include "support/TemporaryFolder.h"

#include <gtest/gtest.h>

namespace brim {
namespace {

TEST(GitAttributes, parsesSettingUnsettingAndValues) {
    const auto patterns = GitAttributes::parse("# comment\n\n*.txt text eol=crlf\n\"*.bin\" -text !diff\n!neg x\n", "/r");
    ASSERT_EQ(patterns.size(), 3U);
    EXPECT_EQ(patterns[0].glob, "*.txt");
    EXPECT_EQ(patterns[0].attributes, (std::map<std::string, std::string>{{"text", "true"}, {"eol", "crlf"}}));
    EXPECT_EQ(patterns[1].glob, "*.bin");
    EXPECT_EQ(patterns[1].attributes, (std::map<std::string, std::string>{{"text", "false"}, {"diff", "unset"}}));
    EXPECT_TRUE(patterns[2].isNegated);
}

TEST(GitAttributes, laterLinesAndCloserFilesWin) {
    testing::TemporaryFolder folder;
    folder.write("repo/.git/HEAD", "ref: refs/heads/main\n");
    folder.write("repo/.gitattributes", "* eol=lf\n*.bat eol=crlf\n*.dat binary\n*.txt working-tree-encoding=UTF-16LE\n");
    folder.write("repo/win/.gitattributes", "*.txt eol=crlf\n");
    folder.write("outside/.gitattributes", "* eol=crlf\n");
    struct Case {
        const char* path;
        std::optional<LineEnding> ending;
        bool binary;
        std::optional<TextEncoding> charset;
    };
    const std::vector<Case> cases = {
        {"repo/a.c", LineEnding::lf, false, std::nullopt},
        {"repo/run.bat", LineEnding::crlf, false, std::nullopt},
        {"repo/blob.dat", LineEnding::lf, true, std::nullopt},
        {"repo/win/notes.txt", LineEnding::crlf, false, TextEncoding::utf16le()},
        {"repo/deep/er/x.bat", LineEnding::crlf, false, std::nullopt},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.path);
        const auto rules = GitAttributes::rules(folder / c.path);
        EXPECT_EQ(rules.lineEnding, c.ending);
        EXPECT_EQ(rules.isBinary, c.binary);
        EXPECT_EQ(rules.charset, c.charset);
    }
}

TEST(GitAttributes, textFalseSilencesEndingAndCharset) {
    const auto patterns = GitAttributes::parse("*.x -text eol=crlf working-tree-encoding=latin1\n", "/r");
    const auto rules = GitAttributes::resolve(patterns, "/r/a.x");
    EXPECT_TRUE(rules.isBinary);
    EXPECT_FALSE(rules.lineEnding);
    EXPECT_FALSE(rules.charset);
    EXPECT_EQ(GitAttributes::encodingNamed("iso-8859-1"), TextEncoding::latin1());
    EXPECT_EQ(GitAttributes::encodingNamed("Shift_JIS"), TextEncoding::shiftJIS());
    EXPECT_FALSE(GitAttributes::encodingNamed("klingon"));
}

} // namespace
} // namespace brim
