#include "charsets/EncodingScorer.h"

#include "charsets/UnicodeText.h"

#include <unicode/uchar.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <map>
#include <span>
#include <mutex>
#include <unordered_map>
#include <unordered_set>

namespace brim::EncodingScorer {

namespace {

// MARK: tables

/// The alphabet of a letter, by its first scalar. The five with frequency tables come first.
enum class Script : std::uint8_t { cyrillic, greek, hebrew, arabic, thai, latin, other, none };

constexpr std::string_view westernLetters = "àâäãåæçèêëìîïñòôöõøùûüÿßÀÂÄÃÅÆÇÈÊËÌÎÏÑÒÔÖÕØÙÛÜ";
constexpr std::string_view centralLetters = "ąćęłńśźżčďěňřšťůžőűĺľŕđĉĄĆĘŁŃŚŹŻČĎĚŇŘŠŤŮŽŐŰ";
constexpr std::string_view turkishLetters = "ğışĞİŞ";
constexpr std::string_view balticLetters = "āēģīķļņūėįųżĀĒĢĪĶĻŅŪĖĮŲ";
constexpr std::string_view sharedLetters = "áéíóúýâêôÁÉÍÓÚÝ";
constexpr std::string_view rareLetters = "ŸŒœƒÞþÐðıĸŉſ";
constexpr char32_t openingMarks[] = {0x00BF, 0x00A1, 0x00AB, 0x2039, 0x201E, 0x201C, 0x2018};
constexpr char32_t closingMarks[] = {0x00BB, 0x203A, 0x201D, 0x2019, 0x2026, 0x2030};
constexpr char32_t plausibleSymbols[] = {
    0x00AB, 0x00BB, 0x2013, 0x2014, 0x2018, 0x2019, 0x201C, 0x201D, 0x201E, 0x2026, 0x2022,
    0x00B7, 0x00B0, 0x00A7, 0x00A9, 0x00AE, 0x20AC, 0x00A3, 0x00A5, 0x00A2, 0x00B1, 0x00D7,
    0x00F7, 0x00A1, 0x00BF, 0x2039, 0x203A, 0x2122, 0x2030, 0x2020, 0x2021, 0x00B5};
// Letter frequencies in percent of running text, by language. Russian's are the reference; the others
// let Ukrainian, Bulgarian, Serbian and Greek text be told from a misreading in the same way.
struct FrequencyTable {
    std::string_view letters;
    std::initializer_list<double> percent;
};
const FrequencyTable cyrillicFrequencies[] = {
    {"оеаинтсрвлкмдпуяыьгзбчйх",
     {11.0, 8.5, 8.0, 7.4, 6.7, 6.3, 5.5, 4.7, 4.5, 4.3, 3.5, 3.2, 3.0, 2.8, 2.6, 2.0, 1.9, 1.7, 1.7, 1.6, 1.6, 1.5, 1.2, 1.0}},
    {"оаниівтерсклудмпязьгбчйхїжшюцєщфґ",
     {9.4, 8.3, 7.0, 6.1, 5.8, 5.2, 5.0, 4.9, 4.6, 4.1, 3.8, 3.5, 3.5, 3.3, 3.0, 2.9, 2.3, 2.3, 1.7, 1.6, 1.6, 1.4, 1.2,
      1.1, 0.9, 0.9, 0.8, 0.8, 0.7, 0.6, 0.5, 0.3, 0.1}},
    {"аоиентрсвклдпмъзягчубхжйцшщфюь",
     {9.0, 8.7, 8.6, 8.4, 7.0, 7.0, 5.0, 4.5, 4.5, 3.4, 3.3, 3.3, 3.0, 2.7, 2.6, 2.0, 2.1, 1.5, 1.4, 1.4, 1.3, 0.9, 0.8,
      0.8, 0.7, 0.7, 0.6, 0.3, 0.2, 0.1}},
    {"аиоеснурјтвдкплмзгбчшћцњжљфђхџ",
     {11.0, 9.5, 9.0, 8.5, 5.0, 6.0, 4.0, 4.5, 4.5, 4.5, 3.5, 3.5, 3.5, 3.0, 3.0, 3.0, 1.7, 1.6, 1.5, 1.2, 0.9, 0.8,
      0.8, 0.5, 0.6, 0.4, 0.3, 0.2, 0.1, 0.1}},
};
const FrequencyTable hebrewFrequencies[] = {
    {"יוהלאמרבתשנעדכםחקפןסגצטזךףץ",
     {11.0, 10.0, 8.5, 7.0, 6.0, 5.5, 5.5, 5.0, 5.0, 4.5, 4.0, 3.0, 3.0, 2.5, 2.5, 2.3, 2.0, 1.8, 1.5, 1.0, 1.0,
      1.0, 1.0, 0.8, 0.5, 0.4, 0.2}},
};
const FrequencyTable arabicFrequencies[] = {
    // Arabic, then Persian with its own letters.
    {"الميونهربتةعفدكسقأحجشإطصىخضزثذءغئظؤآ",
     {12.5, 11.0, 7.0, 6.0, 6.0, 6.0, 4.5, 4.5, 4.0, 4.0, 3.5, 3.5, 3.0, 2.8, 2.5, 2.5, 2.3, 2.5, 2.0, 1.5, 1.0,
      1.0, 1.0, 1.0, 1.5, 1.0, 0.6, 0.5, 0.5, 0.5, 0.5, 0.4, 0.5, 0.2, 0.2, 0.3}},
    {"ایردنهومتبسکزلشگخفعقجحپچآصطغذضثظژ",
     {11.0, 9.0, 6.0, 5.5, 5.5, 5.5, 5.0, 5.0, 4.0, 4.0, 3.0, 3.0, 2.5, 2.5, 2.0, 1.5, 1.5, 1.5, 1.0, 1.0, 1.0,
      1.0, 1.0, 0.5, 0.5, 0.5, 0.4, 0.3, 0.3, 0.2, 0.2, 0.1, 0.1}},
};
const FrequencyTable thaiFrequencies[] = {
    // By the first character of a cluster: consonants and the vowels written before them.
    {"านรอกเงมยวดตลสทหไบคขปพจแใชโผถศณธซญภฟษฉฝฐฑฒฎฏฬฤฆฮ",
     {8.0, 7.0, 6.0, 5.5, 5.5, 5.0, 4.5, 4.5, 4.0, 3.5, 3.5, 3.0, 3.0, 3.0, 2.5, 2.5, 2.0, 2.0, 2.0, 1.5, 1.5,
      1.5, 1.5, 1.5, 1.2, 1.2, 1.0, 0.8, 0.7, 0.5, 0.5, 0.5, 0.5, 0.3, 0.3, 0.3, 0.3, 0.2, 0.1, 0.1, 0.1, 0.1,
      0.05, 0.05, 0.05, 0.1, 0.05, 0.05}},
};
const FrequencyTable greekFrequencies[] = {
    {"αοτιενσηρπκυμλςάόέίδγήθχωύφβώξζψϊ",
     {10.5, 9.0, 8.0, 7.5, 7.5, 6.5, 4.5, 4.5, 4.5, 4.0, 4.0, 3.5, 3.5, 2.8, 2.7, 2.0, 2.0, 1.8, 1.8, 1.8, 1.8,
      1.2, 1.3, 1.2, 1.5, 1.0, 0.8, 0.6, 0.6, 0.4, 0.4, 0.2, 0.1}},
};

// The letters beyond ASCII that each language writes, lower case. A text whose accented letters one
// language accounts for is believable; letters that no single language would mix are a misreading. A
// list must not grow into a catch-all: a language that takes every accent explains every misreading.
constexpr std::string_view languageLetters[] = {
    "äöüß",                     // German
    "éèàçêâîôûùëïüÿœæ",         // French
    "áéíóúñü",                  // Spanish
    "ãõáéíóúçâêôà",             // Portuguese
    "àèéìòùíóúî",               // Italian
    "àèéíòóúçïü",               // Catalan
    "éëïè",                     // Dutch
    "æøåéóô",                   // Danish and Norwegian
    "åäöé",                     // Swedish
    "äöåšž",                    // Finnish
    "áðéíóúýþæö",               // Icelandic
    "áðíóúýæø",                 // Faroese
    "äõöüšž",                   // Estonian
    "āčēģīķļņšūž",              // Latvian
    "ąčęėįšųūž",                // Lithuanian
    "ąćęłńóśźż",                // Polish
    "áčďéěíňóřšťúůýž",          // Czech
    "áäčďéíĺľňóôŕšťúýž",        // Slovak
    "čćđšž",                    // Slovene, Croatian, Bosnian, Serbian
    "áéíóöőúüű",                // Hungarian
    "ăâîșțşţ",                  // Romanian
    "çğıöşüâîûİ",               // Turkish
    "əçğıöşü",                  // Azerbaijani
    "ëç",                       // Albanian
    "ċġħżàèìòù",                // Maltese
    "ĉĝĥĵŝŭ",                   // Esperanto
    "âêîôûŵŷëï",                // Welsh
    "áéíóú",                    // Irish
    "àèìòù",                    // Scottish Gaelic
};
constexpr std::string_view simplifiedOnly = "这个们国说时会对后学电车门见长马书东关无发现义头让语边样还过两从业点为产话员认识";
constexpr std::string_view traditionalOnly = "這個們國說時會對後學電車門見長馬書東關無發現義頭讓語邊樣還過兩從業點為產話員認識";
constexpr std::string_view commonChinese =
    "的一是不了人在有我他这這个個们們中来來上大为為和国國地到以说說时時要就出会會可也你对對生能而子那得于於着著下自之"
    "年过過发發后後作里裡用道行所然家种種事成方多经經么麼去法学學如都同现現当當没沒动動面起看定天分还還进進好小部其些"
    "主样樣理心她本前开開但因只从從想实實日者意无無力它与與长長把机機十民第公此已工使情明性知全三又关關点點正业業外将"
    "將两兩高间間由问問很最重并並物手应應头頭文体體美相见見被利什二等产產或新己身果加西月话話合回特代内內信表化老给給"
    "世位次度门門任常先海通教儿兒原东東声聲提立及比员員解水名真论論处處走各入几幾口认認平气氣题題更别別打女变變四总"
    "總何电電数數安少报報才结結反受目太量再感建做接必场場";
constexpr std::string_view commonKorean =
    "이다는의에가을하고지서기도로사리한대자어나들수인아있게시정일해적전요것으니를구보부제상주만은성라면거우여위경까국방"
    "과문동장년소비계개내원신연세없공되발화오러생스저결행무말음모교치미조중른할했합습니까요네안녕감사해요세요그러면우리"
    "너나한국사람";

constexpr std::size_t profileLimit = 20'000;

// Group of each scalar below U+0200, where every letter of the tables lies; 0 is none, 1 + group
// otherwise, and `rare` marks the rare letters.
struct LetterTables {
    std::array<std::uint8_t, 0x200> group{};
    std::array<bool, 0x200> rare{};
    // Letter frequencies by script, each table with the mean below which a reading is a misreading.
    struct Frequencies {
        std::unordered_map<char32_t, double> percent;
        double baseline = 0;
    };
    std::array<std::vector<Frequencies>, 6> frequencies;   // by Script
    std::vector<std::u32string> languages;
    std::unordered_set<char32_t> languageLetter;        // in some language's letters
    std::unordered_set<char32_t> simplified, traditional, chinese, korean;
};

const LetterTables& tables() {
    static const LetterTables built = [] {
        LetterTables t;
        auto mark = [&](std::string_view letters, LetterGroup which) {
            for (const char32_t c : UnicodeText::toScalars(letters)) {
                if (c < t.group.size() && t.group[c] == 0) t.group[c] = static_cast<std::uint8_t>(1 + static_cast<int>(which));
            }
        };
        // The order of testing: shared, western, central, Turkish, Baltic; a letter in two keeps the first.
        mark(sharedLetters, LetterGroup::shared);
        mark(westernLetters, LetterGroup::western);
        mark(centralLetters, LetterGroup::central);
        mark(turkishLetters, LetterGroup::turkish);
        mark(balticLetters, LetterGroup::baltic);
        for (const char32_t c : UnicodeText::toScalars(rareLetters)) {
            if (c < t.rare.size()) t.rare[c] = true;
        }
        auto frequencies = [](const FrequencyTable& table) {
            LetterTables::Frequencies known;
            const auto letters = UnicodeText::toScalars(table.letters);
            std::size_t i = 0;
            double sum = 0;
            double squares = 0;
            for (const double percent : table.percent) {
                if (i < letters.size()) known.percent[letters[i++]] = percent;
                sum += percent;
                squares += percent * percent;
            }
            // Real text averages sum(f^2)/sum(f) per letter; a reading that puts the letters in the wrong
            // places, about the plain mean. Russian's 4.5 sits at 0.78 of the first, and so do the others.
            known.baseline = 0.78 * squares / sum;
            return known;
        };
        const auto fill = [&](Script script, std::span<const FrequencyTable> tablesOfScript) {
            for (const auto& table : tablesOfScript) t.frequencies[static_cast<std::size_t>(script)].push_back(frequencies(table));
        };
        fill(Script::cyrillic, cyrillicFrequencies);
        fill(Script::greek, greekFrequencies);
        fill(Script::hebrew, hebrewFrequencies);
        fill(Script::arabic, arabicFrequencies);
        fill(Script::thai, thaiFrequencies);
        for (const auto letters : languageLetters) {
            t.languages.push_back(UnicodeText::toScalars(letters));
            for (const char32_t c : t.languages.back()) t.languageLetter.insert(c);
        }
        for (const char32_t c : UnicodeText::toScalars(simplifiedOnly)) t.simplified.insert(c);
        for (const char32_t c : UnicodeText::toScalars(traditionalOnly)) t.traditional.insert(c);
        for (const char32_t c : UnicodeText::toScalars(commonChinese)) t.chinese.insert(c);
        for (const char32_t c : UnicodeText::toScalars(commonKorean)) t.korean.insert(c);
        return t;
    }();
    return built;
}

bool contains(std::span<const char32_t> set, char32_t c) { return std::find(set.begin(), set.end(), c) != set.end(); }

// MARK: grapheme clusters

// The grapheme break class of a scalar, and whether it is a pictograph (the top bit), kept for the
// scalars below U+3000.
constexpr std::uint8_t pictographBit = 0x80;

std::uint8_t breakProperties(char32_t c) {
    const auto scalar = static_cast<UChar32>(c);
    const auto kind = static_cast<std::uint8_t>(u_getIntPropertyValue(scalar, UCHAR_GRAPHEME_CLUSTER_BREAK));
    return static_cast<std::uint8_t>(kind | (u_hasBinaryProperty(scalar, UCHAR_EXTENDED_PICTOGRAPHIC) ? pictographBit : 0));
}

std::uint8_t graphemeProperties(char32_t c) {
    static const std::vector<std::uint8_t> table = [] {
        std::vector<std::uint8_t> built(0x3000);
        for (char32_t scalar = 0; scalar < built.size(); ++scalar) built[scalar] = breakProperties(scalar);
        return built;
    }();
    return c < table.size() ? table[c] : breakProperties(c);
}

// Where each cluster begins: extended grapheme clusters as far as a score needs them (marks, joiners
// and spacing marks stay with their base, CR LF is one, Hangul jamo join, flags pair).
std::vector<std::uint32_t> clusterStarts(std::u32string_view text) {
    std::vector<std::uint32_t> starts;
    starts.reserve(text.size());
    int previousBreak = -1;
    bool afterPictographicJoiner = false;
    bool pictographicRun = false;
    int regionalCount = 0;
    for (std::size_t i = 0; i < text.size(); ++i) {
        const char32_t c = text[i];
        const std::uint8_t breakFlags = graphemeProperties(c);
        const int kind = breakFlags & static_cast<std::uint8_t>(~pictographBit);
        const bool pictographic = (breakFlags & pictographBit) != 0;
        bool join = false;
        if (i > 0) {
            const int p = previousBreak;
            if (p == U_GCB_CR && kind == U_GCB_LF) {
                join = true;
            } else if (p == U_GCB_CONTROL || p == U_GCB_CR || p == U_GCB_LF) {
                join = false;
            } else if (kind == U_GCB_CONTROL || kind == U_GCB_CR || kind == U_GCB_LF) {
                join = false;
            } else if (p == U_GCB_L && (kind == U_GCB_L || kind == U_GCB_V || kind == U_GCB_LV || kind == U_GCB_LVT)) {
                join = true;
            } else if ((p == U_GCB_LV || p == U_GCB_V) && (kind == U_GCB_V || kind == U_GCB_T)) {
                join = true;
            } else if ((p == U_GCB_LVT || p == U_GCB_T) && kind == U_GCB_T) {
                join = true;
            } else if (kind == U_GCB_EXTEND || kind == U_GCB_ZWJ || kind == U_GCB_SPACING_MARK || p == U_GCB_PREPEND) {
                join = true;
            } else if (afterPictographicJoiner && pictographic) {
                join = true;
            } else if (p == U_GCB_REGIONAL_INDICATOR && kind == U_GCB_REGIONAL_INDICATOR && regionalCount % 2 == 1) {
                join = true;
            }
        }
        if (!join) starts.push_back(static_cast<std::uint32_t>(i));
        if (!join) pictographicRun = pictographic;
        afterPictographicJoiner = pictographicRun && kind == U_GCB_ZWJ;
        if (kind != U_GCB_EXTEND && kind != U_GCB_ZWJ && !pictographic) pictographicRun = false;
        regionalCount = kind == U_GCB_REGIONAL_INDICATOR ? (join ? regionalCount + 1 : 1) : 0;
        previousBreak = kind;
    }
    return starts;
}


struct Character {
    char32_t first = ' ';
    std::uint32_t length = 1;
    bool letter = false;
    bool lower = false;
    bool upper = false;
    bool spaceOrPunctuation = false;
    Script script = Script::none;
};

// The properties the scorer asks of a scalar, kept for the ones below U+3000 (every single-byte set's
// characters) so that scoring forty readings asks ICU once per scalar per process, not per character.
enum PropertyFlag : std::uint8_t { isLetter = 1, isLower = 2, isUpper = 4, isSpaceOrPunctuation = 8 };
constexpr char32_t propertyTableSize = 0x3000;

std::uint8_t propertiesFromICU(char32_t c) {
    const auto scalar = static_cast<UChar32>(c);
    const std::uint32_t mask = U_GET_GC_MASK(scalar);
    std::uint8_t flags = 0;
    if ((mask & U_GC_L_MASK) != 0) flags |= isLetter;
    if (u_isULowercase(scalar)) flags |= isLower;
    if (u_isUUppercase(scalar)) flags |= isUpper;
    if (u_isUWhiteSpace(scalar) || (mask & U_GC_P_MASK) != 0) flags |= isSpaceOrPunctuation;
    return flags;
}

std::uint8_t properties(char32_t c) {
    static const std::vector<std::uint8_t> table = [] {
        std::vector<std::uint8_t> built(propertyTableSize);
        for (char32_t scalar = 0; scalar < propertyTableSize; ++scalar) built[scalar] = propertiesFromICU(scalar);
        return built;
    }();
    return c < propertyTableSize ? table[c] : propertiesFromICU(c);
}

Character describe(std::u32string_view text, std::uint32_t start, std::uint32_t end) {
    Character c;
    c.first = text[start];
    c.length = end - start;
    const std::uint8_t flags = properties(c.first);
    c.letter = (flags & isLetter) != 0;
    c.lower = (flags & isLower) != 0;
    c.upper = (flags & isUpper) != 0;
    c.spaceOrPunctuation = (flags & isSpaceOrPunctuation) != 0;
    if (c.letter) {
        c.script = c.first < 0x370                      ? Script::latin
                   : c.first < 0x400                    ? Script::greek
                   : c.first < 0x500                    ? Script::cyrillic
                   : c.first >= 0x590 && c.first < 0x600 ? Script::hebrew
                   : c.first >= 0x600 && c.first < 0x700 ? Script::arabic
                   : c.first >= 0xE00 && c.first < 0xE80 ? Script::thai
                                                        : Script::other;
    }
    return c;
}

// MARK: single-byte readings

struct ByteScalars {
    std::array<char32_t, 256> scalar{};
    std::array<bool, 256> assigned{};
};

// For a set of one byte per scalar, the reading of each byte, built once per set.
std::shared_ptr<const ByteScalars> byteScalars(const TextEncoding& encoding) {
    static std::mutex lock;
    static std::map<std::string, std::shared_ptr<const ByteScalars>> built;   // guarded by lock
    const std::string key = encoding.id + "\x1F" + encoding.converterName + "\x1F" +
                            std::to_string(reinterpret_cast<std::uintptr_t>(encoding.table.get()));
    {
        std::lock_guard guard(lock);
        if (const auto found = built.find(key); found != built.end()) return found->second;
    }
    auto readings = std::make_shared<ByteScalars>();
    for (std::size_t b = 0; b < 256; ++b) {
        const std::uint8_t byte = static_cast<std::uint8_t>(b);
        const auto text = encoding.decodeStrictly(std::span(&byte, 1));
        if (!text) continue;
        const auto scalars = UnicodeText::toScalars(*text);
        if (scalars.size() != 1 || (encoding.table && scalars[0] == 0xFFFD)) continue;
        readings->scalar[b] = scalars[0];
        readings->assigned[b] = true;
    }
    std::lock_guard guard(lock);
    built.emplace(key, readings);
    return readings;
}

std::size_t tieRank(const TextEncoding& encoding) {
    const auto& order = tieOrder();
    const auto found = std::find(order.begin(), order.end(), encoding.id);
    return static_cast<std::size_t>(found - order.begin());
}

} // namespace

const std::vector<std::string>& tieOrder() {
    static const std::vector<std::string> order = {"utf8",   "cp1252", "latin1", "latin9", "macroman",
                                                   "cp1250", "latin2", "cp1251", "koi8r",  "cp1253",
                                                   "cp1254", "cp1257", "cp850",  "cp437"};
    return order;
}

std::optional<LetterGroup> group(char32_t letter) {
    const auto& t = tables();
    if (letter >= t.group.size() || t.group[letter] == 0) return std::nullopt;
    return static_cast<LetterGroup>(t.group[letter] - 1);
}

std::optional<std::u32string> readingForScore(std::span<const std::uint8_t> bytes, const TextEncoding& encoding) {
    if (encoding.isSingleByte()) {
        const auto readings = byteScalars(encoding);
        std::u32string text(bytes.size(), U'\0');
        for (std::size_t i = 0; i < bytes.size(); ++i) {
            if (!readings->assigned[bytes[i]]) {
                // A table reads an unassigned byte as U+FFFD; a system converter refuses it.
                if (!encoding.table) return std::nullopt;
                text[i] = U'\uFFFD';
                continue;
            }
            text[i] = readings->scalar[bytes[i]];
        }
        return text;
    }
    if (encoding.table || encoding.stateful) return UnicodeText::toScalars(encoding.decodeToUTF16(bytes));
    for (std::size_t drop = 0; drop <= 3 && drop < bytes.size(); ++drop) {
        if (const auto text = encoding.decodeStrictly(bytes.first(bytes.size() - drop))) return UnicodeText::toScalars(*text);
    }
    return std::nullopt;
}

namespace {

// A reading's mean score and the number of characters it is the mean of.
struct Measure {
    double mean = 0;
    std::int64_t counted = 0;
};

std::optional<Measure> measure(std::u32string_view text) {
    const auto starts = clusterStarts(text);
    if (starts.empty()) return std::nullopt;
    const auto& t = tables();
    const std::size_t count = starts.size();
    auto characterAt = [&](std::size_t index) {
        const std::uint32_t end = index + 1 < count ? starts[index + 1] : static_cast<std::uint32_t>(text.size());
        return describe(text, starts[index], end);
    };
    const Character space;
    double total = 0;
    std::int64_t counted = 0;
    // Letters of the scripts with frequency tables, and the frequency sums under each table.
    std::array<std::int64_t, 5> lettersOfScript{};
    std::array<std::vector<double>, 5> frequencySums;
    for (std::size_t k = 0; k < frequencySums.size(); ++k) frequencySums[k].assign(t.frequencies[k].size(), 0.0);
    // Letters beyond ASCII that have a case, and how many of them are capitals.
    std::int64_t cased = 0;
    std::int64_t upperCase = 0;
    // Accented Latin letters, lower case, with their counts.
    std::vector<std::pair<char32_t, std::int64_t>> accented;

    // A sliding window of three characters: the one before the previous, the previous and the current.
    Character beforePrevious = space;
    Character previous = space;
    Character current = count > 0 ? characterAt(0) : space;
    for (std::size_t index = 0; index < count; ++index) {
        const Character next = index + 1 < count ? characterAt(index + 1) : space;
        const Character c = current;
        const std::uint32_t start = starts[index];
        const bool skipped = (c.length == 1 && c.first < 0x80) || (c.length == 2 && c.first == '\r' && text[start + 1] == '\n');
        if (!skipped) {
            ++counted;
            const bool nearLetter = previous.letter || next.letter;
            const bool inWord = previous.letter && next.letter;
            bool replacement = false;
            bool control = false;
            for (std::uint32_t k = 0; k < c.length; ++k) {
                const char32_t s = text[start + k];
                replacement = replacement || s == 0xFFFD;
                control = control || s < 0x20 || (s >= 0x7F && s < 0xA0);
            }
            if (replacement || control) {
                total -= 20;
            } else if (!c.letter) {
                if (c.length == 1 && contains(plausibleSymbols, c.first)) {
                    if (contains(openingMarks, c.first) && next.letter && !previous.letter) {
                        total += 3;
                    } else if (contains(closingMarks, c.first) && previous.letter && !next.letter) {
                        total += 3;
                    } else {
                        total += inWord ? -4 : 1;
                    }
                } else if (c.spaceOrPunctuation) {
                    // Inside a word, or glued to the front of one without being an opening mark or
                    // bracket, punctuation is where a letter of another set was.
                    const auto category = u_charType(static_cast<UChar32>(c.first));
                    const bool opening = category == U_START_PUNCTUATION || category == U_INITIAL_PUNCTUATION ||
                                         category == U_DASH_PUNCTUATION || category == U_SPACE_SEPARATOR;
                    const bool gluedToWord = !previous.letter && next.letter && !opening;
                    total += inWord || gluedToWord ? -3 : 0.5;
                } else {
                    // Box drawing, arithmetic and the like: odd anywhere, and a sure misreading between letters.
                    total += inWord ? -4 : -1;
                }
            } else {
                if (c.script != Script::latin || c.first >= 0x80) {
                    if (c.upper) ++upperCase;
                    if (c.upper || c.lower) ++cased;
                }
                if (c.lower && next.letter && next.upper) total -= 10;
                if (c.upper && previous.letter && previous.lower) total -= 10;
                const bool sameScript = (previous.letter && previous.script == c.script) ||
                                        (next.letter && next.script == c.script);
                const auto lower = static_cast<char32_t>(u_tolower(static_cast<UChar32>(c.first)));
                if (c.script < Script::latin) {
                    // Greek and Cyrillic, and the alphabets whose letter frequencies are known as theirs
                    // are (Hebrew, Arabic, Thai): believable beside their own kind, and then weighed by
                    // how like the language they are.
                    total += sameScript ? 5 : -4;
                    const auto script = static_cast<std::size_t>(c.script);
                    ++lettersOfScript[script];
                    const auto& tablesOfScript = t.frequencies[script];
                    for (std::size_t k = 0; k < tablesOfScript.size(); ++k) {
                        const auto found = tablesOfScript[k].percent.find(lower);
                        if (found != tablesOfScript[k].percent.end()) frequencySums[script][k] += found->second;
                    }
                } else if (c.script == Script::other) {
                    total += sameScript ? 3 : 0;
                } else {
                    // Dotted capital I lower-cases to ASCII; it is Turkish, and stays itself.
                    const char32_t key = c.first == 0x130 ? c.first : lower;
                    const bool known = c.length == 1 && (group(c.first) || t.languageLetter.contains(key));
                    if (!known) {
                        if (c.length == 1 && c.first < t.rare.size() && t.rare[c.first]) {
                            total -= 2;
                        } else {
                            total += nearLetter ? 2 : 1;
                        }
                    } else {
                        total += nearLetter ? 6 : 4;
                        auto entry = std::find_if(accented.begin(), accented.end(), [&](const auto& e) { return e.first == key; });
                        if (entry == accented.end()) {
                            accented.emplace_back(key, 1);
                        } else {
                            ++entry->second;
                        }
                    }
                    if (!nearLetter) total -= 4;
                    const auto accentedLatin = [](const Character& x) {
                        return x.letter && x.script == Script::latin && x.first >= 0x80;
                    };
                    if (index >= 2 && accentedLatin(previous) && accentedLatin(beforePrevious)) total -= 8;
                }
            }
        }
        beforePrevious = previous;
        previous = current;
        current = next;
    }
    if (counted == 0) return std::nullopt;
    // Accented letters that one language accounts for support each other; those it leaves over are
    // punished hard, since no text mixes the letters of unrelated languages.
    std::int64_t sum = 0;
    for (const auto& [letter, n] : accented) sum += n;
    if (sum > 0) {
        std::int64_t top = 0;
        for (const auto& letters : t.languages) {
            std::int64_t covered = 0;
            for (const auto& [letter, n] : accented) {
                if (letters.find(letter) != std::u32string::npos) covered += n;
            }
            top = std::max(top, covered);
        }
        total += static_cast<double>(std::min<std::int64_t>(top, 3)) * 1.5 - 6.0 * static_cast<double>(sum - top);
    }
    // How much like a language the letters of a script are: the best table's mean frequency against its
    // baseline (4.5% for Russian).
    for (std::size_t script = 0; script < lettersOfScript.size(); ++script) {
        const std::int64_t letters = lettersOfScript[script];
        if (letters < 5) continue;
        const auto n = static_cast<double>(letters);
        double best = -1e9;
        for (std::size_t k = 0; k < frequencySums[script].size(); ++k) {
            best = std::max(best, (frequencySums[script][k] / n - t.frequencies[script][k].baseline) * 1.2 * n);
        }
        total += best;
    }
    // Running text is mostly small letters; a reading in which nearly every letter is a capital has put
    // another alphabet's letters, or the other case's, in their place.
    if (cased >= 8 && upperCase * 10 > cased * 8) total -= 2.0 * static_cast<double>(upperCase);
    return Measure{total / static_cast<double>(counted), counted};
}

std::optional<Measure> measure(std::span<const std::uint8_t> bytes, const TextEncoding& encoding) {
    const auto text = readingForScore(bytes, encoding);
    if (!text) return std::nullopt;
    return measure(std::u32string_view(*text));
}

} // namespace

std::optional<double> score(std::u32string_view text) {
    const auto found = measure(text);
    if (!found) return std::nullopt;
    return found->mean;
}

std::optional<double> score(std::span<const std::uint8_t> bytes, const TextEncoding& encoding) {
    const auto found = measure(bytes, encoding);
    if (!found) return std::nullopt;
    return found->mean;
}

std::optional<Scored> best(std::span<const std::uint8_t> bytes, std::span<const TextEncoding> candidates) {
    std::optional<Scored> chosen;
    std::int64_t chosenCount = 0;
    for (const auto& candidate : candidates) {
        const auto value = measure(bytes, candidate);
        if (!value) continue;
        const double difference = value->mean - (chosen ? chosen->score : 0.0);
        // Two readings within 0.1 of each other are a tie, unless their totals are apart by more than one
        // character's worth: a long text in which one letter reads as a letter in one set and as a stray
        // symbol in the other has told them apart.
        const double total = std::fabs(difference) * static_cast<double>(std::max(chosenCount, value->counted));
        const bool tie = std::fabs(difference) <= 0.1 && total < 4.0;
        if (!chosen || (!tie && difference > 0) || (tie && tieRank(candidate) < tieRank(chosen->encoding))) {
            chosen = Scored{candidate, value->mean};
            chosenCount = value->counted;
        }
    }
    return chosen;
}

std::optional<TextEncoding> closeSecond(std::span<const std::uint8_t> bytes, std::span<const TextEncoding> candidates,
                                        const Scored& chosen) {
    const auto bestText = readingForScore(bytes, chosen.encoding);
    std::optional<Scored> second;
    for (const auto& candidate : candidates) {
        if (candidate == chosen.encoding) continue;
        const auto value = score(bytes, candidate);
        if (!value || *value < chosen.score - 1.0) continue;
        if (readingForScore(bytes, candidate) == bestText) continue;
        if (!second || *value > second->score) second = Scored{candidate, *value};
    }
    if (!second) return std::nullopt;
    return second->encoding;
}

ChineseForms chineseForms(std::u32string_view text) {
    const auto& t = tables();
    ChineseForms forms;
    const std::size_t limit = std::min(text.size(), profileLimit);
    for (std::size_t i = 0; i < limit; ++i) {
        if (t.simplified.contains(text[i])) ++forms.simplified;
        if (t.traditional.contains(text[i])) ++forms.traditional;
    }
    return forms;
}

double commonShare(std::u32string_view text, CommonSet set) {
    const auto& t = tables();
    const auto& common = set == CommonSet::chinese ? t.chinese : t.korean;
    std::int64_t total = 0;
    std::int64_t inSet = 0;
    const std::size_t limit = std::min(text.size(), profileLimit);
    for (std::size_t i = 0; i < limit; ++i) {
        const char32_t c = text[i];
        const bool counted = (c >= 0x3400 && c <= 0x4DBF) || (c >= 0x4E00 && c <= 0x9FFF) || (c >= 0xAC00 && c <= 0xD7AF);
        if (!counted) continue;
        ++total;
        if (common.contains(c)) ++inSet;
    }
    return total == 0 ? 0.0 : static_cast<double>(inSet) / static_cast<double>(total);
}

} // namespace brim::EncodingScorer
