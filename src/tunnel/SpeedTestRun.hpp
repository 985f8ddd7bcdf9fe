#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "lmkit/nodes/Speedometer.hpp"
#include "lmkit/platform/DispatchQueue.hpp"
#include "lmkit/platform/Error.hpp"
#include "lmkit/tunnel/BoostEffectGameResultItem.hpp"

namespace lmkit::detail {

/// One round of a Speedometer towards host:port, reported at most once on the given queue: the
/// round's per-packet delays and their average, or the engine's error. The run owns its
/// engine; whoever starts it keeps it alive as long as the answer is wanted. stop() ends the
/// engine and drops both callbacks, so nothing is reported after it returns (an answer already
/// being delivered on the queue still finishes).
class SpeedTestRun : public SpeedometerDelegate, public std::enable_shared_from_this<SpeedTestRun> {
  public:
    using Success = std::function<void(const std::vector<double>& delays, double averageDelay)>;
    using Failure = std::function<void(const Error& error)>;

    static constexpr const char* kErrorDomain = "BoostEffectSpeedTestErrorDomain";
    static constexpr long kErrorInvalidEndpoint = 1;

    /// Starts the round, which reports within `interval` seconds (the time until the next test
    /// replaces it; see roundTimeoutWithin). An empty host or a port outside 1-65535 is reported
    /// as a failure on `queue` without touching the network.
    static std::shared_ptr<SpeedTestRun> start(const std::string& host, long port,
                                               long interfaceType, double interval,
                                               DispatchQueue queue, Success success,
                                               Failure failure);
    /// How long a round waits for answers after its last packet: at most a second, and no
    /// longer than leaves the round time to report before the next test, `interval` seconds
    /// after this one, stops it. A round stopped that way yields no sample at all, so a lossy
    /// path would have no statistics and a dead one would never show its 400 ms entries.
    static double roundTimeoutWithin(double interval);
    ~SpeedTestRun() override;

    void stop();

    /// The delay a round stands for: the mean of the answered packets (an entry whose integer
    /// value is -1 is a lost packet; each entry is summed in single precision, as the engine's
    /// adapter does), or 400 ms when no packet was answered.
    static double averageDelay(const std::vector<double>& delays);

    void speedometerDidCompleteRound(Speedometer& speedometer,
                                     const std::vector<double>& delays) override;
    void speedometerDidFail(Speedometer& speedometer, const Error& error) override;

  private:
    SpeedTestRun(Success success, Failure failure);
    /// Takes both callbacks (once) and ends the engine.
    std::pair<Success, Failure> finish();

    std::mutex mutex_;
    Success success_;                           // guarded by mutex_
    Failure failure_;                           // guarded by mutex_
    std::shared_ptr<Speedometer> speedometer_;  // guarded by mutex_
};

/// Two rounds at once towards the same endpoint, one bound to Wi-Fi (interface kind 1) and one
/// to cellular (kind 2); completes once, on the queue, when both sides have answered.
class DualChannelSpeedTest : public std::enable_shared_from_this<DualChannelSpeedTest> {
  public:
    using Complete = std::function<void(const DualChannelOutcome& outcome)>;

    static constexpr long kWiFiInterface = 1;
    static constexpr long kCellularInterface = 2;

    static std::shared_ptr<DualChannelSpeedTest> start(const std::string& host, long port,
                                                       double interval, DispatchQueue queue,
                                                       Complete complete);
    void stop();

  private:
    explicit DualChannelSpeedTest(Complete complete) : complete_(std::move(complete)) {}
    void sideDone(bool wifi, std::optional<std::vector<double>> delays, double delay);

    std::mutex mutex_;
    Complete complete_;                       // guarded by mutex_
    DualChannelOutcome outcome_;              // guarded by mutex_
    int pending_ = 2;                         // guarded by mutex_
    std::shared_ptr<SpeedTestRun> wifi_;      // guarded by mutex_
    std::shared_ptr<SpeedTestRun> cellular_;  // guarded by mutex_
};

}  // namespace lmkit::detail
