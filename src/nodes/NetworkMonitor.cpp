#include "lmkit/nodes/NetworkMonitor.hpp"

#include <algorithm>

#include <fmt/format.h>

#include "lmkit/foundation/Log.hpp"
#include "lmkit/foundation/UserDefaults.hpp"
#include "lmkit/models/StartupConfig.hpp"
#include "lmkit/netinfo/VPNNetworkStatusMonitor.hpp"
#include "lmkit/nodes/DelayStatistics.hpp"
#include "lmkit/settings/RecordArchiving.hpp"

namespace lmkit {

namespace {
constexpr const char* kTimeoutErrorDomain = "NodeSelectorErrorDomain";
constexpr long kAllPacketsLostCode = 2;
}  // namespace

NetworkMonitor::NetworkMonitor()
    : monitorQueue_(DispatchQueue::serial(
          fmt::format("com.networkmonitorqueue.{}", static_cast<const void*>(this)))) {}

std::shared_ptr<NetworkMonitor> NetworkMonitor::create() {
    return std::shared_ptr<NetworkMonitor>(new NetworkMonitor());
}

std::shared_ptr<NetworkMonitor> NetworkMonitor::sharedMonitor() {
    // Never destroyed: ticks and probe callbacks may still run while the process exits.
    static auto* shared = new std::shared_ptr<NetworkMonitor>(create());
    return *shared;
}

NetworkMonitor::~NetworkMonitor() {
    stopMonitor();
}

bool NetworkMonitor::isRunning() const {
    std::lock_guard guard(mutex_);
    return running_;
}

std::string NetworkMonitor::targetAddress() const {
    std::lock_guard guard(mutex_);
    return targetAddress_;
}

std::optional<SimplePingNode> NetworkMonitor::pingNode() const {
    std::lock_guard guard(mutex_);
    return pingNode_;
}

std::shared_ptr<SimplePinger> NetworkMonitor::nodeSelector() const {
    std::lock_guard guard(mutex_);
    return pinger_;
}

std::vector<NodeSelectorResult> NetworkMonitor::resultArray() const {
    return resultArray_.immutableArray();
}

void NetworkMonitor::setPingPort(long port) {
    std::lock_guard guard(mutex_);
    pingPort_ = port;
}

long NetworkMonitor::pingPort() const {
    std::lock_guard guard(mutex_);
    return pingPort_;
}

void NetworkMonitor::setNetworkValidCheck(std::function<bool()> check) {
    std::lock_guard guard(mutex_);
    networkValidCheck_ = std::move(check);
}

bool NetworkMonitor::isNetworkValid() const {
    std::function<bool()> check;
    {
        std::lock_guard guard(mutex_);
        check = networkValidCheck_;
    }
    if (check)
        return check();
    auto info = VPNNetworkStatusMonitor::sharedMonitor().getInterfaceInfo();
    return info.networkValid || info.WiFiValid || info.WWANValid;
}

void NetworkMonitor::setOutcomeObserver(OutcomeObserver observer) {
    std::lock_guard guard(mutex_);
    outcomeObserver_ = std::move(observer);
}

// Configuration.

std::shared_ptr<UnstableNetworkConfig> NetworkMonitor::unstableNetworkConfig() {
    {
        std::lock_guard guard(mutex_);
        if (unstableNetworkConfig_)
            return unstableNetworkConfig_;
    }
    auto data = UserDefaults::suite()->dataForKey(kStartUpConfigKey);
    if (!data)
        return nullptr;
    std::string error;
    auto startup = keyed_archiver::unarchive<StartupConfig>(*data, error);
    if (!startup) {
        log::error(
            fmt::format("[NetworkMonitor] stored start-up configuration unreadable: {}", error));
        return nullptr;
    }
    std::lock_guard guard(mutex_);
    if (!unstableNetworkConfig_)
        unstableNetworkConfig_ = startup->unstableNetworkConfig;
    return unstableNetworkConfig_;
}

void NetworkMonitor::setUnstableNetworkConfig(std::shared_ptr<UnstableNetworkConfig> config) {
    std::lock_guard guard(mutex_);
    unstableNetworkConfig_ = std::move(config);
}

double NetworkMonitor::speedTestInterval() {
    auto config = unstableNetworkConfig();
    if (!config)
        return kDefaultInterval;
    return config->interval ? config->interval->doubleValue() : 0.0;
}

double NetworkMonitor::maxLoss() {
    auto config = unstableNetworkConfig();
    return config && config->loss ? config->loss->doubleValue() : kDefaultMaxLoss;
}

double NetworkMonitor::maxDeviation() {
    auto config = unstableNetworkConfig();
    return config && config->deviation ? config->deviation->doubleValue() : kDefaultMaxDeviation;
}

double NetworkMonitor::tickPeriod() {
    // The dispatch timer takes whole nanoseconds.
    double nanoseconds = static_cast<double>(static_cast<std::int64_t>(speedTestInterval() * 1e9));
    return std::max(nanoseconds / 1e9, kMinimumTickPeriod);
}

// Running.

void NetworkMonitor::startMonitorWithTargetAddress(const std::string& address) {
    {
        std::lock_guard guard(mutex_);
        if (address.empty() && targetAddress_.empty())
            return;
        running_ = true;
        targetAddress_ = address;
        if (!pingNode_)
            pingNode_ = SimplePingNode(address, pingPort_);
    }
    restartMonitorIfNeed();
}

void NetworkMonitor::restartMonitorIfNeed() {
    {
        std::lock_guard guard(mutex_);
        if (monitorTimer_)
            return;
    }
    double period = tickPeriod();
    auto timer = DispatchTimerSource::create(
        monitorQueue_, period,
        [weak = weak_from_this()] {
            auto self = weak.lock();
            if (!self)
                return;
            if (self->isTimeoutAfterLastActiveDate())
                self->stopMonitor();
            else
                self->startMonitor();
        },
        0);
    {
        std::lock_guard guard(mutex_);
        if (monitorTimer_)
            return;  // another thread made one meanwhile
        monitorTimer_ = timer;
    }
    log::info(fmt::format("[NetworkMonitor] monitoring {} every {:.3f}s", targetAddress(), period));
    timer->resume();
}

void NetworkMonitor::startMonitor() {
    if (!isNetworkValid() || result() == kResultUnstable)
        return;
    std::shared_ptr<SimplePinger> pinger;
    {
        std::lock_guard guard(mutex_);
        pinger = pinger_;
    }
    if (!pinger) {
        // The probe may take the whole interval (read once, as the ticks keep it).
        double timeout = tickPeriod();
        std::lock_guard guard(mutex_);
        if (!monitorTimer_)
            return;  // stopped meanwhile
        if (!pinger_)
            pinger_ = SimplePinger::create(SimplePinger::kInterfaceAny, timeout, pingNode_);
        pinger = pinger_;
    }
    std::uint64_t probe;
    bool unanswered;
    {
        std::lock_guard guard(mutex_);
        unanswered = outstandingProbe_.has_value();
        probe = ++probeNumber_;
        outstandingProbe_ = probe;
    }
    // A whole interval went by without an echo: the probe is lost, as its time-out, which the
    // new probe is about to replace, would have said.
    if (unanswered) {
        recordOutcome(kLostProbeDelay, 1.0);
        // That loss may have been the verdict, which stops the monitor: nothing more to send.
        std::lock_guard guard(mutex_);
        if (!monitorTimer_)
            return;
    }
    auto weak = weak_from_this();
    pinger->testPing(
        [weak, probe](double delay) {
            if (auto self = weak.lock(); self && self->settleProbe(probe))
                self->recordOutcome(delay, 0.0);
        },
        [weak, probe](const std::optional<Error>& error) {
            auto self = weak.lock();
            if (!self || !self->settleProbe(probe))
                return;
            // Only "all packets lost" counts; a socket that cannot be made or closed says
            // nothing about the network.
            if (error && error->domain == kTimeoutErrorDomain && error->code == kAllPacketsLostCode)
                self->recordOutcome(kLostProbeDelay, 1.0);
        });
}

bool NetworkMonitor::settleProbe(std::uint64_t probe) {
    std::lock_guard guard(mutex_);
    if (outstandingProbe_ != probe)
        return false;
    outstandingProbe_.reset();
    return true;
}

void NetworkMonitor::stopMonitor() {
    std::shared_ptr<DispatchTimerSource> timer;
    std::shared_ptr<SimplePinger> pinger;
    {
        std::lock_guard guard(mutex_);
        if (!monitorTimer_)
            return;
        running_ = false;
        timer = std::move(monitorTimer_);
        pinger = std::move(pinger_);
        outstandingProbe_.reset();  // its outcome no longer counts
    }
    timer->cancel();
    if (pinger)
        pinger->stop();
    log::info("[NetworkMonitor] stopped");
}

// Judging.

void NetworkMonitor::recordOutcome(double delay, double lossPercent) {
    NodeSelectorResult outcome{delay, lossPercent};
    resultArray_.addObject(outcome);
    OutcomeObserver observer;
    {
        std::lock_guard guard(mutex_);
        observer = outcomeObserver_;
    }
    // Before the judging, so that an observer has seen the deciding outcome by the time the
    // monitor reports itself stopped.
    if (observer)
        observer(outcome);
    setResultCount(resultCount_.load() + 1);
}

void NetworkMonitor::setResultCount(std::int64_t value) {
    resultCount_.store(value);
    observeResultCount(value);
}

void NetworkMonitor::observeResultCount(std::int64_t value) {
    if (result() == kResultUnstable || value == 0)
        return;
    auto outcomes = resultArray_.immutableArray();
    if (!outcomes.empty())
        lossCount_ += static_cast<unsigned long>(outcomes.back().lossPercent);

    // Single precision on purpose: 3 / 10 in float is a little above 0.3 in double, so three
    // losses in a batch meet the default threshold.
    float lossRate = static_cast<float>(lossCount_.load()) / static_cast<float>(kBatchLength);
    double limit = maxLoss();
    if (static_cast<double>(lossRate) >= limit) {
        log::error(fmt::format("Loss {:.2f} >= {:.2f}, network unstable",
                               static_cast<double>(lossRate), limit));
        setResult(kResultUnstable);
        startNewBatch();
        return;
    }
    if (value % kBatchLength != 0)
        return;
    std::vector<double> delays;
    delays.reserve(outcomes.size());
    for (const auto& outcome : outcomes)
        delays.push_back(outcome.delay);  // a lost probe was recorded as kLostProbeDelay
    double deviation = DelayStatistics::deviationOfNumbers(delays);
    double deviationLimit = maxDeviation();
    if (deviation >= deviationLimit) {
        log::error(
            fmt::format("Deviation {:.2f} >= {:.2f}, network unstable", deviation, deviationLimit));
        setResult(kResultUnstable);
    }
    startNewBatch();
}

void NetworkMonitor::startNewBatch() {
    lossCount_.store(0);
    resultArray_.removeAllObjects();
    setResultCount(0);
}

void NetworkMonitor::setResult(unsigned long result) {
    result_.store(result);
    if (result == kResultUnstable) {
        syncResult(result);
        stopMonitor();
    }
}

void NetworkMonitor::syncResult(unsigned long result) {
    auto defaults = UserDefaults::suite();
    defaults->setBool(result == kResultUnstable, kLocalNetworkUnStableKey);
    defaults->synchronize();
}

}  // namespace lmkit
