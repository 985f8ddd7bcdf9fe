// Arbitrary bytes, read as JSON, through the start-options and QoS decoders: the tunnel and the
// app decode these from documents they do not control, so no input may crash or throw.
//
// The bytes are the start request's text, decoded exactly as the tunnel decodes it; the routing
// questions the tunnel asks for each flow are then put to the result. The same document, read
// as an acceleration answer, goes through the app's builder and back.
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "lmkit/foundation/Log.hpp"
#include "lmkit/models/QosConfig.hpp"
#include "lmkit/models/VPNSimpleStartOptions.hpp"
#include "lmkit/tunnel/RouteMatcher.hpp"
#include "lmkit/tunnel/VPNStartOptionsBuilder.hpp"
#include "lmkit/tunnel/VPNStartOptionsTransport.hpp"

namespace {

void askRoutingQuestions(const std::shared_ptr<lmkit::VPNSimpleStartOptions>& options) {
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

    lmkit::RouteMatcher matcher(options);
    for (const char* domain : {"ads.example.com", "CDN.apple.com.", "", "."}) {
        (void)matcher.isDomainBlacklisted(domain);
        (void)matcher.domainBanRule(domain);
        (void)matcher.hostRuleForDomain(domain);
        (void)matcher.routeDomainForDomain(domain);
    }
    for (const char* ip : {"10.0.0.77", "203.0.113.9", "0.0.0.0", "255.255.255.255"}) {
        auto address = *lmkit::RouteMatcher::parseIPv4(ip);
        for (std::uint64_t type = 0; type <= 5; ++type)
            (void)matcher.banRule(type, address, std::uint16_t{443});
        (void)matcher.hijack(address);
        (void)matcher.hijack(address, std::uint16_t{8050});
        (void)matcher.isAcceleratedHostAddress(ip);
        (void)matcher.relay(ip, std::uint16_t{30001});
    }
    (void)matcher.isBlackListPort(lmkit::RouteMatcher::kPortRangeUDP, 5000);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    // Rejected documents are logged; a run of millions must not write them all to disk.
    static const bool quiet = [] {
        lmkit::log::setFileLoggingEnabled(false);
        return true;
    }();
    (void)quiet;
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    lmkit::Error error;
    if (auto options = lmkit::VPNStartOptionsTransport::decode(text, &error))
        askRoutingQuestions(options);

    auto json = lmkit::Json::parse(data, data + size, nullptr, false);
    if (json.is_discarded())
        return 0;
    // A relay list on its own, as the tunnel re-reads relays it was handed later.
    if (json.is_object() && json.contains("socksInfos"))
        (void)lmkit::JSONAdapter::modelsOfClass<lmkit::SocksInfo>(json["socksInfos"]);
    if (auto qos = lmkit::JSONAdapter::modelOfClass<lmkit::QosConfig>(json, &error))
        (void)qos->toJSONDictionary();

    // The app's side: the document as an acceleration answer, built into start options with
    // all of its nodes, written and read back as the tunnel would.
    if (auto acc = lmkit::JSONAdapter::modelOfClass<lmkit::AccAPIResponseObject>(json)) {
        lmkit::VPNStartOptionsArguments args;
        args.acc = acc;
        if (acc->accNodes)
            args.accNodes = *acc->accNodes;
        if (acc->multipathNodes)
            args.multipathNodes = *acc->multipathNodes;
        args.enableGRP = true;
        if (auto built = lmkit::VPNStartOptionsBuilder::optionsWithGame(args, &error))
            if (auto request = lmkit::VPNStartOptionsTransport::encode(*built, &error))
                if (auto tunnel = lmkit::VPNStartOptionsTransport::decode(*request, &error))
                    askRoutingQuestions(tunnel);
    }
    return 0;
}
