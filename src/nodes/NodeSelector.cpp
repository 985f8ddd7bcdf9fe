#include "lmkit/nodes/NodeSelector.hpp"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include <sys/socket.h>

#include <fmt/format.h>

#include "lmkit/foundation/Log.hpp"
#include "lmkit/foundation/UserDefaults.hpp"
#include "lmkit/netinfo/IPAddressString.hpp"
#include "lmkit/netinfo/NetworkInfoProvider.hpp"
#include "lmkit/netinfo/VPNNetworkStatusMonitor.hpp"
#include "lmkit/nodes/DelayStatistics.hpp"
#include "lmkit/nodes/ProbePacing.hpp"
#include "lmkit/nodes/ProbePacket.hpp"
#include "lmkit/platform/Clock.hpp"
#include "lmkit/platform/Localized.hpp"
#include "nodes/NodeSelectorShared.hpp"
#include "nodes/ProbeKeys.hpp"

namespace lmkit {

using namespace node_selector;

// The socket's delegate. The socket holds it weakly and it holds the selector weakly, so neither
// keeps the other alive; dropping it (closeUdpSocket) silences the socket at once.
class NodeSelector::SocketEvents : public UdpSocketDelegate {
  public:
    explicit SocketEvents(std::weak_ptr<NodeSelector> owner) : owner_(std::move(owner)) {}
    void udpSocketDidReceiveDatagrams(UdpSocket& socket,
                                      const std::vector<Datagram>& datagrams) override {
        if (auto owner = owner_.lock())
            owner->didReceiveDatagrams(socket, datagrams);
    }
    void udpSocketDidNotSendData(UdpSocket& socket, long tag, const Error& error) override {
        if (auto owner = owner_.lock())
            owner->didNotSendData(socket, tag, error);
    }
    void udpSocketDidClose(UdpSocket& socket, const std::optional<Error>& error) override {
        if (auto owner = owner_.lock())
            owner->didClose(socket, error);
    }

  private:
    std::weak_ptr<NodeSelector> owner_;
};

// Creation.

NodeSelector::NodeSelector(long bindedInterfaceType, std::optional<DispatchQueue> dispatchQueue)
    : dataProcessQueue_(DispatchQueue::serial(
          fmt::format("nodeselector.dataProcessQueue.{}", static_cast<const void*>(this)))),
      bindedInterfaceType_(bindedInterfaceType),
      socketDelegateQueue_(DispatchQueue::global(QoS::Default)),
      sendPacketQueue_(DispatchQueue::global(QoS::UserInitiated)),
      dispatchQueue_(std::move(dispatchQueue)),
      keys_(std::make_unique<ProbeKeys>()) {}

std::shared_ptr<NodeSelector> NodeSelector::create() {
    std::shared_ptr<NodeSelector> selector(new NodeSelector(kInterfaceAny, std::nullopt));
    selector->enableRearDelay_ = UserDefaults::standard()->boolForKey(kEnableRearDelayKey);
    selector->commonInit();
    return selector;
}

std::shared_ptr<NodeSelector> NodeSelector::create(long bindedInterfaceType, double testPingTimeout,
                                                   long sendPacketCount,
                                                   std::optional<DispatchQueue> dispatchQueue) {
    std::shared_ptr<NodeSelector> selector(
        new NodeSelector(bindedInterfaceType, std::move(dispatchQueue)));
    selector->testPingTimeout_ = testPingTimeout > 0 ? testPingTimeout : kDefaultTestPingTimeout;
    selector->sendPacketCount_ = sendPacketCount >= 1 ? sendPacketCount : kDefaultSendPacketCount;
    selector->commonInit();
    return selector;
}

void NodeSelector::commonInit() {
    // Nodes may be asked for their carrier's address while this selector is around.
    NetworkInfoProvider::connectCarrierTypeCodeToNodes();
    log::info(
        fmt::format("[NodeSelector] Initialize, bind socket interface:{}, rear delay "
                    "enable:{}",
                    bindedInterfaceTypeString(), enableRearDelay() ? 1 : 0));
}

NodeSelector::~NodeSelector() {
    std::shared_ptr<UdpSocket> socket;
    {
        std::lock_guard guard(mutex_);
        if (packetRecvTimer_)
            packetRecvTimer_->invalidate();
        if (sendGroupPacketTimer_)
            sendGroupPacketTimer_->invalidate();
        socket = std::move(udpSocket_);
        socketEvents_.reset();
    }
    if (socket)
        socket->close();
}

// Configuration.

long NodeSelector::port() const {
    std::lock_guard guard(mutex_);
    return port_ == 0 ? probe::kDefaultProbePort : port_;
}
void NodeSelector::setPort(long port) {
    std::lock_guard guard(mutex_);
    port_ = port;
}
std::string NodeSelector::sendDataPrefix() const {
    std::lock_guard guard(mutex_);
    return sendDataPrefix_;
}
void NodeSelector::setSendDataPrefix(const std::string& prefix) {
    std::lock_guard guard(mutex_);
    sendDataPrefix_ = prefix;
}
long NodeSelector::bindedInterfaceType() const {
    std::lock_guard guard(mutex_);
    return bindedInterfaceType_;
}
std::string NodeSelector::bindedInterfaceTypeString() const {
    switch (bindedInterfaceType()) {
        case kInterfaceAny:
            return "Any";
        case kInterfaceWiFi:
            return "Wi-Fi";
        case kInterfaceCellular:
            return "Cellular";
        default:
            return "Unknown";
    }
}
long NodeSelector::mode() const {
    std::lock_guard guard(mutex_);
    return mode_;
}
std::string NodeSelector::modeString() const {
    switch (mode()) {
        case kModeTestPing:
            return "Test Ping";
        case kModeBestNode:
            return "Best Node";
        case kModeTestMultipath:
            return "Test Multipath";
        default:
            return "Unknown";
    }
}
long NodeSelector::delayMode() const {
    std::lock_guard guard(mutex_);
    return delayMode_;
}
void NodeSelector::setDelayMode(long delayMode) {
    std::lock_guard guard(mutex_);
    delayMode_ = delayMode;
}
std::string NodeSelector::delayModeString() const {
    switch (delayMode()) {
        case kDelayModeAvg:
            return "avg";
        case kDelayModeMin:
            return "min";
        default:
            return "null";
    }
}
long NodeSelector::sendPacketCount() const {
    std::lock_guard guard(mutex_);
    return sendPacketCount_;
}
double NodeSelector::testPingTimeout() const {
    std::lock_guard guard(mutex_);
    return testPingTimeout_;
}
bool NodeSelector::enableRearDelay() const {
    std::lock_guard guard(mutex_);
    return enableRearDelay_;
}
void NodeSelector::setEnableRearDelay(bool enable) {
    std::lock_guard guard(mutex_);
    enableRearDelay_ = enable;
}
DispatchQueue NodeSelector::socketDelegateQueue() const {
    std::lock_guard guard(mutex_);
    return socketDelegateQueue_;
}
void NodeSelector::setSocketDelegateQueue(DispatchQueue queue) {
    std::lock_guard guard(mutex_);
    socketDelegateQueue_ = std::move(queue);
}
DispatchQueue NodeSelector::sendPacketQueue() const {
    std::lock_guard guard(mutex_);
    return sendPacketQueue_;
}
void NodeSelector::setSendPacketQueue(DispatchQueue queue) {
    std::lock_guard guard(mutex_);
    sendPacketQueue_ = std::move(queue);
}
long NodeSelector::sendedPacketNumber() const {
    std::lock_guard guard(mutex_);
    return sendedPacketNumber_;
}
bool NodeSelector::isIPV6() const {
    std::lock_guard guard(mutex_);
    return isIPV6_;
}
long NodeSelector::occurNoBufferSpaceAvailableErrorTimes() const {
    std::lock_guard guard(mutex_);
    return occurNoBufferSpaceAvailableErrorTimes_;
}
long NodeSelector::counterOfComputedDelay() const {
    std::lock_guard guard(mutex_);
    return counterOfComputedDelay_;
}
double NodeSelector::firstPacketTimeStamp() const {
    std::lock_guard guard(mutex_);
    return firstPacketTimeStamp_;
}
long NodeSelector::sendPacketGroupCount() const {
    std::lock_guard guard(mutex_);
    return sendPacketGroupCount_;
}
double NodeSelector::sendGroupPacketInternval() const {
    std::lock_guard guard(mutex_);
    return sendGroupPacketInternval_;
}
double NodeSelector::packetReceiveTimeout() const {
    std::lock_guard guard(mutex_);
    return packetReceiveTimeout_;
}
double NodeSelector::costTimeOfSendPackets() const {
    std::lock_guard guard(mutex_);
    return costTimeOfSendPackets_;
}
std::vector<std::string> NodeSelector::uniquePingServers() const {
    std::lock_guard guard(mutex_);
    return uniquePingServers_ ? *uniquePingServers_ : std::vector<std::string>{};
}
std::optional<Error> NodeSelector::error() const {
    std::lock_guard guard(mutex_);
    return error_;
}
double NodeSelector::startTime() const {
    std::lock_guard guard(mutex_);
    return startTime_;
}
double NodeSelector::endTime() const {
    std::lock_guard guard(mutex_);
    return endTime_;
}
std::shared_ptr<UdpSocket> NodeSelector::udpSocket() const {
    std::lock_guard guard(mutex_);
    return udpSocket_;
}

DispatchQueue NodeSelector::callbackQueue() const {
    std::lock_guard guard(mutex_);
    return dispatchQueue_ ? *dispatchQueue_ : DispatchQueue::main();
}

// Runs.

void NodeSelector::pickBestNodeFromNodes(const Nodes& nodes, std::shared_ptr<AccConfig> accConfig,
                                         long delayMode, BestNodeNotifyBlock success,
                                         FailureBlock failure) {
    {
        std::lock_guard guard(mutex_);
        mode_ = kModeBestNode;
        delayMode_ = delayMode;
    }
    start(nodes, std::move(accConfig), std::move(success), std::move(failure));
}

void NodeSelector::testMultipathNodeFromNodes(const Nodes& nodes,
                                              std::shared_ptr<AccConfig> accConfig, long delayMode,
                                              BestNodeNotifyBlock success, FailureBlock failure) {
    {
        std::lock_guard guard(mutex_);
        mode_ = kModeTestMultipath;
        delayMode_ = delayMode;
    }
    start(nodes, std::move(accConfig), std::move(success), std::move(failure));
}

void NodeSelector::testPingFromNode(std::shared_ptr<AccNode> node,
                                    std::shared_ptr<AccConfig> accConfig, NodeNotifyBlock success,
                                    FailureBlock failure) {
    {
        std::lock_guard guard(mutex_);
        mode_ = kModeTestPing;
    }
    BestNodeNotifyBlock first;
    if (success) {
        first = [success = std::move(success)](const Nodes& chosen, double delay, double loss,
                                               double deviation) {
            success(chosen.empty() ? nullptr : chosen.front(), delay, loss, deviation);
        };
    }
    Nodes nodes;
    if (node)
        nodes.push_back(std::move(node));
    start(nodes, std::move(accConfig), std::move(first), std::move(failure));
}

void NodeSelector::testPingFromAddress(const std::string& host, long port, NodeNotifyBlock success,
                                       FailureBlock failure) {
    auto node = std::make_shared<AccNode>();
    node->pingServer = host;
    node->ip = host;
    setPort(port);
    testPingFromNode(std::move(node), AccConfig::defaultConfig(), std::move(success),
                     std::move(failure));
}

void NodeSelector::testPingFromAddress(const std::string& host, NodeNotifyBlock success,
                                       FailureBlock failure) {
    testPingFromAddress(host, probe::kDefaultProbePort, std::move(success), std::move(failure));
}

void NodeSelector::stop() {
    {
        std::lock_guard guard(mutex_);
        if (sendGroupPacketTimer_)
            sendGroupPacketTimer_->invalidate();
        if (packetRecvTimer_)
            packetRecvTimer_->invalidate();
        // Blocks already queued for this run find a new generation and no callbacks.
        ++generation_;
        bestNodeNotifyBlock_ = nullptr;
        failureBlock_ = nullptr;
    }
    closeUdpSocket();
}

void NodeSelector::start(const Nodes& nodes, std::shared_ptr<AccConfig> accConfig,
                         BestNodeNotifyBlock success, FailureBlock failure) {
    std::optional<Error> socketError;
    if (!createUdpSocketIfHasError(&socketError)) {
        // The callbacks of this call are not stored yet: only one left from an earlier run can
        // hear about it. Callers check their node list and interface themselves.
        {
            std::lock_guard guard(mutex_);
            error_ = Error(kErrorDomain, kErrorSocket,
                           socketError ? socketError->userInfo : decltype(Error::userInfo){});
        }
        callFailureBlockIfNeeded();
        return;
    }
    if (nodes.empty()) {
        {
            std::lock_guard guard(mutex_);
            error_ = emptyNodesError();
        }
        callFailureBlockIfNeeded();
        return;
    }
    std::uint64_t generation;
    {
        std::lock_guard guard(mutex_);
        generation = ++generation_;
        // Stored at once rather than from a block on the callback queue, so that no reply of the
        // new run can complete it before its callbacks are in place.
        bestNodeNotifyBlock_ = std::move(success);
        failureBlock_ = std::move(failure);
    }
    dataProcessQueue_.async(
        [weak = weak_from_this(), generation, nodes, accConfig = std::move(accConfig)]() mutable {
            if (auto self = weak.lock())
                self->setUp(generation, std::move(nodes), std::move(accConfig));
        });
}

void NodeSelector::setUp(std::uint64_t generation, Nodes nodes,
                         std::shared_ptr<AccConfig> accConfig) {
    auto servers = std::make_shared<std::vector<std::string>>();
    servers->reserve(nodes.size());
    long probePort = port();
    // Each key's delays are known in number: no growth on the reply path.
    const std::size_t nodeCount = nodes.size();
    keys_->reset(std::move(nodes), static_cast<std::size_t>(std::max(sendPacketCount(), 1L)));
    std::string key;
    for (std::uint32_t n = 0; n < nodeCount; ++n) {
        const auto& node = keys_->nodes()[n];
        if (!node)
            continue;
        std::string server = node->safePingServer();
        probe::assignKeyWithHost(key, server, probePort);
        // One port for the whole run: a new key is a new server.
        if (keys_->add(key, n).second)
            servers->push_back(std::move(server));
    }
    std::string startLine;
    {
        std::lock_guard guard(mutex_);
        if (generation != generation_)
            return;
        if (packetRecvTimer_)
            packetRecvTimer_->invalidate();
        if (sendGroupPacketTimer_)
            sendGroupPacketTimer_->invalidate();
        accConfig_ = std::move(accConfig);
        lateReplies_ = 0;
        duplicateReplies_ = 0;
        counterOfComputedDelay_ = 0;
        currentSendingGroupIndex_ = 0;
        sendedPacketNumber_ = 0;
        isIPV6_ = false;
        computingStatus_ = kStatusIdle;
        repeatSendCount_ = sendPacketCount_;
        costTimeOfSendPackets_ = 0;
        uniquePingServers_ = servers;

        long n = static_cast<long>(servers->size());
        long k = occurNoBufferSpaceAvailableErrorTimes_;
        sendPacketGroupCount_ = pacing::calculateSendPacketGroupCountByNodeCount(n, k);
        sendGroupPacketInternval_ =
            pacing::sendGroupPacketInternval(testPingTimeout_, sendPacketCount_, k);
        packetReceiveTimeout_ =
            pacing::calculateReceivePacketTimeout(testPingTimeout_, sendPacketCount_, n);
        startTime_ = Clock::nowSeconds();
        if (mode_ == kModeBestNode || mode_ == kModeTestMultipath) {
            startLine = fmt::format(
                "[NodeSelector] Start, nodes count:{}, ping servers count:{}，packet timeout:{}ms, "
                "delayMode:{}",
                nodeCount, n, static_cast<long>(packetReceiveTimeout_ * 1000),
                delayMode_ == kDelayModeAvg   ? "avg"
                : delayMode_ == kDelayModeMin ? "min"
                                              : "null");
        }
    }
    if (!startLine.empty())
        log::info(startLine);
    sendPacketsDataByGroup(generation);
    // The room for delays and the settings store wait until the first group has left, so that
    // the probes do not wait on them. Nothing is recorded or scored before this block returns:
    // replies are recorded on this queue.
    keys_->makeRoomForDelays();
    scoringSettings_ = ScoringSettings::current();
}

// Socket.

std::string NodeSelector::constructKeyWithHost(const std::string& host, long port) {
    return probe::constructKeyWithHost(host, port);
}

bool NodeSelector::isInterfaceUp() const {
    return VPNNetworkStatusMonitor::sharedMonitor()
        .bindingForInterfaceType(bindedInterfaceType())
        .usable;
}

bool NodeSelector::createUdpSocketIfHasError(std::optional<Error>* error) {
    DispatchQueue delegateQueue = socketDelegateQueue();
    long type;
    {
        std::lock_guard guard(mutex_);
        if (udpSocket_)
            return true;
        type = bindedInterfaceType_;
    }
    auto events = std::make_shared<SocketEvents>(weak_from_this());
    auto socket = UdpSocket::create(events, delegateQueue);
    // Probes are a few dozen bytes: fragmentation never arises, and a burst leaves faster.
    socket->setDontFragment();
    Error failure;
    bool ok = false;
    // One reading decides whether the interface is usable and which one is bound.
    auto binding = VPNNetworkStatusMonitor::sharedMonitor().bindingForInterfaceType(type);
    if (!binding.usable) {
        failure = Error::withDescription(
            kErrorDomain, kErrorInterfaceDown,
            type == kInterfaceWiFi ? kWiFiDownDescription : kWWANDownDescription);
    } else if (binding.interfaceName) {
        ok = socket->bindToPort(0, *binding.interfaceName, &failure) &&
             socket->beginReceiving(&failure);
        // The cellular address alone does not choose the way out here: a host sends from any of
        // its addresses along the preferred route, usually Wi-Fi's. Pinning the socket to the
        // interface sends the probes over cellular, which is what they are meant to measure.
        if (ok)
            pinToInterface(socket, *binding.interfaceName);
    } else {
        ok = socket->bindToPort(0, &failure) && socket->beginReceiving(&failure);
    }
    if (!ok) {
        socket->close();
        if (error)
            *error = failure;
        return false;
    }
    std::lock_guard guard(mutex_);
    if (udpSocket_) {
        // Another thread created one meanwhile; keep that one.
        socket->close();
        return true;
    }
    udpSocket_ = std::move(socket);
    socketEvents_ = std::move(events);
    return true;
}

void NodeSelector::pinToInterface(const std::shared_ptr<UdpSocket>& socket,
                                  const std::string& interfaceName) {
    socket->perform([&](int fd) {
        if (fd < 0 || setsockopt(fd, SOL_SOCKET, SO_BINDTODEVICE, interfaceName.c_str(),
                                 static_cast<socklen_t>(interfaceName.size())) != 0) {
            // Without the right to pin, the probes still leave from the interface's address.
            log::warning(fmt::format("[NodeSelector] cannot pin the probe socket to {}: {}",
                                     interfaceName, std::strerror(errno)));
        }
    });
}

void NodeSelector::enlargeSocketSendBufferSize(const std::shared_ptr<UdpSocket>& socket) {
    if (!socket)
        return;
    // Tried during bursts that met no-buffer-space refusals; kept for callers that want it.
    constexpr int kSendBufferBytes = 131072;
    socket->perform([](int fd) {
        int size = kSendBufferBytes;
        if (fd < 0 || setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &size, sizeof size) != 0)
            log::error("setsockopt for sendbuf err");
    });
}

void NodeSelector::closeUdpSocket() {
    std::shared_ptr<UdpSocket> socket;
    {
        std::lock_guard guard(mutex_);
        socket = std::move(udpSocket_);
        socketEvents_.reset();
    }
    if (socket)
        socket->close();
}

bool NodeSelector::isNoBufferSpaceAvailbaleError(const std::optional<Error>& error) {
    return error && error->code == ENOBUFS;
}

void NodeSelector::didNotSendData(UdpSocket& socket, long tag, const Error& error) {
    (void)tag;
    log::warning(fmt::format("[NodeSelector] {} didNotSendDataWithTag due to error: {}",
                             bindedInterfaceTypeString(), describe(error)));
    // The refusal takes the close path with its error, so that a no-buffer-space refusal thins
    // out the next run.
    socket.closeWithError(error);
}

void NodeSelector::didClose(UdpSocket& socket, const std::optional<Error>& error) {
    {
        std::lock_guard guard(mutex_);
        if (udpSocket_.get() != &socket)
            return;
    }
    log::warning(fmt::format("[NodeSelector] {} {} sent:{} udpSocketDidClose with error: {}",
                             modeString(), bindedInterfaceTypeString(), sendedPacketNumber(),
                             error ? describe(*error) : "(null)"));
    {
        std::lock_guard guard(mutex_);
        if (isNoBufferSpaceAvailbaleError(error)) {
            ++occurNoBufferSpaceAvailableErrorTimes_;
            if (sendGroupPacketTimer_)
                sendGroupPacketTimer_->invalidate();
            if (packetRecvTimer_)
                packetRecvTimer_->invalidate();
        }
        // A run cannot finish without its socket, so any close reports the run as failed.
        error_ =
            error && !error->userInfo.empty()
                ? Error(kErrorDomain, kErrorSocketClosed, error->userInfo)
                : Error::withDescription(kErrorDomain, kErrorSocketClosed, kDidCloseDescription);
    }
    callFailureBlockIfNeeded();
    closeUdpSocket();
}

}  // namespace lmkit
