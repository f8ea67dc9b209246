#include "language/LanguageChoices.h"

#include "bytes/Gzip.h"
#include "common/Localization.h"

#include <unicode/uchar.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cmath>
#include <mutex>
#include <unordered_set>

namespace brim::LanguageChoices {
namespace {

inline constexpr std::size_t wordSampleLimit = 65'536;
inline constexpr int signatureLineLimit = 500;
inline constexpr int separatedValueLineLimit = 60;
inline constexpr double bestMinimum = 12.0;
inline constexpr double bestMargin = 1.8;
inline constexpr std::size_t rareWordLimit = 6;

std::string lowercased(std::string_view text) {
    std::string result(text);
    std::transform(result.begin(), result.end(), result.begin(),
                   [](char c) { return static_cast<char>(std::tolower(static_cast<unsigned char>(c))); });
    return result;
}

std::string_view trimmedBlanks(std::string_view text) {
    const auto first = text.find_first_not_of(" \t");
    if (first == std::string_view::npos) {
        return {};
    }
    return text.substr(first, text.find_last_not_of(" \t") - first + 1);
}

/// Decodes one code point at `position`, advancing it. A bad byte is taken as U+FFFD, one byte long.
char32_t nextCodePoint(std::string_view text, std::size_t& position) {
    const auto lead = static_cast<unsigned char>(text[position]);
    if (lead < 0x80) {
        ++position;
        return lead;
    }
    const std::size_t length = (lead >> 5) == 0x6 ? 2 : (lead >> 4) == 0xE ? 3 : (lead >> 3) == 0x1E ? 4 : 0;
    if (length == 0 || position + length > text.size()) {
        ++position;
        return 0xFFFD;
    }
    char32_t value = lead & (0xFFu >> (length + 1));
    for (std::size_t index = 1; index < length; ++index) {
        const auto next = static_cast<unsigned char>(text[position + index]);
        if ((next & 0xC0) != 0x80) {
            ++position;
            return 0xFFFD;
        }
        value = (value << 6) | (next & 0x3Fu);
    }
    position += length;
    return value;
}

std::size_t codePointCount(std::string_view text) {
    return static_cast<std::size_t>(
        std::count_if(text.begin(), text.end(), [](char c) { return (static_cast<unsigned char>(c) & 0xC0) != 0x80; }));
}

bool isWordCharacter(char32_t c) {
    if (c < 0x80) {
        return std::isalnum(static_cast<int>(c)) != 0 || c == '_';
    }
    return c != 0xFFFD && u_isalnum(static_cast<UChar32>(c)) != 0;
}

bool isSigil(char32_t c) {
    switch (c) {
    case '@': case '$': case '\\': case '#': case '%': case '&': case '!': case ':': case '?':
        return true;
    default:
        return false;
    }
}

/// Splits at LF, keeping empty lines, calling `body(line)` until it returns false.
template <typename Body>
void forEachLine(std::string_view text, Body body) {
    std::size_t position = 0;
    while (true) {
        const auto end = text.find('\n', position);
        const auto line = text.substr(position, end == std::string_view::npos ? std::string_view::npos : end - position);
        if (!body(line) || end == std::string_view::npos) {
            return;
        }
        position = end + 1;
    }
}

// The 255 ordinary words that never count as evidence, whatever vocabulary claims them.
constexpr std::array<std::string_view, 255> proseWords = {
    "the", "and", "for", "are", "but", "not", "you", "all", "any", "can", "had", "her", "was", "one", "our",
    "out", "day", "get", "has", "him", "his", "how", "man", "new", "now", "old", "see", "two", "way", "who",
    "boy", "did", "its", "let", "put", "say", "she", "too", "use", "that", "with", "have", "this", "will",
    "your", "from", "they", "know", "want", "been", "good", "much", "some", "time", "very", "when", "come",
    "here", "just", "like", "long", "make", "many", "over", "such", "take", "than", "them", "well", "were",
    "what", "does", "into", "only", "also", "back", "even", "most", "must", "same", "then", "there", "their",
    "would", "about", "after", "again", "before", "being", "below", "between", "both", "each", "more", "other",
    "should", "these", "those", "through", "under", "until", "where", "which", "while", "because", "against",
    "anything", "everything", "something", "nothing", "instead", "beside", "around", "above", "beneath",
    "behind", "front", "middle", "first", "second", "third", "last", "next", "left", "right", "still",
    "always", "never", "often", "once", "since", "rather", "really", "perhaps", "however", "though", "without",
    "within", "along", "among", "toward", "upon", "whose", "whom", "ever", "less", "least", "made", "given",
    "said", "says", "seen", "went", "goes", "gone", "came", "line", "lines", "word", "words", "text", "page",
    "part", "case", "point", "number", "name", "names", "list", "item", "items", "note", "notes", "file",
    "files", "work", "thing", "things", "kind", "sort", "sure", "quite", "enough", "away", "why", "every",
    "equal", "equals", "named", "begins", "ends", "starts", "contains", "apart", "aside", "considering",
    "ignoring", "times", "copy", "current", "ask", "seconds", "minutes", "hours", "days", "weeks", "fourth",
    "fifth", "sixth", "seventh", "eighth", "ninth", "tenth", "launch", "quit", "activate", "folder",
    "application", "applications", "script", "scripting", "version", "result", "previous", "following",
    "beginning", "character", "characters", "paragraph", "paragraphs", "reference", "property", "value",
    "values", "field", "fields", "size", "type", "types", "check", "clear", "search", "report", "section",
    "header", "message", "display", "add", "standard", "definition", "changing", "sorted", "bound", "raising",
    "form",
};

const std::unordered_set<std::string_view>& proseSet() {
    static const std::unordered_set<std::string_view> set(proseWords.begin(), proseWords.end());
    return set;
}

/// Mode-line words that are no language id.
constexpr std::array<std::pair<std::string_view, std::string_view>, 23> aliases = {{
    {"c", "c"}, {"c++", "c"}, {"cpp", "c"}, {"objc", "c"},
    {"sh", "shell"}, {"bash", "shell"}, {"zsh", "shell"},
    {"js", "javascript"}, {"javascript", "javascript"}, {"ts", "javascript"}, {"typescript", "javascript"},
    {"py", "python"}, {"rb", "ruby"}, {"pl", "perl"}, {"cs", "csharp"},
    {"make", "shell"}, {"conf", "toml"}, {"text", "plain"}, {"md", "markdown"}, {"tex", "latex"},
    {"yml", "yaml"}, {"xml", "html"}, {"vb", "visualbasic"},
}};

/// The vocabulary of one generation of `Language::merged`, with claimants as indices into it.
struct Vocabulary {
    std::uint64_t generation = 0;
    std::shared_ptr<const std::vector<Language>> languages;
    std::unordered_map<std::string, std::vector<std::size_t>> claimants;
    std::vector<double> sizes;   // by index into `languages`
};

std::mutex vocabularyLock;
std::shared_ptr<const Vocabulary> vocabularyCache;   // guarded by vocabularyLock

std::shared_ptr<const Vocabulary> currentVocabulary() {
    const auto generation = Language::mergedGeneration();
    {
        std::lock_guard lock(vocabularyLock);
        if (vocabularyCache && vocabularyCache->generation == generation) {
            return vocabularyCache;
        }
    }
    auto built = std::make_shared<Vocabulary>();
    built->generation = generation;
    built->languages = Language::merged();
    const auto& languages = *built->languages;
    for (std::size_t index = 0; index < languages.size(); ++index) {
        const auto& language = languages[index];
        if (language.id == "plain") {
            continue;
        }
        std::unordered_set<std::string> terms;
        const auto take = [&](std::string_view term) {
            auto lower = lowercased(term);
            if (codePointCount(lower) >= 2) {
                terms.insert(std::move(lower));
            }
        };
        for (const auto* set : {&language.keywords, &language.types, &language.constants}) {
            for (const auto& word : *set) {
                take(word);
            }
        }
        for (const auto& marker : language.lineComments) {
            take(marker);
        }
        if (language.blockComment) {
            take(language.blockComment->open);
        }
        if (language.preprocessorPrefix) {
            take(*language.preprocessorPrefix);
        }
        if (language.attributePrefix) {
            take(*language.attributePrefix);
        }
        for (const auto& marker : language.heredocMarkers) {
            take(marker);
        }
        for (const auto& term : terms) {
            built->claimants[term].push_back(index);
        }
    }
    built->sizes.assign(languages.size(), 0.0);
    for (const auto& [term, owners] : built->claimants) {
        for (const auto owner : owners) {
            built->sizes[owner] += 4.0 / static_cast<double>(owners.size());
        }
    }
    std::lock_guard lock(vocabularyLock);
    vocabularyCache = std::move(built);
    return vocabularyCache;
}

std::string shown(std::string_view needle) {
    std::string result;
    for (const char c : needle) {
        if (c == '\n') {
            result += "\u23CE";
        } else {
            result += c;
        }
    }
    return result;
}

std::string joined(const std::vector<std::string>& parts, std::string_view separator) {
    std::string result;
    for (std::size_t index = 0; index < parts.size(); ++index) {
        if (index > 0) {
            result += separator;
        }
        result += parts[index];
    }
    return result;
}

struct Evidence {
    double evidence = 0;
    int hits = 0;
    double score = 0;
    std::vector<std::string> rareWords;
    std::vector<std::string> shapes;
    std::string reasonSlot;
};

} // namespace

double Signature::score(std::string_view text) const {
    switch (kind) {
    case Kind::start: {
        const auto first = text.find_first_not_of(" \t\n\r\v\f");
        return first != std::string_view::npos && text.substr(first).starts_with(needle) ? weight : 0.0;
    }
    case Kind::contains: {
        int count = 0;
        for (auto at = text.find(needle); at != std::string_view::npos && count < limit;
             at = text.find(needle, at + needle.size())) {
            ++count;
        }
        return count * weight;
    }
    case Kind::lineStart: {
        int count = 0;
        int lines = 0;
        forEachLine(text, [&](std::string_view line) {
            if (line.starts_with(needle)) {
                ++count;
            }
            return ++lines < signatureLineLimit && count < limit;
        });
        return count * weight;
    }
    }
    return 0;
}

const std::vector<Signature>& signatures() {
    using K = Signature::Kind;
    static const std::vector<Signature> table = {
        {"php", "<?php", K::contains, 1, 60},
        {"phphtml", "<?php", K::contains, 1, 40},   // names no language: it scores for nobody
        {"html", "<!DOCTYPE html", K::start, 0, 60},
        {"html", "<?xml", K::start, 0, 50},
        {"html", "</html>", K::contains, 1, 25},
        {"html", "</div>", K::contains, 6, 4},
        {"html", "</svg>", K::contains, 1, 25},
        {"json", "{", K::start, 0, 10},
        {"json", "[", K::start, 0, 6},
        {"json", "\": ", K::contains, 8, 3},
        {"yaml", "---", K::start, 0, 20},
        {"yaml", "- ", K::lineStart, 6, 2},
        {"toml", "[", K::lineStart, 5, 4},
        {"markdown", "# ", K::lineStart, 3, 5},
        {"markdown", "## ", K::lineStart, 6, 3},
        {"markdown", "```", K::lineStart, 4, 5},
        {"markdown", "](", K::contains, 6, 3},
        {"markdown", "- [", K::lineStart, 6, 3},
        {"plantuml", "@startuml", K::start, 0, 90},
        {"plantuml", "@startmindmap", K::start, 0, 90},
        {"mermaid", "flowchart ", K::start, 0, 60},
        {"mermaid", "sequenceDiagram", K::start, 0, 70},
        {"mermaid", "classDiagram", K::start, 0, 70},
        {"mermaid", "stateDiagram", K::start, 0, 70},
        {"mermaid", "erDiagram", K::start, 0, 70},
        {"mermaid", "gantt", K::start, 0, 50},
        {"dot", "digraph", K::start, 0, 70},
        {"dot", "strict digraph", K::start, 0, 70},
        {"rtf", "{\\rtf", K::start, 0, 90},
        {"edi", "ISA*", K::start, 0, 90},
        {"edi", "UNA:", K::start, 0, 90},
        {"edi", "UNB+", K::start, 0, 90},
        {"nginx", "server {", K::contains, 1, 30},
        {"nginx", "location ", K::lineStart, 3, 10},
        {"apache", "<VirtualHost", K::contains, 1, 60},
        {"apache", "RewriteRule", K::lineStart, 3, 25},
        {"apache", "RewriteEngine", K::lineStart, 1, 40},
        {"rst", ".. ", K::lineStart, 4, 6},
        {"asciidoc", ":toc:", K::lineStart, 1, 40},
        {"asciidoc", "= ", K::start, 0, 12},
        {"org", "#+TITLE", K::start, 0, 60},
        {"org", "#+BEGIN_SRC", K::lineStart, 1, 40},
        {"gcode", "G1 ", K::lineStart, 20, 12},
        {"gcode", "G0 ", K::lineStart, 10, 8},
        {"gcode", "M104", K::lineStart, 1, 30},
        {"diff", "diff --git", K::start, 0, 80},
        {"diff", "--- ", K::start, 0, 20},
        {"diff", "@@ ", K::lineStart, 4, 15},
        {"diff", "+++ ", K::lineStart, 2, 15},
        {"latex", "\\documentclass", K::contains, 1, 60},
        {"latex", "\\begin{", K::contains, 6, 8},
        {"erb", "<%=", K::contains, 4, 8},
        {"eex", "<%=", K::contains, 4, 3},
        {"ejs", "<%=", K::contains, 4, 3},
        {"shell", "$(", K::contains, 6, 3},
        {"shell", "fi\n", K::contains, 4, 4},
        {"c", "#include", K::lineStart, 6, 6},
        {"python", "    ", K::start, 0, 0},   // a row that scores nothing
    };
    return table;
}

void WordCounts::add(std::string_view lowercasedWord, double weight) {
    const auto found = index_.find(std::string(lowercasedWord));
    if (found != index_.end()) {
        entries_[found->second].second += weight;
        return;
    }
    index_.emplace(std::string(lowercasedWord), entries_.size());
    entries_.emplace_back(std::string(lowercasedWord), weight);
}

double WordCounts::count(std::string_view lowercasedWord) const {
    const auto found = index_.find(std::string(lowercasedWord));
    return found == index_.end() ? 0.0 : entries_[found->second].second;
}

bool isProse(std::string_view lowercasedWord) { return proseSet().contains(lowercasedWord); }

bool isCode(std::string_view line) {
    const auto trimmed = trimmedBlanks(line);
    if (!trimmed.empty()) {
        switch (trimmed.back()) {
        case ':': case ';': case '{': case '(': case '\\':
            return true;
        default:
            break;
        }
    }
    if (line.find_first_of("{};=$") != std::string_view::npos) {
        return true;
    }
    for (const std::string_view pair : {"()", "->", "=>", "::", "(){", ");"}) {
        if (line.find(pair) != std::string_view::npos) {
            return true;
        }
    }
    return false;
}

double words(std::string_view sample, WordCounts& counts) {
    double total = 0;
    std::size_t used = 0;
    std::string word;
    forEachLine(sample, [&](std::string_view line) {
        used += codePointCount(line) + 1;
        if (used > wordSampleLimit) {
            return false;
        }
        const double weight = isCode(line) ? 1.0 : 0.1;
        std::size_t characters = 0;
        const auto finish = [&] {
            if (characters >= 3) {
                auto lower = lowercased(word);
                if (!isProse(lower)) {
                    counts.add(lower, weight);
                    total += weight;
                }
            }
            word.clear();
            characters = 0;
        };
        std::size_t position = 0;
        while (position < line.size()) {
            const auto start = position;
            const auto c = nextCodePoint(line, position);
            if (isWordCharacter(c)) {
                word.append(line.substr(start, position - start));
                ++characters;
                continue;
            }
            finish();
            if (isSigil(c)) {
                word.push_back(static_cast<char>(c));
                characters = 1;
            }
        }
        finish();
        return true;
    });
    return total;
}

std::optional<Delimited> delimited(std::string_view sample) {
    std::vector<std::string_view> lines;
    int taken = 0;
    forEachLine(sample, [&](std::string_view line) {
        const auto trimmed = trimmedBlanks(line);
        if (!trimmed.empty()) {
            lines.push_back(trimmed);
        }
        return ++taken < separatedValueLineLimit;
    });
    if (lines.size() < 4) {
        return std::nullopt;
    }
    static constexpr std::array<std::pair<char, std::string_view>, 4> separators = {
        {{',', ","}, {'\t', "tab"}, {';', ";"}, {'|', "|"}}};
    std::optional<Delimited> best;
    for (const auto& [separator, word] : separators) {
        std::vector<int> counts;
        for (const auto line : lines) {
            int count = 0;
            bool quoted = false;
            for (const char c : line) {
                if (c == '"') {
                    quoted = !quoted;
                } else if (c == separator && !quoted) {
                    ++count;
                }
            }
            counts.push_back(count);
        }
        const int m = counts.front();
        if (m < 2) {
            continue;
        }
        const auto same = std::count(counts.begin(), counts.end(), m);
        const double fraction = static_cast<double>(same) / static_cast<double>(counts.size());
        if (fraction < 0.8) {
            continue;
        }
        const double score = 2.0 * std::min(m, 8) * fraction + 30.0;
        if (!best || score > best->score) {
            best = Delimited{score, std::string(word)};
        }
    }
    return best;
}

std::optional<std::string> languageID(std::string_view word) {
    if (word.empty()) {
        return std::nullopt;
    }
    const auto languages = Language::merged();
    for (const auto& language : *languages) {
        if (language.id == word) {
            return language.id;
        }
    }
    for (const auto& language : *languages) {
        if (lowercased(language.displayName) == word) {
            return language.id;
        }
    }
    for (const auto& [alias, id] : aliases) {
        if (alias == word) {
            if (const auto language = Language::named(id)) {
                return language->id;
            }
            break;
        }
    }
    for (const auto& language : *languages) {
        if (std::find(language.extensions.begin(), language.extensions.end(), word) != language.extensions.end()) {
            return language.id;
        }
    }
    return std::nullopt;
}

std::optional<std::string> modeline(std::string_view sample) {
    std::vector<std::string_view> lines;
    forEachLine(sample, [&](std::string_view line) {
        lines.push_back(line);
        return true;
    });
    std::vector<std::string_view> examined(lines.begin(), lines.begin() + static_cast<std::ptrdiff_t>(std::min<std::size_t>(3, lines.size())));
    for (auto index = lines.size() > 5 ? lines.size() - 5 : 0; index < lines.size(); ++index) {
        examined.push_back(lines[index]);
    }
    static constexpr std::array<std::string_view, 5> markers = {"-*-", "vim:", "vi:", "ex:", "vim :"};
    static constexpr std::array<std::string_view, 4> keys = {"mode:", "ft=", "filetype=", "syntax="};
    for (const auto line : examined) {
        const auto lower = lowercased(line);
        for (const auto marker : markers) {
            if (line.find(marker) == std::string_view::npos) {
                continue;
            }
            bool sawKey = false;
            for (const auto key : keys) {
                const auto at = lower.find(key);
                if (at == std::string::npos) {
                    continue;
                }
                sawKey = true;
                auto position = at + key.size();
                while (position < lower.size() && (lower[position] == ' ' || lower[position] == '\t')) {
                    ++position;
                }
                const auto start = position;
                while (position < lower.size() &&
                       (std::isalnum(static_cast<unsigned char>(lower[position])) != 0 || lower[position] == '+' ||
                        lower[position] == '#')) {
                    ++position;
                }
                if (auto id = languageID(std::string_view(lower).substr(start, position - start))) {
                    return id;
                }
            }
            if (marker == "-*-" && !sawKey) {
                const auto first = lower.find("-*-");
                const auto second = lower.find("-*-", first + 3);
                if (second != std::string::npos) {
                    const auto word = trimmedBlanks(std::string_view(lower).substr(first + 3, second - first - 3));
                    if (auto id = languageID(word)) {
                        return id;
                    }
                }
            }
        }
    }
    return std::nullopt;
}

std::map<std::string, std::vector<std::string>> vocabulary() {
    const auto built = currentVocabulary();
    std::map<std::string, std::vector<std::string>> result;
    for (const auto& [term, owners] : built->claimants) {
        auto& ids = result[term];
        for (const auto owner : owners) {
            ids.push_back((*built->languages)[owner].id);
        }
    }
    return result;
}

std::map<std::string, double> vocabularySizes() {
    const auto built = currentVocabulary();
    std::map<std::string, double> result;
    for (std::size_t index = 0; index < built->languages->size(); ++index) {
        if ((*built->languages)[index].id != "plain") {
            result[(*built->languages)[index].id] = built->sizes[index];
        }
    }
    return result;
}

std::vector<Candidate> candidates(std::string_view sample, std::string_view name,
                                  const std::optional<Language>& current, const std::vector<Language>& among) {
    const auto built = currentVocabulary();
    const auto& languages = *built->languages;
    std::unordered_map<std::string, Evidence> found;

    // Words: a term few languages claim is worth much, one that many claim little.
    WordCounts counts;
    const double total = words(sample, counts);
    std::vector<Evidence> byIndex(languages.size());
    for (const auto& [word, weight] : counts.entries()) {
        const auto claim = built->claimants.find(word);
        if (claim == built->claimants.end()) {
            continue;
        }
        const auto n = static_cast<double>(claim->second.size());
        const double value = std::min(4.0, std::log2(std::max(1.0, weight / total * 1000.0)) + 1.0) / n;
        for (const auto owner : claim->second) {
            auto& evidence = byIndex[owner];
            evidence.evidence += value;
            evidence.hits += 1;
            if (claim->second.size() <= 2 && evidence.rareWords.size() < rareWordLimit) {
                evidence.rareWords.push_back(word);
            }
        }
    }
    // Coverage, not hit count: a large vocabulary meets many words by chance, and fewer than
    // four distinct words prove little.
    for (std::size_t index = 0; index < languages.size(); ++index) {
        auto& evidence = byIndex[index];
        if (evidence.hits > 0) {
            const double e = evidence.evidence;
            evidence.score += e * (std::min(evidence.hits, 4) * 0.25 * 70.0) / (e + std::sqrt(built->sizes[index] + 25.0));
            found[languages[index].id] = std::move(evidence);
        }
    }

    for (const auto& signature : signatures()) {
        const double score = signature.score(sample);
        if (score > 0) {
            auto& evidence = found[std::string(signature.languageID)];
            evidence.score += score;
            evidence.shapes.push_back(shown(signature.needle));
        }
    }
    if (const auto separated = delimited(sample)) {
        auto& evidence = found["csv"];
        evidence.score += separated->score;
        evidence.shapes.push_back(separated->separator);
    }

    if (!name.empty()) {
        const auto byName = Language::detect(name);
        if (byName.id != "plain") {
            auto& evidence = found[byName.id];
            const auto lastSlash = name.rfind('/');
            const auto fileName = lowercased(
                Gzip::uncompressedName(std::string(lastSlash == std::string_view::npos ? name : name.substr(lastSlash + 1))));
            const auto dot = fileName.rfind('.');
            if (dot != std::string::npos && dot > 0 && dot + 1 < fileName.size()) {
                evidence.score += 40;
                evidence.reasonSlot = L("the name ends in .%@", fileName.substr(dot + 1));
            } else {
                evidence.score += 60;
                evidence.reasonSlot = L("its name");
            }
        }
    }
    if (const auto byShebang = Language::fromShebang(sample)) {
        auto& evidence = found[byShebang->id];
        evidence.score += 80;
        evidence.reasonSlot = L("the first line names it");
    }
    if (const auto byModeline = modeline(sample)) {
        auto& evidence = found[*byModeline];
        evidence.score += 100;
        // The word as the mode line wrote it is not kept; the id it resolved to says the same.
        evidence.reasonSlot = L("a mode line says %@", *byModeline);
    }

    std::vector<Candidate> result;
    for (const auto& language : among) {
        const bool isCurrent = current && current->id == language.id;
        const auto entry = found.find(language.id);
        const double score = entry == found.end() ? 0.0 : entry->second.score;
        if (language.id == "plain" ? !isCurrent : !(score > 0 || isCurrent)) {
            continue;
        }
        std::vector<std::string> reasons;
        if (entry != found.end()) {
            const auto& evidence = entry->second;
            if (!evidence.reasonSlot.empty()) {
                reasons.push_back(evidence.reasonSlot);
            }
            if (!evidence.shapes.empty()) {
                reasons.push_back(L("it looks like one: %@", joined(evidence.shapes, " ")));
            }
            if (!evidence.rareWords.empty()) {
                reasons.push_back(L("words few others use: %@", joined(evidence.rareWords, ", ")));
            }
        }
        if (reasons.empty()) {
            reasons.push_back(L("ordinary words it shares with others"));
        }
        result.push_back({language, score, joined(reasons, L(", and ")), isCurrent});
    }
    std::stable_sort(result.begin(), result.end(), [](const Candidate& a, const Candidate& b) {
        if (a.score != b.score) {
            return a.score > b.score;
        }
        return a.language.displayName < b.language.displayName;
    });
    return result;
}

std::optional<Candidate> best(std::string_view sample, std::string_view name) {
    const auto languages = Language::merged();
    auto list = candidates(sample, name, std::nullopt, *languages);
    if (list.empty() || list.front().score < bestMinimum) {
        return std::nullopt;
    }
    if (list.size() >= 2 && list[1].score > 0 && list.front().score < bestMargin * list[1].score) {
        return std::nullopt;
    }
    return std::move(list.front());
}

} // namespace brim::LanguageChoices
