#pragma once

#include "lmkit/models/BaseModel.hpp"

namespace lmkit {

/// Hosts the service moves an installed app to: delivered with the configuration and kept under
/// "LMAPIHostKey". An empty or missing text leaves that endpoint at its built-in host.
struct APIHost : Model<APIHost> {
    std::optional<std::string> api;
    std::optional<std::string> feedback;

    static const std::vector<Property<APIHost>>& properties();
};

}  // namespace lmkit
