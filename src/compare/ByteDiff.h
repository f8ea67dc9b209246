#pragma once

#include <cstdint>
#include <span>
#include <string_view>
#include <vector>

/// The smallest single replacement between two buffers, for applying an outside tool's output to a
/// document as one undoable edit.
namespace brim::ByteDiff {

/// Replace `removedLength` bytes at `offset` by `inserted`.
struct Edit {
    std::int64_t offset = 0;
    std::int64_t removedLength = 0;
    std::vector<std::uint8_t> inserted;
    friend bool operator==(const Edit&, const Edit&) = default;
};

/// The one edit that turns `oldBytes` into `newBytes`, keeping the longest common prefix and then
/// the longest common suffix that does not overlap it. With `utf8Boundaries`, the edit neither
/// starts nor ends inside a character of `newBytes`. Identical buffers give an empty edit at 0.
[[nodiscard]] Edit minimalEdit(std::span<const std::uint8_t> oldBytes, std::span<const std::uint8_t> newBytes,
                               bool utf8Boundaries);

/// `text` with each LF or CR LF line end written as `ending` (the bytes of the document's line
/// ending, "\r\n" say). Line ends that already are `ending` stay; an `ending` of "\n" leaves the
/// bytes untouched.
[[nodiscard]] std::vector<std::uint8_t> normalizeLineEndings(std::span<const std::uint8_t> text, std::string_view ending);

} // namespace brim::ByteDiff
