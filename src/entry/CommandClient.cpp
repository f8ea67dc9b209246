#include "common/Localization.h"
#include "entry/Commands.h"
#include "entry/Entry.h"

#include <cstdio>

namespace brim {

int commandClient(Arguments arguments) {
    // Help is answered here; handing files to a running window comes with the command channel.
    for (std::size_t i = 2; i < arguments.size(); ++i) {
        if (arguments[i] == "-h" || arguments[i] == "--help") {
            std::fputs(Entry::helpText(), stdout);
            return 0;
        }
    }
    return notAvailable("--cli");
}

} // namespace brim
