#include "charsets/Charsets.h"
#include "charsets/UnicodeText.h"
#include "charsets/DoubleByteCodec.h"
#include "charsets/TextEncoding.h"
#include "charsets/Transcoder.h"

#include <gtest/gtest.h>
#include <unicode/ucnv.h>
#include <unicode/ucnv_cb.h>

#include <iconv.h>

#include <algorithm>
#include <cerrno>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace brim {
namespace {

using Bytes = std::vector<std::uint8_t>;

// MARK: the reference converters, called directly

void toUnicodeAlwaysFFFD(const void*, UConverterToUnicodeArgs* args, const char*, int32_t,
                         UConverterCallbackReason reason, UErrorCode* status) {
    if (reason > UCNV_IRREGULAR) {
        return;
    }
    *status = U_ZERO_ERROR;
    const UChar replacement = 0xFFFD;
    ucnv_cbToUWriteUChars(args, &replacement, 1, 0, status);
}

/// ICU's reading of `bytes` as one whole input, each unreadable stretch as U+FFFD.
std::u16string icuDecode(const std::string& name, const Bytes& bytes) {
    UErrorCode status = U_ZERO_ERROR;
    UConverter* converter = ucnv_open(name.c_str(), &status);
    EXPECT_TRUE(U_SUCCESS(status)) << name;
    if (U_FAILURE(status)) {
        return {};
    }
    ucnv_setToUCallBack(converter, toUnicodeAlwaysFFFD, nullptr, nullptr, nullptr, &status);
    std::u16string out(bytes.size() * 4 + 16, u'\0');
    const int32_t length = ucnv_toUChars(converter, out.data(), static_cast<int32_t>(out.size()),
                                         reinterpret_cast<const char*>(bytes.data()),
                                         static_cast<int32_t>(bytes.size()), &status);
    ucnv_close(converter);
    out.resize(U_SUCCESS(status) ? static_cast<std::size_t>(length) : 0);
    return out;
}

/// ICU's bytes for `text`, or absent when a character has no mapping (fallbacks allowed).
std::optional<Bytes> icuEncode(const std::string& name, const std::u16string& text) {
    UErrorCode status = U_ZERO_ERROR;
    UConverter* converter = ucnv_open(name.c_str(), &status);
    if (U_FAILURE(status)) {
        return std::nullopt;
    }
    ucnv_setFromUCallBack(converter, UCNV_FROM_U_CALLBACK_STOP, nullptr, nullptr, nullptr, &status);
    std::string out(text.size() * 8 + 16, '\0');
    const int32_t length = ucnv_fromUChars(converter, out.data(), static_cast<int32_t>(out.size()), text.data(),
                                           static_cast<int32_t>(text.size()), &status);
    ucnv_close(converter);
    if (U_FAILURE(status)) {
        return std::nullopt;
    }
    return Bytes(out.begin(), out.begin() + length);
}

std::u16string utf16(std::string_view utf8) {
    std::u16string out;
    for (std::size_t i = 0; i < utf8.size();) {
        const auto lead = static_cast<std::uint8_t>(utf8[i]);
        char32_t scalar = lead;
        std::size_t length = 1;
        if (lead >= 0xF0) {
            scalar = lead & 0x07u, length = 4;
        } else if (lead >= 0xE0) {
            scalar = lead & 0x0Fu, length = 3;
        } else if (lead >= 0xC0) {
            scalar = lead & 0x1Fu, length = 2;
        }
        for (std::size_t k = 1; k < length && i + k < utf8.size(); ++k) {
            scalar = (scalar << 6) | (static_cast<std::uint8_t>(utf8[i + k]) & 0x3Fu);
        }
        if (scalar >= 0x10000) {
            out.push_back(static_cast<char16_t>(0xD800 + ((scalar - 0x10000) >> 10)));
            out.push_back(static_cast<char16_t>(0xDC00 + ((scalar - 0x10000) & 0x3FF)));
        } else {
            out.push_back(static_cast<char16_t>(scalar));
        }
        i += length;
    }
    return out;
}

std::string utf8(std::u16string_view text) {
    std::string out;
    for (std::size_t i = 0; i < text.size(); ++i) {
        char32_t scalar = text[i];
        if (scalar >= 0xD800 && scalar <= 0xDBFF && i + 1 < text.size()) {
            scalar = 0x10000 + ((scalar - 0xD800) << 10) + (text[++i] - 0xDC00u);
        }
        UnicodeText::appendUTF8(out, scalar);
    }
    return out;
}

/// glibc's reading of `bytes`, each refused byte as U+FFFD.
std::u16string glibcDecode(const std::string& name, const Bytes& bytes) {
    const iconv_t descriptor = iconv_open("UTF-8", name.c_str());
    EXPECT_NE(descriptor, reinterpret_cast<iconv_t>(-1)) << name;
    if (descriptor == reinterpret_cast<iconv_t>(-1)) {
        return {};
    }
    std::string out;
    char* read = const_cast<char*>(reinterpret_cast<const char*>(bytes.data()));
    std::size_t left = bytes.size();
    std::string buffer(bytes.size() * 8 + 64, '\0');
    while (true) {
        char* write = buffer.data();
        std::size_t room = buffer.size();
        const std::size_t result = iconv(descriptor, left > 0 ? &read : nullptr, &left, &write, &room);
        out.append(buffer.data(), write);
        if (result != static_cast<std::size_t>(-1)) {
            if (left == 0) {
                // A converter that composes holds the last character until told the input ended.
                write = buffer.data();
                room = buffer.size();
                iconv(descriptor, nullptr, nullptr, &write, &room);
                out.append(buffer.data(), write);
                break;
            }
            continue;
        }
        if (errno == E2BIG) {
            continue;
        }
        out += "\xEF\xBF\xBD";
        ++read;
        --left;
        if (left == 0) {
            write = buffer.data();
            room = buffer.size();
            iconv(descriptor, nullptr, nullptr, &write, &room);
            out.append(buffer.data(), write);
            break;
        }
    }
    iconv_close(descriptor);
    return utf16(out);
}

std::optional<Bytes> glibcEncode(const std::string& name, const std::u16string& text) {
    const iconv_t descriptor = iconv_open(name.c_str(), "UTF-8");
    if (descriptor == reinterpret_cast<iconv_t>(-1)) {
        return std::nullopt;
    }
    std::string input = utf8(text);
    char* read = input.data();
    std::size_t left = input.size();
    std::string buffer(input.size() * 8 + 64, '\0');
    char* write = buffer.data();
    std::size_t room = buffer.size();
    const std::size_t result = iconv(descriptor, &read, &left, &write, &room);
    iconv(descriptor, nullptr, nullptr, &write, &room);
    iconv_close(descriptor);
    if (result == static_cast<std::size_t>(-1)) {
        return std::nullopt;
    }
    return Bytes(buffer.data(), write);
}

// MARK: our side

const TextEncoding& encodingFor(const std::string& id) {
    const TextEncoding* encoding = TextEncoding::byId(id);
    if (encoding == nullptr) {
        ADD_FAILURE() << "no encoding " << id;
        return TextEncoding::utf8();
    }
    return *encoding;
}

std::u16string ourDecode(const TextEncoding& encoding, const Bytes& bytes) {
    Transcoder::BlockConverter converter(encoding, TextEncoding::utf8());
    Bytes out;
    converter.convert(bytes, out);
    converter.finish(out);
    return utf16(std::string(out.begin(), out.end()));
}

Bytes ourEncode(const TextEncoding& encoding, const std::u16string& text, std::int64_t* unwritable = nullptr) {
    Transcoder::BlockConverter converter(TextEncoding::utf8(), encoding);
    const std::string bytes = utf8(text);
    Bytes out;
    converter.convert(Bytes(bytes.begin(), bytes.end()), out);
    converter.finish(out);
    if (unwritable != nullptr) {
        *unwritable = converter.report().unwritable;
    }
    return out;
}

std::string hex(const Bytes& bytes) {
    static constexpr char digits[] = "0123456789ABCDEF";
    std::string text;
    for (std::uint8_t byte : bytes) {
        text += digits[byte >> 4];
        text += digits[byte & 15];
    }
    return text;
}

std::string units(const std::u16string& text) {
    std::string out;
    char buffer[8];
    for (char16_t unit : text) {
        std::snprintf(buffer, sizeof buffer, "%04X ", static_cast<unsigned>(unit));
        out += buffer;
    }
    return out;
}

// MARK: the catalogue's rows

TEST(Catalogue, holdsEveryPublishedRowInOrderWithFrozenIds) {
    // Ids are persisted in settings and sessions: this list may grow, never change.
    const std::vector<std::string> ids = {
        "latin3", "latin4", "iso88595", "iso88596", "iso88597", "iso88598", "latin5", "latin6", "iso885911",
        "latin7", "latin8", "latin10",
        "cp1255", "cp1256", "cp1258", "cp949", "cp932", "cp936", "cp950", "cp874", "cp1162",
        "cp737", "cp775", "cp851", "cp852", "cp855", "cp857", "cp860", "cp861", "cp862", "cp863", "cp864", "cp865",
        "cp866", "cp869", "cp720", "cp808", "cp848", "cp849", "cp858", "cp872", "cp878", "cp891", "cp897", "cp903",
        "cp904", "cp921", "cp922", "cp1125", "cp1131", "cp770", "cp771", "cp772", "cp773", "cp774",
        "maccentraleurope", "maccyrillic", "macukrainian", "macgreek", "macturkish", "machebrew", "macarabic",
        "macfarsi", "macthai", "macromanian", "macicelandic", "maccroatian", "macceltic", "macgaelic",
        "macdevanagari", "macgurmukhi", "macgujarati", "macinuit", "macsymbol", "macdingbats", "macjapanese",
        "macchinesesimp", "macchinesetrad", "mackorean", "mackeyboard",
        "gb2312", "gbk", "hzgb2312", "big5hkscs", "euctw", "iso2022cn", "iso2022cnext", "shiftjis2004",
        "iso2022jp1", "iso2022jp2", "iso2022kr",
        "koi8u", "koi8t", "ptcp154", "kz1048", "cwi2", "mik", "amiga1251", "tis620", "viscii", "iscii", "tscii",
        "tcvn", "armscii8", "georgianps", "hproman8", "atarist", "riscos", "nextstep", "ebcdiclatin1"};
    std::vector<std::string> actual;
    for (const auto& entry : Charsets::entries()) {
        actual.push_back(entry.id);
    }
    EXPECT_EQ(actual, ids);

    const std::set<std::string> groups = {"iso", "windows", "dos", "mac", "cjk", "cyrillic", "south-asia", "other"};
    std::set<std::string> names;
    for (const auto& entry : Charsets::entries()) {
        SCOPED_TRACE(entry.id);
        EXPECT_TRUE(groups.contains(entry.group));
        EXPECT_TRUE(names.insert(entry.displayName).second) << "display name twice";
        const int ways = (entry.converterName.empty() ? 0 : 1) + (entry.table ? 1 : 0) + (entry.doubleByteCodec ? 1 : 0);
        EXPECT_EQ(ways, 1) << "exactly one way to convert";
        EXPECT_TRUE(entry.expansions.empty() || entry.table);
    }
    for (const std::string& omitted : Charsets::omittedSets()) {
        EXPECT_FALSE(names.contains(omitted)) << omitted;
    }
    EXPECT_EQ(Charsets::entry("tscii")->expansions.size(), 63u);
    EXPECT_TRUE(Charsets::entry("ebcdiclatin1")->isEBCDIC);
    EXPECT_EQ(Charsets::entry("nothing"), nullptr);
}

TEST(Catalogue, aliasesFollowTheFamilyRules) {
    auto has = [](const Charsets::Entry& entry, const std::string& alias) {
        return std::find(entry.aliases.begin(), entry.aliases.end(), alias) != entry.aliases.end();
    };
    for (const auto& entry : Charsets::entries()) {
        SCOPED_TRACE(entry.id);
        EXPECT_FALSE(entry.aliases.empty());
        const std::string digits = [&] {
            // The number in the display name: "ISO-8859-13 (...)", "DOS CP737 (...)", "Windows-874 (...)".
            const auto open = entry.displayName.find(" (");
            const std::string head = entry.displayName.substr(0, open);
            const auto last = head.find_last_not_of("0123456789");
            return head.substr(last + 1);
        }();
        if (entry.group == "iso") {
            EXPECT_TRUE(has(entry, "iso-8859-" + digits));
            EXPECT_TRUE(has(entry, "iso8859-" + digits));
            if (entry.id.starts_with("latin")) {
                EXPECT_TRUE(has(entry, entry.id));
            }
        } else if (entry.group == "windows") {
            EXPECT_TRUE(has(entry, "cp" + digits));
            EXPECT_TRUE(has(entry, "windows-" + digits));
        } else if (entry.group == "dos") {
            for (const std::string& alias : {"cp" + digits, "dos cp" + digits, "dos-cp" + digits, "doscp" + digits,
                                             "ibm" + digits, "windows-" + digits, "x-mac-" + digits}) {
                EXPECT_TRUE(has(entry, alias)) << alias;
            }
        } else if (entry.group == "mac") {
            const std::string name = entry.id.substr(3);
            EXPECT_TRUE(has(entry, "mac-" + name));
            EXPECT_TRUE(has(entry, "mac" + name));
            EXPECT_TRUE(has(entry, "x-mac-" + name));
        }
    }
}

TEST(Catalogue, everySystemConverterOpens) {
    for (const auto& entry : Charsets::entries()) {
        if (entry.converterName.empty()) {
            continue;
        }
        SCOPED_TRACE(entry.id);
        if (entry.converterName.starts_with("iconv:")) {
            const iconv_t descriptor = iconv_open("UTF-8", entry.converterName.substr(6).c_str());
            ASSERT_NE(descriptor, reinterpret_cast<iconv_t>(-1));
            iconv_close(descriptor);
        } else {
            UErrorCode status = U_ZERO_ERROR;
            UConverter* converter = ucnv_open(entry.converterName.c_str(), &status);
            ASSERT_TRUE(U_SUCCESS(status));
            // Canonical names: what ICU calls the converter is what we asked for.
            EXPECT_STREQ(ucnv_getName(converter, &status), entry.converterName.c_str());
            ucnv_close(converter);
        }
    }
}

TEST(Catalogue, generatedDataIsCheckedWhenParsed) {
    EXPECT_THROW((void)Charsets::parseTable("0041"), std::invalid_argument);
    EXPECT_THROW((void)Charsets::parseTable(std::string(1024, 'G')), std::invalid_argument);
    EXPECT_THROW((void)Charsets::parseExpansions("82:0BB8"), std::invalid_argument);       // one unit is no expansion
    EXPECT_THROW((void)Charsets::parseExpansions("82-0BB8.0BCD"), std::invalid_argument);
    EXPECT_THROW((void)Charsets::parseExpansions("82:0BB8.0BCD 82:0BB8.0BCD"), std::invalid_argument);
    const auto expansions = Charsets::parseExpansions("82:0BB8.0BCD FF:D83D.DE00");
    EXPECT_EQ(expansions.at(0x82), u"\u0BB8\u0BCD");
    EXPECT_EQ(expansions.at(0xFF), u"\U0001F600");
    const char* const broken[] = {"@8140 3000 @ZZ"};
    EXPECT_THROW(DoubleByteCodec{std::span<const char* const>(broken)}, std::invalid_argument);
}

// MARK: against the reference converters

struct Reference {
    std::string id;
    std::string kind;       // "icu" or "glibc"
    std::string name;
    std::string differences = {};   // bytes (hex, spaces between) where we read otherwise on purpose
    std::string reason = {};
};

std::vector<Reference> singleByteReferences() {
    const std::string swap = "1A 1C 7F";
    const std::string swapReason = "ICU's IBM PC pages move 0x1A, 0x1C and 0x7F; ours stay ASCII, as glibc's";
    const std::string undefinedReason =
        "ICU reads the bytes Microsoft left undefined as the C1 controls of the same value, as Windows does; "
        "glibc refuses them";
    return {
        // Sets a system converter reads: checked against glibc, which is a second opinion for ICU's sets.
        {"latin3", "glibc", "ISO-8859-3"},
        {"latin4", "glibc", "ISO-8859-4"},
        {"iso88595", "glibc", "ISO-8859-5"},
        {"iso88596", "glibc", "ISO-8859-6"},
        {"iso88597", "glibc", "ISO-8859-7"},
        {"iso88598", "glibc", "ISO-8859-8"},
        {"latin5", "glibc", "ISO-8859-9"},
        {"latin6", "glibc", "ISO-8859-10"},
        {"iso885911", "glibc", "ISO-8859-11"},
        {"latin7", "glibc", "ISO-8859-13"},
        {"latin8", "glibc", "ISO-8859-14"},
        {"latin10", "glibc", "ISO-8859-16"},
        {"cp1255", "icu", "ibm-9447_P100-2002"},
        {"cp1255", "glibc", "CP1255", "81 8A 8C 8D 8E 8F 90 9A 9C 9D 9E 9F", undefinedReason},
        {"cp1256", "glibc", "CP1256"},
        {"cp1258", "icu", "ibm-5354_P100-1998"},
        {"cp1258", "glibc", "CP1258", "81 8A 8D 8E 8F 90 9A 9D 9E", undefinedReason},
        {"cp874", "icu", "windows-874-2000"},
        {"cp874", "glibc", "CP874",
         "81 82 83 84 86 87 88 89 8A 8B 8C 8D 8E 8F 90 98 99 9A 9B 9C 9D 9E 9F DB DC DD DE FC FD FE FF",
         undefinedReason + "; and Microsoft's private-use characters at DB-DE and FC-FF"},
        {"cp1162", "glibc", "IBM1162"},
        {"maccentraleurope", "glibc", "MAC-CENTRALEUROPE"},
        {"maccyrillic", "icu", "macos-7_3-10.2"},
        {"maccyrillic", "glibc", "MAC-CYRILLIC", "FF", "Apple's current table has the euro sign at 0xFF; glibc's the currency sign"},
        {"macgreek", "icu", "macos-6_2-10.4"},
        {"macturkish", "icu", "macos-35-10.2"},
        {"koi8u", "glibc", "KOI8-U"},
        {"ebcdiclatin1", "glibc", "IBM037"},
        // Tables generated from glibc.
        {"cp737", "glibc", "CP737"},
        {"cp775", "glibc", "CP775"},
        {"cp851", "glibc", "IBM851"},
        {"cp852", "glibc", "IBM852"},
        {"cp855", "glibc", "IBM855"},
        {"cp857", "glibc", "IBM857"},
        {"cp860", "glibc", "IBM860"},
        {"cp861", "glibc", "IBM861"},
        {"cp862", "glibc", "IBM862"},
        {"cp863", "glibc", "IBM863"},
        {"cp864", "glibc", "IBM864"},
        {"cp865", "glibc", "IBM865"},
        {"cp866", "glibc", "IBM866"},
        {"cp869", "glibc", "IBM869"},
        {"cp858", "glibc", "IBM858"},
        {"cp878", "glibc", "KOI8-R"},
        {"cp891", "glibc", "IBM891"},
        {"cp903", "glibc", "IBM903"},
        {"cp904", "glibc", "IBM904"},
        {"cp921", "glibc", "IBM921"},
        {"cp922", "glibc", "IBM922"},
        {"cp1125", "glibc", "CP1125"},
        {"cp770", "glibc", "CP770"},
        {"cp771", "glibc", "CP771"},
        {"cp772", "glibc", "CP772"},
        {"cp773", "glibc", "CP773"},
        {"cp774", "glibc", "CP774"},
        {"koi8t", "glibc", "KOI8-T"},
        {"ptcp154", "glibc", "PT154"},
        {"kz1048", "glibc", "RK1048"},
        {"cwi2", "glibc", "CWI"},
        {"mik", "glibc", "MIK"},
        {"tis620", "glibc", "TIS-620"},
        {"viscii", "glibc", "VISCII"},
        {"armscii8", "glibc", "ARMSCII-8"},
        {"georgianps", "glibc", "GEORGIAN-PS"},
        {"hproman8", "glibc", "HP-ROMAN8"},
        // glibc reads TCVN byte by byte the same; it composes only across bytes, which is why the
        // set is a table here.
        {"tcvn", "glibc", "TCVN5712-1"},
        // Tables from the icu-data files, against ICU's converter of the same page.
        {"cp720", "icu", "ibm-720_P100-1997", swap, swapReason},
        {"cp1131", "icu", "ibm-1131_P100-1997", swap, swapReason},
        // The DOS tables from glibc against ICU's pages of the same number.
        {"cp737", "icu", "ibm-737_P100-1997", swap, swapReason},
        {"cp866", "icu", "ibm-866_P100-1995", swap, swapReason},
        {"cp852", "icu", "ibm-852_P100-1995", swap + " AA", swapReason + "; ICU leaves 0xAA (NOT SIGN) unassigned"},
        // Apple's current table, where glibc has an older one.
        {"macicelandic", "glibc", "MAC-IS", "A0 C6 D0 D1 D7 DB DC DD E0 F0 F6 F7",
         "glibc's MAC-IS is an older Icelandic table; ours is Apple's current one (euro at 0xDB)"},
        {"macukrainian", "glibc", "MAC-UK"},
        // ICU's "TIS-620" is IBM-874: C1 controls and private-use additions where TIS-620 has nothing.
        {"tis620", "icu", "TIS-620",
         "80 81 82 83 84 85 86 87 88 89 8A 8B 8C 8D 8E 8F 90 91 92 93 94 95 96 97 98 99 9A 9B 9C 9D 9E 9F A0 DB DC DD DE FC FD FE FF",
         "ICU's TIS-620 is IBM-874"},
        // ICU's ibm-1051 is IBM's reading of HP Roman-8; HP's own (and glibc's) differs.
        {"hproman8", "icu", "ibm-1051_P100-1995", "A0 A9 AF B0 B3 F3 F6", "IBM's reading of HP Roman-8"},
    };
}

std::string hexList(const std::set<std::uint8_t>& bytes) {
    std::string text;
    for (std::uint8_t byte : bytes) {
        text += (text.empty() ? "" : " ") + hex({byte});
    }
    return text;
}

TEST(Catalogue, singleByteSetsReadAndWriteEveryByteAsTheReferenceDoes) {
    int compared = 0;
    for (const Reference& reference : singleByteReferences()) {
        SCOPED_TRACE(reference.id + " against " + reference.kind + " " + reference.name);
        const TextEncoding& encoding = encodingFor(reference.id);
        std::set<std::uint8_t> differing;
        for (unsigned value = 0; value < 256; ++value) {
            const Bytes byte = {static_cast<std::uint8_t>(value)};
            const std::u16string expected =
                reference.kind == "icu" ? icuDecode(reference.name, byte) : glibcDecode(reference.name, byte);
            const std::u16string actual = ourDecode(encoding, byte);
            if (actual != expected) {
                differing.insert(byte[0]);
                continue;
            }
            ++compared;
            // Writing back: where the reference gives this byte for the text, we give it too.
            if (expected == u"\uFFFD") {
                continue;
            }
            const std::optional<Bytes> back =
                reference.kind == "icu" ? icuEncode(reference.name, expected) : glibcEncode(reference.name, expected);
            if (back && *back == byte) {
                EXPECT_EQ(hex(ourEncode(encoding, expected)), hex(byte)) << "writing " << units(expected);
            }
        }
        // Every difference is listed with its reason, and every listed one is still a difference.
        EXPECT_EQ(hexList(differing), reference.differences) << reference.reason;
    }
    EXPECT_GT(compared, 60 * 250);
}

TEST(Catalogue, tableSetsRoundTripEveryAssignedByte) {
    for (const auto& entry : Charsets::entries()) {
        if (!entry.table) {
            continue;
        }
        SCOPED_TRACE(entry.id);
        const TextEncoding& encoding = encodingFor(entry.id);
        std::set<std::u16string> seen;
        for (unsigned value = 0; value < 256; ++value) {
            const Bytes byte = {static_cast<std::uint8_t>(value)};
            const std::u16string text = ourDecode(encoding, byte);
            const bool assigned = entry.expansions.contains(byte[0]) || (*entry.table)[value] != 0xFFFD;
            EXPECT_EQ(assigned, text != u"\uFFFD") << hex(byte);
            // The first byte of a character wins when writing; a later duplicate reads but is not written.
            if (!assigned || !seen.insert(text).second) {
                continue;
            }
            EXPECT_EQ(hex(ourEncode(encoding, text)), hex(byte)) << units(text);
        }
    }
}

TEST(Catalogue, multiByteSetsReadEveryLeadByteAsTheirConverterDoes) {
    const std::vector<std::uint8_t> trails = {0x30, 0x40, 0x41, 0x5C, 0x7E, 0x7F, 0x80, 0xA1, 0xA2, 0xB0, 0xC8, 0xE0, 0xFE, 0xFF};
    int compared = 0;
    for (const auto& entry : Charsets::entries()) {
        if (entry.converterName.empty() || entry.isSingleByte || entry.isStateful) {
            continue;
        }
        SCOPED_TRACE(entry.id + " " + entry.converterName);
        const TextEncoding& encoding = encodingFor(entry.id);
        const bool viaIconv = entry.converterName.starts_with("iconv:");
        const std::string name = viaIconv ? entry.converterName.substr(6) : entry.converterName;
        for (unsigned lead = 0x80; lead < 0x100; ++lead) {
            for (std::uint8_t trail : trails) {
                const Bytes pair = {static_cast<std::uint8_t>(lead), trail, 'A'};
                const std::u16string expected = viaIconv ? glibcDecode(name, pair) : icuDecode(name, pair);
                const std::u16string actual = ourDecode(encoding, pair);
                ASSERT_EQ(units(actual), units(expected)) << hex(pair);
                ++compared;
                if (expected.find(u'\uFFFD') != std::u16string::npos) {
                    continue;
                }
                const std::optional<Bytes> back = viaIconv ? glibcEncode(name, expected) : icuEncode(name, expected);
                if (back && *back == pair) {
                    EXPECT_EQ(hex(ourEncode(encoding, expected)), hex(pair));
                }
            }
        }
        // All of it as one stream fed in small pieces: pairs, bad pairs and lone bytes divided anywhere
        // read as the converter reads the whole.
        Bytes stream;
        for (unsigned lead = 0x80; lead < 0x100; ++lead) {
            for (std::uint8_t trail : trails) {
                stream.insert(stream.end(), {static_cast<std::uint8_t>(lead), trail});
            }
        }
        const std::u16string whole = viaIconv ? glibcDecode(name, stream) : icuDecode(name, stream);
        for (const std::size_t piece : {std::size_t{1}, std::size_t{2}, std::size_t{3}}) {
            Transcoder::BlockConverter converter(encoding, TextEncoding::utf8());
            Bytes out;
            for (std::size_t at = 0; at < stream.size(); at += piece) {
                converter.convert(Bytes(stream.begin() + static_cast<std::ptrdiff_t>(at),
                                        stream.begin() + static_cast<std::ptrdiff_t>(std::min(stream.size(), at + piece))),
                                  out);
            }
            converter.finish(out);
            EXPECT_EQ(utf16(std::string(out.begin(), out.end())), whole) << "pieces of " << piece;
        }
    }
    EXPECT_GT(compared, 9 * 128 * 10);
}

TEST(Catalogue, macDoubleByteSetsRoundTripEveryCode) {
    for (const std::string id : {"macjapanese", "macchinesesimp", "macchinesetrad", "mackorean"}) {
        SCOPED_TRACE(id);
        const Charsets::Entry* entry = Charsets::entry(id);
        ASSERT_NE(entry, nullptr);
        ASSERT_NE(entry->doubleByteCodec, nullptr);
        const DoubleByteCodec& codec = *entry->doubleByteCodec;
        const std::vector<std::uint16_t> codes = codec.codes();
        EXPECT_GT(codes.size(), 7'000u);
        std::set<std::u16string> seen;
        std::size_t checked = 0;
        for (std::uint16_t code : codes) {
            const std::u16string text(codec.unitsOf(code));
            if (!seen.insert(text).second) {
                continue;       // a later duplicate of a character reads but is not written
            }
            Bytes bytes;
            if (code > 0xFF) {
                bytes.push_back(static_cast<std::uint8_t>(code >> 8));
            }
            bytes.push_back(static_cast<std::uint8_t>(code));
            const TextEncoding& encoding = encodingFor(id);
            if (checked++ % 7 == 0) {   // through the transcoder for a sample, the codec for all
                EXPECT_EQ(units(ourDecode(encoding, bytes)), units(text)) << hex(bytes);
                EXPECT_EQ(hex(ourEncode(encoding, text)), hex(bytes)) << units(text);
            }
            std::vector<std::uint8_t> out;
            std::size_t unwritable = 0;
            codec.encode(text, true, out, unwritable);
            EXPECT_EQ(hex(out), hex(bytes)) << units(text);
            EXPECT_EQ(unwritable, 0u);
        }
    }
    // A spot check that the right table was parsed: HIRAGANA LETTER A in Shift-JIS position.
    EXPECT_EQ(Charsets::entry("macjapanese")->doubleByteCodec->unitsOf(0x82A0), u"\u3042");
    EXPECT_EQ(Charsets::entry("mackorean")->doubleByteCodec->unitsOf(0xB0A1), u"\uAC00");
}

TEST(Catalogue, statefulSetsReadWhatTheirConverterWrote) {
    const std::u16string text = u"Hello 日本語 and 中文 한국어 Ελληνικά\nsecond line 漢字\n";
    for (const auto& entry : Charsets::entries()) {
        if (!entry.isStateful) {
            continue;
        }
        SCOPED_TRACE(entry.id);
        const TextEncoding& encoding = encodingFor(entry.id);
        // What the set can hold of the text, as ICU writes it.
        std::u16string holdable;
        for (char16_t unit : text) {
            if (icuEncode(entry.converterName, std::u16string(1, unit))) {
                holdable.push_back(unit);
            }
        }
        const std::optional<Bytes> bytes = icuEncode(entry.converterName, holdable);
        ASSERT_TRUE(bytes);
        EXPECT_EQ(units(ourDecode(encoding, *bytes)), units(icuDecode(entry.converterName, *bytes)));
        // Written in one go, the bytes are ICU's own: escapes and headers where ICU puts them, except
        // the "~}" that ICU opens every HZ stream with, a switch to the ASCII that HZ starts in anyway.
        Bytes expected = *bytes;
        if (entry.id == "hzgb2312") {
            ASSERT_GE(expected.size(), 2u);
            EXPECT_EQ(expected[0], '~');
            EXPECT_EQ(expected[1], '}');
            expected.erase(expected.begin(), expected.begin() + 2);
        }
        EXPECT_EQ(hex(ourEncode(encoding, holdable)), hex(expected));
        EXPECT_EQ(units(ourDecode(encoding, ourEncode(encoding, holdable))), units(holdable));
    }
}

} // namespace
} // namespace brim
