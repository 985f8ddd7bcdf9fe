#include <gtest/gtest.h>

#include "lmkit/netinfo/NetworkInfoProvider.hpp"
#include "lmkit/nodes/NodeSelector.hpp"

using namespace lmkit;

namespace {

std::shared_ptr<CarrierIPItem> item(std::vector<std::string> codes, std::string ip) {
    auto result = std::make_shared<CarrierIPItem>();
    result->carrierTypeCodes = std::move(codes);
    result->ip = std::move(ip);
    return result;
}

void setCarrier(std::optional<std::string> country, std::optional<std::string> network) {
    auto& telephony = NetworkInfoProvider::sharedProvider().networkInfo();
    CarrierInfo carrier;
    carrier.mobileCountryCode = std::move(country);
    carrier.mobileNetworkCode = std::move(network);
    telephony.setDataServiceIdentifier("0000000100000001");
    telephony.setServiceSubscriberCellularProviders({{"0000000100000001", carrier}});
}

}  // namespace

// One process, one order: the selector connects the carrier code before the shared provider is
// ever touched, so the test shows that creating a selector is enough.
TEST(CarrierAddress, TheSimsCarrierPicksTheNodesAddressForIt) {
    auto node = std::make_shared<AccNode>();
    node->ip = "203.0.113.1";
    node->carrierIp =
        std::vector{item({"46000", "46002"}, "198.51.100.2"), item({"46001"}, "198.51.100.3"),
                    item({"46001", "46011"}, "198.51.100.4")};
    // Without the network facts connected there is no carrier code at all.
    EXPECT_EQ(node->ipForCurrentCarrierTypeCode(), std::nullopt);

    auto selector = NodeSelector::create();
    // No SIM yet: no code, no carrier address.
    EXPECT_EQ(node->ipForCurrentCarrierTypeCode(), std::nullopt);

    setCarrier("460", "01");
    EXPECT_EQ(NetworkInfoProvider::sharedProvider().carrierTypeCode(), "46001");
    EXPECT_EQ(node->ipForCurrentCarrierTypeCode(), "198.51.100.3");  // first item listing it

    setCarrier("460", "02");
    EXPECT_EQ(node->ipForCurrentCarrierTypeCode(), "198.51.100.2");

    // A carrier the node has no address for, and the placeholder code, give none.
    setCarrier("310", "260");
    EXPECT_EQ(node->ipForCurrentCarrierTypeCode(), std::nullopt);
    setCarrier("460", "65535");
    EXPECT_EQ(node->ipForCurrentCarrierTypeCode(), std::nullopt);

    // Connecting again keeps the same source.
    NetworkInfoProvider::connectCarrierTypeCodeToNodes();
    setCarrier("460", "11");
    EXPECT_EQ(node->ipForCurrentCarrierTypeCode(), "198.51.100.4");
}
