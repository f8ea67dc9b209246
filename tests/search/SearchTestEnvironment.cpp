// Every search test runs with its own support and configuration folders: opening a document can
// read settings and write a working copy, and none of that may touch the user's own files.
#include "common/UserResources.h"
#include "support/TemporaryFolder.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <memory>

namespace brim {
namespace {

class SearchEnvironment : public ::testing::Environment {
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

const auto* const environment = ::testing::AddGlobalTestEnvironment(new SearchEnvironment);

} // namespace
} // namespace brim
