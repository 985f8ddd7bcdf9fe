#include "lmkit/netinfo/VPNNetworkStatusMonitor.hpp"

#include <cstdlib>

#include <gtest/gtest.h>

#include "netinfo/FakeInterfaces.hpp"

using namespace lmkit;
using lmkit::testing::fakeEntry;
using lmkit::testing::fakeLinkEntry;

namespace {
VPNNetworkStatusMonitor monitorOf(std::vector<InterfaceAddress> entries,
                                  InterfaceNaming naming = InterfaceNaming::platformNames()) {
    return VPNNetworkStatusMonitor([entries] { return entries; }, naming);
}
}  // namespace

TEST(VPNNetworkStatusMonitor, WiFiTakesTheLastAddressButValidityFromAny) {
    auto monitor = monitorOf({fakeEntry("en0", "192.168.1.5"), fakeEntry("en0", "fe80::1"),
                              fakeLinkEntry("en0"), fakeEntry("lo0", "127.0.0.1")});
    auto info = monitor.getInterfaceInfo();
    EXPECT_EQ(info.wifiIp, "fe80::1");
    EXPECT_EQ(info.wifiIpV4, "192.168.1.5");
    EXPECT_EQ(info.wifiIpV6, "fe80::1");
    EXPECT_TRUE(info.WiFiValid);
    EXPECT_FALSE(info.WWANValid);
    EXPECT_FALSE(info.networkValid);
    EXPECT_FALSE(info.wwanIp);
    EXPECT_FALSE(monitor.networkValid());

    auto linkLocal = monitorOf({fakeEntry("en5", "169.254.10.3")}).getInterfaceInfo();
    EXPECT_EQ(linkLocal.wifiIp, "169.254.10.3");
    EXPECT_EQ(linkLocal.wifiIpV4, "169.254.10.3");
    EXPECT_FALSE(linkLocal.WiFiValid);
}

TEST(VPNNetworkStatusMonitor, LaterCellularEntriesOverwriteEvenWithNothing) {
    auto monitor =
        monitorOf({fakeEntry("pdp_ip0", "10.1.2.3"), fakeEntry("pdp_ip0", "2001:db8::1", false),
                   fakeEntry("pdp_ip1", "10.9.9.9")});
    auto info = monitor.getInterfaceInfo();
    EXPECT_EQ(info.wwanIp, std::nullopt);
    EXPECT_TRUE(info.WWANValid);
    EXPECT_FALSE(info.WiFiValid);
    EXPECT_TRUE(monitor.WWANValid());

    auto empty = monitorOf({}).getInterfaceInfo();
    EXPECT_FALSE(empty.WiFiValid || empty.WWANValid || empty.wifiIp || empty.wwanIp);
    VPNNetworkStatusMonitor unreadable([] { return std::nullopt; });
    EXPECT_FALSE(unreadable.WiFiValid());
}

TEST(VPNNetworkStatusMonitor, UsableAddressRules) {
    EXPECT_FALSE(VPNNetworkStatusMonitor::isValidIPAddress("", true));
    EXPECT_FALSE(VPNNetworkStatusMonitor::isValidIPAddress("0.0.0.0", true));
    EXPECT_FALSE(VPNNetworkStatusMonitor::isValidIPAddress("169.254.1.1", true));
    EXPECT_TRUE(VPNNetworkStatusMonitor::isValidIPAddress("10.0.0.1", true));
    EXPECT_FALSE(VPNNetworkStatusMonitor::isValidIPAddress("::", false));
    EXPECT_FALSE(VPNNetworkStatusMonitor::isValidIPAddress("fe80::abcd", false));
    EXPECT_FALSE(VPNNetworkStatusMonitor::isValidIPAddress("0:0:fe80::1", false));
    EXPECT_TRUE(VPNNetworkStatusMonitor::isValidIPAddress("2001:db8::1", false));
}

TEST(VPNNetworkStatusMonitor, LinuxNamesAreConfigurable) {
    std::vector<InterfaceAddress> entries{fakeEntry("wlan0", "192.168.1.9"),
                                          fakeEntry("wwan0", "10.20.30.40")};
    auto platform = monitorOf(entries).getInterfaceInfo();
    EXPECT_FALSE(platform.WiFiValid || platform.WWANValid);
    auto monitor = monitorOf(entries);
    monitor.setInterfaceNaming(InterfaceNaming::linuxNames());
    auto info = monitor.getInterfaceInfo();
    EXPECT_EQ(info.wifiIpV4, "192.168.1.9");
    EXPECT_EQ(info.wwanIp, "10.20.30.40");
    EXPECT_TRUE(info.WiFiValid && info.WWANValid);

    // The cellular interface that passes the check is the one a cellular socket binds to, be it
    // wwan0 or a modem's rmnet_data0; Wi-Fi is checked but names no interface.
    auto binding = monitor.bindingForInterfaceType(2);
    EXPECT_TRUE(binding.usable);
    EXPECT_EQ(binding.interfaceName, "wwan0");
    auto modem = monitorOf(
        {fakeEntry("rmnet_data0", "10.1.1.1", false), fakeEntry("rmnet_data1", "10.2.2.2")},
        InterfaceNaming::linuxNames());
    EXPECT_EQ(modem.bindingForInterfaceType(2).interfaceName, "rmnet_data1");
    EXPECT_TRUE(modem.bindingForInterfaceType(0).usable);
    EXPECT_FALSE(modem.bindingForInterfaceType(1).usable);
    EXPECT_FALSE(modem.bindingForInterfaceType(1).interfaceName);
    EXPECT_FALSE(monitorOf({}).bindingForInterfaceType(2).usable);

    setenv("LMKIT_INTERFACE_NAMING", "linux", 1);
    EXPECT_EQ(InterfaceNaming::fromEnvironment().cellularInterface(), "wwan0");
    unsetenv("LMKIT_INTERFACE_NAMING");
    EXPECT_EQ(InterfaceNaming::fromEnvironment().cellularInterface(), "pdp_ip0");
}
