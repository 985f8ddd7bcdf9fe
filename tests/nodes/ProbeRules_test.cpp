#include <gtest/gtest.h>

#include <cmath>
#include <string>

#include "lmkit/nodes/DelayStatistics.hpp"
#include "lmkit/nodes/ProbePacing.hpp"
#include "lmkit/nodes/ProbePacket.hpp"
#include "nodes/ProbeKeys.hpp"

using namespace lmkit;
using probe::ProbeReply;

namespace {

ProbeReply parse(const std::string& text, const std::string& prefix = "") {
    return probe::parseProbeReply(reinterpret_cast<const std::uint8_t*>(text.data()), text.size(),
                                  prefix);
}

}  // namespace

TEST(ProbePacket, KeysPayloadsAndReplies) {
    EXPECT_EQ(probe::constructKeyWithHost("1.2.3.4", 9999), "1.2.3.4:9999");
    EXPECT_EQ(probe::constructKeyWithHost("1.2.3.4", 0), "1.2.3.4");
    EXPECT_EQ(probe::constructKeyWithHost("::1", 53), "::1:53");

    const double first = 1'700'000'000'000.0;
    EXPECT_EQ(probe::makeProbePayload("", first, 1'700'000'000'000), "0");
    EXPECT_EQ(probe::makeProbePayload("", first, 1'700'000'001'234), "1234");
    EXPECT_EQ(probe::makeProbePayload("QOS", first, 1'700'000'000'100), "QOS100");

    auto plain = parse("1234");
    EXPECT_EQ(plain.status, ProbeReply::Status::Accepted);
    EXPECT_EQ(plain.stamp, 1234);

    // Only the prefix's length is removed, so a foreign prefix of the same length passes.
    auto foreign = parse("XYZ100", "QOS");
    EXPECT_EQ(foreign.status, ProbeReply::Status::Accepted);
    EXPECT_EQ(foreign.stamp, 100);
    auto shortText = parse("QO", "QOS");
    EXPECT_EQ(shortText.status, ProbeReply::Status::Accepted);
    EXPECT_EQ(shortText.stamp, 0);
    EXPECT_EQ(parse("QOS-5", "QOS").status, ProbeReply::Status::InvalidTimestamp);
    EXPECT_EQ(parse("QOS12abc", "QOS").stamp, 12);

    auto bad = parse("12a");
    EXPECT_EQ(bad.status, ProbeReply::Status::InvalidPacket);
    EXPECT_EQ(bad.text, "12a");
    EXPECT_EQ(parse("-12").status, ProbeReply::Status::InvalidPacket);
    EXPECT_EQ(parse("").status, ProbeReply::Status::Ignored);
    EXPECT_EQ(parse(std::string("\xff\xfe", 2)).status, ProbeReply::Status::Ignored);
    EXPECT_EQ(parse(std::string("\xc0\x80", 2), "P").status, ProbeReply::Status::Ignored);
}

TEST(ProbePacket, LenientNumberReading) {
    EXPECT_EQ(probe::leadingDoubleValue("  42.5xyz"), 42.5);
    EXPECT_EQ(probe::leadingDoubleValue("+7"), 7);
    EXPECT_EQ(probe::leadingDoubleValue("-3"), -3);
    EXPECT_EQ(probe::leadingDoubleValue("abc"), 0);
    EXPECT_EQ(probe::leadingDoubleValue("inf"), 0);
    EXPECT_EQ(probe::leadingDoubleValue("nan"), 0);
    EXPECT_EQ(probe::leadingDoubleValue("1e999"), 0);
}

TEST(ProbePacing, GroupCountsIntervalsAndTimeouts) {
    struct Row {
        long servers;
        long events;
        long groups;
    };
    for (auto row :
         {Row{1, 0, 1}, Row{10, 3, 1}, Row{11, 0, 10}, Row{99, 0, 10}, Row{100, 0, 17},
          Row{150, 0, 17}, Row{150, 1, 34}, Row{199, 0, 17}, Row{200, 0, 20}, Row{350, 0, 30},
          Row{999, 0, 90}, Row{1000, 0, 1}, Row{1200, 5, 1}, Row{12, 1, 12}, Row{150, 40, 150}}) {
        EXPECT_EQ(pacing::calculateSendPacketGroupCountByNodeCount(row.servers, row.events),
                  row.groups)
            << row.servers << " servers, " << row.events << " events";
    }
    EXPECT_DOUBLE_EQ(pacing::sendGroupPacketInternval(0, 5, 0), static_cast<double>(0.006f));
    EXPECT_DOUBLE_EQ(pacing::sendGroupPacketInternval(0, 5, 1), 2 * static_cast<double>(0.006f));
    EXPECT_DOUBLE_EQ(pacing::sendGroupPacketInternval(2.5, 5, 3), 2.5 / 6);

    EXPECT_EQ(pacing::calculateReceivePacketTimeout(0, 5, 1), 3.0);
    EXPECT_EQ(pacing::calculateReceivePacketTimeout(0, 1, 1), 0.3);
    EXPECT_EQ(pacing::calculateReceivePacketTimeout(0, 5, 199), 3.0);
    EXPECT_EQ(pacing::calculateReceivePacketTimeout(0, 5, 200), 5.0);
    EXPECT_EQ(pacing::calculateReceivePacketTimeout(2.5, 5, 200), 2.5);

    EXPECT_EQ(pacing::probesPerGroup(750, 17, 150), 45);
    EXPECT_EQ(pacing::probesPerGroup(750, 34, 150), 23);
    EXPECT_EQ(pacing::probesPerGroup(60, 10, 12), 6);
}

TEST(DelayStatistics, MeansMinimaAndDeviation) {
    using D = std::vector<double>;
    EXPECT_EQ(DelayStatistics::computeAvgOfNumbers(D{10, 20, 30, 40, 50, 1000}), 35);
    EXPECT_EQ(DelayStatistics::computeAvgOfNumbers(D{10, 20, 30}), 20);
    // Only one copy of a repeated extreme is dropped.
    EXPECT_EQ(DelayStatistics::computeAvgOfNumbers(D{5, 5, 5, 9, 9, 9}), 7);
    EXPECT_EQ(DelayStatistics::computeAvgOfNumbers({}), 0);
    EXPECT_EQ(DelayStatistics::minOfNumbers(D{10, 20, 30}), 10);
    EXPECT_FALSE(DelayStatistics::minOfNumbers({}).has_value());
    EXPECT_EQ(DelayStatistics::maxOfNumbers(D{10, 30, 20}), 30);

    EXPECT_EQ(DelayStatistics::deviationOfNumbers(D{5, 0, 7}), 9999);
    EXPECT_EQ(DelayStatistics::deviationOfNumbers(D{10, 20}), 5);
    EXPECT_EQ(DelayStatistics::deviationOfNumbers({}), 0);
    // sqrt(2/9) = 0.4714...: cut, not rounded.
    EXPECT_EQ(DelayStatistics::deviationOfNumbers(D{1, 1, 2}), 0.47);
}

// A run's keys: several nodes may share one, replies find it by text, and a key echoed more
// often than probed keeps every delay in arrival order. A reused table forgets the last run.
TEST(ProbeKeys, NodesDelaysAndDuplicatesPerKey) {
    ProbeKeys keys;
    for (int run = 0; run < 2; ++run) {
        std::vector<std::shared_ptr<AccNode>> nodes;
        for (int i = 0; i < 300; ++i) {
            nodes.push_back(std::make_shared<AccNode>());
            nodes.back()->ip = "10.0." + std::to_string(i / 3) + ".1";  // three nodes per key
        }
        nodes.push_back(nullptr);
        keys.reset(nodes, 2);
        for (ProbeKeys::Index n = 0; n < 300; ++n)
            EXPECT_EQ(keys.add(*nodes[n]->ip + ":9", n).second, n % 3 == 0);
        ASSERT_EQ(keys.size(), 100u);
        keys.makeRoomForDelays();

        const auto k = keys.find("10.0.42.1:9");
        ASSERT_NE(k, ProbeKeys::kNone);
        EXPECT_EQ(keys.key(k), "10.0.42.1:9");
        std::vector<std::shared_ptr<AccNode>> shared;
        keys.forEachNode(k, [&](const auto& node) { shared.push_back(node); });
        EXPECT_EQ(shared, (std::vector{nodes[126], nodes[127], nodes[128]}));
        EXPECT_EQ(keys.find("10.0.42.1:10"), ProbeKeys::kNone);
        EXPECT_EQ(keys.find("10.0.100.1:9"), ProbeKeys::kNone);

        EXPECT_EQ(keys.addDelay(k, 3), 1u);
        EXPECT_EQ(keys.addDelay(k, 1), 2u);
        EXPECT_EQ(keys.addDelay(k, 2), 3u);
        const auto delays = keys.delays(k);
        EXPECT_EQ(std::vector<double>(delays.begin(), delays.end()),
                  (std::vector<double>{3, 1, 2}));
        EXPECT_EQ(keys.receivedCount(k), 3);
        EXPECT_TRUE(keys.delays(k + 1).empty());
        EXPECT_EQ(keys.allNodes().size(), 300u);
    }
}
