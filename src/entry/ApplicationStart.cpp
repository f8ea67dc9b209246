#include "common/Localization.h"
#include "entry/Commands.h"

#include <cstdio>

namespace brim {

int startApplication(Arguments) {
    std::fputs(L("brim: the window is not part of this build yet; brim --help lists the terminal commands.\n").c_str(),
               stderr);
    return 1;
}

} // namespace brim
