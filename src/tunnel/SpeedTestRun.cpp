#include "tunnel/SpeedTestRun.hpp"

#include <algorithm>
#include <cmath>

namespace lmkit::detail {

namespace {

// One round is enough for one statistics sample; ten packets give a loss figure with one
// decimal, paced so that a round stays well under the shortest interval between tests.
constexpr int kPacketsPerRound = 10;
constexpr double kPacketInterval = 0.02;
// A packet not answered within a second is lost: a relay that slow is already past the
// 400 ms ceiling the statistics keep.
constexpr double kRoundTimeout = 1.0;
// What a round keeps free before the next test for its report to arrive, and the shortest wait
// it is given however short the interval.
constexpr double kReportMargin = 0.05;
constexpr double kShortestRoundTimeout = 0.05;
// The delay a round with no answer at all stands for.
constexpr double kNoAnswerDelay = 400.0;

}  // namespace

double SpeedTestRun::roundTimeoutWithin(double interval) {
    const double sending = (kPacketsPerRound - 1) * kPacketInterval;
    if (!std::isfinite(interval))
        return kRoundTimeout;
    return std::clamp(interval - sending - kReportMargin, kShortestRoundTimeout, kRoundTimeout);
}

std::shared_ptr<SpeedTestRun> SpeedTestRun::start(const std::string& host, long port,
                                                  long interfaceType, double interval,
                                                  DispatchQueue queue, Success success,
                                                  Failure failure) {
    std::shared_ptr<SpeedTestRun> run(new SpeedTestRun(std::move(success), std::move(failure)));
    if (host.empty() || port < 1 || port > 65535) {
        std::weak_ptr<SpeedTestRun> weak = run;
        Error error = Error::withDescription(
            kErrorDomain, kErrorInvalidEndpoint,
            "invalid speed test endpoint " + host + ":" + std::to_string(port));
        queue.async([weak, error] {
            if (auto self = weak.lock()) {
                if (auto failure = self->finish().second)
                    failure(error);
            }
        });
        return run;
    }
    SpeedometerTask task;
    task.host = host;
    task.port = static_cast<std::uint16_t>(port);
    task.rounds = 1;
    task.packets = kPacketsPerRound;
    task.intervalTime = kPacketInterval;
    task.timeout = roundTimeoutWithin(interval);
    task.interfaceType = interfaceType;
    auto speedometer = Speedometer::create(std::move(task));
    speedometer->setDelegate(run);
    speedometer->setDelegateQueue(std::move(queue));
    {
        std::lock_guard lock(run->mutex_);
        run->speedometer_ = speedometer;
    }
    speedometer->start();
    return run;
}

SpeedTestRun::SpeedTestRun(Success success, Failure failure)
    : success_(std::move(success)), failure_(std::move(failure)) {}

SpeedTestRun::~SpeedTestRun() {
    if (speedometer_)
        speedometer_->stop();
}

void SpeedTestRun::stop() {
    finish();
}

std::pair<SpeedTestRun::Success, SpeedTestRun::Failure> SpeedTestRun::finish() {
    std::shared_ptr<Speedometer> speedometer;
    std::pair<Success, Failure> callbacks;
    {
        std::lock_guard lock(mutex_);
        callbacks = {std::move(success_), std::move(failure_)};
        success_ = nullptr;
        failure_ = nullptr;
        speedometer = std::move(speedometer_);
        speedometer_.reset();
    }
    if (speedometer)
        speedometer->stop();
    return callbacks;
}

double SpeedTestRun::averageDelay(const std::vector<double>& delays) {
    double sum = 0;
    int count = 0;
    for (double delay : delays) {
        if (static_cast<long>(delay) == -1)
            continue;
        sum += static_cast<double>(static_cast<float>(delay));
        ++count;
    }
    return count > 0 ? sum / count : kNoAnswerDelay;
}

void SpeedTestRun::speedometerDidCompleteRound(Speedometer&, const std::vector<double>& delays) {
    if (auto success = finish().first)
        success(delays, averageDelay(delays));
}

void SpeedTestRun::speedometerDidFail(Speedometer&, const Error& error) {
    if (auto failure = finish().second)
        failure(error);
}

std::shared_ptr<DualChannelSpeedTest> DualChannelSpeedTest::start(const std::string& host,
                                                                  long port, double interval,
                                                                  DispatchQueue queue,
                                                                  Complete complete) {
    std::shared_ptr<DualChannelSpeedTest> test(new DualChannelSpeedTest(std::move(complete)));
    std::weak_ptr<DualChannelSpeedTest> weak = test;
    auto side = [&](bool wifi) {
        return SpeedTestRun::start(
            host, port, wifi ? kWiFiInterface : kCellularInterface, interval, queue,
            [weak, wifi](const std::vector<double>& delays, double average) {
                if (auto self = weak.lock())
                    self->sideDone(wifi, delays, average);
            },
            [weak, wifi](const Error&) {
                if (auto self = weak.lock())
                    self->sideDone(wifi, std::nullopt, 400.0);
            });
    };
    auto wifi = side(true);
    auto cellular = side(false);
    std::lock_guard lock(test->mutex_);
    test->wifi_ = std::move(wifi);
    test->cellular_ = std::move(cellular);
    return test;
}

void DualChannelSpeedTest::stop() {
    std::shared_ptr<SpeedTestRun> wifi, cellular;
    {
        std::lock_guard lock(mutex_);
        complete_ = nullptr;
        wifi = std::move(wifi_);
        cellular = std::move(cellular_);
    }
    if (wifi)
        wifi->stop();
    if (cellular)
        cellular->stop();
}

void DualChannelSpeedTest::sideDone(bool wifi, std::optional<std::vector<double>> delays,
                                    double delay) {
    Complete complete;
    DualChannelOutcome outcome;
    {
        std::lock_guard lock(mutex_);
        if (wifi) {
            outcome_.wifiDelays = std::move(delays);
            outcome_.wifiDelay = delay;
        } else {
            outcome_.cellularDelays = std::move(delays);
            outcome_.cellularDelay = delay;
        }
        if (--pending_ > 0)
            return;
        complete = std::move(complete_);
        complete_ = nullptr;
        outcome = outcome_;
    }
    if (complete)
        complete(outcome);
}

}  // namespace lmkit::detail
