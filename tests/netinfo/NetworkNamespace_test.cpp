// test-labels: system concurrency
// Real interfaces named as on the phone (en0 for Wi-Fi, pdp_ip0 for cellular), made in a
// network namespace of this test process so nothing outside it changes.
#include <sched.h>

#include <atomic>

#include <gtest/gtest.h>

#include "lmkit/netinfo/NetworkInfoProvider.hpp"
#include "lmkit/netinfo/VPNNetworkStatusMonitor.hpp"
#include "lmkit/platform/NetworkChangeWatcher.hpp"
#include "lmkit/platform/NotificationCenter.hpp"
#include "lmkit/platform/UdpSocket.hpp"
#include "lmkit/testbed/EchoServer.hpp"
#include "support/DatagramRecorder.hpp"
#include "support/TestSupport.hpp"

using namespace lmkit;
using lmkit::testing::sh;
using lmkit::testing::waitFor;

namespace {

class NetworkNamespace : public ::testing::Test {
  protected:
    static void SetUpTestSuite() {
        ready_ = unshare(CLONE_NEWNET) == 0 && sh("ip link set lo up") &&
                 sh("ip link add en0 type veth peer name pdp_ip0") &&
                 sh("ip addr add 10.77.0.1/24 dev en0") &&
                 sh("ip addr add 10.77.0.2/24 dev pdp_ip0") && sh("ip link set en0 up") &&
                 sh("ip link set pdp_ip0 up");
    }
    void SetUp() override {
        if (!ready_)
            GTEST_SKIP() << "needs a network namespace with veth links (root)";
    }
    static inline bool ready_ = false;
};

}  // namespace

TEST_F(NetworkNamespace, TunnelMonitorSeesBothLinks) {
    ASSERT_TRUE(waitFor([] { return VPNNetworkStatusMonitor::sharedMonitor().WWANValid(); }));
    auto info = VPNNetworkStatusMonitor::sharedMonitor().getInterfaceInfo();
    EXPECT_TRUE(info.WiFiValid);
    EXPECT_EQ(info.wifiIpV4, "10.77.0.1");
    // pdp_ip0's last entry is its IPv6 link-local address once the link is up, or 10.77.0.2.
    EXPECT_TRUE(info.wwanIp.has_value());

    NetworkInfoProvider::Sources sources;
    sources.watchChanges = false;
    NetworkInfoProvider provider(sources);
    EXPECT_EQ(provider.getPrivateIPOnInterface(3, true), "10.77.0.2");
    EXPECT_EQ(provider.getPrivateIPOnInterface(2, true), "10.77.0.1");
    EXPECT_EQ(provider.currentNetworkType(), NetworkTypeWiFi);
}

TEST_F(NetworkNamespace, SocketBoundToCellularSendsFromItsAddress) {
    std::vector<EchoEndpointConfig> endpoints{{"10.77.0.1", 0, {}}};
    auto server = EchoServer::start(endpoints);
    ASSERT_TRUE(server);
    auto queue = DispatchQueue::serial("test.ns.cellular");
    auto recorder = std::make_shared<lmkit::testing::DatagramRecorder>(queue);
    auto socket = UdpSocket::create(recorder, queue);
    Error error;
    ASSERT_TRUE(socket->bindToPort(0, "pdp_ip0", &error)) << error.localizedDescription();
    ASSERT_TRUE(socket->beginReceiving(&error));
    socket->sendData(std::string_view("42"), "10.77.0.1", server->endpoints()[0].port, 0);
    ASSERT_TRUE(waitFor([&] { return recorder->count() > 0; }));
    EXPECT_EQ(recorder->received()[0].text, "42");
    EXPECT_EQ(recorder->received()[0].from.host, "10.77.0.1");
}

TEST_F(NetworkNamespace, LinkChangesAreWatchedAndPosted) {
    std::atomic<int> changes{0};
    auto watcher =
        NetworkChangeWatcher::start(DispatchQueue::serial("test.ns.watch"), [&] { ++changes; });
    ASSERT_TRUE(watcher);

    NotificationCenter center;
    std::atomic<int> lastPosted{-2};
    center.addObserver(
        NetworkInfoProvider::kNetworkStatusDidChangeNotification, [&](const Notification& n) {
            lastPosted = n.userInfo->at(NetworkInfoProvider::kCurrentNetworkTypeKey).get<int>();
        });
    NetworkInfoProvider::Sources sources;
    sources.notificationCenter = &center;
    NetworkInfoProvider provider(sources);
    ASSERT_EQ(provider.currentNetworkType(), NetworkTypeWiFi);

    // Only cellular left: the type becomes that of the radio technology.
    provider.networkInfo().setDataServiceIdentifier("1");
    provider.networkInfo().setServiceCurrentRadioAccessTechnology(
        {{"1", kRadioAccessTechnologyNR}});
    ASSERT_TRUE(sh("ip link set en0 down"));
    EXPECT_TRUE(waitFor([&] { return changes > 0; }));
    EXPECT_TRUE(waitFor([&] { return lastPosted == NetworkType5G; }));

    ASSERT_TRUE(sh("ip link set en0 up"));
    EXPECT_TRUE(waitFor([&] { return lastPosted == NetworkTypeWiFi; }));
    watcher->stop();
}
