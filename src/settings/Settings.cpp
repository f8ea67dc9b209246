#include "settings/Settings.h"

#include "common/SerialQueue.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <limits>

namespace brim {

namespace {

using nlohmann::json;

constexpr int defaultRemoteEditingPort = 52'698;
constexpr std::size_t rememberedCommands = 12;

std::filesystem::path homeFolder() {
    const char* home = std::getenv("HOME");
    return home != nullptr && *home != '\0' ? std::filesystem::path(home) : std::filesystem::path("/");
}

json makeRegisteredDefaults() {
    json defaults = json::object();
    for (const char* key : {"fontLigatures",       "showLineNumbers",        "autoIndent",
                            "detectIndentation",   "detectFixedWidthFields", "showBreadcrumb",
                            "showFoldChevrons",    "showGitChanges",         "showInlineIssues",
                            "showColorSwatches",   "showImagePreviews",      "automaticCompletion",
                            "softWrap",            "mergeCloudChanges",      "saveSharedFilesAsYouType",
                            "lineCutCopy",         "atomicSave",             "followsIncreaseContrast",
                            "draftSmartDelete",    "showIndentGuides",       "restoreSession",
                            "syntaxHighlighting",  "highlightAllMatches",    "findWrapAround",
                            "autoPairBrackets",    "autoCloseTags",          "highlightMatchingPair",
                            "keepUnsavedChanges",  "rainbowBrackets"}) {
        defaults[key] = true;
    }
    for (const char* key : {"insertSpaces", "showInvisibles", "formatOnSave", "lintOnSave", "showOutline",
                            "showStickyScope", "showBlame", "showFileSidebar", "showIssues", "autoSaveOnFocusChange",
                            "preferCommentingByLine", "highlightCurrentLine", "findCaseSensitive", "findWholeWord",
                            "findRegex", "ensureTrailingNewline", "trimTrailingWhitespaceOnSave"}) {
        defaults[key] = false;
    }
    defaults["mmapThresholdMB"] = 64;
    defaults["tabWidth"] = 4;
    defaults["formatterSizeLimitMB"] = 50;
    defaults["symbolIndexLineLimit"] = 500'000;
    defaults["draftLifetimeDays"] = 7;
    defaults["draftTotalLimitMB"] = 256;
    defaults["recentFilesLimit"] = 24;
    defaults["indexStride"] = 4'096;
    defaults["highlightLimitMB"] = 256;
    defaults["fontSize"] = 12.0;
    defaults["letterSpacing"] = 0.0;
    defaults["formatterTimeout"] = 30.0;
    defaults["indentGuideOpacity"] = 1.0;
    defaults["previewWidth"] = 420.0;
    defaults["previewZoom"] = 1.0;
    // The fontconfig name of the system's monospaced face; a face that cannot be made falls back
    // to it anyway.
    defaults["fontName"] = "Monospace";
    defaults["lineNumberMode"] = "absolute";
    defaults["theme"] = "system";
    defaults["fallbackEncoding"] = "cp1252";
    defaults["defaultLineEnding"] = "lf";
    defaults["wrapGuideColumns"] = "";
    return defaults;
}

std::optional<std::int64_t> integerIn(const json& value) {
    if (value.is_number_integer()) {
        if (value.is_number_unsigned()) {
            const auto number = value.get<std::uint64_t>();
            return number > static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max())
                       ? std::numeric_limits<std::int64_t>::max()
                       : static_cast<std::int64_t>(number);
        }
        return value.get<std::int64_t>();
    }
    if (value.is_number_float()) {
        const double number = value.get<double>();
        if (!std::isfinite(number)) return std::nullopt;
        if (number >= 9.2e18) return std::numeric_limits<std::int64_t>::max();
        if (number <= -9.2e18) return std::numeric_limits<std::int64_t>::min();
        return static_cast<std::int64_t>(number);
    }
    if (value.is_boolean()) return value.get<bool>() ? 1 : 0;
    return std::nullopt;
}

std::optional<double> realIn(const json& value) {
    if (value.is_number()) {
        const double number = value.get<double>();
        return std::isfinite(number) ? std::optional(number) : std::nullopt;
    }
    if (value.is_boolean()) return value.get<bool>() ? 1.0 : 0.0;
    return std::nullopt;
}

template <typename Enumeration, std::size_t count>
Enumeration fromWord(std::string_view text, const std::array<std::string_view, count>& words) {
    for (std::size_t i = 0; i < count; ++i) {
        if (words[i] == text) return static_cast<Enumeration>(i);
    }
    return static_cast<Enumeration>(0);
}

constexpr std::array<std::string_view, 3> lineNumberModeWords{"absolute", "relative", "hybrid"};
constexpr std::array<std::string_view, 3> themeWords{"system", "light", "dark"};
constexpr std::array<std::string_view, 3> completionWords{"both", "tab", "newline"};

std::string trimmed(std::string_view text) {
    const auto first = text.find_first_not_of(" \t\r\n\v\f");
    if (first == std::string_view::npos) return {};
    const auto last = text.find_last_not_of(" \t\r\n\v\f");
    return std::string(text.substr(first, last - first + 1));
}

std::vector<std::string> firstDistinct(std::vector<std::string> list, std::size_t limit) {
    std::vector<std::string> kept;
    for (auto& item : list) {
        if (kept.size() == limit) break;
        if (std::find(kept.begin(), kept.end(), item) == kept.end()) kept.push_back(std::move(item));
    }
    return kept;
}

} // namespace

// ---- Notifications ----

std::string_view notificationName(SettingsNotification notification) {
    switch (notification) {
    case SettingsNotification::settingsChanged: return "BrimSettingsChanged";
    case SettingsNotification::hexFontSizeChanged: return "BrimHexFontSizeChanged";
    case SettingsNotification::remoteEditingChanged: return "BrimRemoteEditingChanged";
    }
    return "BrimSettingsChanged";
}

// The observers and the state of the coalesced broadcast. Held by a shared pointer so that work
// already posted to the main queue finds it gone, rather than dangling, once the settings go.
struct Settings::Broadcast : std::enable_shared_from_this<Settings::Broadcast> {
    struct Entry {
        std::uint64_t id = 0;
        SettingsNotification notification{};
        std::shared_ptr<std::function<void()>> observer;
    };

    static constexpr int postsPerBurst = 4;

    std::mutex lock;
    std::vector<Entry> observers; // guarded by lock
    std::uint64_t nextID = 1;     // guarded by lock
    bool telling = false;         // guarded by lock; a burst is being told
    bool toldAgain = false;       // guarded by lock; another change came during the burst
    int posts = 0;                // guarded by lock; how often this burst was told

    bool isObservedLocked(SettingsNotification notification) const {
        return std::any_of(observers.begin(), observers.end(),
                           [&](const Entry& entry) { return entry.notification == notification; });
    }

    bool isRegistered(std::uint64_t id) {
        std::lock_guard guard(lock);
        return std::any_of(observers.begin(), observers.end(), [&](const Entry& entry) { return entry.id == id; });
    }

    void remove(std::uint64_t id) {
        std::lock_guard guard(lock);
        std::erase_if(observers, [&](const Entry& entry) { return entry.id == id; });
    }

    // Calls the observers of `notification`; no lock is held while they run, so they may read and
    // write settings and register or drop observers.
    void deliver(SettingsNotification notification) {
        std::vector<Entry> chosen;
        {
            std::lock_guard guard(lock);
            for (const auto& entry : observers) {
                if (entry.notification == notification) chosen.push_back(entry);
            }
        }
        for (const auto& entry : chosen) {
            if (isRegistered(entry.id)) (*entry.observer)();
        }
    }

    void postBurst() {
        MainQueue::post([weak = weak_from_this()] {
            if (auto self = weak.lock()) self->tellBurst();
        });
    }

    void tellBurst() {
        deliver(SettingsNotification::settingsChanged);
        bool again = false;
        {
            std::lock_guard guard(lock);
            ++posts;
            again = toldAgain && posts < postsPerBurst;
            toldAgain = false;
            // A change after the last telling of a burst is dropped on purpose: two observers that
            // keep writing settings must not keep the main thread busy for ever.
            if (!again) telling = false;
        }
        if (again) postBurst();
    }
};

Settings::Observation::Observation(Observation&& other) noexcept
    : registry_(std::move(other.registry_)), id_(std::exchange(other.id_, 0)) {}

Settings::Observation& Settings::Observation::operator=(Observation&& other) noexcept {
    if (this != &other) {
        cancel();
        registry_ = std::move(other.registry_);
        id_ = std::exchange(other.id_, 0);
    }
    return *this;
}

Settings::Observation::~Observation() { cancel(); }

void Settings::Observation::cancel() {
    if (id_ == 0) return;
    if (auto registry = registry_.lock()) registry->remove(id_);
    id_ = 0;
    registry_.reset();
}

Settings::Observation Settings::observe(SettingsNotification notification, std::function<void()> observer) {
    std::lock_guard guard(broadcast_->lock);
    const std::uint64_t id = broadcast_->nextID++;
    broadcast_->observers.push_back(
        {id, notification, std::make_shared<std::function<void()>>(std::move(observer))});
    return Observation(broadcast_, id);
}

void Settings::tell() {
    {
        std::lock_guard guard(broadcast_->lock);
        if (!broadcast_->isObservedLocked(SettingsNotification::settingsChanged)) return;
        if (broadcast_->telling) {
            broadcast_->toldAgain = true;
            return;
        }
        broadcast_->telling = true;
        broadcast_->toldAgain = false;
        broadcast_->posts = 0;
    }
    broadcast_->postBurst();
}

void Settings::post(SettingsNotification notification) {
    {
        std::lock_guard guard(broadcast_->lock);
        if (!broadcast_->isObservedLocked(notification)) return;
    }
    MainQueue::post([weak = std::weak_ptr<Broadcast>(broadcast_), notification] {
        if (auto broadcast = weak.lock()) broadcast->deliver(notification);
    });
}

// ---- The store ----

Settings::Settings(std::filesystem::path file)
    : store_(std::move(file)), broadcast_(std::make_shared<Broadcast>()) {
    adoptSoftWrapDefault();
}

Settings::~Settings() = default;

Settings& Settings::shared() {
    static Settings settings(defaultFile());
    return settings;
}

std::filesystem::path Settings::defaultFile() {
    const char* config = std::getenv("XDG_CONFIG_HOME");
    const std::filesystem::path folder = config != nullptr && *config == '/' ? std::filesystem::path(config)
                                                                             : homeFolder() / ".config";
    return folder / "Brim" / "settings.json";
}

std::string Settings::storedAppLanguageWord(const std::filesystem::path& file) {
    std::error_code error;
    const auto size = std::filesystem::file_size(file, error);
    if (error || size == 0 || size > 16 * 1'048'576) return "system";
    std::FILE* stream = std::fopen(file.c_str(), "rb");
    if (stream == nullptr) return "system";
    std::string bytes(size, '\0');
    const std::size_t got = std::fread(bytes.data(), 1, bytes.size(), stream);
    std::fclose(stream);
    bytes.resize(got);
    const json parsed = json::parse(bytes, nullptr, false);
    if (parsed.is_discarded() || !parsed.is_object()) return "system";
    const auto found = parsed.find("appLanguage");
    return found != parsed.end() && found->is_string() ? found->get<std::string>() : "system";
}

const json& Settings::registeredDefaults() {
    static const json defaults = makeRegisteredDefaults();
    return defaults;
}

void Settings::reloadIfChanged() {
    if (store_.reloadIfChanged()) tell();
}

void Settings::remove(std::string_view key) {
    if (store_.remove(key)) tell();
}

json Settings::stored(std::string_view key) const {
    if (auto value = store_.value(key)) return std::move(*value);
    const auto& defaults = registeredDefaults();
    const auto found = defaults.find(key);
    return found != defaults.end() ? *found : json();
}

json Settings::storedObject(std::string_view key) const {
    json value = stored(key);
    return value.is_object() ? value : json::object();
}

json Settings::storedArray(std::string_view key) const {
    json value = stored(key);
    return value.is_array() ? value : json::array();
}

bool Settings::boolean(std::string_view key, bool absent) const {
    if (const auto value = store_.value(key)) {
        if (value->is_boolean()) return value->get<bool>();
        if (value->is_number()) return value->get<double>() != 0;
    }
    const auto& defaults = registeredDefaults();
    const auto found = defaults.find(key);
    return found != defaults.end() && found->is_boolean() ? found->get<bool>() : absent;
}

std::optional<std::int64_t> Settings::integer(std::string_view key) const {
    if (const auto value = store_.value(key)) {
        if (auto number = integerIn(*value)) return number;
    }
    const auto& defaults = registeredDefaults();
    const auto found = defaults.find(key);
    return found != defaults.end() ? integerIn(*found) : std::nullopt;
}

std::optional<double> Settings::real(std::string_view key) const {
    if (const auto value = store_.value(key)) {
        if (auto number = realIn(*value)) return number;
    }
    const auto& defaults = registeredDefaults();
    const auto found = defaults.find(key);
    return found != defaults.end() ? realIn(*found) : std::nullopt;
}

int Settings::clampedInteger(std::string_view key, std::int64_t lowest, std::int64_t highest) const {
    return static_cast<int>(std::clamp<std::int64_t>(integer(key).value_or(0), lowest, highest));
}

double Settings::clampedReal(std::string_view key, double lowest, double highest, double absent) const {
    return std::clamp(real(key).value_or(absent), lowest, highest);
}

std::string Settings::text(std::string_view key) const {
    const json value = stored(key);
    if (value.is_string()) return value.get<std::string>();
    const auto& defaults = registeredDefaults();
    const auto found = defaults.find(key);
    return found != defaults.end() && found->is_string() ? found->get<std::string>() : std::string();
}

std::vector<std::string> Settings::strings(std::string_view key) const {
    std::vector<std::string> list;
    const json value = stored(key);
    if (!value.is_array()) return list;
    for (const auto& item : value) {
        if (item.is_string()) list.push_back(item.get<std::string>());
    }
    return list;
}

void Settings::write(std::string_view key, json value, Tell how) {
    if (key == "softWrap") store_.set("softWrapDefaultAdopted", true);
    if (store_.set(key, std::move(value)) && how == Tell::settingsChanged) tell();
}

void Settings::replaceRule(std::string_view key, const json& rule) {
    json rules = storedArray(key);
    const json language = rule.is_object() ? rule.value("language", json()) : json();
    json kept = json::array();
    for (auto& item : rules) {
        if (!(item.is_object() && item.value("language", json()) == language)) kept.push_back(std::move(item));
    }
    kept.push_back(rule);
    write(key, std::move(kept), Tell::nobody);
}

// Soft wrap once defaulted to off; a false stored in those days is forgotten once, so the newer
// default applies. A false stored after this step is the user's choice and stays.
void Settings::adoptSoftWrapDefault() {
    if (boolean("softWrapDefaultAdopted")) return;
    const auto stored = store_.value("softWrap");
    if (!stored) return; // nothing to adopt; `write` records the step with the first choice
    if (stored->is_boolean() && !stored->get<bool>()) store_.remove("softWrap");
    store_.set("softWrapDefaultAdopted", true);
}

// ---- Keys with more to them than a value ----

LineNumberMode Settings::lineNumberMode() const {
    return fromWord<LineNumberMode>(text("lineNumberMode"), lineNumberModeWords);
}
void Settings::setLineNumberMode(LineNumberMode value) { write("lineNumberMode", std::string(word(value))); }

ThemePreference Settings::theme() const { return fromWord<ThemePreference>(text("theme"), themeWords); }
void Settings::setTheme(ThemePreference value) { write("theme", std::string(word(value))); }

CompletionAccept Settings::completionAccept() const {
    return fromWord<CompletionAccept>(text("completionAccept"), completionWords);
}
void Settings::setCompletionAccept(CompletionAccept value) { write("completionAccept", std::string(word(value))); }

std::string_view Settings::word(LineNumberMode value) { return lineNumberModeWords[static_cast<std::size_t>(value)]; }
std::string_view Settings::word(ThemePreference value) { return themeWords[static_cast<std::size_t>(value)]; }
std::string_view Settings::word(CompletionAccept value) { return completionWords[static_cast<std::size_t>(value)]; }

AppLanguage Settings::appLanguage() const { return Localization::languageForWord(text("appLanguage")); }

void Settings::setAppLanguage(AppLanguage value) {
    write("appLanguage", std::string(Localization::word(value)));
    Localization::setCurrent(value);
}

void Settings::setIndentGuideOpacity(double value) {
    write("indentGuideOpacity", std::isfinite(value) ? std::clamp(value, 0.0, 1.0) : 1.0);
}

void Settings::setDraftLifetimeDays(int value) { write("draftLifetimeDays", std::max(value, 0)); }
void Settings::setDraftTotalLimitMB(int value) { write("draftTotalLimitMB", std::max(value, 0)); }
void Settings::setRecentFilesLimit(int value) { write("recentFilesLimit", std::max(value, 0)); }

const std::vector<std::string_view>& Settings::lineEndingWords() {
    static const std::vector<std::string_view> words{"lf", "crlf", "cr", "nel", "ls", "ps", "vt", "ff", "lfcr"};
    return words;
}

std::string Settings::defaultLineEnding() const {
    std::string value = text("defaultLineEnding");
    const auto& words = lineEndingWords();
    return std::find(words.begin(), words.end(), value) != words.end() ? value : std::string("lf");
}

void Settings::setFindRegex(bool value) {
    write("findRegex", value, Tell::nobody);
    if (value) {
        write("findStructural", false, Tell::nobody);
        write("findEscapes", false, Tell::nobody);
    }
}

int Settings::indentWidth() const {
    const auto stored = store_.value("indentWidth");
    const auto width = stored ? integerIn(*stored) : std::nullopt;
    if (!width || *width < 1) return tabWidth();
    return static_cast<int>(std::min<std::int64_t>(*width, 16));
}

bool Settings::printLineNumbers() const {
    return store_.contains("printLineNumbers") ? boolean("printLineNumbers") : showLineNumbers();
}

void Settings::setHexFontSize(double value) {
    const double clamped = std::isfinite(value) ? std::clamp(value, 7.0, 36.0) : 11.0;
    if (store_.set("hexFontSize", clamped)) post(SettingsNotification::hexFontSizeChanged);
}

std::optional<std::string> Settings::themeName() const {
    std::string name = text("themeName");
    if (name.empty()) return std::nullopt;
    return name;
}

void Settings::setThemeName(const std::optional<std::string>& name) {
    if (name && !name->empty()) {
        write("themeName", *name);
    } else {
        remove("themeName");
    }
}

std::optional<json> Settings::fontVariation(std::string_view family) const {
    const json variations = storedObject("fontVariations");
    const auto found = variations.find(family);
    if (found == variations.end()) return std::nullopt;
    return *found;
}

void Settings::setFontVariation(const std::optional<json>& variation, std::string_view family) {
    json variations = storedObject("fontVariations");
    if (variation) {
        variations[std::string(family)] = *variation;
    } else {
        variations.erase(std::string(family));
    }
    write("fontVariations", std::move(variations));
}

void Settings::setFilterCommands(std::vector<std::string> commands) {
    write("filterCommands", firstDistinct(std::move(commands), rememberedCommands), Tell::nobody);
}

void Settings::rememberFilterCommand(std::string_view command) {
    std::string text = trimmed(command);
    if (text.empty()) return;
    auto list = filterCommands();
    std::erase(list, text);
    list.insert(list.begin(), std::move(text));
    setFilterCommands(std::move(list));
}

void Settings::setCustomCommands(const std::vector<std::string>& commands) {
    write("customCommands", commands, Tell::nobody);
}

void Settings::rememberRemoteLocation(std::string_view location) {
    std::string text(location);
    if (trimmed(text).empty()) return;
    auto list = recentRemoteLocations();
    std::erase(list, text);
    list.insert(list.begin(), std::move(text));
    write("recentRemoteLocations", firstDistinct(std::move(list), rememberedCommands), Tell::nobody);
}

std::optional<std::vector<std::string>> Settings::cleanUpProblems() const {
    const auto value = store_.value("cleanUpProblems");
    if (!value || !value->is_array()) return std::nullopt;
    return strings("cleanUpProblems");
}

void Settings::setCleanUpProblems(const std::vector<std::string>& names) {
    write("cleanUpProblems", names, Tell::nobody);
}

bool Settings::isEncodingShown(std::string_view id, bool isEveryday) const {
    const auto shown = encodingsShown();
    if (std::find(shown.begin(), shown.end(), id) != shown.end()) return true;
    const auto hidden = encodingsHidden();
    if (std::find(hidden.begin(), hidden.end(), id) != hidden.end()) return false;
    return isEveryday;
}

void Settings::setEncodingShown(std::string_view id, bool shown) {
    auto into = strings(shown ? "encodingsShown" : "encodingsHidden");
    auto outOf = strings(shown ? "encodingsHidden" : "encodingsShown");
    std::erase(outOf, id);
    if (std::find(into.begin(), into.end(), id) == into.end()) into.emplace_back(id);
    write(shown ? "encodingsHidden" : "encodingsShown", outOf, Tell::nobody);
    write(shown ? "encodingsShown" : "encodingsHidden", into);
}

void Settings::resetShownEncodings() {
    const bool hadShown = store_.remove("encodingsShown");
    const bool hadHidden = store_.remove("encodingsHidden");
    if (hadShown || hadHidden) tell();
}

void Settings::setRemoteEditing(bool value) {
    if (store_.set("remoteEditing", value)) post(SettingsNotification::remoteEditingChanged);
}

int Settings::remoteEditingPort() const {
    const auto stored = store_.value("remoteEditingPort");
    const auto port = stored ? integerIn(*stored) : std::nullopt;
    if (!port || *port <= 0) return defaultRemoteEditingPort;
    return static_cast<int>(std::clamp<std::int64_t>(*port, 1'024, 65'535));
}

void Settings::setRemoteEditingPort(int value) {
    if (store_.set("remoteEditingPort", value)) post(SettingsNotification::remoteEditingChanged);
}

std::optional<std::string> Settings::accountLastSync() const {
    const auto value = store_.value("accountLastSync");
    if (!value || !value->is_string()) return std::nullopt;
    return value->get<std::string>();
}

void Settings::setAccountLastSync(const std::optional<std::string>& value) {
    if (value) {
        store_.set("accountLastSync", *value);
    } else {
        store_.remove("accountLastSync");
    }
}

// ---- Per-language overrides ----

std::vector<LanguageSettings> Settings::languageSettings() const {
    // Read the revision before the value: the value is then at least as new as the revision, so
    // the cache can hold something newer than its key but never something older.
    const std::uint64_t revision = store_.revision("languageSettings");
    std::lock_guard guard(languageCacheLock);
    if (languageCache && languageCache->revision == revision) return languageCache->value;
    std::vector<LanguageSettings> list;
    if (auto value = store_.value("languageSettings")) {
        if (value->is_string()) value = json::parse(value->get<std::string>(), nullptr, false);
        if (value->is_array()) {
            for (const auto& item : *value) {
                if (auto record = LanguageSettings::fromJSON(item)) list.push_back(std::move(*record));
            }
        }
    }
    languageCache = LanguageCache{revision, list};
    return list;
}

void Settings::setLanguageSettings(const std::vector<LanguageSettings>& list) {
    json array = json::array();
    for (const auto& record : list) {
        if (!record.isEmpty() && !record.language.empty()) array.push_back(record.toJSON());
    }
    write("languageSettings", std::move(array));
}

void Settings::setLanguageSettings(const LanguageSettings& record) {
    auto list = languageSettings();
    std::erase_if(list, [&](const LanguageSettings& item) { return item.language == record.language; });
    if (!record.isEmpty()) list.push_back(record);
    setLanguageSettings(list);
}

std::optional<LanguageSettings> Settings::languageSettings(std::string_view language) const {
    for (auto& record : languageSettings()) {
        if (record.language == language) return std::move(record);
    }
    return std::nullopt;
}

int Settings::tabWidth(std::string_view language) const {
    const auto record = languageSettings(language);
    if (record && record->tabWidth && *record->tabWidth >= 1) return std::min(*record->tabWidth, 64);
    return tabWidth();
}

int Settings::indentWidth(std::string_view language) const {
    const auto record = languageSettings(language);
    if (record && record->indentWidth && *record->indentWidth >= 1) return std::min(*record->indentWidth, 64);
    return indentWidth();
}

bool Settings::insertSpaces(std::string_view language) const {
    const auto record = languageSettings(language);
    return record && record->insertSpaces ? *record->insertSpaces : insertSpaces();
}

bool Settings::softWrap(std::string_view language) const {
    const auto record = languageSettings(language);
    return record && record->softWrap ? *record->softWrap : softWrap();
}

std::vector<int> Settings::wrapGuideColumns(std::string_view language) const {
    const auto record = languageSettings(language);
    return record && record->wrapGuides ? wrapGuideColumnsIn(*record->wrapGuides) : wrapGuideColumns();
}

std::string Settings::defaultLineEnding(std::string_view language) const {
    const auto record = languageSettings(language);
    if (record && record->lineEnding) {
        const auto& words = lineEndingWords();
        if (std::find(words.begin(), words.end(), *record->lineEnding) != words.end()) return *record->lineEnding;
    }
    return defaultLineEnding();
}

std::string Settings::defaultEncoding(std::string_view language) const {
    const auto record = languageSettings(language);
    return record && record->encoding && !record->encoding->empty() ? *record->encoding : std::string("utf8");
}

IndentationStyle Settings::indentationStyle() const {
    return insertSpaces() ? IndentationStyle::spaces(indentWidth()) : IndentationStyle::tabs();
}

std::vector<int> Settings::wrapGuideColumnsIn(std::string_view text) {
    std::vector<int> columns;
    std::size_t i = 0;
    while (i < text.size()) {
        const auto end = text.find_first_of(", \t\r\n", i);
        const std::string_view piece = text.substr(i, end == std::string_view::npos ? std::string_view::npos : end - i);
        i = end == std::string_view::npos ? text.size() : end + 1;
        if (piece.empty()) continue;
        std::size_t at = piece.front() == '+' || piece.front() == '-' ? 1 : 0;
        if (at == piece.size() || piece.size() > 12) continue;
        std::int64_t value = 0;
        bool number = true;
        for (; at < piece.size(); ++at) {
            if (piece[at] < '0' || piece[at] > '9') {
                number = false;
                break;
            }
            value = value * 10 + (piece[at] - '0');
        }
        if (!number) continue;
        if (piece.front() == '-') value = -value;
        if (value >= 1 && value <= 2'000) columns.push_back(static_cast<int>(value));
    }
    return columns;
}

} // namespace brim
