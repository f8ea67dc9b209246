// Saving a document in a set with a shift state (ISO-2022, HZ) after one edit: the stretches between
// checkpoints that the edit did not touch are copied from the old file, the rest converted, and the
// file is exactly what converting the whole edited text would give.
#include "charsets/Transcoder.h"
#include "store/TextDocument.h"
#include "support/TemporaryFolder.h"

#include <gtest/gtest.h>

#include <sys/stat.h>

#include <fstream>
#include <string>
#include <vector>

namespace brim {
namespace {

using Bytes = std::vector<std::uint8_t>;
using testing::TemporaryFolder;

Bytes readAll(const std::filesystem::path& path) {
    std::ifstream stream(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>()};
}

Bytes convertWhole(const TextEncoding& from, const TextEncoding& to, std::string_view text) {
    Transcoder::BlockConverter converter(from, to);
    Bytes out;
    converter.convert(std::span<const std::uint8_t>(reinterpret_cast<const std::uint8_t*>(text.data()), text.size()), out);
    converter.finish(out);
    return out;
}

/// Lines of ASCII and Chinese or Japanese text, past several blocks of conversion (4 MiB each).
std::string longText(bool japanese) {
    const std::vector<std::string> words =
        japanese ? std::vector<std::string>{"日本語", "の", "文章", "です", "ABC", "123", "東京", "、", "。", "変換"}
                 : std::vector<std::string>{"中文", "的", "文本", "这是", "ABC", "123", "北京", "，", "。", "转换"};
    std::string text;
    for (std::size_t line = 0; text.size() < 12'000'000; ++line) {
        text += "line " + std::to_string(line) + ": ";
        for (std::size_t k = 0; k < 8 + line % 5; ++k) {
            text += words[(line * 7 + k * 3) % words.size()];
        }
        text += "\n";
    }
    return text;
}

TextDocument::OpenOptions readAs(const TextEncoding& encoding) {
    TextDocument::OpenOptions options;
    options.forcedEncoding = encoding;
    options.readProjectRules = false;
    return options;
}

void save(TextDocument& document) {
    TextDocument::WriteOptions options;
    options.encoding = document.fileEncoding;
    options.lineEnding = document.lineEnding;
    document.adoptSaved(document.writeOut(*document.url, options));
}

class StatefulSave : public ::testing::TestWithParam<std::string> {};

TEST_P(StatefulSave, oneEditSavedByCheckpointsGivesTheBytesOfAWholeConversion) {
    const TextEncoding& encoding = *TextEncoding::byId(GetParam());
    TemporaryFolder folder;
    const std::string text = longText(GetParam().find("jp") != std::string::npos);
    const auto path = folder.write("stateful.txt", convertWhole(TextEncoding::utf8(), encoding, text));
    const auto document = TextDocument::open(path, readAs(encoding));
    // Text with a shift state is edited as UTF-8 in a working copy, never as its own bytes.
    ASSERT_TRUE(document->workingCopy());
    ASSERT_TRUE(document->checkpoints && document->checkpoints->isUsable);
    ASSERT_GE(document->checkpoints->count(), 3u);

    // One character typed in the middle of a line of Chinese or Japanese.
    const std::int64_t line = 100'000;
    const std::int64_t at = document->lineRange(line).lower + 12;
    document->replace({at, at}, "漢", at, at + 3);
    save(*document);

    std::string edited = text;
    std::size_t offset = 0;
    for (std::int64_t n = 0; n < line; ++n) {
        offset = edited.find('\n', offset) + 1;
    }
    edited.insert(offset + 12, "漢");
    EXPECT_TRUE(readAll(path) == convertWhole(TextEncoding::utf8(), encoding, edited));
    // The saved file has checkpoints of its own for the next save.
    EXPECT_TRUE(document->checkpoints && document->checkpoints->isUsable);
}

INSTANTIATE_TEST_SUITE_P(Sets, StatefulSave,
                         ::testing::Values("iso2022jp", "iso2022jp2", "iso2022cn", "iso2022cnext", "hzgb2312"));

} // namespace
} // namespace brim
