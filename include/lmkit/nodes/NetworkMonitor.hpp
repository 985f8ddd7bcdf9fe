#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "lmkit/foundation/ThreadSafeMutableArray.hpp"
#include "lmkit/models/NodeInfo.hpp"
#include "lmkit/models/UnstableNetworkConfig.hpp"
#include "lmkit/nodes/SimplePingNode.hpp"
#include "lmkit/nodes/SimplePinger.hpp"
#include "lmkit/platform/DispatchQueue.hpp"
#include "lmkit/platform/DispatchTimerSource.hpp"

namespace lmkit {

/// Watches the phone's own network before acceleration: once per interval it pings one echo
/// endpoint, judges the outcomes in batches of ten, and declares the local network unstable
/// when too many probes are lost or the delays scatter too widely. The verdict goes into the
/// app group's shared settings (kLocalNetworkUnStableKey), so the tunnel process reads it too,
/// and the monitor stops itself once it has found the network unstable. That verdict is final
/// for the object: a later start ticks but probes nothing.
///
/// Thresholds come from the start-up configuration stored in the shared settings
/// (kStartUpConfigKey), else from the defaults 1.0 s, 0.3 and 10.0 ms.
///
/// Ticks run on the monitor queue ("com.networkmonitorqueue.<address>"); probe outcomes, and so
/// the judging, on the pinger's work queue. Always create through create() or use
/// sharedMonitor(): ticks and probe callbacks hold the monitor weakly.
class NetworkMonitor : public std::enable_shared_from_this<NetworkMonitor> {
  public:
    static constexpr const char* kStartUpConfigKey = "ObjectPropertyStoreStartUpConfigKey";
    static constexpr const char* kLocalNetworkUnStableKey =
        "ObjectPropertyStoreLocalNetworkUnStableKey";
    static constexpr long kDefaultPingPort = 9999;
    /// Outcomes judged together for the deviation; also the fixed divisor of the loss rate.
    static constexpr long kBatchLength = 10;
    /// The delay that stands for a lost probe in the deviation of a batch.
    static constexpr double kLostProbeDelay = 460.0;
    static constexpr double kDefaultInterval = 1.0;
    static constexpr double kDefaultMaxLoss = 0.3;
    static constexpr double kDefaultMaxDeviation = 10.0;
    /// A configured interval of 0 (or a tiny one) would make the tick spin a core; ticks come
    /// no faster than this.
    static constexpr double kMinimumTickPeriod = 0.05;

    enum Result : unsigned long { kResultStable = 1, kResultUnstable = 2 };

    /// The one monitor of the process, created on first use.
    static std::shared_ptr<NetworkMonitor> sharedMonitor();
    /// A monitor of its own (tools and tests); it writes the same shared settings.
    static std::shared_ptr<NetworkMonitor> create();
    ~NetworkMonitor();
    NetworkMonitor(const NetworkMonitor&) = delete;
    NetworkMonitor& operator=(const NetworkMonitor&) = delete;

    /// Starts monitoring `address` (or keeps monitoring). An empty address while none was held
    /// does nothing; an empty one replaces a held one, but the endpoint probed is the one made
    /// on the first start and never changes.
    void startMonitorWithTargetAddress(const std::string& address);
    /// Creates the tick unless one exists.
    void restartMonitorIfNeed();
    /// One tick's work: one probe, when the network is usable and no verdict was reached.
    void startMonitor();
    /// Stops ticking and drops the pinger (only when a tick exists).
    void stopMonitor();
    /// Stores the verdict; kResultUnstable is also persisted and stops the monitor.
    void setResult(unsigned long result);
    /// Writes the verdict (true for kResultUnstable) to the shared settings and flushes them.
    void syncResult(unsigned long result);

    unsigned long result() const { return result_.load(); }
    bool isRunning() const;
    /// Never set by the monitor itself; when true a tick stops the monitor instead of probing.
    bool isTimeoutAfterLastActiveDate() const { return false; }
    std::string targetAddress() const;
    std::optional<SimplePingNode> pingNode() const;
    /// The pinger (the name is the one callers know it by).
    std::shared_ptr<SimplePinger> nodeSelector() const;
    const DispatchQueue& monitorQueue() const { return monitorQueue_; }
    /// The outcomes of the current batch.
    std::vector<NodeSelectorResult> resultArray() const;
    std::int64_t resultCount() const { return resultCount_.load(); }
    unsigned long lossCount() const { return lossCount_.load(); }

    /// The thresholds, read once from the stored start-up configuration; nullptr while none is
    /// stored (each read then tries again).
    std::shared_ptr<UnstableNetworkConfig> unstableNetworkConfig();
    /// Replaces the thresholds (a tool's own interval, a test's limits).
    void setUnstableNetworkConfig(std::shared_ptr<UnstableNetworkConfig> config);
    /// Seconds between probes: the configured interval, 0 when the configuration has none, 1.0
    /// without a configuration.
    double speedTestInterval();
    double maxLoss();
    double maxDeviation();

    /// The port the endpoint is made with on the first start (kDefaultPingPort unless set).
    void setPingPort(long port);
    long pingPort() const;
    /// Decides whether a tick may probe. By default the network is usable when the interface
    /// status monitor finds a usable Wi-Fi or cellular address (its own overall flag is never
    /// computed, so the two per-kind flags are what counts).
    void setNetworkValidCheck(std::function<bool()> check);
    bool isNetworkValid() const;

    /// Records one probe outcome (delay in ms; lossPercent 1 for a lost probe, recorded with
    /// kLostProbeDelay) and judges it. The pinger's callbacks come here, on the pinger's queue;
    /// outcomes must not be recorded from two threads at once.
    void recordOutcome(double delay, double lossPercent);

    /// Called on the pinger's queue for every recorded outcome (delay in ms, lossPercent 0 or
    /// 1), just before it is judged; for tools that show live progress.
    using OutcomeObserver = std::function<void(const NodeSelectorResult& outcome)>;
    void setOutcomeObserver(OutcomeObserver observer);

    /// The period the ticks really keep: speedTestInterval() in whole nanoseconds, at least
    /// kMinimumTickPeriod (a configuration without an interval reads as 0).
    double tickPeriod();

  private:
    NetworkMonitor();

    /// The one way resultCount changes; runs the judging for the new value.
    void setResultCount(std::int64_t value);
    /// True for the first of the probe's outcomes to arrive (its callback or the next tick).
    bool settleProbe(std::uint64_t probe);
    void observeResultCount(std::int64_t value);
    void startNewBatch();

    const DispatchQueue monitorQueue_;
    std::atomic<unsigned long> result_{kResultStable};
    // Pinger queue in practice; atomic so that readers on other threads see whole values.
    std::atomic<std::int64_t> resultCount_{0};
    std::atomic<unsigned long> lossCount_{0};
    ThreadSafeMutableArray<NodeSelectorResult> resultArray_;

    mutable std::mutex mutex_;
    // Guarded by mutex_.
    bool running_ = false;
    std::string targetAddress_;
    std::optional<SimplePingNode> pingNode_;
    long pingPort_ = kDefaultPingPort;
    std::shared_ptr<SimplePinger> pinger_;
    // The probe whose outcome is still to come (numbered per tick): the pinger waits the whole
    // interval, so the next tick may start before its time-out reports; that tick then counts
    // it as lost. Whichever comes first records the outcome, the other finds it settled.
    std::uint64_t probeNumber_ = 0;
    std::optional<std::uint64_t> outstandingProbe_;
    std::shared_ptr<DispatchTimerSource> monitorTimer_;
    std::shared_ptr<UnstableNetworkConfig> unstableNetworkConfig_;
    std::function<bool()> networkValidCheck_;
    OutcomeObserver outcomeObserver_;
};

}  // namespace lmkit
