#include "lmkit/models/BaseModel.hpp"

#include "lmkit/foundation/Log.hpp"

namespace lmkit {

const Json* BaseModel::valueOfOtherKind(std::string_view property) const {
    if (!otherKind_)
        return nullptr;
    auto it = otherKind_->find(property);
    return it == otherKind_->end() ? nullptr : &it->second;
}

const BaseModel::ValuesOfOtherKind& BaseModel::valuesOfOtherKind() const {
    static const ValuesOfOtherKind kNone;
    return otherKind_ ? *otherKind_ : kNone;
}

void BaseModel::holdValueOfOtherKind(std::string_view property, Json value) {
    if (!otherKind_)
        otherKind_ = std::make_unique<ValuesOfOtherKind>();
    auto it = otherKind_->find(property);
    if (it == otherKind_->end())
        otherKind_->emplace(std::string(property), std::move(value));
    else
        it->second = std::move(value);
}

void BaseModel::dropValueOfOtherKind(std::string_view property) {
    if (!otherKind_)
        return;
    if (auto it = otherKind_->find(property); it != otherKind_->end())
        otherKind_->erase(it);
}

}  // namespace lmkit

namespace lmkit::models_detail {

Error invalidInput(std::string description) {
    return Error::withDescription(kJSONAdapterErrorDomain, kJSONAdapterErrorInvalidJSONDictionary,
                                  std::move(description));
}

Error prefixed(std::string_view prefix, const Error& error) {
    return invalidInput(std::string(prefix) + ": " + error.localizedDescription());
}

std::string_view kindName(const Json& json) {
    switch (json.type()) {
        case Json::value_t::null:
            return "null";
        case Json::value_t::object:
            return "an object";
        case Json::value_t::array:
            return "an array";
        case Json::value_t::string:
            return "a string";
        case Json::value_t::boolean:
            return "a boolean";
        case Json::value_t::number_integer:
        case Json::value_t::number_unsigned:
        case Json::value_t::number_float:
            return "a number";
        default:
            return "a binary value";
    }
}

std::vector<std::string> splitKeyPath(std::string_view keyPath) {
    std::vector<std::string> parts;
    std::size_t start = 0;
    while (true) {
        auto dot = keyPath.find('.', start);
        parts.emplace_back(
            keyPath.substr(start, dot == std::string_view::npos ? dot : dot - start));
        if (dot == std::string_view::npos)
            break;
        start = dot + 1;
    }
    return parts;
}

void logEncodingFailure(const Error& error) {
    log::error("[MTLJSONSerializing] model to json map error: " + error.localizedDescription());
}

}  // namespace lmkit::models_detail
