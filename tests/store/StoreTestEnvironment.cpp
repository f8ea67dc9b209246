// Every test of the store runs with its own support folder and configuration folder, so nothing
// here reads or writes the user's own files (settings, working copies).
#include "common/UserResources.h"
#include "support/TemporaryFolder.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <memory>

namespace brim {
namespace {

class StoreEnvironment : public ::testing::Environment {
public:
    void SetUp() override {
        folder_ = std::make_unique<testing::TemporaryFolder>();
        ::setenv("XDG_CONFIG_HOME", (folder_->path() / "config").c_str(), 1);
        ::setenv("XDG_DATA_HOME", (folder_->path() / "data").c_str(), 1);
        UserResources::setOverrideRoot(folder_->path() / "support");
    }
    void TearDown() override { folder_.reset(); }

private:
    std::unique_ptr<testing::TemporaryFolder> folder_;
};

const auto* const environment = ::testing::AddGlobalTestEnvironment(new StoreEnvironment);

} // namespace
} // namespace brim
