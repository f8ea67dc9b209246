#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace brim {

/// A stateless double-byte set read from Apple's published tables (the Mac Japanese, Chinese and
/// Korean sets): single bytes, and lead bytes that take one more byte. Some codes stand for a sequence
/// of characters (Apple's variant tags); encoding tries the longest sequence first.
///
/// Immutable after construction, so one codec serves every thread.
class DoubleByteCodec {
public:
    /// The codec for a catalogue id ("macjapanese", "macchinesesimp", "macchinesetrad", "mackorean"),
    /// built from its generated table on first use; null for any other id.
    [[nodiscard]] static const DoubleByteCodec* named(std::string_view id);

    /// Builds a codec from the generator's tokens. Throws `std::invalid_argument` on malformed data.
    explicit DoubleByteCodec(std::span<const char* const> pieces);

    [[nodiscard]] bool isLeadByte(std::uint8_t byte) const { return isLead_[byte]; }

    /// Decodes `bytes` onto `out` as UTF-16. A lead byte at the very end is left unread unless `final`
    /// is set; the return value is the count of bytes read. Bytes that form no code become U+FFFD, one
    /// per code, counted in `invalid`. Never fails.
    std::size_t decode(std::span<const std::uint8_t> bytes, bool final, std::u16string& out,
                       std::size_t& invalid) const;

    /// Encodes UTF-16 text onto `out` and returns the count of units read. A character the set lacks
    /// becomes "?", counted in `unwritable` and listed in `lost` when given. Unless `final`, reading
    /// stops before a unit that may begin a sequence running past the end, so the caller can join it
    /// to what follows. Never fails; unpaired surrogates are unwritable.
    std::size_t encode(std::u16string_view text, bool final, std::vector<std::uint8_t>& out, std::size_t& unwritable,
                       std::vector<char32_t>* lost = nullptr) const;

    /// The units one code (a single byte below 0x100, else lead * 256 + trail) decodes to; empty when
    /// the code is unassigned.
    [[nodiscard]] std::u16string_view unitsOf(std::uint16_t code) const;

    /// Every assigned code, in order.
    [[nodiscard]] std::vector<std::uint16_t> codes() const;

private:
    static constexpr char16_t unassigned = 0xFFFD;
    static constexpr char16_t sequence = 0xFFFF;            // the code's units are in sequences_
    static constexpr std::uint16_t noCode = 0xFFFF;          // in reverse_: the unit has no code of its own

    void assign(std::uint32_t code, std::u16string_view units);
    void appendCode(std::uint16_t code, std::vector<std::uint8_t>& out) const;

    std::vector<char16_t> decodeTable_;                      // 65,536 entries, by code
    std::unordered_map<std::uint16_t, std::u16string> sequences_;
    std::vector<std::uint16_t> reverse_;                     // 65,536 entries, by UTF-16 unit
    std::unordered_map<std::u16string, std::uint16_t> reverseSequences_;
    std::vector<bool> startsSequence_;                       // by UTF-16 unit: begins some sequence
    std::size_t longestSequence_ = 1;
    std::array<bool, 256> isLead_{};
};

} // namespace brim
