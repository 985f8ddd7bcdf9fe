#include "lmkit/platform/Clock.hpp"

#include <atomic>
#include <chrono>
#include <mutex>

namespace lmkit {

namespace {
std::mutex gMutex;
std::function<std::int64_t()> gSource;  // guarded by gMutex
std::atomic<bool> gInjected{false};
}  // namespace

std::int64_t Clock::nowMilliseconds() {
    if (gInjected.load(std::memory_order_acquire)) {
        std::lock_guard lock(gMutex);
        if (gSource)
            return gSource();
    }
    using namespace std::chrono;
    return duration_cast<milliseconds>(system_clock::now().time_since_epoch()).count();
}

double Clock::nowSeconds() {
    if (gInjected.load(std::memory_order_acquire))
        return nowMilliseconds() / 1000.0;
    using namespace std::chrono;
    return duration<double>(system_clock::now().time_since_epoch()).count();
}

void Clock::setNowForTesting(std::function<std::int64_t()> source) {
    std::lock_guard lock(gMutex);
    gSource = std::move(source);
    gInjected.store(static_cast<bool>(gSource), std::memory_order_release);
}

}  // namespace lmkit
