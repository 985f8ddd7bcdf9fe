// test-labels: system concurrency
// Real interfaces named as on the phone (en0 for Wi-Fi, pdp_ip0 for cellular), made in a
// network namespace of this test process so nothing outside it changes.
#include <sched.h>

#include <atomic>
#include <mutex>

#include <gtest/gtest.h>

#include "lmkit/netinfo/NetworkInfoProvider.hpp"
#include "lmkit/netinfo/VPNNetworkStatusMonitor.hpp"
#include "lmkit/testbed/EchoServer.hpp"
#include "lmkit/platform/NetworkChangeWatcher.hpp"
#include "lmkit/platform/NotificationCenter.hpp"
#include "lmkit/platform/UdpSocket.hpp"
#include "support/TestSupport.hpp"

using namespace lmkit;
using lmkit::testing::runCommand;
using lmkit::testing::waitFor;

namespace {

bool sh(const std::string& command) {
    int status = 0;
    runCommand(command + " 2>&1", &status);
    return status == 0;
}

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

class Collector : public UdpSocketDelegate {
  public:
    void udpSocketDidReceiveData(UdpSocket&, const Datagram& datagram) override {
        const auto& data = datagram.data;
        const auto& from = datagram.source;
        std::lock_guard lock(mutex);
        replies.emplace_back(std::string(data.begin(), data.end()), from.host);
    }
    std::mutex mutex;
    std::vector<std::pair<std::string, std::string>> replies;
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
    auto collector = std::make_shared<Collector>();
    auto socket = UdpSocket::create(collector, DispatchQueue::serial("test.ns.cellular"));
    Error error;
    ASSERT_TRUE(socket->bindToPort(0, "pdp_ip0", &error)) << error.localizedDescription();
    ASSERT_TRUE(socket->beginReceiving(&error));
    socket->sendData(std::string_view("42"), "10.77.0.1", server->endpoints()[0].port, 0);
    ASSERT_TRUE(waitFor([&] {
        std::lock_guard lock(collector->mutex);
        return !collector->replies.empty();
    }));
    std::lock_guard lock(collector->mutex);
    EXPECT_EQ(collector->replies[0], (std::pair<std::string, std::string>{"42", "10.77.0.1"}));
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
