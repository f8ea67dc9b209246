#include "common/UserResources.h"

#include "common/BrimError.h"
#include "common/Localization.h"
#include "support/TemporaryFolder.h"

#include <gtest/gtest.h>

#include <sys/stat.h>

#include <cstdlib>

namespace brim {
namespace {

using testing::TemporaryFolder;

unsigned modeOf(const std::filesystem::path& path) {
    struct stat info {};
    if (::stat(path.c_str(), &info) != 0) return 0;
    return info.st_mode & 0777;
}

// Sets environment variables for one test and puts them back afterwards; also clears the
// process-wide --support-dir override and restores it.
class ResourcesEnvironment {
public:
    ResourcesEnvironment() : root_(UserResources::overrideRoot()) {
        for (const char* name : {"XDG_DATA_HOME", "XDG_RUNTIME_DIR", "HOME"}) {
            const char* value = std::getenv(name);
            saved_.emplace_back(name, value ? std::optional<std::string>(value) : std::nullopt);
        }
    }
    ~ResourcesEnvironment() {
        for (const auto& [name, value] : saved_) {
            if (value) {
                ::setenv(name.c_str(), value->c_str(), 1);
            } else {
                ::unsetenv(name.c_str());
            }
        }
        UserResources::setOverrideRoot(root_);
    }
    ResourcesEnvironment(const ResourcesEnvironment&) = delete;
    ResourcesEnvironment& operator=(const ResourcesEnvironment&) = delete;

private:
    std::optional<std::filesystem::path> root_;
    std::vector<std::pair<std::string, std::optional<std::string>>> saved_;
};

TEST(UserResources, theSupportFolderComesFromTheOverrideOrXDGDataHome) {
    ResourcesEnvironment environment;
    UserResources::setOverrideRoot(std::nullopt);
    ::setenv("HOME", "/home/someone", 1);
    ::setenv("XDG_DATA_HOME", "/data/place", 1);
    ::setenv("XDG_RUNTIME_DIR", "/run/user/1000", 1);
    EXPECT_EQ(UserResources::root(), std::filesystem::path("/data/place/Brim"));
    EXPECT_EQ(UserResources::commandSocket(), std::filesystem::path("/run/user/1000/Brim/cli.sock"));

    ::setenv("XDG_DATA_HOME", "relative/data", 1); // not absolute: ignored, as the standard says
    ::unsetenv("XDG_RUNTIME_DIR");
    EXPECT_EQ(UserResources::root(), std::filesystem::path("/home/someone/.local/share/Brim"));
    EXPECT_EQ(UserResources::commandSocket(), std::filesystem::path("/home/someone/.local/share/Brim/cli.sock"));

    UserResources::setOverrideRoot(std::filesystem::path("/elsewhere/./support/"));
    ::setenv("XDG_RUNTIME_DIR", "/run/user/1000", 1);
    EXPECT_EQ(UserResources::root(), std::filesystem::path("/elsewhere/support"));
    EXPECT_EQ(UserResources::path(UserResources::Folder::syncConflicts),
              std::filesystem::path("/elsewhere/support/Sync Conflicts"));
    EXPECT_EQ(UserResources::savedSearchesFile(), std::filesystem::path("/elsewhere/support/Searches.json"));
    EXPECT_EQ(UserResources::commandSocket(), std::filesystem::path("/elsewhere/support/cli.sock"))
        << "a support folder given by hand keeps its socket";
}

TEST(UserResources, prepareMakesEveryFolderWithItsMode) {
    ResourcesEnvironment environment;
    TemporaryFolder folder;
    const auto root = folder / "deep" / "support";
    UserResources::setOverrideRoot(root);
    const mode_t mask = ::umask(077); // a strict umask must not take the shared folders' modes away
    UserResources::prepare();
    ::umask(mask);
    EXPECT_EQ(modeOf(root), 0700U);
    for (const auto item : UserResources::allFolders) {
        const auto path = root / UserResources::name(item);
        SCOPED_TRACE(path.string());
        EXPECT_TRUE(std::filesystem::is_directory(path));
        EXPECT_EQ(modeOf(path), UserResources::isPrivate(item) ? 0700U : 0755U);
    }
    EXPECT_TRUE(UserResources::isPrivate(UserResources::Folder::ssh));
    EXPECT_TRUE(UserResources::isPrivate(UserResources::Folder::drafts));
    EXPECT_FALSE(UserResources::isPrivate(UserResources::Folder::themes));

    // Again: nothing changes, nothing is lost, and a private folder opened up is narrowed again.
    folder.write("deep/support/Themes/mine.brimtheme", "{}");
    ::chmod((root / "ssh").c_str(), 0755);
    ::chmod((root / "Themes").c_str(), 0750);
    UserResources::prepare();
    EXPECT_EQ(modeOf(root / "ssh"), 0700U);
    EXPECT_EQ(modeOf(root / "Themes"), 0750U) << "the user's own choice for a shared folder stands";
    EXPECT_TRUE(std::filesystem::exists(root / "Themes" / "mine.brimtheme"));
}

TEST(UserResources, aFileInTheWaySaysSo) {
    ResourcesEnvironment environment;
    const AppLanguage before = Localization::current();
    Localization::setCurrent(AppLanguage::english);
    TemporaryFolder folder;
    const auto root = folder / "support";
    UserResources::setOverrideRoot(root);
    folder.write("support/Drafts", "not a folder");
    try {
        UserResources::prepare();
        ADD_FAILURE() << "prepare made a folder where a file stands";
    } catch (const BrimError& error) {
        EXPECT_EQ(std::string(error.what()),
                  "The folder " + (root / "Drafts").string() + " could not be made: a file of that name is in the way.");
    }
    EXPECT_EQ(testing::readFile(root / "Drafts"), "not a folder");
    Localization::setCurrent(before);
}

} // namespace
} // namespace brim
