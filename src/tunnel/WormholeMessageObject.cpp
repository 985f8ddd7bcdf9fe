#include "lmkit/tunnel/WormholeMessageObject.hpp"

namespace lmkit {

namespace {
constexpr const char* kClassKey = "class";
constexpr const char* kRootKey = "root";
}  // namespace

WormholeMessageObject WormholeMessageObject::dictionary(Json dictionary) {
    return WormholeMessageObject{kDictionaryClassName, std::move(dictionary)};
}

std::optional<std::vector<std::uint8_t>> WormholeMessageObject::archivedData(
    std::string& error) const {
    if (className.empty()) {
        error = "an object without a class name cannot be archived";
        return std::nullopt;
    }
    return keyed_archiver::archivedData(className, root, error);
}

std::optional<WormholeMessageObject> WormholeMessageObject::unarchive(
    const std::vector<std::uint8_t>& data, std::string& error) {
    auto envelope = Json::parse(data.begin(), data.end(), nullptr, false);
    if (envelope.is_discarded()) {
        error = "the message is not valid JSON (" + std::to_string(data.size()) + " bytes)";
        return std::nullopt;
    }
    if (!envelope.is_object() || !envelope.contains(kClassKey) ||
        !envelope[kClassKey].is_string() ||
        envelope[kClassKey].get_ref<const std::string&>().empty() || !envelope.contains(kRootKey) ||
        !envelope[kRootKey].is_object()) {
        error = "the message is not a keyed archive";
        return std::nullopt;
    }
    return WormholeMessageObject{envelope[kClassKey].get<std::string>(),
                                 std::move(envelope[kRootKey])};
}

}  // namespace lmkit
