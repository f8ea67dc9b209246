#include "language/Language.h"

#define PCRE2_CODE_UNIT_WIDTH 8
#include <pcre2.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <numeric>

namespace brim {
namespace {

const std::vector<std::string> tableOrder = {
    "swift", "c", "javascript", "python", "rust", "go", "java", "kotlin", "csharp", "php", "ruby", "perl", "lua",
    "erlang", "nim", "shell", "sql", "scss", "less", "css", "html", "json", "yaml", "toml", "latex", "zig", "nix",
    "julia", "elixir", "haskell", "ocaml", "lisp", "ada", "fortran", "tcl", "r", "powershell", "assembly", "forth",
    "smalltalk", "vimscript", "elm", "solidity", "actionscript", "wren", "mssql", "postgresql", "abap", "cobol", "d",
    "dart", "pascal", "foxpro", "gml", "matlab", "plsql", "prolog", "sas", "vb", "vhdl", "xpp", "jcl", "rexx", "pli",
    "batch", "make", "dockerfile", "cmake", "verilog", "terraform", "graphql", "protobuf", "scala", "groovy",
    "coffeescript", "awk", "csv", "applescript", "jxa", "crystal", "fsharp", "erb", "eex", "ejs", "php-html", "jinja",
    "twig", "liquid", "handlebars", "gotemplate", "log", "strings", "xcconfig", "pbxproj", "shader", "apache", "nginx",
    "gitignore", "crontab", "sshconfig", "rpg", "cl", "hlasm", "edi", "rst", "asciidoc", "org", "typst", "bibtex",
    "rtf", "dot", "mermaid", "plantuml", "thrift", "capnp", "avroidl", "apex", "gcode", "markdown", "diff", "plain"};

const Language& builtIn(std::string_view id) {
    const auto& table = Language::builtIn();
    const auto found = std::find_if(table.begin(), table.end(), [&](const Language& l) { return l.id == id; });
    EXPECT_NE(found, table.end()) << id;
    return *found;
}

TEST(LanguageTable, holdsTheBuiltInIdsInTheirFixedOrder) {
    std::vector<std::string> ids;
    for (const auto& language : Language::builtIn()) {
        ids.push_back(language.id);
    }
    EXPECT_EQ(ids.size(), 121u);
    EXPECT_EQ(ids, tableOrder);

    std::vector<std::string> islands;
    for (const auto& language : Language::islandLanguages()) {
        islands.push_back(language.id);
    }
    EXPECT_EQ(islands, (std::vector<std::string>{"jinja-code", "liquid-code", "handlebars-code", "gotemplate-code"}));
}

TEST(LanguageTable, noExtensionOrFileNameBelongsToTwoLanguages) {
    std::map<std::string, std::string> extensionOwner;
    std::map<std::string, std::string> filenameOwner;
    for (const auto& language : Language::builtIn()) {
        SCOPED_TRACE(language.id);
        EXPECT_FALSE(language.displayName.empty());
        for (const auto& extension : language.extensions) {
            EXPECT_FALSE(extension.empty());
            EXPECT_FALSE(extension.starts_with("."));
            EXPECT_TRUE(std::none_of(extension.begin(), extension.end(), [](char c) { return c >= 'A' && c <= 'Z'; }))
                << extension;
            const auto [at, inserted] = extensionOwner.emplace(extension, language.id);
            EXPECT_TRUE(inserted) << extension << " is also " << at->second << "'s";
        }
        for (const auto& name : language.filenames) {
            const auto [at, inserted] = filenameOwner.emplace(name, language.id);
            EXPECT_TRUE(inserted) << name << " is also " << at->second << "'s";
        }
    }
    // php has none of its own: ".php" files are php-html, whose region language is php.
    EXPECT_TRUE(builtIn("php").extensions.empty());
    EXPECT_EQ(extensionOwner.at("php"), "php-html");
}

TEST(LanguageTable, wordListsHaveTheSizesTheTableIsKnownBy) {
    EXPECT_EQ(builtIn("hlasm").keywords.size(), 210u);
    EXPECT_EQ(builtIn("rpg").keywords.size(), 140u);
    EXPECT_EQ(builtIn("vb").keywords.size(), 113u);
    EXPECT_EQ(builtIn("applescript").keywords.size(), 118u);
    EXPECT_EQ(builtIn("applescript").types.size(), 60u);
    EXPECT_EQ(builtIn("applescript").constants.size(), 18u);
    EXPECT_EQ(builtIn("json").constants, (WordSet{"true", "false", "null"}));
    // The scanner-driven formats carry no word lists at all.
    for (const char* id : {"csv", "log", "plain", "markdown", "diff", "edi", "rtf", "rst", "asciidoc", "org", "gcode"}) {
        SCOPED_TRACE(id);
        const auto& language = builtIn(id);
        EXPECT_TRUE(language.keywords.empty() && language.types.empty() && language.constants.empty());
    }
    // Case-insensitive languages are looked up lower-cased, so their words are kept lower-case.
    for (const auto& language : Language::builtIn()) {
        if (language.caseSensitive) {
            continue;
        }
        SCOPED_TRACE(language.id);
        for (const auto* set : {&language.keywords, &language.types, &language.constants}) {
            for (const auto& word : *set) {
                EXPECT_TRUE(std::none_of(word.begin(), word.end(), [](char c) { return c >= 'A' && c <= 'Z'; })) << word;
            }
        }
    }
}

TEST(LanguageTable, tellingRowsCarryTheirSyntax) {
    const auto& swift = builtIn("swift");
    EXPECT_EQ(swift.lineComments, (std::vector<std::string>{"///", "//"}));
    EXPECT_TRUE(swift.nestedBlockComments);
    EXPECT_EQ(swift.stringDelimiters, (std::vector<std::string>{"\"\"\"", "\""}));
    EXPECT_EQ(swift.interpolation, (DelimiterPair{"\\(", ")"}));
    EXPECT_EQ(swift.attributePrefix, "@");

    const auto& python = builtIn("python");
    EXPECT_EQ(python.foldStyle, FoldStyle::indentation);
    EXPECT_FALSE(python.blockComment.has_value());
    for (const char* word : {"else", "elif", "except", "finally"}) {
        EXPECT_NE(std::find(python.outdentPrefixes.begin(), python.outdentPrefixes.end(), word),
                  python.outdentPrefixes.end()) << word;
    }

    const auto& kotlin = builtIn("kotlin");
    EXPECT_EQ(kotlin.verbatimDelimiters, (WordSet{"\"\"\""}));
    EXPECT_EQ(kotlin.interpolatedNameSigil, U'$');
    EXPECT_TRUE(kotlin.quotedIdentifiers);

    const auto& ruby = builtIn("ruby");
    EXPECT_EQ(ruby.heredocMarkers, (std::vector<std::string>{"<<~", "<<-", "<<"}));
    EXPECT_EQ(ruby.identifierExtra, (CharacterSet{U'_', U'?', U'!'}));
    EXPECT_EQ(ruby.blockComment, (DelimiterPair{"=begin", "=end"}));

    EXPECT_FALSE(builtIn("shell").highlightsFunctionCalls);
    EXPECT_FALSE(builtIn("php").caseSensitive);
    EXPECT_EQ(builtIn("php").heredocMarkers, (std::vector<std::string>{"<<<"}));
    EXPECT_EQ(builtIn("html").templateLanguageID, "php");
    EXPECT_EQ(builtIn("erb").templateOpens, (std::vector<std::string>{"<%"}));
    EXPECT_EQ(builtIn("smalltalk").blockComment, (DelimiterPair{"\"", "\""}));
    EXPECT_EQ(builtIn("vimscript").lineComments, (std::vector<std::string>{"\""}));
    EXPECT_EQ(builtIn("forth").blockComment, (DelimiterPair{"( ", ")"}));
    EXPECT_EQ(builtIn("abap").columnOneLineComments, (std::vector<std::string>{"*"}));
    EXPECT_EQ(builtIn("cobol").columnOneLineComments, (std::vector<std::string>{"*", "/"}));
    EXPECT_EQ(builtIn("jcl").columnOneLineComments, (std::vector<std::string>{"//*"}));
    EXPECT_EQ(builtIn("batch").escapeCharacter, U'^');
    EXPECT_EQ(builtIn("batch").variableSigils, (CharacterSet{U'%', U'!'}));
    EXPECT_FALSE(builtIn("rpg").escapeCharacter.has_value());
    EXPECT_EQ(builtIn("rpg").highlightRules.size(), 2u);
    EXPECT_TRUE(builtIn("json").keyStringsBeforeColon);
    EXPECT_EQ(builtIn("jinja").templateIslands.size(), 3u);
    EXPECT_TRUE(builtIn("jinja").templateIslands[2].isComment);
    EXPECT_EQ(builtIn("markdown").foldStyle, FoldStyle::markdownHeadings);
}

TEST(LanguageTable, markersAreOrderedSoTheLongerOneIsTriedFirst) {
    for (const auto& language : Language::builtIn()) {
        SCOPED_TRACE(language.id);
        for (const auto* list : {&language.lineComments, &language.stringDelimiters}) {
            for (std::size_t early = 0; early < list->size(); ++early) {
                for (auto late = early + 1; late < list->size(); ++late) {
                    EXPECT_FALSE((*list)[late].starts_with((*list)[early]) && (*list)[late] != (*list)[early])
                        << (*list)[early] << " hides " << (*list)[late];
                }
            }
        }
    }
}

TEST(LanguageTable, everyRegionLanguageAndRuleResolves) {
    std::vector<Language> all = Language::builtIn();
    all.insert(all.end(), Language::islandLanguages().begin(), Language::islandLanguages().end());
    for (const auto& language : all) {
        SCOPED_TRACE(language.id);
        if (!language.templateLanguageID.empty()) {
            EXPECT_TRUE(Language::named(language.templateLanguageID).has_value()) << language.templateLanguageID;
        }
        for (const auto& rule : language.highlightRules) {
            int error = 0;
            PCRE2_SIZE offset = 0;
            const auto options = PCRE2_UTF | PCRE2_UCP | (rule.caseInsensitive ? PCRE2_CASELESS : 0u);
            auto* code = pcre2_compile(reinterpret_cast<PCRE2_SPTR>(rule.pattern.c_str()), rule.pattern.size(),
                                       options, &error, &offset, nullptr);
            EXPECT_NE(code, nullptr) << rule.pattern << " fails at " << offset;
            if (code != nullptr) {
                std::uint32_t groups = 0;
                pcre2_pattern_info(code, PCRE2_INFO_CAPTURECOUNT, &groups);
                EXPECT_GE(static_cast<int>(groups), rule.group) << rule.pattern;
                pcre2_code_free(code);
            }
        }
    }
}

} // namespace
} // namespace brim
