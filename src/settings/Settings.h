#pragma once

#include "common/Localization.h"
#include "settings/IndentationStyle.h"
#include "settings/LanguageSettings.h"
#include "settings/SettingsStore.h"

#include <nlohmann/json.hpp>

#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace brim {

enum class LineNumberMode : std::uint8_t { absolute, relative, hybrid };
enum class ThemePreference : std::uint8_t { system, light, dark };
enum class CompletionAccept : std::uint8_t { both, tab, newline };

/// What `Settings` tells its observers.
enum class SettingsNotification : std::uint8_t {
    settingsChanged,      ///< "BrimSettingsChanged": something that affects display changed
    hexFontSizeChanged,   ///< "BrimHexFontSizeChanged"
    remoteEditingChanged, ///< "BrimRemoteEditingChanged"
};

/// The notification's name as other programs and logs know it.
[[nodiscard]] std::string_view notificationName(SettingsNotification notification);

/// The single typed front to every user preference: one flat store in one JSON file, a table of
/// registered defaults in code, clamped getters and one coalesced "settings changed" notice.
///
/// Getters never fail: a missing value, a value of the wrong kind or an unknown word reads as the
/// documented default. Any thread may read and write. Observers are always told on the main queue
/// (`MainQueue::post`); a burst of changes is told at most four times, and changes that observers
/// make while being told are folded into the next telling rather than recursing.
class Settings {
    struct Broadcast;

public:
    /// A registration of an observer; dropping it stops the observer being told.
    class Observation {
    public:
        Observation() = default;
        Observation(Observation&& other) noexcept;
        Observation& operator=(Observation&& other) noexcept;
        Observation(const Observation&) = delete;
        Observation& operator=(const Observation&) = delete;
        ~Observation();
        void cancel();

    private:
        friend class Settings;
        Observation(std::weak_ptr<Broadcast> registry, std::uint64_t id) : registry_(std::move(registry)), id_(id) {}
        std::weak_ptr<Broadcast> registry_;
        std::uint64_t id_ = 0;
    };

    /// Settings kept in `file`; the file and its folder are made at the first change.
    explicit Settings(std::filesystem::path file);
    ~Settings();
    Settings(const Settings&) = delete;
    Settings& operator=(const Settings&) = delete;

    /// The process-wide settings over `defaultFile()`, made on first use.
    [[nodiscard]] static Settings& shared();

    /// `${XDG_CONFIG_HOME:-~/.config}/Brim/settings.json`.
    [[nodiscard]] static std::filesystem::path defaultFile();

    /// The stored "appLanguage" word in `file`, read without making a `Settings`, without writing
    /// anything and without setting a bad file aside: for the start of a terminal command.
    [[nodiscard]] static std::string storedAppLanguageWord(const std::filesystem::path& file = defaultFile());

    /// The registered defaults: every key that reads as a value when it was never written.
    [[nodiscard]] static const nlohmann::json& registeredDefaults();

    [[nodiscard]] const std::filesystem::path& file() const { return store_.file(); }

    /// What went wrong reading or writing the settings file, in the user's words.
    [[nodiscard]] std::optional<std::string> problem() const { return store_.problem(); }

    /// Waits until every change made so far is written to the file. Changes are written at once
    /// in the background; this is for the end of a process and for tests.
    void flush() { store_.flush(); }

    /// Re-reads the file if another process changed it, and tells observers if anything changed.
    void reloadIfChanged();

    /// Registers `observer` for `notification`. It is called on the main queue.
    [[nodiscard]] Observation observe(SettingsNotification notification, std::function<void()> observer);

    // Generic access, for keys without a typed accessor.
    [[nodiscard]] bool contains(std::string_view key) const { return store_.contains(key); }
    [[nodiscard]] std::optional<nlohmann::json> storedValue(std::string_view key) const { return store_.value(key); }
    void remove(std::string_view key);

    // Registered keys.
    [[nodiscard]] int mmapThresholdMB() const { return clampedInteger("mmapThresholdMB", 0, 1'048'576); }
    void setMmapThresholdMB(int value) { write("mmapThresholdMB", value); }
    [[nodiscard]] std::string fontName() const { return text("fontName"); }
    void setFontName(const std::string& value) { write("fontName", value); }
    [[nodiscard]] double fontSize() const { return clampedReal("fontSize", 6, 72); }
    void setFontSize(double value) { write("fontSize", value); }
    [[nodiscard]] bool fontLigatures() const { return boolean("fontLigatures"); }
    void setFontLigatures(bool value) { write("fontLigatures", value); }
    [[nodiscard]] double letterSpacing() const { return clampedReal("letterSpacing", -3, 10); }
    void setLetterSpacing(double value) { write("letterSpacing", value); }
    /// From 1 to 16.
    [[nodiscard]] int tabWidth() const { return clampedInteger("tabWidth", 1, 16); }
    void setTabWidth(int value) { write("tabWidth", value); }
    [[nodiscard]] bool insertSpaces() const { return boolean("insertSpaces"); }
    void setInsertSpaces(bool value) { write("insertSpaces", value); }
    [[nodiscard]] bool showLineNumbers() const { return boolean("showLineNumbers"); }
    void setShowLineNumbers(bool value) { write("showLineNumbers", value); }
    [[nodiscard]] LineNumberMode lineNumberMode() const;
    void setLineNumberMode(LineNumberMode value);
    [[nodiscard]] bool showInvisibles() const { return boolean("showInvisibles"); }
    void setShowInvisibles(bool value) { write("showInvisibles", value); }
    [[nodiscard]] bool autoIndent() const { return boolean("autoIndent"); }
    void setAutoIndent(bool value) { write("autoIndent", value); }
    [[nodiscard]] bool detectIndentation() const { return boolean("detectIndentation"); }
    void setDetectIndentation(bool value) { write("detectIndentation", value); }
    [[nodiscard]] bool detectFixedWidthFields() const { return boolean("detectFixedWidthFields"); }
    void setDetectFixedWidthFields(bool value) { write("detectFixedWidthFields", value); }
    [[nodiscard]] bool formatOnSave() const { return boolean("formatOnSave"); }
    void setFormatOnSave(bool value) { write("formatOnSave", value); }
    [[nodiscard]] bool lintOnSave() const { return boolean("lintOnSave"); }
    void setLintOnSave(bool value) { write("lintOnSave", value); }
    /// Seconds, from 1 to 3,600.
    [[nodiscard]] double formatterTimeout() const { return clampedReal("formatterTimeout", 1, 3'600); }
    void setFormatterTimeout(double value) { write("formatterTimeout", value); }
    [[nodiscard]] int formatterSizeLimitMB() const { return clampedInteger("formatterSizeLimitMB", 0, 1'048'576); }
    void setFormatterSizeLimitMB(int value) { write("formatterSizeLimitMB", value); }
    [[nodiscard]] int symbolIndexLineLimit() const { return clampedInteger("symbolIndexLineLimit", 0, 2'000'000'000); }
    void setSymbolIndexLineLimit(int value) { write("symbolIndexLineLimit", value); }
    [[nodiscard]] bool showOutline() const { return boolean("showOutline"); }
    void setShowOutline(bool value) { write("showOutline", value); }
    [[nodiscard]] bool showBreadcrumb() const { return boolean("showBreadcrumb"); }
    void setShowBreadcrumb(bool value) { write("showBreadcrumb", value); }
    [[nodiscard]] bool showStickyScope() const { return boolean("showStickyScope"); }
    void setShowStickyScope(bool value) { write("showStickyScope", value); }
    [[nodiscard]] bool showFoldChevrons() const { return boolean("showFoldChevrons"); }
    void setShowFoldChevrons(bool value) { write("showFoldChevrons", value); }
    [[nodiscard]] bool showGitChanges() const { return boolean("showGitChanges"); }
    void setShowGitChanges(bool value) { write("showGitChanges", value); }
    [[nodiscard]] bool showBlame() const { return boolean("showBlame"); }
    void setShowBlame(bool value) { write("showBlame", value); }
    [[nodiscard]] bool showFileSidebar() const { return boolean("showFileSidebar"); }
    void setShowFileSidebar(bool value) { write("showFileSidebar", value); }
    [[nodiscard]] bool showIssues() const { return boolean("showIssues"); }
    void setShowIssues(bool value) { write("showIssues", value); }
    [[nodiscard]] bool showInlineIssues() const { return boolean("showInlineIssues"); }
    void setShowInlineIssues(bool value) { write("showInlineIssues", value); }
    [[nodiscard]] bool showColorSwatches() const { return boolean("showColorSwatches"); }
    void setShowColorSwatches(bool value) { write("showColorSwatches", value); }
    [[nodiscard]] bool showImagePreviews() const { return boolean("showImagePreviews"); }
    void setShowImagePreviews(bool value) { write("showImagePreviews", value); }
    [[nodiscard]] bool automaticCompletion() const { return boolean("automaticCompletion"); }
    void setAutomaticCompletion(bool value) { write("automaticCompletion", value); }
    [[nodiscard]] bool softWrap() const { return boolean("softWrap"); }
    void setSoftWrap(bool value) { write("softWrap", value); }
    [[nodiscard]] bool autoSaveOnFocusChange() const { return boolean("autoSaveOnFocusChange"); }
    void setAutoSaveOnFocusChange(bool value) { write("autoSaveOnFocusChange", value); }
    [[nodiscard]] bool mergeCloudChanges() const { return boolean("mergeCloudChanges"); }
    void setMergeCloudChanges(bool value) { write("mergeCloudChanges", value); }
    [[nodiscard]] bool saveSharedFilesAsYouType() const { return boolean("saveSharedFilesAsYouType"); }
    void setSaveSharedFilesAsYouType(bool value) { write("saveSharedFilesAsYouType", value); }
    [[nodiscard]] bool lineCutCopy() const { return boolean("lineCutCopy"); }
    void setLineCutCopy(bool value) { write("lineCutCopy", value); }
    [[nodiscard]] bool preferCommentingByLine() const { return boolean("preferCommentingByLine"); }
    void setPreferCommentingByLine(bool value) { write("preferCommentingByLine", value); }
    [[nodiscard]] bool atomicSave() const { return boolean("atomicSave"); }
    void setAtomicSave(bool value) { write("atomicSave", value); }
    [[nodiscard]] bool followsIncreaseContrast() const { return boolean("followsIncreaseContrast"); }
    void setFollowsIncreaseContrast(bool value) { write("followsIncreaseContrast", value); }
    /// From 0 to 1, clamped on reading and on writing.
    [[nodiscard]] double indentGuideOpacity() const { return clampedReal("indentGuideOpacity", 0, 1); }
    void setIndentGuideOpacity(double value);
    [[nodiscard]] double previewWidth() const { return clampedReal("previewWidth", 0, 100'000); }
    void setPreviewWidth(double value) { write("previewWidth", value); }
    [[nodiscard]] double previewZoom() const { return clampedReal("previewZoom", 0.1, 10); }
    void setPreviewZoom(double value) { write("previewZoom", value); }
    /// Not below 0, on reading and on writing.
    [[nodiscard]] int draftLifetimeDays() const { return clampedInteger("draftLifetimeDays", 0, 2'000'000'000); }
    void setDraftLifetimeDays(int value);
    /// From 0 to 1,048,576; written not below 0.
    [[nodiscard]] int draftTotalLimitMB() const { return clampedInteger("draftTotalLimitMB", 0, 1'048'576); }
    void setDraftTotalLimitMB(int value);
    [[nodiscard]] bool draftSmartDelete() const { return boolean("draftSmartDelete"); }
    void setDraftSmartDelete(bool value) { write("draftSmartDelete", value); }
    /// Not below 0, on reading and on writing.
    [[nodiscard]] int recentFilesLimit() const { return clampedInteger("recentFilesLimit", 0, 2'000'000'000); }
    void setRecentFilesLimit(int value);
    [[nodiscard]] bool showIndentGuides() const { return boolean("showIndentGuides"); }
    void setShowIndentGuides(bool value) { write("showIndentGuides", value); }
    [[nodiscard]] bool highlightCurrentLine() const { return boolean("highlightCurrentLine"); }
    void setHighlightCurrentLine(bool value) { write("highlightCurrentLine", value); }
    [[nodiscard]] ThemePreference theme() const;
    void setTheme(ThemePreference value);
    /// Lines per checkpoint of the line index, from 1 to 1,048,576.
    [[nodiscard]] int indexStride() const { return clampedInteger("indexStride", 1, 1'048'576); }
    void setIndexStride(int value) { write("indexStride", value); }
    [[nodiscard]] bool restoreSession() const { return boolean("restoreSession"); }
    void setRestoreSession(bool value) { write("restoreSession", value, Tell::nobody); }
    [[nodiscard]] bool syntaxHighlighting() const { return boolean("syntaxHighlighting"); }
    void setSyntaxHighlighting(bool value) { write("syntaxHighlighting", value); }
    [[nodiscard]] int highlightLimitMB() const { return clampedInteger("highlightLimitMB", 0, 1'048'576); }
    void setHighlightLimitMB(int value) { write("highlightLimitMB", value); }
    /// The id of the character set for bytes that are not valid UTF-8. The character-set library
    /// reads an id it does not know as cp1252.
    [[nodiscard]] std::string fallbackEncoding() const { return text("fallbackEncoding"); }
    void setFallbackEncoding(const std::string& id) { write("fallbackEncoding", id); }
    [[nodiscard]] bool highlightAllMatches() const { return boolean("highlightAllMatches"); }
    void setHighlightAllMatches(bool value) { write("highlightAllMatches", value); }
    /// The stored word of the line ending for new documents; a word that names no line ending
    /// reads as "lf".
    [[nodiscard]] std::string defaultLineEnding() const;
    void setDefaultLineEnding(const std::string& word) { write("defaultLineEnding", word); }
    [[nodiscard]] bool findCaseSensitive() const { return boolean("findCaseSensitive"); }
    void setFindCaseSensitive(bool value) { write("findCaseSensitive", value); }
    [[nodiscard]] bool findWholeWord() const { return boolean("findWholeWord"); }
    void setFindWholeWord(bool value) { write("findWholeWord", value); }
    [[nodiscard]] bool findRegex() const { return boolean("findRegex"); }
    /// Turning regular expressions on turns structural search and escapes off.
    void setFindRegex(bool value);
    [[nodiscard]] bool findWrapAround() const { return boolean("findWrapAround"); }
    void setFindWrapAround(bool value) { write("findWrapAround", value); }
    [[nodiscard]] bool autoPairBrackets() const { return boolean("autoPairBrackets"); }
    void setAutoPairBrackets(bool value) { write("autoPairBrackets", value); }
    [[nodiscard]] bool autoCloseTags() const { return boolean("autoCloseTags"); }
    void setAutoCloseTags(bool value) { write("autoCloseTags", value); }
    [[nodiscard]] bool highlightMatchingPair() const { return boolean("highlightMatchingPair"); }
    void setHighlightMatchingPair(bool value) { write("highlightMatchingPair", value); }
    [[nodiscard]] bool keepUnsavedChanges() const { return boolean("keepUnsavedChanges"); }
    void setKeepUnsavedChanges(bool value) { write("keepUnsavedChanges", value); }
    [[nodiscard]] bool ensureTrailingNewline() const { return boolean("ensureTrailingNewline"); }
    void setEnsureTrailingNewline(bool value) { write("ensureTrailingNewline", value); }
    /// The wrap guides' text as the user typed it, never re-formatted.
    [[nodiscard]] std::string wrapGuideText() const { return text("wrapGuideColumns"); }
    void setWrapGuideText(const std::string& value) { write("wrapGuideColumns", value); }
    [[nodiscard]] std::vector<int> wrapGuideColumns() const { return wrapGuideColumnsIn(wrapGuideText()); }
    [[nodiscard]] bool rainbowBrackets() const { return boolean("rainbowBrackets"); }
    void setRainbowBrackets(bool value) { write("rainbowBrackets", value); }
    [[nodiscard]] bool trimTrailingWhitespaceOnSave() const { return boolean("trimTrailingWhitespaceOnSave"); }
    void setTrimTrailingWhitespaceOnSave(bool value) { write("trimTrailingWhitespaceOnSave", value); }

    // Keys that are not registered.
    /// From 1 to 16; absent or below 1, the tab width.
    [[nodiscard]] int indentWidth() const;
    void setIndentWidth(int value) { write("indentWidth", value); }
    /// Absent, the value of "showLineNumbers".
    [[nodiscard]] bool printLineNumbers() const;
    void setPrintLineNumbers(bool value) { write("printLineNumbers", value); }
    [[nodiscard]] double printFontSize() const { return clampedReal("printFontSize", 6, 24, 9.0); }
    void setPrintFontSize(double value) { write("printFontSize", value); }
    /// From 7 to 36, clamped on reading and on writing; a change is told as `hexFontSizeChanged` only.
    [[nodiscard]] double hexFontSize() const { return clampedReal("hexFontSize", 7, 36, 11.0); }
    void setHexFontSize(double value);
    /// None when absent or empty.
    [[nodiscard]] std::optional<std::string> themeName() const;
    void setThemeName(const std::optional<std::string>& name);
    [[nodiscard]] std::string dateFormat() const { return text("dateFormat"); }
    void setDateFormat(const std::string& value) { write("dateFormat", value); }
    /// The saved variation of a font family, as `FontVariations` stored it.
    [[nodiscard]] std::optional<nlohmann::json> fontVariation(std::string_view family) const;
    void setFontVariation(const std::optional<nlohmann::json>& variation, std::string_view family);
    [[nodiscard]] bool countUse() const { return boolean("countUse", true); }
    void setCountUse(bool value) { write("countUse", value, Tell::nobody); }
    [[nodiscard]] bool tintLogLines() const { return boolean("tintLogLines", true); }
    void setTintLogLines(bool value) { write("tintLogLines", value); }
    [[nodiscard]] bool vimMode() const { return boolean("vimMode"); }
    void setVimMode(bool value) { write("vimMode", value); }
    [[nodiscard]] bool showMinimap() const { return boolean("showMinimap"); }
    void setShowMinimap(bool value) { write("showMinimap", value); }
    [[nodiscard]] bool sortDescending() const { return boolean("sortDescending"); }
    void setSortDescending(bool value) { write("sortDescending", value, Tell::nobody); }
    [[nodiscard]] bool showCodePoints() const { return boolean("showCodePoints"); }
    void setShowCodePoints(bool value) { write("showCodePoints", value); }
    [[nodiscard]] bool showFullPathInTitle() const { return boolean("showFullPathInTitle"); }
    void setShowFullPathInTitle(bool value) { write("showFullPathInTitle", value); }
    [[nodiscard]] bool findStructural() const { return boolean("findStructural"); }
    void setFindStructural(bool value) { write("findStructural", value, Tell::nobody); }
    [[nodiscard]] bool findEscapes() const { return boolean("findEscapes"); }
    void setFindEscapes(bool value) { write("findEscapes", value, Tell::nobody); }
    [[nodiscard]] bool findInSelection() const { return boolean("findInSelection"); }
    void setFindInSelection(bool value) { write("findInSelection", value, Tell::nobody); }
    [[nodiscard]] bool findPreserveCase() const { return boolean("findPreserveCase"); }
    void setFindPreserveCase(bool value) { write("findPreserveCase", value, Tell::nobody); }
    [[nodiscard]] bool findSharedAcrossWindows() const { return boolean("findSharedAcrossWindows"); }
    void setFindSharedAcrossWindows(bool value) { write("findSharedAcrossWindows", value, Tell::nobody); }
    [[nodiscard]] std::string splitDelimiter() const { return text("splitDelimiter"); }
    void setSplitDelimiter(const std::string& value) { write("splitDelimiter", value, Tell::nobody); }
    [[nodiscard]] std::string lastWrapTag() const { return text("lastWrapTag"); }
    void setLastWrapTag(const std::string& value) { write("lastWrapTag", value, Tell::nobody); }
    /// The last number sequence of the text commands; null when absent (start 1, step 1 then).
    [[nodiscard]] nlohmann::json numberSequence() const { return stored("numberSequence"); }
    void setNumberSequence(const nlohmann::json& value) { write("numberSequence", value, Tell::nobody); }
    [[nodiscard]] std::string numberArithmetic() const { return text("numberArithmetic"); }
    void setNumberArithmetic(const std::string& value) { write("numberArithmetic", value, Tell::nobody); }
    /// The working batch-replace list; null when absent.
    [[nodiscard]] nlohmann::json batchReplace() const { return stored("batchReplace"); }
    void setBatchReplace(const nlohmann::json& value) { write("batchReplace", value, Tell::nobody); }
    /// Named batch-replace lists; an empty object when absent or not an object.
    [[nodiscard]] nlohmann::json batchReplaceLists() const { return storedObject("batchReplaceLists"); }
    void setBatchReplaceLists(const nlohmann::json& value) { write("batchReplaceLists", value, Tell::nobody); }
    /// Name to conditions; an empty object when absent or not an object.
    [[nodiscard]] nlohmann::json savedLineFilters() const { return storedObject("savedLineFilters"); }
    void setSavedLineFilters(const nlohmann::json& value) { write("savedLineFilters", value, Tell::nobody); }
    /// An empty array when absent or not an array.
    [[nodiscard]] nlohmann::json fieldLayouts() const { return storedArray("fieldLayouts"); }
    void setFieldLayouts(const nlohmann::json& value) { write("fieldLayouts", value, Tell::nobody); }

    /// The user's formatter rules: an array of records, each naming its "language"; a stored rule
    /// replaces the built-in rule of its language (the tools library merges them). Empty when absent.
    [[nodiscard]] nlohmann::json formatterRules() const { return storedArray("formatterRules"); }
    void setFormatterRules(const nlohmann::json& rules) { write("formatterRules", rules, Tell::nobody); }
    /// Replaces the stored rule for `rule["language"]`, or adds it at the end.
    void setFormatterRule(const nlohmann::json& rule) { replaceRule("formatterRules", rule); }
    [[nodiscard]] nlohmann::json linterRules() const { return storedArray("linterRules"); }
    void setLinterRules(const nlohmann::json& rules) { write("linterRules", rules, Tell::nobody); }
    void setLinterRule(const nlohmann::json& rule) { replaceRule("linterRules", rule); }
    [[nodiscard]] nlohmann::json lspRules() const { return storedArray("lspRules"); }
    void setLSPRules(const nlohmann::json& rules) { write("lspRules", rules, Tell::nobody); }
    void setLSPRule(const nlohmann::json& rule) { replaceRule("lspRules", rule); }

    /// Newest first, no duplicates, at most 12.
    [[nodiscard]] std::vector<std::string> filterCommands() const { return strings("filterCommands"); }
    void setFilterCommands(std::vector<std::string> commands);
    /// Trims the command; an empty one is ignored; an equal entry moves to the front.
    void rememberFilterCommand(std::string_view command);
    [[nodiscard]] std::vector<std::string> customCommands() const { return strings("customCommands"); }
    void setCustomCommands(const std::vector<std::string>& commands);
    /// Newest first, at most 12.
    [[nodiscard]] std::vector<std::string> recentRemoteLocations() const { return strings("recentRemoteLocations"); }
    void rememberRemoteLocation(std::string_view location);
    [[nodiscard]] std::string projectSearchInclude() const { return text("projectSearchInclude"); }
    void setProjectSearchInclude(const std::string& value) { write("projectSearchInclude", value, Tell::nobody); }
    [[nodiscard]] std::string projectSearchExclude() const { return text("projectSearchExclude"); }
    void setProjectSearchExclude(const std::string& value) { write("projectSearchExclude", value, Tell::nobody); }
    /// The raw names of the chosen clean-up problems; none when never chosen, so the tools
    /// library's default selection applies. Names it does not know are its to drop.
    [[nodiscard]] std::optional<std::vector<std::string>> cleanUpProblems() const;
    void setCleanUpProblems(const std::vector<std::string>& names);
    [[nodiscard]] bool cleanInvisiblesOnSave() const { return boolean("cleanInvisiblesOnSave"); }
    void setCleanInvisiblesOnSave(bool value) { write("cleanInvisiblesOnSave", value, Tell::nobody); }
    [[nodiscard]] std::vector<std::string> encodingsShown() const { return strings("encodingsShown"); }
    [[nodiscard]] std::vector<std::string> encodingsHidden() const { return strings("encodingsHidden"); }
    /// True if the id is among the shown, false if among the hidden, else `isEveryday` (whether
    /// the character-set library counts the id among its everyday sets).
    [[nodiscard]] bool isEncodingShown(std::string_view id, bool isEveryday) const;
    /// Moves the id into the shown or the hidden list and out of the other.
    void setEncodingShown(std::string_view id, bool shown);
    void resetShownEncodings();
    [[nodiscard]] CompletionAccept completionAccept() const;
    void setCompletionAccept(CompletionAccept value);
    [[nodiscard]] AppLanguage appLanguage() const;
    /// Stores the word and makes the language current for the rest of the process.
    void setAppLanguage(AppLanguage value);
    [[nodiscard]] bool remoteEditing() const { return boolean("remoteEditing"); }
    /// A change is told as `remoteEditingChanged` only.
    void setRemoteEditing(bool value);
    /// A stored value of 0 or below, or none, means 52698; otherwise from 1024 to 65535.
    [[nodiscard]] int remoteEditingPort() const;
    void setRemoteEditingPort(int value);
    /// When the last whole sync with the account took place, as the account code wrote it.
    [[nodiscard]] std::optional<std::string> accountLastSync() const;
    void setAccountLastSync(const std::optional<std::string>& value);

    // Per-language overrides.
    /// All records, in the order in which languages were last decided about.
    [[nodiscard]] std::vector<LanguageSettings> languageSettings() const;
    void setLanguageSettings(const std::vector<LanguageSettings>& list);
    /// Replaces the record of `record.language`, moving it to the end; an empty record removes it.
    void setLanguageSettings(const LanguageSettings& record);
    /// The record of one language, if any was decided.
    [[nodiscard]] std::optional<LanguageSettings> languageSettings(std::string_view language) const;
    /// The override if it is at least 1 (capped at 64); else the global tab width.
    [[nodiscard]] int tabWidth(std::string_view language) const;
    [[nodiscard]] int indentWidth(std::string_view language) const;
    [[nodiscard]] bool insertSpaces(std::string_view language) const;
    [[nodiscard]] bool softWrap(std::string_view language) const;
    /// A set override is a decision even when it is empty (no guides); else the global columns.
    [[nodiscard]] std::vector<int> wrapGuideColumns(std::string_view language) const;
    /// The stored word of the line ending; the global value when not decided or not a line ending.
    [[nodiscard]] std::string defaultLineEnding(std::string_view language) const;
    /// The id of the encoding for new documents of the language: the override, else "utf8"
    /// (deliberately not the fallback encoding, which serves only for bytes that are not UTF-8).
    [[nodiscard]] std::string defaultEncoding(std::string_view language) const;
    /// Spaces of the global indent width, or tabs.
    [[nodiscard]] IndentationStyle indentationStyle() const;

    /// The columns in a wrap-guide text: pieces between commas and blanks that are decimal
    /// integers from 1 to 2000, in the order of the text.
    [[nodiscard]] static std::vector<int> wrapGuideColumnsIn(std::string_view text);

    /// The nine stored words of line endings, in their order.
    [[nodiscard]] static const std::vector<std::string_view>& lineEndingWords();

    /// The stored word of an enumeration value and back; an unknown word is the first case.
    [[nodiscard]] static std::string_view word(LineNumberMode value);
    [[nodiscard]] static std::string_view word(ThemePreference value);
    [[nodiscard]] static std::string_view word(CompletionAccept value);

private:
    enum class Tell : std::uint8_t { settingsChanged, nobody };

    [[nodiscard]] nlohmann::json stored(std::string_view key) const;
    [[nodiscard]] nlohmann::json storedObject(std::string_view key) const;
    [[nodiscard]] nlohmann::json storedArray(std::string_view key) const;
    [[nodiscard]] bool boolean(std::string_view key, bool absent = false) const;
    [[nodiscard]] std::optional<std::int64_t> integer(std::string_view key) const;
    [[nodiscard]] std::optional<double> real(std::string_view key) const;
    [[nodiscard]] int clampedInteger(std::string_view key, std::int64_t lowest, std::int64_t highest) const;
    [[nodiscard]] double clampedReal(std::string_view key, double lowest, double highest, double absent = 0) const;
    [[nodiscard]] std::string text(std::string_view key) const;
    [[nodiscard]] std::vector<std::string> strings(std::string_view key) const;
    void write(std::string_view key, nlohmann::json value, Tell tell = Tell::settingsChanged);
    void replaceRule(std::string_view key, const nlohmann::json& rule);
    void adoptSoftWrapDefault();
    void tell();
    void post(SettingsNotification notification);

    SettingsStore store_;
    std::shared_ptr<Broadcast> broadcast_;

    struct LanguageCache {
        std::uint64_t revision = 0;
        std::vector<LanguageSettings> value;
    };
    mutable std::mutex languageCacheLock;
    mutable std::optional<LanguageCache> languageCache; // guarded by languageCacheLock
};

} // namespace brim
