#include "lmkit/nodes/NKSpeedometer.hpp"

namespace lmkit {

std::shared_ptr<NKSpeedometer> NKSpeedometer::create(SpeedometerTask task) {
    return std::shared_ptr<NKSpeedometer>(new NKSpeedometer(std::move(task)));
}

void NKSpeedometer::startWithSuccessBlock(SuccessBlock success, FailureBlock failure) {
    {
        std::lock_guard guard(mutex_);
        success_ = std::move(success);
        failure_ = std::move(failure);
    }
    auto self = std::static_pointer_cast<NKSpeedometer>(shared_from_this());
    setDelegate(
        std::weak_ptr<SpeedometerDelegate>(std::static_pointer_cast<SpeedometerDelegate>(self)));
    start();
}

void NKSpeedometer::cancel() {
    setDelegate({});
    {
        std::lock_guard guard(mutex_);
        success_ = nullptr;
        failure_ = nullptr;
    }
    stop();
}

double NKSpeedometer::averageDelay(const std::vector<double>& delays) {
    double sum = 0;
    long count = 0;
    for (double delay : delays) {
        // A lost packet is the entry whose integer value is -1.
        if (static_cast<long long>(delay) == -1)
            continue;
        sum += static_cast<double>(static_cast<float>(delay));
        ++count;
    }
    return count >= 1 ? sum / static_cast<double>(count) : kNoAnswerDelay;
}

void NKSpeedometer::speedometerDidCompleteRound(Speedometer&, const std::vector<double>& delays) {
    SuccessBlock success;
    {
        std::lock_guard guard(mutex_);
        // Only one round is ever reported: the callbacks go with the first.
        success = std::move(success_);
        success_ = nullptr;
        failure_ = nullptr;
    }
    if (success)
        success(delays, Number(averageDelay(delays)));
    stop();
}

void NKSpeedometer::speedometerDidFail(Speedometer&, const Error& error) {
    FailureBlock failure;
    {
        std::lock_guard guard(mutex_);
        failure = std::move(failure_);
        success_ = nullptr;
        failure_ = nullptr;
    }
    if (failure)
        failure(error);
    stop();
}

}  // namespace lmkit
