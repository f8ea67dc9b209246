#include "entry/Commands.h"

#include "common/ByteFormatter.h"
#include "common/Localization.h"
#include "persistence/DraftStore.h"

#include <cmath>
#include <cstdio>
#include <ctime>
#include <string>

namespace brim {
namespace {

// 2001-01-01 00:00:00 UTC in seconds since 1970.
constexpr double referenceDateUnix = 978'307'200;

std::string localMinute(double date) {
    const auto clock = static_cast<std::time_t>(std::floor(date + referenceDateUnix));
    std::tm local{};
    ::localtime_r(&clock, &local);
    char text[32];
    std::strftime(text, sizeof text, "%Y-%m-%d %H:%M", &local);
    return text;
}

} // namespace

// Lists the drafts without writing anything: a damaged one is reported and skipped, never repaired
// or removed, and never stops the others.
int draftsCommand(Arguments) {
    const auto found = DraftStore::survey();
    for (const auto& damage : found.damaged) printError(damage.reason);
    if (found.stored.empty()) {
        std::fputs((L("No unsaved work is being held.") + "\n").c_str(), stdout);
        return 0;
    }
    for (const auto& entry : found.stored) {
        const auto& draft = entry.draft;
        const auto state = draft.closedAt ? L("closed %@", localMinute(*draft.closedAt)) : L("open");
        const auto line = draft.id + "  " + ByteFormatter::string(entry.bytes) + "  " + state + "  " + draft.label() + "\n";
        std::fputs(line.c_str(), stdout);
    }
    return 0;
}

} // namespace brim
