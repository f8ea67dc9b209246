#include "entry/Commands.h"

#include "common/Localization.h"
#include "language/Language.h"
#include "language/LanguageChoices.h"
#include "language/LanguageSample.h"

#include <cstdio>

namespace brim {

int languageCommand(Arguments arguments) {
    const bool verbose = hasFlag(arguments, "--verbose");
    for (std::size_t index = 2; index < arguments.size(); ++index) {
        const auto& path = arguments[index];
        if (path.starts_with("--")) {
            continue;
        }
        const auto sample = LanguageSample::read(path);
        if (!sample) {
            std::fputs((path + L(": cannot read") + "\n").c_str(), stdout);
            continue;
        }
        const auto language = Language::detect(path, *sample);
        // What the content says on its own: the name is left out of these two on purpose.
        const auto languages = Language::merged();
        const auto candidates = LanguageChoices::candidates(*sample, "", language, *languages);
        const auto best = LanguageChoices::best(*sample, "");
        std::string line = path + ": " + language.localizedDisplayName();
        line += best ? L("  (content says %@)", best->language.localizedDisplayName()) : L("  (content says nothing)");
        line += "\n";
        if (verbose) {
            for (std::size_t rank = 0; rank < candidates.size() && rank < 8; ++rank) {
                const auto& candidate = candidates[rank];
                line += L("    %-14s %6.1f  %@", candidate.language.id, candidate.score, candidate.reason) + "\n";
            }
        }
        std::fputs(line.c_str(), stdout);
    }
    return 0;
}

} // namespace brim
