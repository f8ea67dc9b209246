#include "entry/Commands.h"

namespace brim {

int benchmarkCommand(Arguments) { return notAvailable("--benchmark"); }

} // namespace brim
