#pragma once

#include "lmkit/models/BaseModel.hpp"

namespace lmkit {

struct BoostTechIconState : Model<BoostTechIconState> {
    std::optional<std::string> dualChannel;
    std::optional<std::string> mPath;
    static const std::vector<Property<BoostTechIconState>>& properties();
};

}  // namespace lmkit
