#include "lmkit/platform/DispatchQueue.hpp"

#include <array>
#include <future>
#include <mutex>

#include <asio/defer.hpp>
#include <asio/post.hpp>
#include <asio/steady_timer.hpp>

#include "platform/DispatchQueueImpl.hpp"

namespace lmkit {

namespace {

thread_local const DispatchQueue::Impl* tCurrentQueue = nullptr;

std::mutex& mainExecutorMutex() {
    static std::mutex mutex;
    return mutex;
}
std::function<void(DispatchQueue::Block)>& mainExecutor() {
    static std::function<void(DispatchQueue::Block)> executor;
    return executor;
}

std::shared_ptr<DispatchQueue::Impl> makeImpl(std::string label, bool serial) {
    auto impl = std::make_shared<DispatchQueue::Impl>();
    impl->label = std::move(label);
    impl->serial = serial;
    if (serial)
        impl->strand.emplace(asio::make_strand(detail::poolExecutor()));
    return impl;
}

// The kit's own names for its shared queues, as log lines show them.
const char* globalLabel(QoS qos) {
    switch (qos) {
        case QoS::UserInteractive:
            return "lmkit.global.user-interactive";
        case QoS::UserInitiated:
            return "lmkit.global.user-initiated";
        case QoS::Default:
            return "lmkit.global.default";
        case QoS::Utility:
            return "lmkit.global.utility";
        case QoS::Background:
            return "lmkit.global.background";
    }
    return "lmkit.global.default";
}

}  // namespace

void DispatchQueue::Impl::runMarked(const Block& block) {
    const Impl* previous = tCurrentQueue;
    tCurrentQueue = this;
    try {
        block();
    } catch (...) {
        // A block must not take a pool thread down with it; the kit's blocks do not throw.
    }
    tCurrentQueue = previous;
}

void DispatchQueue::Impl::post(Block block, bool barrier, bool handOff) {
    if (isMain) {
        std::function<void(Block)> executor;
        {
            std::lock_guard lock(mainExecutorMutex());
            executor = mainExecutor();
        }
        if (executor) {
            executor([this, block = std::move(block)] { runMarked(block); });
            return;
        }
    }
    auto run = [this, block = std::move(block)] { runMarked(block); };
    if (barriers) {
        barriers->submit(std::move(run), barrier);
    } else if (strand) {
        if (handOff)
            asio::defer(*strand, std::move(run));
        else
            asio::post(*strand, std::move(run));
    } else if (handOff) {
        // Deferred from a pool thread, the block waits in that thread's own queue and runs when
        // the current block returns; from any other thread it is posted as usual.
        asio::defer(detail::poolExecutor(), std::move(run));
    } else {
        asio::post(detail::poolExecutor(), std::move(run));
    }
}

DispatchQueue DispatchQueue::serial(std::string label) {
    return DispatchQueue(makeImpl(std::move(label), true));
}

DispatchQueue DispatchQueue::concurrent(std::string label) {
    auto impl = makeImpl(std::move(label), false);
    impl->barriers =
        std::make_unique<detail::BarrierScheduler>([](detail::BarrierScheduler::Block block) {
            asio::post(detail::poolExecutor(), std::move(block));
        });
    return DispatchQueue(std::move(impl));
}

DispatchQueue DispatchQueue::global(QoS qos) {
    static const std::array<std::shared_ptr<Impl>, 5> queues = [] {
        std::array<std::shared_ptr<Impl>, 5> all;
        for (int i = 0; i < 5; ++i)
            all[i] = makeImpl(globalLabel(static_cast<QoS>(i)), false);
        return all;
    }();
    return DispatchQueue(queues[static_cast<int>(qos)]);
}

DispatchQueue DispatchQueue::main() {
    static const std::shared_ptr<Impl> queue = [] {
        auto impl = makeImpl("lmkit.main", true);
        impl->isMain = true;
        return impl;
    }();
    return DispatchQueue(queue);
}

void DispatchQueue::setMainExecutor(std::function<void(Block)> executor) {
    std::lock_guard lock(mainExecutorMutex());
    mainExecutor() = std::move(executor);
}

std::string DispatchQueue::currentLabel() {
    return tCurrentQueue ? tCurrentQueue->label : "";
}

const std::string& DispatchQueue::label() const {
    return impl_->label;
}
bool DispatchQueue::isSerial() const {
    return impl_->serial;
}
bool DispatchQueue::isCurrent() const {
    return tCurrentQueue == impl_.get();
}

void DispatchQueue::async(Block block) const {
    // The pending block keeps the queue alive.
    impl_->post([impl = impl_, block = std::move(block)] { block(); });
}

void DispatchQueue::asyncHandOff(Block block) const {
    impl_->post([impl = impl_, block = std::move(block)] { block(); }, false, true);
}

void DispatchQueue::asyncBarrier(Block block) const {
    impl_->post([impl = impl_, block = std::move(block)] { block(); }, true);
}

void DispatchQueue::sync(const Block& block) const {
    if (isCurrent()) {
        block();
        return;
    }
    if (impl_->barriers) {
        impl_->barriers->runHere([&] { impl_->runMarked(block); }, false);
        return;
    }
    std::promise<void> done;
    impl_->post([&] {
        try {
            block();
        } catch (...) {
        }
        done.set_value();
    });
    done.get_future().wait();
}

void DispatchQueue::asyncAfter(double seconds, Block block) const {
    if (seconds <= 0) {
        async(std::move(block));
        return;
    }
    auto timer = std::make_shared<asio::steady_timer>(
        detail::poolExecutor(), std::chrono::duration_cast<asio::steady_timer::duration>(
                                    std::chrono::duration<double>(seconds)));
    timer->async_wait([timer, queue = *this, block = std::move(block)](const std::error_code&) {
        queue.async(block);
    });
}

void DispatchOnce::operator()(const std::function<void()>& block) {
    std::call_once(flag_, block);
}

}  // namespace lmkit
