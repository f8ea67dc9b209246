#include "language/Language.h"

#include "bytes/Gzip.h"
#include "common/BrimError.h"
#include "common/Localization.h"
#include "language/EmbeddedLanguages.h"
#include "language/LanguageChoices.h"
#include "language/LanguageFile.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cctype>
#include <mutex>
#include <utility>

namespace brim {
namespace {

std::string lowercased(std::string_view text) {
    std::string result(text);
    std::transform(result.begin(), result.end(), result.begin(),
                   [](char c) { return static_cast<char>(std::tolower(static_cast<unsigned char>(c))); });
    return result;
}

struct Table {
    std::vector<Language> builtIn;
    std::vector<Language> islands;
};

const Table& table() {
    static const Table parsed = [] {
        Table result;
        for (const auto& file : EmbeddedLanguages::files()) {
            try {
                auto language = LanguageFile::parse(file.text, file.id, LanguageFile::Origin::builtIn);
                (file.island ? result.islands : result.builtIn).push_back(std::move(language));
            } catch (const LanguageFile::Failure& failure) {
                // The table is checked by its tests; reaching this is a build that skipped them.
                throw BrimError("built-in language " + std::string(file.id) + ": " + failure.what());
            }
        }
        return result;
    }();
    return parsed;
}

std::mutex mergedLock;
std::shared_ptr<const std::vector<Language>> mergedList;   // guarded by mergedLock
std::atomic<std::uint64_t> generation{1};

/// A file's name and extension as detection sees them: the last path component, with a ".gz"
/// wrapper looked through (but not ".tar.gz", an archive of files).
struct NameParts {
    std::string name;
    std::string extension;       ///< lower-cased, after the last dot; empty when there is none
    std::string longExtension;   ///< lower-cased, after the second-last dot: "html.erb"
    std::string parentFolder;
};

NameParts nameParts(std::string_view path) {
    NameParts parts;
    while (path.size() > 1 && path.back() == '/') {
        path.remove_suffix(1);
    }
    const auto slash = path.rfind('/');
    parts.name = std::string(slash == std::string_view::npos ? path : path.substr(slash + 1));
    if (slash != std::string_view::npos) {
        auto folder = path.substr(0, slash);
        const auto parentSlash = folder.rfind('/');
        parts.parentFolder = std::string(parentSlash == std::string_view::npos ? folder : folder.substr(parentSlash + 1));
    }
    parts.name = Gzip::uncompressedName(parts.name);
    // A leading dot marks a hidden file, not an extension: ".bashrc" has none.
    const auto lowerName = lowercased(parts.name);
    const auto dot = lowerName.rfind('.');
    if (dot != std::string::npos && dot > 0 && dot + 1 < lowerName.size()) {
        parts.extension = lowerName.substr(dot + 1);
        const auto secondDot = lowerName.rfind('.', dot - 1);
        if (secondDot != std::string::npos && secondDot > 0) {
            parts.longExtension = lowerName.substr(secondDot + 1);
        }
    }
    return parts;
}

bool contains(const std::vector<std::string>& list, std::string_view item) {
    return std::find(list.begin(), list.end(), item) != list.end();
}

const Language* byFilename(const std::vector<Language>& languages, std::string_view name) {
    for (const auto& language : languages) {
        if (contains(language.filenames, name)) {
            return &language;
        }
    }
    return nullptr;
}

const Language* byExtension(const std::vector<Language>& languages, std::string_view extension) {
    if (extension.empty()) {
        return nullptr;
    }
    for (const auto& language : languages) {
        if (contains(language.extensions, extension)) {
            return &language;
        }
    }
    return nullptr;
}

std::optional<Language> namedIn(const std::vector<Language>& languages, std::string_view id) {
    for (const auto& language : languages) {
        if (language.id == id) {
            return language;
        }
    }
    return std::nullopt;
}

/// The first line of the sample, as the shebang and JXA checks read it.
std::string_view firstLine(std::string_view sample) {
    for (std::size_t index = 0; index < sample.size(); ++index) {
        const auto c = static_cast<unsigned char>(sample[index]);
        if (c == '\n' || c == '\v' || c == '\f' || c == '\r') {
            return sample.substr(0, index);
        }
        if (c == 0xC2 && index + 1 < sample.size() && static_cast<unsigned char>(sample[index + 1]) == 0x85) {
            return sample.substr(0, index);   // U+0085
        }
        if (c == 0xE2 && index + 2 < sample.size() && static_cast<unsigned char>(sample[index + 1]) == 0x80 &&
            (static_cast<unsigned char>(sample[index + 2]) == 0xA8 ||
             static_cast<unsigned char>(sample[index + 2]) == 0xA9)) {
            return sample.substr(0, index);   // U+2028, U+2029
        }
    }
    return sample;
}

bool containsAny(std::string_view text, std::initializer_list<std::string_view> needles) {
    return std::any_of(needles.begin(), needles.end(),
                       [&](std::string_view needle) { return text.find(needle) != std::string_view::npos; });
}

/// Interpreters a `#!` line may name, by their exact lower-case name.
constexpr std::array<std::pair<std::string_view, std::string_view>, 33> interpreters = {{
    {"sh", "shell"},       {"bash", "shell"},     {"zsh", "shell"},         {"ksh", "shell"},
    {"csh", "shell"},      {"tcsh", "shell"},     {"dash", "shell"},        {"ash", "shell"},
    {"fish", "shell"},     {"python", "python"},  {"python2", "python"},    {"python3", "python"},
    {"ruby", "ruby"},      {"perl", "perl"},      {"node", "javascript"},   {"deno", "javascript"},
    {"php", "php"},        {"lua", "lua"},        {"tclsh", "tcl"},         {"wish", "tcl"},
    {"rscript", "r"},      {"julia", "julia"},    {"elixir", "elixir"},     {"swift", "swift"},
    {"osascript", "applescript"}, {"awk", "shell"}, {"gawk", "shell"},      {"sed", "shell"},
    {"pwsh", "powershell"}, {"powershell", "powershell"}, {"crystal", "crystal"}, {"dotnet", "fsharp"},
    {"kotlin", "kotlin"},
}};

std::string_view lastPathComponent(std::string_view piece) {
    const auto slash = piece.rfind('/');
    return slash == std::string_view::npos ? piece : piece.substr(slash + 1);
}

} // namespace

std::string Language::localizedDisplayName() const {
    static constexpr std::array<std::string_view, 7> translated = {"plain",   "log",       "xcconfig", "pbxproj",
                                                                   "apache",  "gitignore", "sshconfig"};
    if (std::find(translated.begin(), translated.end(), id) != translated.end()) {
        return Localization::string(displayName);
    }
    return displayName;
}

const std::vector<Language>& Language::builtIn() { return table().builtIn; }

const std::vector<Language>& Language::islandLanguages() { return table().islands; }

std::shared_ptr<const std::vector<Language>> Language::merged() {
    std::lock_guard lock(mergedLock);
    if (!mergedList) {
        mergedList = std::make_shared<const std::vector<Language>>(builtIn());
    }
    return mergedList;
}

void Language::mergeInstalled(const std::vector<Language>& installed) {
    auto list = builtIn();
    for (const auto& language : installed) {
        const auto same = std::find_if(list.begin(), list.end(), [&](const Language& l) { return l.id == language.id; });
        if (same != list.end()) {
            *same = language;
        } else {
            list.insert(list.empty() ? list.end() : list.end() - 1, language);
        }
    }
    auto snapshot = std::make_shared<const std::vector<Language>>(std::move(list));
    std::lock_guard lock(mergedLock);
    mergedList = std::move(snapshot);
    generation.fetch_add(1);
}

std::uint64_t Language::mergedGeneration() { return generation.load(); }

std::optional<Language> Language::named(std::string_view id) {
    if (auto found = namedIn(*merged(), id)) {
        return found;
    }
    return namedIn(islandLanguages(), id);
}

Language Language::plain() {
    if (auto found = named("plain")) {
        return *found;
    }
    return builtIn().back();
}

Language Language::detect(std::string_view name) {
    if (name.empty()) {
        return plain();
    }
    const auto parts = nameParts(name);
    const auto languages = merged();
    if (const auto* found = byFilename(*languages, parts.name)) {
        return *found;
    }
    if (const auto* found = byExtension(*languages, parts.longExtension)) {
        return *found;
    }
    if (const auto* found = byExtension(*languages, parts.extension)) {
        return *found;
    }
    const std::string_view whole = parts.name;
    std::optional<Language> byPrefix;
    if (whole.starts_with("Makefile") || whole.starts_with("makefile") || whole.starts_with("GNUmakefile")) {
        byPrefix = named("make");
    } else if (whole.starts_with("Dockerfile") || whole.starts_with("Containerfile")) {
        byPrefix = named("dockerfile");
    } else if (whole.starts_with(".env")) {
        byPrefix = named("toml");
    } else if (whole == "config" && parts.parentFolder == ".ssh") {
        byPrefix = named("sshconfig");
    }
    return byPrefix ? *byPrefix : plain();
}

bool Language::nameSaysNothing(std::string_view name) {
    if (name.empty()) {
        return true;
    }
    const auto parts = nameParts(name);
    const auto languages = merged();
    if (byFilename(*languages, parts.name)) {
        return false;
    }
    if (parts.extension.empty()) {
        return true;
    }
    return !byExtension(*languages, parts.extension) && !byExtension(*languages, parts.longExtension);
}

std::optional<Language> Language::fromShebang(std::string_view sample) {
    if (!sample.starts_with("#!")) {
        return std::nullopt;
    }
    const auto line = firstLine(sample).substr(2);
    std::vector<std::string_view> pieces;
    std::size_t position = 0;
    while (position < line.size()) {
        const auto start = line.find_first_not_of(" \t", position);
        if (start == std::string_view::npos) {
            break;
        }
        const auto end = std::min(line.find_first_of(" \t", start), line.size());
        pieces.push_back(line.substr(start, end - start));
        position = end;
    }
    std::size_t index = 0;
    while (index < pieces.size()) {
        const auto word = lastPathComponent(pieces[index]);
        if (word != "env" && !word.starts_with("-")) {
            break;
        }
        ++index;
    }
    if (index >= pieces.size()) {
        return std::nullopt;
    }
    const auto word = lowercased(lastPathComponent(pieces[index]));
    if (word == "osascript") {
        for (auto later = index + 1; later < pieces.size(); ++later) {
            if (lowercased(pieces[later]) == "javascript") {
                return named("jxa");
            }
        }
    }
    for (const auto& [interpreter, id] : interpreters) {
        if (interpreter == word) {
            return named(id);
        }
    }
    return std::nullopt;
}

Language Language::detect(std::string_view name, std::string_view sample) {
    auto language = detect(name);
    if (language.id == "plain") {
        if (auto found = fromShebang(sample)) {
            return *found;
        }
        if (nameSaysNothing(name)) {
            if (auto best = LanguageChoices::best(sample, name)) {
                return best->language;
            }
        }
    }
    const auto extension = name.empty() ? std::string() : nameParts(name).extension;

    if (extension == "js" && language.id == "javascript") {
        if (containsAny(firstLine(sample), {"osascript -l JavaScript", "ObjC.import", "ObjC.bindFunction",
                                            "Application.currentApplication", "$.NSString", "Library(",
                                            "Application(\"", "Application('"})) {
            if (auto jxa = named("jxa")) {
                return *jxa;
            }
        }
    }

    if (extension == "cls" && language.id == "latex") {
        if (containsAny(sample, {"\\ProvidesClass", "\\NeedsTeXFormat", "\\LoadClass", "\\documentclass",
                                 "\\DeclareOption"})) {
            return language;
        }
        if (containsAny(sample, {"VERSION 1.0 CLASS", "Attribute VB_"})) {
            if (auto vb = named("vb")) {
                return *vb;
            }
        }
        const auto lower = lowercased(sample);
        if (containsAny(lower, {"with sharing", "without sharing", "inherited sharing", "global class",
                                "public class", "private class", "@istest", "@auraenabled", "system.debug",
                                "database."})) {
            if (auto apex = named("apex")) {
                return *apex;
            }
        }
        return language;
    }

    if (extension == "m" && language.id == "c") {
        if (containsAny(sample, {"#import", "#include", "@interface", "@implementation", "@property", "@end",
                                 "NSString", "nonatomic"})) {
            return language;
        }
        std::size_t position = 0;
        for (int lineNumber = 0; lineNumber < 200 && position <= sample.size(); ++lineNumber) {
            const auto end = std::min(sample.find('\n', position), sample.size());
            auto text = sample.substr(position, end - position);
            const auto start = text.find_first_not_of(" \t\r\v\f");
            text = start == std::string_view::npos ? std::string_view() : text.substr(start);
            if (text.starts_with("%") || text.starts_with("function ") || text.starts_with("classdef ")) {
                if (auto matlab = named("matlab")) {
                    return *matlab;
                }
            }
            if (end >= sample.size()) {
                break;
            }
            position = end + 1;
        }
    }
    return language;
}

} // namespace brim
