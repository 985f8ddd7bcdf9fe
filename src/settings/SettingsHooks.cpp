#include "lmkit/settings/SettingsHooks.hpp"

#include <mutex>

#include "lmkit/models/AccNode.hpp"
#include "lmkit/settings/ObjectPropertyStore.hpp"

namespace lmkit {

void installSettingsHooks() {
    static std::once_flag once;
    std::call_once(once, [] {
        // Read at scoring time, not now: the general configuration arrives (and may change)
        // after start-up, and the store keeps it in memory once read.
        AccNode::setNewLossScoreEnabledProvider([] {
            auto config = ObjectPropertyStore::shared().configAPIResponse();
            return config && config->enableNewLossScore;
        });
    });
}

}  // namespace lmkit
