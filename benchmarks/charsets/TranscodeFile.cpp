// Transcodes one file to a UTF-8 working copy with the editor's own transcoder, the way opening a file
// in a legacy set does, and prints how long it took and the peak resident memory. scripts/peers/
// transcode.sh times it side by side with `iconv` and `uconv` on the same file.
//
//   BRIM_TRANSCODE_FILE      the file to convert (required)
//   BRIM_TRANSCODE_SET       the id of its character set (required), as `brim --encodings` lists them
//   BRIM_TRANSCODE_SUPPORT   the support folder the working copy goes under (default: a folder
//                            "brim-support" beside the file, so the copy is on the file's disk)
//   BRIM_TRANSCODE_KEEP      when set, the copy is left in place and its path printed, for a check
//                            against the peers' output; otherwise it is removed
//
// Output, one "name: value" a line: seconds, bytes-in, bytes-out, peak-rss (KiB), copy (with KEEP).

#include "bytes/MappedSource.h"
#include "charsets/TextEncoding.h"
#include "charsets/Transcoder.h"
#include "common/BrimError.h"
#include "common/UserResources.h"

#include <sys/resource.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>

int main() {
    using namespace brim;
    const char* file = std::getenv("BRIM_TRANSCODE_FILE");
    const char* set = std::getenv("BRIM_TRANSCODE_SET");
    if (file == nullptr || set == nullptr) {
        std::fprintf(stderr, "brim_transcode_file: set BRIM_TRANSCODE_FILE and BRIM_TRANSCODE_SET\n");
        return 2;
    }
    const TextEncoding* encoding = TextEncoding::byId(set);
    if (encoding == nullptr) {
        std::fprintf(stderr, "brim_transcode_file: no character set \"%s\"\n", set);
        return 2;
    }
    const char* support = std::getenv("BRIM_TRANSCODE_SUPPORT");
    const std::filesystem::path input(file);
    UserResources::setOverrideRoot(support != nullptr && *support != '\0'
                                       ? std::filesystem::path(support)
                                       : input.parent_path() / "brim-support");
    try {
        const auto started = std::chrono::steady_clock::now();
        MappedSource source(input);
        const Transcoder::TranscodeOutcome outcome = Transcoder::transcodeToWorkingCopy(source, *encoding);
        const std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - started;
        rusage usage{};
        ::getrusage(RUSAGE_SELF, &usage);
        std::printf("seconds: %.3f\nbytes-in: %lld\nbytes-out: %lld\npeak-rss: %ld KiB\n", elapsed.count(),
                    static_cast<long long>(source.count()), static_cast<long long>(outcome.bytesWritten),
                    usage.ru_maxrss);
        if (std::getenv("BRIM_TRANSCODE_KEEP") != nullptr) {
            std::printf("copy: %s\n", outcome.workingCopy->c_str());
        } else {
            std::filesystem::remove(*outcome.workingCopy);
        }
    } catch (const BrimError& error) {
        std::fprintf(stderr, "brim_transcode_file: %s\n", error.what());
        return 1;
    }
    return 0;
}
