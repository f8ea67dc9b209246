// Every test of the store runs with its own support folder and configuration folder, so nothing
// here reads or writes the user's own files (settings, working copies).
#include "common/UserResources.h"
#include "support/TemporaryFolder.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <string>
#include <memory>

namespace brim {
namespace {

class StoreEnvironment : public ::testing::Environment {
public:
    void SetUp() override {
        // A child that the crash test kills never tears down: it works inside its parent's folder,
        // which the parent removes.
        std::filesystem::path root;
        if (const char* parent = std::getenv("BRIM_SAVE_LOOP_FOLDER"); parent != nullptr && *parent != 0) {
            root = std::filesystem::path(parent) / ("environment-" + std::to_string(::getpid()));
            std::filesystem::create_directories(root);
        } else {
            folder_ = std::make_unique<testing::TemporaryFolder>();
            root = folder_->path();
        }
        ::setenv("XDG_CONFIG_HOME", (root / "config").c_str(), 1);
        ::setenv("XDG_DATA_HOME", (root / "data").c_str(), 1);
        UserResources::setOverrideRoot(root / "support");
    }
    void TearDown() override { folder_.reset(); }

private:
    std::unique_ptr<testing::TemporaryFolder> folder_;
};

const auto* const environment = ::testing::AddGlobalTestEnvironment(new StoreEnvironment);

} // namespace
} // namespace brim
