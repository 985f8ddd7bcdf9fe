// test-labels: system concurrency
// A selector bound to cellular or Wi-Fi over real links named as on the phone. The phone is a
// network namespace of this test process with en0 and pdp_ip0; each is one end of a veth pair
// whose other end lies in a second namespace, the networks beyond, where the echo service
// listens on 10.78.9.1. Both links reach it; the default route prefers en0, as a phone prefers
// Wi-Fi. Nothing outside the test process changes.
#include <sched.h>
#include <unistd.h>

#include <atomic>
#include <fstream>
#include <mutex>
#include <sstream>
#include <thread>

#include <gtest/gtest.h>

#include "lmkit/nodes/NodeSelector.hpp"
#include "lmkit/testbed/EchoServer.hpp"
#include "support/TestSupport.hpp"

using namespace lmkit;
using lmkit::testing::sh;
using lmkit::testing::waitFor;

namespace {

// Packets sent by `interface`, from this namespace's /proc/net/dev (/sys shows the namespace it
// was mounted in); -1 when the interface is not listed.
long txPackets(const std::string& interface) {
    std::ifstream in("/proc/self/net/dev");
    std::string line;
    while (std::getline(in, line)) {
        auto colon = line.find(':');
        if (colon == std::string::npos)
            continue;
        std::string name = line.substr(0, colon);
        name.erase(0, name.find_first_not_of(' '));
        if (name != interface)
            continue;
        std::istringstream fields(line.substr(colon + 1));
        long value = -1;
        for (int i = 0; i < 10 && fields >> value; ++i) {
        }
        return value;  // receive: 8 figures, then sent bytes and sent packets
    }
    return -1;
}

constexpr const char* kEchoAddress = "10.78.9.1";

class SelectorBinding : public ::testing::Test {
  protected:
    static void SetUpTestSuite() {
        // Before any thread of the kit exists: threads made later share this namespace.
        if (unshare(CLONE_NEWNET) != 0 || !sh("ip link set lo up"))
            return;
        // One thread enters the namespace of the networks beyond; the commands it runs and the
        // echo service it starts (with its thread) stay there.
        bool beyond = false;
        const std::string phone = std::to_string(getpid());
        std::thread network([&] {
            beyond = unshare(CLONE_NEWNET) == 0 && sh("ip link set lo up") &&
                     sh(std::string("ip addr add ") + kEchoAddress + "/32 dev lo") &&
                     sh("ip link add en0 type veth peer name wifi-side") &&
                     sh("ip link add pdp_ip0 type veth peer name cell-side") &&
                     sh("ip addr add 10.78.1.1/24 dev wifi-side") &&
                     sh("ip addr add 10.78.2.1/24 dev cell-side") &&
                     sh("ip link set wifi-side up") && sh("ip link set cell-side up") &&
                     sh("ip link set en0 netns " + phone) &&
                     sh("ip link set pdp_ip0 netns " + phone);
            if (beyond)
                echo_ = EchoServer::start({EchoEndpointConfig{kEchoAddress, 0, {}}}).release();
        });
        network.join();
        ready_ = beyond && echo_ && sh("ip addr add 10.78.1.2/24 dev en0") &&
                 sh("ip addr add 10.78.2.2/24 dev pdp_ip0") &&
                 // No IPv6 chatter on the links: what leaves them is the probes (and their ARP).
                 sh("echo 1 > /proc/sys/net/ipv6/conf/en0/disable_ipv6") &&
                 sh("echo 1 > /proc/sys/net/ipv6/conf/pdp_ip0/disable_ipv6") &&
                 sh("ip link set en0 up") && sh("ip link set pdp_ip0 up") &&
                 sh("ip route add default via 10.78.1.1 dev en0 metric 100") &&
                 sh("ip route add default via 10.78.2.1 dev pdp_ip0 metric 200");
    }
    static void TearDownTestSuite() {
        delete echo_;
        echo_ = nullptr;
    }
    void SetUp() override {
        if (!ready_)
            GTEST_SKIP() << "needs network namespaces with veth links (root)";
    }
    static inline bool ready_ = false;
    static inline EchoServer* echo_ = nullptr;
};

// One run of a selector bound to `type` against the echo service; the packets each link sent
// meanwhile. A server's probes leave back to back, and a link that takes segmentation offload
// counts them as one packet.
struct Probed {
    int successes = 0;
    int failures = 0;
    double loss = -1;
    long viaWiFi = 0;
    long viaCellular = 0;
};

Probed probeEcho(long type, uint16_t port) {
    auto selector = NodeSelector::create(type, 0.5, 4, DispatchQueue::serial("test.binding"));
    selector->setPort(port);
    auto node = std::make_shared<AccNode>();
    node->ip = kEchoAddress;
    std::mutex mutex;
    Probed probed;
    std::atomic<int> reports{0};
    const long wifiBefore = txPackets("en0"), cellularBefore = txPackets("pdp_ip0");
    selector->pickBestNodeFromNodes(
        {node}, AccConfig::defaultConfig(), NodeSelector::kDelayModeAvg,
        [&](const NodeSelector::Nodes&, double, double loss, double) {
            std::lock_guard guard(mutex);
            probed.loss = loss;
            ++probed.successes;
            ++reports;
        },
        [&](const Error&) {
            std::lock_guard guard(mutex);
            ++probed.failures;
            ++reports;
        });
    waitFor([&] { return reports > 0; }, 10);
    selector->stop();
    std::lock_guard guard(mutex);
    probed.viaWiFi = txPackets("en0") - wifiBefore;
    probed.viaCellular = txPackets("pdp_ip0") - cellularBefore;
    return probed;
}

}  // namespace

TEST_F(SelectorBinding, CellularSelectorProbesThroughPdpIp0) {
    const uint16_t port = echo_->endpoints()[0].port;
    // Unbound, the probes follow the default route: Wi-Fi.
    auto any = probeEcho(NodeSelector::kInterfaceAny, port);
    ASSERT_EQ(any.successes, 1);
    EXPECT_GE(any.viaWiFi, 1);
    EXPECT_EQ(any.viaCellular, 0);

    // Bound to cellular, they leave through pdp_ip0 although the default route is Wi-Fi's.
    auto cellular = probeEcho(NodeSelector::kInterfaceCellular, port);
    ASSERT_EQ(cellular.successes, 1);
    EXPECT_EQ(cellular.loss, 0);
    EXPECT_GE(cellular.viaCellular, 1);
    EXPECT_EQ(cellular.viaWiFi, 0);

    // Wi-Fi is checked but not pinned: its probes take the default route, which is Wi-Fi's.
    auto wifi = probeEcho(NodeSelector::kInterfaceWiFi, port);
    ASSERT_EQ(wifi.successes, 1);
    EXPECT_GE(wifi.viaWiFi, 1);
    EXPECT_EQ(wifi.viaCellular, 0);
}

TEST_F(SelectorBinding, ADownInterfaceRefusesToBind) {
    struct Case {
        long type;
        const char* link;
        const char* route;
        const char* text;
    };
    for (const Case& c :
         {Case{NodeSelector::kInterfaceCellular, "pdp_ip0",
               "default via 10.78.2.1 dev pdp_ip0 metric 200",
               "wwan interface(pdp_ip0) is not up, do not bind."},
          Case{NodeSelector::kInterfaceWiFi, "en0", "default via 10.78.1.1 dev en0 metric 100",
               "wifi interface is not up, do not bind."}}) {
        SCOPED_TRACE(c.link);
        ASSERT_TRUE(sh(std::string("ip link set ") + c.link + " down"));
        auto selector = NodeSelector::create(c.type, 0.3, 2);
        EXPECT_FALSE(selector->isInterfaceUp());
        std::optional<Error> error;
        EXPECT_FALSE(selector->createUdpSocketIfHasError(&error));
        ASSERT_TRUE(error);
        EXPECT_EQ(error->domain, "NodeSelectorErrorDomain");
        EXPECT_EQ(error->code, 4);
        EXPECT_EQ(error->localizedDescription(), c.text);
        EXPECT_EQ(selector->udpSocket(), nullptr);

        // A run on it fails at the socket (code 1) and keeps the interface's text.
        auto node = std::make_shared<AccNode>();
        node->ip = kEchoAddress;
        selector->pickBestNodeFromNodes({node}, AccConfig::defaultConfig(), 0, nullptr, nullptr);
        ASSERT_TRUE(waitFor([&] { return selector->error().has_value(); }));
        EXPECT_EQ(selector->error()->code, 1);
        EXPECT_EQ(selector->error()->localizedDescription(), c.text);

        // Up again (the link's route went with it), the same selector binds.
        ASSERT_TRUE(sh(std::string("ip link set ") + c.link + " up") &&
                    sh(std::string("ip route replace ") + c.route));
        EXPECT_TRUE(waitFor([&] { return selector->isInterfaceUp(); }));
        EXPECT_TRUE(selector->createUdpSocketIfHasError(&error));
    }
}
