#include "entry/Commands.h"

namespace brim {

int blameCommand(Arguments) { return notAvailable("--blame"); }

} // namespace brim
