#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace brim {

/// Reading fixed-width records as columns: finding the columns, parsing a layout a person typed,
/// and cutting a line into its fields. Columns are counted in characters (Unicode scalars).
/// Nothing here fails: what can't be read gives no answer.
namespace FixedFields {

/// One column of a record.
struct Field {
    std::int64_t width = 0;
    std::string name;
    friend bool operator==(const Field&, const Field&) = default;
};

/// The widest field a layout may give.
inline constexpr std::int64_t maximumWidth = 1'048'576;
/// How many non-empty lines detection looks at.
inline constexpr std::size_t sampleLines = 500;

/// The column widths of the first 500 non-empty lines: a field starts at column 0 and after every
/// run of at least two blank columns. Empty when there are fewer than two lines or two fields.
[[nodiscard]] std::vector<std::int64_t> detect(const std::vector<std::string>& lines);

/// True for at least three lines of one length, the first at least 8 characters, with more than
/// two detected fields. Prose, one line, or three short lines of a length are not records.
[[nodiscard]] bool looksLikeRecords(const std::vector<std::string>& lines);

/// Reads "3 15 10", "3, 15, 10" or "3 id, 15 surname, 10 first name". A width outside 1 to
/// 1,048,576, a word where a width belongs, or nothing at all gives no layout.
[[nodiscard]] std::optional<std::vector<Field>> parseLayout(std::string_view text);

/// Writes fields back as `parseLayout` reads them: "3 15 10", or "3 id, 15 surname" with names.
[[nodiscard]] std::string describe(const std::vector<Field>& fields);

/// Cuts `line` at the widths and trims the padding of each field; the last field runs to the end
/// of the line. One entry per width.
[[nodiscard]] std::vector<std::string> split(std::string_view line, const std::vector<std::int64_t>& widths);

/// The starting columns of the fields.
[[nodiscard]] std::vector<std::int64_t> starts(const std::vector<std::int64_t>& widths);

/// The widths of fields that start at `starts` in a line of `lineWidth` columns; the first field
/// always begins at column 0 and the last runs to `lineWidth`.
[[nodiscard]] std::vector<std::int64_t> widths(const std::vector<std::int64_t>& starts, std::int64_t lineWidth);

/// The field that holds `column`, from 0; none before column 0 or past the last field.
[[nodiscard]] std::optional<std::size_t> field(std::int64_t column, const std::vector<std::int64_t>& widths);

/// Widths limited to a line of `lineWidth` columns: fields past it go, the last is cut to fit.
[[nodiscard]] std::vector<std::int64_t> limited(const std::vector<std::int64_t>& widths, std::int64_t lineWidth);

} // namespace FixedFields

/// A layout saved by the user for files whose names match `pattern` ("*.ebcdic").
struct FieldLayout {
    std::string pattern;
    std::vector<std::int64_t> widths;
    std::vector<std::string> names;

    /// The widths with their names; a missing name is empty.
    [[nodiscard]] std::vector<FixedFields::Field> fields() const;

    /// Shell-style matching of a file name: `*`, `?` and `[...]`.
    [[nodiscard]] static bool glob(std::string_view pattern, std::string_view name);

    friend bool operator==(const FieldLayout&, const FieldLayout&) = default;
};

namespace FieldLayouts {

/// The first layout whose pattern matches the file name `name`.
[[nodiscard]] std::optional<FieldLayout> layout(std::string_view name, const std::vector<FieldLayout>& layouts);

} // namespace FieldLayouts

} // namespace brim
