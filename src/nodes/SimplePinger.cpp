#include "lmkit/nodes/SimplePinger.hpp"

#include <cstdlib>

#include <fmt/format.h>

#include "lmkit/foundation/Log.hpp"
#include "lmkit/netinfo/IPAddressString.hpp"
#include "lmkit/netinfo/VPNNetworkStatusMonitor.hpp"
#include "lmkit/nodes/ProbePacket.hpp"
#include "lmkit/platform/Clock.hpp"

namespace lmkit {

namespace {

std::string describeOptional(const std::optional<Error>& error) {
    return error ? describe(*error) : "(null)";
}

}  // namespace

// The socket's delegate. The socket holds it weakly and it holds the pinger weakly; dropping it
// (closeUdpSocket) silences the socket at once, so a close of our own reports nothing.
class SimplePinger::SocketEvents : public UdpSocketDelegate {
  public:
    explicit SocketEvents(std::weak_ptr<SimplePinger> owner) : owner_(std::move(owner)) {}
    void udpSocketDidReceiveData(UdpSocket&, const Datagram& datagram) override {
        // The source address is not examined: one pinger talks to one endpoint.
        if (auto owner = owner_.lock())
            owner->didReceiveData(datagram);
    }
    void udpSocketDidNotSendData(UdpSocket&, long tag, const Error& error) override {
        if (auto owner = owner_.lock())
            owner->didNotSendData(tag, error);
    }
    void udpSocketDidClose(UdpSocket&, const std::optional<Error>& error) override {
        if (auto owner = owner_.lock())
            owner->didClose(error);
    }

  private:
    std::weak_ptr<SimplePinger> owner_;
};

SimplePinger::SimplePinger(long bindedInterfaceType, double testPingTimeout,
                           std::optional<SimplePingNode> pingNode,
                           std::optional<DispatchQueue> queue)
    : bindedInterfaceType_(bindedInterfaceType),
      testPingTimeout_(testPingTimeout),
      pingNode_(std::move(pingNode)),
      dispatchQueue_(std::move(queue)) {}

std::shared_ptr<SimplePinger> SimplePinger::create(long bindedInterfaceType, double testPingTimeout,
                                                   std::optional<SimplePingNode> pingNode,
                                                   std::optional<DispatchQueue> dispatchQueue) {
    return std::shared_ptr<SimplePinger>(new SimplePinger(
        bindedInterfaceType, testPingTimeout, std::move(pingNode), std::move(dispatchQueue)));
}

SimplePinger::~SimplePinger() {
    std::shared_ptr<UdpSocket> socket;
    {
        std::lock_guard guard(mutex_);
        if (timeoutChecker_)
            timeoutChecker_->invalidate();
        socket = std::move(udpSocket_);
        socketEvents_.reset();
    }
    if (socket)
        socket->close();
}

// Accessors.

std::optional<SimplePingNode> SimplePinger::pingNode() const {
    std::lock_guard guard(mutex_);
    return pingNode_;
}
void SimplePinger::setPingNode(std::optional<SimplePingNode> node) {
    std::lock_guard guard(mutex_);
    pingNode_ = std::move(node);
}
std::optional<DispatchQueue> SimplePinger::dispatchQueue() const {
    std::lock_guard guard(mutex_);
    return dispatchQueue_;
}
std::optional<DispatchQueue> SimplePinger::generalQueue() const {
    std::lock_guard guard(mutex_);
    return generalQueue_;
}
std::shared_ptr<UdpSocket> SimplePinger::udpSocket() const {
    std::lock_guard guard(mutex_);
    return udpSocket_;
}
double SimplePinger::firstPacketTimeStamp() const {
    std::lock_guard guard(mutex_);
    return firstPacketTimeStamp_;
}
void SimplePinger::setFirstPacketTimeStamp(double milliseconds) {
    std::lock_guard guard(mutex_);
    firstPacketTimeStamp_ = milliseconds;
}

// Public entry points.

void SimplePinger::testPing(SuccessBlock success, FailureBlock failure) {
    {
        std::lock_guard guard(mutex_);
        successBlock_ = std::move(success);
        failureBlock_ = std::move(failure);
    }
    createGeneralQueue();
    generalQueue()->async([weak = weak_from_this()] {
        if (auto self = weak.lock())
            self->startPing();
    });
}

void SimplePinger::stop() {
    closeUdpSocket();
    invalidateTimeoutTimer();
    // A start already queued or running arms its timer after the line above; this task comes
    // after it on the work queue and cancels that timer too.
    if (auto queue = generalQueue()) {
        queue->async([weak = weak_from_this()] {
            if (auto self = weak.lock())
                self->invalidateTimeoutTimer();
        });
    }
}

bool SimplePinger::isInterfaceUp() const {
    return VPNNetworkStatusMonitor::sharedMonitor()
        .bindingForInterfaceType(bindedInterfaceType_)
        .usable;
}

// Set-up.

void SimplePinger::createGeneralQueue() {
    std::lock_guard guard(mutex_);
    if (generalQueue_)
        return;
    generalQueue_ =
        DispatchQueue::serial(fmt::format("com.simpleping.{}", static_cast<const void*>(this)));
    if (!dispatchQueue_)
        dispatchQueue_ = generalQueue_;
}

void SimplePinger::startPing() {
    std::optional<Error> error;
    if (!createUdpSocketIfHasError(&error) && error) {
        callFailureBlockWithError(Error(kErrorDomain, kErrorSocket, error->userInfo));
        return;
    }
    // A creation that failed without saying why still sends: the socket it made is only closed
    // by a task queued behind this one.
    if (send())
        startTimeoutChecker();
}

bool SimplePinger::createUdpSocketIfHasError(std::optional<Error>* error) {
    std::shared_ptr<UdpSocket> socket;
    {
        std::lock_guard guard(mutex_);
        if (udpSocket_)
            return true;
        auto events = std::make_shared<SocketEvents>(weak_from_this());
        // Delegate events and the socket's own work share the work queue.
        socket = UdpSocket::create(events, *generalQueue_);
        udpSocket_ = socket;
        socketEvents_ = std::move(events);
    }
    if (!configUdpSocketIfHasError(*socket, error)) {
        closeUdpSocket();
        return false;
    }
    return true;
}

bool SimplePinger::configUdpSocketIfHasError(UdpSocket& socket, std::optional<Error>* error) {
    Error failure;
    // One reading decides whether the interface is usable and which one is bound (only the
    // cellular path names its interface).
    auto binding =
        VPNNetworkStatusMonitor::sharedMonitor().bindingForInterfaceType(bindedInterfaceType_);
    if (!binding.usable) {
        if (error)
            *error = Error::withDescription(kErrorDomain, kErrorInterfaceDown,
                                            bindedInterfaceType_ == kInterfaceWiFi
                                                ? kWiFiDownDescription
                                                : kWWANDownDescription);
        return false;
    }
    bool bound = binding.interfaceName ? socket.bindToPort(0, *binding.interfaceName, &failure)
                                       : socket.bindToPort(0, &failure);
    if (bound && socket.beginReceiving(&failure))
        return true;
    if (error)
        *error = failure;
    return false;
}

void SimplePinger::closeUdpSocket() {
    auto queue = generalQueue();
    if (!queue)
        return;
    // Asynchronous on purpose: a socket that failed its configuration inside startPing() is
    // still there when the same task goes on to send.
    queue->async([weak = weak_from_this()] {
        auto self = weak.lock();
        if (!self)
            return;
        std::shared_ptr<UdpSocket> socket;
        {
            std::lock_guard guard(self->mutex_);
            socket = std::move(self->udpSocket_);
            self->socketEvents_.reset();
        }
        if (socket)
            socket->close();
    });
}

// Sending and the timer.

bool SimplePinger::send() {
    std::optional<SimplePingNode> node;
    std::shared_ptr<UdpSocket> socket;
    double origin;
    {
        std::lock_guard guard(mutex_);
        node = pingNode_;
        socket = udpSocket_;
        origin = firstPacketTimeStamp_;
    }
    if (!node || node->address.empty())
        return false;
    auto stamp = static_cast<std::int64_t>(Clock::nowMilliseconds() - origin);
    {
        std::lock_guard guard(mutex_);
        outstandingStamp_ = stamp;
        lastSentStamp_ = stamp;
    }
    // The whole datagram is the stamp in decimal digits: no header, no terminator.
    std::string payload = std::to_string(stamp);
    if (socket) {
        socket->sendData(payload, node->address, static_cast<uint16_t>(node->port & 0xFFFF),
                         static_cast<long>(stamp));
    }
    return true;
}

void SimplePinger::startTimeoutChecker() {
    invalidateTimeoutTimer();
    auto timer = WeakTimer::scheduledTimer<SimplePinger>(
        testPingTimeout_, weak_from_this(),
        [](SimplePinger& pinger, WeakTimer&) { pinger.timeoutHandler(); }, false, *generalQueue());
    std::lock_guard guard(mutex_);
    timeoutChecker_ = std::move(timer);
}

void SimplePinger::timeoutHandler() {
    {
        // The datagram is lost for this measurement; an echo of it from now on is late.
        std::lock_guard guard(mutex_);
        outstandingStamp_.reset();
    }
    callFailureBlockWithError(
        Error::withDescription(kErrorDomain, kErrorTimeout, kTimeoutDescription));
}

void SimplePinger::invalidateTimeoutTimer() {
    std::shared_ptr<WeakTimer> timer;
    {
        std::lock_guard guard(mutex_);
        timer = std::move(timeoutChecker_);
    }
    if (timer)
        timer->invalidate();
}

// Reporting: whichever result reaches the callback queue first wins; the other finds both
// callbacks gone.

void SimplePinger::callSuccessBlockWithDelay(double delay) {
    auto queue = dispatchQueue();
    if (!queue)
        return;
    queue->async([weak = weak_from_this(), delay] {
        auto self = weak.lock();
        if (!self)
            return;
        SuccessBlock success;
        {
            std::lock_guard guard(self->mutex_);
            if (!self->successBlock_)
                return;
            // Cleared before the call, so that the callback may start the next measurement.
            success = std::move(self->successBlock_);
            self->successBlock_ = nullptr;
            self->failureBlock_ = nullptr;
        }
        success(delay);
    });
}

void SimplePinger::callFailureBlockWithError(std::optional<Error> error) {
    auto queue = dispatchQueue();
    if (!queue)
        return;
    queue->async([weak = weak_from_this(), error = std::move(error)] {
        auto self = weak.lock();
        if (!self)
            return;
        FailureBlock failure;
        {
            std::lock_guard guard(self->mutex_);
            if (!self->failureBlock_)
                return;
            failure = std::move(self->failureBlock_);
            self->successBlock_ = nullptr;
            self->failureBlock_ = nullptr;
        }
        failure(error);
    });
}

// Socket events.

void SimplePinger::didReceiveData(const Datagram& datagram) {
    std::string text(datagram.data.begin(), datagram.data.end());
    if (text.empty() || !probe::isValidUtf8(text))
        return;
    if (!ipaddress::isAllDigits(text)) {
        log::error(fmt::format("time from server:{} is not all digitis", text));
        return;
    }
    double stamp = std::strtod(text.c_str(), nullptr);
    if (stamp < 0) {
        log::error(fmt::format("invalid time({}) from server", text));
        return;
    }
    // The arrival time is the kernel's stamp where there is one: time this process took to get
    // round to the datagram is not network delay.
    double delay = datagram.receiveTime - (stamp + firstPacketTimeStamp());
    // An echo stamped later than our clock says is not a measurement.
    if (delay < 0)
        return;
    {
        std::lock_guard guard(mutex_);
        auto echoed = static_cast<std::int64_t>(stamp);
        if (outstandingStamp_ != echoed) {
            // Not the datagram the pending measurement waits for: an echo of one already answered
            // is a duplicate, one of an earlier datagram is late. Neither is this round's delay.
            if (answeredStamp_ == echoed)
                duplicateReplies_.fetch_add(1);
            else if (lastSentStamp_ && echoed <= *lastSentStamp_)
                lateReplies_.fetch_add(1);
            return;
        }
        outstandingStamp_.reset();
        answeredStamp_ = echoed;
    }
    callSuccessBlockWithDelay(delay);
    invalidateTimeoutTimer();
}

void SimplePinger::didNotSendData(long, const Error& error) {
    log::error(fmt::format("didNotSendDataWithTag, bindedInterfaceType:{}, error:{}",
                           bindedInterfaceType_, describe(error)));
    // No result now: the timer reports the lost datagram.
    closeUdpSocket();
}

void SimplePinger::didClose(const std::optional<Error>& error) {
    log::error(fmt::format("udp did close, bindedInterfaceType:{}, err:{}", bindedInterfaceType_,
                           describeOptional(error)));
    std::optional<Error> failure;
    if (error) {
        failure =
            error->userInfo.empty()
                ? Error::withDescription(kErrorDomain, kErrorSocketClosed, kDidCloseDescription)
                : Error(kErrorDomain, kErrorSocketClosed, error->userInfo);
    }
    // A close without an error still ends a pending measurement, with an absent error.
    callFailureBlockWithError(std::move(failure));
    closeUdpSocket();
}

}  // namespace lmkit
