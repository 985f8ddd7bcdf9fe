#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <vector>

#include "lmkit/nodes/Speedometer.hpp"
#include "lmkit/platform/Number.hpp"

namespace lmkit {

/// The delay test the service orders: one round of the engine, condensed into the round's
/// delays and their average. It is its own delegate, reports at most once and then stops the
/// engine.
class NKSpeedometer : public Speedometer, public SpeedometerDelegate {
  public:
    /// The round's delays as received (-1 for a lost packet) and their average in milliseconds.
    using SuccessBlock = std::function<void(const std::vector<double>& delays, Number average)>;
    using FailureBlock = std::function<void(const Error& error)>;

    /// The average that stands for a round in which no packet was answered.
    static constexpr double kNoAnswerDelay = 400.0;

    static std::shared_ptr<NKSpeedometer> create(SpeedometerTask task);

    /// Stores the callbacks, makes this object its own delegate and starts the engine. The
    /// callbacks run on the delegate queue.
    void startWithSuccessBlock(SuccessBlock success, FailureBlock failure);
    /// Drops the delegate and both callbacks and stops the engine: nothing is reported after it.
    void cancel();

    /// The average of `delays` with lost entries (-1) left out, each added in single precision;
    /// kNoAnswerDelay when every entry is lost or there is none.
    static double averageDelay(const std::vector<double>& delays);

    void speedometerDidCompleteRound(Speedometer& speedometer,
                                     const std::vector<double>& delays) override;
    void speedometerDidFail(Speedometer& speedometer, const Error& error) override;

  private:
    explicit NKSpeedometer(SpeedometerTask task) : Speedometer(std::move(task)) {}

    std::mutex mutex_;
    SuccessBlock success_;  // guarded by mutex_
    FailureBlock failure_;  // guarded by mutex_
};

}  // namespace lmkit
