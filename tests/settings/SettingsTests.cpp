#include "settings/Settings.h"

#include "common/Localization.h"
#include "common/SerialQueue.h"
#include "support/ProcessRunner.h"
#include "support/TemporaryFolder.h"

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <set>
#include <thread>

namespace brim {
namespace {

using nlohmann::json;
using testing::TemporaryFolder;

json fileContents(const std::filesystem::path& path) {
    return json::parse(testing::readFile(path), nullptr, false);
}

LanguageSettings decided(std::string language) {
    LanguageSettings record;
    record.language = std::move(language);
    return record;
}

// Runs what earlier tests left on the manual main queue, so counts start from nothing.
void drainMainQueue() { (void)MainQueue::pump(); }

// One key: how to read it, and how to change it away from its default.
struct KeyCase {
    std::string key;
    std::function<json(const Settings&)> read;
    std::function<void(Settings&)> change;
};

#define FLAG(name, setter)                                                                                             \
    KeyCase { #name, [](const Settings& s) { return json(s.name()); }, [](Settings& s) { s.setter(!s.name()); } }
#define VALUE(name, setter, ...)                                                                                       \
    KeyCase { #name, [](const Settings& s) { return json(s.name()); }, [](Settings& s) { s.setter(__VA_ARGS__); } }
#define WORD(name, setter, value)                                                                                      \
    KeyCase {                                                                                                          \
        #name, [](const Settings& s) { return json(Settings::word(s.name())); }, [](Settings& s) { s.setter(value); }  \
    }

std::vector<KeyCase> registeredKeys() {
    return {
        VALUE(mmapThresholdMB, setMmapThresholdMB, 128),
        VALUE(fontName, setFontName, "DejaVu Sans Mono"),
        VALUE(fontSize, setFontSize, 14.5),
        FLAG(fontLigatures, setFontLigatures),
        VALUE(letterSpacing, setLetterSpacing, 0.5),
        VALUE(tabWidth, setTabWidth, 8),
        FLAG(insertSpaces, setInsertSpaces),
        FLAG(showLineNumbers, setShowLineNumbers),
        WORD(lineNumberMode, setLineNumberMode, LineNumberMode::hybrid),
        FLAG(showInvisibles, setShowInvisibles),
        FLAG(autoIndent, setAutoIndent),
        FLAG(detectIndentation, setDetectIndentation),
        FLAG(detectFixedWidthFields, setDetectFixedWidthFields),
        FLAG(formatOnSave, setFormatOnSave),
        FLAG(lintOnSave, setLintOnSave),
        VALUE(formatterTimeout, setFormatterTimeout, 12.5),
        VALUE(formatterSizeLimitMB, setFormatterSizeLimitMB, 10),
        VALUE(symbolIndexLineLimit, setSymbolIndexLineLimit, 1'000),
        FLAG(showOutline, setShowOutline),
        FLAG(showBreadcrumb, setShowBreadcrumb),
        FLAG(showStickyScope, setShowStickyScope),
        FLAG(showFoldChevrons, setShowFoldChevrons),
        FLAG(showGitChanges, setShowGitChanges),
        FLAG(showBlame, setShowBlame),
        FLAG(showFileSidebar, setShowFileSidebar),
        FLAG(showIssues, setShowIssues),
        FLAG(showInlineIssues, setShowInlineIssues),
        FLAG(showColorSwatches, setShowColorSwatches),
        FLAG(showImagePreviews, setShowImagePreviews),
        FLAG(automaticCompletion, setAutomaticCompletion),
        FLAG(softWrap, setSoftWrap),
        FLAG(autoSaveOnFocusChange, setAutoSaveOnFocusChange),
        FLAG(mergeCloudChanges, setMergeCloudChanges),
        FLAG(saveSharedFilesAsYouType, setSaveSharedFilesAsYouType),
        FLAG(lineCutCopy, setLineCutCopy),
        FLAG(preferCommentingByLine, setPreferCommentingByLine),
        FLAG(atomicSave, setAtomicSave),
        FLAG(followsIncreaseContrast, setFollowsIncreaseContrast),
        VALUE(indentGuideOpacity, setIndentGuideOpacity, 0.25),
        VALUE(previewWidth, setPreviewWidth, 600.0),
        VALUE(previewZoom, setPreviewZoom, 1.5),
        VALUE(draftLifetimeDays, setDraftLifetimeDays, 30),
        VALUE(draftTotalLimitMB, setDraftTotalLimitMB, 512),
        FLAG(draftSmartDelete, setDraftSmartDelete),
        VALUE(recentFilesLimit, setRecentFilesLimit, 5),
        FLAG(showIndentGuides, setShowIndentGuides),
        FLAG(highlightCurrentLine, setHighlightCurrentLine),
        WORD(theme, setTheme, ThemePreference::dark),
        VALUE(indexStride, setIndexStride, 1'024),
        FLAG(restoreSession, setRestoreSession),
        FLAG(syntaxHighlighting, setSyntaxHighlighting),
        VALUE(highlightLimitMB, setHighlightLimitMB, 32),
        VALUE(fallbackEncoding, setFallbackEncoding, "latin1"),
        FLAG(highlightAllMatches, setHighlightAllMatches),
        VALUE(defaultLineEnding, setDefaultLineEnding, "crlf"),
        FLAG(findCaseSensitive, setFindCaseSensitive),
        FLAG(findWholeWord, setFindWholeWord),
        FLAG(findRegex, setFindRegex),
        FLAG(findWrapAround, setFindWrapAround),
        FLAG(autoPairBrackets, setAutoPairBrackets),
        FLAG(autoCloseTags, setAutoCloseTags),
        FLAG(highlightMatchingPair, setHighlightMatchingPair),
        FLAG(keepUnsavedChanges, setKeepUnsavedChanges),
        FLAG(ensureTrailingNewline, setEnsureTrailingNewline),
        KeyCase{"wrapGuideColumns", [](const Settings& s) { return json(s.wrapGuideText()); },
                [](Settings& s) { s.setWrapGuideText("80, 120"); }},
        FLAG(rainbowBrackets, setRainbowBrackets),
        FLAG(trimTrailingWhitespaceOnSave, setTrimTrailingWhitespaceOnSave),
    };
}

std::vector<KeyCase> unregisteredKeys() {
    return {
        VALUE(indentWidth, setIndentWidth, 2),
        FLAG(printLineNumbers, setPrintLineNumbers),
        VALUE(printFontSize, setPrintFontSize, 10.0),
        VALUE(hexFontSize, setHexFontSize, 13.0),
        KeyCase{"themeName", [](const Settings& s) { return json(s.themeName().value_or("")); },
                [](Settings& s) { s.setThemeName("Solar"); }},
        VALUE(dateFormat, setDateFormat, "yyyy-MM-dd"),
        FLAG(countUse, setCountUse),
        FLAG(tintLogLines, setTintLogLines),
        FLAG(vimMode, setVimMode),
        FLAG(showMinimap, setShowMinimap),
        FLAG(sortDescending, setSortDescending),
        FLAG(showCodePoints, setShowCodePoints),
        FLAG(showFullPathInTitle, setShowFullPathInTitle),
        FLAG(findStructural, setFindStructural),
        FLAG(findEscapes, setFindEscapes),
        FLAG(findInSelection, setFindInSelection),
        FLAG(findPreserveCase, setFindPreserveCase),
        FLAG(findSharedAcrossWindows, setFindSharedAcrossWindows),
        VALUE(splitDelimiter, setSplitDelimiter, ";"),
        VALUE(lastWrapTag, setLastWrapTag, "div"),
        VALUE(numberSequence, setNumberSequence, json({{"start", 10}, {"step", 5}})),
        VALUE(numberArithmetic, setNumberArithmetic, "+2"),
        VALUE(batchReplace, setBatchReplace, json::array({{{"find", "a"}, {"replace", "b"}}})),
        VALUE(batchReplaceLists, setBatchReplaceLists, json({{"tidy", json::array()}})),
        VALUE(savedLineFilters, setSavedLineFilters, json({{"errors", json::array({"ERROR"})}})),
        VALUE(fieldLayouts, setFieldLayouts, json::array({{{"name", "fixed"}}})),
        VALUE(formatterRules, setFormatterRules, json::array({{{"language", "c"}, {"command", "indent"}}})),
        VALUE(linterRules, setLinterRules, json::array({{{"language", "sh"}, {"command", "shellcheck"}}})),
        VALUE(lspRules, setLSPRules, json::array({{{"language", "cpp"}, {"command", "clangd"}}})),
        VALUE(filterCommands, setFilterCommands, std::vector<std::string>{"sort", "uniq"}),
        VALUE(customCommands, setCustomCommands, std::vector<std::string>{"tac"}),
        VALUE(projectSearchInclude, setProjectSearchInclude, "*.{c,h}"),
        VALUE(projectSearchExclude, setProjectSearchExclude, "build/"),
        KeyCase{"cleanUpProblems", [](const Settings& s) { return json(s.cleanUpProblems().value_or(std::vector<std::string>{"absent"})); },
                [](Settings& s) { s.setCleanUpProblems({"trailingWhitespace"}); }},
        FLAG(cleanInvisiblesOnSave, setCleanInvisiblesOnSave),
        WORD(completionAccept, setCompletionAccept, CompletionAccept::tab),
        FLAG(remoteEditing, setRemoteEditing),
        VALUE(remoteEditingPort, setRemoteEditingPort, 4'000),
        KeyCase{"accountLastSync", [](const Settings& s) { return json(s.accountLastSync().value_or("never")); },
                [](Settings& s) { s.setAccountLastSync("2024-05-01T10:00:00Z"); }},
    };
}

#undef FLAG
#undef VALUE
#undef WORD

TEST(Settings, everyKeyReadsItsDefaultThenKeepsAChangeAcrossRuns) {
    TemporaryFolder folder;
    const auto file = folder / "config" / "Brim" / "settings.json";
    const auto registered = registeredKeys();
    const auto unregistered = unregisteredKeys();

    // Every registered default has its accessor, and nothing else is registered.
    std::set<std::string> covered;
    for (const auto& item : registered) covered.insert(item.key);
    for (const auto& item : Settings::registeredDefaults().items()) {
        EXPECT_TRUE(covered.contains(item.key())) << item.key() << " has no typed accessor in this table";
    }
    EXPECT_EQ(Settings::registeredDefaults().size(), registered.size());

    std::vector<json> changed;
    {
        Settings settings(file);
        EXPECT_FALSE(std::filesystem::exists(file)) << "a fresh machine reads defaults without writing";
        EXPECT_FALSE(settings.problem());
        for (const auto& item : registered) {
            SCOPED_TRACE(item.key);
            EXPECT_EQ(item.read(settings), Settings::registeredDefaults()[item.key]);
        }
        for (const auto* list : {&registered, &unregistered}) {
            for (const auto& item : *list) {
                SCOPED_TRACE(item.key);
                const json before = item.read(settings);
                item.change(settings);
                const json after = item.read(settings);
                EXPECT_NE(before, after);
                settings.flush();
                EXPECT_TRUE(fileContents(file).contains(item.key)) << "the setter writes another key";
                changed.push_back(after);
            }
        }
    }
    Settings again(file);
    std::size_t index = 0;
    for (const auto* list : {&registered, &unregistered}) {
        for (const auto& item : *list) {
            SCOPED_TRACE(item.key);
            EXPECT_EQ(item.read(again), changed[index]);
            ++index;
        }
    }
}

TEST(Settings, storedValuesAreClampedAndOddValuesReadAsDefaults) {
    TemporaryFolder folder;
    const auto file = folder.write("settings.json", R"({
        "fontSize": 200, "letterSpacing": -9, "tabWidth": 0, "indentGuideOpacity": -1,
        "draftTotalLimitMB": 99999999999, "draftLifetimeDays": -4, "recentFilesLimit": -1,
        "indentWidth": 40, "printFontSize": 2, "hexFontSize": 99, "indexStride": 0,
        "lineNumberMode": "sideways", "theme": "DARK", "completionAccept": 3,
        "defaultLineEnding": "crlf\n", "fontLigatures": "yes", "showBlame": 1,
        "mmapThresholdMB": 12.9, "themeName": "", "remoteEditingPort": 80,
        "cleanUpProblems": "all", "appLanguage": "german", "languageSettings": "not a list"
    })");
    Settings settings(file);
    EXPECT_FALSE(settings.problem());
    EXPECT_EQ(settings.fontSize(), 72);
    EXPECT_EQ(settings.letterSpacing(), -3);
    EXPECT_EQ(settings.tabWidth(), 1);
    EXPECT_EQ(settings.indentGuideOpacity(), 0);
    EXPECT_EQ(settings.draftTotalLimitMB(), 1'048'576);
    EXPECT_EQ(settings.draftLifetimeDays(), 0);
    EXPECT_EQ(settings.recentFilesLimit(), 0);
    EXPECT_EQ(settings.indentWidth(), 16);
    EXPECT_EQ(settings.printFontSize(), 6);
    EXPECT_EQ(settings.hexFontSize(), 36);
    EXPECT_EQ(settings.indexStride(), 1);
    EXPECT_EQ(settings.lineNumberMode(), LineNumberMode::absolute);
    EXPECT_EQ(settings.theme(), ThemePreference::system);
    EXPECT_EQ(settings.completionAccept(), CompletionAccept::both);
    EXPECT_EQ(settings.defaultLineEnding(), "lf");
    EXPECT_TRUE(settings.fontLigatures()) << "a string is no Boolean: the default stands";
    EXPECT_TRUE(settings.showBlame()) << "a number reads as a Boolean, as it always has";
    EXPECT_EQ(settings.mmapThresholdMB(), 12);
    EXPECT_FALSE(settings.themeName());
    EXPECT_EQ(settings.remoteEditingPort(), 1'024);
    EXPECT_FALSE(settings.cleanUpProblems());
    EXPECT_EQ(settings.appLanguage(), AppLanguage::german);
    EXPECT_TRUE(settings.languageSettings().empty());

    settings.setIndentWidth(0);
    EXPECT_EQ(settings.indentWidth(), settings.tabWidth()) << "below 1 means the tab width";
    settings.setRemoteEditingPort(0);
    EXPECT_EQ(settings.remoteEditingPort(), 52'698);
    settings.setRemoteEditingPort(99'999);
    EXPECT_EQ(settings.remoteEditingPort(), 65'535);

    // Clamped on writing as well: what is stored is already in range.
    settings.setIndentGuideOpacity(3);
    settings.setHexFontSize(2);
    settings.setDraftLifetimeDays(-3);
    settings.setDraftTotalLimitMB(-1);
    settings.setRecentFilesLimit(-10);
    settings.flush();
    const json stored = fileContents(file);
    EXPECT_EQ(stored["indentGuideOpacity"], 1.0);
    EXPECT_EQ(stored["hexFontSize"], 7.0);
    EXPECT_EQ(stored["draftLifetimeDays"], 0);
    EXPECT_EQ(stored["draftTotalLimitMB"], 0);
    EXPECT_EQ(stored["recentFilesLimit"], 0);
    // Keys nobody asked about are kept as they were.
    EXPECT_EQ(stored["languageSettings"], "not a list");
}

TEST(Settings, wrapGuideColumnsAreReadFromTheTextAsTyped) {
    const struct {
        const char* text;
        std::vector<int> columns;
    } cases[] = {
        {"80, 120", {80, 120}},     {"80 100  ", {80, 100}},  {"80, wide", {80}}, {"0, -5, 9000, 100", {100}},
        {"", {}},                   {"120,80", {120, 80}},    {",,80,,", {80}},  {"2000 2001 1", {2000, 1}},
        {"+72", {72}},              {"99999999999999", {}},   {"8O", {}},
    };
    TemporaryFolder folder;
    Settings settings(folder / "settings.json");
    for (const auto& item : cases) {
        SCOPED_TRACE(item.text);
        EXPECT_EQ(Settings::wrapGuideColumnsIn(item.text), item.columns);
        settings.setWrapGuideText(item.text);
        EXPECT_EQ(settings.wrapGuideText(), item.text) << "the text comes back as typed";
        EXPECT_EQ(settings.wrapGuideColumns(), item.columns);
    }
}

TEST(Settings, languageOverridesWinAndOtherwiseFollowTheGlobalValue) {
    TemporaryFolder folder;
    const auto file = folder / "settings.json";
    Settings settings(file);
    settings.setTabWidth(4);
    settings.setWrapGuideText("80");

    // Nothing decided: the getters follow the global value, also when it changes later.
    EXPECT_EQ(settings.tabWidth("python"), 4);
    settings.setTabWidth(2);
    EXPECT_EQ(settings.tabWidth("python"), 2);
    EXPECT_EQ(settings.insertSpaces("python"), settings.insertSpaces());
    EXPECT_EQ(settings.defaultEncoding("python"), "utf8");
    EXPECT_EQ(settings.defaultLineEnding("python"), "lf");

    LanguageSettings python;
    python.language = "python";
    python.tabWidth = 8;
    python.insertSpaces = true;
    python.wrapGuides = "";
    python.lineEnding = "crlf";
    python.encoding = "latin1";
    settings.setLanguageSettings(python);
    LanguageSettings make;
    make.language = "makefile";
    make.insertSpaces = false;
    make.tabWidth = 100;
    make.lineEnding = "sideways";
    settings.setLanguageSettings(make);

    EXPECT_EQ(settings.tabWidth("python"), 8);
    EXPECT_TRUE(settings.insertSpaces("python"));
    EXPECT_TRUE(settings.wrapGuideColumns("python").empty()) << "an empty override is a decision: no guides";
    EXPECT_EQ(settings.wrapGuideColumns("c"), std::vector<int>{80});
    EXPECT_EQ(settings.defaultLineEnding("python"), "crlf");
    EXPECT_EQ(settings.defaultEncoding("python"), "latin1");
    EXPECT_EQ(settings.tabWidth("makefile"), 64) << "capped";
    EXPECT_EQ(settings.defaultLineEnding("makefile"), "lf") << "not a line ending: the global value";
    EXPECT_EQ(settings.softWrap("makefile"), settings.softWrap());
    settings.flush();

    // Read back by another process, in the order the languages were decided.
    {
        Settings again(file);
        const auto list = again.languageSettings();
        ASSERT_EQ(list.size(), 2U);
        EXPECT_EQ(list[0], python);
        EXPECT_EQ(list[1], make);
    }

    // Deciding again moves the record to the end; clearing every override removes it.
    python.softWrap = false;
    settings.setLanguageSettings(python);
    EXPECT_EQ(settings.languageSettings().back().language, "python");
    settings.setLanguageSettings(decided("makefile"));
    const auto list = settings.languageSettings();
    ASSERT_EQ(list.size(), 1U);
    EXPECT_EQ(list[0].language, "python");
    settings.flush();
    EXPECT_EQ(fileContents(file)["languageSettings"].dump().find("makefile"), std::string::npos);

    // An override of 0 is no width.
    LanguageSettings odd = decided("odd");
    odd.tabWidth = 0;
    odd.indentWidth = -2;
    settings.setLanguageSettings(odd);
    EXPECT_EQ(settings.tabWidth("odd"), settings.tabWidth());
    EXPECT_EQ(settings.indentWidth("odd"), settings.indentWidth());
}

TEST(Settings, aDamagedLanguageListKeepsTheRecordsThatRead) {
    TemporaryFolder folder;
    const auto file = folder.write("settings.json", R"({"languageSettings": [
        {"language": "c", "tabWidth": 8},
        {"tabWidth": 2},
        "nonsense",
        {"language": "go", "insertSpaces": "no", "softWrap": false}
    ]})");
    Settings settings(file);
    const auto list = settings.languageSettings();
    ASSERT_EQ(list.size(), 2U);
    EXPECT_EQ(list[0].tabWidth, 8);
    EXPECT_EQ(list[1].language, "go");
    EXPECT_FALSE(list[1].insertSpaces) << "a field of the wrong kind is not decided";
    EXPECT_EQ(list[1].softWrap, false);
}

TEST(Settings, languageSummaryNamesOnlyWhatIsDecided) {
    const AppLanguage before = Localization::current();
    Localization::setCurrent(AppLanguage::english);
    const struct {
        LanguageSettings record;
        const char* expected;
    } cases[] = {
        {{"a", 2, std::nullopt, true, std::nullopt, std::nullopt, std::nullopt, std::nullopt}, "2 spaces"},
        {{"a", std::nullopt, std::nullopt, true, std::nullopt, std::nullopt, std::nullopt, std::nullopt}, "4 spaces"},
        {{"a", 1, std::nullopt, true, std::nullopt, std::nullopt, std::nullopt, std::nullopt}, "1 space"},
        {{"a", 8, std::nullopt, false, false, std::nullopt, std::nullopt, std::nullopt}, "Tabs · Not wrapped"},
        {{"a", 3, std::nullopt, std::nullopt, true, "", std::nullopt, std::nullopt}, "Width 3 · Wrapped · No guides"},
        {{"a", std::nullopt, std::nullopt, std::nullopt, std::nullopt, "72 80", "crlf", "latin1"},
         "Guides at 72, 80 · CRLF · Latin 1"},
        {decided("a"), ""},
    };
    auto upper = [](std::string_view word) {
        std::string out(word);
        for (auto& c : out) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
        return out;
    };
    for (const auto& item : cases) {
        SCOPED_TRACE(item.expected);
        EXPECT_EQ(item.record.summary(4, upper, [](std::string_view) { return std::string("Latin 1"); }),
                  item.expected);
    }
    Localization::setCurrent(before);
}

TEST(Settings, anUnreadableFileIsKeptAsideAndTheDefaultsStand) {
    const AppLanguage before = Localization::current();
    Localization::setCurrent(AppLanguage::english);
    TemporaryFolder folder;
    const std::string broken = "{\n  \"tabWidth\": 8,\n  \"fontSize\" 14\n}\n";
    const auto file = folder.write("settings.json", broken);
    {
        Settings settings(file);
        EXPECT_EQ(settings.tabWidth(), 4);
        EXPECT_EQ(testing::readFile(folder / "settings.json.bad"), broken);
        EXPECT_FALSE(std::filesystem::exists(file));
        ASSERT_TRUE(settings.problem());
        EXPECT_EQ(*settings.problem(), "The settings file " + file.string() +
                                           " is not valid JSON (line 3, column 15). It was kept as " + file.string() +
                                           ".bad and the defaults are in use.");
        settings.setTabWidth(2);
        settings.flush();
        EXPECT_EQ(fileContents(file)["tabWidth"], 2);
        EXPECT_EQ(testing::readFile(folder / "settings.json.bad"), broken) << "the kept file is never overwritten";
    }
    // A second bad file does not replace the first one kept aside.
    folder.write("settings.json", "[1, 2]");
    Settings settings(file);
    EXPECT_EQ(testing::readFile(folder / "settings.json.bad"), broken);
    EXPECT_EQ(testing::readFile(folder / "settings.json.bad.2"), "[1, 2]");
    ASSERT_TRUE(settings.problem());
    EXPECT_EQ(*settings.problem(), "The settings file " + file.string() + " does not hold a JSON object. It was kept as " +
                                       file.string() + ".bad.2 and the defaults are in use.");
    Localization::setCurrent(before);
}

TEST(Settings, anEmptyFileIsNoSettingsAndNoProblem) {
    TemporaryFolder folder;
    const auto file = folder.write("settings.json", " \n");
    Settings settings(file);
    EXPECT_FALSE(settings.problem());
    EXPECT_EQ(settings.tabWidth(), 4);
    EXPECT_FALSE(std::filesystem::exists(folder / "settings.json.bad"));
}

TEST(Settings, aFileThatCannotBeWrittenKeepsTheValueForThisRunAndSaysSo) {
    TemporaryFolder folder;
    folder.write("config/Brim", "a file where the folder should be");
    Settings settings(folder / "config" / "Brim" / "settings.json");
    settings.setTabWidth(7);
    settings.flush();
    EXPECT_EQ(settings.tabWidth(), 7);
    ASSERT_TRUE(settings.problem());
    EXPECT_TRUE(settings.problem()->starts_with(L("The settings could not be saved to %@",
                                                  (folder / "config" / "Brim" / "settings.json").string())))
        << *settings.problem();
}

TEST(Settings, writesAreWholeAtEveryMomentAndLeaveNoTemporaryFiles) {
    TemporaryFolder folder;
    const auto file = folder / "settings.json";
    Settings settings(file);
    settings.setFontName(std::string(4'000, 'x')); // big enough that a torn write would show
    settings.flush();                               // from here on the file always exists
    std::atomic<bool> done{false};
    std::atomic<int> torn{0};
    std::atomic<int> reads{0};
    std::thread reader([&] {
        while (!done.load()) {
            const std::string text = testing::readFile(file);
            const json parsed = json::parse(text, nullptr, false);
            if (parsed.is_discarded() || !parsed.contains("fontName")) ++torn;
            ++reads;
        }
    });
    for (int i = 0; i < 200; ++i) {
        settings.setTabWidth(1 + i % 16);
        if (i % 4 == 0) settings.flush(); // let the writes and the reads meet
    }
    settings.flush();
    done = true;
    reader.join();
    EXPECT_EQ(torn.load(), 0) << "of " << reads.load() << " reads";
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(folder.path())) {
        names.push_back(entry.path().filename().string());
    }
    EXPECT_EQ(names, std::vector<std::string>{"settings.json"});
    EXPECT_EQ(std::filesystem::status(file).permissions() & std::filesystem::perms::all,
              std::filesystem::perms::owner_read | std::filesystem::perms::owner_write);
}

TEST(Settings, aChangeByAnotherProcessIsKeptWhenThisOneWrites) {
    TemporaryFolder folder;
    const auto file = folder / "settings.json";
    Settings first(file);
    Settings second(file);
    first.setTabWidth(3);
    first.flush();
    second.setFontSize(20);
    second.flush();
    EXPECT_EQ(second.tabWidth(), 3) << "read again before writing";
    Settings third(file);
    EXPECT_EQ(third.tabWidth(), 3);
    EXPECT_EQ(third.fontSize(), 20);

    drainMainQueue();
    int told = 0;
    auto observation = first.observe(SettingsNotification::settingsChanged, [&] { ++told; });
    first.reloadIfChanged();
    (void)MainQueue::pump();
    EXPECT_EQ(first.fontSize(), 20);
    EXPECT_EQ(told, 1);
}

TEST(Settings, aSymbolicLinkToTheFileStaysALink) {
    TemporaryFolder folder;
    const auto real = folder.write("dotfiles/brim.json", R"({"tabWidth": 6})");
    std::filesystem::create_directories(folder / "config");
    const auto link = folder / "config" / "settings.json";
    std::filesystem::create_symlink(real, link);
    Settings settings(link);
    EXPECT_EQ(settings.tabWidth(), 6);
    settings.setTabWidth(5);
    settings.flush();
    EXPECT_TRUE(std::filesystem::is_symlink(link));
    EXPECT_EQ(fileContents(real)["tabWidth"], 5);
}

TEST(Settings, aBurstOfChangesIsToldAtMostFourTimes) {
    TemporaryFolder folder;
    Settings settings(folder / "settings.json");
    drainMainQueue();
    int told = 0;
    auto observation = settings.observe(SettingsNotification::settingsChanged, [&] { ++told; });
    for (int i = 0; i < 10; ++i) settings.setTabWidth(1 + i);
    EXPECT_EQ(told, 0) << "observers are told on the main queue, not inside the setter";
    (void)MainQueue::pump();
    EXPECT_GE(told, 1);
    EXPECT_LE(told, 4);

    // Observers that keep writing cannot keep the main thread busy: four posts, then quiet.
    told = 0;
    int width = 1;
    auto writer = settings.observe(SettingsNotification::settingsChanged, [&] { settings.setTabWidth(++width % 16 + 1); });
    settings.setFontSize(13);
    (void)MainQueue::pump();
    EXPECT_EQ(told, 4);

    // The next burst is told again.
    writer.cancel();
    told = 0;
    settings.setFontSize(14);
    (void)MainQueue::pump();
    EXPECT_EQ(told, 1);

    // Writing the value that is stored already tells nobody.
    told = 0;
    settings.setFontSize(14);
    (void)MainQueue::pump();
    EXPECT_EQ(told, 0);
}

TEST(Settings, quietKeysAndTheirOwnNotifications) {
    TemporaryFolder folder;
    Settings settings(folder / "settings.json");
    drainMainQueue();
    int changed = 0;
    int hex = 0;
    int remote = 0;
    auto a = settings.observe(SettingsNotification::settingsChanged, [&] { ++changed; });
    auto b = settings.observe(SettingsNotification::hexFontSizeChanged, [&] { ++hex; });
    auto c = settings.observe(SettingsNotification::remoteEditingChanged, [&] { ++remote; });

    settings.setRestoreSession(false);
    settings.setFindRegex(true);
    settings.setFindInSelection(true);
    settings.rememberFilterCommand("sort -u");
    settings.rememberRemoteLocation("host:/etc/hosts");
    settings.setCleanUpProblems({"tabs"});
    (void)MainQueue::pump();
    EXPECT_EQ(changed, 0);

    settings.setHexFontSize(15);
    (void)MainQueue::pump();
    EXPECT_EQ(hex, 1);
    EXPECT_EQ(changed, 0);

    settings.setRemoteEditing(true);
    (void)MainQueue::pump();
    EXPECT_EQ(remote, 1);
    EXPECT_EQ(changed, 0);

    // A dropped observation is not told.
    a = Settings::Observation();
    settings.setShowBlame(true);
    (void)MainQueue::pump();
    EXPECT_EQ(changed, 0);
    EXPECT_EQ(std::string(notificationName(SettingsNotification::settingsChanged)), "BrimSettingsChanged");
}

TEST(Settings, postedWorkOutlivingTheSettingsDoesNothing) {
    drainMainQueue();
    int told = 0;
    {
        TemporaryFolder folder;
        Settings settings(folder / "settings.json");
        auto observation = settings.observe(SettingsNotification::settingsChanged, [&] { ++told; });
        settings.setTabWidth(9);
        observation.cancel();
    }
    (void)MainQueue::pump();
    EXPECT_EQ(told, 0);
}

TEST(Settings, findRegexTurnsTheOtherSearchModesOff) {
    TemporaryFolder folder;
    Settings settings(folder / "settings.json");
    settings.setFindStructural(true);
    settings.setFindEscapes(true);
    settings.setFindRegex(false);
    EXPECT_TRUE(settings.findStructural());
    settings.setFindRegex(true);
    EXPECT_FALSE(settings.findStructural());
    EXPECT_FALSE(settings.findEscapes());
    EXPECT_TRUE(settings.findRegex());
}

TEST(Settings, rememberedListsAreNewestFirstWithoutDuplicatesAndShort) {
    TemporaryFolder folder;
    Settings settings(folder / "settings.json");
    for (int i = 0; i < 15; ++i) settings.rememberFilterCommand("cmd " + std::to_string(i));
    settings.rememberFilterCommand("  cmd 5 \n");
    settings.rememberFilterCommand(" \n\t");
    auto commands = settings.filterCommands();
    ASSERT_EQ(commands.size(), 12U);
    EXPECT_EQ(commands[0], "cmd 5");
    EXPECT_EQ(commands[1], "cmd 14");
    EXPECT_EQ(std::count(commands.begin(), commands.end(), "cmd 5"), 1);
    EXPECT_EQ(commands.back(), "cmd 3");

    for (int i = 0; i < 13; ++i) settings.rememberRemoteLocation("host" + std::to_string(i) + ":/");
    settings.rememberRemoteLocation("host3:/");
    const auto locations = settings.recentRemoteLocations();
    ASSERT_EQ(locations.size(), 12U);
    EXPECT_EQ(locations[0], "host3:/");
    EXPECT_EQ(locations[1], "host12:/");
}

TEST(Settings, shownEncodingsMoveBetweenTheLists) {
    TemporaryFolder folder;
    Settings settings(folder / "settings.json");
    EXPECT_TRUE(settings.isEncodingShown("utf8", true));
    EXPECT_FALSE(settings.isEncodingShown("ebcdic037", false));
    settings.setEncodingShown("ebcdic037", true);
    settings.setEncodingShown("utf8", false);
    EXPECT_TRUE(settings.isEncodingShown("ebcdic037", false));
    EXPECT_FALSE(settings.isEncodingShown("utf8", true));
    settings.setEncodingShown("ebcdic037", false);
    EXPECT_FALSE(settings.isEncodingShown("ebcdic037", true));
    EXPECT_EQ(settings.encodingsShown(), std::vector<std::string>{});
    EXPECT_EQ(settings.encodingsHidden(), (std::vector<std::string>{"utf8", "ebcdic037"}));
    settings.resetShownEncodings();
    EXPECT_TRUE(settings.isEncodingShown("utf8", true));
    EXPECT_FALSE(settings.contains("encodingsHidden"));
}

TEST(Settings, rulesAndVariationsAreReplacedByTheirName) {
    TemporaryFolder folder;
    Settings settings(folder / "settings.json");
    settings.setFormatterRule({{"language", "c"}, {"command", "indent"}});
    settings.setFormatterRule({{"language", "go"}, {"command", "gofmt"}});
    settings.setFormatterRule({{"language", "c"}, {"command", "clang-format"}});
    const json rules = settings.formatterRules();
    ASSERT_EQ(rules.size(), 2U);
    EXPECT_EQ(rules[0]["language"], "go");
    EXPECT_EQ(rules[1]["command"], "clang-format");

    settings.setFontVariation(json({{"wght", 500}}), "Inter");
    settings.setFontVariation(json({{"wght", 300}}), "Mono");
    settings.setFontVariation(std::nullopt, "Inter");
    EXPECT_FALSE(settings.fontVariation("Inter"));
    EXPECT_EQ(settings.fontVariation("Mono"), json({{"wght", 300}}));
}

TEST(Settings, softWrapOffFromOlderDaysIsForgottenOnceOnly) {
    TemporaryFolder folder;
    const auto file = folder.write("settings.json", R"({"softWrap": false, "tabWidth": 2})");
    {
        Settings settings(file);
        EXPECT_TRUE(settings.softWrap());
        EXPECT_EQ(settings.tabWidth(), 2);
        settings.setSoftWrap(false);
    }
    Settings settings(file);
    EXPECT_FALSE(settings.softWrap()) << "a choice made after the step is respected";
}

TEST(Settings, languageListsAreReadSafelyWhileAnotherThreadWrites) {
    TemporaryFolder folder;
    Settings settings(folder / "settings.json");
    LanguageSettings record = decided("c");
    record.tabWidth = 2;
    settings.setLanguageSettings(record);
    std::atomic<bool> done{false};
    std::atomic<int> wrong{0};
    std::vector<std::thread> readers;
    for (int r = 0; r < 2; ++r) {
        readers.emplace_back([&] {
            while (!done.load()) {
                const int width = settings.tabWidth("c");
                if (width != 2 && width != 3) ++wrong;
            }
        });
    }
    for (int i = 0; i < 40; ++i) {
        record.tabWidth = 2 + i % 2;
        settings.setLanguageSettings(record);
    }
    done = true;
    for (auto& reader : readers) reader.join();
    EXPECT_EQ(wrong.load(), 0);
    EXPECT_EQ(settings.tabWidth("c"), 3);
}

TEST(Settings, theLanguageWordIsReadWithoutSideEffects) {
    TemporaryFolder folder;
    EXPECT_EQ(Settings::storedAppLanguageWord(folder / "missing.json"), "system");
    const auto good = folder.write("good.json", R"({"appLanguage": "italian"})");
    EXPECT_EQ(Settings::storedAppLanguageWord(good), "italian");
    const auto bad = folder.write("bad.json", "{\"appLanguage\": ");
    EXPECT_EQ(Settings::storedAppLanguageWord(bad), "system");
    EXPECT_TRUE(std::filesystem::exists(bad)) << "a terminal command never sets the file aside";
    EXPECT_FALSE(std::filesystem::exists(folder / "bad.json.bad"));

    const AppLanguage before = Localization::current();
    Settings settings(folder / "settings.json");
    settings.setAppLanguage(AppLanguage::spanish);
    EXPECT_EQ(Localization::current(), AppLanguage::spanish);
    settings.flush();
    EXPECT_EQ(Settings::storedAppLanguageWord(folder / "settings.json"), "spanish");
    Localization::setCurrent(before);
}

TEST(Settings, theDefaultFileFollowsXDGConfigHome) {
    const char* saved = std::getenv("XDG_CONFIG_HOME");
    const std::optional<std::string> before = saved ? std::optional<std::string>(saved) : std::nullopt;
    ::setenv("XDG_CONFIG_HOME", "/somewhere/config", 1);
    EXPECT_EQ(Settings::defaultFile(), std::filesystem::path("/somewhere/config/Brim/settings.json"));
    ::setenv("XDG_CONFIG_HOME", "relative/config", 1); // not absolute: ignored, as the standard says
    EXPECT_EQ(Settings::defaultFile().filename(), "settings.json");
    EXPECT_EQ(Settings::defaultFile().parent_path().parent_path().filename(), ".config");
    if (before) {
        ::setenv("XDG_CONFIG_HOME", before->c_str(), 1);
    } else {
        ::unsetenv("XDG_CONFIG_HOME");
    }
}

TEST(Settings, theChosenLanguageReachesTheProgramsMessages) {
    TemporaryFolder folder;
    const std::string german = Localization::format(
        Localization::string("brim: %@ needs more than that. brim --help says what it takes.\n", AppLanguage::german),
        std::vector<LocalizedArgument>{"--grep"});
    const std::string french = Localization::format(
        Localization::string("brim: %@ needs more than that. brim --help says what it takes.\n", AppLanguage::french),
        std::vector<LocalizedArgument>{"--grep"});
    ASSERT_NE(german, french);

    testing::ProcessOptions options;
    options.environment = {{"LANG", "de_DE.UTF-8"}, {"LANGUAGE", ""}, {"LC_ALL", ""}, {"LC_MESSAGES", ""}};
    auto result = testing::runBrim({"--grep"}, options);
    EXPECT_EQ(result.status, 2);
    EXPECT_EQ(result.err, german);

    folder.write("config/Brim/settings.json", R"({"appLanguage": "french"})");
    options.environment["XDG_CONFIG_HOME"] = (folder / "config").string();
    result = testing::runBrim({"--grep"}, options);
    EXPECT_EQ(result.err, french) << "the language chosen in the settings wins over the system's";
}

} // namespace
} // namespace brim
