#include "charsets/Charsets.h"

#include "charsets/DoubleByteCodec.h"
#include "charsets/tables/CatalogueTables.h"

#include <initializer_list>
#include <stdexcept>

namespace brim::Charsets {

namespace {

// How a row converts: a system converter by name, its generated table, or its double-byte codec.
enum class Via : std::uint8_t { converter, singleByteConverter, statefulConverter, table, doubleByte, ebcdic };

struct Row {
    const char* id;
    const char* displayName;
    const char* group;
    Via via;
    const char* converterName;       // ICU canonical name or "iconv:NAME"; unused for tables
    std::vector<std::string> aliases;
};

std::vector<std::string> isoAliases(int part, const char* latinName = nullptr) {
    std::vector<std::string> names = {"iso-8859-" + std::to_string(part), "iso8859-" + std::to_string(part)};
    if (latinName != nullptr) {
        names.emplace_back(latinName);
    }
    return names;
}

std::vector<std::string> windowsAliases(int page) {
    const std::string n = std::to_string(page);
    return {"cp" + n, "windows-" + n};
}

std::vector<std::string> dosAliases(int page) {
    const std::string n = std::to_string(page);
    return {"cp" + n, "dos cp" + n, "dos-cp" + n, "doscp" + n, "ibm" + n, "windows-" + n, "x-mac-" + n};
}

std::vector<std::string> macAliases(const std::string& name) {
    return {"mac-" + name, "mac" + name, "x-mac-" + name};
}

std::vector<std::string> names(std::initializer_list<const char*> list) {
    return {list.begin(), list.end()};
}

// The catalogue in its order. Sets that neither ICU nor glibc converts as published, and the DOS pages
// that ICU has with 0x1A, 0x1C and 0x7F moved, have generated tables (scripts/generate-charset-tables).
std::vector<Row> rows() {
    using enum Via;
    return {
        // ISO 8859
        {"latin3", "ISO-8859-3 (Latin-3, Maltese, Esperanto)", "iso", singleByteConverter, "ibm-913_P100-2000", isoAliases(3, "latin3")},
        {"latin4", "ISO-8859-4 (Latin-4, Baltic, Nordic)", "iso", singleByteConverter, "ibm-914_P100-1995", isoAliases(4, "latin4")},
        {"iso88595", "ISO-8859-5 (Cyrillic)", "iso", singleByteConverter, "ibm-915_P100-1995", isoAliases(5)},
        {"iso88596", "ISO-8859-6 (Arabic)", "iso", singleByteConverter, "ibm-1089_P100-1995", isoAliases(6)},
        {"iso88597", "ISO-8859-7 (Greek)", "iso", singleByteConverter, "ibm-9005_X110-2007", isoAliases(7)},
        {"iso88598", "ISO-8859-8 (Hebrew)", "iso", singleByteConverter, "ibm-5012_P100-1999", isoAliases(8)},
        {"latin5", "ISO-8859-9 (Latin-5, Turkish)", "iso", singleByteConverter, "ibm-920_P100-1995", isoAliases(9, "latin5")},
        {"latin6", "ISO-8859-10 (Latin-6, Nordic)", "iso", singleByteConverter, "iso-8859_10-1998", isoAliases(10, "latin6")},
        {"iso885911", "ISO-8859-11 (Thai)", "iso", singleByteConverter, "iso-8859_11-2001", isoAliases(11)},
        {"latin7", "ISO-8859-13 (Latin-7, Baltic)", "iso", singleByteConverter, "ibm-921_P100-1995", isoAliases(13, "latin7")},
        {"latin8", "ISO-8859-14 (Latin-8, Celtic)", "iso", singleByteConverter, "iso-8859_14-1998", isoAliases(14, "latin8")},
        // Not in ICU 72.
        {"latin10", "ISO-8859-16 (Latin-10, South-Eastern Europe)", "iso", singleByteConverter, "iconv:ISO-8859-16", isoAliases(16, "latin10")},

        // Windows
        {"cp1255", "Windows-1255 (Hebrew)", "windows", singleByteConverter, "ibm-9447_P100-2002", windowsAliases(1255)},
        {"cp1256", "Windows-1256 (Arabic)", "windows", singleByteConverter, "ibm-9448_X100-2005", windowsAliases(1256)},
        // ICU's, not glibc's: glibc's CP1258 composes while decoding.
        {"cp1258", "Windows-1258 (Vietnamese)", "windows", singleByteConverter, "ibm-5354_P100-1998", windowsAliases(1258)},
        {"cp949", "Windows-949 (Korean)", "windows", converter, "windows-949-2000", windowsAliases(949)},
        {"cp932", "Windows-932 (Japanese)", "windows", converter, "ibm-943_P15A-2003", windowsAliases(932)},
        {"cp936", "Windows-936 (Simplified Chinese)", "windows", converter, "windows-936-2000", windowsAliases(936)},
        {"cp950", "Windows-950 (Traditional Chinese)", "windows", converter, "windows-950-2000", windowsAliases(950)},
        {"cp874", "Windows-874 (Thai)", "windows", singleByteConverter, "windows-874-2000", windowsAliases(874)},
        {"cp1162", "Windows-1162 (Thai)", "windows", singleByteConverter, "ibm-1162_P100-1999", windowsAliases(1162)},

        // DOS
        {"cp737", "DOS CP737 (Greek)", "dos", table, "", dosAliases(737)},
        {"cp775", "DOS CP775 (Baltic)", "dos", table, "", dosAliases(775)},
        {"cp851", "DOS CP851 (Greek)", "dos", table, "", dosAliases(851)},
        {"cp852", "DOS CP852 (Central European)", "dos", table, "", dosAliases(852)},
        {"cp855", "DOS CP855 (Cyrillic)", "dos", table, "", dosAliases(855)},
        {"cp857", "DOS CP857 (Turkish)", "dos", table, "", dosAliases(857)},
        {"cp860", "DOS CP860 (Portuguese)", "dos", table, "", dosAliases(860)},
        {"cp861", "DOS CP861 (Icelandic)", "dos", table, "", dosAliases(861)},
        {"cp862", "DOS CP862 (Hebrew)", "dos", table, "", dosAliases(862)},
        {"cp863", "DOS CP863 (Canadian French)", "dos", table, "", dosAliases(863)},
        {"cp864", "DOS CP864 (Arabic)", "dos", table, "", dosAliases(864)},
        {"cp865", "DOS CP865 (Nordic)", "dos", table, "", dosAliases(865)},
        {"cp866", "DOS CP866 (Russian)", "dos", table, "", dosAliases(866)},
        {"cp869", "DOS CP869 (Greek)", "dos", table, "", dosAliases(869)},
        {"cp720", "DOS CP720 (Arabic)", "dos", table, "", dosAliases(720)},
        {"cp808", "DOS CP808 (Russian, euro)", "dos", table, "", dosAliases(808)},
        {"cp848", "DOS CP848 (Ukrainian, euro)", "dos", table, "", dosAliases(848)},
        {"cp849", "DOS CP849 (Belarusian, euro)", "dos", table, "", dosAliases(849)},
        {"cp858", "DOS CP858 (Western, euro)", "dos", table, "", dosAliases(858)},
        {"cp872", "DOS CP872 (Cyrillic, euro)", "dos", table, "", dosAliases(872)},
        {"cp878", "DOS CP878 (Russian, KOI8-R)", "dos", table, "", dosAliases(878)},
        {"cp891", "DOS CP891 (Korean)", "dos", table, "", dosAliases(891)},
        {"cp897", "DOS CP897 (Japanese)", "dos", table, "", dosAliases(897)},
        {"cp903", "DOS CP903 (Simplified Chinese)", "dos", table, "", dosAliases(903)},
        {"cp904", "DOS CP904 (Traditional Chinese)", "dos", table, "", dosAliases(904)},
        {"cp921", "DOS CP921 (Baltic)", "dos", table, "", dosAliases(921)},
        {"cp922", "DOS CP922 (Estonian)", "dos", table, "", dosAliases(922)},
        {"cp1125", "DOS CP1125 (Ukrainian)", "dos", table, "", dosAliases(1125)},
        {"cp1131", "DOS CP1131 (Belarusian)", "dos", table, "", dosAliases(1131)},
        {"cp770", "DOS CP770 (Baltic)", "dos", table, "", dosAliases(770)},
        {"cp771", "DOS CP771 (Lithuanian, KBL)", "dos", table, "", dosAliases(771)},
        {"cp772", "DOS CP772 (Lithuanian, Russian)", "dos", table, "", dosAliases(772)},
        {"cp773", "DOS CP773 (Latvian)", "dos", table, "", dosAliases(773)},
        {"cp774", "DOS CP774 (Lithuanian)", "dos", table, "", dosAliases(774)},

        // Mac (Tibetan and "Mail (Western)" are left out: no public mapping exists)
        {"maccentraleurope", "Mac OS Central European", "mac", singleByteConverter, "macos-29-10.2", macAliases("centraleurope")},
        {"maccyrillic", "Mac OS Cyrillic", "mac", singleByteConverter, "macos-7_3-10.2", macAliases("cyrillic")},
        {"macukrainian", "Mac OS Ukrainian", "mac", table, "", macAliases("ukrainian")},
        {"macgreek", "Mac OS Greek", "mac", singleByteConverter, "macos-6_2-10.4", macAliases("greek")},
        {"macturkish", "Mac OS Turkish", "mac", singleByteConverter, "macos-35-10.2", macAliases("turkish")},
        {"machebrew", "Mac OS Hebrew", "mac", table, "", macAliases("hebrew")},
        {"macarabic", "Mac OS Arabic", "mac", table, "", macAliases("arabic")},
        {"macfarsi", "Mac OS Farsi", "mac", table, "", macAliases("farsi")},
        {"macthai", "Mac OS Thai", "mac", table, "", macAliases("thai")},
        {"macromanian", "Mac OS Romanian", "mac", table, "", macAliases("romanian")},
        {"macicelandic", "Mac OS Icelandic", "mac", table, "", macAliases("icelandic")},
        {"maccroatian", "Mac OS Croatian", "mac", table, "", macAliases("croatian")},
        {"macceltic", "Mac OS Celtic", "mac", table, "", macAliases("celtic")},
        {"macgaelic", "Mac OS Gaelic", "mac", table, "", macAliases("gaelic")},
        {"macdevanagari", "Mac OS Devanagari", "mac", table, "", macAliases("devanagari")},
        {"macgurmukhi", "Mac OS Gurmukhi", "mac", table, "", macAliases("gurmukhi")},
        {"macgujarati", "Mac OS Gujarati", "mac", table, "", macAliases("gujarati")},
        {"macinuit", "Mac OS Inuit", "mac", table, "", macAliases("inuit")},
        {"macsymbol", "Mac OS Symbol", "mac", table, "", macAliases("symbol")},
        {"macdingbats", "Mac OS Dingbats", "mac", table, "", macAliases("dingbats")},
        {"macjapanese", "Mac OS Japanese", "mac", doubleByte, "", macAliases("japanese")},
        {"macchinesesimp", "Mac OS Simplified Chinese", "mac", doubleByte, "", macAliases("chinesesimp")},
        {"macchinesetrad", "Mac OS Traditional Chinese", "mac", doubleByte, "", macAliases("chinesetrad")},
        {"mackorean", "Mac OS Korean", "mac", doubleByte, "", macAliases("korean")},
        {"mackeyboard", "Mac OS Keyboard Symbols", "mac", table, "", macAliases("keyboard")},

        // CJK (Big5-E is left out: no public mapping exists)
        {"gb2312", "GB 2312 (Simplified Chinese)", "cjk", converter, "ibm-1383_P110-1999", names({"gb2312", "euc-cn", "csgb2312", "gb_2312-80"})},
        {"gbk", "GBK (Simplified Chinese)", "cjk", converter, "windows-936-2000", names({"gbk", "x-gbk"})},
        {"hzgb2312", "HZ-GB-2312 (Simplified Chinese)", "cjk", statefulConverter, "HZ", names({"hz-gb-2312", "hz"})},
        {"big5hkscs", "Big5-HKSCS (Hong Kong)", "cjk", converter, "ibm-1375_P100-2008", names({"big5-hkscs", "big5hkscs", "hkscs"})},
        {"euctw", "EUC-TW (Traditional Chinese)", "cjk", converter, "euc-tw-2014", names({"euc-tw", "cns11643"})},
        {"iso2022cn", "ISO-2022-CN (Chinese)", "cjk", statefulConverter, "ISO_2022,locale=zh,version=0", names({"iso-2022-cn", "csiso2022cn"})},
        {"iso2022cnext", "ISO-2022-CN-EXT (Chinese)", "cjk", statefulConverter, "ISO_2022,locale=zh,version=1", names({"iso-2022-cn-ext"})},
        // Not in ICU 72.
        {"shiftjis2004", "Shift-JIS-2004 (Japanese)", "cjk", converter, "iconv:SHIFT_JISX0213", names({"shift_jis-2004", "shift_jisx0213", "sjis-2004"})},
        {"iso2022jp1", "ISO-2022-JP-1 (Japanese)", "cjk", statefulConverter, "ISO_2022,locale=ja,version=1", names({"iso-2022-jp-1"})},
        {"iso2022jp2", "ISO-2022-JP-2 (Japanese)", "cjk", statefulConverter, "ISO_2022,locale=ja,version=2", names({"iso-2022-jp-2", "csiso2022jp2"})},
        {"iso2022kr", "ISO-2022-KR (Korean)", "cjk", statefulConverter, "ISO_2022,locale=ko,version=0", names({"iso-2022-kr", "csiso2022kr"})},

        // Cyrillic and others (KOI8-C "Old Cyrillic" is left out: no public mapping exists)
        {"koi8u", "KOI8-U (Ukrainian)", "cyrillic", singleByteConverter, "ibm-1168_P100-2002", names({"koi8-u"})},
        {"koi8t", "KOI8-T (Tajik)", "cyrillic", table, "", names({"koi8-t"})},
        {"ptcp154", "PTCP154 (Kazakh Cyrillic)", "cyrillic", table, "", names({"pt154", "pt-154", "cp154", "csptcp154"})},
        {"kz1048", "KZ-1048 (Kazakh)", "cyrillic", table, "", names({"kz-1048", "rk1048", "strk1048-2002"})},
        {"cwi2", "CWI-2 (Polish, legacy)", "other", table, "", names({"cwi", "cwi-2"})},
        {"mik", "MIK (Bulgarian)", "cyrillic", table, "", names({"bulgaria-pc"})},
        {"amiga1251", "Amiga-1251 (Cyrillic)", "cyrillic", table, "", names({"amiga-1251", "ami1251"})},
        // glibc's, not ICU's: ICU's "TIS-620" is Windows-874.
        {"tis620", "TIS-620 (Thai)", "south-asia", table, "", names({"tis-620", "tis620-0", "iso-ir-166"})},
        {"viscii", "VISCII (Vietnamese)", "south-asia", table, "", names({"viscii1.1-1", "csviscii"})},
        {"iscii", "ISCII (Devanagari)", "south-asia", statefulConverter, "ISCII,version=0", names({"iscii-dev", "x-iscii-de", "iscii91"})},
        {"tscii", "TSCII (Tamil)", "south-asia", table, "", names({"tscii0.0"})},
        // A table, not glibc's TCVN: glibc composes while decoding.
        {"tcvn", "TCVN-5712 / VSCII-1 (Vietnamese)", "south-asia", table, "", names({"tcvn-5712", "tcvn5712-1", "vscii", "vscii-1"})},
        {"armscii8", "ARMSCII-8 (Armenian)", "other", table, "", names({"armscii-8"})},
        {"georgianps", "Georgian-PS", "other", table, "", names({"georgian-ps"})},
        {"hproman8", "HP Roman-8", "other", table, "", names({"hp-roman8", "roman8", "r8", "cshproman8"})},
        {"atarist", "Atari ST (Western)", "other", table, "", names({"atari", "atari-st"})},
        {"riscos", "RISC OS (Latin-1)", "other", table, "", names({"risc-os", "riscos-latin1"})},
        {"nextstep", "NextStep (Western)", "other", table, "", names({"next", "nextstep-western"})},
        {"ebcdiclatin1", "EBCDIC (Latin 1)", "other", ebcdic, "ibm-37_P100-1995", names({"ebcdic-latin1", "ebcdic-cp-us"})},
    };
}

int hexDigit(char c) {
    if (c >= '0' && c <= '9') {
        return c - '0';
    }
    if (c >= 'A' && c <= 'F') {
        return c - 'A' + 10;
    }
    if (c >= 'a' && c <= 'f') {
        return c - 'a' + 10;
    }
    throw std::invalid_argument("not a hexadecimal digit");
}

std::uint16_t hexUnit(std::string_view text) {
    if (text.empty() || text.size() > 4) {
        throw std::invalid_argument("a UTF-16 unit has one to four hexadecimal digits");
    }
    unsigned value = 0;
    for (char c : text) {
        value = value * 16 + static_cast<unsigned>(hexDigit(c));
    }
    return static_cast<std::uint16_t>(value);
}

std::vector<Entry> build() {
    const auto& tableData = CatalogueTables::singleByteData();
    std::vector<Entry> result;
    for (Row& row : rows()) {
        Entry entry;
        entry.id = row.id;
        entry.displayName = row.displayName;
        entry.group = row.group;
        entry.aliases = std::move(row.aliases);
        switch (row.via) {
        case Via::converter:
            entry.converterName = row.converterName;
            break;
        case Via::singleByteConverter:
            entry.converterName = row.converterName;
            entry.isSingleByte = true;
            break;
        case Via::statefulConverter:
            entry.converterName = row.converterName;
            entry.isStateful = true;
            break;
        case Via::ebcdic:
            entry.converterName = row.converterName;
            entry.isSingleByte = true;
            entry.isEBCDIC = true;
            break;
        case Via::table: {
            const CatalogueTables::SingleByteData* data = nullptr;
            for (const auto& candidate : tableData) {
                if (candidate.id == entry.id) {
                    data = &candidate;
                }
            }
            if (data == nullptr) {
                throw std::logic_error("no generated table for " + entry.id);
            }
            entry.table = parseTable(data->table);
            entry.expansions = parseExpansions(data->expansions);
            entry.pairs = parsePairs(data->pairs);
            entry.isSingleByte = entry.pairs.empty();
            break;
        }
        case Via::doubleByte:
            entry.doubleByteCodec = DoubleByteCodec::named(entry.id);
            if (entry.doubleByteCodec == nullptr) {
                throw std::logic_error("no double-byte codec for " + entry.id);
            }
            break;
        }
        result.push_back(std::move(entry));
    }
    return result;
}

} // namespace

std::array<std::uint16_t, 256> parseTable(std::string_view hex) {
    if (hex.size() != 256 * 4) {
        throw std::invalid_argument("a table has 256 units of four hexadecimal digits");
    }
    std::array<std::uint16_t, 256> table{};
    for (std::size_t i = 0; i < 256; ++i) {
        table[i] = hexUnit(hex.substr(i * 4, 4));
    }
    return table;
}

namespace {

/// "UUUU.UUUU": one or more UTF-16 units.
std::u16string parseUnits(std::string_view text) {
    std::u16string units;
    std::size_t from = 0;
    while (from <= text.size()) {
        std::size_t dot = text.find('.', from);
        if (dot == std::string_view::npos) {
            dot = text.size();
        }
        units.push_back(static_cast<char16_t>(hexUnit(text.substr(from, dot - from))));
        from = dot + 1;
    }
    return units;
}

/// Calls `body` with each item of a list separated by spaces.
template <typename Body> void forEachItem(std::string_view text, Body&& body) {
    std::size_t position = 0;
    while (position < text.size()) {
        if (text[position] == ' ') {
            ++position;
            continue;
        }
        std::size_t end = text.find(' ', position);
        if (end == std::string_view::npos) {
            end = text.size();
        }
        body(text.substr(position, end - position));
        position = end;
    }
}

} // namespace

std::map<std::uint16_t, std::u16string> parsePairs(std::string_view text) {
    std::map<std::uint16_t, std::u16string> pairs;
    forEachItem(text, [&](std::string_view item) {
        if (item.size() < 6 || item[4] != ':') {
            throw std::invalid_argument("a two-byte code reads LLTT:UUUU.UUUU");
        }
        const std::uint16_t code = hexUnit(item.substr(0, 4));
        if (code >> 8 < 0x80 || !pairs.emplace(code, parseUnits(item.substr(5))).second) {
            throw std::invalid_argument("a two-byte code has a lead byte of 0x80 or more and one entry per pair");
        }
    });
    return pairs;
}

std::map<std::uint8_t, std::u16string> parseExpansions(std::string_view text) {
    std::map<std::uint8_t, std::u16string> expansions;
    forEachItem(text, [&](std::string_view item) {
        if (item.size() < 4 || item[2] != ':') {
            throw std::invalid_argument("an expansion reads BB:UUUU.UUUU");
        }
        const auto byte = static_cast<std::uint8_t>(hexDigit(item[0]) * 16 + hexDigit(item[1]));
        std::u16string units = parseUnits(item.substr(3));
        if (units.size() < 2 || !expansions.emplace(byte, std::move(units)).second) {
            throw std::invalid_argument("an expansion has several units and one entry per byte");
        }
    });
    return expansions;
}

const std::vector<Entry>& entries() {
    static const std::vector<Entry> catalogue = build();
    return catalogue;
}

const Entry* entry(std::string_view id) {
    for (const Entry& candidate : entries()) {
        if (candidate.id == id) {
            return &candidate;
        }
    }
    return nullptr;
}

const std::vector<std::string>& omittedSets() {
    static const std::vector<std::string> omitted = {
        "Mac OS Tibetan", "Mac OS Mail (Western)", "Big5-E (Traditional Chinese)", "KOI8-C (Old Cyrillic)"};
    return omitted;
}

} // namespace brim::Charsets
