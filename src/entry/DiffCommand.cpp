#include "entry/Commands.h"

namespace brim {

int diffCommand(Arguments) { return notAvailable("--diff"); }

} // namespace brim
