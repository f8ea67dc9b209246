#include "language/LanguageFile.h"

#include <gtest/gtest.h>

namespace brim {
namespace {

using LanguageFile::Origin;

TEST(LanguageFile, aSmallModeGetsEveryDefault) {
    const auto language = LanguageFile::parse(
        R"json({"id": "tiny", "displayName": "Tiny", "extensions": ["TINY"], "keywords": ["go"]})json", "Tiny", Origin::userMode);
    EXPECT_EQ(language.id, "tiny");
    EXPECT_EQ(language.displayName, "Tiny");
    EXPECT_EQ(language.extensions, (std::vector<std::string>{"tiny"}));
    EXPECT_EQ(language.keywords, (WordSet{"go"}));
    EXPECT_EQ(language.stringDelimiters, (std::vector<std::string>{"\""}));
    EXPECT_EQ(language.escapeCharacter, U'\\');
    EXPECT_EQ(language.identifierExtra, (CharacterSet{U'_'}));
    EXPECT_TRUE(language.caseSensitive);
    EXPECT_TRUE(language.highlightsFunctionCalls);
    EXPECT_TRUE(language.capitalisedNamesAreTypes);
    EXPECT_EQ(language.indentAfterSuffixes, (std::vector<std::string>{"{", "(", "["}));
    EXPECT_EQ(language.outdentPrefixes, (std::vector<std::string>{"}", ")", "]"}));
    EXPECT_EQ(language.electricCharacters, (CharacterSet{U'}', U')', U']'}));
    EXPECT_EQ(language.foldStyle, FoldStyle::indentation);
    EXPECT_FALSE(language.blockComment.has_value());
    EXPECT_TRUE(language.highlightRules.empty());
}

TEST(LanguageFile, blankNamesFallBackToTheFileName) {
    const auto language = LanguageFile::parse(R"json({"id": "  ", "displayName": ""})json", "MyLang", Origin::userMode);
    EXPECT_EQ(language.id, "mylang");
    EXPECT_EQ(language.displayName, "MyLang");
    try {
        (void)LanguageFile::parse(R"json({"id": ""})json", "", Origin::userMode);
        FAIL() << "an id-less mode was accepted";
    } catch (const LanguageFile::Failure& failure) {
        EXPECT_EQ(failure.kind(), LanguageFile::Failure::Kind::missingID);
        EXPECT_STREQ(failure.what(), "The mode has no id.");
    }
}

TEST(LanguageFile, readsEveryShapeOfValue) {
    const auto language = LanguageFile::parse(R"json({
        "keywords": "begin end  if\tthen",
        "blockComment": ["(*", "*)"],
        "escapeCharacter": "",
        "identifierExtra": ["-", "", "?!"],
        "foldStyle": "MarkdownHeadings",
        "caseSensitive": false,
        "types": ["Int", "STRING"],
        "highlightRules": [{"pattern": "\\bTODO\\b", "kind": "invalid", "over": "comment", "group": 0, "caseInsensitive": true}]
    })json", "x", Origin::userMode);
    EXPECT_EQ(language.keywords, (WordSet{"begin", "end", "if", "then"}));
    EXPECT_EQ(language.blockComment, (DelimiterPair{"(*", "*)"}));
    EXPECT_FALSE(language.escapeCharacter.has_value());
    EXPECT_EQ(language.identifierExtra, (CharacterSet{U'-', U'?'}));
    EXPECT_EQ(language.foldStyle, FoldStyle::markdownHeadings);
    EXPECT_EQ(language.types, (WordSet{"int", "string"}));   // case-insensitive: kept lower-case
    ASSERT_EQ(language.highlightRules.size(), 1u);
    EXPECT_EQ(language.highlightRules[0].kind, TokenKind::invalid);
    EXPECT_EQ(language.highlightRules[0].over, TokenKind::comment);
    EXPECT_TRUE(language.highlightRules[0].caseInsensitive);

    // A block comment of any other length counts as none; an unknown fold style is indentation.
    const auto odd = LanguageFile::parse(R"json({"blockComment": ["/*"], "foldStyle": "zigzag", "unknown": 1})json", "odd",
                                         Origin::userMode);
    EXPECT_FALSE(odd.blockComment.has_value());
    EXPECT_EQ(odd.foldStyle, FoldStyle::indentation);
}

TEST(LanguageFile, aUserModeCannotReachTheScannerFeatures) {
    const std::string text = R"json({"id": "sneaky", "heredocMarkers": ["<<"], "interpolation": ["${", "}"],
        "templateOpens": ["<%"], "keyStringsBeforeColon": true, "quotedIdentifiers": true,
        "capitalisedNamesAreTypes": false, "columnOneLineComments": ["*"], "uses": ["brace"]})json";
    const auto user = LanguageFile::parse(text, "sneaky", Origin::userMode);
    EXPECT_TRUE(user.heredocMarkers.empty());
    EXPECT_FALSE(user.interpolation.has_value());
    EXPECT_TRUE(user.templateOpens.empty());
    EXPECT_FALSE(user.keyStringsBeforeColon);
    EXPECT_FALSE(user.quotedIdentifiers);
    EXPECT_TRUE(user.capitalisedNamesAreTypes);
    EXPECT_TRUE(user.columnOneLineComments.empty());
    EXPECT_EQ(user.foldStyle, FoldStyle::indentation);   // shared fragments are the table's own

    const auto builtIn = LanguageFile::parse(text, "sneaky", Origin::builtIn);
    EXPECT_EQ(builtIn.heredocMarkers, (std::vector<std::string>{"<<"}));
    EXPECT_TRUE(builtIn.keyStringsBeforeColon);
    EXPECT_FALSE(builtIn.capitalisedNamesAreTypes);
    EXPECT_EQ(builtIn.foldStyle, FoldStyle::brackets);
    EXPECT_EQ(builtIn.outdentPrefixes, (std::vector<std::string>{"}", ")", "]", "case", "default"}));
}

TEST(LanguageFile, badFilesAreRefusedInWords) {
    struct Case {
        const char* text;
        LanguageFile::Failure::Kind kind;
        const char* message;   // empty: only the start is fixed
    };
    const Case cases[] = {
        {R"json({"highlightRules": [{"pattern": "x", "kind": "rainbow"}]})json", LanguageFile::Failure::Kind::unknownKind,
         "\"rainbow\" is not one of the colours a rule can ask for."},
        {R"json({"highlightRules": [{"pattern": "x", "kind": "keyword", "over": "sparkle"}]})json",
         LanguageFile::Failure::Kind::unknownKind, "\"sparkle\" is not one of the colours a rule can ask for."},
        {R"json({"keywords": 7})json", LanguageFile::Failure::Kind::wrongType,
         "The language file's \"keywords\" should be a list of strings."},
        {R"json({"caseSensitive": "yes"})json", LanguageFile::Failure::Kind::wrongType,
         "The language file's \"caseSensitive\" should be true or false."},
        {R"json([1, 2])json", LanguageFile::Failure::Kind::notJSON, ""},
        {R"json({"id": "x",)json", LanguageFile::Failure::Kind::notJSON, ""},
        {"", LanguageFile::Failure::Kind::notJSON, ""},
    };
    for (const auto& item : cases) {
        SCOPED_TRACE(item.text);
        try {
            (void)LanguageFile::parse(item.text, "x", Origin::userMode);
            ADD_FAILURE() << "accepted";
        } catch (const LanguageFile::Failure& failure) {
            EXPECT_EQ(failure.kind(), item.kind);
            if (*item.message != '\0') {
                EXPECT_STREQ(failure.what(), item.message);
            } else {
                EXPECT_TRUE(std::string(failure.what()).starts_with("The language file is not JSON Brim can read: "))
                    << failure.what();
            }
        }
    }
}

} // namespace
} // namespace brim
