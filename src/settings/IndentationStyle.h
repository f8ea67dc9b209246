#pragma once

#include <cstdint>

namespace brim {

/// How a document indents: with spaces of a given width, or with tabs (whose width is the tab
/// width, kept apart).
struct IndentationStyle {
    enum class Kind : std::uint8_t { spaces, tabs };

    Kind kind = Kind::tabs;
    int width = 0; ///< the number of spaces; 0 for tabs

    [[nodiscard]] static IndentationStyle spaces(int width) { return {Kind::spaces, width}; }
    [[nodiscard]] static IndentationStyle tabs() { return {Kind::tabs, 0}; }
    [[nodiscard]] bool usesSpaces() const { return kind == Kind::spaces; }

    friend bool operator==(const IndentationStyle&, const IndentationStyle&) = default;
};

} // namespace brim
