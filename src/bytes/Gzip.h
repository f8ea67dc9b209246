#pragma once

#include "common/BrimError.h"

#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace brim::Gzip {

/// What keeps a gzip file from being read or written; the text says it in the user's words.
class Failure : public BrimError {
public:
    enum class Kind : std::uint8_t { corrupt, notGzip, tooLarge };

    /// "This is not a gzip file."
    [[nodiscard]] static Failure notGzip();
    /// "The compressed data is damaged: <detail>", with the detail already in the user's language:
    /// "the checksum does not match", "it is not as long as it says it is", "the deflate stream
    /// is not readable", "the decoder would not start", "there is something after the end that
    /// is not gzip".
    [[nodiscard]] static Failure corrupt(const std::string& detail);
    /// "Unpacked it would be more than <limit>, which is more than Brim will hold in memory at once."
    [[nodiscard]] static Failure tooLarge(std::int64_t limit);

    [[nodiscard]] Kind kind() const { return kind_; }

private:
    Failure(Kind kind, const std::string& text) : BrimError(text), kind_(kind) {}
    Kind kind_;
};

/// The most that opening unpacks into memory.
inline constexpr std::int64_t defaultLimit = 536'870'912;

/// At least three bytes, and they are 1F 8B 08.
[[nodiscard]] bool isGzip(std::span<const std::uint8_t> bytes);

/// Whether the file's first three bytes are 1F 8B 08. The name doesn't count; a file that
/// can't be read is not compressed.
[[nodiscard]] bool looksCompressed(const std::filesystem::path& path);

/// The level the file was written with, as far as its header says: 9 for the strongest, 1 for
/// the quickest, else (and for anything that is not gzip) the usual 6.
[[nodiscard]] int level(std::span<const std::uint8_t> bytes);

/// "dump.sql.gz" becomes "dump.sql" (the suffix in any case); "x.tar.gz" and names without the
/// suffix stay as they are.
[[nodiscard]] std::string uncompressedName(const std::string& name);

/// Where the deflate data of the member at `start` begins, past its header and optional
/// fields; nothing if the header is not valid or runs off the end.
[[nodiscard]] std::optional<std::size_t> bodyStart(std::span<const std::uint8_t> bytes,
                                                   std::size_t start = 0);

/// Unpacks every member, checking each one's checksum and length. Zero bytes after the last
/// member are padding. Throws `Failure`; a result larger than `limit` is `tooLarge`.
[[nodiscard]] std::vector<std::uint8_t> decompress(std::span<const std::uint8_t> bytes,
                                                   std::int64_t limit = defaultLimit);

/// Up to `maxBytes` unpacked bytes from the start of the first member, unchecked, for samples.
/// Empty if the data can't be read at all; never throws.
[[nodiscard]] std::vector<std::uint8_t> unpackPrefix(std::span<const std::uint8_t> bytes,
                                                     std::int64_t maxBytes);

/// The CRC-32 of gzip, carried on from `previous` across blocks.
[[nodiscard]] std::uint32_t checksum(std::span<const std::uint8_t> bytes, std::uint32_t previous = 0);

/// Writes one gzip member block by block: `header()`, then `process` for each block in order,
/// then `finish()`; the caller writes out what each returns.
class Encoder {
public:
    /// Throws `Failure` "the decoder would not start" if the compressor can't be set up.
    explicit Encoder(std::optional<std::string> name = std::nullopt, int level = 6);
    ~Encoder();
    Encoder(const Encoder&) = delete;
    Encoder& operator=(const Encoder&) = delete;

    /// The member header: the name is stored when there is one, and the level is recorded for
    /// 1 and 9.
    [[nodiscard]] std::vector<std::uint8_t> header() const;
    /// Compresses the next block; returns what is ready to be written.
    [[nodiscard]] std::vector<std::uint8_t> process(std::span<const std::uint8_t> bytes);
    /// Flushes the rest and appends the checksum and length. The encoder is done after this.
    [[nodiscard]] std::vector<std::uint8_t> finish();

    [[nodiscard]] const std::optional<std::string>& name() const { return name_; }
    [[nodiscard]] int level() const { return level_; }
    [[nodiscard]] std::uint32_t crc() const { return crc_; }
    /// Bytes processed, modulo 2^32.
    [[nodiscard]] std::uint32_t size() const { return size_; }

private:
    struct Stream;
    std::optional<std::string> name_;
    int level_;
    std::uint32_t crc_ = 0;
    std::uint32_t size_ = 0;
    std::unique_ptr<Stream> stream_;
    bool started_ = false;
};

}  // namespace brim::Gzip
