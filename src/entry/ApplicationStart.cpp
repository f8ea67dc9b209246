#include "common/Localization.h"
#include "entry/Commands.h"

#include <cstdio>

#if BRIM_HAS_SHELL
#include "shell/Application.h"
#endif

namespace brim {

int startApplication(Arguments arguments) {
#if BRIM_HAS_SHELL
    return shell::runApplication(std::vector<std::string>(arguments.begin(), arguments.end()));
#else
    (void)arguments;
    std::fputs(L("brim: the window is not part of this build; brim --help lists the terminal commands.\n").c_str(),
               stderr);
    return 1;
#endif
}

} // namespace brim
