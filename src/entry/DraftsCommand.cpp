#include "entry/Commands.h"

namespace brim {

int draftsCommand(Arguments) { return notAvailable("--drafts"); }

} // namespace brim
