#pragma once

#include "search/SearchText.h"

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace brim {

/// A stretch of a document as the expression engine sees it: UTF-8, with every ill-formed
/// stretch of bytes replaced by one U+FFFD so that a stray byte never hides a match, and the way
/// back from positions in that text to the document's byte offsets.
///
/// Valid UTF-8 is used where it lies, with no copy; only a stretch with stray bytes, or one in
/// another character set, is converted.
class SearchWindow {
public:
    /// `bytes` are the document's from byte `start` on; they must outlive the window.
    SearchWindow(std::span<const std::uint8_t> bytes, std::int64_t start, const SearchEncoding* encoding = nullptr);

    /// What the engine searches.
    [[nodiscard]] std::span<const std::uint8_t> text() const { return text_; }

    /// Whether `text()` is a converted copy rather than the document's own bytes.
    [[nodiscard]] bool isConverted() const { return converted_; }

    /// The document offset of a position in `text()`. A position inside a replacement character
    /// lands at the start of the stretch it stands for. Fastest when asked in ascending order.
    [[nodiscard]] std::int64_t sourceOffset(std::size_t textOffset) const;

    /// The first position in `text()` at or after a document offset inside the window.
    [[nodiscard]] std::size_t textOffset(std::int64_t sourceOffset) const;

    [[nodiscard]] std::int64_t start() const { return start_; }
    [[nodiscard]] std::int64_t end() const { return start_ + static_cast<std::int64_t>(bytes_.size()); }

private:
    /// From `text` on, text and bytes go in step until the next anchor.
    struct Anchor {
        std::size_t text;
        std::int64_t source;  // relative to start_
    };

    std::span<const std::uint8_t> bytes_;
    std::int64_t start_;
    const SearchEncoding* encoding_;
    std::span<const std::uint8_t> text_;
    std::string copy_;
    bool converted_ = false;
    std::vector<Anchor> anchors_;

    /// Text in another set is cut into stretches: characters below 0x80, kept as they are, and
    /// runs of other characters, each converted on its own. A run whose characters became as
    /// many scalars goes in step with its bytes character by character; any other run (stray
    /// bytes, a character read as several scalars) is measured by encoding its text.
    struct Stretch {
        std::size_t text;
        std::int64_t source;  // relative to start_
        bool verbatim;
        bool inStep;
    };
    void convert();
    [[nodiscard]] std::size_t characterLength(std::size_t at) const;
    [[nodiscard]] std::size_t stretchTextEnd(std::size_t index) const;
    [[nodiscard]] std::int64_t stretchSourceEnd(std::size_t index) const;
    std::vector<Stretch> stretches_;
    // Where the last answer inside a converted run left off, so that ascending questions walk
    // each run once.
    mutable std::size_t cursorStretch_ = static_cast<std::size_t>(-1);
    mutable std::size_t cursorText_ = 0;
    mutable std::int64_t cursorSource_ = 0;
};

namespace UTF8 {

/// The length of the sequence at `offset` and whether it is well formed. An ill-formed stretch
/// is the longest start of a sequence that could still have been valid, or one byte.
struct Step {
    std::size_t length = 1;
    bool valid = true;
};
[[nodiscard]] Step step(std::span<const std::uint8_t> bytes, std::size_t offset);

/// The offset of the first byte of 0x80 or more, or the size when there is none.
[[nodiscard]] std::size_t firstNonASCII(std::span<const std::uint8_t> bytes);

/// The offset of the first byte that is not part of well-formed UTF-8, or the size when all is.
[[nodiscard]] std::size_t firstInvalid(std::span<const std::uint8_t> bytes);

/// The number of UTF-16 units the repaired text of `bytes` has.
[[nodiscard]] std::int64_t utf16Length(std::span<const std::uint8_t> bytes);

/// The bytes as UTF-8 text with each ill-formed stretch replaced by U+FFFD.
[[nodiscard]] std::string repaired(std::span<const std::uint8_t> bytes);

} // namespace UTF8

} // namespace brim
