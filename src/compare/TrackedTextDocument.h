#pragma once

#include "compare/GitChangeTracker.h"
#include "store/TextDocument.h"

#include <memory>

namespace brim {

/// A `TextDocument` as the change tracker sees it: its file, its text and its edit generation, and
/// the versions from the repository brought into the document's character set before comparing, so
/// a file kept in another set (a working copy) shows only real changes.
class TrackedTextDocument final : public TrackedDocument {
public:
    explicit TrackedTextDocument(std::shared_ptr<TextDocument> document);

    [[nodiscard]] std::optional<std::filesystem::path> fileURL() const override;
    [[nodiscard]] std::int64_t byteCount() const override;
    [[nodiscard]] std::vector<std::uint8_t> snapshot() const override;
    [[nodiscard]] std::uint64_t editGeneration() const override;
    [[nodiscard]] std::vector<std::uint8_t> asBuffer(std::vector<std::uint8_t> bytes) const override;

    /// Tells `tracker` of every edit of the document from now on, for as long as the returned
    /// observer is kept (documents hold their observers weakly).
    [[nodiscard]] std::shared_ptr<TextDocumentObserver> observe(GitChangeTracker& tracker);

    /// One document change in the tracker's terms: the old lines it touched and how many replaced them.
    [[nodiscard]] static TrackedChange trackedChange(const DocumentChange& change);

private:
    std::shared_ptr<TextDocument> document_;
};

} // namespace brim
