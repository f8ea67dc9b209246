#include "entry/Commands.h"

#include "common/Localization.h"
#include "common/Parallel.h"
#include "compare/Git.h"
#include "search/ExpressionSyntax.h"
#include "search/ProjectFiles.h"
#include "search/ProjectSearch.h"
#include "search/SearchEngine.h"

#include <condition_variable>
#include <cstdio>
#include <filesystem>
#include <mutex>
#include <span>
#include <string>
#include <thread>
#include <vector>

namespace brim {

namespace {

namespace fs = std::filesystem;

/// Git as the project listing asks for it, through the one place that runs git.
GitAccess gitAccess() {
    GitAccess git;
    git.repositoryRoot = [](const fs::path& file) { return Git::repositoryRoot(file); };
    git.listFiles = [](const fs::path& root) -> std::optional<std::string> {
        const std::vector<std::string> arguments = {"ls-files", "--cached", "--others", "--exclude-standard", "-z"};
        const auto result = Git::run(arguments, root, std::chrono::seconds(15), 32 * 1'048'576);
        if (!result || result->status != 0 || result->timedOut) return std::nullopt;
        std::string output(result->output.begin(), result->output.end());
        // Output cut at the limit ends in half a path: keep only whole ones.
        if (result->outputLimitReached) output.erase(output.rfind('\0') == std::string::npos ? 0 : output.rfind('\0') + 1);
        return output;
    };
    return git;
}

/// The path below the project's root, as the lines print it.
std::string relativeTo(const std::string& path, const std::string& root) {
    if (path.size() > root.size() && path.compare(0, root.size(), root) == 0 && path[root.size()] == '/') {
        return path.substr(root.size() + 1);
    }
    return path;
}

} // namespace

int grepCommand(Arguments arguments) {
    const fs::path file = fs::absolute(fs::path(arguments[2])).lexically_normal();
    SearchQuery query;
    query.pattern = arguments[3];
    query.isRegex = hasFlag(arguments, "--regex");
    query.caseSensitive = hasFlag(arguments, "--case");

    // A bad expression is said once, before any file is read.
    try {
        SearchEngine::validate(query);
    } catch (const PatternError& error) {
        printError(error.what());
        return 2;
    }

    const GitAccess git = gitAccess();
    ProjectFiles projects(git);
    const fs::path root = projects.root(file);
    std::error_code error;
    if (!fs::is_directory(root, error)) {
        std::fputs(L("brim: cannot read %@\n", arguments[2]).c_str(), stderr);
        return 1;
    }
    // The walk goes on in a thread of its own while the files it has found are searched, a batch
    // at a time on every processor, and printed in the listing's order.
    constexpr std::size_t batchSize = 256;
    std::mutex lock;
    std::condition_variable arrival;
    std::vector<std::string> found;  // guarded by lock
    bool listed = false;             // guarded by lock
    ProjectFiles::Listing listing;   // written by the walk before `listed`
    std::thread walker([&] {
        auto whole = ProjectFiles::list(root, git, [&](std::span<const std::string> paths) {
            std::lock_guard guard(lock);
            found.insert(found.end(), paths.begin(), paths.end());
            arrival.notify_one();
        });
        std::lock_guard guard(lock);
        listing = std::move(whole);
        listed = true;
        arrival.notify_one();
    });
    // Paths print below the project's root, which `root` gives standardised as the listing has it.
    const std::string projectText = root.string();

    std::int64_t matches = 0;
    std::int64_t filesWithHits = 0;
    std::int64_t unreadable = 0;
    std::vector<std::string> slowFiles;
    bool outputClosed = false;
    std::vector<ProjectSearch::FileOutcome> outcomes;
    std::vector<std::string> batch;
    std::size_t taken = 0;
    while (!outputClosed) {
        {
            std::unique_lock guard(lock);
            arrival.wait(guard, [&] { return listed || found.size() - taken >= batchSize; });
            const std::size_t count = std::min(batchSize, found.size() - taken);
            batch.assign(found.begin() + static_cast<std::ptrdiff_t>(taken),
                         found.begin() + static_cast<std::ptrdiff_t>(taken + count));
            taken += count;
        }
        if (batch.empty()) break;
        const std::size_t count = batch.size();
        outcomes.assign(count, {});
        parallelFor(count, [&](std::size_t i) {
            try {
                outcomes[i] = ProjectSearch::examine(batch[i], query);
            } catch (const BrimError&) {
                outcomes[i] = {};
            }
        });
        std::string text;
        for (std::size_t i = 0; i < count; ++i) {
            const auto& outcome = outcomes[i];
            if (outcome.status == ProjectSearch::FileOutcome::Status::unreadable) ++unreadable;
            if (outcome.status == ProjectSearch::FileOutcome::Status::timedOut) {
                slowFiles.push_back(relativeTo(batch[i], projectText));
            }
            if (!outcome.hit) continue;
            ++filesWithHits;
            matches += outcome.hit->total;
            const std::string relative = relativeTo(batch[i], projectText);
            for (const auto& result : outcome.hit->results) {
                text += relative;
                text += ':';
                text += std::to_string(result.line + 1);
                text += ':';
                text += result.text;
                text += '\n';
            }
        }
        if (!text.empty() && (std::fwrite(text.data(), 1, text.size(), stdout) != text.size() || std::fflush(stdout) != 0)) {
            outputClosed = true;  // a reader that went away ("| head") ends the search
        }
    }
    walker.join();
    for (const auto& slow : slowFiles) {
        printError(L("%@: the expression took too long on this file; only the matches before that point are counted.", slow));
    }
    if (unreadable > 0) printError(L("%d files of the project could not be read.", unreadable));
    std::fputs(L("%1$d matches in %2$d files, of %3$d in the project.\n", matches, filesWithHits,
                 static_cast<std::int64_t>(listing.paths.size()))
                   .c_str(),
               stderr);
    return matches > 0 ? 0 : 1;
}

} // namespace brim
