#pragma once

#include <span>
#include <string>
#include <string_view>

namespace brim {

/// The process arguments as `main` sees them: position 0 is the executable.
using Arguments = std::span<const std::string>;

/// A terminal command: answers on standard output, messages on standard error, returns the exit
/// status (0 an answer, 1 no answer, 2 bad usage).
using TerminalCommand = int (*)(Arguments arguments);

/// Writes "brim: <text>" and a newline on standard error.
void printError(std::string_view text);

/// Whether `flag` stands anywhere in the arguments.
[[nodiscard]] bool hasFlag(Arguments arguments, std::string_view flag);

/// The answer of a command whose logic is not in this build: a message and status 1.
int notAvailable(std::string_view command);

// The commands, each in its own file, in the order `main` tests them.
int exportIconCommand(Arguments arguments);
int installCLICommand(Arguments arguments);
int encodingCommand(Arguments arguments);
int askpassCommand(Arguments arguments);
int layoutAuditCommand(Arguments arguments);
int menuAuditCommand(Arguments arguments);
int languageCommand(Arguments arguments);
int pdfCommand(Arguments arguments);
int draftsCommand(Arguments arguments);
int formatCommand(Arguments arguments);
int symbolsCommand(Arguments arguments);
int findCommand(Arguments arguments);
int blameCommand(Arguments arguments);
int previewCommand(Arguments arguments);
int grepCommand(Arguments arguments);
int diffCommand(Arguments arguments);
int benchmarkCommand(Arguments arguments);
int renderCommand(Arguments arguments);
int commandClient(Arguments arguments);
int selftestCommand(Arguments arguments);
int fuzzCommand(Arguments arguments);

/// Starts the window with the arguments it was given; returns the exit status.
int startApplication(Arguments arguments);

} // namespace brim
