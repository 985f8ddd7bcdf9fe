#include "lmkit/tunnel/BoostEffectGameResultItem.hpp"

#include <algorithm>
#include <cmath>
#include <cstdio>

#include <fmt/format.h>

#include "lmkit/foundation/Log.hpp"
#include "lmkit/netinfo/NetworkInfoProvider.hpp"
#include "lmkit/netinfo/VPNNetworkStatusMonitor.hpp"
#include "lmkit/platform/Clock.hpp"
#include "lmkit/platform/DispatchTimerSource.hpp"
#include "lmkit/settings/ObjectPropertyStore.hpp"
#include "lmkit/tunnel/WormholeManager.hpp"
#include "tunnel/SpeedTestRun.hpp"

namespace lmkit {

namespace {

constexpr int kWiFiKind = 1;
constexpr int kCellularKind = 2;
// A delay whose integer value reaches this is past the ceiling in the period statistics.
constexpr long kFirstDelayPastCeiling = 401;

std::string pointerText(const void* pointer) {
    char text[32];
    std::snprintf(text, sizeof text, "%p", pointer);
    return text;
}

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

void logTunnel(const std::string& text) {
    log::info(text, log::Stream::Tunnel);
}

BoostEffectGameResultItem::Environment withDefaults(BoostEffectGameResultItem::Environment env) {
    if (!env.isNetworkAvailable) {
        env.isNetworkAvailable = [](int kind) {
            auto& monitor = VPNNetworkStatusMonitor::sharedMonitor();
            return kind == kWiFiKind ? monitor.WiFiValid()
                                     : kind == kCellularKind && monitor.WWANValid();
        };
    }
    if (!env.isDualChannelEnabled) {
        env.isDualChannelEnabled = [] {
            auto value = ObjectPropertyStore::shared().dualChannel();
            return value && value->boolValue();
        };
    }
    if (!env.currentNetworkInterface) {
        env.currentNetworkInterface = [] {
            return NetworkInfoProvider::sharedProvider().currentNetworkTypeString().value_or(
                "(null)");
        };
    }
    if (!env.dualChannelInterfaces) {
        env.dualChannelInterfaces = [] {
            auto naming = VPNNetworkStatusMonitor::sharedMonitor().interfaceNaming();
            return std::make_pair(naming.kindNames[2], naming.cellularInterface());
        };
    }
    if (!env.passMessageForNetworkChange) {
        env.passMessageForNetworkChange = [] {
            if (auto manager = WormholeManager::sharedManager())
                manager->passMessageForNetworkChange();
        };
    }
    if (!env.notificationCenter)
        env.notificationCenter = &NotificationCenter::defaultCenter();
    return env;
}

}  // namespace

// Creation and configuration.

std::shared_ptr<BoostEffectGameResultItem> BoostEffectGameResultItem::create(
    std::shared_ptr<const BridgeGame> game, bool udpDualChannel, std::optional<Number> startTime,
    double sendTimeInterval, StringRef speedTestAddress, long speedTestPort, StringRef proxyAddress,
    long proxyPort, std::optional<Number> rearDelay,
    std::shared_ptr<const BoostTechIconState> techIconState, Environment environment) {
    if (!game || !proxyAddress || proxyAddress->empty() || proxyPort == 0)
        return nullptr;
    std::shared_ptr<BoostEffectGameResultItem> item(new BoostEffectGameResultItem(
        std::move(game), udpDualChannel, std::move(startTime), sendTimeInterval,
        std::move(speedTestAddress), speedTestPort, std::move(proxyAddress), proxyPort,
        std::move(rearDelay), std::move(techIconState), withDefaults(std::move(environment))));
    std::weak_ptr<BoostEffectGameResultItem> weak = item;
    DispatchQueue::main().asyncAfter(kNetworkChangeSubscriptionDelay, [weak] {
        if (auto self = weak.lock())
            self->subscribeToNetworkChanges();
    });
    return item;
}

BoostEffectGameResultItem::BoostEffectGameResultItem(
    std::shared_ptr<const BridgeGame> game, bool udpDualChannel, std::optional<Number> startTime,
    double sendTimeInterval, StringRef speedTestAddress, long speedTestPort, StringRef proxyAddress,
    long proxyPort, std::optional<Number> rearDelay,
    std::shared_ptr<const BoostTechIconState> techIconState, Environment environment)
    : game_(std::move(game)),
      udpDualChannel_(udpDualChannel),
      startTime_(std::move(startTime)),
      sendTimeInterval_(sendTimeInterval),
      speedTestPort_(speedTestPort),
      proxyPort_(proxyPort),
      techIconState_(std::move(techIconState)),
      // Identity, not text: the same string object handed twice means "the relay is the
      // server to test".
      mode_(speedTestAddress.get() == proxyAddress.get() ? SingleLine : DoubleLine),
      environment_(std::move(environment)),
      monitorQueue_(DispatchQueue::serial("com.boostEffectGameResultQueue." + pointerText(this))),
      speedTestQueue_(DispatchQueue::serial("com.speedTest.queue")),
      speedTestAddress_(std::move(speedTestAddress)),
      proxyAddress_(std::move(proxyAddress)),
      rearDelay_(std::move(rearDelay)),
      directLoss_(0.0),
      proxyLoss_(0.0) {}

BoostEffectGameResultItem::~BoostEffectGameResultItem() {
    if (networkChangeToken_ != 0)
        environment_.notificationCenter->removeObserver(networkChangeToken_);
    if (monitorTimer_)
        monitorTimer_->cancel();
    if (directTester_)
        directTester_->stop();
    if (proxyTester_)
        proxyTester_->stop();
    if (dualTester_)
        dualTester_->stop();
}

void BoostEffectGameResultItem::subscribeToNetworkChanges() {
    std::weak_ptr<BoostEffectGameResultItem> weak = weak_from_this();
    auto token = environment_.notificationCenter->addObserver(
        NetworkInfoProvider::kNetworkStatusDidChangeNotification,
        [weak](const Notification& notification) {
            if (auto self = weak.lock())
                self->handleNetworkChange(notification);
        });
    std::lock_guard lock(mutex_);
    networkChangeToken_ = token;
}

BoostEffectGameResultItem::StringRef BoostEffectGameResultItem::speedTestAddress() const {
    std::lock_guard lock(mutex_);
    return speedTestAddress_;
}

BoostEffectGameResultItem::StringRef BoostEffectGameResultItem::proxyAddress() const {
    std::lock_guard lock(mutex_);
    return proxyAddress_;
}

std::optional<Number> BoostEffectGameResultItem::rearDelay() const {
    std::lock_guard lock(mutex_);
    return rearDelay_;
}

std::string BoostEffectGameResultItem::modeName() const {
    return mode_ == SingleLine ? "Single Line" : "Double Line";
}

std::string BoostEffectGameResultItem::storeKey() const {
    return fmt::format("{}_{}", gidText(), startTime_ ? startTime_->intValue() : 0);
}

std::optional<double> BoostEffectGameResultItem::directDelay() const {
    std::lock_guard lock(mutex_);
    return directDelay_;
}

std::optional<double> BoostEffectGameResultItem::proxyDelay() const {
    std::lock_guard lock(mutex_);
    return proxyDelay_;
}

std::optional<double> BoostEffectGameResultItem::directLoss() const {
    std::lock_guard lock(mutex_);
    return directLoss_;
}

std::optional<double> BoostEffectGameResultItem::proxyLoss() const {
    std::lock_guard lock(mutex_);
    return proxyLoss_;
}

std::optional<double> BoostEffectGameResultItem::wifiDelay() const {
    std::lock_guard lock(mutex_);
    return wifiDelay_;
}

std::optional<double> BoostEffectGameResultItem::cellularDelay() const {
    std::lock_guard lock(mutex_);
    return cellularDelay_;
}

std::optional<std::string> BoostEffectGameResultItem::key() const {
    std::lock_guard lock(mutex_);
    return key_;
}

double BoostEffectGameResultItem::periodAvgDelay() const {
    std::lock_guard lock(mutex_);
    return periodAvgDelay_;
}

double BoostEffectGameResultItem::periodMaxDelay() const {
    std::lock_guard lock(mutex_);
    return periodMaxDelay_;
}

double BoostEffectGameResultItem::periodMinDelay() const {
    std::lock_guard lock(mutex_);
    return periodMinDelay_;
}

long BoostEffectGameResultItem::periodCount() const {
    std::lock_guard lock(mutex_);
    return periodCount_;
}

long BoostEffectGameResultItem::periodPackets() const {
    std::lock_guard lock(mutex_);
    return periodPackets_;
}

long BoostEffectGameResultItem::periodBytes() const {
    std::lock_guard lock(mutex_);
    return periodBytes_;
}

bool BoostEffectGameResultItem::needUpdateProxyAddress() const {
    std::lock_guard lock(mutex_);
    return needUpdateProxyAddress_;
}

bool BoostEffectGameResultItem::hasUpdatedProxyAddress() const {
    std::lock_guard lock(mutex_);
    return hasUpdatedProxyAddress_;
}

std::optional<BoostEffectGameResultItem::CacheInfo> BoostEffectGameResultItem::cacheInfo() const {
    std::lock_guard lock(mutex_);
    return cacheInfo_;
}

// Speed-test scheduling.

void BoostEffectGameResultItem::speedTest() {
    auto address = speedTestAddress();
    if (!address || address->empty() || speedTestPort_ == 0)
        return;
    logTunnel("[Speed test] Enable new speedometer.");
    startSpeedTestTimer();
}

void BoostEffectGameResultItem::startSpeedTestTimer() {
    // A timer without a positive period would start rounds back to back.
    if (!(sendTimeInterval_ > 0)) {
        log::error(fmt::format("[Speed test] Not started: the interval between speed tests must "
                               "be above 0 seconds, got {}",
                               sendTimeInterval_),
                   log::Stream::Tunnel);
        return;
    }
    std::lock_guard lock(mutex_);
    stopped_ = false;
    if (monitorTimer_)
        return;
    std::weak_ptr<BoostEffectGameResultItem> weak = weak_from_this();
    monitorTimer_ = DispatchTimerSource::create(
        monitorQueue_, sendTimeInterval_,
        [weak] {
            if (auto self = weak.lock())
                self->startSpeedTestTask();
        },
        0);
    monitorTimer_->resume();
}

void BoostEffectGameResultItem::startSpeedTestTask() {
    // The round runs where the answers are handled, so clearing the pending half below cannot
    // overtake an answer of the round it starts.
    std::weak_ptr<BoostEffectGameResultItem> weak = weak_from_this();
    speedTestQueue_.async([weak] {
        if (auto self = weak.lock())
            self->runSpeedTestRound();
    });
}

void BoostEffectGameResultItem::runSpeedTestRound() {
    StringRef speedTestAddress, proxyAddress;
    {
        std::lock_guard lock(mutex_);
        if (stopped_)
            return;
        speedTestAddress = speedTestAddress_;
        proxyAddress = proxyAddress_;
    }
    const std::string direct = speedTestAddress ? *speedTestAddress : "";
    const std::string relay = proxyAddress ? *proxyAddress : "";
    const bool dualChannel = shouldUseDualChannel();
    if (mode_ == DoubleLine) {
        startDirectTest(direct, speedTestPort_);
        if (dualChannel)
            startDualChannelTest(relay, proxyPort_);
        else
            startProxyTest(relay, proxyPort_);
        std::lock_guard lock(mutex_);
        cacheInfo_.reset();
    } else if (dualChannel) {
        startDualChannelTest(direct, speedTestPort_);
    } else {
        startDirectTest(direct, speedTestPort_);
    }
    std::lock_guard lock(mutex_);
    needUpdateProxyAddress_ = false;
}

bool BoostEffectGameResultItem::shouldUseDualChannel() const {
    return udpDualChannel_ && environment_.isDualChannelEnabled() &&
           environment_.isNetworkAvailable(kWiFiKind) &&
           environment_.isNetworkAvailable(kCellularKind);
}

template <class Tester>
void BoostEffectGameResultItem::replaceTester(std::shared_ptr<Tester>& slot,
                                              std::shared_ptr<Tester> fresh) {
    // A stopped item keeps no tester: the fresh one is stopped at once instead.
    std::shared_ptr<Tester> previous;
    {
        std::lock_guard lock(mutex_);
        if (stopped_) {
            previous = std::move(fresh);
        } else {
            previous = std::move(slot);
            slot = std::move(fresh);
        }
    }
    if (previous)
        previous->stop();
}

void BoostEffectGameResultItem::startSingleTest(
    const std::string& host, long port, std::shared_ptr<detail::SpeedTestRun>& slot,
    void (BoostEffectGameResultItem::*didSucceed)(double, const std::vector<double>&),
    void (BoostEffectGameResultItem::*didFail)(const Error&)) {
    std::weak_ptr<BoostEffectGameResultItem> weak = weak_from_this();
    auto run = detail::SpeedTestRun::start(
        host, port, 0, speedTestQueue_,
        [weak, didSucceed](const std::vector<double>& delays, double average) {
            if (auto self = weak.lock())
                ((*self).*didSucceed)(average, delays);
        },
        [weak, didFail](const Error& error) {
            if (auto self = weak.lock())
                ((*self).*didFail)(error);
        });
    replaceTester(slot, std::move(run));
}

void BoostEffectGameResultItem::startDirectTest(const std::string& host, long port) {
    startSingleTest(host, port, directTester_,
                    &BoostEffectGameResultItem::directSpeedTestDidSucceed,
                    &BoostEffectGameResultItem::directSpeedTestDidFail);
}

void BoostEffectGameResultItem::startProxyTest(const std::string& host, long port) {
    startSingleTest(host, port, proxyTester_, &BoostEffectGameResultItem::proxySpeedTestDidSucceed,
                    &BoostEffectGameResultItem::proxySpeedTestDidFail);
}

void BoostEffectGameResultItem::startDualChannelTest(const std::string& host, long port) {
    std::weak_ptr<BoostEffectGameResultItem> weak = weak_from_this();
    auto test = detail::DualChannelSpeedTest::start(
        host, port, speedTestQueue_, [weak](const DualChannelOutcome& outcome) {
            if (auto self = weak.lock())
                self->dualChannelSpeedTestDidComplete(outcome);
        });
    replaceTester(dualTester_, std::move(test));
}

void BoostEffectGameResultItem::stop() {
    std::shared_ptr<DispatchTimerSource> timer;
    std::shared_ptr<detail::SpeedTestRun> direct, proxy;
    std::shared_ptr<detail::DualChannelSpeedTest> dual;
    {
        std::lock_guard lock(mutex_);
        stopped_ = true;
        timer = std::move(monitorTimer_);
        direct = std::move(directTester_);
        proxy = std::move(proxyTester_);
        dual = std::move(dualTester_);
    }
    if (timer)
        timer->cancel();
    if (direct)
        direct->stop();
    if (proxy)
        proxy->stop();
    if (dual)
        dual->stop();
}

// Answers of the speed tests and the meeting of a double-line round's two halves.

void BoostEffectGameResultItem::directSpeedTestDidSucceed(double delay,
                                                          const std::vector<double>& delays) {
    if (mode_ == SingleLine) {
        if (shouldRecordProxySpeedTestLog())
            logProxyStatistics(&delays, std::min(delay + rearDelayValue(), kMaxDelay));
        singleLineSingleChannelSucceeded(delay);
        return;
    }
    if (shouldRecordDirectSpeedTestLog())
        logDirectStatistics(&delays);
    std::optional<CacheInfo> stored;
    {
        std::lock_guard lock(mutex_);
        if (cacheInfo_ && cacheInfo_->type >= CacheInfo::ProxySucceeded) {
            stored = cacheInfo_;
            cacheInfo_.reset();
        } else {
            cacheInfo_ = CacheInfo{CacheInfo::DirectSucceeded, delay, std::nullopt, std::nullopt};
        }
    }
    if (stored) {
        runStoredProxyHandler(*stored);
        doubleLineDirectCompleted(delay);
    }
}

void BoostEffectGameResultItem::directSpeedTestDidFail(const Error& error) {
    log::debug("[Speed Test] Speedometer failed: " + error.localizedDescription(),
               log::Stream::Tunnel);
    if (mode_ == SingleLine) {
        if (shouldRecordProxySpeedTestLog())
            logProxyStatistics(nullptr, kMaxDelay);
        singleLineSingleChannelFailed();
        return;
    }
    if (shouldRecordDirectSpeedTestLog())
        logDirectStatistics(nullptr);
    std::optional<CacheInfo> stored;
    {
        std::lock_guard lock(mutex_);
        if (cacheInfo_ && cacheInfo_->type >= CacheInfo::ProxySucceeded) {
            stored = cacheInfo_;
            cacheInfo_.reset();
        } else {
            cacheInfo_ = CacheInfo{CacheInfo::DirectFailed, kMaxDelay, std::nullopt, std::nullopt};
        }
    }
    if (stored) {
        runStoredProxyHandler(*stored);
        doubleLineDirectCompleted(kMaxDelay);
    }
}

void BoostEffectGameResultItem::proxySpeedTestDidSucceed(double frontDelay,
                                                         const std::vector<double>& delays) {
    const double totalDelay = frontDelay + rearDelayValue();
    if (shouldRecordProxySpeedTestLog())
        logProxyStatistics(&delays, std::min(totalDelay, kMaxDelay));
    std::optional<CacheInfo> stored;
    {
        std::lock_guard lock(mutex_);
        if (cacheInfo_ && cacheInfo_->type <= CacheInfo::DirectFailed) {
            stored = cacheInfo_;
            cacheInfo_.reset();
        } else {
            cacheInfo_ = CacheInfo{CacheInfo::ProxySucceeded, std::nullopt, frontDelay, totalDelay};
        }
    }
    if (stored) {
        doubleLineProxySucceeded(totalDelay, frontDelay);
        runStoredDirectHandler(*stored, stored->directDelay.value_or(kMaxDelay));
    }
}

void BoostEffectGameResultItem::proxySpeedTestDidFail(const Error& error) {
    log::debug("[Speed Test] Speedometer failed: " + error.localizedDescription(),
               log::Stream::Tunnel);
    if (shouldRecordProxySpeedTestLog())
        logProxyStatistics(nullptr, kMaxDelay);
    std::optional<CacheInfo> stored;
    {
        std::lock_guard lock(mutex_);
        if (cacheInfo_ && cacheInfo_->type <= CacheInfo::DirectFailed) {
            stored = cacheInfo_;
            cacheInfo_.reset();
        } else {
            cacheInfo_ = CacheInfo{CacheInfo::ProxyFailed, std::nullopt, kMaxDelay, kMaxDelay};
        }
    }
    if (stored) {
        doubleLineProxyFailed();
        // The stored direct answer is replaced by the failure value, whatever it was: a round
        // whose relay failed is not shown as a direct success.
        runStoredDirectHandler(*stored, kMaxDelay);
    }
}

void BoostEffectGameResultItem::dualChannelSpeedTestDidComplete(const DualChannelOutcome& outcome) {
    const double frontDelay = outcome.frontDelay();
    const double totalDelay = frontDelay + rearDelayValue();
    {
        std::lock_guard lock(mutex_);
        wifiDelay_ = outcome.wifiDelay;
        cellularDelay_ = outcome.cellularDelay;
    }
    auto [wifiInterface, cellularInterface] = environment_.dualChannelInterfaces();
    logTunnel(fmt::format(
        "[Speed Test] Game ID: {}, Dual-channel delays Wi-Fi:{}, interface: {}, cellular: {}, "
        "interface: {}",
        gidText(), Number(outcome.wifiDelay).description(), wifiInterface,
        Number(outcome.cellularDelay).description(), cellularInterface));
    if (shouldRecordProxySpeedTestLog())
        logDualChannel(outcome, std::min(totalDelay, kMaxDelay));
    if (mode_ == SingleLine) {
        singleLineDualChannelCompleted(totalDelay, frontDelay);
        return;
    }
    std::optional<CacheInfo> stored;
    {
        std::lock_guard lock(mutex_);
        if (cacheInfo_ && cacheInfo_->type <= CacheInfo::DirectFailed) {
            stored = cacheInfo_;
            cacheInfo_.reset();
        } else {
            cacheInfo_ =
                CacheInfo{CacheInfo::DualChannelCompleted, std::nullopt, frontDelay, totalDelay};
        }
    }
    if (stored) {
        doubleLineDualChannelCompleted(totalDelay, frontDelay);
        runStoredDirectHandler(*stored, stored->directDelay.value_or(kMaxDelay));
    }
}

void BoostEffectGameResultItem::runStoredDirectHandler(const CacheInfo&, double delay) {
    // A stored direct success and a stored direct failure (kept at 400) end in the same handler.
    doubleLineDirectCompleted(delay);
}

void BoostEffectGameResultItem::runStoredProxyHandler(const CacheInfo& stored) {
    switch (stored.type) {
        case CacheInfo::ProxySucceeded:
            doubleLineProxySucceeded(stored.totalDelay.value_or(kMaxDelay),
                                     stored.frontDelay.value_or(kMaxDelay));
            break;
        case CacheInfo::ProxyFailed:
            doubleLineProxyFailed();
            break;
        case CacheInfo::DualChannelCompleted:
            doubleLineDualChannelCompleted(stored.totalDelay.value_or(kMaxDelay),
                                           stored.frontDelay.value_or(kMaxDelay));
            break;
        default:
            break;
    }
}

// Result handlers. The period statistics take the raw relay delay (before the relay's own
// delay to the game server is added), and only once a traffic report has named the relay.

void BoostEffectGameResultItem::singleLineSingleChannelSucceeded(double delay) {
    double stored;
    {
        std::lock_guard lock(mutex_);
        stored = std::min(delay + (rearDelay_ ? rearDelay_->doubleValue() : 0), kMaxDelay);
        directDelay_ = stored;
        if (hasUpdatedProxyAddress_)
            updateDelaysLocked(delay);
    }
    addDelay(stored, directDelays_);
}

void BoostEffectGameResultItem::singleLineSingleChannelFailed() {
    {
        std::lock_guard lock(mutex_);
        directDelay_ = kMaxDelay;
    }
    addDelay(kMaxDelay, directDelays_);
}

void BoostEffectGameResultItem::singleLineDualChannelCompleted(double totalDelay,
                                                               double frontDelay) {
    const double stored = std::min(totalDelay, kMaxDelay);
    {
        std::lock_guard lock(mutex_);
        directDelay_ = stored;
        if (hasUpdatedProxyAddress_)
            updateDelaysLocked(frontDelay);
    }
    addDelay(stored, directDelays_);
}

void BoostEffectGameResultItem::doubleLineDirectCompleted(double delay) {
    const double stored = std::min(delay, kMaxDelay);
    {
        std::lock_guard lock(mutex_);
        directDelay_ = stored;
    }
    addDelay(stored, directDelays_);
}

void BoostEffectGameResultItem::doubleLineProxySucceeded(double totalDelay, double frontDelay) {
    const double stored = std::min(totalDelay, kMaxDelay);
    {
        std::lock_guard lock(mutex_);
        proxyDelay_ = stored;
        if (hasUpdatedProxyAddress_)
            updateDelaysLocked(frontDelay);
    }
    addDelay(stored, proxyDelays_);
}

void BoostEffectGameResultItem::doubleLineProxyFailed() {
    {
        std::lock_guard lock(mutex_);
        proxyDelay_ = kMaxDelay;
    }
    addDelay(kMaxDelay, proxyDelays_);
}

void BoostEffectGameResultItem::doubleLineDualChannelCompleted(double totalDelay,
                                                               double frontDelay) {
    doubleLineProxySucceeded(totalDelay, frontDelay);
}

void BoostEffectGameResultItem::addDelay(std::optional<double> delay,
                                         ThreadSafeMutableArray<double>& container) {
    if (!delay)
        return;
    if (container.count() >= kMaxDelayCount)
        container.removeObjectAtIndex(0);
    container.addObject(*delay);
}

void BoostEffectGameResultItem::updateDelaysWithDelay(std::optional<double> delay) {
    if (!delay)
        return;
    std::lock_guard lock(mutex_);
    updateDelaysLocked(*delay);
}

void BoostEffectGameResultItem::updateDelaysLocked(double delay) {
    if (static_cast<long>(delay) >= kFirstDelayPastCeiling)
        delay = kMaxDelay;
    if (delay > periodMaxDelay_)
        periodMaxDelay_ = delay;
    if (delay < periodMinDelay_)
        periodMinDelay_ = delay;
    ++periodCount_;
    periodAvgDelay_ =
        (periodAvgDelay_ * static_cast<double>(periodCount_ - 1) + delay) / periodCount_;
}

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
