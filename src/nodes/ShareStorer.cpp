#include "lmkit/nodes/ShareStorer.hpp"

#include "lmkit/foundation/UserDefaults.hpp"

namespace lmkit {

ShareStorer& ShareStorer::sharedInstance() {
    static ShareStorer instance(nullptr);
    return instance;
}

ShareStorer::ShareStorer(std::shared_ptr<UserDefaults> defaults) : defaults_(std::move(defaults)) {}

std::shared_ptr<UserDefaults> ShareStorer::defaults() const {
    // The suite is opened on first use, not at start-up, so a process that never chooses nodes
    // never touches the app-group database.
    return defaults_ ? defaults_ : UserDefaults::suite();
}

std::optional<Number> ShareStorer::scoreRangeGap() {
    std::lock_guard guard(mutex_);
    if (!gapCached_) {
        scoreRangeGap_ = defaults()->numberForKey(kScoreRangeGapKey);
        gapCached_ = true;
    }
    return scoreRangeGap_;
}

void ShareStorer::setScoreRangeGap(const std::optional<Number>& gap) {
    std::lock_guard guard(mutex_);
    if (gap) {
        defaults()->setObject(gap->toJson(), kScoreRangeGapKey);
    } else {
        defaults()->removeObjectForKey(kScoreRangeGapKey);
    }
    scoreRangeGap_ = gap;
    gapCached_ = true;
}

void ShareStorer::clearCache() {
    std::lock_guard guard(mutex_);
    gapCached_ = false;
    scoreRangeGap_.reset();
}

}  // namespace lmkit
