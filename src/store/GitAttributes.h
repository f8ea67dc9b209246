#pragma once

#include "charsets/LineEnding.h"
#include "charsets/TextEncoding.h"

#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

/// Per-file facts from `.gitattributes` files: the line ending a repository wants, whether a file is
/// binary, and the character set of its working tree. Read directly, without running git. Never fails:
/// a file that can't be read counts as absent and a line that makes no sense is skipped.
namespace brim::GitAttributes {

/// What the attributes say about one file; unset says nothing.
struct Rules {
    std::optional<LineEnding> lineEnding;
    bool isBinary = false;
    std::optional<TextEncoding> charset;
    friend bool operator==(const Rules&, const Rules&) = default;
};

/// One line of a `.gitattributes` file.
struct Pattern {
    std::string glob;
    std::string directory;                          ///< the folder of the file the line is in
    std::map<std::string, std::string> attributes;  ///< "true", "false", "unset" or a value
    bool isNegated = false;                         ///< "!pattern", which git refuses; never matches
    friend bool operator==(const Pattern&, const Pattern&) = default;
};

/// The lines of one file: `name` sets "true", `-name` "false", `!name` "unset", `name=value` the value.
[[nodiscard]] std::vector<Pattern> parse(std::string_view text, const std::string& directory);

/// The rules for `path` from patterns in order, outermost file first: a later line overrides.
[[nodiscard]] Rules resolve(const std::vector<Pattern>& patterns, std::string_view path);

/// The set a `working-tree-encoding` names, for the few that are understood.
[[nodiscard]] std::optional<TextEncoding> encodingNamed(std::string_view name);

/// The rules for a file from the `.gitattributes` files of its folder and those above it, up to the
/// repository's root (a folder holding ".git") or 64 folders.
[[nodiscard]] Rules rules(const std::filesystem::path& file);

} // namespace brim::GitAttributes
