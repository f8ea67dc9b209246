#pragma once

#include "settings/IndentationStyle.h"

#include <cstddef>
#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

/// Per-file rules from `.editorconfig` files: the files from a document's folder up to one that
/// says `root = true`, their sections matched against the document's path, a later section and a
/// closer file winning key by key.
///
/// Never fails: a file that cannot be read or is not UTF-8 counts as absent, a line that does not
/// parse is skipped, a value that makes no sense says nothing.
namespace brim::EditorConfig {

/// What the files say about one document. An unset field says nothing, and detection and the
/// settings decide.
struct Rules {
    std::optional<IndentationStyle> indentStyle;
    std::optional<int> tabWidth;
    std::optional<std::string> lineEnding;   ///< "lf", "crlf" or "cr"
    std::optional<std::string> charset;      ///< a character set id: "utf8", "utf16le", "utf16be", "latin1"
    std::optional<bool> byteOrderMark;       ///< true for "utf-8-bom", false for plain "utf-8"
    std::optional<bool> trimTrailingWhitespace;
    std::optional<bool> insertFinalNewline;
    std::optional<int> maxLineLength;

    [[nodiscard]] bool isEmpty() const;
    friend bool operator==(const Rules&, const Rules&) = default;
};

struct Section {
    std::string pattern;
    std::string directory; ///< the folder of the file the section is in
    std::map<std::string, std::string> values; ///< lower-cased key to raw value
};

struct File {
    bool isRoot = false;
    std::vector<Section> sections;
};

/// Reads one file's text. Lines end at LF, CRLF or CR; a UTF-8 byte order mark is skipped.
[[nodiscard]] File parse(std::string_view text, std::string directory);

/// The merged key-value pairs for `path` from `files`, outermost first. The value "unset" takes
/// a key out again.
[[nodiscard]] std::map<std::string, std::string> resolvedValues(const std::vector<File>& files, std::string_view path);

/// The rules for `path` from `files`, outermost first.
[[nodiscard]] Rules resolve(const std::vector<File>& files, std::string_view path);

/// Turns merged key-value pairs into rules.
[[nodiscard]] Rules rulesFrom(const std::map<std::string, std::string>& values);

/// The rules for one file, from the `.editorconfig` files above it (at most 64 folders up).
[[nodiscard]] Rules rules(const std::filesystem::path& file);

/// Whether a section's `pattern` matches `path`, given the folder of the file the section is in.
/// A pattern without "/" matches a name at any depth; one with "/" is anchored to the folder.
/// `*` stops at "/", `**` does not, `?` is one character but "/", `[a-z]` and `[!a-z]` are classes,
/// `{a,b}` alternatives, `{1..30}` a whole number in that range, and `\` takes the next character
/// as it is. Time is proportional to the pattern times the path: nothing backtracks.
[[nodiscard]] bool matches(std::string_view pattern, std::string_view path, std::string_view relativeTo);

/// The patterns a brace pattern stands for, at most `limit` of them, in order. A numeric range
/// `{n..m}` is not written out: it stays for the matcher to test. A brace without a partner, or
/// braces around a single alternative, are taken as they are.
[[nodiscard]] std::vector<std::string> expandBraces(std::string_view pattern, std::size_t limit = 256);

/// While one of these exists anywhere in the process, each folder's `.editorconfig` is read and
/// parsed once, so opening many files in one go costs one parse per folder. Outside a scope
/// nothing is kept, and an edit of a `.editorconfig` is seen at the next open.
class LookupScope {
public:
    LookupScope();
    ~LookupScope();
    LookupScope(const LookupScope&) = delete;
    LookupScope& operator=(const LookupScope&) = delete;
};

/// What a document takes over from its rules when it is opened: the tab width, the indentation,
/// the line ending for new breaks. Each is set only where the rules say so.
struct Application {
    std::optional<int> tabWidth;
    std::optional<IndentationStyle> indentation;
    std::optional<std::string> lineEnding;

    friend bool operator==(const Application&, const Application&) = default;
};

/// What `applyEditorConfig` does to a document with these rules.
[[nodiscard]] Application application(const Rules& rules);

} // namespace brim::EditorConfig
