#include "lmkit/nodes/ScoringSettings.hpp"

#include "lmkit/nodes/ShareStorer.hpp"
#include "lmkit/settings/ObjectPropertyStore.hpp"

namespace lmkit {

ScoringSettings ScoringSettings::current() {
    ScoringSettings settings;
    auto config = ObjectPropertyStore::shared().configAPIResponse();
    settings.newLossScore = config && config->enableNewLossScore;
    settings.scoreRangeGap = ShareStorer::sharedInstance().scoreRangeGap();
    return settings;
}

}  // namespace lmkit
