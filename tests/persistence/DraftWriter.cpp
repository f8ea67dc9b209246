// A helper for the crash and memory checks of the draft store; not part of the program.
//
//   brim_draft_writer rewrite <folder> <id> <old-size> <new-size>
//       rewrites the draft with the new text and the old text in turn until it is killed
//   brim_draft_writer large <folder> <file>
//       opens the file, edits it, writes its draft and prints the peak memory (VmHWM) before and after
#include "persistence/DraftStore.h"
#include "store/TextDocument.h"

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

namespace {

std::vector<std::uint8_t> patternText(std::size_t size, char letter) {
    std::vector<std::uint8_t> bytes(size);
    for (std::size_t i = 0; i < size; ++i) bytes[i] = i % 64 == 63 ? '\n' : static_cast<std::uint8_t>(letter);
    return bytes;
}

std::string peakMemory() {
    std::ifstream status("/proc/self/status");
    std::string line;
    while (std::getline(status, line)) {
        if (line.starts_with("VmHWM:")) return line.substr(6);
    }
    return "?";
}

} // namespace

int main(int argc, char** argv) {
    using namespace brim;
    const std::vector<std::string> arguments(argv, argv + argc);
    if (arguments.size() == 6 && arguments[1] == "rewrite") {
        DraftStore::setOverrideDirectory(arguments[2]);
        const auto oldSize = std::stoul(arguments[4]);
        const auto newSize = std::stoul(arguments[5]);
        auto oldText = TextDocument::inMemory(patternText(oldSize, 'o'), TextEncoding::utf8(), "old");
        auto newText = TextDocument::inMemory(patternText(newSize, 'n'), TextEncoding::utf8(), "new");
        std::fputs("writing\n", stdout);
        std::fflush(stdout);
        for (;;) {
            DraftStore::write(arguments[3], *newText);
            DraftStore::write(arguments[3], *oldText);
        }
    }
    if (arguments.size() == 4 && arguments[1] == "large") {
        DraftStore::setOverrideDirectory(arguments[2]);
        auto document = TextDocument::open(arguments[3]);
        document->replace({0, 0}, "edited\n", 0, 7);
        const auto before = peakMemory();
        const auto id = DraftStore::newID();
        DraftStore::write(id, *document);
        std::printf("bytes %lld\npeak before writing:%s\npeak after writing:%s\n",
                    static_cast<long long>(document->byteCount()), before.c_str(), peakMemory().c_str());
        return DraftStore::exists(id) ? 0 : 1;
    }
    std::fputs("usage: brim_draft_writer rewrite <folder> <id> <old-size> <new-size> | large <folder> <file>\n", stderr);
    return 2;
}
