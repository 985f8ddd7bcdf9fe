// Arbitrary bytes, read as JSON, through the start-options and QoS decoders: the tunnel and the
// app decode these from documents they do not control, so no input may crash or throw.
#include <cstddef>
#include <cstdint>

#include "lmkit/models/QosConfig.hpp"
#include "lmkit/models/VPNSimpleStartOptions.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    auto json = lmkit::Json::parse(data, data + size, nullptr, false);
    if (json.is_discarded())
        return 0;
    lmkit::Error error;
    if (auto options =
            lmkit::JSONAdapter::modelOfClass<lmkit::VPNSimpleStartOptions>(json, &error)) {
        (void)options->toJSONDictionary();
        (void)options->uniqueAcceleratedIpFromHosts();
        (void)options->matchDomainRegexOfBlacklist(std::string("ads.example.com"));
        if (options->socksInfos)
            for (const auto& relay : *options->socksInfos)
                if (relay)
                    (void)options->pickAccNodeFromSocksInfo(*relay);
        if (options->hosts)
            for (const auto& rule : *options->hosts)
                if (rule)
                    (void)rule->randomDestinationIP();
    }
    // A relay list on its own, as the tunnel re-reads relays it was handed later.
    if (json.is_object() && json.contains("socksInfos"))
        (void)lmkit::JSONAdapter::modelsOfClass<lmkit::SocksInfo>(json["socksInfos"]);
    if (auto qos = lmkit::JSONAdapter::modelOfClass<lmkit::QosConfig>(json, &error))
        (void)qos->toJSONDictionary();
    return 0;
}
