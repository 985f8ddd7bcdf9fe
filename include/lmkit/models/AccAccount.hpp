#pragma once

#include "lmkit/models/BaseModel.hpp"

namespace lmkit {

/// The relay credentials of an acceleration answer.
struct AccAccount : Model<AccAccount> {
    std::optional<std::string> username;
    std::optional<std::string> password;

    static const std::vector<Property<AccAccount>>& properties();
};

}  // namespace lmkit
