#include "entry/Commands.h"

namespace brim {

int languageCommand(Arguments) { return notAvailable("--language"); }

} // namespace brim
