#include "language/LanguageChoices.h"

#include "language/LanguageFile.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>

namespace brim {
namespace {

using LanguageChoices::Candidate;

const Candidate* find(const std::vector<Candidate>& list, std::string_view id) {
    const auto found = std::find_if(list.begin(), list.end(), [&](const Candidate& c) { return c.language.id == id; });
    return found == list.end() ? nullptr : &*found;
}

TEST(LanguageChoices, isCodeTellsCodeLinesFromProse) {
    const std::pair<std::string_view, bool> cases[] = {
        {"int main(void) {", true}, {"  return x;", true}, {"x = 1", true}, {"echo $HOME", true},
        {"def f(x):", true},        {"foo()", true},       {"a -> b", true}, {"std::vector", true},
        {"line \\", true},          {"call(", true},       {"f(){", true},   {"k => v", true},
        {"Dear Anna, thank you.", false}, {"- Buy milk (and bread)", false},
        {"See [the docs](https://example.org) for more.", false}, {"", false}, {"   ", false},
    };
    for (const auto& [line, code] : cases) {
        SCOPED_TRACE(line);
        EXPECT_EQ(LanguageChoices::isCode(line), code);
    }
}

TEST(LanguageChoices, wordsCarryTheirSigilsAndSkipProse) {
    LanguageChoices::WordCounts counts;
    // Line 1 is code (weight 1), line 2 prose (0.1).
    const double total = LanguageChoices::words("#include <stdio.h>; @interface $x fileprivate ab\n"
                                                "The Apple and the Fileprivate tree\n", counts);
    EXPECT_DOUBLE_EQ(counts.count("#include"), 1.0);
    EXPECT_DOUBLE_EQ(counts.count("stdio"), 1.0);
    EXPECT_DOUBLE_EQ(counts.count("@interface"), 1.0);
    EXPECT_DOUBLE_EQ(counts.count("$x"), 0.0);            // two characters: too short
    EXPECT_DOUBLE_EQ(counts.count("ab"), 0.0);
    EXPECT_DOUBLE_EQ(counts.count("fileprivate"), 1.1);   // lower-cased: both lines count
    EXPECT_DOUBLE_EQ(counts.count("apple"), 0.1);
    EXPECT_DOUBLE_EQ(counts.count("the"), 0.0);           // prose never counts
    EXPECT_DOUBLE_EQ(counts.count("and"), 0.0);
    EXPECT_DOUBLE_EQ(counts.count("tree"), 0.1);
    EXPECT_NEAR(total, 1.0 * 4 + 0.1 * 3, 1e-9);          // #include stdio @interface fileprivate / apple fileprivate tree
    // The order of first appearance is kept, so reasons come out the same every time.
    ASSERT_GE(counts.entries().size(), 2u);
    EXPECT_EQ(counts.entries()[0].first, "#include");
    EXPECT_EQ(counts.entries()[1].first, "stdio");

    // Unicode letters make words too; a dash does not.
    LanguageChoices::WordCounts unicode;
    LanguageChoices::words("größe = straße-wert;\n", unicode);
    EXPECT_DOUBLE_EQ(unicode.count("größe"), 1.0);
    EXPECT_DOUBLE_EQ(unicode.count("straße"), 1.0);
    EXPECT_DOUBLE_EQ(unicode.count("wert"), 1.0);
}

TEST(LanguageChoices, wordsReadABoundedSample) {
    std::string sample;
    while (sample.size() < 200'000) {
        sample += "fileprivate x;\n";
    }
    LanguageChoices::WordCounts counts;
    const double total = LanguageChoices::words(sample, counts);
    // 15 characters a line: 65,536 / 15 lines fit.
    EXPECT_DOUBLE_EQ(total, std::floor(65'536.0 / 15.0));
}

TEST(LanguageChoices, separatedValuesAreScoredByTheirColumns) {
    const auto csv = LanguageChoices::delimited("a,b,c\n1,2,3\n4,5,6\n7,8,9\n");
    ASSERT_TRUE(csv.has_value());
    EXPECT_EQ(csv->separator, ",");
    EXPECT_DOUBLE_EQ(csv->score, 2.0 * 2 * 1.0 + 30);

    const auto tabs = LanguageChoices::delimited("a\tb\tc\td\n1\t2\t3\t4\n5\t6\t7\t8\n\n9\t0\t1\t2\nx\ty\n");
    ASSERT_TRUE(tabs.has_value());
    EXPECT_EQ(tabs->separator, "tab");
    EXPECT_DOUBLE_EQ(tabs->score, 2.0 * 3 * 0.8 + 30);

    // Commas inside quotes are not columns.
    const auto quoted = LanguageChoices::delimited("\"a,x\",b,c\n\"1,y\",2,3\n4,5,6\n7,8,9\n");
    ASSERT_TRUE(quoted.has_value());
    EXPECT_DOUBLE_EQ(quoted->score, 2.0 * 2 * 1.0 + 30);

    EXPECT_FALSE(LanguageChoices::delimited("apple\npear\nplum\nfig\nkiwi\n").has_value());   // a list of words
    EXPECT_FALSE(LanguageChoices::delimited("a,b,c\n1,2,3\n").has_value());                  // too few lines
    EXPECT_FALSE(LanguageChoices::delimited("a,b\n1,2\n3,4\n5,6\n").has_value());            // one comma a line
    EXPECT_FALSE(LanguageChoices::delimited("a,b,c\n1,2\n3\n4,5,6,7\n").has_value());        // ragged
    // The wider separator wins; at equal scores the earlier one.
    EXPECT_EQ(LanguageChoices::delimited("a;b;c;d,e,f\n1;2;3;4,5,6\n1;2;3;4,5,6\n1;2;3;4,5,6\n")->separator, ";");
    EXPECT_EQ(LanguageChoices::delimited("a,b,c|d|e\n1,2,3|4|5\n1,2,3|4|5\n1,2,3|4|5\n")->separator, ",");
}

TEST(LanguageChoices, signaturesScoreByTheirKind) {
    const auto& table = LanguageChoices::signatures();
    EXPECT_EQ(table.size(), 58u);
    const auto rule = [&](std::string_view id, std::string_view needle) {
        const auto found = std::find_if(table.begin(), table.end(), [&](const LanguageChoices::Signature& s) {
            return s.languageID == id && s.needle == needle;
        });
        EXPECT_NE(found, table.end()) << id << " " << needle;
        return *found;
    };
    EXPECT_DOUBLE_EQ(rule("html", "<!DOCTYPE html").score("  \n<!DOCTYPE html>\n"), 60);
    EXPECT_DOUBLE_EQ(rule("html", "<!DOCTYPE html").score("x <!DOCTYPE html>"), 0);
    EXPECT_DOUBLE_EQ(rule("html", "</div>").score(std::string(10, 'x') + "</div></div></div>"), 12);
    std::string manyDivs;
    for (int i = 0; i < 20; ++i) {
        manyDivs += "</div>";
    }
    EXPECT_DOUBLE_EQ(rule("html", "</div>").score(manyDivs), 24);   // counted up to the limit
    EXPECT_DOUBLE_EQ(rule("c", "#include").score("#include <a>\n #include <b>\n#include <c>\n"), 12);
    EXPECT_DOUBLE_EQ(rule("shell", "fi\n").score("if x; then\n  y\nfi\n"), 4);
    EXPECT_DOUBLE_EQ(rule("python", "    ").score("    x = 1\n"), 0);
    // Only the first 500 lines are looked at for line starts.
    std::string late(600, '\n');
    late += "#include <x>\n";
    EXPECT_DOUBLE_EQ(rule("c", "#include").score(late), 0);
}

TEST(LanguageChoices, aTermManyClaimIsWorthLittleAndOneOnlyOneClaimsMuch) {
    const auto vocabulary = LanguageChoices::vocabulary();
    ASSERT_TRUE(vocabulary.contains("class"));
    EXPECT_GT(vocabulary.at("class").size(), 10u);
    ASSERT_TRUE(vocabulary.contains("fileprivate"));
    EXPECT_EQ(vocabulary.at("fileprivate"), (std::vector<std::string>{"swift"}));
    EXPECT_FALSE(vocabulary.contains("#"));         // shorter than two characters
    EXPECT_TRUE(vocabulary.contains("//"));
    for (const auto& [term, claimants] : vocabulary) {
        EXPECT_EQ(std::find(claimants.begin(), claimants.end(), "plain"), claimants.end()) << term;
    }
    const auto sizes = LanguageChoices::vocabularySizes();
    EXPECT_FALSE(sizes.contains("plain"));
    EXPECT_GT(sizes.at("applescript"), sizes.at("go"));
}

TEST(LanguageChoices, twoWordsAreNotEnoughToBeSure) {
    const auto list = LanguageChoices::candidates("fileprivate associatedtype;\n", "", std::nullopt,
                                                  *Language::merged());
    const auto* swift = find(list, "swift");
    ASSERT_NE(swift, nullptr);
    EXPECT_LT(swift->score, 12.0);
    EXPECT_EQ(swift->reason, "words few others use: fileprivate, associatedtype");
    EXPECT_FALSE(LanguageChoices::best("fileprivate associatedtype;\n", "").has_value());
}

TEST(LanguageChoices, candidatesExplainThemselvesAndKeepTheCurrentLanguage) {
    const auto languages = Language::merged();
    const std::string sample = "#!/bin/sh\n# vim: ft=perl\necho $(date)\n";
    const auto list = LanguageChoices::candidates(sample, "run.py", Language::named("cobol"), *languages);

    const auto* python = find(list, "python");
    ASSERT_NE(python, nullptr);
    EXPECT_TRUE(python->reason.starts_with("the name ends in .py")) << python->reason;
    const auto* shell = find(list, "shell");
    ASSERT_NE(shell, nullptr);
    EXPECT_TRUE(shell->reason.starts_with("the first line names it")) << shell->reason;
    EXPECT_GE(shell->score, 80);
    const auto* perl = find(list, "perl");
    ASSERT_NE(perl, nullptr);
    EXPECT_EQ(perl->reason.rfind("a mode line says perl", 0), 0u) << perl->reason;
    EXPECT_GE(perl->score, 100);

    const auto* cobol = find(list, "cobol");   // current, kept even with nothing for it
    ASSERT_NE(cobol, nullptr);
    EXPECT_TRUE(cobol->isCurrent);
    EXPECT_EQ(find(list, "plain"), nullptr);
    for (std::size_t index = 1; index < list.size(); ++index) {
        const auto& before = list[index - 1];
        const auto& after = list[index];
        EXPECT_TRUE(before.score > after.score ||
                    (before.score == after.score && before.language.displayName <= after.language.displayName));
    }

    // A name with no extension scores as a whole name.
    const auto byName = LanguageChoices::candidates("", "Gemfile", std::nullopt, *languages);
    ASSERT_EQ(byName.size(), 1u);
    EXPECT_EQ(byName[0].language.id, "ruby");
    EXPECT_DOUBLE_EQ(byName[0].score, 60);
    EXPECT_EQ(byName[0].reason, "its name");

    // plain appears only as the current language, with the fallback reason.
    const auto plain = LanguageChoices::candidates("", "", Language::plain(), *languages);
    ASSERT_EQ(plain.size(), 1u);
    EXPECT_EQ(plain[0].language.id, "plain");
    EXPECT_EQ(plain[0].reason, "ordinary words it shares with others");
}

TEST(LanguageChoices, aNearTieIsNoDetection) {
    // Equal evidence for two languages: the best is not 1.8 times the second.
    const std::string both = "#!/bin/sh\n# vim: ft=ruby\n";
    const auto list = LanguageChoices::candidates(both, "", std::nullopt, *Language::merged());
    ASSERT_GE(list.size(), 2u);
    EXPECT_LT(list[0].score, 1.8 * list[1].score);
    EXPECT_FALSE(LanguageChoices::best(both, "").has_value());
    // One clear signal is a detection.
    EXPECT_EQ(LanguageChoices::best("@startuml\nA -> B\n@enduml\n", "")->language.id, "plantuml");
}

TEST(LanguageChoices, installedLanguagesJoinTheTable) {
    const auto before = Language::merged();
    const auto cobolAt = std::find_if(before->begin(), before->end(), [](const Language& l) { return l.id == "cobol"; });
    const auto cobolIndex = cobolAt - before->begin();

    auto cobol = LanguageFile::parse(R"({"id": "cobol", "displayName": "My COBOL", "extensions": ["cob"]})", "cobol",
                                     LanguageFile::Origin::userMode);
    auto tiny = LanguageFile::parse(R"({"id": "tiny", "extensions": ["tiny"], "keywords": "zorblax quuxify"})", "Tiny",
                                    LanguageFile::Origin::userMode);
    const auto generation = Language::mergedGeneration();
    Language::mergeInstalled({cobol, tiny});
    EXPECT_NE(Language::mergedGeneration(), generation);

    const auto after = Language::merged();
    EXPECT_EQ(after->size(), before->size() + 1);
    EXPECT_EQ((*after)[static_cast<std::size_t>(cobolIndex)].displayName, "My COBOL");
    EXPECT_EQ((*after)[after->size() - 2].id, "tiny");
    EXPECT_EQ(after->back().id, "plain");
    EXPECT_EQ(Language::detect("x.tiny").id, "tiny");
    EXPECT_EQ(Language::detect("x.cbl").id, "plain");   // the mode claims only .cob now
    EXPECT_EQ(LanguageChoices::vocabulary().at("zorblax"), (std::vector<std::string>{"tiny"}));
    // A snapshot handed out earlier does not change.
    EXPECT_EQ((*before)[static_cast<std::size_t>(cobolIndex)].displayName, "COBOL");

    Language::mergeInstalled({});
    EXPECT_EQ(*Language::merged(), Language::builtIn());
    EXPECT_FALSE(LanguageChoices::vocabulary().contains("zorblax"));
}

} // namespace
} // namespace brim
