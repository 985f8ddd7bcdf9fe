#include "lmkit/nodes/Speedometer.hpp"

#include <charconv>
#include <cmath>
#include <mutex>
#include <random>

#include <fmt/format.h>

#include "lmkit/foundation/Log.hpp"
#include "lmkit/netinfo/VPNNetworkStatusMonitor.hpp"
#include "lmkit/platform/Clock.hpp"
#include "lmkit/platform/UdpSocket.hpp"
#include "lmkit/platform/WeakTimer.hpp"

namespace lmkit {

namespace {

// Every packet starts with this tag, so that a stray datagram on the port is told apart from an
// echo at the first bytes.
constexpr std::string_view kPayloadTag = "LMSPD";

std::int64_t nowMicroseconds() {
    return static_cast<std::int64_t>(std::llround(Clock::nowSeconds() * 1e6));
}

// A run token that differs between engines and runs: an echo of an earlier run (or of another
// engine sharing the endpoint) never counts for this one.
std::uint64_t makeRunToken() {
    static thread_local std::mt19937_64 generator{std::random_device{}()};
    return generator();
}

// "LMSPD <token> <round> <index> <sent microseconds>"
std::string makePayload(std::uint64_t token, int round, int index, std::int64_t sentMicros) {
    return fmt::format("{} {:x} {} {} {}", kPayloadTag, token, round, index, sentMicros);
}

struct EchoFields {
    std::uint64_t token = 0;
    int round = -1;
    int index = -1;
    std::int64_t sentMicros = 0;
};

// Reads the fields back from an echo; nullopt for anything that is not one of our packets.
std::optional<EchoFields> parseEcho(const std::vector<std::uint8_t>& data) {
    std::string_view text(reinterpret_cast<const char*>(data.data()), data.size());
    if (text.substr(0, kPayloadTag.size()) != kPayloadTag)
        return std::nullopt;
    text.remove_prefix(kPayloadTag.size());
    EchoFields fields;
    auto field = [&text](auto& value, int base) {
        if (text.empty() || text.front() != ' ')
            return false;
        text.remove_prefix(1);
        auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value, base);
        if (ec != std::errc() || end == text.data())
            return false;
        text.remove_prefix(static_cast<std::size_t>(end - text.data()));
        return true;
    };
    if (!field(fields.token, 16) || !field(fields.round, 10) || !field(fields.index, 10) ||
        !field(fields.sentMicros, 10) || !text.empty())
        return std::nullopt;
    return fields;
}

Error speedometerError(long code, std::string description) {
    return Error::withDescription(Speedometer::kErrorDomain, code, std::move(description));
}

}  // namespace

// The socket's delegate: the socket holds it weakly and it holds the engine weakly, so neither
// keeps the other alive.
class Speedometer::SocketEvents : public UdpSocketDelegate {
  public:
    explicit SocketEvents(std::weak_ptr<Speedometer> owner) : owner_(std::move(owner)) {}
    void udpSocketDidReceiveData(UdpSocket&, const Datagram& datagram) override {
        if (auto owner = owner_.lock())
            owner->didReceive(datagram.data);
    }
    void udpSocketDidNotSendData(UdpSocket&, long tag, const Error& error) override {
        // A packet that did not leave simply gets no echo and counts as lost; the round goes on.
        log::debug(fmt::format("[Speedometer] packet {} not sent: {}", tag, describe(error)));
    }
    void udpSocketDidClose(UdpSocket& socket, const std::optional<Error>& error) override {
        if (auto owner = owner_.lock())
            owner->didClose(socket, error);
    }

  private:
    std::weak_ptr<Speedometer> owner_;
};

struct Speedometer::State {
    explicit State(const void* owner)
        : workQueue(DispatchQueue::serial(fmt::format("Speedometer.workQueue.{}", owner))),
          delegateQueue(DispatchQueue::serial(fmt::format("Speedometer.delegateQueue.{}", owner))) {
    }

    const DispatchQueue workQueue;

    // Held while a delegate call runs and by stop(): once stop() returns, no delegate call is
    // under way on another thread and none starts. Recursive so that a delegate may stop the
    // engine from inside its own callback.
    std::recursive_mutex deliveryMutex;

    mutable std::mutex mutex;
    // Guarded by mutex.
    std::weak_ptr<SpeedometerDelegate> delegate;
    DispatchQueue delegateQueue;
    bool running = false;
    // Bumped by every start and stop: work queued for an earlier run sees another value and
    // does nothing.
    std::uint64_t generation = 0;
    std::shared_ptr<UdpSocket> socket;
    std::shared_ptr<SocketEvents> socketEvents;
    std::shared_ptr<WeakTimer> roundTimer;

    // Work queue only.
    std::uint64_t token = 0;
    int round = 0;
    int sentInRound = 0;
    int answeredInRound = 0;
    bool roundOpen = false;
    std::vector<std::int64_t> sentMicros;  // per packet of the current round; 0 = not sent
    std::vector<double> delays;            // per packet of the current round; -1 = no echo yet
};

Speedometer::Speedometer(SpeedometerTask task)
    : task_(std::move(task)), state_(std::make_shared<State>(this)) {}

std::shared_ptr<Speedometer> Speedometer::create(SpeedometerTask task) {
    return std::shared_ptr<Speedometer>(new Speedometer(std::move(task)));
}

Speedometer::~Speedometer() {
    stop();
}

const SpeedometerTask& Speedometer::task() const {
    return task_;
}

void Speedometer::setDelegate(std::weak_ptr<SpeedometerDelegate> delegate) {
    std::lock_guard guard(state_->mutex);
    state_->delegate = std::move(delegate);
}

std::shared_ptr<SpeedometerDelegate> Speedometer::delegate() const {
    std::lock_guard guard(state_->mutex);
    return state_->delegate.lock();
}

void Speedometer::setDelegateQueue(DispatchQueue queue) {
    std::lock_guard guard(state_->mutex);
    state_->delegateQueue = std::move(queue);
}

bool Speedometer::isRunning() const {
    std::lock_guard guard(state_->mutex);
    return state_->running;
}

std::optional<Error> Speedometer::validateTask(const SpeedometerTask& task) {
    if (task.host.empty())
        return speedometerError(kErrorBadTask, "the task names no host");
    if (task.port == 0)
        return speedometerError(kErrorBadTask, "the task names no port");
    if (task.rounds < 1 || task.packets < 1)
        return speedometerError(kErrorBadTask,
                                fmt::format("a task needs at least one round of one packet "
                                            "(rounds {}, packets {})",
                                            task.rounds, task.packets));
    if (task.packets > kMaxPacketsPerRound)
        return speedometerError(kErrorBadTask,
                                fmt::format("at most {} packets per round (asked for {})",
                                            kMaxPacketsPerRound, task.packets));
    if (!std::isfinite(task.intervalTime) || task.intervalTime < 0 ||
        !std::isfinite(task.timeout) || task.timeout <= 0)
        return speedometerError(kErrorBadTask,
                                "the packet interval must be 0 or more and the time-out above 0");
    return std::nullopt;
}

void Speedometer::start() {
    std::uint64_t generation;
    {
        std::lock_guard guard(state_->mutex);
        if (state_->running)
            return;
        state_->running = true;
        generation = ++state_->generation;
    }
    state_->workQueue.async([weak = weak_from_this(), generation] {
        if (auto self = weak.lock())
            self->beginRun(generation);
    });
}

void Speedometer::stop() {
    std::shared_ptr<UdpSocket> socket;
    std::shared_ptr<WeakTimer> timer;
    {
        std::lock_guard guard(state_->mutex);
        state_->running = false;
        ++state_->generation;
        socket = std::move(state_->socket);
        state_->socketEvents.reset();
        timer = std::move(state_->roundTimer);
    }
    if (timer)
        timer->invalidate();
    if (socket)
        socket->close();
    // Waits for a delegate call running on another thread (a call on this thread is the caller
    // itself and is let through by the recursive lock).
    std::lock_guard delivery(state_->deliveryMutex);
}

bool Speedometer::isCurrent(std::uint64_t generation) const {
    std::lock_guard guard(state_->mutex);
    return state_->running && state_->generation == generation;
}

void Speedometer::beginRun(std::uint64_t generation) {
    if (!isCurrent(generation))
        return;
    if (auto invalid = validateTask(task_)) {
        fail(generation, *invalid);
        return;
    }
    auto events = std::make_shared<SocketEvents>(weak_from_this());
    auto socket = UdpSocket::create(events, state_->workQueue);
    Error failure;
    bool ok = false;
    auto& status = VPNNetworkStatusMonitor::sharedMonitor();
    // One reading decides whether the interface is usable and which one is bound.
    auto binding = status.bindingForInterfaceType(task_.interfaceType);
    if (!binding.usable && task_.interfaceType == kInterfaceWiFi) {
        failure = speedometerError(kErrorInterfaceDown, "wifi interface is not up, do not bind.");
    } else if (!binding.usable) {
        failure = speedometerError(kErrorInterfaceDown,
                                   fmt::format("wwan interface({}) is not up, do not bind.",
                                               status.interfaceNaming().cellularInterface()));
    } else if (binding.interfaceName) {
        ok = socket->bindToPort(0, *binding.interfaceName, &failure) &&
             socket->beginReceiving(&failure);
    } else {
        ok = socket->bindToPort(0, &failure) && socket->beginReceiving(&failure);
    }
    if (!ok) {
        socket->close();
        if (failure.domain != kErrorDomain)
            failure = Error(kErrorDomain, kErrorSocket, failure.userInfo);
        fail(generation, failure);
        return;
    }
    {
        std::lock_guard guard(state_->mutex);
        if (!state_->running || state_->generation != generation) {
            socket->close();
            return;
        }
        state_->socket = socket;
        state_->socketEvents = std::move(events);
    }
    state_->token = makeRunToken();
    state_->round = 0;
    log::info(fmt::format("[Speedometer] start {}:{}, {} rounds of {} packets every {:.3f}s",
                          task_.host, task_.port, task_.rounds, task_.packets, task_.intervalTime));
    beginRound(generation);
}

void Speedometer::beginRound(std::uint64_t generation) {
    if (!isCurrent(generation))
        return;
    auto packets = static_cast<std::size_t>(task_.packets);
    state_->sentInRound = 0;
    state_->answeredInRound = 0;
    state_->roundOpen = true;
    state_->sentMicros.assign(packets, 0);
    state_->delays.assign(packets, -1);
    sendNext(generation);
}

void Speedometer::sendNext(std::uint64_t generation) {
    std::shared_ptr<UdpSocket> socket;
    {
        std::lock_guard guard(state_->mutex);
        if (!state_->running || state_->generation != generation)
            return;
        socket = state_->socket;
    }
    if (!socket)
        return;
    int index = state_->sentInRound++;
    std::int64_t sent = nowMicroseconds();
    state_->sentMicros[static_cast<std::size_t>(index)] = sent;
    socket->sendData(makePayload(state_->token, state_->round, index, sent), task_.host, task_.port,
                     index);
    if (state_->sentInRound < task_.packets) {
        state_->workQueue.asyncAfter(task_.intervalTime, [weak = weak_from_this(), generation] {
            if (auto self = weak.lock())
                self->sendNext(generation);
        });
        return;
    }
    // Every packet is out: the round ends at its deadline, or earlier once all have answered.
    if (state_->answeredInRound == task_.packets) {
        closeRound(generation);
        return;
    }
    auto timer = WeakTimer::scheduledTimer<Speedometer>(
        task_.timeout, weak_from_this(),
        [generation](Speedometer& self, WeakTimer&) { self.closeRound(generation); }, false,
        state_->workQueue);
    std::lock_guard guard(state_->mutex);
    if (state_->running && state_->generation == generation)
        state_->roundTimer = std::move(timer);
    else
        timer->invalidate();
}

void Speedometer::didReceive(const std::vector<std::uint8_t>& data) {
    auto echo = parseEcho(data);
    if (!echo || !state_->roundOpen || echo->token != state_->token ||
        echo->round != state_->round || echo->index < 0 || echo->index >= state_->sentInRound)
        return;
    auto index = static_cast<std::size_t>(echo->index);
    // The stamp must be the one this packet left with: a forged or corrupted echo cannot set a
    // delay, and a duplicate finds the delay already set.
    if (state_->sentMicros[index] != echo->sentMicros || state_->delays[index] >= 0)
        return;
    double delay = static_cast<double>(nowMicroseconds() - echo->sentMicros) / 1000.0;
    state_->delays[index] = delay < 0 ? 0 : delay;
    ++state_->answeredInRound;
    std::uint64_t generation;
    {
        std::lock_guard guard(state_->mutex);
        generation = state_->generation;
    }
    if (state_->answeredInRound == task_.packets && state_->sentInRound == task_.packets)
        closeRound(generation);
}

void Speedometer::closeRound(std::uint64_t generation) {
    if (!state_->roundOpen || !isCurrent(generation))
        return;
    state_->roundOpen = false;
    {
        std::lock_guard guard(state_->mutex);
        if (state_->roundTimer) {
            state_->roundTimer->invalidate();
            state_->roundTimer.reset();
        }
    }
    bool last = state_->round + 1 >= task_.rounds;
    deliver(generation,
            [delays = state_->delays](SpeedometerDelegate& delegate, Speedometer& engine) {
                delegate.speedometerDidCompleteRound(engine, delays);
            });
    if (last) {
        finishRun(generation);
        return;
    }
    ++state_->round;
    state_->workQueue.asyncAfter(task_.intervalTime, [weak = weak_from_this(), generation] {
        if (auto self = weak.lock())
            self->beginRound(generation);
    });
}

void Speedometer::didClose(UdpSocket& socket, const std::optional<Error>& error) {
    std::uint64_t generation;
    {
        std::lock_guard guard(state_->mutex);
        // Only the current run's socket closing on its own is a failure; stop() drops the socket
        // before closing it.
        if (!state_->running || state_->socket.get() != &socket)
            return;
        generation = state_->generation;
    }
    Error failure = error ? Error(kErrorDomain, kErrorSocketClosed, error->userInfo)
                          : speedometerError(kErrorSocketClosed, "the socket closed");
    fail(generation, failure);
}

void Speedometer::fail(std::uint64_t generation, const Error& error) {
    log::error(
        fmt::format("[Speedometer] {}:{} failed: {}", task_.host, task_.port, describe(error)));
    deliver(generation, [error](SpeedometerDelegate& delegate, Speedometer& engine) {
        delegate.speedometerDidFail(engine, error);
    });
    finishRun(generation);
}

void Speedometer::finishRun(std::uint64_t generation) {
    std::shared_ptr<UdpSocket> socket;
    std::shared_ptr<WeakTimer> timer;
    {
        std::lock_guard guard(state_->mutex);
        if (state_->generation != generation)
            return;
        // The run is over, but the reports just queued still belong to it: the generation stays
        // so that they are delivered; the next start() moves it on.
        state_->running = false;
        socket = std::move(state_->socket);
        state_->socketEvents.reset();
        timer = std::move(state_->roundTimer);
    }
    if (timer)
        timer->invalidate();
    if (socket)
        socket->close();
}

void Speedometer::deliver(std::uint64_t generation,
                          std::function<void(SpeedometerDelegate&, Speedometer&)> call) {
    DispatchQueue queue = [this] {
        std::lock_guard guard(state_->mutex);
        return state_->delegateQueue;
    }();
    queue.async([weak = weak_from_this(), state = state_, generation, call = std::move(call)] {
        auto self = weak.lock();
        if (!self)
            return;
        std::lock_guard delivery(state->deliveryMutex);
        std::shared_ptr<SpeedometerDelegate> delegate;
        {
            std::lock_guard guard(state->mutex);
            if (state->generation != generation)
                return;
            delegate = state->delegate.lock();
        }
        if (delegate)
            call(*delegate, *self);
    });
}

}  // namespace lmkit
