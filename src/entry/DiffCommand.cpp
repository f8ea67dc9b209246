#include "entry/Commands.h"

#include "bytes/MemorySource.h"
#include "common/BrimError.h"
#include "common/Localization.h"
#include "compare/Git.h"
#include "compare/UnifiedDiff.h"

#include <algorithm>
#include <cstdio>

namespace brim {

int diffCommand(Arguments arguments) {
    const std::string& typed = arguments[2];
    const auto noVersion = [&] {
        std::fputs(L("brim: %@ has no version in HEAD to compare with.\n", typed).c_str(), stderr);
        return 1;
    };
    const auto root = Git::repositoryRoot(typed);
    if (!root) return noVersion();
    const auto relative = Git::relativePath(typed, *root);
    if (!relative) return noVersion();
    std::vector<std::uint8_t> working;
    try {
        working = MemorySource::bytesOfFile(typed);
    } catch (const BrimError&) {
        return noVersion();
    }
    const auto head = Git::headBlob(*relative, *root);
    if (!head) return noVersion();

    std::string output;
    if (UnifiedDiff::isBinary(*head) || UnifiedDiff::isBinary(working)) {
        // Lines mean nothing in a binary file: say whether it changed, as git does.
        if (*head != working) output = L("Binary files a/%@ and b/%@ differ\n", *relative, *relative);
    } else {
        UnifiedDiff::PatchOptions options;
        options.oldLabel = "a/" + *relative;
        options.newLabel = "b/" + *relative;
        options.context = 3;
        options.functionNames = true;
        output = UnifiedDiff::filePatch(*head, working, options);
    }
    std::fwrite(output.data(), 1, output.size(), stdout);
    std::fflush(stdout);
    return 0;
}

} // namespace brim
