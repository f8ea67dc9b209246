// Commands whose logic is not part of this build yet: each says so and returns 1.
#include "entry/Commands.h"

namespace brim {

int exportIconCommand(Arguments) { return notAvailable("--export-icon"); }
int installCLICommand(Arguments) { return notAvailable("--install-cli"); }
int askpassCommand(Arguments) { return notAvailable("--askpass"); }
int layoutAuditCommand(Arguments) { return notAvailable("--layout-audit"); }
int menuAuditCommand(Arguments) { return notAvailable("--menu-audit"); }
int pdfCommand(Arguments) { return notAvailable("--pdf"); }
int formatCommand(Arguments) { return notAvailable("--format"); }
int symbolsCommand(Arguments) { return notAvailable("--symbols"); }
int previewCommand(Arguments) { return notAvailable("--preview"); }
int renderCommand(Arguments) { return notAvailable("--render"); }
int selftestCommand(Arguments) { return notAvailable("--selftest"); }
int fuzzCommand(Arguments) { return notAvailable("--fuzz"); }

} // namespace brim
