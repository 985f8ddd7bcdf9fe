// test-labels: concurrency
#include "lmkit/tunnel/WormholeManager.hpp"

#include <fstream>
#include <mutex>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "lmkit/foundation/Log.hpp"
#include "platform/WormholeFileName.hpp"
#include "support/TestSupport.hpp"

using namespace lmkit;
using lmkit::testing::TempDir;
using lmkit::testing::waitFor;

namespace {

// What one kind of handler received, readable from the test thread.
template <class T>
struct Inbox {
    std::mutex mutex;
    std::vector<T> items;

    void add(T item) {
        std::lock_guard lock(mutex);
        items.push_back(std::move(item));
    }
    std::size_t size() {
        std::lock_guard lock(mutex);
        return items.size();
    }
    std::vector<T> snapshot() {
        std::lock_guard lock(mutex);
        return items;
    }
};

class WormholeManagerTest : public ::testing::Test {
  protected:
    TempDir dir_;  // first: the managers below live in it
    // The two sides of the channel, each with its own carrier over one container, as the app
    // and the tunnel have.
    std::shared_ptr<WormholeManager> app_ = WormholeManager::create(dir_.path());
    std::shared_ptr<WormholeManager> tunnel_ = WormholeManager::create(dir_.path());

    // Network changes serve as a marker: the channel delivers in arrival order, so once a
    // marker sent after some message has arrived, that message has been handled too.
    Inbox<int> markers_;
    void SetUp() override {
        app_->listenForMessageOfNetworkChange([this] { markers_.add(0); });
    }
    void sendMarkerAndWait() {
        auto before = markers_.size();
        tunnel_->passMessageForNetworkChange();
        ASSERT_TRUE(waitFor([&] { return markers_.size() > before; }));
    }
};

double numberOf(const std::optional<Number>& number) {
    return number ? number->doubleValue() : -1;
}

}  // namespace

TEST_F(WormholeManagerTest, EachKindTravelsToTheOtherSide) {
    Inbox<std::pair<std::string, std::string>> statuses;
    Inbox<std::shared_ptr<SocksInfo>> nodes;
    Inbox<std::shared_ptr<VPNMessageDelayQuery>> delayQueries;
    Inbox<std::shared_ptr<VPNMessageLossQuery>> lossQueries;
    app_->listenForMessageOfTunnel([&](const std::string& message, const std::string& error) {
        statuses.add({message, error});
    });
    app_->listenForMessageOfPickedNode([&](auto node) { nodes.add(node); });
    tunnel_->listenForMessageOfDelayQuery([&](auto query) { delayQueries.add(query); });
    tunnel_->listenForMessageOfLossQuery([&](auto query) { lossQueries.add(query); });

    tunnel_->passMessageForTunnel("connected", std::nullopt);
    ASSERT_TRUE(waitFor([&] { return statuses.size() == 1; }));
    tunnel_->passMessageForTunnel(std::nullopt, std::nullopt);
    ASSERT_TRUE(waitFor([&] { return statuses.size() == 2; }));
    EXPECT_EQ(statuses.snapshot()[0], (std::pair<std::string, std::string>{"connected", ""}));
    EXPECT_EQ(statuses.snapshot()[1], (std::pair<std::string, std::string>{"", ""}));

    SocksInfo relay("10.1.2.3", Number(443));
    relay.token = "t";
    tunnel_->passMessageForPickedNode(relay);
    ASSERT_TRUE(waitFor([&] { return nodes.size() == 1; }));
    EXPECT_EQ(nodes.snapshot()[0]->identifier(), "10.1.2.3:443");
    EXPECT_EQ(nodes.snapshot()[0]->token, "t");

    app_->passMessageForDelayQuery(VPNMessageDelayQuery("g1", Number(20)), nullptr);
    app_->passMessageForLossQuery(VPNMessageLossQuery("g2"), nullptr);
    ASSERT_TRUE(waitFor([&] { return delayQueries.size() == 1 && lossQueries.size() == 1; }));
    EXPECT_EQ(delayQueries.snapshot()[0]->gid, "g1");
    EXPECT_EQ(numberOf(delayQueries.snapshot()[0]->latestLimitCount), 20);
    EXPECT_EQ(lossQueries.snapshot()[0]->gid, "g2");

    // The stored objects are keyed archives: a process started now reads them by identifier.
    auto stored = WormholeManager::create(dir_.path())->messageWithCmd(kWormholeCmdTunnel);
    ASSERT_TRUE(stored);
    EXPECT_TRUE(stored->isDictionary());
    EXPECT_EQ(stored->root, (Json{{"WormholeTunnelMsgKey", ""}, {"WormholeTunnelErrorKey", ""}}));
    auto query = WormholeManager::create(dir_.path())->messageWithCmd(kWormholeCmdDelayQuery);
    ASSERT_TRUE(query);
    EXPECT_EQ(query->className, "VPNMessageDelayQuery");
}

TEST_F(WormholeManagerTest, AnswersGoToTheStoredQueryCallbackUntilTheNextQuery) {
    Inbox<double> handled, first, second;
    Inbox<double> lossHandled, lossAnswers;
    app_->listenForMessageOfDelayResponse(
        [&](auto response) { handled.add(numberOf(response->delaysAfter->front())); });
    app_->listenForMessageOfLossResponse(
        [&](auto response) { lossHandled.add(numberOf(response->lossAfter)); });
    auto answer = [&](double delay) {
        VPNMessageDelayResponse response;
        response.delaysBefore = std::vector<Number>{Number(100)};
        response.delaysAfter = std::vector<Number>{Number(delay)};
        tunnel_->passMessageForDelayResponse(response);
        sendMarkerAndWait();
    };

    answer(1);  // no query yet: the listen handler has it
    app_->passMessageForDelayQuery(VPNMessageDelayQuery("g", Number(5)), [&](auto response) {
        first.add(numberOf(response->delaysAfter->front()));
    });
    answer(2);
    answer(3);  // the callback stays stored after use
    app_->passMessageForDelayQuery(VPNMessageDelayQuery("g", Number(5)), [&](auto response) {
        second.add(numberOf(response->delaysAfter->front()));
    });
    answer(4);
    EXPECT_EQ(handled.snapshot(), std::vector<double>{1});
    EXPECT_EQ(first.snapshot(), (std::vector<double>{2, 3}));
    EXPECT_EQ(second.snapshot(), std::vector<double>{4});

    tunnel_->passMessageForLossResponse(VPNMessageLossResponse(Number(0.5), Number(0.1)));
    sendMarkerAndWait();
    app_->passMessageForLossQuery(VPNMessageLossQuery("g"), [&](auto response) {
        lossAnswers.add(numberOf(response->lossAfter));
    });
    tunnel_->passMessageForLossResponse(VPNMessageLossResponse(Number(0.5), Number(0.2)));
    tunnel_->passMessageForLossResponse(VPNMessageLossResponse(Number(0.5), Number(0.3)));
    ASSERT_TRUE(waitFor([&] {
        auto got = lossAnswers.snapshot();
        return !got.empty() && got.back() == 0.3;
    }));
    EXPECT_EQ(lossHandled.snapshot(), std::vector<double>{0.1});

    // Answers reach the stored callback even when nobody listened for them: the manager listens
    // for both answer kinds from the start.
    auto fresh = WormholeManager::create(dir_.path());
    Inbox<double> direct;
    fresh->passMessageForDelayQuery(VPNMessageDelayQuery("g", Number(1)), [&](auto response) {
        direct.add(numberOf(response->delaysAfter->front()));
    });
    answer(5);
    ASSERT_TRUE(waitFor([&] { return direct.size() == 1; }));
    EXPECT_EQ(direct.snapshot()[0], 5);
}

TEST_F(WormholeManagerTest, ObjectsOfTheWrongClassAndUnreadableFilesAreDropped) {
    Inbox<std::shared_ptr<SocksInfo>> nodes;
    Inbox<std::pair<std::string, std::string>> statuses;
    app_->listenForMessageOfPickedNode([&](auto node) { nodes.add(node); });
    app_->listenForMessageOfTunnel([&](const std::string& message, const std::string& error) {
        statuses.add({message, error});
    });

    // A dictionary where a relay belongs, a relay where a dictionary belongs.
    tunnel_->executeCmd(kWormholeCmdPickedNode,
                        WormholeMessageObject::dictionary({{"ip", "1.1.1.1"}, {"port", 1}}));
    std::string error;
    tunnel_->executeCmd(kWormholeCmdTunnel,
                        *WormholeMessageObject::record(SocksInfo("1.1.1.1", Number(1)), error));
    sendMarkerAndWait();

    // Files that another writer left half-written, never archived, or archived wrongly, under a
    // name the channel takes for a picked-node message. Written in place, one at a time.
    log::Capture capture;
    const std::string contents[] = {
        std::string("\x00\xff\xfe garbage", 11),
        R"({"class":"SocksInfo","root":{"ip":"10.)",
        R"({"class":"SocksInfo","root":[1,2]})",
        R"({"root":{"ip":"10.0.0.1"}})",
        R"({"class":"VPNMessageLossQuery","root":{"gid":"1"}})",
        "",
    };
    // Newer than the dictionary above, which the channel has delivered already.
    std::uint64_t sequence = 1'000'000;
    for (const auto& content : contents) {
        auto name =
            wormhole_detail::formatMessageFileName({kWormholeCmdPickedNode, ++sequence, 1, {}});
        std::ofstream(dir_.path() / kWormholeDirectoryName / name, std::ios::binary) << content;
        sendMarkerAndWait();
    }
    EXPECT_EQ(nodes.size(), 0u);
    EXPECT_EQ(statuses.size(), 0u);
    // What does not unarchive is moved aside by the carrier, so that an older real message
    // stays the newest; an object of the wrong class is a message, dropped silently.
    EXPECT_EQ(capture.count("[Wormhole] moved aside the unreadable message file "
                            "WormholeCmdPickedNode"),
              5u);

    // The channel still works, and the stored garbage does not hide the newest real message.
    tunnel_->passMessageForPickedNode(SocksInfo("10.0.0.9", Number(8080)));
    ASSERT_TRUE(waitFor([&] { return nodes.size() == 1; }));
    EXPECT_EQ(nodes.snapshot()[0]->identifier(), "10.0.0.9:8080");
    auto stored = app_->messageWithCmd(kWormholeCmdPickedNode);
    ASSERT_TRUE(stored);
    EXPECT_EQ(stored->root["ip"], "10.0.0.9");
}

TEST_F(WormholeManagerTest, ObjectsThatCannotBeArchivedAreNotSent) {
    log::Capture capture;
    EXPECT_FALSE(app_->executeCmd("Custom", WormholeMessageObject::dictionary(Json::array())));
    EXPECT_FALSE(app_->executeCmd("Custom", WormholeMessageObject{"", Json::object()}));
    EXPECT_FALSE(app_->executeCmd("../Custom", WormholeMessageObject::dictionary({})));
    EXPECT_EQ(capture.count("[Wormhole] cannot"), 3u);
    EXPECT_FALSE(app_->messageWithCmd("Custom"));
}
