#include "entry/Entry.h"

#include "support/ProcessRunner.h"
#include "support/TemporaryFolder.h"

#include <gtest/gtest.h>

namespace brim {
namespace {

using testing::runBrim;

TEST(Entry, cliIsRemovedOnlyBeforeThePassedThroughCommands) {
    using V = std::vector<std::string>;
    EXPECT_EQ(Entry::normalised(V{"Brim", "--cli", "--grep", "f", "p"}), (V{"Brim", "--grep", "f", "p"}));
    EXPECT_EQ(Entry::normalised(V{"Brim", "--cli", "--version"}), (V{"Brim", "--version"}));
    // Two arguments are not enough: "--cli --encoding" stays a call of the command client.
    EXPECT_EQ(Entry::normalised(V{"Brim", "--cli"}), (V{"Brim", "--cli"}));
    // Commands the tool does not pass through stay with the client.
    EXPECT_EQ(Entry::normalised(V{"Brim", "--cli", "--find", "f", "p"}), (V{"Brim", "--cli", "--find", "f", "p"}));
    EXPECT_EQ(Entry::normalised(V{"Brim", "--grep", "--cli", "x"}), (V{"Brim", "--grep", "--cli", "x"}));
}

TEST(Entry, versionNamesTheBuildAndTheExecutable) {
    const auto result = runBrim({"--version"});
    EXPECT_EQ(result.status, 0);
    const auto firstLine = result.out.substr(0, result.out.find('\n'));
    EXPECT_TRUE(firstLine.starts_with("Brim 0.")) << firstLine;
    EXPECT_NE(firstLine.find(" ("), std::string::npos);
    EXPECT_TRUE(firstLine.ends_with(")"));
    EXPECT_NE(result.out.find(BRIM_EXECUTABLE), std::string::npos) << result.out;
    // Through the installed tool's --cli it is the same call.
    EXPECT_EQ(runBrim({"--cli", "--version"}).out, result.out);
}

TEST(Entry, helpTextIsPrintedExactly) {
    for (const char* flag : {"--help", "-h"}) {
        SCOPED_TRACE(flag);
        const auto result = runBrim({flag});
        EXPECT_EQ(result.status, 0);
        EXPECT_EQ(result.out, Entry::helpText());
        EXPECT_TRUE(result.out.starts_with("usage: brim [--wait] [--read-only] [--line N] [file ...]\n\n"));
        EXPECT_TRUE(result.out.ends_with("  brim --version               which build this is\n"));
    }
    EXPECT_EQ(runBrim({"--cli", "--help"}).out, Entry::helpText());
}

TEST(Entry, commandsShortOfArgumentsSayWhatTheyNeed) {
    for (const char* command : {"--encoding", "--language", "--find", "--grep", "--diff", "--blame", "--pdf",
                                "--benchmark", "--symbols", "--format", "--preview", "--render", "--export-icon",
                                "--layout-audit", "--menu-audit"}) {
        SCOPED_TRACE(command);
        const auto result = runBrim({command});
        EXPECT_EQ(result.status, 2);
        EXPECT_EQ(result.err, std::string("brim: ") + command + " needs more than that. brim --help says what it takes.\n");
        EXPECT_TRUE(result.out.empty());
    }
    // Three arguments are still one short for --find and --grep.
    const auto grep = runBrim({"--grep", "file"});
    EXPECT_EQ(grep.status, 2);
    EXPECT_EQ(grep.err, "brim: --grep needs more than that. brim --help says what it takes.\n");
}

TEST(Entry, commandsNotBuiltYetSaySoWithStatusOne) {
    const auto result = runBrim({"--symbols", "x.c"});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.err, "brim: --symbols is not available in this build yet\n");
}

TEST(Entry, supportDirIsTakenFromAnywhereAndStaysInTheArguments) {
    // --support-dir does not count as a command: with it only, the run is a plain launch.
    testing::TemporaryFolder folder;
    const auto result = runBrim({"--support-dir", folder.path().string()});
    EXPECT_NE(result.status, 2);
    EXPECT_TRUE(result.out.empty());
}

TEST(Entry, aSettingsFileThatCannotBeReadIsKeptAsideAndReported) {
    testing::TemporaryFolder folder;
    folder.write("config/Brim/settings.json", "{\"tabWidth\": 4,\n  oops\n");
    const auto text = folder.write("plain.txt", "hello\n");
    testing::ProcessOptions options;
    options.environment["XDG_CONFIG_HOME"] = (folder / "config").string();
    options.environment["LANG"] = "C.UTF-8";
    options.environment["LANGUAGE"] = "";
    const auto result = runBrim({"--encoding", text.string()}, options);
    EXPECT_EQ(result.status, 0);
    EXPECT_NE(result.out.find("plain.txt: "), std::string::npos) << result.out;
    const auto settings = (folder / "config/Brim/settings.json").string();
    EXPECT_EQ(result.err, "brim: The settings file " + settings + " is not valid JSON (line 2, column 3). It was kept as " +
                              settings + ".bad and the defaults are in use.\n");
    EXPECT_EQ(testing::readFile(settings + ".bad"), "{\"tabWidth\": 4,\n  oops\n");
}

TEST(Entry, aClosedStandardOutputDoesNotKillTheProcess) {
    testing::ProcessOptions options;
    options.closeStandardOutput = true;
    const auto result = runBrim({"--help"}, options);
    // SIGPIPE is ignored: the write fails and the process exits normally.
    EXPECT_LT(result.status, 128) << "ended by signal " << result.status - 128;
}

} // namespace
} // namespace brim
