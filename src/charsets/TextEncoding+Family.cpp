// The family of character sets: the everyday ones, the catalogue, the EBCDIC pages, and the ways a
// set is found by a name.

#include "charsets/TextEncoding.h"

#include "charsets/Charsets.h"
#include "charsets/SystemConverter.h"

#include <cctype>
#include <charconv>
#include <cstdio>
#include <unordered_map>

namespace brim {

namespace {

struct EverydaySet {
    const char* id;
    const char* displayName;
    const char* converterName;
    bool asciiCompatible;
    std::vector<const char*> spellings;     // besides id and display name, for byAlias
};

// The IBM PC pages come from glibc: ICU's move 0x1A, 0x1C and 0x7F, and a DOS file is ASCII below 0x80.
const std::vector<EverydaySet>& everydaySets() {
    static const std::vector<EverydaySet> sets = {
        {"utf8", "UTF-8", "UTF-8", true, {"utf-8", "unicode-1-1-utf-8", "x-unicode20utf8"}},
        {"utf16le", "UTF-16 LE", "UTF-16LE", false, {"utf-16le", "ucs-2le", "unicodelittle", "x-utf-16le"}},
        {"utf16be", "UTF-16 BE", "UTF-16BE", false, {"utf-16be", "ucs-2be", "unicodebig", "utf-16", "x-utf-16be"}},
        {"utf32le", "UTF-32 LE", "UTF-32LE", false, {"utf-32le", "ucs-4le"}},
        {"utf32be", "UTF-32 BE", "UTF-32BE", false, {"utf-32be", "ucs-4be", "utf-32"}},
        {"ascii", "US-ASCII", "US-ASCII", true, {"us-ascii", "ansi_x3.4-1968", "iso646-us", "us", "csascii"}},
        {"latin1", "ISO-8859-1 (Latin-1)", "ISO-8859-1", true,
         {"iso-8859-1", "iso8859-1", "iso_8859-1", "latin-1", "l1", "cp819", "ibm819", "csisolatin1"}},
        {"latin2", "ISO-8859-2", "ibm-912_P100-1995", true,
         {"iso-8859-2", "iso8859-2", "iso_8859-2", "latin-2", "l2", "csisolatin2"}},
        {"latin9", "ISO-8859-15", "ibm-923_P100-1998", true,
         {"iso-8859-15", "iso8859-15", "iso_8859-15", "latin-9", "l9", "latin0"}},
        {"cp1250", "Windows-1250 (Central European)", "ibm-5346_P100-1998", true, {"windows-1250", "x-cp1250"}},
        {"cp1251", "Windows-1251", "ibm-5347_P100-1998", true, {"windows-1251", "x-cp1251"}},
        {"cp1252", "Windows-1252", "ibm-5348_P100-1997", true, {"windows-1252", "x-cp1252"}},
        {"cp1253", "Windows-1253", "ibm-5349_P100-1998", true, {"windows-1253", "x-cp1253"}},
        {"cp1254", "Windows-1254", "ibm-5350_P100-1998", true, {"windows-1254", "x-cp1254"}},
        {"cp1257", "Windows-1257", "ibm-9449_P100-2002", true, {"windows-1257", "x-cp1257"}},
        {"macroman", "Mac OS Roman", "macos-0_2-10.2", true, {"macintosh", "mac", "mac-roman", "x-mac-roman", "csmacintosh"}},
        {"koi8r", "KOI8-R", "ibm-878_P100-1996", true, {"koi8-r", "cskoi8r"}},
        {"cp437", "DOS CP437", "iconv:CP437", true, {"ibm437", "dos-437", "437"}},
        {"cp850", "DOS CP850", "iconv:CP850", true, {"ibm850", "dos-850", "850"}},
        {"shiftjis", "Shift-JIS", "ibm-943_P15A-2003", true, {"shift_jis", "sjis", "ms_kanji", "x-sjis", "csshiftjis"}},
        {"eucjp", "EUC-JP", "euc-jp-2007", true, {"euc-jp", "x-euc-jp", "ujis", "cseucpkdfmtjapanese"}},
        {"iso2022jp", "ISO-2022-JP", "ISO_2022,locale=ja,version=0", true, {"iso-2022-jp", "csiso2022jp"}},
        {"gb18030", "GB18030 (Simplified Chinese)", "gb18030", true, {"gb-18030"}},
        {"big5", "Big5 (Traditional Chinese)", "windows-950-2000", true, {"big-5", "csbig5", "x-x-big5"}},
        {"euckr", "EUC-KR", "ibm-970_P110_P110-2006_U2", true, {"euc-kr", "cseuckr"}},
    };
    return sets;
}

TextEncoding makeEveryday(const EverydaySet& set) {
    TextEncoding encoding;
    encoding.id = set.id;
    encoding.displayName = set.displayName;
    encoding.converterName = set.converterName;
    encoding.asciiCompatible = set.asciiCompatible;
    return encoding;
}

// MARK: EBCDIC pages

struct EBCDICPageRow {
    std::string number;
    std::string region;
    TextEncoding encoding;
};

// Parsed once from the generated tables: "number|region|display name|256 units in hexadecimal".
const std::vector<EBCDICPageRow>& ebcdicPageRows() {
    static const std::vector<EBCDICPageRow> rows = [] {
        static constexpr std::string_view data =
#include "charsets/tables/ebcdic-pages.inc"
            ;
        std::vector<EBCDICPageRow> parsed;
        std::size_t start = 0;
        while (start < data.size()) {
            std::size_t end = data.find('\n', start);
            if (end == std::string_view::npos) end = data.size();
            const std::string_view line = data.substr(start, end - start);
            start = end + 1;
            const std::size_t bar1 = line.find('|');
            const std::size_t bar2 = bar1 == std::string_view::npos ? bar1 : line.find('|', bar1 + 1);
            const std::size_t bar3 = bar2 == std::string_view::npos ? bar2 : line.find('|', bar2 + 1);
            if (bar3 == std::string_view::npos) continue;
            auto table = std::make_shared<TextEncoding::Table>();
            std::size_t at = bar3 + 1;
            std::size_t filled = 0;
            while (filled < 256 && at + 4 <= line.size()) {
                unsigned value = 0;
                std::from_chars(line.data() + at, line.data() + at + 4, value, 16);
                (*table)[filled++] = static_cast<std::uint16_t>(value);
                at += 5;
            }
            if (filled != 256) continue;
            EBCDICPageRow row;
            row.number = std::string(line.substr(0, bar1));
            row.region = std::string(line.substr(bar1 + 1, bar2 - bar1 - 1));
            row.encoding.id = "ebcdic" + row.number;
            row.encoding.displayName = std::string(line.substr(bar2 + 1, bar3 - bar2 - 1));
            row.encoding.asciiCompatible = false;
            row.encoding.ebcdic = true;
            row.encoding.table = std::move(table);
            parsed.push_back(std::move(row));
        }
        return parsed;
    }();
    return rows;
}

// A catalogue row whose bytes read as EBCDIC letters and space is an EBCDIC page, whatever its group.
bool readsAsEBCDIC(const TextEncoding& encoding) {
    const std::uint8_t probe[] = {0xC1, 0x81, 0x40, 0xF1};
    const auto text = encoding.decodeStrictly(probe);
    return text && *text == u"Aa 1";
}

bool readsASCII(const TextEncoding& encoding) {
    std::vector<std::uint8_t> printable;
    for (std::uint8_t b = 0x20; b < 0x7F; ++b) printable.push_back(b);
    printable.push_back('\n');
    const auto text = encoding.decodeStrictly(printable);
    if (!text || text->size() != printable.size()) return false;
    for (std::size_t i = 0; i < printable.size(); ++i) {
        if ((*text)[i] != printable[i]) return false;
    }
    return true;
}

TextEncoding fromCatalogue(const Charsets::Entry& entry) {
    TextEncoding encoding;
    encoding.id = entry.id;
    encoding.displayName = entry.displayName;
    if (entry.table) {
        encoding.table = std::make_shared<const TextEncoding::Table>(*entry.table);
        if (!entry.expansions.empty()) encoding.expansions = std::make_shared<const TextEncoding::Expansions>(entry.expansions);
        if (!entry.pairs.empty()) encoding.pairs = std::make_shared<const TextEncoding::Pairs>(entry.pairs);
    } else if (entry.doubleByteCodec) {
        encoding.doubleByteCodec = entry.doubleByteCodec;
    } else {
        encoding.converterName = entry.converterName;
    }
    // "EBCDIC (Latin 1)" sits among the other sets but is a page like the rest: not ASCII-compatible.
    encoding.ebcdic = entry.isEBCDIC || readsAsEBCDIC(encoding);
    encoding.asciiCompatible = !encoding.ebcdic && (entry.table ? true : readsASCII(encoding));
    return encoding;
}

enum class Everyday : std::size_t {
    utf8, utf16le, utf16be, utf32le, utf32be, ascii, latin1, latin2, latin9, cp1250, cp1251, cp1252, cp1253,
    cp1254, cp1257, macRoman, koi8r, cp437, cp850, shiftJIS, eucJP, iso2022JP, gb18030, big5, eucKR,
};

const TextEncoding& everydayValue(Everyday which) { return TextEncoding::everyday()[static_cast<std::size_t>(which)]; }

bool allDigits(std::string_view text) {
    return !text.empty() && std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; });
}

} // namespace

// MARK: the family

const std::vector<TextEncoding>& TextEncoding::everyday() {
    static const std::vector<TextEncoding> values = [] {
        std::vector<TextEncoding> built;
        for (const auto& set : everydaySets()) built.push_back(makeEveryday(set));
        return built;
    }();
    return values;
}

const std::vector<std::string>& TextEncoding::everydayIDs() {
    static const std::vector<std::string> ids = [] {
        std::vector<std::string> built;
        for (const auto& encoding : everyday()) built.push_back(encoding.id);
        return built;
    }();
    return ids;
}

const TextEncoding& TextEncoding::utf8() { return everydayValue(Everyday::utf8); }
const TextEncoding& TextEncoding::utf16le() { return everydayValue(Everyday::utf16le); }
const TextEncoding& TextEncoding::utf16be() { return everydayValue(Everyday::utf16be); }
const TextEncoding& TextEncoding::utf32le() { return everydayValue(Everyday::utf32le); }
const TextEncoding& TextEncoding::utf32be() { return everydayValue(Everyday::utf32be); }
const TextEncoding& TextEncoding::ascii() { return everydayValue(Everyday::ascii); }
const TextEncoding& TextEncoding::latin1() { return everydayValue(Everyday::latin1); }
const TextEncoding& TextEncoding::latin2() { return everydayValue(Everyday::latin2); }
const TextEncoding& TextEncoding::latin9() { return everydayValue(Everyday::latin9); }
const TextEncoding& TextEncoding::cp1250() { return everydayValue(Everyday::cp1250); }
const TextEncoding& TextEncoding::cp1251() { return everydayValue(Everyday::cp1251); }
const TextEncoding& TextEncoding::cp1252() { return everydayValue(Everyday::cp1252); }
const TextEncoding& TextEncoding::cp1253() { return everydayValue(Everyday::cp1253); }
const TextEncoding& TextEncoding::cp1254() { return everydayValue(Everyday::cp1254); }
const TextEncoding& TextEncoding::cp1257() { return everydayValue(Everyday::cp1257); }
const TextEncoding& TextEncoding::macRoman() { return everydayValue(Everyday::macRoman); }
const TextEncoding& TextEncoding::koi8r() { return everydayValue(Everyday::koi8r); }
const TextEncoding& TextEncoding::cp437() { return everydayValue(Everyday::cp437); }
const TextEncoding& TextEncoding::cp850() { return everydayValue(Everyday::cp850); }
const TextEncoding& TextEncoding::shiftJIS() { return everydayValue(Everyday::shiftJIS); }
const TextEncoding& TextEncoding::eucJP() { return everydayValue(Everyday::eucJP); }
const TextEncoding& TextEncoding::iso2022JP() { return everydayValue(Everyday::iso2022JP); }
const TextEncoding& TextEncoding::gb18030() { return everydayValue(Everyday::gb18030); }
const TextEncoding& TextEncoding::big5() { return everydayValue(Everyday::big5); }
const TextEncoding& TextEncoding::eucKR() { return everydayValue(Everyday::eucKR); }

const TextEncoding& TextEncoding::ebcdicUS() {
    static const TextEncoding value = [] {
        TextEncoding built;
        built.id = "ebcdic";
        built.displayName = "EBCDIC (US)";
        built.converterName = "ibm-37_P100-1995";
        built.asciiCompatible = false;
        built.ebcdic = true;
        return built;
    }();
    return value;
}

const std::vector<TextEncoding>& TextEncoding::catalogue() {
    static const std::vector<TextEncoding> values = [] {
        std::vector<TextEncoding> built;
        for (const auto& entry : Charsets::entries()) built.push_back(fromCatalogue(entry));
        return built;
    }();
    return values;
}

const std::vector<TextEncoding>& TextEncoding::ebcdicPages() {
    static const std::vector<TextEncoding> values = [] {
        std::vector<TextEncoding> built;
        for (const auto& row : ebcdicPageRows()) built.push_back(row.encoding);
        return built;
    }();
    return values;
}

const std::vector<TextEncoding>& TextEncoding::japaneseEBCDIC() {
    // The mixed pages 930, 939, 1390 and 1399 join here with their stateful codec.
    static const std::vector<TextEncoding> values;
    return values;
}

const std::vector<TextEncoding>& TextEncoding::libraryAndSixBit() {
    // MARC-8 and the six-bit codes join here with their codecs.
    static const std::vector<TextEncoding> values;
    return values;
}

const std::vector<TextEncoding>& TextEncoding::all() {
    static const std::vector<TextEncoding> values = [] {
        std::vector<TextEncoding> built = everyday();
        built.push_back(ebcdicUS());
        for (const auto* part : {&catalogue(), &ebcdicPages(), &japaneseEBCDIC(), &libraryAndSixBit()}) {
            built.insert(built.end(), part->begin(), part->end());
        }
        return built;
    }();
    return values;
}

const TextEncoding& TextEncoding::ebcdicPage(std::string_view number) {
    for (const auto& page : ebcdicPages()) {
        if (std::string_view(page.id).substr(6) == number) return page;
    }
    return ebcdicUS();
}

const TextEncoding& TextEncoding::ebcdic037() { return ebcdicPage("037"); }
const TextEncoding& TextEncoding::ebcdic273() { return ebcdicPage("273"); }
const TextEncoding& TextEncoding::ebcdic875() { return ebcdicPage("875"); }

const std::vector<TextEncoding>& TextEncoding::ebcdicDetectionPages() {
    static const std::vector<TextEncoding> values = [] {
        std::vector<TextEncoding> built;
        for (const char* number : {"037", "273", "277", "278", "280", "284", "285", "297", "420", "424", "500", "870",
                                   "871", "875", "880", "905", "1026"}) {
            const TextEncoding& page = ebcdicPage(number);
            if (page.table) built.push_back(page);
        }
        return built;
    }();
    return values;
}

const std::array<bool, 256>& TextEncoding::ebcdicDistinguishingBytes() {
    static const std::array<bool, 256> bytes = [] {
        std::array<bool, 256> differing{};
        const auto& pages = ebcdicDetectionPages();
        for (std::size_t b = 0; b < 256; ++b) {
            for (const auto& page : pages) {
                if ((*page.table)[b] != (*pages.front().table)[b]) differing[b] = true;
            }
        }
        return differing;
    }();
    return bytes;
}

// MARK: names

std::string TextEncoding::normalise(std::string_view name) {
    std::string out;
    out.reserve(name.size());
    for (const char c : name) {
        const auto byte = static_cast<unsigned char>(c);
        if (std::isalnum(byte)) out.push_back(static_cast<char>(std::tolower(byte)));
    }
    return out;
}

const TextEncoding* TextEncoding::byId(std::string_view id) {
    static const std::unordered_map<std::string, const TextEncoding*> index = [] {
        std::unordered_map<std::string, const TextEncoding*> built;
        for (const auto& encoding : all()) built.try_emplace(encoding.id, &encoding);
        return built;
    }();
    const auto found = index.find(std::string(id));
    return found == index.end() ? nullptr : found->second;
}

const std::map<std::string, const TextEncoding*, std::less<>>& TextEncoding::byAlias() {
    static const std::map<std::string, const TextEncoding*, std::less<>> aliases = [] {
        std::map<std::string, const TextEncoding*, std::less<>> built;
        auto add = [&](std::string_view name, const TextEncoding* encoding) {
            const std::string key = normalise(name);
            if (!key.empty()) built.try_emplace(key, encoding);   // the first in `all` order keeps a name
        };
        const auto& family = all();
        std::unordered_map<std::string, const Charsets::Entry*> entries;
        for (const auto& entry : Charsets::entries()) entries.try_emplace(entry.id, &entry);
        const auto& sets = everydaySets();
        for (std::size_t i = 0; i < family.size(); ++i) {
            const TextEncoding* encoding = &family[i];
            add(encoding->id, encoding);
            add(encoding->displayName, encoding);
            if (i < sets.size()) {
                for (const char* spelling : sets[i].spellings) add(spelling, encoding);
            } else if (encoding->id == "ebcdic") {
                for (const char* spelling : {"ebcdic-us", "ebcdic-cp-us"}) add(spelling, encoding);
            } else if (const auto entry = entries.find(encoding->id); entry != entries.end()) {
                for (const auto& alias : entry->second->aliases) add(alias, encoding);
            } else if (encoding->ebcdic && encoding->table) {
                const std::string number = encoding->id.substr(6);
                const std::string trimmed = number.substr(std::min(number.find_first_not_of('0'), number.size()));
                for (const std::string_view prefix : {"cp", "ibm", "ibm-", "ccsid", "ebcdic-"}) {
                    add(std::string(prefix) + number, encoding);
                    add(std::string(prefix) + trimmed, encoding);
                }
            }
        }
        return built;
    }();
    return aliases;
}

const TextEncoding* TextEncoding::named(std::string_view name) {
    if (const TextEncoding* exact = byId(name)) return exact;
    const auto& aliases = byAlias();
    const auto found = aliases.find(normalise(name));
    return found == aliases.end() ? nullptr : found->second;
}

const TextEncoding* TextEncoding::encodingSpelled(std::string_view text) {
    if (const TextEncoding* found = named(text)) return found;
    const std::string word = normalise(text);
    if (word.empty()) return nullptr;
    static const std::unordered_map<std::string, const TextEncoding* (*)()> fixed = {
        {"ebc", [] { return &ebcdicUS(); }},       {"ebcdic", [] { return &ebcdicUS(); }},
        {"bcdic", [] { return &ebcdicUS(); }},     {"mainframe", [] { return &ebcdicUS(); }},
        {"iso88591", [] { return &latin1(); }},    {"l1", [] { return &latin1(); }},
        {"latin", [] { return &latin1(); }},       {"iso88592", [] { return &latin2(); }},
        {"iso885915", [] { return &latin9(); }},   {"windows1250", [] { return &cp1250(); }},
        {"win1250", [] { return &cp1250(); }},     {"windows1251", [] { return &cp1251(); }},
        {"win1251", [] { return &cp1251(); }},     {"windows1253", [] { return &cp1253(); }},
        {"win1253", [] { return &cp1253(); }},     {"windows1254", [] { return &cp1254(); }},
        {"win1254", [] { return &cp1254(); }},     {"windows1257", [] { return &cp1257(); }},
        {"win1257", [] { return &cp1257(); }},     {"windows1252", [] { return &cp1252(); }},
        {"win1252", [] { return &cp1252(); }},     {"ansi", [] { return &cp1252(); }},
        {"mac", [] { return &macRoman(); }},       {"macintosh", [] { return &macRoman(); }},
        {"koi8", [] { return &koi8r(); }},         {"koi8r", [] { return &koi8r(); }},
        {"sjis", [] { return &shiftJIS(); }},      {"shiftjis", [] { return &shiftJIS(); }},
        {"cp932", [] { return &shiftJIS(); }},     {"gbk", [] { return &gb18030(); }},
        {"gb2312", [] { return &gb18030(); }},     {"utf", [] { return &utf8(); }},
        {"utf8", [] { return &utf8(); }},          {"u8", [] { return &utf8(); }},
    };
    if (const auto found = fixed.find(word); found != fixed.end()) return found->second();
    std::string_view rest = word;
    for (std::string_view prefix : {"ebcdic", "cp", "ibm", "codepage", "page", "x"}) {
        if (rest.starts_with(prefix)) {
            rest.remove_prefix(prefix.size());
            break;
        }
    }
    if (!allDigits(rest) || rest.size() > 9) return nullptr;
    int number = 0;
    std::from_chars(rest.data(), rest.data() + rest.size(), number);
    char padded[16];
    std::snprintf(padded, sizeof padded, "%03d", number);
    for (const auto& page : ebcdicPages()) {
        if (std::string_view(page.id).substr(6) == padded) return &page;
    }
    switch (number) {
    case 1250: return &cp1250();
    case 1251: return &cp1251();
    case 1252: return &cp1252();
    case 1253: return &cp1253();
    case 1254: return &cp1254();
    case 1257: return &cp1257();
    case 437: return &cp437();
    case 850: return &cp850();
    case 932: return &shiftJIS();
    case 936: return &gb18030();
    case 949: return &eucKR();
    case 950: return &big5();
    case 65001: return &utf8();
    default: return nullptr;
    }
}

const TextEncoding* TextEncoding::namedByFile(std::string_view name) {
    std::vector<std::string> pieces;
    std::string lower;
    for (const char c : name) lower.push_back(static_cast<char>(std::tolower(static_cast<unsigned char>(c))));
    std::size_t start = 0;
    while (start <= lower.size()) {
        std::size_t end = lower.find('.', start);
        if (end == std::string::npos) end = lower.size();
        if (end > start) pieces.push_back(lower.substr(start, end - start));
        start = end + 1;
    }
    if (pieces.size() < 2) return nullptr;
    std::vector<std::size_t> examined = {pieces.size() - 1};
    if (pieces.size() - 2 > 0) examined.push_back(pieces.size() - 2);
    for (const std::size_t index : examined) {
        const std::string word = normalise(pieces[index]);
        if (word.empty()) continue;
        if (const TextEncoding* found = encodingSpelled(word)) return found;
    }
    return nullptr;
}

const TextEncoding* TextEncoding::ebcdicPageNamedByBaseName(std::string_view name) {
    const std::string base = normalise(name.substr(0, name.find('.')));
    if (!(base.starts_with("ebcdic") || base.starts_with("cp") || base.starts_with("ibm"))) return nullptr;
    if (base.empty() || !std::isdigit(static_cast<unsigned char>(base.back()))) return nullptr;
    const TextEncoding* found = encodingSpelled(base);
    return found && found->isEBCDIC() ? found : nullptr;
}

} // namespace brim
