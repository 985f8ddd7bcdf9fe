// The boost-effect result item's reports: summaries and statistics lines, traffic periods and
// network changes.
#include "lmkit/tunnel/BoostEffectGameResultItem.hpp"

#include <algorithm>
#include <cmath>
#include <cstdio>

#include <fmt/format.h>

#include "lmkit/foundation/Log.hpp"
#include "lmkit/netinfo/NetworkInfoProvider.hpp"
#include "lmkit/netinfo/VPNNetworkStatusMonitor.hpp"
#include "lmkit/platform/Clock.hpp"
#include "lmkit/tunnel/WormholeManager.hpp"
#include "tunnel/BoostEffectShared.hpp"
#include "tunnel/SpeedTestRun.hpp"

namespace lmkit {

using namespace boost_effect;

namespace {

std::string orNull(const std::optional<std::string>& text) {
    return text ? *text : "(null)";
}

std::string orNull(const BoostEffectGameResultItem::StringRef& text) {
    return text ? *text : "(null)";
}

std::string numberText(const std::optional<Number>& number) {
    return number ? number->description() : "(null)";
}

bool isCellularType(long type) {
    return type >= NetworkType2G && type <= NetworkType5G;
}

std::optional<long> integerIn(const std::optional<nlohmann::ordered_json>& userInfo,
                              const char* key) {
    if (!userInfo || !userInfo->is_object())
        return std::nullopt;
    auto it = userInfo->find(key);
    if (it == userInfo->end() || !it->is_number())
        return std::nullopt;
    return it->get<long>();
}

}  // namespace

// Summaries and statistics lines.

DelaySummary BoostEffectGameResultItem::calculateWithDelays(const std::vector<double>& delays) {
    DelaySummary summary;
    std::vector<double> kept;
    std::size_t lost = 0;
    double sum = 0;
    for (double delay : delays) {
        if (delay == -1.0) {
            ++lost;
            continue;
        }
        kept.push_back(delay);
        sum += delay;
    }
    if (!kept.empty()) {
        summary.maximum = *std::max_element(kept.begin(), kept.end());
        summary.minimum = *std::min_element(kept.begin(), kept.end());
        summary.average = sum / static_cast<double>(kept.size());
        double squares = 0;
        for (double delay : kept)
            squares += (delay - summary.average) * (delay - summary.average);
        summary.deviation = std::sqrt(squares / static_cast<double>(kept.size()));
    }
    // An empty list lost nothing.
    if (!delays.empty())
        summary.loss = static_cast<double>(lost) / static_cast<double>(delays.size());
    return summary;
}

std::string BoostEffectGameResultItem::encodeDelaysAsIntegerStringWithDelays(
    const std::vector<double>& delays) {
    std::string text = "[";
    for (std::size_t i = 0; i < delays.size(); ++i) {
        if (i > 0)
            text += ", ";
        text += std::to_string(static_cast<int>(delays[i]));
    }
    return text + "]";
}

bool BoostEffectGameResultItem::shouldRecordDirectSpeedTestLog() {
    std::lock_guard lock(mutex_);
    if (directSpeedTestRounds_ % kStatisticsLogRounds == 0) {
        directSpeedTestRounds_ = 1;
        return true;
    }
    ++directSpeedTestRounds_;
    return false;
}

bool BoostEffectGameResultItem::shouldRecordProxySpeedTestLog() {
    std::lock_guard lock(mutex_);
    if (proxySpeedTestRounds_ % kStatisticsLogRounds == 0) {
        proxySpeedTestRounds_ = 1;
        return true;
    }
    ++proxySpeedTestRounds_;
    return false;
}

double BoostEffectGameResultItem::rearDelayValue() const {
    std::lock_guard lock(mutex_);
    return rearDelay_ ? rearDelay_->doubleValue() : 0;
}

std::string BoostEffectGameResultItem::gidText() const {
    return orNull(game_->gid);
}

void BoostEffectGameResultItem::logDirectStatistics(const std::vector<double>* delays) {
    const std::string address = orNull(speedTestAddress());
    const std::string interface = environment_.currentNetworkInterface();
    if (!delays) {
        logTunnel(fmt::format(
            "[Network Statistics] double line/direct(gid:{}), direct IP: {}, direct port: {}, "
            "current network interface: {}, max/min/avg: -1/-1/-1, deviation: 0, loss: 1.0",
            gidText(), address, speedTestPort_, interface));
        return;
    }
    const DelaySummary s = calculateWithDelays(*delays);
    logTunnel(fmt::format(
        "[Network Statistics] double line/direct(gid:{}), direct IP: {}, direct port: {}, "
        "current network interface: {}, max/min/avg: {}/{}/{}, deviation: {:f}, loss: {:.1f}, "
        "all delays: {}",
        gidText(), address, speedTestPort_, interface, static_cast<int>(s.maximum),
        static_cast<int>(s.minimum), static_cast<int>(s.average), s.deviation, s.loss,
        encodeDelaysAsIntegerStringWithDelays(*delays)));
}

void BoostEffectGameResultItem::logProxyStatistics(const std::vector<double>* delays,
                                                   double finalDelay) {
    const std::string address = orNull(proxyAddress());
    const std::string rear = numberText(rearDelay());
    const std::string interface = environment_.currentNetworkInterface();
    if (!delays) {
        logTunnel(fmt::format(
            "[Network Statistics] {}/proxy(gid:{}), proxy IP: {}, proxy port: {}, dual-channel: "
            "false, current network interface: {}, max/min/avg: -1/-1/-1, deviation: 0, loss: "
            "1.0, rear_delay: {}",
            modeName(), gidText(), address, proxyPort_, interface, rear));
        return;
    }
    const DelaySummary s = calculateWithDelays(*delays);
    logTunnel(fmt::format(
        "[Network Statistics] {}/proxy(gid:{}), proxy IP: {}, proxy port: {}, dual-channel: "
        "false, current network interface: {}, max/min/avg: {}/{}/{}, deviation: {:f}, loss: "
        "{:.1f}, rear_delay: {}, final delay: {}, all delays: {}",
        modeName(), gidText(), address, proxyPort_, interface, static_cast<int>(s.maximum),
        static_cast<int>(s.minimum), static_cast<int>(s.average), s.deviation, s.loss, rear,
        Number(finalDelay).description(), encodeDelaysAsIntegerStringWithDelays(*delays)));
}

void BoostEffectGameResultItem::logDualChannel(const DualChannelOutcome& outcome,
                                               double finalDelay) {
    // A side that failed reads as every packet lost.
    auto summarize = [](const std::optional<std::vector<double>>& delays) {
        if (delays)
            return calculateWithDelays(*delays);
        DelaySummary failed;
        failed.loss = 1.0;
        return failed;
    };
    const std::vector<double> none;
    const DelaySummary w = summarize(outcome.wifiDelays);
    const DelaySummary c = summarize(outcome.cellularDelays);
    logTunnel(fmt::format(
        "[Network Statistics] {}/proxy(gid:{}), proxy IP: {}, proxy port: {}, dual-channel: "
        "true, max/min/avg@wifi: {}/{}/{}, wifi_deviation: {:f}, wifi_loss: {:.1f}, "
        "wifi_delays: {}, max/min/avg@cellular: {}/{}/{}, cellular_deviation: {:f}, "
        "cellular_loss: {:.1f}, cellular_delays: {}, rear_delay: {}, final delay: {}",
        modeName(), gidText(), orNull(proxyAddress()), proxyPort_, static_cast<int>(w.maximum),
        static_cast<int>(w.minimum), static_cast<int>(w.average), w.deviation, w.loss,
        encodeDelaysAsIntegerStringWithDelays(outcome.wifiDelays.value_or(none)),
        static_cast<int>(c.maximum), static_cast<int>(c.minimum), static_cast<int>(c.average),
        c.deviation, c.loss,
        encodeDelaysAsIntegerStringWithDelays(outcome.cellularDelays.value_or(none)),
        numberText(rearDelay()), Number(finalDelay).description()));
}

// Traffic periods.

std::optional<BoostEffectGameResultItem::PeriodRecord>
BoostEffectGameResultItem::updateGameServerWithRemoteIP(
    const std::string& remoteIP, unsigned remotePort, const std::string& proxyIP,
    unsigned proxyPort, const std::optional<std::string>& directIP, std::optional<Number> rtt,
    long packets, long bytes) {
    const std::string newKey = fmt::format("{}:{}:{}:{}", remoteIP, remotePort, proxyIP, proxyPort);
    const std::string directText = orNull(directIP);
    std::unique_lock lock(mutex_);
    if (key_ && *key_ == newKey) {
        periodPackets_ += packets;
        periodBytes_ += bytes;
        rearDelay_ = rtt;
        lock.unlock();
        logTunnel(fmt::format(
            "[TProxy] [Traffic Identify] Same proxy address({}) and direct IP({}), no need to "
            "update for BoostEffectDataManager",
            proxyIP, directText));
        return std::nullopt;
    }
    logTunnel(
        fmt::format("[TProxy] [Traffic Identify] Update proxy address({}) and direct IP({}) for "
                    "BoostEffectDataManager",
                    proxyIP, directText));

    std::optional<PeriodRecord> record;
    if (key_) {
        PeriodRecord r;
        r["gid"] = game_->gid.value_or("");
        r["start_timestamp"] = startTimeStamp_;
        r["tproxy_ip"] = periodProxyAddress_.value_or("");
        r["tproxy_port"] = periodProxyPort_;
        r["target_ip"] = periodRemoteAddress_.value_or("");
        r["target_port"] = periodRemotePort_;
        r["protocol"] = "UDP";
        r["rear_delay"] = periodRTT_ ? periodRTT_->toJson() : nlohmann::ordered_json(0);
        r["total_avg_delay"] = periodAvgDelay_;
        r["total_min_delay"] = periodMinDelay_;
        r["total_max_delay"] = periodMaxDelay_;
        r["avg_packet_loss"] = 0;
        r["total_packets"] = periodPackets_;
        r["total_bytes"] = periodBytes_;
        r["end_timestamp"] = Clock::nowSeconds();
        record = std::move(r);
    }

    key_ = newKey;
    startTimeStamp_ = Clock::nowSeconds();
    periodAvgDelay_ = 0;
    periodMinDelay_ = kMaxDelay;
    periodMaxDelay_ = 0;
    periodCount_ = 0;
    periodProxyAddress_ = proxyIP;
    periodProxyPort_ = proxyPort;
    periodRTT_ = rtt;
    periodRemoteAddress_ = remoteIP;
    periodRemotePort_ = remotePort;
    periodPackets_ = packets;
    periodBytes_ = bytes;
    proxyAddress_ = std::make_shared<const std::string>(proxyIP);
    rearDelay_ = rtt;
    const bool hasDirectIP = directIP && !directIP->empty();
    if (hasDirectIP)
        speedTestAddress_ = std::make_shared<const std::string>(*directIP);
    needUpdateProxyAddress_ = true;
    hasUpdatedProxyAddress_ = true;
    lock.unlock();

    if (hasDirectIP)
        logTunnel("[TProxy] [Traffic Identify] Update direct IP:" + *directIP);
    else
        logTunnel("[TProxy] [Traffic Identify] Empty direct IP");
    return record;
}

// Network changes.

void BoostEffectGameResultItem::handleNetworkChange(const Notification& notification) {
    environment_.passMessageForNetworkChange();
    auto current = integerIn(notification.userInfo, NetworkInfoProvider::kCurrentNetworkTypeKey);
    auto last = integerIn(notification.userInfo, NetworkInfoProvider::kLastNetworkTypeKey);
    // Probes opened on cellular keep measuring the old path once Wi-Fi takes over; the next
    // tick starts fresh ones on the new default route.
    if (!current || *current != NetworkTypeWiFi || !last || !isCellularType(*last) ||
        !environment_.isNetworkAvailable(kWiFiKind)) {
        return;
    }
    std::shared_ptr<detail::SpeedTestRun> direct, proxy;
    {
        std::lock_guard lock(mutex_);
        direct = std::move(directTester_);
        proxy = std::move(proxyTester_);
    }
    if (direct)
        direct->stop();
    if (proxy)
        proxy->stop();
    log::warning("Network switched from Cellular to Wi-Fi, restart speed test tasks...",
                 log::Stream::Tunnel);
}

}  // namespace lmkit
