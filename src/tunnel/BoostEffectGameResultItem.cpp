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
#include "tunnel/BoostEffectShared.hpp"
#include "tunnel/SpeedTestRun.hpp"

namespace lmkit {

using namespace boost_effect;

namespace {

std::string pointerText(const void* pointer) {
    char text[32];
    std::snprintf(text, sizeof text, "%p", pointer);
    return text;
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
        host, port, 0, sendTimeInterval_, speedTestQueue_,
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
        host, port, sendTimeInterval_, speedTestQueue_, [weak](const DualChannelOutcome& outcome) {
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

}  // namespace lmkit
