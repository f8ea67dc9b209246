#include "entry/Commands.h"

namespace brim {

int findCommand(Arguments) { return notAvailable("--find"); }

} // namespace brim
