#include "lmkit/models/Game.hpp"

#include <gtest/gtest.h>

#include <unordered_set>

#include "support/RecordDecoding.hpp"

namespace lmkit {
namespace {

using lmkit::testing::decode;

TEST(Game, DefaultsFillAbsentKeysAndOverseaFillsBoth) {
    auto g = decode<Game>(R"({"gid":"g1","oversea":true,"icon_url":"https://x/i.png",
        "corner_badge":"bad url","subs":[{"gid":"g2","online":0}]})");
    EXPECT_EQ(g->isOnline->intValue(), 1);  // a default of the table
    ASSERT_TRUE(g->multipleBundleUrlTypes);
    EXPECT_TRUE(g->oversea);
    EXPECT_TRUE(g->isOverseaGame);
    EXPECT_EQ(g->iconUrl->absoluteString(), "https://x/i.png");
    EXPECT_FALSE(g->badgeURL);
    EXPECT_EQ((*g->zoneGames)[0]->isOnline->intValue(), 0);
    EXPECT_FALSE(g->supportOpenURL());

    auto json = *g->toJSONDictionary();
    EXPECT_EQ(json["oversea"], true);
    EXPECT_EQ(json["bundle_url_type"], "");
    EXPECT_EQ(json["subs"][0]["gid"], "g2");
    EXPECT_EQ(JSONAdapter::modelOfClass<Game>(json)->toJSONDictionary()->dump(), json.dump());
}

TEST(Game, EqualityAndHashFollowGid) {
    auto a = decode<Game>(R"({"gid":"g1","name":"A"})");
    auto b = decode<Game>(R"({"gid":"g1","name":"B"})");
    auto c = decode<Game>(R"({"gid":"g2","name":"A"})");
    EXPECT_EQ(*a, *b);
    EXPECT_FALSE(*a == *c);
    EXPECT_EQ(std::hash<Game>()(*a), std::hash<Game>()(*b));
    std::unordered_set<Game> set{*a, *b, *c};
    EXPECT_EQ(set.size(), 2u);

    // Numeric gids (and other wrong-kind values) are kept and still tell games apart.
    auto n1 = decode<Game>(R"({"gid":101,"online":"1","grade":"3"})");
    auto n2 = decode<Game>(R"({"gid":102})");
    EXPECT_FALSE(*n1 == *n2);
    EXPECT_NE(std::hash<Game>()(*n1), std::hash<Game>()(*n2));
    EXPECT_FALSE(*n1 == *decode<Game>(R"({"gid":"101"})"));
    auto back = n1->toJSONDictionary();
    EXPECT_EQ((*back)["gid"], 101);
    EXPECT_EQ((*back)["online"], "1");
    EXPECT_EQ((*back)["grade"], "3");
    EXPECT_NE(n1->keyLog().find("id:101"), std::string::npos);

    auto titles = JSONAdapter::modelsOfClass<GameExtraTitle>(
        Json::parse(R"([{"id":7,"label":"x"},{"id":7,"label":"y","max_click":5},{"id":8}])"));
    ASSERT_TRUE(titles);
    EXPECT_EQ(*(*titles)[0], *(*titles)[1]);
    EXPECT_FALSE(*(*titles)[0] == *(*titles)[2]);
    EXPECT_EQ((*titles)[0]->tapMaxLimit, 1);
    EXPECT_EQ((*titles)[0]->displayMaxLimit, 2);
    EXPECT_EQ((*titles)[1]->tapMaxLimit, 5);
}

TEST(Game, BundleEntriesLinksAndDialogs) {
    auto g = decode<Game>(R"({"gid":"g","name":"N","grade":3,"as_sub_name":"Asia",
        "bundle_multiple_url_type":[{"bundle_url_type":"one","itc_url":"https://s/1"},
        {"bundle_url_type":"two"},{"bundle_url_type":"three","itc_url":"https://s/3",
        "download_areas":[{"name":"CN","key":"cn"}]}],
        "dialog":[{"id":"d1","when":2},{"id":"d2","when":2},{"id":"d3","when":3}]})");
    EXPECT_TRUE(g->supportOpenURL());
    EXPECT_EQ(g->numberOfValidItuneUrl(), 2u);
    EXPECT_EQ(*g->bundleUrlTypeWithValidItuneUrl()[1]->bundleUrlType, "three");
    EXPECT_EQ(*(*(*g->multipleBundleUrlTypes)[2]->downloadAreas)[0]->area, "cn");
    EXPECT_TRUE(g->installedAppBundleUrlTypes().empty());
    Game::setURLOpeningChecker([](const std::string& url) { return url != "one://"; });
    auto installed = g->installedAppBundleUrlTypes();
    Game::setURLOpeningChecker(nullptr);
    ASSERT_EQ(installed.size(), 2u);
    EXPECT_EQ(*installed[0]->bundleUrlType, "two");

    EXPECT_EQ(g->getDialogIDWithTiming(Number(2)), "d1");
    EXPECT_EQ(g->getDialogIDWithTiming(Number(3)), "d3");
    EXPECT_FALSE(g->getDialogIDWithTiming(Number(4)));
    EXPECT_FALSE(decode<Game>("{}")->getDialogIDWithTiming(Number(2)));
    EXPECT_EQ(g->keyLog(), "id:g name:N grade:3, zone:Asia");

    auto single = decode<Game>(R"({"bundle_multiple_url_type":[{"name":"x"}]})");
    EXPECT_TRUE(single->supportOpenURL());
}

}  // namespace
}  // namespace lmkit
