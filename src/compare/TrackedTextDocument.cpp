#include "compare/TrackedTextDocument.h"

namespace brim {

namespace {

class TrackerObserver final : public TextDocumentObserver {
public:
    explicit TrackerObserver(GitChangeTracker& tracker) : tracker_(tracker) {}

    void documentDidChange(TextDocument& document, std::int64_t /*changedFrom*/) override {
        const auto& change = document.lastChange();
        tracker_.documentDidChange(change ? TrackedTextDocument::trackedChange(*change) : TrackedChange{});
    }

private:
    GitChangeTracker& tracker_;
};

} // namespace

TrackedTextDocument::TrackedTextDocument(std::shared_ptr<TextDocument> document) : document_(std::move(document)) {}

std::optional<std::filesystem::path> TrackedTextDocument::fileURL() const { return document_->url; }

std::int64_t TrackedTextDocument::byteCount() const { return document_->byteCount(); }

std::vector<std::uint8_t> TrackedTextDocument::snapshot() const {
    return document_->table().bytes({0, document_->byteCount()});
}

std::uint64_t TrackedTextDocument::editGeneration() const {
    return static_cast<std::uint64_t>(document_->editGeneration());
}

std::vector<std::uint8_t> TrackedTextDocument::asBuffer(std::vector<std::uint8_t> bytes) const {
    if (document_->fileEncoding == document_->encoding) return bytes;
    return document_->encoding.encode(document_->fileEncoding.decode(bytes)).bytes;
}

std::shared_ptr<TextDocumentObserver> TrackedTextDocument::observe(GitChangeTracker& tracker) {
    auto observer = std::make_shared<TrackerObserver>(tracker);
    document_->addObserver(observer);
    return observer;
}

TrackedChange TrackedTextDocument::trackedChange(const DocumentChange& change) {
    if (change.isWholesale) return {};
    const std::int64_t removed = change.oldLines.last - change.oldLines.first + 1;
    return {TrackedChange::Lines{change.oldLines.first, removed, removed + change.lineDelta}};
}

} // namespace brim
