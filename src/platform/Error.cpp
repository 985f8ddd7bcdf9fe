#include "lmkit/platform/Error.hpp"

#include <fmt/format.h>

namespace lmkit {

Error Error::withDescription(std::string domain, long code, std::string description) {
    return Error(std::move(domain), code, {{kLocalizedDescriptionKey, std::move(description)}});
}

std::string Error::localizedDescription() const {
    if (auto it = userInfo.find(kLocalizedDescriptionKey); it != userInfo.end())
        return it->second;
    return fmt::format("The operation couldn\u2019t be completed. ({} error {}.)", domain, code);
}

std::string describe(const Error& error) {
    return fmt::format("{} {}: {}", error.domain, error.code, error.localizedDescription());
}

}  // namespace lmkit
