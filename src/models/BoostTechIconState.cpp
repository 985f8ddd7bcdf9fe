#include "lmkit/models/BoostTechIconState.hpp"

namespace lmkit {

const std::vector<Property<BoostTechIconState>>& BoostTechIconState::properties() {
    static const std::vector<Property<BoostTechIconState>> table{
        prop("dualChannel", "dual_channel", &BoostTechIconState::dualChannel),
        prop("mPath", "multi_path", &BoostTechIconState::mPath),
    };
    return table;
}

}  // namespace lmkit
