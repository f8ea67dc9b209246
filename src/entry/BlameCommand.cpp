#include "entry/Commands.h"

#include "common/Localization.h"
#include "compare/Git.h"

#include <cstdio>

namespace brim {

namespace {

constexpr std::size_t blameLineLimit = 50'000;

} // namespace

int blameCommand(Arguments arguments) {
    const std::string& typed = arguments[2];
    const auto noBlame = [] {
        std::fputs(L("brim: no blame for that file\n").c_str(), stderr);
        return 1;
    };
    const auto root = Git::repositoryRoot(typed);
    if (!root) return noBlame();
    const auto relative = Git::relativePath(typed, *root);
    if (!relative) return noBlame();
    const auto lines = Git::blameFile(*relative, *root, blameLineLimit);
    if (!lines) return noBlame();

    std::string output;
    for (std::size_t i = 0; i < lines->size(); ++i) {
        const Git::BlameLine& line = (*lines)[i];
        output += std::to_string(i + 1);
        output += '\t';
        output += line.commit.substr(0, 8);
        output += '\t';
        output += line.author;
        output += '\t';
        output += line.summary;
        output += '\n';
    }
    std::fwrite(output.data(), 1, output.size(), stdout);
    std::fflush(stdout);
    return 0;
}

} // namespace brim
