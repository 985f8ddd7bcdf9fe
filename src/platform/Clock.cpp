#include "lmkit/platform/Clock.hpp"

#include <atomic>
#include <chrono>
#include <mutex>

namespace lmkit {

namespace {
std::mutex gSourceMutex;
std::function<double()> gSource;  // guarded by gSourceMutex
std::atomic<bool> gInjected{false};
}  // namespace

double Clock::nowMilliseconds() {
    if (gInjected.load(std::memory_order_acquire)) {
        std::lock_guard lock(gSourceMutex);
        if (gSource)
            return gSource();
    }
    // Whole nanoseconds first: a double of milliseconds since 1970 still resolves 0.25 us.
    using namespace std::chrono;
    auto ns = duration_cast<nanoseconds>(system_clock::now().time_since_epoch()).count();
    return static_cast<double>(ns / 1000000) + static_cast<double>(ns % 1000000) / 1e6;
}

double Clock::nowSeconds() {
    return nowMilliseconds() / 1000.0;
}

double Clock::millisecondsFromRealtime(long long seconds, long nanoseconds) {
    if (gInjected.load(std::memory_order_acquire))
        return nowMilliseconds();
    return static_cast<double>(seconds) * 1000.0 + static_cast<double>(nanoseconds) / 1e6;
}

void Clock::setNowForTesting(std::function<double()> source) {
    std::lock_guard lock(gSourceMutex);
    gSource = std::move(source);
    gInjected.store(static_cast<bool>(gSource), std::memory_order_release);
}

bool Clock::isInjected() {
    return gInjected.load(std::memory_order_acquire);
}

}  // namespace lmkit
