#include "entry/Commands.h"

namespace brim {

int grepCommand(Arguments) { return notAvailable("--grep"); }

} // namespace brim
