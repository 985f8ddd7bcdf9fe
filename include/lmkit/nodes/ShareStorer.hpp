#pragma once

#include <memory>
#include <mutex>
#include <optional>

#include "lmkit/platform/Number.hpp"

namespace lmkit {

class UserDefaults;

/// A small store over the app-group user defaults for values that the app and the tunnel share
/// and read often. Values are cached after their first read: the node choice reads the score gap
/// on every run and it changes only with a new service configuration.
class ShareStorer {
  public:
    static constexpr const char* kScoreRangeGapKey = "ShareStorerKeyScoreRangeGap";

    /// The process's instance, over the app-group suite.
    static ShareStorer& sharedInstance();

    /// A store over `defaults` (for tests and tools that use a suite of their own).
    explicit ShareStorer(std::shared_ptr<UserDefaults> defaults);

    /// The score gap within which the best nodes are put in random order; nil when none is set.
    std::optional<Number> scoreRangeGap();
    /// Stores the gap (nil removes it) and updates the cache.
    void setScoreRangeGap(const std::optional<Number>& gap);
    /// Forgets the cached value, so the next read goes to the suite again.
    void clearCache();

  private:
    std::shared_ptr<UserDefaults> defaults() const;

    mutable std::mutex mutex_;
    std::shared_ptr<UserDefaults> defaults_;  // guarded by mutex_; nil: the app-group suite
    bool gapCached_ = false;                  // guarded by mutex_
    std::optional<Number> scoreRangeGap_;     // guarded by mutex_
};

}  // namespace lmkit
