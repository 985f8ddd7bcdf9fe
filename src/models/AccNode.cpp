#include "lmkit/models/AccNode.hpp"

#include <cmath>
#include <cstdio>
#include <mutex>

namespace lmkit {

namespace {

struct Hooks {
    std::mutex mutex;
    std::function<std::optional<std::string>()> carrierTypeCode;
};

Hooks& hooks() {
    static Hooks instance;
    return instance;
}

double valueOf(const std::optional<Number>& n) {
    return n ? n->doubleValue() : 0.0;
}

std::string fixed2(double value) {
    char buffer[64];
    std::snprintf(buffer, sizeof buffer, "%.2f", value);
    return buffer;
}

std::string objectText(const std::optional<std::string>& s) {
    return s ? *s : "(null)";
}
std::string objectText(const std::optional<Number>& n) {
    return n ? n->description() : "(null)";
}

}  // namespace

void AccNode::setCarrierTypeCodeProvider(std::function<std::optional<std::string>()> provider) {
    std::lock_guard lock(hooks().mutex);
    hooks().carrierTypeCode = std::move(provider);
}

std::optional<std::string> AccNode::ipForCarrierTypeCode(
    const std::optional<std::string>& code) const {
    if (!code || code->empty() || !carrierIp)
        return std::nullopt;
    for (const auto& item : *carrierIp) {
        if (!item || !item->carrierTypeCodes)
            continue;
        for (const auto& candidate : *item->carrierTypeCodes)
            if (candidate == *code)
                return item->ip;
    }
    return std::nullopt;
}

std::optional<std::string> AccNode::ipForCurrentCarrierTypeCode() const {
    std::function<std::optional<std::string>()> provider;
    {
        std::lock_guard lock(hooks().mutex);
        provider = hooks().carrierTypeCode;
    }
    return ipForCarrierTypeCode(provider ? provider() : std::nullopt);
}

std::string AccNode::safePingServer() const {
    if (pingServer && !pingServer->empty())
        return *pingServer;
    if (ip && !ip->empty())
        return *ip;
    return "";
}

Number AccNode::computeScoreOfDelay(const std::optional<Number>& delay,
                                    const std::shared_ptr<AccConfig>& accConfig) {
    if (!delay || delay->doubleValue() == 0 || !accConfig || !accConfig->ping)
        return Number(0);
    double ping = accConfig->ping->doubleValue();
    if (delay->doubleValue() > ping)
        return Number(0);
    return Number(ping - delay->doubleValue());
}

Number AccNode::computeScoreOfLoss(const std::optional<Number>& loss,
                                   const std::shared_ptr<AccConfig>& accConfig, bool newLossScore) {
    double value = valueOf(loss);
    if (!accConfig)
        return Number(0);
    if (newLossScore) {
        double s = valueOf(accConfig->loss2) - valueOf(accConfig->lossScale) * value * value;
        return Number(s > 0 ? s : 0.0);
    }
    if (value < 0 || value > 1)
        return Number(0);
    return Number(valueOf(accConfig->loss) * (1 - value));
}

Number AccNode::computeScoreOfISPReferToAccConfig(
    const std::shared_ptr<AccConfig>& accConfig) const {
    if (!accConfig)
        return Number(0);
    return Number(valueOf(accConfig->isp) * valueOf(ispWeight) / 100.0);
}

Number AccNode::computeScoreOfLoadReferToAccConfig(
    const std::shared_ptr<AccConfig>& accConfig) const {
    if (!accConfig)
        return Number(0);
    double total = static_cast<double>(totalCount ? totalCount->intValue() : 0);
    double online = static_cast<double>(onlineCount ? onlineCount->intValue() : 0);
    double threshold = valueOf(accConfig->loadThreshold) * total;
    double load = valueOf(accConfig->load);
    if (online < threshold)
        return Number(load);
    if (online > total)
        return Number(0);
    double score = load * (1 - (online - threshold) / (total - threshold));
    return Number(std::isnan(score) ? 0.0 : score);
}

std::string AccNode::description() const {
    std::string text;
    text.reserve(256);
    text += "[" + objectText(ip) + ":" + objectText(port) + "](" + fixed2(score()) + ")";
    text += " ping_server:" + (pingServer ? *pingServer : std::string("null"));
    text += " netask_port:" + (netaskPort ? netaskPort->description() : std::string("null"));
    text += " rear_delay:" + objectText(rearDelay);
    text += " chart_rear_delay:" + objectText(chartRearDelay);
    text += " total_count:" + objectText(totalCount);
    text += " online_count:" + objectText(onlineCount);
    text += " isp_weight:" + objectText(ispWeight);
    text += " [loss](" + fixed2(loss) + ")";
    text += " [delay](" + fixed2(delay) + " avg:" + fixed2(avgDelay) + " min:" + fixed2(minDelay) +
            " max:" + fixed2(maxDelay) + ")";
    text += " [score](delay:" + fixed2(delayScore) + " loss:" + fixed2(lossScore) +
            " load:" + fixed2(loadScore) + " isp:" + fixed2(ispScore) + ")";
    return text;
}

const std::vector<Property<CarrierIPItem>>& CarrierIPItem::properties() {
    static const std::vector<Property<CarrierIPItem>> table{
        prop("carrierTypeCodes", "key", &CarrierIPItem::carrierTypeCodes),
        prop("ip", "value", &CarrierIPItem::ip),
    };
    return table;
}

const std::vector<Property<AccNode>>& AccNode::properties() {
    static const std::vector<Property<AccNode>> table{
        prop("identifier", "id", &AccNode::identifier),
        prop("ip", &AccNode::ip),
        prop("port", &AccNode::port),
        prop("tlsPort", "tls_port", &AccNode::tlsPort),
        prop("netaskPort", "netask_port", &AccNode::netaskPort),
        prop("pingServer", "ping_server", &AccNode::pingServer),
        prop("carrierIp", "operator_ip", &AccNode::carrierIp),
        prop("sniIP", "sni_ip", &AccNode::sniIP),
        prop("sniPort", "sni_port", &AccNode::sniPort),
        prop("sniCryptType", "sni_crypt", &AccNode::sniCryptType),
        prop("totalCount", "total", &AccNode::totalCount),
        prop("onlineCount", "online", &AccNode::onlineCount),
        prop("ispWeight", "weight", &AccNode::ispWeight),
        prop("rearDelay", "rear_delay", &AccNode::rearDelay),
        prop("chartRearDelay", "chart_rear_delay", &AccNode::chartRearDelay),
        prop("delay", &AccNode::delay),
        prop("delayScore", &AccNode::delayScore),
        prop("lossScore", &AccNode::lossScore),
        prop("loadScore", &AccNode::loadScore),
        prop("ispScore", &AccNode::ispScore),
    };
    return table;
}

}  // namespace lmkit
