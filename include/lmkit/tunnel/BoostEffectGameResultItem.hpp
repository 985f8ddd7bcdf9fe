#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "lmkit/foundation/ThreadSafeMutableArray.hpp"
#include "lmkit/models/BoostTechIconState.hpp"
#include "lmkit/models/BridgeGame.hpp"
#include "lmkit/platform/DispatchQueue.hpp"
#include "lmkit/platform/Error.hpp"
#include "lmkit/platform/NotificationCenter.hpp"
#include "lmkit/platform/Number.hpp"

namespace lmkit {

class DispatchTimerSource;
namespace detail {
class SpeedTestRun;
class DualChannelSpeedTest;
}  // namespace detail

/// What one dual-channel round found on each side (Wi-Fi and cellular measured at once). A
/// side that failed has no samples and stands at 400 ms.
struct DualChannelOutcome {
    std::optional<std::vector<double>> wifiDelays;
    double wifiDelay = 400;
    std::optional<std::vector<double>> cellularDelays;
    double cellularDelay = 400;
    /// The better of the two sides: the front delay of the round.
    double frontDelay() const { return wifiDelay < cellularDelay ? wifiDelay : cellularDelay; }
};

/// Summary of a list of delay samples (calculateWithDelays).
struct DelaySummary {
    double maximum = -1.0;
    double minimum = -1.0;
    double average = -1.0;
    /// Population standard deviation of the kept samples.
    double deviation = 0;
    /// Lost samples (-1) over all samples.
    double loss = 0;
};

/// What a boost-effect measurer asks of its surroundings. Every member left empty takes the
/// process's own source (the tunnel's interface monitor, the shared settings, the default
/// notification centre, the message channel).
struct BoostEffectEnvironment {
    /// Whether the network of an interface kind (1 Wi-Fi, 2 cellular) is usable now.
    std::function<bool(int kind)> isNetworkAvailable;
    /// The user's dual-channel switch.
    std::function<bool()> isDualChannelEnabled;
    /// The name of the network in use, for statistics lines.
    std::function<std::string()> currentNetworkInterface;
    /// The Wi-Fi and the cellular interface names, for the dual-channel line.
    std::function<std::pair<std::string, std::string>()> dualChannelInterfaces;
    /// Tells the app that the network changed.
    std::function<void()> passMessageForNetworkChange;
    NotificationCenter* notificationCenter = nullptr;
};

/// The boost-effect measurer of one accelerated game, living in the tunnel: periodic speed tests
/// of the direct path to the game server and of the relay path, the latest delays, rolling lists
/// of samples, statistics lines in the tunnel log, and one record per traffic period.
///
/// Queues: the repeating timer ticks on `monitorQueue`; each round is started, and every
/// speed-test answer is handled, on `speedTestQueue`, so the two halves of a double-line round
/// meet in order. The fields shared with the tunnel's own calls (traffic reports, the data
/// manager's reads, the network-change notification) are kept under one mutex. Every timer,
/// queued block, speed-test answer and the notification hold the item weakly: once the item is
/// gone nothing of it runs. Always create through create().
class BoostEffectGameResultItem : public std::enable_shared_from_this<BoostEffectGameResultItem> {
  public:
    using StringRef = std::shared_ptr<const std::string>;
    using PeriodRecord = nlohmann::ordered_json;

    enum Mode : unsigned { SingleLine = 0, DoubleLine = 1 };

    /// The pending half of a double-line round.
    struct CacheInfo {
        enum Type : int {
            DirectSucceeded = 0,
            DirectFailed = 1,
            ProxySucceeded = 2,
            ProxyFailed = 3,
            DualChannelCompleted = 4,
        };
        Type type = DirectSucceeded;
        std::optional<double> directDelay;
        std::optional<double> frontDelay;
        std::optional<double> totalDelay;
    };

    /// Ceiling of every stored delay, and the delay that stands for a failed test.
    static constexpr double kMaxDelay = 400.0;
    /// Samples kept per delay list: one minute of tests at the usual half-second interval.
    static constexpr std::size_t kMaxDelayCount = 120;
    /// A statistics line is written every this many rounds, to keep the tunnel log small.
    static constexpr long kStatisticsLogRounds = 6;
    /// The network kit posts its first type notifications while the tunnel settles; they are
    /// not changes worth reporting, so the subscription waits this long.
    static constexpr double kNetworkChangeSubscriptionDelay = 2.0;

    using Environment = BoostEffectEnvironment;

    /// The item, or nullptr unless a game, a non-empty proxy address and a non-zero proxy port
    /// are given. The mode is double line when the speed-test address and the proxy address are
    /// different objects and single line when they are the same object: the caller says "test
    /// the relay itself" by handing the same string twice, whatever the texts.
    static std::shared_ptr<BoostEffectGameResultItem> create(
        std::shared_ptr<const BridgeGame> game, bool udpDualChannel,
        std::optional<Number> startTime, double sendTimeInterval, StringRef speedTestAddress,
        long speedTestPort, StringRef proxyAddress, long proxyPort, std::optional<Number> rearDelay,
        std::shared_ptr<const BoostTechIconState> techIconState, Environment environment = {});
    ~BoostEffectGameResultItem();
    BoostEffectGameResultItem(const BoostEffectGameResultItem&) = delete;
    BoostEffectGameResultItem& operator=(const BoostEffectGameResultItem&) = delete;

    // Configuration.
    const std::shared_ptr<const BridgeGame>& game() const { return game_; }
    bool udpDualChannel() const { return udpDualChannel_; }
    const std::optional<Number>& startTime() const { return startTime_; }
    double sendTimeInterval() const { return sendTimeInterval_; }
    StringRef speedTestAddress() const;
    long speedTestPort() const { return speedTestPort_; }
    StringRef proxyAddress() const;
    long proxyPort() const { return proxyPort_; }
    std::optional<Number> rearDelay() const;
    const std::shared_ptr<const BoostTechIconState>& techIconState() const {
        return techIconState_;
    }
    unsigned mode() const { return mode_; }
    /// "Single Line" or "Double Line".
    std::string modeName() const;
    /// "<gid>_<integer start time>".
    std::string storeKey() const;
    const DispatchQueue& monitorQueue() const { return monitorQueue_; }
    const DispatchQueue& speedTestQueue() const { return speedTestQueue_; }

    // Results.
    std::optional<double> directDelay() const;
    std::optional<double> proxyDelay() const;
    std::optional<double> directLoss() const;
    std::optional<double> proxyLoss() const;
    std::optional<double> wifiDelay() const;
    std::optional<double> cellularDelay() const;
    ThreadSafeMutableArray<double>& directDelays() { return directDelays_; }
    ThreadSafeMutableArray<double>& proxyDelays() { return proxyDelays_; }

    // Traffic period.
    std::optional<std::string> key() const;
    double periodAvgDelay() const;
    double periodMaxDelay() const;
    double periodMinDelay() const;
    long periodCount() const;
    long periodPackets() const;
    long periodBytes() const;
    bool needUpdateProxyAddress() const;
    bool hasUpdatedProxyAddress() const;
    std::optional<CacheInfo> cacheInfo() const;

    /// Starts the periodic speed tests when a speed-test address and port are set.
    void speedTest();
    /// A repeating timer on monitorQueue, first tick at once, then every sendTimeInterval;
    /// refused (and logged) unless the interval is above 0.
    void startSpeedTestTimer();
    /// One round of tests (what each tick runs); the round itself starts on speedTestQueue.
    void startSpeedTestTask();
    /// Cancels the timer and stops all three speed testers; answers still in flight are dropped.
    void stop();

    /// Feeds a traffic report of the tunnel. Returns the record of the period that a new
    /// relay/remote pair ends (15 keys), or nil when the pair is the current one or no period
    /// was open.
    std::optional<PeriodRecord> updateGameServerWithRemoteIP(
        const std::string& remoteIP, unsigned remotePort, const std::string& proxyIP,
        unsigned proxyPort, const std::optional<std::string>& directIP, std::optional<Number> rtt,
        long packets, long bytes);

    /// Reacts to the network kit's type-change notification.
    void handleNetworkChange(const Notification& notification);

    // Answers of the speed tests. The testers call these on speedTestQueue; in single-line mode
    // the direct answers are the answers of the one relay test.
    void directSpeedTestDidSucceed(double delay, const std::vector<double>& delays);
    void directSpeedTestDidFail(const Error& error);
    void proxySpeedTestDidSucceed(double frontDelay, const std::vector<double>& delays);
    void proxySpeedTestDidFail(const Error& error);
    void dualChannelSpeedTestDidComplete(const DualChannelOutcome& outcome);

    static DelaySummary calculateWithDelays(const std::vector<double>& delays);
    /// "[]", or "[d1, d2, ...]" with each delay as an integer.
    static std::string encodeDelaysAsIntegerStringWithDelays(const std::vector<double>& delays);
    /// Drops the oldest sample when `container` is full, then appends `delay`; nil is ignored.
    static void addDelay(std::optional<double> delay, ThreadSafeMutableArray<double>& container);
    /// Folds a measured relay delay into the open period's statistics (capped at 400).
    void updateDelaysWithDelay(std::optional<double> delay);
    /// True on the 1st, 7th, 13th... call.
    bool shouldRecordDirectSpeedTestLog();
    bool shouldRecordProxySpeedTestLog();

  private:
    BoostEffectGameResultItem(std::shared_ptr<const BridgeGame> game, bool udpDualChannel,
                              std::optional<Number> startTime, double sendTimeInterval,
                              StringRef speedTestAddress, long speedTestPort,
                              StringRef proxyAddress, long proxyPort,
                              std::optional<Number> rearDelay,
                              std::shared_ptr<const BoostTechIconState> techIconState,
                              Environment environment);
    void subscribeToNetworkChanges();
    void runSpeedTestRound();
    bool shouldUseDualChannel() const;
    void startDirectTest(const std::string& host, long port);
    void startProxyTest(const std::string& host, long port);
    void startDualChannelTest(const std::string& host, long port);
    void startSingleTest(const std::string& host, long port,
                         std::shared_ptr<detail::SpeedTestRun>& slot,
                         void (BoostEffectGameResultItem::*didSucceed)(double,
                                                                       const std::vector<double>&),
                         void (BoostEffectGameResultItem::*didFail)(const Error&));
    /// Puts `fresh` in `slot` and stops the tester it replaces.
    template <class Tester>
    void replaceTester(std::shared_ptr<Tester>& slot, std::shared_ptr<Tester> fresh);

    // Result handlers; each caps what it stores at kMaxDelay.
    void singleLineSingleChannelSucceeded(double delay);
    void singleLineSingleChannelFailed();
    void singleLineDualChannelCompleted(double totalDelay, double frontDelay);
    void doubleLineDirectCompleted(double delay);
    void doubleLineProxySucceeded(double totalDelay, double frontDelay);
    void doubleLineProxyFailed();
    void doubleLineDualChannelCompleted(double totalDelay, double frontDelay);
    void runStoredDirectHandler(const CacheInfo& stored, double delay);
    void runStoredProxyHandler(const CacheInfo& stored);
    void updateDelaysLocked(double delay);

    // Statistics lines.
    double rearDelayValue() const;
    std::string gidText() const;
    void logDirectStatistics(const std::vector<double>* delays);
    void logProxyStatistics(const std::vector<double>* delays, double finalDelay);
    void logDualChannel(const DualChannelOutcome& outcome, double finalDelay);

    const std::shared_ptr<const BridgeGame> game_;
    const bool udpDualChannel_;
    const std::optional<Number> startTime_;
    const double sendTimeInterval_;
    const long speedTestPort_;
    const long proxyPort_;
    const std::shared_ptr<const BoostTechIconState> techIconState_;
    const unsigned mode_;
    Environment environment_;
    DispatchQueue monitorQueue_;
    DispatchQueue speedTestQueue_;

    mutable std::mutex mutex_;
    StringRef speedTestAddress_;           // guarded by mutex_
    StringRef proxyAddress_;               // guarded by mutex_
    std::optional<Number> rearDelay_;      // guarded by mutex_
    std::optional<double> directDelay_;    // guarded by mutex_
    std::optional<double> proxyDelay_;     // guarded by mutex_
    std::optional<double> directLoss_;     // guarded by mutex_
    std::optional<double> proxyLoss_;      // guarded by mutex_
    std::optional<double> wifiDelay_;      // guarded by mutex_
    std::optional<double> cellularDelay_;  // guarded by mutex_
    std::optional<CacheInfo> cacheInfo_;   // guarded by mutex_
    long directSpeedTestRounds_ = 0;       // guarded by mutex_
    long proxySpeedTestRounds_ = 0;        // guarded by mutex_
    bool needUpdateProxyAddress_ = false;  // guarded by mutex_
    bool hasUpdatedProxyAddress_ = false;  // guarded by mutex_
    bool stopped_ = false;                 // guarded by mutex_

    // The open traffic period.
    std::optional<std::string> key_;                  // guarded by mutex_
    double startTimeStamp_ = 0;                       // guarded by mutex_
    double periodAvgDelay_ = 0;                       // guarded by mutex_
    double periodMaxDelay_ = 0;                       // guarded by mutex_
    double periodMinDelay_ = kMaxDelay;               // guarded by mutex_
    long periodCount_ = 0;                            // guarded by mutex_
    std::optional<std::string> periodProxyAddress_;   // guarded by mutex_
    long periodProxyPort_ = 0;                        // guarded by mutex_
    std::optional<Number> periodRTT_;                 // guarded by mutex_
    std::optional<std::string> periodRemoteAddress_;  // guarded by mutex_
    long periodRemotePort_ = 0;                       // guarded by mutex_
    long periodBytes_ = 0;                            // guarded by mutex_
    long periodPackets_ = 0;                          // guarded by mutex_

    std::shared_ptr<DispatchTimerSource> monitorTimer_;         // guarded by mutex_
    std::shared_ptr<detail::SpeedTestRun> directTester_;        // guarded by mutex_
    std::shared_ptr<detail::SpeedTestRun> proxyTester_;         // guarded by mutex_
    std::shared_ptr<detail::DualChannelSpeedTest> dualTester_;  // guarded by mutex_
    NotificationCenter::Token networkChangeToken_ = 0;          // guarded by mutex_

    ThreadSafeMutableArray<double> directDelays_;
    ThreadSafeMutableArray<double> proxyDelays_;
};

}  // namespace lmkit
