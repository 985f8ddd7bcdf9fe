#include "lmkit/platform/DispatchQueue.hpp"

#include <array>
#include <future>
#include <mutex>

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

const char* globalLabel(QoS qos) {
    switch (qos) {
        case QoS::UserInteractive:
            return "com.apple.root.user-interactive-qos";
        case QoS::UserInitiated:
            return "com.apple.root.user-initiated-qos";
        case QoS::Default:
            return "com.apple.root.default-qos";
        case QoS::Utility:
            return "com.apple.root.utility-qos";
        case QoS::Background:
            return "com.apple.root.background-qos";
    }
    return "com.apple.root.default-qos";
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

void DispatchQueue::Impl::post(Block block) {
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
    if (strand) {
        asio::post(*strand, std::move(run));
    } else {
        asio::post(detail::poolExecutor(), std::move(run));
    }
}

DispatchQueue DispatchQueue::serial(std::string label) {
    return DispatchQueue(makeImpl(std::move(label), true));
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
        auto impl = makeImpl("com.apple.main-thread", true);
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

void DispatchQueue::sync(const Block& block) const {
    if (isCurrent()) {
        block();
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
