#include "common/ByteFormatter.h"
#include "common/Localization.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace brim {
namespace {

// ---- Finding the texts the code shows ----

struct UsedText {
    std::string key;
    std::string place; // file:line, for the report
};

struct SourceTexts {
    std::vector<UsedText> texts;
    std::vector<std::string> unreadable; // calls whose first argument is not a string literal
};

bool isIdentifierCharacter(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_';
}

void appendUTF8(std::string& out, std::uint32_t value) {
    if (value < 0x80) {
        out.push_back(static_cast<char>(value));
    } else if (value < 0x800) {
        out.push_back(static_cast<char>(0xC0 | (value >> 6)));
        out.push_back(static_cast<char>(0x80 | (value & 0x3F)));
    } else if (value < 0x10000) {
        out.push_back(static_cast<char>(0xE0 | (value >> 12)));
        out.push_back(static_cast<char>(0x80 | ((value >> 6) & 0x3F)));
        out.push_back(static_cast<char>(0x80 | (value & 0x3F)));
    } else {
        out.push_back(static_cast<char>(0xF0 | (value >> 18)));
        out.push_back(static_cast<char>(0x80 | ((value >> 12) & 0x3F)));
        out.push_back(static_cast<char>(0x80 | ((value >> 6) & 0x3F)));
        out.push_back(static_cast<char>(0x80 | (value & 0x3F)));
    }
}

int hexValue(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

// A small reader of C++ source: enough to skip comments, character and string literals (raw ones
// included, and digit separators such as 1'000), and to read the string literals that stand as
// the first argument of L(...) or Localization::string(...), adjacent literals joined as the
// compiler joins them.
class SourceScanner {
public:
    SourceScanner(std::string_view text, std::string file) : text_(text), file_(std::move(file)) {}

    void scan(SourceTexts& found) {
        std::string previousWord;
        while (i_ < text_.size()) {
            const char c = text_[i_];
            if (startsWith("//")) {
                skipTo("\n");
            } else if (startsWith("/*")) {
                i_ += 2;
                skipTo("*/");
                i_ += 2;
            } else if (c == '"') {
                (void)readLiteral();
            } else if (c == '\'') {
                skipCharacterLiteral();
            } else if (c >= '0' && c <= '9') {
                while (i_ < text_.size() && (isIdentifierCharacter(text_[i_]) || text_[i_] == '\'' || text_[i_] == '.')) {
                    ++i_;
                }
            } else if (isIdentifierCharacter(c)) {
                const std::size_t start = i_;
                while (i_ < text_.size() && isIdentifierCharacter(text_[i_])) ++i_;
                const std::string word(text_.substr(start, i_ - start));
                if (i_ < text_.size() && text_[i_] == '"' && isLiteralPrefix(word)) {
                    i_ = start;
                    (void)readLiteral();
                    continue;
                }
                const bool qualified = start >= 2 && text_.substr(start - 2, 2) == "::";
                const bool member = start >= 1 && (text_[start - 1] == '.' || text_[start - 1] == '>');
                const bool isL = word == "L" && (!qualified || previousWord == "brim") && !member;
                const bool isString = word == "string" && previousWord == "Localization" && qualified;
                previousWord = word;
                if (isL || isString) readCall(found);
            } else {
                if (c != ':' ) previousWord.clear();
                ++i_;
            }
        }
    }

private:
    static bool isLiteralPrefix(const std::string& word) {
        return word == "R" || word == "u8" || word == "u8R" || word == "u" || word == "uR" || word == "U" ||
               word == "UR" || word == "L" || word == "LR";
    }

    bool startsWith(std::string_view what) const { return text_.substr(i_, what.size()) == what; }

    void skipTo(std::string_view what) {
        const auto found = text_.find(what, i_);
        i_ = found == std::string_view::npos ? text_.size() : found;
    }

    void skipBlanksAndComments() {
        while (i_ < text_.size()) {
            if (text_[i_] == ' ' || text_[i_] == '\t' || text_[i_] == '\n' || text_[i_] == '\r') {
                ++i_;
            } else if (startsWith("//")) {
                skipTo("\n");
            } else if (startsWith("/*")) {
                i_ += 2;
                skipTo("*/");
                i_ += 2;
            } else {
                break;
            }
        }
    }

    void skipCharacterLiteral() {
        ++i_;
        while (i_ < text_.size() && text_[i_] != '\'' && text_[i_] != '\n') i_ += text_[i_] == '\\' ? 2U : 1U;
        ++i_;
    }

    int lineAt(std::size_t offset) const {
        return 1 + static_cast<int>(std::count(text_.begin(), text_.begin() + static_cast<std::ptrdiff_t>(offset), '\n'));
    }

    // Reads one string literal at i_ (with any prefix) and returns its value.
    std::optional<std::string> readLiteral() {
        std::size_t start = i_;
        while (i_ < text_.size() && isIdentifierCharacter(text_[i_])) ++i_;
        const std::string_view prefix = text_.substr(start, i_ - start);
        if (i_ >= text_.size() || text_[i_] != '"') {
            i_ = start;
            return std::nullopt;
        }
        if (!prefix.empty() && prefix.back() == 'R') {
            const auto open = text_.find('(', i_);
            if (open == std::string_view::npos) {
                i_ = text_.size();
                return std::nullopt;
            }
            const std::string closing = ")" + std::string(text_.substr(i_ + 1, open - i_ - 1)) + "\"";
            const auto end = text_.find(closing, open);
            const std::size_t stop = end == std::string_view::npos ? text_.size() : end;
            std::string value(text_.substr(open + 1, stop - open - 1));
            i_ = std::min(text_.size(), stop + closing.size());
            return value;
        }
        ++i_;
        std::string value;
        while (i_ < text_.size() && text_[i_] != '"') {
            const char c = text_[i_++];
            if (c != '\\') {
                value.push_back(c);
                continue;
            }
            if (i_ >= text_.size()) break;
            const char e = text_[i_++];
            switch (e) {
            case 'n': value.push_back('\n'); break;
            case 't': value.push_back('\t'); break;
            case 'r': value.push_back('\r'); break;
            case 'a': value.push_back('\a'); break;
            case 'b': value.push_back('\b'); break;
            case 'f': value.push_back('\f'); break;
            case 'v': value.push_back('\v'); break;
            case 'x': {
                int number = 0;
                while (i_ < text_.size() && hexValue(text_[i_]) >= 0) number = number * 16 + hexValue(text_[i_++]);
                value.push_back(static_cast<char>(number));
                break;
            }
            case 'u':
            case 'U': {
                std::uint32_t number = 0;
                for (int k = 0; k < (e == 'u' ? 4 : 8) && i_ < text_.size() && hexValue(text_[i_]) >= 0; ++k) {
                    number = number * 16 + static_cast<std::uint32_t>(hexValue(text_[i_++]));
                }
                appendUTF8(value, number);
                break;
            }
            default:
                if (e >= '0' && e <= '7') {
                    int number = e - '0';
                    for (int k = 0; k < 2 && i_ < text_.size() && text_[i_] >= '0' && text_[i_] <= '7'; ++k) {
                        number = number * 8 + (text_[i_++] - '0');
                    }
                    value.push_back(static_cast<char>(number));
                } else {
                    value.push_back(e); // \" \\ \' \?
                }
            }
        }
        ++i_;
        return value;
    }

    void readCall(SourceTexts& found) {
        const std::size_t callAt = i_;
        skipBlanksAndComments();
        if (i_ >= text_.size() || text_[i_] != '(') return;
        ++i_;
        skipBlanksAndComments();
        std::optional<std::string> key;
        while (i_ < text_.size() && (text_[i_] == '"' || isIdentifierCharacter(text_[i_]))) {
            const std::size_t before = i_;
            auto piece = readLiteral();
            if (!piece) {
                i_ = before;
                break;
            }
            key = key.value_or("") + *piece;
            skipBlanksAndComments();
        }
        const std::string place = file_ + ":" + std::to_string(lineAt(callAt));
        if (key && i_ < text_.size() && (text_[i_] == ',' || text_[i_] == ')')) {
            found.texts.push_back({*key, place});
        } else {
            found.unreadable.push_back(place);
        }
    }

    std::string_view text_;
    std::string file_;
    std::size_t i_ = 0;
};

std::filesystem::path sourceRoot() {
    // This file lies in tests/common of the source tree.
    return std::filesystem::path(__FILE__).parent_path().parent_path().parent_path();
}

SourceTexts textsInSources() {
    SourceTexts found;
    const auto root = sourceRoot() / "src";
    std::vector<std::filesystem::path> files;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(root)) {
        const auto extension = entry.path().extension();
        if (entry.is_regular_file() && (extension == ".cpp" || extension == ".h")) files.push_back(entry.path());
    }
    std::sort(files.begin(), files.end());
    for (const auto& file : files) {
        // The declaration of L itself takes a key; it shows none.
        if (file.filename() == "Localization.h" && file.parent_path().filename() == "common") continue;
        std::ifstream in(file, std::ios::binary);
        const std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
        SourceScanner(text, std::filesystem::relative(file, sourceRoot()).string()).scan(found);
    }
    return found;
}

// ---- Placeholders ----

// The conversions of a pattern as (argument number, kind), the way Localization::format reads
// them: "%@" and "%s" are one kind, "%i" is "%d", positions are counted from 1.
std::multiset<std::pair<std::size_t, char>> placeholders(std::string_view pattern) {
    std::multiset<std::pair<std::size_t, char>> found;
    std::size_t next = 1;
    for (std::size_t i = 0; i < pattern.size(); ++i) {
        if (pattern[i] != '%') continue;
        if (i + 1 < pattern.size() && pattern[i + 1] == '%') {
            ++i;
            continue;
        }
        std::size_t j = i + 1;
        std::size_t position = 0;
        std::size_t k = j;
        while (k < pattern.size() && pattern[k] >= '0' && pattern[k] <= '9') ++k;
        if (k > j && k < pattern.size() && pattern[k] == '$') {
            position = static_cast<std::size_t>(std::stoul(std::string(pattern.substr(j, k - j))));
            j = k + 1;
        }
        while (j < pattern.size() && std::string_view("-+ #0123456789.hlqLzjt").find(pattern[j]) != std::string_view::npos) {
            ++j;
        }
        if (j >= pattern.size()) break;
        char kind = pattern[j];
        if (kind == 's') kind = '@';
        if (kind == 'i') kind = 'd';
        found.insert({position > 0 ? position : next++, kind});
        i = j;
    }
    return found;
}

std::set<std::pair<std::size_t, char>> distinct(const std::multiset<std::pair<std::size_t, char>>& list) {
    return {list.begin(), list.end()};
}

// What a translation must keep as it is: the "brim: " of terminal messages, and the blanks and
// line breaks the key starts and ends with (indentation, a final newline). It may add blanks
// where its language wants them (", and " becomes " und ").
bool keepsEdges(std::string_view key, std::string_view translation) {
    if (key.starts_with("brim: ") && !translation.starts_with("brim: ")) return false;
    const auto first = key.find_first_not_of(" \n\t");
    if (first == std::string_view::npos) return key == translation;
    const auto last = key.find_last_not_of(" \n\t");
    return translation.starts_with(key.substr(0, first)) && translation.ends_with(key.substr(last + 1));
}

constexpr AppLanguage translated[] = {AppLanguage::german, AppLanguage::french, AppLanguage::italian,
                                      AppLanguage::spanish};

// ---- Tests ----

TEST(LocalizationCatalogue, theScannerReadsKeysAsTheCompilerWould) {
    const std::string source = R"source(
        // L("in a comment") is not a text
        /* nor L("this") */
        auto a = L("plain %@", name);
        auto b = L("joined "
                   "over lines\n");
        auto c = L("quote \" and backslash \\ and \u00e9");
        auto d = L(variable);
        auto e = Localization::string("looked up");
        auto f = x.L("member, not ours");
        char g = '"'; auto h = L("after a quote character");
        auto i = 1'000'000; auto j = L("after digit separators");
        auto k = R"(L("inside a raw string"))";
        auto l = L(R"x(raw "key")x");
        auto m = L("brim: %@\n" /* a comment between */ "second", value);
        auto n = brim::L("qualified"); auto o = other::L("not ours");
    )source";
    SourceTexts found;
    SourceScanner(source, "sample.cpp").scan(found);
    std::vector<std::string> keys;
    for (const auto& text : found.texts) keys.push_back(text.key);
    const std::vector<std::string> expected{
        "plain %@",      "joined over lines\n",   "quote \" and backslash \\ and \xC3\xA9",
        "looked up",     "after a quote character", "after digit separators",
        "raw \"key\"",   "brim: %@\nsecond",         "qualified",
    };
    EXPECT_EQ(keys, expected);
    ASSERT_EQ(found.unreadable.size(), 1U);
    EXPECT_EQ(found.unreadable[0], "sample.cpp:8");
}

TEST(LocalizationCatalogue, placeholdersAreReadByPositionAndKind) {
    using Set = std::multiset<std::pair<std::size_t, char>>;
    EXPECT_EQ(placeholders("%@ of %d"), (Set{{1, '@'}, {2, 'd'}}));
    EXPECT_EQ(placeholders("%2$d von %1$@"), (Set{{1, '@'}, {2, 'd'}}));
    EXPECT_EQ(placeholders("100%% sure, %s and %i"), (Set{{1, '@'}, {2, 'd'}}));
    EXPECT_EQ(placeholders("%.2f MB"), (Set{{1, 'f'}}));
}

TEST(LocalizationCatalogue, everyTextTheCodeShowsIsTranslatedWithItsPlaceholders) {
    const SourceTexts found = textsInSources();
    ASSERT_FALSE(found.texts.empty()) << "no L(\"...\") found under " << (sourceRoot() / "src").string();
    std::map<std::string, std::string> firstPlace;
    for (const auto& text : found.texts) firstPlace.emplace(text.key, text.place);

    // "50% sure" reads "% s" as a conversion that takes an argument: a percent sign is "%%".
    for (const auto& [key, place] : firstPlace) {
        for (std::size_t at = key.find("% "); at != std::string::npos; at = key.find("% ", at + 1)) {
            const auto end = key.find_first_not_of(" -+#0123456789.", at + 1);
            const bool conversion = end != std::string::npos && std::string_view("@sdiuxXoFfgGeEc").find(key[end]) !=
                                                                     std::string_view::npos;
            EXPECT_FALSE(conversion && (at == 0 || key[at - 1] != '%'))
                << nlohmann::json(key).dump() << " (" << place << ") has \"% \" where \"%%\" was meant";
        }
    }

    const bool listAll = std::getenv("BRIM_CATALOGUE_LIST") != nullptr;
    if (listAll && !found.unreadable.empty()) {
        std::cout << "== calls whose text is not a literal, so no catalogue check reaches them:\n";
        for (const auto& place : found.unreadable) std::cout << "    " << place << "\n";
    }
    for (const AppLanguage language : translated) {
        const auto& catalogue = Localization::catalogue(language);
        SCOPED_TRACE(std::string(Localization::code(language)) + ".json");
        std::vector<std::string> missing;
        for (const auto& [key, place] : firstPlace) {
            const auto found_ = catalogue.find(key);
            if (found_ == catalogue.end()) {
                missing.push_back(key);
                continue;
            }
            EXPECT_EQ(distinct(placeholders(found_->second)), distinct(placeholders(key)))
                << "placeholders differ for " << nlohmann::json(key).dump() << " (" << place << ")";
            EXPECT_TRUE(key.find('&') == std::string::npos || found_->second.find('&') != std::string::npos)
                << "the menu mnemonic (&) is lost in " << nlohmann::json(found_->second).dump();
            EXPECT_TRUE(keepsEdges(key, found_->second))
                << "the start or end differs for " << nlohmann::json(key).dump() << " (" << place << ")";
        }
        std::string report;
        for (const auto& key : missing) {
            report += "    " + nlohmann::json(key).dump() + ": \"\",    // " + firstPlace[key] + "\n";
        }
        if (listAll) {
            std::cout << "== src/common/catalogues/" << Localization::code(language) << ".json: " << missing.size()
                      << " missing\n"
                      << report;
            continue; // the script that asked for the list judges it
        }
        EXPECT_TRUE(missing.empty()) << missing.size() << " texts have no translation in src/common/catalogues/"
                                     << Localization::code(language)
                                     << ".json (scripts/catalogue-check lists them all):\n"
                                     << report;
    }
}

TEST(LocalizationCatalogue, catalogueEntriesKeepTheirKeysPlaceholders) {
    // Also the entries no code uses today: a text may come back.
    for (const AppLanguage language : translated) {
        SCOPED_TRACE(std::string(Localization::code(language)) + ".json");
        const auto& catalogue = Localization::catalogue(language);
        EXPECT_FALSE(catalogue.empty());
        for (const auto& [key, value] : catalogue) {
            EXPECT_EQ(distinct(placeholders(value)), distinct(placeholders(key))) << nlohmann::json(key).dump();
        }
    }
}

TEST(Localization, chosenLanguageTranslatesAndFormats) {
    const AppLanguage before = Localization::current();
    Localization::setCurrent(AppLanguage::german);
    EXPECT_EQ(ByteFormatter::string(1), "1 Byte");
    EXPECT_EQ(ByteFormatter::string(512), "512 Bytes");
    EXPECT_EQ(L("brim: %@ needs more than that. brim --help says what it takes.\n", "--grep"),
              Localization::format(Localization::catalogue(AppLanguage::german)
                                       .at("brim: %@ needs more than that. brim --help says what it takes.\n"),
                                   std::vector<LocalizedArgument>{"--grep"}));
    EXPECT_EQ(L("a text no catalogue holds: %d", 3), "a text no catalogue holds: 3");
    Localization::setCurrent(AppLanguage::french);
    EXPECT_EQ(ByteFormatter::string(2), "2 octets");
    Localization::setCurrent(AppLanguage::english);
    EXPECT_EQ(ByteFormatter::string(2), "2 bytes");
    Localization::setCurrent(before);
}

class Environment {
public:
    explicit Environment(const std::map<std::string, std::optional<std::string>>& values) {
        for (const auto& [name, value] : values) {
            const char* old = std::getenv(name.c_str());
            saved_.emplace(name, old == nullptr ? std::nullopt : std::optional<std::string>(old));
            if (value) {
                ::setenv(name.c_str(), value->c_str(), 1);
            } else {
                ::unsetenv(name.c_str());
            }
        }
    }
    ~Environment() {
        for (const auto& [name, value] : saved_) {
            if (value) {
                ::setenv(name.c_str(), value->c_str(), 1);
            } else {
                ::unsetenv(name.c_str());
            }
        }
    }
    Environment(const Environment&) = delete;
    Environment& operator=(const Environment&) = delete;

private:
    std::map<std::string, std::optional<std::string>> saved_;
};

TEST(Localization, systemLanguageComesFromTheEnvironmentInOrder) {
    using Values = std::map<std::string, std::optional<std::string>>;
    const struct {
        Values environment;
        AppLanguage expected;
    } cases[] = {
        {{{"LANGUAGE", std::nullopt}, {"LC_ALL", std::nullopt}, {"LC_MESSAGES", std::nullopt}, {"LANG", "de_DE.UTF-8"}},
         AppLanguage::german},
        {{{"LANGUAGE", "fr:de"}, {"LC_ALL", "de_DE.UTF-8"}, {"LC_MESSAGES", std::nullopt}, {"LANG", "C"}},
         AppLanguage::french},
        {{{"LANGUAGE", ""}, {"LC_ALL", "it_IT.UTF-8"}, {"LC_MESSAGES", "es_ES"}, {"LANG", "de_DE"}}, AppLanguage::italian},
        {{{"LANGUAGE", std::nullopt}, {"LC_ALL", "C"}, {"LC_MESSAGES", "es_ES.UTF-8"}, {"LANG", "de_DE"}},
         AppLanguage::spanish},
        {{{"LANGUAGE", std::nullopt}, {"LC_ALL", "POSIX"}, {"LC_MESSAGES", "C.UTF-8"}, {"LANG", "pt_BR.UTF-8"}},
         AppLanguage::english},
        {{{"LANGUAGE", std::nullopt}, {"LC_ALL", std::nullopt}, {"LC_MESSAGES", std::nullopt}, {"LANG", std::nullopt}},
         AppLanguage::english},
        {{{"LANGUAGE", std::nullopt}, {"LC_ALL", std::nullopt}, {"LC_MESSAGES", std::nullopt}, {"LANG", "es_MX.UTF-8"}},
         AppLanguage::spanish},
    };
    for (const auto& item : cases) {
        Environment environment(item.environment);
        const std::string preferred = Localization::systemPreferredLanguage();
        SCOPED_TRACE(preferred);
        EXPECT_EQ(Localization::resolve(AppLanguage::system, preferred), item.expected);
        // A language chosen in the settings wins over the system's.
        EXPECT_EQ(Localization::resolve(AppLanguage::english, preferred), AppLanguage::english);
    }
}

TEST(Localization, storedWordsNameLanguagesAndAnythingElseIsSystem) {
    for (const AppLanguage language : {AppLanguage::system, AppLanguage::english, AppLanguage::german,
                                       AppLanguage::french, AppLanguage::italian, AppLanguage::spanish}) {
        EXPECT_EQ(Localization::languageForWord(Localization::word(language)), language);
    }
    EXPECT_EQ(Localization::languageForWord("German"), AppLanguage::system);
    EXPECT_EQ(Localization::languageForWord(""), AppLanguage::system);
    EXPECT_EQ(Localization::languageForWord("klingon"), AppLanguage::system);
}

} // namespace
} // namespace brim
