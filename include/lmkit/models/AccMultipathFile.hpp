#pragma once

#include "lmkit/models/BaseModel.hpp"

namespace lmkit {

struct AccMultipathFile : Model<AccMultipathFile> {
    std::optional<std::string> name;
    std::optional<std::string> link;
    std::optional<std::string> key;
    static const std::vector<Property<AccMultipathFile>>& properties();
};

}  // namespace lmkit
