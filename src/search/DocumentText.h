#pragma once

#include "bytes/ByteSource.h"
#include "search/SearchText.h"

#include <memory>

namespace brim {

class PieceTable;
class TextDocument;
class TextEncoding;

/// How a search reads bytes in `encoding`: nothing for UTF-8, which the engine reads as it is.
/// For the sets whose second bytes can look like ASCII or like a first byte (Shift-JIS, GBK,
/// GB18030, Big5, UHC and their kin), a match is accepted only where a character begins, and
/// windows are cut character by character.
[[nodiscard]] std::shared_ptr<const SearchEncoding> searchEncoding(const TextEncoding& encoding);

/// The bytes of a piece table as a source, for searching a document that has been edited. Reads
/// may come from several threads at once; the table must not change while a search runs.
class PieceTableSource final : public ByteSource {
public:
    explicit PieceTableSource(const PieceTable& table) : table_(table) {}

    [[nodiscard]] std::int64_t count() const override;
    void read(ByteRange range, std::uint8_t* destination) const override;
    void withBytes(ByteRange range, const std::function<void(std::span<const std::uint8_t>)>& body) const override;

private:
    const PieceTable& table_;
};

/// What a search of a document runs over: the bytes its table holds and the character set they
/// are in (the document's own set when it is kept in its own bytes, UTF-8 when it is read through
/// a working copy). Refers to the document, which must outlive it and not change while it is
/// searched.
class DocumentText {
public:
    explicit DocumentText(const TextDocument& document);
    /// Bytes in a set, as a document would hold them.
    DocumentText(std::shared_ptr<const ByteSource> bytes, const TextEncoding& encoding);

    [[nodiscard]] SearchText text() const { return {*bytes_, encoding_.get()}; }
    operator SearchText() const { return text(); }  // NOLINT(google-explicit-constructor)

    [[nodiscard]] const ByteSource& bytes() const { return *bytes_; }
    [[nodiscard]] const SearchEncoding* encoding() const { return encoding_.get(); }

private:
    std::shared_ptr<const ByteSource> bytes_;
    std::shared_ptr<const SearchEncoding> encoding_;
};

} // namespace brim
