#pragma once

#include "charsets/LineEnding.h"
#include "charsets/TextEncoding.h"

#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

/// Per-file facts from `.gitattributes`: the line ending a file is written with, whether it is
/// binary, and the character set of its working copy. Read from the files themselves; no git
/// process runs. Never fails: a file that can't be read counts as absent, a line that does not
/// parse is skipped.
namespace brim::GitAttributes {

/// What the attributes decide for one file; unset fields decide nothing.
struct Rules {
    std::optional<LineEnding> lineEnding;   ///< from "eol", unless the file is not text
    bool isBinary = false;                  ///< "binary", or "-text"
    std::optional<TextEncoding> charset;    ///< from "working-tree-encoding", unless not text
};

/// One line of a `.gitattributes` file.
struct Pattern {
    std::string glob;
    std::string directory;                         ///< the folder of the file the line is in
    std::map<std::string, std::string> attributes; ///< "true", "false", "unset" or the value
    bool isNegated = false;                        ///< a pattern starting with "!", which git ignores
};

/// The lines of one file's text: blank lines and "#" comments skipped; the first field the pattern
/// (a quoted one loses its quotes); then `name` sets "true", `-name` "false", `!name` "unset" and
/// `name=value` the value.
[[nodiscard]] std::vector<Pattern> parse(std::string_view text, const std::string& directory);

/// The rules for `path` (absolute) from `patterns`, outermost file first: each matching line copies
/// its attributes over those before it, so a later line and a closer file win.
[[nodiscard]] Rules resolve(const std::vector<Pattern>& patterns, std::string_view path);

/// The rules for a file, from the `.gitattributes` files from its folder up to the repository's root
/// (a folder holding ".git"), at most 64 folders, and the repository's own `.git/info/attributes`,
/// which wins over all of them.
[[nodiscard]] Rules rules(const std::filesystem::path& file);

/// The character set a "working-tree-encoding" value names: upper-cased, "-" and "_" dropped, one of
/// UTF8, UTF16LE, UTF16 and UTF16BE, UTF32LE, UTF32BE, LATIN1 and ISO88591, WINDOWS1252, SHIFTJIS and
/// SJIS. None for anything else.
[[nodiscard]] std::optional<TextEncoding> encodingNamed(std::string_view name);

} // namespace brim::GitAttributes
