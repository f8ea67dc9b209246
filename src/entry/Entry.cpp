#include "entry/Entry.h"

#include "common/Localization.h"
#include "common/UserResources.h"
#include "entry/Branding.h"
#include "entry/Commands.h"
#include "settings/Settings.h"

#include <array>
#include <cstdio>
#include <string_view>

namespace brim {

void printError(std::string_view text) {
    std::string line = "brim: ";
    line.append(text);
    if (line.empty() || line.back() != '\n') line.push_back('\n');
    std::fputs(line.c_str(), stderr);
}

bool hasFlag(Arguments arguments, std::string_view flag) {
    for (const auto& argument : arguments) {
        if (argument == flag) return true;
    }
    return false;
}

int notAvailable(std::string_view command) {
    printError(L("%@ is not available in this build yet", std::string(command)));
    return 1;
}

namespace Entry {

namespace {

struct CommandRow {
    std::string_view option;
    std::size_t minimumCount;
    TerminalCommand run;
};

// The commands in the order they are tested; `--version` and `--cli` are answered before these.
constexpr std::array<CommandRow, 18> commandTable{{
    {"--install-cli", 2, installCLICommand},
    {"--encoding", 3, encodingCommand},
    {"--askpass", 2, askpassCommand},
    {"--layout-audit", 3, layoutAuditCommand},
    {"--menu-audit", 3, menuAuditCommand},
    {"--language", 3, languageCommand},
    {"--pdf", 4, pdfCommand},
    {"--drafts", 2, draftsCommand},
    {"--format", 3, formatCommand},
    {"--symbols", 3, symbolsCommand},
    {"--find", 4, findCommand},
    {"--blame", 3, blameCommand},
    {"--preview", 3, previewCommand},
    {"--grep", 4, grepCommand},
    {"--diff", 3, diffCommand},
    {"--benchmark", 3, benchmarkCommand},
    {"--render", 3, renderCommand},
    {"--export-icon", 3, exportIconCommand},
}};

// The commands that say "needs more than that" when they come with too few arguments.
constexpr std::array<std::string_view, 15> commandsNeedingArguments{
    "--export-icon", "--encoding", "--layout-audit", "--menu-audit", "--language",
    "--pdf",         "--format",   "--symbols",      "--find",       "--blame",
    "--preview",     "--grep",     "--diff",         "--benchmark",  "--render",
};

// The commands the installed tool passes straight through `--cli`.
constexpr std::array<std::string_view, 7> passedThrough{
    "--version", "--encoding", "--drafts", "--pdf", "--preview", "--grep", "--diff",
};

constexpr const char* help = R"(usage: brim [--wait] [--read-only] [--line N] [file ...]

  -w, --wait        do not return until the files are closed again
  -r, --read-only   open the files to be read: typing into them is refused
  -l, --line N      put the caret on line N of the first file
  -h, --help        show this message
  --drawing-report  describe how each open window's text is drawn, for a bug report

With no files, brings Brim to the front — or, if something is being piped in,
opens that:

  git diff | brim              the diff, in a window
  brim <(git show HEAD:x.c)    a process substitution
  brim -                       standard input, said explicitly

Answered in the terminal, without a window:

  brim --grep file pattern [--regex] [--case]
                               every match in the project the file belongs to
  brim --diff file             the file's changes against HEAD, as a patch
  brim --pdf file out.pdf      the PDF that Export as PDF writes
  brim --preview file          the HTML the preview makes of Markdown
  brim --encoding file ...     the character set a file is read in, and why
  brim --drafts                the unsaved work Brim is holding
  brim --version               which build this is
)";

bool contains(const auto& list, std::string_view value) {
    for (const auto& item : list) {
        if (item == value) return true;
    }
    return false;
}

} // namespace

const char* helpText() { return help; }

std::vector<std::string> normalised(std::vector<std::string> arguments) {
    if (arguments.size() >= 3 && arguments[1] == "--cli" && contains(passedThrough, arguments[2])) {
        arguments.erase(arguments.begin() + 1);
    }
    return arguments;
}

int run(std::vector<std::string> raw) {
    const std::vector<std::string> arguments = normalised(std::move(raw));
    const Arguments all(arguments);
    const std::size_t count = arguments.size();
    const std::string_view first = count >= 2 ? std::string_view(arguments[1]) : std::string_view{};

    for (std::size_t i = 0; i + 1 < count; ++i) {
        if (arguments[i] == "--support-dir") {
            UserResources::setOverrideRoot(std::filesystem::path(arguments[i + 1]));
            break;
        }
    }
    // The language the user chose in the settings, else the system's: one small file read.
    Localization::configure(Settings::storedAppLanguageWord());

    if (first == "--export-icon" && count >= 3) return exportIconCommand(all);
    if (first == "--version") {
        std::fputs(("Brim " + Branding::versionDescription() + "\n").c_str(), stdout);
        std::fputs((Branding::executablePath() + "\n").c_str(), stdout);
        return 0;
    }
    if (first == "-h" || first == "--help") {
        std::fputs(help, stdout);
        return 0;
    }
    if (first == "--cli") return commandClient(all);
    for (const auto& row : commandTable) {
        if (first == row.option && count >= row.minimumCount) {
            const int status = row.run(all);
            // A settings file that could not be read has been set aside; say so once.
            if (const auto problem = Settings::shared().problem()) printError(*problem);
            return status;
        }
    }
    if (hasFlag(all, "--selftest")) return selftestCommand(all);
    if (first == "--fuzz") return fuzzCommand(all);
    if (contains(commandsNeedingArguments, first)) {
        std::fputs(L("brim: %@ needs more than that. brim --help says what it takes.\n", std::string(first)).c_str(),
                   stderr);
        return 2;
    }
    return startApplication(all);
}

} // namespace Entry

} // namespace brim
