#include "store/GitAttributes.h"

#include "support/TemporaryFolder.h"

#include <gtest/gtest.h>

namespace brim {
namespace {

struct Expected {
    Expected(std::optional<LineEnding> ending = std::nullopt, bool binary = false,
             std::optional<std::string> charsetID = std::nullopt)
        : lineEnding(ending), isBinary(binary), charset(std::move(charsetID)) {}
    std::optional<LineEnding> lineEnding;
    bool isBinary;
    std::optional<std::string> charset;   ///< the set's id
};

void expectRules(const GitAttributes::Rules& rules, const Expected& expected) {
    EXPECT_EQ(rules.lineEnding, expected.lineEnding);
    EXPECT_EQ(rules.isBinary, expected.isBinary);
    EXPECT_EQ(rules.charset ? std::optional(rules.charset->id) : std::nullopt, expected.charset);
}

TEST(GitAttributes, parsesPatternsAndTheFourKindsOfAttribute) {
    const auto patterns = GitAttributes::parse("# a comment\n\n  *.c   text eol=lf  \r\n"
                                               "\"name with blanks.txt\" -diff !merge\n"
                                               "!negated text\n"
                                               "*.bin\tbinary\n",
                                               "/repo");
    ASSERT_EQ(patterns.size(), 4u);
    EXPECT_EQ(patterns[0].glob, "*.c");
    EXPECT_EQ(patterns[0].directory, "/repo");
    EXPECT_EQ(patterns[0].attributes, (std::map<std::string, std::string>{{"text", "true"}, {"eol", "lf"}}));
    EXPECT_EQ(patterns[1].glob, "name with blanks.txt");
    EXPECT_EQ(patterns[1].attributes, (std::map<std::string, std::string>{{"diff", "false"}, {"merge", "unset"}}));
    EXPECT_TRUE(patterns[2].isNegated);
    EXPECT_EQ(patterns[2].glob, "negated");
    EXPECT_EQ(patterns[3].attributes, (std::map<std::string, std::string>{{"binary", "true"}}));
}

TEST(GitAttributes, laterLinesWinAndTextFalseSilencesTheRest) {
    const auto patterns = GitAttributes::parse("* text=auto eol=lf\n"
                                               "*.bat text eol=crlf\n"
                                               "*.png binary\n"
                                               "*.dat -text eol=crlf\n"
                                               "*.rc working-tree-encoding=UTF-16LE\n"
                                               "*.jis working-tree-encoding=sjis\n"
                                               "*.odd working-tree-encoding=klingon\n"
                                               "docs/*.txt eol=crlf\n"
                                               "!*.md eol=crlf\n",
                                               "/repo");
    struct Case {
        std::string path;
        Expected expected;
    };
    const Case cases[] = {
        {"/repo/src/main.c", {LineEnding::lf}},
        {"/repo/deep/run.bat", {LineEnding::crlf}},
        {"/repo/logo.png", {LineEnding::lf, true}},
        {"/repo/blob.dat", {std::nullopt, true}},
        {"/repo/app.rc", {LineEnding::lf, false, "utf16le"}},
        {"/repo/old.jis", {LineEnding::lf, false, TextEncoding::shiftJIS().id}},
        {"/repo/what.odd", {LineEnding::lf}},
        {"/repo/docs/a.txt", {LineEnding::crlf}},
        {"/repo/other/docs/a.txt", {LineEnding::lf}},   // anchored to the file's folder
        {"/repo/README.md", {LineEnding::lf}},           // a negated pattern is ignored
        {"/elsewhere/x.bat", {}},                        // outside the folder nothing matches
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.path);
        expectRules(GitAttributes::resolve(patterns, c.path), c.expected);
    }
    expectRules(GitAttributes::resolve({}, "/repo/any.c"), {});
}

TEST(GitAttributes, namesOfCharacterSets) {
    struct Case {
        std::string_view name;
        std::optional<std::string> id;
    };
    const Case cases[] = {
        {"utf-8", TextEncoding::utf8().id},       {"UTF_16", TextEncoding::utf16be().id},
        {"utf16le", TextEncoding::utf16le().id},  {"UTF-32BE", TextEncoding::utf32be().id},
        {"iso-8859-1", TextEncoding::latin1().id}, {"Windows-1252", TextEncoding::cp1252().id},
        {"Shift_JIS", TextEncoding::shiftJIS().id}, {"ebcdic", std::nullopt}, {"", std::nullopt},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        const auto found = GitAttributes::encodingNamed(c.name);
        EXPECT_EQ(found ? std::optional(found->id) : std::nullopt, c.id);
    }
}

TEST(GitAttributes, closerFilesWinUpToTheRepositoryRoot) {
    testing::TemporaryFolder folder;
    folder.write(".gitattributes", "*.txt eol=crlf\n");               // above the repository: not read
    folder.write("repo/.git/HEAD", "ref: refs/heads/main\n");
    folder.write("repo/.gitattributes", "*.txt eol=lf\n*.cfg eol=lf\n");
    folder.write("repo/sub/.gitattributes", "*.txt eol=crlf\n");
    folder.write("repo/sub/deeper/file.txt", "x\n");
    folder.write("repo/top.txt", "x\n");
    expectRules(GitAttributes::rules(folder / "repo/sub/deeper/file.txt"), {LineEnding::crlf});
    expectRules(GitAttributes::rules(folder / "repo/sub/deeper/file.cfg"), {LineEnding::lf});
    expectRules(GitAttributes::rules(folder / "repo/top.txt"), {LineEnding::lf});

    // The repository's own attributes override the tree's.
    folder.write("repo/.git/info/attributes", "top.txt -text\n");
    expectRules(GitAttributes::rules(folder / "repo/top.txt"), {std::nullopt, true});

    // A repository that says nothing decides nothing.
    folder.write("bare/.git/HEAD", "ref: refs/heads/main\n");
    expectRules(GitAttributes::rules(folder / "bare/file.txt"), {});
}

} // namespace
} // namespace brim
