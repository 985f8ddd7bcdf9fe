#include <gtest/gtest.h>

#include <set>

#include "lmkit/foundation/Log.hpp"
#include "lmkit/foundation/UserDefaults.hpp"
#include "lmkit/nodes/AccScoreCalculator.hpp"
#include "lmkit/nodes/NodeSelector.hpp"
#include "lmkit/nodes/ShareStorer.hpp"
#include "support/TestSupport.hpp"

using namespace lmkit;
using Nodes = NodeSelector::Nodes;

namespace {

std::shared_ptr<AccNode> scored(const std::string& ip, double score) {
    auto node = std::make_shared<AccNode>();
    node->ip = ip;
    node->delayScore = score;
    return node;
}

std::vector<double> scoresOf(const Nodes& nodes) {
    std::vector<double> scores;
    for (const auto& node : nodes)
        scores.push_back(node->score());
    return scores;
}

}  // namespace

TEST(NodeChoice, MultipathKeepsEveryNodeByScore) {
    Nodes nodes{scored("a", 10), scored("b", 30), scored("c", 20), scored("a", 0)};
    auto chosen = NodeSelector::chooseBestNodes(nodes, NodeSelector::kModeTestMultipath, 15);
    EXPECT_EQ(scoresOf(chosen), (std::vector<double>{30, 20, 10, 0}));
}

TEST(NodeChoice, BucketsKeepOneNodePerScoreAndAddress) {
    std::set<std::string> firstSeen;
    for (int trial = 0; trial < 200; ++trial) {
        Nodes nodes{scored("a", 50), scored("b", 50), scored("c", 40), scored("d", 0)};
        auto chosen = NodeSelector::chooseBestNodes(nodes, NodeSelector::kModeBestNode, {});
        ASSERT_EQ(scoresOf(chosen), (std::vector<double>{50, 40}));
        EXPECT_EQ(chosen[1]->ip, "c");
        firstSeen.insert(*chosen[0]->ip);
    }
    EXPECT_EQ(firstSeen, (std::set<std::string>{"a", "b"}));

    // One bucket: shuffled, then one node per address.
    Nodes same{scored("x", 70), scored("x", 70), scored("y", 70)};
    auto chosen = NodeSelector::chooseBestNodes(same, NodeSelector::kModeBestNode, {});
    ASSERT_EQ(chosen.size(), 2u);
    EXPECT_NE(chosen[0]->ip, chosen[1]->ip);
    // Two buckets whose random picks share an address: the lower one is dropped.
    Nodes shared{scored("x", 90), scored("x", 80)};
    EXPECT_EQ(NodeSelector::chooseBestNodes(shared, NodeSelector::kModeTestPing, {}).size(), 1u);

    Nodes zeros{scored("a", 0), scored("b", 0)};
    EXPECT_TRUE(NodeSelector::chooseBestNodes(zeros, NodeSelector::kModeBestNode, 10).empty());
    EXPECT_EQ(
        NodeSelector::chooseBestNodes({scored("a", 5)}, NodeSelector::kModeBestNode, {}).size(),
        1u);
}

TEST(NodeChoice, ScoreGapShufflesOnlyNearEqualNodes) {
    std::set<std::vector<double>> orders;
    for (int trial = 0; trial < 200; ++trial) {
        Nodes nodes{scored("a", 100), scored("b", 90), scored("c", 80)};
        auto chosen = NodeSelector::chooseBestNodes(nodes, NodeSelector::kModeBestNode, 15);
        ASSERT_EQ(chosen.size(), 3u);
        EXPECT_EQ(chosen[2]->score(), 80);
        orders.insert(scoresOf(chosen));
    }
    EXPECT_EQ(orders.size(), 2u);
    // Without a gap the order is by score.
    Nodes nodes{scored("a", 100), scored("b", 90), scored("c", 80)};
    EXPECT_EQ(scoresOf(NodeSelector::chooseBestNodes(nodes, NodeSelector::kModeBestNode, {})),
              (std::vector<double>{100, 90, 80}));
}

TEST(NodeChoice, ResultLogs) {
    log::Capture capture;
    Nodes nodes{scored("n1", 5), scored("n2", 4), scored("n3", 3), scored("n4", 2),
                scored("n5", 1)};
    NodeSelector::logBestNodes(nodes, 2, true);
    auto texts = capture.texts();
    ASSERT_EQ(texts.size(), 1u);
    const std::string header = "[NodeSelector] final sorted and random node results:\n";
    ASSERT_EQ(texts[0].rfind(header, 0), 0u);
    std::string body = texts[0].substr(header.size());
    EXPECT_EQ(std::count(body.begin(), body.end(), '\n'), 3);
    EXPECT_EQ(body.rfind("[best][n1:", 0), 0u);
    EXPECT_EQ(capture.count("[best]"), 1u);

    capture.clear();
    NodeSelector::logBestNodes({}, 2, true);
    EXPECT_TRUE(capture.texts().empty());

    NodeSelector::sortAndLogNodes({scored("lo", 1), scored("hi", 9)});
    ASSERT_EQ(capture.texts().size(), 1u);
    auto sorted = capture.texts()[0];
    EXPECT_EQ(sorted.rfind("[NodeSelector] all nodes sorted by score(high->low):\n[hi:", 0), 0u);
    EXPECT_LT(sorted.find("[hi:"), sorted.find("[lo:"));
}

TEST(AccScoreCalculator, ScoresAndLevels) {
    auto config = AccScoreConfig::defaultConfig();
    EXPECT_EQ(AccScoreCalculator::computeScoreOfDelay(Number(100), Number(0.25), Number(0), *config)
                  ->doubleValue(),
              300 + 75 + 100);
    EXPECT_EQ(AccScoreCalculator::computeScoreOfDelay(Number(0), *config)->doubleValue(), 0);
    EXPECT_EQ(AccScoreCalculator::computeScoreOfDelay(Number(401), *config)->doubleValue(), 0);
    EXPECT_EQ(AccScoreCalculator::computeScoreOfLoss(Number(1.5), *config)->doubleValue(), 0);
    EXPECT_EQ(AccScoreCalculator::computeScoreOfDeviation(Number(101), *config)->doubleValue(), 0);
    EXPECT_EQ(AccScoreCalculator::computeScoreOfDeviation(std::nullopt, *config)->doubleValue(), 0);

    auto band = [](double min, double max, long level) {
        auto b = std::make_shared<NetworkConditionLevel>();
        b->min = Number(min);
        b->max = Number(max);
        b->level = Number(level);
        return b;
    };
    std::vector<std::shared_ptr<NetworkConditionLevel>> bands{band(0, 300, 0), band(300, 600, 2),
                                                              band(400, 600, 0)};
    EXPECT_EQ(AccScoreCalculator::resultOfScore(450, nullptr, bands), 2);
    // Above the default full points (400 + 100 + 100) the bands are not consulted.
    EXPECT_EQ(AccScoreCalculator::resultOfScore(601, nullptr, bands), 3);
    EXPECT_EQ(AccScoreCalculator::resultOfScore(550, nullptr, bands), 2);
    auto small = AccScoreConfig::defaultConfig();
    small->ping = Number(300);
    EXPECT_EQ(AccScoreCalculator::resultOfScore(501, small, bands), 3);
    EXPECT_EQ(AccScoreCalculator::resultOfScore(300, nullptr, bands), 0);
    EXPECT_EQ(AccScoreCalculator::resultOfScore(0, nullptr, bands), 1);
    EXPECT_EQ(AccScoreCalculator::resultOfScore(-5, nullptr, {}), 1);
    EXPECT_EQ(AccScoreCalculator::scoreDescription(7), "--");
    EXPECT_EQ(AccScoreCalculator::scoreDescription(-1), "--");
}

TEST(ShareStorer, ScoreGapIsReadOnceAndCached) {
    lmkit::testing::TempDir dir;
    auto defaults = UserDefaults::openAt(dir.path() / "suite.sqlite");
    ASSERT_TRUE(defaults);
    ShareStorer storer(defaults);
    EXPECT_FALSE(storer.scoreRangeGap().has_value());
    // Written behind the store's back: the cached absence stands until the cache is cleared.
    defaults->setObject(15, ShareStorer::kScoreRangeGapKey);
    EXPECT_FALSE(storer.scoreRangeGap().has_value());
    storer.clearCache();
    ASSERT_TRUE(storer.scoreRangeGap().has_value());
    EXPECT_EQ(storer.scoreRangeGap()->doubleValue(), 15);
    storer.setScoreRangeGap(Number(2.5));
    EXPECT_EQ(defaults->doubleForKey(ShareStorer::kScoreRangeGapKey), 2.5);
    storer.setScoreRangeGap(std::nullopt);
    EXPECT_FALSE(defaults->objectForKey(ShareStorer::kScoreRangeGapKey).has_value());
}
