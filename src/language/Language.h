#pragma once

#include "language/TokenKind.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace brim {

/// How the fold scanner finds regions in a language.
enum class FoldStyle : std::uint8_t { brackets, indentation, markdownHeadings };

/// Extra regular-expression colouring painted over the lexer's result.
struct HighlightRule {
    std::string pattern;                ///< ICU syntax, as users write it
    TokenKind kind = TokenKind::plain;  ///< the colour to paint
    int group = 0;                      ///< capture group; one the match lacks means the whole match
    bool caseInsensitive = false;
    std::optional<TokenKind> over;      ///< the only kind the rule may paint over, when set

    friend bool operator==(const HighlightRule&, const HighlightRule&) = default;
};

/// One kind of embedded region in a template language: `{%` … `%}`.
struct TemplateIsland {
    std::string open;      ///< matched ignoring ASCII case
    std::string close;     ///< matched exactly
    bool isComment = false;

    friend bool operator==(const TemplateIsland&, const TemplateIsland&) = default;
};

/// An opener and its closer: a block comment, an interpolation.
struct DelimiterPair {
    std::string open;
    std::string close;

    friend bool operator==(const DelimiterPair&, const DelimiterPair&) = default;
};

using WordSet = std::set<std::string, std::less<>>;
using CharacterSet = std::set<char32_t>;

/// Everything the lexer, symbol extractor, fold scanner and indent rules need to know of one
/// language: pure data, so a new language is a new row and not new code. Built-in languages and
/// the user's mode files give the same record. Values are immutable once built and shared freely.
struct Language {
    std::string id;                                ///< stable key: "swift", "c", "php-html"
    std::string displayName;                       ///< the name in menus
    std::vector<std::string> extensions;           ///< lower-case, no leading dot; "html.erb" may hold one
    std::vector<std::string> filenames;            ///< exact, case-sensitive whole names
    WordSet keywords;
    WordSet types;
    WordSet constants;                             ///< coloured as numbers
    std::vector<std::string> lineComments;         ///< longer markers first
    std::vector<std::string> columnOneLineComments;
    WordSet docLineComments;                       ///< short line-comment markers that are doc comments
    std::optional<DelimiterPair> blockComment;
    bool nestedBlockComments = false;
    std::vector<std::string> stringDelimiters;     ///< longest first
    std::vector<std::string> rawStringPrefixes;    ///< quote included: `r"`, `#"`, `@"`
    std::optional<std::string> charDelimiter;
    std::optional<char32_t> escapeCharacter;
    std::optional<std::string> preprocessorPrefix;
    std::optional<std::string> attributePrefix;
    CharacterSet identifierExtra;                  ///< continue a word beyond ASCII letters and digits
    CharacterSet identifierStartExtra;             ///< may start a word beyond letters and `_`
    CharacterSet variableSigils;
    bool caseSensitive = true;                     ///< false: words are looked up lower-cased
    bool highlightsFunctionCalls = true;
    bool capitalisedNamesAreTypes = true;
    std::vector<std::string> heredocMarkers;       ///< `<<~`, `<<-`, `<<`, `<<<`
    std::optional<DelimiterPair> interpolation;
    WordSet interpolationDelimiters;               ///< the string delimiters in which interpolation works
    bool keyStringsBeforeColon = false;
    std::vector<std::string> indentAfterSuffixes;
    std::vector<std::string> indentAfterPrefixes;
    std::vector<std::string> outdentPrefixes;
    CharacterSet electricCharacters;
    FoldStyle foldStyle = FoldStyle::indentation;
    std::vector<std::string> templateOpens;        ///< openers of embedded code in a markup language
    std::string templateClose;
    std::string templateLanguageID;
    std::vector<HighlightRule> highlightRules;
    std::vector<TemplateIsland> templateIslands;   ///< explicit regions that override `templateOpens`
    WordSet verbatimDelimiters;                    ///< strings in which the escape character is plain
    std::optional<char32_t> interpolatedNameSigil; ///< `$` in Kotlin: `$name` inside a string
    bool quotedIdentifiers = false;                ///< backtick-quoted words are names

    friend bool operator==(const Language&, const Language&) = default;

    /// The name to show, translated for the few whose name is ordinary words.
    [[nodiscard]] std::string localizedDisplayName() const;

    // The table.

    /// The 121 built-in languages in their fixed order, `plain` last. Parsed once, on first use,
    /// from the data embedded in the program.
    [[nodiscard]] static const std::vector<Language>& builtIn();

    /// The languages reached only by name: the code inside template regions.
    [[nodiscard]] static const std::vector<Language>& islandLanguages();

    /// The list everything consults: `builtIn` with the user's languages merged in. A snapshot:
    /// a later `mergeInstalled` does not change a list already handed out.
    [[nodiscard]] static std::shared_ptr<const std::vector<Language>> merged();

    /// Rebuilds `merged` from `builtIn` and the installed user languages: one with a built-in's id
    /// replaces it in place, a new id goes just before the last entry, so `plain` stays last.
    static void mergeInstalled(const std::vector<Language>& installed);

    /// A number that changes whenever `merged` is rebuilt; caches built from it compare it.
    [[nodiscard]] static std::uint64_t mergedGeneration();

    /// The language with this id, first in `merged`, then among the island languages.
    [[nodiscard]] static std::optional<Language> named(std::string_view id);

    /// The plain-text language, which is always there.
    [[nodiscard]] static Language plain();

    // Detection. `name` is a path or a bare file name; empty when the text has no file.

    /// The language the file's name says: exact names, then the extension (looking through
    /// ".gz"), then a few name prefixes. `plain` when the name says nothing.
    [[nodiscard]] static Language detect(std::string_view name);

    /// The language of a file from its name and the decoded head of its text. The name decides
    /// when it can; the shebang line comes next; only a name that says nothing lets the content
    /// be scored. A few ambiguous extensions (".m", ".js", ".cls") are settled by the content.
    /// Never fails; reads a bounded part of the sample, however long it is.
    [[nodiscard]] static Language detect(std::string_view name, std::string_view sample);

    /// The language that a `#!` first line names, by the interpreter's exact name.
    [[nodiscard]] static std::optional<Language> fromShebang(std::string_view sample);

    /// Whether the name tells nothing about the language: no name, or one with no extension and
    /// no exact match, or an extension no language lists. ".txt" says something: plain text.
    [[nodiscard]] static bool nameSaysNothing(std::string_view name);
};

} // namespace brim
