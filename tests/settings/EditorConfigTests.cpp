#include "settings/EditorConfig.h"

#include "support/TemporaryFolder.h"

#include <gtest/gtest.h>

#include <chrono>
#include <functional>

namespace brim {
namespace {

using testing::TemporaryFolder;

struct GlobCase {
    const char* pattern;
    const char* path;
    bool expected;
};

void expectGlobs(const std::vector<GlobCase>& cases) {
    for (const auto& item : cases) {
        SCOPED_TRACE(std::string("[") + item.pattern + "] against " + item.path);
        EXPECT_EQ(EditorConfig::matches(item.pattern, std::string("/project/") + item.path, "/project"), item.expected);
    }
}

TEST(EditorConfig, starsStopAtSlashesAndDoubleStarsDoNot) {
    expectGlobs({
        {"*", "anything/at/all.txt", true},
        {"*.swift", "deep/er/x.swift", true},
        {"*.swift", "x.swiftx", false},
        {"a*e.c", "ace.c", true},
        {"a*e.c", "ae.c", true},
        {"a*e.c", "abcde.c", true},
        {"a*e.c", "a/e.c", false},
        {"Bar/*", "Bar/foo.txt", true},
        {"Bar/*", "Bar/foo/foo.txt", false},
        {"Bar/*", "x/Bar/foo.txt", false},
        {"/src/*.swift", "src/a.swift", true},
        {"/src/*.swift", "src/sub/a.swift", false},
        {"/src/*.swift", "other/src/a.swift", false},
        {"/src/**.swift", "src/sub/a.swift", true},
        {"a**z.c", "a/z.c", true},
        {"a**z.c", "amnz.c", true},
        {"a**z.c", "am/nz.c", true},
        {"a**z.c", "a/mn/z.c", true},
        {"b/**z.c", "b/z.c", true},
        {"b/**z.c", "b/mn/z.c", true},
        {"b/**z.c", "bmnz.c", false},
        {"c**/z.c", "c/z.c", true},
        {"c**/z.c", "cmn/z.c", true},
        {"c**/z.c", "c/mn/z.c", true},
        {"d/**/z.c", "d/z.c", true},
        {"d/**/z.c", "d/mn/z.c", true},
        {"d/**/z.c", "d/a/b/z.c", true},
        {"d/**/z.c", "d/mnz.c", false},
        {"a/**/b/*.c", "a/x/b/y/b/z.c", true},
        {"a/**/b/*.c", "a/b/z.c", true},
        {"a/**/b/*.c", "a/x/b/y/z.c", false},
        {"**/foo.txt", "foo.txt", true},
        {"**/foo.txt", "a/b/foo.txt", true},
        {"?.txt", "a.txt", true},
        {"?.txt", "ab.txt", false},
        {"?.txt", ".txt", false},
        {"a?b", "a/b", false},
        {"*.TXT", "a.txt", false},
    });
}

TEST(EditorConfig, classesTakeOneCharacter) {
    expectGlobs({
        {"[ab].a", "a.a", true},
        {"[ab].a", "b.a", true},
        {"[ab].a", "c.a", false},
        {"[!ab].b", "c.b", true},
        {"[!ab].b", "a.b", false},
        {"[d-g].c", "f.c", true},
        {"[d-g].c", "g.c", true},
        {"[d-g].c", "h.c", false},
        {"[!d-g].d", "h.d", true},
        {"[!d-g].d", "g.d", false},
        {"[abd-g].e", "e.e", true},
        {"[abd-g].e", "c.e", false},
        {"[]ab].f", "].f", true},
        {"[]ab].f", "a.f", true},
        {"[ab]].g", "b].g", true},
        {"[ab]].g", "b.g", false},
        {"[!]ab].g", "c.g", true},
        {"[!]ab].g", "].g", false},
        {"[!ab]].g", "c].g", true},
        {"[!ab]].g", "c.g", false},
        {"ab[e/]cd.i", "ab[e/]cd.i", true}, // a slash makes the bracket an ordinary character
        {"ab[e/]cd.i", "abecd.i", false},
        {"ab[/c", "ab[/c", true},
        {"[abc", "[abc", true}, // never closed
        {"file[1-3].txt", "file2.txt", true},
        {"file[!1-3].txt", "file2.txt", false},
        {"file[!1-3].txt", "file4.txt", true},
        {"[!a-c]x", "dx", true},
        {"[!a-c]x", "bx", false},
        {"[z-a]x", "zx", false}, // a range running backwards holds nothing
        {"[-a]x", "-x", true},
        {"[a-]x", "-x", true},
        {"[à-ä]x", "âx", true},
        {"é?.txt", "éa.txt", true},
        {"é?.txt", "ea.txt", false},
    });
}

TEST(EditorConfig, bracesGiveAlternativesAndNumbers) {
    expectGlobs({
        {"*.{py,js,html}", "test.py", true},
        {"*.{py,js,html}", "test.html", true},
        {"*.{py,js,html}", "test.pyc", false},
        {"*.{c,h}", "a.c", true},
        {"*.{c,h}", "a.h", true},
        {"*.{c,h}", "a.m", false},
        {"{single}.b", "{single}.b", true},
        {"{single}.b", "single.b", false},
        {"{}.c", "{}.c", true},
        {"{}.c", ".c", false},
        {"a{b,c,}.d", "a.d", true},
        {"a{b,c,}.d", "ac.d", true},
        {"a{b,c,}.d", "a,.d", false},
        {"a{,b,,c,}.e", "a.e", true},
        {"a{,b,,c,}.e", "ab.e", true},
        {"a{,b,,c,}.e", "a,.e", false},
        {"{.f", "{.f", true},
        {"{.f", ".f", false},
        {"{word,{also},this}.g", "word.g", true},
        {"{word,{also},this}.g", "{also}.g", true},
        {"{word,{also},this}.g", "this.g", true},
        {"{word,{also},this}.g", "also.g", false},
        {"{word,{also},this}.g", "word,this}.g", false},
        {"{{a,b},c}.k", "b.k", true},
        {"{{a,b},c}.k", "c.k", true},
        {"{a,{b,c}}.l", "a.l", true},
        {"{a,{b,c}}.l", "c.l", true},
        {"{},b}.h", "{},b}.h", true},
        {"{{,b,c{d}.i", "{{,b,c{d}.i", true},
        {"{some,a{*c,b}[ef]}.j", "some.j", true},
        {"{some,a{*c,b}[ef]}.j", "abe.j", true},
        {"{some,a{*c,b}[ef]}.j", "abf.j", true},
        {"{some,a{*c,b}[ef]}.j", "abg.j", false},
        {"{some,a{*c,b}[ef]}.j", "ace.j", true},
        {"{some,a{*c,b}[ef]}.j", "abce.j", true},
        {"{some,a{*c,b}[ef]}.j", "ae.j", false},
        {"{3..120}", "1", false},
        {"{3..120}", "3", true},
        {"{3..120}", "15", true},
        {"{3..120}", "120", true},
        {"{3..120}", "121", false},
        {"{3..120}", "5a", false},
        {"{3..120}", "060", false},
        {"page{1..3}.md", "page2.md", true},
        {"page{1..3}.md", "page4.md", false},
        {"page{1..3}.md", "page02.md", false},
        {"v{1..3}0", "v10", true},
        {"{-3..3}x", "-2x", true},
        {"{-3..3}x", "0x", true},
        {"{-3..3}x", "-4x", false},
        {"log{1..1000}.txt", "log999.txt", true}, // not cut short by the limit on expansions
        {"{aardvark..antelope}", "{aardvark..antelope}", true},
        {"{aardvark..antelope}", "aardvark", false},
    });
}

TEST(EditorConfig, backslashTakesTheNextCharacterAsItIs) {
    expectGlobs({
        {"\\*.txt", "*.txt", true},
        {"\\*.txt", "a.txt", false},
        {"\\[ab\\].txt", "[ab].txt", true},
        {"\\[ab\\].txt", "a.txt", false},
        {"a\\?", "a?", true},
        {"a\\?", "ab", false},
        {"{a\\,b,cd}.txt", "a,b.txt", true},
        {"{a\\,b,cd}.txt", "cd.txt", true},
        {"{a\\,b,cd}.txt", "a.txt", false},
        {"{e,\\},f}.txt", "}.txt", true},
        {"{e,\\},f}.txt", "f.txt", true},
        {"{g,\\\\,i}.txt", "\\.txt", true},
        {"{g,\\\\,i}.txt", "i.txt", true},
    });
}

TEST(EditorConfig, pathsAreTakenRelativeToTheFilesFolder) {
    EXPECT_TRUE(EditorConfig::matches("sub/*.c", "/proj/sub/x.c", "/proj"));
    EXPECT_TRUE(EditorConfig::matches("sub/*.c", "/proj/sub/x.c", "/proj/"));
    EXPECT_FALSE(EditorConfig::matches("sub/*.c", "/proj/sub/x.c", "/pro")) << "a folder is a whole name";
    EXPECT_FALSE(EditorConfig::matches("sub/*.c", "/proj/deeper/sub/x.c", "/proj"));
    EXPECT_TRUE(EditorConfig::matches("*.c", "/proj/deeper/sub/x.c", "/proj"));
    EXPECT_FALSE(EditorConfig::matches("", "/proj/x.c", "/proj"));
}

TEST(EditorConfig, braceExpansionStopsAtItsLimit) {
    EXPECT_EQ(EditorConfig::expandBraces("a{b,c}d{e,f}"),
              (std::vector<std::string>{"abde", "abdf", "acde", "acdf"}));
    EXPECT_EQ(EditorConfig::expandBraces("x{1..3}"), std::vector<std::string>{"x{1..3}"});
    std::string thirty;
    for (int i = 0; i < 30; ++i) thirty += "{a,b}";
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(EditorConfig::expandBraces(thirty).size(), 256U);
    EXPECT_EQ(EditorConfig::expandBraces(thirty, 10).size(), 10U);
    EXPECT_FALSE(EditorConfig::matches(thirty, "/p/" + std::string(30, 'c'), "/p"));
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(2));
}

TEST(EditorConfig, matchingNeverBacktracks) {
    std::string pattern;
    for (int i = 0; i < 12; ++i) pattern += "*a?";
    pattern += "b";
    const std::string name(20'000, 'a');
    const auto start = std::chrono::steady_clock::now();
    EXPECT_FALSE(EditorConfig::matches(pattern, "/p/" + name, "/p"));
    EXPECT_FALSE(EditorConfig::matches("**a**a**a**a**a**a**b", "/p/" + name, "/p"));
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(2));
}

TEST(EditorConfig, parsingReadsSectionsCommentsAndRoot) {
    const auto file = EditorConfig::parse("# top comment\r\n"
                                          "Root = TRUE\r\n"
                                          "ignored = here\r\n"
                                          "\r\n"
                                          "[*]\r\n"
                                          "Indent_Style = Space ; trailing comment\r\n"
                                          "indent_size=2\r\n"
                                          "a line without an equals sign\r\n"
                                          "root = true\r\n"
                                          "url = http://x#y\r\n"
                                          "[*.{md,markdown}]\r\n"
                                          "trim_trailing_whitespace = false # keep hard breaks\r\n"
                                          "indent_size = 4\r\n"
                                          "indent_size = 3\r\n"
                                          "   ; indented comment\r\n"
                                          "[empty]",
                                          "/project");
    EXPECT_TRUE(file.isRoot);
    ASSERT_EQ(file.sections.size(), 3U);
    EXPECT_EQ(file.sections[0].pattern, "*");
    EXPECT_EQ(file.sections[0].directory, "/project");
    const std::map<std::string, std::string> first{
        {"indent_style", "Space"}, {"indent_size", "2"}, {"root", "true"}, {"url", "http://x#y"}};
    EXPECT_EQ(file.sections[0].values, first);
    const std::map<std::string, std::string> second{{"trim_trailing_whitespace", "false"}, {"indent_size", "3"}};
    EXPECT_EQ(file.sections[1].values, second);
    EXPECT_TRUE(file.sections[2].values.empty());

    // "root" below a section is an ordinary value; a byte order mark and lone CRs are read.
    const auto other = EditorConfig::parse("\xEF\xBB\xBF[*]\rroot = true\rtab_width = 8", "/p");
    EXPECT_FALSE(other.isRoot);
    ASSERT_EQ(other.sections.size(), 1U);
    EXPECT_EQ(other.sections[0].values.at("tab_width"), "8");
}

EditorConfig::Rules with(const std::function<void(EditorConfig::Rules&)>& set) {
    EditorConfig::Rules rules;
    set(rules);
    return rules;
}

TEST(EditorConfig, valuesBecomeRules) {
    using Values = std::map<std::string, std::string>;
    auto spaces = IndentationStyle::spaces;
    const IndentationStyle tabs = IndentationStyle::tabs();
    const struct {
        Values values;
        std::optional<IndentationStyle> style;
        std::optional<int> tabWidth;
    } indentation[] = {
        {{{"indent_style", "space"}, {"indent_size", "2"}}, spaces(2), 2},
        {{{"indent_style", "space"}}, spaces(4), std::nullopt},
        {{{"indent_style", "space"}, {"tab_width", "8"}}, spaces(8), 8},
        {{{"indent_style", "space"}, {"indent_size", "-3"}}, spaces(4), std::nullopt},
        {{{"indent_style", "space"}, {"indent_size", "0"}, {"tab_width", "3"}}, spaces(3), 3},
        {{{"indent_style", "tab"}}, tabs, std::nullopt},
        {{{"indent_style", "Tab"}, {"indent_size", "3"}}, tabs, 3},
        {{{"indent_style", "tab"}, {"indent_size", "tab"}, {"tab_width", "8"}}, tabs, 8},
        {{{"indent_size", "2"}}, spaces(2), 2},
        {{{"indent_size", "+2"}}, spaces(2), 2},
        {{{"indent_style", "mixed"}}, std::nullopt, std::nullopt},
        {{{"tab_width", "0"}}, std::nullopt, std::nullopt},
        {{{"tab_width", "65"}}, std::nullopt, std::nullopt},
        {{{"tab_width", "64"}}, std::nullopt, 64},
        {{{"tab_width", "4.5"}}, std::nullopt, std::nullopt},
    };
    for (const auto& item : indentation) {
        SCOPED_TRACE(::testing::PrintToString(item.values));
        const auto rules = EditorConfig::rulesFrom(item.values);
        EXPECT_EQ(rules.indentStyle, item.style);
        EXPECT_EQ(rules.tabWidth, item.tabWidth);
    }

    const struct {
        Values values;
        EditorConfig::Rules expected;
    } others[] = {
        {{{"end_of_line", "CRLF"}}, with([](EditorConfig::Rules& r) { r.lineEnding = "crlf"; })},
        {{{"end_of_line", "cr"}}, with([](EditorConfig::Rules& r) { r.lineEnding = "cr"; })},
        {{{"end_of_line", "nel"}}, {}},
        {{{"charset", "UTF-8"}}, with([](EditorConfig::Rules& r) { r.charset = "utf8"; r.byteOrderMark = false; })},
        {{{"charset", "utf-8-bom"}}, with([](EditorConfig::Rules& r) { r.charset = "utf8"; r.byteOrderMark = true; })},
        {{{"charset", "utf-16le"}}, with([](EditorConfig::Rules& r) { r.charset = "utf16le"; })},
        {{{"charset", "utf-16be"}}, with([](EditorConfig::Rules& r) { r.charset = "utf16be"; })},
        {{{"charset", "latin1"}}, with([](EditorConfig::Rules& r) { r.charset = "latin1"; })},
        {{{"charset", "koi8-r"}}, {}},
        {{{"trim_trailing_whitespace", "TRUE"}, {"insert_final_newline", "false"}},
         with([](EditorConfig::Rules& r) { r.trimTrailingWhitespace = true; r.insertFinalNewline = false; })},
        {{{"trim_trailing_whitespace", "yes"}}, {}},
        {{{"max_line_length", "100"}}, with([](EditorConfig::Rules& r) { r.maxLineLength = 100; })},
        {{{"max_line_length", "500"}}, with([](EditorConfig::Rules& r) { r.maxLineLength = 500; })},
        {{{"max_line_length", "off"}}, {}},
        {{{"max_line_length", "0"}}, {}},
        {{{"unknown_property", "whatever"}}, {}},
    };
    for (const auto& item : others) {
        SCOPED_TRACE(::testing::PrintToString(item.values));
        EXPECT_EQ(EditorConfig::rulesFrom(item.values), item.expected);
    }
}

// A tree of .editorconfig files, the outermost one marked root so that nothing above the
// temporary folder takes part.
class EditorConfigTree : public ::testing::Test {
protected:
    TemporaryFolder folder;

    void SetUp() override {
        folder.write(".editorconfig", "root = true\n"
                                      "[*]\n"
                                      "indent_style = space\n"
                                      "indent_size = 4\n"
                                      "end_of_line = lf\n"
                                      "insert_final_newline = true\n"
                                      "[*.md]\n"
                                      "trim_trailing_whitespace = false\n"
                                      "[Makefile]\n"
                                      "indent_style = tab\n"
                                      "tab_width = 8\n"
                                      "max_line_length = 100\n");
        folder.write("sub/.editorconfig", "[*]\n"
                                          "indent_size = 2\n"
                                          "[*.py]\n"
                                          "indent_style = tab\n"
                                          "[/only/here.txt]\n"
                                          "end_of_line = crlf\n");
    }

    [[nodiscard]] EditorConfig::Rules rulesFor(std::string_view name) const {
        return EditorConfig::rules(folder.write(name, "content"));
    }
};

TEST_F(EditorConfigTree, closerFilesAndLaterSectionsWinKeyByKey) {
    const auto top = rulesFor("a.c");
    EXPECT_EQ(top.indentStyle, IndentationStyle::spaces(4));
    EXPECT_EQ(top.lineEnding, "lf");
    EXPECT_EQ(top.insertFinalNewline, true);
    EXPECT_FALSE(top.trimTrailingWhitespace);

    const auto make = rulesFor("tools/Makefile");
    EXPECT_EQ(make.indentStyle, IndentationStyle::tabs());
    EXPECT_EQ(make.tabWidth, 8);
    EXPECT_EQ(make.maxLineLength, 100);

    const auto python = rulesFor("sub/deeper/x.py");
    EXPECT_EQ(python.indentStyle, IndentationStyle::tabs()) << "the closer file's later section";
    EXPECT_EQ(python.tabWidth, 2) << "the closer file's width";
    EXPECT_EQ(python.lineEnding, "lf") << "what the closer file does not say, the outer one gives";

    EXPECT_EQ(rulesFor("sub/only/here.txt").lineEnding, "crlf");
    EXPECT_EQ(rulesFor("sub/deeper/only/here.txt").lineEnding, "lf") << "anchored to its own folder";
    EXPECT_EQ(rulesFor("sub/notes.md").trimTrailingWhitespace, false);
}

TEST_F(EditorConfigTree, aRootFileStopsTheSearchAndUnsetTakesAValueBack) {
    folder.write("sub/inner/.editorconfig", "root = true\n[*.c]\nindent_size = 3\n");
    const auto inner = rulesFor("sub/inner/x.c");
    EXPECT_EQ(inner.indentStyle, IndentationStyle::spaces(3));
    EXPECT_FALSE(inner.lineEnding) << "nothing above a root file counts";
    EXPECT_FALSE(inner.insertFinalNewline);

    folder.write("sub/other/.editorconfig", "[*]\nend_of_line = unset\n");
    const auto other = rulesFor("sub/other/x.c");
    EXPECT_FALSE(other.lineEnding);
    EXPECT_EQ(other.indentStyle, IndentationStyle::spaces(2));

    folder.write("empty/.editorconfig", "root = true\n");
    EXPECT_TRUE(rulesFor("empty/x.c").isEmpty()) << "no section for the file: detection and settings decide";
}

TEST_F(EditorConfigTree, unreadableFilesCountAsAbsent) {
    folder.write("bad/.editorconfig", std::string("[*]\nindent_size = 7\n\xFF\xFE garbage\n"));
    EXPECT_EQ(rulesFor("bad/x.c").indentStyle, IndentationStyle::spaces(4)) << "not UTF-8: the file is skipped";
    folder.write("binary/.editorconfig", std::string("[*]\nindent_size = 7\n\0\0\0", 23));
    EXPECT_EQ(rulesFor("binary/x.c").indentStyle, IndentationStyle::spaces(4));
    std::filesystem::create_directories(folder / "folder/.editorconfig");
    EXPECT_EQ(rulesFor("folder/x.c").indentStyle, IndentationStyle::spaces(4)) << "a folder of that name";
    folder.write("junk/.editorconfig", "this is not\nan editorconfig = file at all [\n[\n=\n");
    EXPECT_EQ(rulesFor("junk/x.c").indentStyle, IndentationStyle::spaces(4));
}

TEST_F(EditorConfigTree, windowsLineEndsAreRead) {
    folder.write("crlf/.editorconfig", "root = true\r\n[*]\r\nindent_style = tab\r\ntab_width = 6\r\n");
    const auto rules = rulesFor("crlf/x.c");
    EXPECT_EQ(rules.indentStyle, IndentationStyle::tabs());
    EXPECT_EQ(rules.tabWidth, 6);
}

TEST_F(EditorConfigTree, aLookupScopeReadsEachFolderOnce) {
    {
        EditorConfig::LookupScope scope;
        EXPECT_EQ(rulesFor("sub/a.c").tabWidth, 2);
        folder.write("sub/.editorconfig", "[*]\nindent_size = 5\n");
        EXPECT_EQ(rulesFor("sub/b.c").tabWidth, 2) << "read once while the scope is open";
    }
    EXPECT_EQ(rulesFor("sub/b.c").tabWidth, 5) << "seen at the next open";
}

TEST(EditorConfig, whatADocumentTakesFromItsRules) {
    EditorConfig::Rules rules;
    rules.indentStyle = IndentationStyle::spaces(2);
    rules.tabWidth = 8;
    rules.lineEnding = "crlf";
    rules.charset = "latin1";
    const auto applied = EditorConfig::application(rules);
    EXPECT_EQ(applied.tabWidth, 8);
    EXPECT_EQ(applied.indentation, IndentationStyle::spaces(2));
    EXPECT_EQ(applied.lineEnding, "crlf");
    EXPECT_EQ(EditorConfig::application({}), EditorConfig::Application{});
}

} // namespace
} // namespace brim
