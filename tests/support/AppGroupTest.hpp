#pragma once
// Tests of the stores in the app group's container: each test gets a container of its own, so
// that nothing reaches the user's real settings or another test's.
#include <gtest/gtest.h>

#include <filesystem>
#include <memory>

#include "lmkit/foundation/DefaultsWriteQueue.hpp"
#include "lmkit/foundation/UserDefaults.hpp"
#include "lmkit/platform/AppGroup.hpp"
#include "support/TestSupport.hpp"

namespace lmkit::testing {

/// Points the app group's container at a fresh temporary directory while it lives.
class TempContainer {
  public:
    TempContainer() { AppGroup::setContainerDirectoryForTesting(dir_.path()); }
    ~TempContainer() { AppGroup::setContainerDirectoryForTesting({}); }
    TempContainer(const TempContainer&) = delete;
    TempContainer& operator=(const TempContainer&) = delete;
    const std::filesystem::path& path() const { return dir_.path(); }

  private:
    TempDir dir_;
};

/// Returns once every AppDefault write queued so far is on disk.
inline void waitForWrites() {
    defaultsWriteQueue().sync([] {});
}

/// A test with a container of its own and the app group's settings suite in it.
class AppGroupTest : public ::testing::Test {
  protected:
    TempContainer dir_;
    std::shared_ptr<UserDefaults> defaults_ = UserDefaults::suite();
};

}  // namespace lmkit::testing
