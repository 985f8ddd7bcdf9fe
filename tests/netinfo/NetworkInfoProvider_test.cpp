// test-labels: concurrency
#include "lmkit/netinfo/NetworkInfoProvider.hpp"

#include <algorithm>
#include <mutex>

#include <gtest/gtest.h>

#include "lmkit/platform/NotificationCenter.hpp"
#include "netinfo/FakeInterfaces.hpp"
#include "support/TestSupport.hpp"

using namespace lmkit;
using lmkit::testing::fakeEntry;
using lmkit::testing::fakeLinkEntry;
using lmkit::testing::waitFor;

namespace {

struct Fixture {
    explicit Fixture(std::vector<InterfaceAddress> entries = {}, bool watch = false) {
        NetworkInfoProvider::Sources sources;
        sources.interfaces = [this] {
            std::lock_guard lock(mutex);
            return std::optional(list);
        };
        list = std::move(entries);
        sources.notificationCenter = &center;
        sources.watchChanges = watch;
        provider = std::make_unique<NetworkInfoProvider>(std::move(sources));
    }
    void setLTE(const std::string& code = "01",
                const std::string& technology = kRadioAccessTechnologyLTE) {
        auto& telephony = provider->networkInfo();
        CarrierInfo info;
        info.carrierName = "Carrier";
        info.mobileCountryCode = "460";
        info.mobileNetworkCode = code;
        telephony.setDataServiceIdentifier("0000000100000001");
        telephony.setServiceSubscriberCellularProviders({{"0000000100000001", info}});
        telephony.setServiceCurrentRadioAccessTechnology({{"0000000100000001", technology}});
    }
    std::mutex mutex;
    std::vector<InterfaceAddress> list;
    NotificationCenter center;
    std::unique_ptr<NetworkInfoProvider> provider;
};

}  // namespace

TEST(NetworkInfoProvider, RadioTechnologyGivesTheNetworkType) {
    Fixture f;
    auto& p = *f.provider;
    EXPECT_EQ(p.networkType(kRadioAccessTechnologyEdge), 2);
    EXPECT_EQ(p.networkType(kRadioAccessTechnologyHSUPA), 3);
    EXPECT_EQ(p.networkType(kRadioAccessTechnologyLTE), 4);
    EXPECT_EQ(p.networkType(kRadioAccessTechnologyNRNSA), 5);
    EXPECT_EQ(p.networkType(std::string("LTE")), -1);
    EXPECT_EQ(p.networkType(std::nullopt), -1);
    p.networkInfo().setSystemVersion({14, 0});
    EXPECT_EQ(p.networkType(kRadioAccessTechnologyNR), -1);
    p.networkInfo().setSystemVersion({14, 1});
    EXPECT_EQ(p.networkType(kRadioAccessTechnologyNR), 5);

    EXPECT_EQ(NetworkInfoProvider::getNetworkTypeStringWithType(0), "(unknown)");
    EXPECT_EQ(NetworkInfoProvider::getNetworkTypeStringWithType(-1), "(unknown)");
    EXPECT_EQ(NetworkInfoProvider::getNetworkTypeStringWithType(1), "WIFI");
    EXPECT_EQ(NetworkInfoProvider::getNetworkTypeStringWithType(5), "5G");
    EXPECT_EQ(NetworkInfoProvider::getNetworkTypeStringWithType(6), std::nullopt);
    EXPECT_EQ(NetworkInfoProvider::interfaceTypeStringWithType(3), "pdp_ip0");
    EXPECT_EQ(NetworkInfoProvider::interfaceTypeStringWithType(4), std::nullopt);
}

TEST(NetworkInfoProvider, CarrierComesFromTheDataServiceProvider) {
    Fixture f;
    auto& p = *f.provider;
    EXPECT_EQ(p.carrier(), CarrierUnknown);
    EXPECT_EQ(p.carrierNameString(), "Unknown");
    EXPECT_EQ(p.carrierTypeCode(), std::nullopt);

    f.setLTE("11");
    EXPECT_EQ(p.carrier(), CarrierTelecom);
    EXPECT_EQ(p.carrierNameString(), "Telecom");
    EXPECT_EQ(p.carrierTypeCode(), "46011");
    EXPECT_EQ(p.carrierName(), "Carrier");
    EXPECT_EQ(p.currentRadioAccessTechnology(), kRadioAccessTechnologyLTE);
    EXPECT_EQ(p.currentNetworkFormatString(), "4G");
    f.setLTE("08");
    EXPECT_EQ(p.carrierNameString(), "Mobile");
    f.setLTE("65535");
    EXPECT_EQ(p.mobileNetworkCode(), std::nullopt);
    EXPECT_EQ(p.carrier(), CarrierUnknown);
    EXPECT_EQ(p.carrierTypeCode(), std::nullopt);

    // Before 13.0 the single provider and the table's first technology answer instead.
    p.networkInfo().setSystemVersion({12, 4});
    EXPECT_EQ(p.carrierName(), std::nullopt);
    CarrierInfo old;
    old.mobileNetworkCode = "06";
    p.networkInfo().setSubscriberCellularProvider(old);
    p.networkInfo().setDataServiceIdentifier(std::nullopt);
    EXPECT_EQ(p.carrierNameString(), "Unicom");
    EXPECT_EQ(p.currentRadioAccessTechnology(), kRadioAccessTechnologyLTE);
    p.networkInfo().setServiceCurrentRadioAccessTechnology({});
    EXPECT_EQ(p.currentRadioAccessTechnology(), std::nullopt);
}

TEST(NetworkInfoProvider, InterfacesAreGroupedAndTheLastIPv4Wins) {
    Fixture f({fakeEntry("en0", "192.168.1.5"), fakeEntry("en0", "fe80::1"), fakeLinkEntry("en0"),
               fakeEntry("pdp_ip0", "10.1.1.1"), fakeEntry("pdp_ip0", "10.2.2.2"),
               fakeEntry("lo0", "127.0.0.1"), fakeEntry("utun3", "10.8.0.1")});
    auto& p = *f.provider;
    auto infos = p.interfaceInfos();
    ASSERT_EQ(infos.size(), 2u);
    auto en0 = std::find_if(infos.begin(), infos.end(), [](auto& i) { return i.name == "en0"; });
    ASSERT_NE(en0, infos.end());
    EXPECT_EQ(en0->ipAddresses, (std::set<std::string>{"192.168.1.5", "fe80::1"}));

    EXPECT_EQ(p.getPrivateIPOnInterface(3, true), "10.2.2.2");
    EXPECT_EQ(p.getPrivateIPOnInterface(2, true), "192.168.1.5");
    EXPECT_EQ(p.getPrivateIPOnInterface(0, true), "127.0.0.1");
    EXPECT_EQ(p.getPrivateIPOnInterface(1, true), std::nullopt);
    // IPv6 entries are read where an IPv4 address would sit: their flow information.
    EXPECT_EQ(p.getPrivateIPOnInterface(2, false), "1.2.3.4");
}

TEST(NetworkInfoProvider, CurrentWiFiIsTheFirstInterfaceWithInformation) {
    Fixture f;
    auto& p = *f.provider;
    EXPECT_EQ(p.wifiSSIDInfo(), std::nullopt);
    p.captiveNetwork().setCurrentNetworkInfo("en0", {});
    p.captiveNetwork().setCurrentNetworkInfo("en1", {{"SSID", "Cafe"}, {"BSSID", "0:1:2:3:4:5"}});
    auto info = p.wifiSSIDInfo();
    ASSERT_TRUE(info);
    EXPECT_EQ(info->ssid, "Cafe");
    EXPECT_EQ(info->bssid, "0:1:2:3:4:5");
}

TEST(NetworkInfoProvider, NetworkTypeFollowsReachabilityAndChangesArePosted) {
    Fixture f({fakeEntry("pdp_ip0", "10.1.1.1")}, true);
    auto& p = *f.provider;
    f.setLTE();
    EXPECT_EQ(p.currentNetworkType(), NetworkType4G);
    EXPECT_TRUE(p.currentNetworkIsMobileNetwork());
    EXPECT_EQ(p.lastNetworkType(), -1);  // no radio technology was known at creation

    std::mutex mutex;
    std::vector<nlohmann::ordered_json> posted;
    f.center.addObserver(NetworkInfoProvider::kNetworkStatusDidChangeNotification,
                         [&](const Notification& n) {
                             std::lock_guard lock(mutex);
                             posted.push_back(n.userInfo.value_or(nullptr));
                         });
    auto count = [&] {
        std::lock_guard lock(mutex);
        return posted.size();
    };
    p.reachability().setFlags(Reachability::kFlagReachable);
    ASSERT_TRUE(waitFor([&] { return count() == 1; }));
    p.reachability().setFlags(0);
    ASSERT_TRUE(waitFor([&] { return count() == 2; }));
    {
        std::lock_guard lock(mutex);
        EXPECT_EQ(posted[0][NetworkInfoProvider::kCurrentNetworkTypeKey], NetworkTypeWiFi);
        EXPECT_EQ(posted[0][NetworkInfoProvider::kLastNetworkTypeKey], -1);
        EXPECT_EQ(posted[1][NetworkInfoProvider::kCurrentNetworkTypeKey], NetworkTypeNone);
        EXPECT_EQ(posted[1][NetworkInfoProvider::kLastNetworkTypeKey], NetworkTypeWiFi);
    }
    EXPECT_EQ(p.currentNetworkType(), NetworkTypeNone);
    EXPECT_FALSE(p.currentNetworkIsMobileNetwork());

    // Reading the interfaces again: only a cellular link is up.
    p.reachability().setFlags(std::nullopt);
    ASSERT_TRUE(waitFor([&] { return count() == 3; }));
    std::lock_guard lock(mutex);
    EXPECT_EQ(posted[2][NetworkInfoProvider::kCurrentNetworkTypeKey], NetworkType4G);
}
