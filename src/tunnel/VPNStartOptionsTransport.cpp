#include "lmkit/tunnel/VPNStartOptionsTransport.hpp"

#include "lmkit/foundation/Log.hpp"

namespace lmkit {

namespace {

constexpr const char* kDecodeFailure = "[VPNSimpleStartOptions] decode start options error: ";

Error invalid(std::string description) {
    return Error::withDescription(kJSONAdapterErrorDomain, kJSONAdapterErrorInvalidJSONDictionary,
                                  std::move(description));
}

}  // namespace

std::optional<std::string> VPNStartOptionsTransport::encode(const VPNStartOptions& options,
                                                            Error* error) {
    auto dictionary = options.toJSONDictionary();
    if (!dictionary) {
        if (error)
            *error = invalid("the start options have no JSON form");
        return std::nullopt;
    }
    try {
        return dictionary->dump();
    } catch (const std::exception& e) {
        if (error)
            *error = invalid(e.what());
    }
    return std::nullopt;
}

std::shared_ptr<VPNSimpleStartOptions> VPNStartOptionsTransport::decode(std::string_view text,
                                                                        Error* error) {
    Json dictionary = Json::parse(text.begin(), text.end(), nullptr, false);
    if (dictionary.is_discarded()) {
        Error failure = invalid("the start options are not a JSON document");
        log::error(kDecodeFailure + failure.localizedDescription(), log::Stream::Tunnel);
        if (error)
            *error = std::move(failure);
        return nullptr;
    }
    return decodeDictionary(dictionary, error);
}

std::shared_ptr<VPNSimpleStartOptions> VPNStartOptionsTransport::decodeDictionary(
    const Json& dictionary, Error* error) {
    Error failure;
    auto options = JSONAdapter::modelOfClass<VPNSimpleStartOptions>(dictionary, &failure);
    if (options)
        return options;
    log::error(kDecodeFailure + failure.localizedDescription(), log::Stream::Tunnel);
    if (error)
        *error = std::move(failure);
    return nullptr;
}

}  // namespace lmkit
