#include "entry/Entry.h"

#include <csignal>
#include <cstdio>

int main(int argc, char** argv) {
    // A closed pipe ("brim --grep ... | head") must end in a failed write, not in a signal.
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
    std::signal(SIGPIPE, SIG_IGN);
    std::vector<std::string> arguments(argv, argv + argc);
    return brim::Entry::run(std::move(arguments));
}
