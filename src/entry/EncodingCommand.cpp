#include "entry/Commands.h"

namespace brim {

int encodingCommand(Arguments) { return notAvailable("--encoding"); }

} // namespace brim
