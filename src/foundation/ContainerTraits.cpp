#include "lmkit/foundation/ContainerTraits.hpp"

#include <fstream>

namespace lmkit::detail {

std::optional<nlohmann::ordered_json> readJSONFile(const std::filesystem::path& path) {
    // A FIFO or a device would block the reader or never end.
    std::error_code error;
    if (!std::filesystem::is_regular_file(path, error))
        return std::nullopt;
    std::ifstream in(path, std::ios::binary);
    if (!in)
        return std::nullopt;
    auto json = nlohmann::ordered_json::parse(in, nullptr, false);
    if (json.is_discarded())
        return std::nullopt;
    return json;
}

}  // namespace lmkit::detail
