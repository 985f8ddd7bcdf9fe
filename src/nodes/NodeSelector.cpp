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
#include "lmkit/nodes/ShareStorer.hpp"
#include "lmkit/platform/Clock.hpp"
#include "lmkit/platform/Localized.hpp"

namespace lmkit {

namespace {

// A fixed time-out given to the explicit initialiser that is not above 0 becomes this.
constexpr double kDefaultTestPingTimeout = 2.5;
constexpr long kDefaultSendPacketCount = 5;
// The delay of a key without any usable reply: far above every delay ceiling, so it scores 0.
constexpr double kFallbackDelay = 1000;

Error emptyNodesError() {
    return Error::withDescription(NodeSelector::kErrorDomain, NodeSelector::kErrorEmptyNodes,
                                  localizedString(NodeSelector::kEmptyNodesKey));
}

std::string formatNumber(const std::optional<Number>& n) {
    return n ? n->description() : "null";
}

}  // namespace

// The socket's delegate. The socket holds it weakly and it holds the selector weakly, so neither
// keeps the other alive; dropping it (closeUdpSocket) silences the socket at once.
class NodeSelector::SocketEvents : public UdpSocketDelegate {
  public:
    explicit SocketEvents(std::weak_ptr<NodeSelector> owner) : owner_(std::move(owner)) {}
    void udpSocketDidReceiveData(UdpSocket& socket, const std::vector<uint8_t>& data,
                                 const SocketAddress& address) override {
        if (auto owner = owner_.lock())
            owner->didReceiveData(socket, data, address);
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
      dispatchQueue_(std::move(dispatchQueue)) {}

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
    keys_.clear();
    entries_.clear();
    auto servers = std::make_shared<std::vector<std::string>>();
    long probePort = port();
    for (const auto& node : nodes) {
        if (!node)
            continue;
        std::string server = node->safePingServer();
        std::string key = probe::constructKeyWithHost(server, probePort);
        auto [it, inserted] = entries_.try_emplace(key);
        if (inserted)
            keys_.push_back(key);
        it->second.nodes.push_back(node);
        if (std::find(servers->begin(), servers->end(), server) == servers->end())
            servers->push_back(server);
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
        counterOfComputedDelay_ = 0;
        currentSendingGroupIndex_ = 0;
        sendedPacketNumber_ = 0;
        isIPV6_ = false;
        computingStatus_ = kStatusIdle;
        repeatSendCount_ = sendPacketCount_;
        costTimeOfSendPackets_ = 0;
        keyCount_ = keys_.size();
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
                nodes.size(), n, static_cast<long>(packetReceiveTimeout_ * 1000),
                delayMode_ == kDelayModeAvg   ? "avg"
                : delayMode_ == kDelayModeMin ? "min"
                                              : "null");
        }
    }
    if (!startLine.empty())
        log::info(startLine);
    sendPacketsDataByGroup(generation);
}

// Sending.

bool NodeSelector::sendOneProbe(const std::shared_ptr<UdpSocket>& socket, const std::string& host,
                                long tag) {
    std::string payload;
    uint16_t destination;
    {
        std::lock_guard guard(mutex_);
        if (firstPacketTimeStamp_ == 0)
            firstPacketTimeStamp_ = static_cast<double>(Clock::nowMilliseconds());
        payload = probe::makeProbePayload(sendDataPrefix_, firstPacketTimeStamp_,
                                          Clock::nowMilliseconds());
        destination = static_cast<uint16_t>(port_ == 0 ? probe::kDefaultProbePort : port_);
    }
    // A refused send comes back as a did-not-send event; the probe still counts as handed over.
    socket->sendData(payload, host, destination, tag);
    std::lock_guard guard(mutex_);
    setSendedPacketNumber(sendedPacketNumber_ + 1);
    return true;
}

void NodeSelector::sendDataToPingServer(const std::string& host, long repeatTime) {
    auto socket = udpSocket();
    if (!socket)
        return;
    for (long i = 0; i < repeatTime; ++i)
        sendOneProbe(socket, host, i);
}

void NodeSelector::sendPacketsDataByGroup(std::uint64_t generation) {
    for (;;) {
        double began = Clock::nowSeconds();
        std::shared_ptr<const std::vector<std::string>> servers;
        std::shared_ptr<UdpSocket> socket;
        long count, groups, index;
        double interval;
        {
            std::lock_guard guard(mutex_);
            if (generation != generation_ || !uniquePingServers_ || !udpSocket_)
                return;
            servers = uniquePingServers_;
            socket = udpSocket_;
            count = sendPacketCount_;
            groups = sendPacketGroupCount_;
            index = currentSendingGroupIndex_;
            interval = sendGroupPacketInternval_;
        }
        const long n = static_cast<long>(servers->size());
        const long total = count * n;
        long lastIndex = total;  // one burst leaves nothing for a later tick
        if (groups <= 1) {
            for (const auto& server : *servers)
                for (long i = 0; i < count; ++i)
                    sendOneProbe(socket, server, i);
        } else {
            const long perGroup = pacing::probesPerGroup(total, groups, n);
            if (index * perGroup >= total)
                return;
            // Round-robin: one probe per server per pass, so a slow group never starves a server.
            for (long j = 0; j < perGroup; ++j) {
                long i = j + index * perGroup;
                if (i >= total)
                    break;
                sendOneProbe(socket, (*servers)[static_cast<std::size_t>(i % n)], i / n);
                lastIndex = i;
            }
        }
        {
            std::lock_guard guard(mutex_);
            if (generation != generation_)
                return;
            ++currentSendingGroupIndex_;
            costTimeOfSendPackets_ += Clock::nowSeconds() - began;
            // Nothing remains after the last index: no further tick is needed.
            if (lastIndex + 1 >= total)
                return;
            if (interval > 0) {
                if (sendGroupPacketTimer_)
                    sendGroupPacketTimer_->invalidate();
                sendGroupPacketTimer_ = WeakTimer::scheduledTimer<NodeSelector>(
                    interval, weak_from_this(),
                    [generation](NodeSelector& self, WeakTimer&) {
                        self.sendPacketsDataByGroup(generation);
                    },
                    false, sendPacketQueue_);
                return;
            }
        }
    }
}

void NodeSelector::setSendedPacketNumber(long value) {
    sendedPacketNumber_ = value;
    long total =
        sendPacketCount_ * static_cast<long>(uniquePingServers_ ? uniquePingServers_->size() : 0);
    long status = computingStatus_.load();
    if (value < 1 || total < 1 || value != total ||
        (status != kStatusIdle && status != kStatusComputing))
        return;
    if (packetRecvTimer_)
        packetRecvTimer_->invalidate();
    if (mode_ == kModeBestNode || mode_ == kModeTestMultipath)
        log::info("[NodeSelector] All packets sent, start recv timer");
    std::uint64_t generation = generation_;
    packetRecvTimer_ = WeakTimer::scheduledTimer<NodeSelector>(
        packetReceiveTimeout_, weak_from_this(),
        [generation](NodeSelector& self, WeakTimer&) {
            self.packetReceiveTimeoutHandler(generation);
        },
        false, dataProcessQueue_);
}

void NodeSelector::setIsIPV6(bool value) {
    bool old = isIPV6_;
    isIPV6_ = value;
    if (!old && value && (mode_ == kModeBestNode || mode_ == kModeTestMultipath))
        log::info("[NodeSelector] Detected IPV6 environment");
}

// Receiving.

void NodeSelector::didReceiveData(UdpSocket& socket, const std::vector<std::uint8_t>& data,
                                  const SocketAddress& address) {
    if (computingStatus_.load() == kStatusTimedOut)
        return;
    std::string prefix;
    double first;
    std::uint64_t generation;
    {
        std::lock_guard guard(mutex_);
        if (udpSocket_.get() != &socket)
            return;  // a socket already replaced or closed
        prefix = sendDataPrefix_;
        first = firstPacketTimeStamp_;
        generation = generation_;
    }
    auto decision =
        probe::decideProbeReply(data.data(), data.size(), prefix, first, Clock::nowMilliseconds(),
                                address.host, address.port, address.family);
    switch (decision.action) {
        case probe::ReplyDecision::Action::Drop:
            return;
        case probe::ReplyDecision::Action::InvalidPacket:
            log::warning("[NodeSelector] Invalid response packet: " + decision.text);
            return;
        case probe::ReplyDecision::Action::InvalidTimestamp:
            log::warning("[NodeSelector] Invalid response timestamp: " + decision.text);
            return;
        case probe::ReplyDecision::Action::Record:
            break;
    }
    long expected = kStatusIdle;
    computingStatus_.compare_exchange_strong(expected, kStatusComputing);
    if (decision.fromIPv6) {
        std::lock_guard guard(mutex_);
        setIsIPV6(true);
    }
    const double delay = decision.delay;
    std::string key = probe::constructKeyWithHost(decision.host, decision.port);
    dataProcessQueue_.async([weak = weak_from_this(), generation, delay, key = std::move(key)] {
        if (auto self = weak.lock())
            self->recordDelay(generation, delay, key);
    });
}

void NodeSelector::computeDelay(double delay, const std::string& host, long port) {
    std::uint64_t generation;
    {
        std::lock_guard guard(mutex_);
        generation = generation_;
    }
    std::string key = probe::constructKeyWithHost(host, port);
    dataProcessQueue_.async([weak = weak_from_this(), generation, delay, key = std::move(key)] {
        if (auto self = weak.lock())
            self->recordDelay(generation, delay, key);
    });
}

void NodeSelector::recordDelay(std::uint64_t generation, double delay, const std::string& key) {
    long count;
    {
        std::lock_guard guard(mutex_);
        if (generation != generation_)
            return;
        count = sendPacketCount_;
    }
    // Once the run has reported, its nodes belong to the caller: late echoes change nothing.
    if (computingStatus_.load() == kStatusFinished)
        return;
    auto found = entries_.find(key);
    if (found == entries_.end())
        return;
    auto& entry = found->second;
    entry.delays.push_back(delay);
    ++entry.receivedCount;
    if (static_cast<long>(entry.delays.size()) == count)
        computeScoreOfObjectInDelayContainerWithKey(key, entry);
}

// Scoring.

void NodeSelector::computeScoreOfObjectInDelayContainerWithKey(const std::string& key,
                                                               KeyEntry& entry) {
    (void)key;
    long delayMode, count;
    bool rear;
    std::shared_ptr<AccConfig> config;
    {
        std::lock_guard guard(mutex_);
        delayMode = delayMode_;
        count = sendPacketCount_;
        rear = enableRearDelay_;
        config = accConfig_;
    }
    std::optional<double> d;
    if (delayMode == kDelayModeMin)
        d = DelayStatistics::minOfNumbers(entry.delays);
    else if (delayMode == kDelayModeAvg)
        d = DelayStatistics::computeAvgOfNumbers(entry.delays);
    if (!d || !(*d > 0))
        d = kFallbackDelay;
    const float loss = static_cast<float>(count - entry.receivedCount) / static_cast<float>(count);
    const double minimum = DelayStatistics::minOfNumbers(entry.delays).value_or(0);
    const double maximum = DelayStatistics::maxOfNumbers(entry.delays);
    const double average = DelayStatistics::calculateAverageOfNumbers(entry.delays);
    for (const auto& node : entry.nodes) {
        double scored = *d;
        if (rear) {
            float rearDelay = node->rearDelay ? node->rearDelay->floatValue() : 0.0f;
            scored = static_cast<double>(static_cast<float>(*d) + rearDelay);
        }
        node->delayScore = AccNode::computeScoreOfDelay(Number(scored), config).doubleValue();
        node->lossScore =
            AccNode::computeScoreOfLoss(Number(static_cast<double>(loss)), config).doubleValue();
        node->loadScore = node->computeScoreOfLoadReferToAccConfig(config).doubleValue();
        node->ispScore = node->computeScoreOfISPReferToAccConfig(config).doubleValue();
        node->delay = *d;
        node->minDelay = minimum;
        node->maxDelay = maximum;
        node->avgDelay = average;
        node->loss = static_cast<double>(loss);
    }
    entry.scored = true;
    long counter;
    {
        std::lock_guard guard(mutex_);
        counter = counterOfComputedDelay_;
    }
    setCounterOfComputedDelay(counter + 1);
}

void NodeSelector::setCounterOfComputedDelay(long value) {
    std::uint64_t generation;
    bool complete;
    {
        std::lock_guard guard(mutex_);
        counterOfComputedDelay_ = value;
        complete = keyCount_ != 0 && static_cast<std::size_t>(value) == keyCount_;
        generation = generation_;
    }
    if (complete)
        finishRun(generation);
}

void NodeSelector::packetReceiveTimeoutHandler(std::uint64_t generation) {
    long status;
    {
        std::lock_guard guard(mutex_);
        if (generation != generation_)
            return;
        bool logs = mode_ == kModeBestNode || mode_ == kModeTestMultipath;
        long total = sendPacketCount_ *
                     static_cast<long>(uniquePingServers_ ? uniquePingServers_->size() : 0);
        if (logs) {
            log::info(
                fmt::format("[NodeSelector] Start timeout handler，sent packets count:{}, "
                            "time:{:.1f}ms",
                            sendedPacketNumber_, costTimeOfSendPackets_ * 1000));
        }
        if (sendedPacketNumber_ < total) {
            if (logs) {
                log::info(
                    fmt::format("[NodeSelector] Packet sent {}/{}, waiting for all packets sent...",
                                sendedPacketNumber_, total));
            }
            return;
        }
        status = computingStatus_.load();
        if (status == kStatusComputing)
            computingStatus_ = kStatusTimedOut;
        if (status == kStatusIdle) {
            log::info(std::string("[NodeSelector] ") + kTimeoutDescription);
            error_ = Error::withDescription(kErrorDomain, kErrorTimeout, kTimeoutDescription);
        }
    }
    if (status == kStatusIdle) {
        callFailureBlockIfNeeded();
        return;
    }
    if (status != kStatusComputing)
        return;
    // Keys still waiting for replies are scored first, so that the run completes exactly when
    // every key has a score; a complete key scored again would give the same values.
    std::vector<std::string> order;
    order.reserve(keys_.size());
    for (const auto& key : keys_)
        if (!entries_[key].scored)
            order.push_back(key);
    for (const auto& key : keys_)
        if (entries_[key].scored)
            order.push_back(key);
    for (const auto& key : order) {
        if (computingStatus_.load() == kStatusFinished)
            break;
        auto& entry = entries_[key];
        if (entry.receivedCount == 0)
            log::info("[NodeSelector] All packets lost node: " + key);
        computeScoreOfObjectInDelayContainerWithKey(key, entry);
    }
}

// Completion.

void NodeSelector::finishRun(std::uint64_t generation) {
    long mode, delayMode, count;
    bool rear;
    std::shared_ptr<AccConfig> config;
    long probePort;
    {
        std::lock_guard guard(mutex_);
        if (generation != generation_)
            return;
        computingStatus_ = kStatusFinished;
        if (packetRecvTimer_)
            packetRecvTimer_->invalidate();
        mode = mode_;
        delayMode = delayMode_;
        count = sendPacketCount_;
        rear = enableRearDelay_;
        config = accConfig_;
        probePort = port_ == 0 ? probe::kDefaultProbePort : port_;
    }
    Nodes all;
    for (const auto& key : keys_)
        for (const auto& node : entries_[key].nodes)
            all.push_back(node);
    sortAndLogNodes(all);
    std::optional<Number> gap;
    if (mode != kModeTestMultipath)
        gap = ShareStorer::sharedInstance().scoreRangeGap();
    Nodes chosen = chooseBestNodes(all, mode, gap);
    auto best = chosen.empty() ? nullptr : chosen.front();

    std::string bestKey;
    const KeyEntry* entry = nullptr;
    if (best) {
        bestKey = probe::constructKeyWithHost(best->safePingServer(), probePort);
        auto found = entries_.find(bestKey);
        if (found != entries_.end())
            entry = &found->second;
    }
    static const std::vector<double> kNoDelays;
    const auto& delays = entry ? entry->delays : kNoDelays;
    std::optional<double> delay;
    if (delayMode == kDelayModeMin)
        delay = DelayStatistics::minOfNumbers(delays);
    else if (delayMode == kDelayModeAvg)
        delay = DelayStatistics::computeAvgOfNumbers(delays);
    if (!delay || !(*delay > 0))
        delay = kFallbackDelay;
    if (rear && best) {
        float rearDelay = best->rearDelay ? best->rearDelay->floatValue() : 0.0f;
        delay = static_cast<double>(static_cast<float>(*delay) + rearDelay);
    }
    long received = entry ? entry->receivedCount : 0;
    double loss =
        static_cast<double>(static_cast<float>(count - received) / static_cast<float>(count));
    if (loss < 0)
        loss = 0;
    double deviation = DelayStatistics::computeDeviationOfDelay(delays);
    {
        std::lock_guard guard(mutex_);
        endTime_ = Clock::nowSeconds();
    }
    if (mode == kModeBestNode)
        logBestNodes(chosen, chosen.size(), true);

    std::string configPing = config ? formatNumber(config->ping) : "null";
    callbackQueue().async([weak = weak_from_this(), generation, chosen = std::move(chosen),
                           delay = *delay, loss, deviation, bestKey, configPing] {
        auto self = weak.lock();
        if (!self)
            return;
        BestNodeNotifyBlock success;
        FailureBlock failure;
        {
            std::lock_guard guard(self->mutex_);
            if (generation != self->generation_)
                return;  // stopped, or a newer run has taken over the callbacks
            if (delay == 0) {
                failure = std::move(self->failureBlock_);
                self->failureBlock_ = nullptr;
                self->bestNodeNotifyBlock_ = nullptr;
                self->error_.reset();
            } else if (!chosen.empty() && self->bestNodeNotifyBlock_) {
                success = std::move(self->bestNodeNotifyBlock_);
                self->bestNodeNotifyBlock_ = nullptr;
                self->failureBlock_ = nullptr;
            }
        }
        if (delay == 0) {
            log::info(
                fmt::format("[NodeSelector] Finish, best node:{} delay is zero, config "
                            "ping:{}",
                            bestKey, configPing));
            if (failure)
                failure(emptyNodesError());
        } else if (success) {
            success(chosen, delay, loss, deviation);
        }
    });
}

void NodeSelector::callFailureBlockIfNeeded() {
    callbackQueue().async([weak = weak_from_this()] {
        auto self = weak.lock();
        if (!self)
            return;
        FailureBlock failure;
        std::optional<Error> error;
        {
            std::lock_guard guard(self->mutex_);
            if (!self->failureBlock_)
                return;
            failure = std::move(self->failureBlock_);
            self->failureBlock_ = nullptr;
            self->bestNodeNotifyBlock_ = nullptr;
            error = std::move(self->error_);
            self->error_.reset();
        }
        failure(error.value_or(Error(kErrorDomain, 0)));
    });
}

// Socket.

std::string NodeSelector::constructKeyWithHost(const std::string& host, long port) {
    return probe::constructKeyWithHost(host, port);
}

bool NodeSelector::isInterfaceUp() const {
    switch (bindedInterfaceType()) {
        case kInterfaceWiFi:
            return VPNNetworkStatusMonitor::sharedMonitor().WiFiValid();
        case kInterfaceCellular:
            return VPNNetworkStatusMonitor::sharedMonitor().WWANValid();
        default:
            return true;
    }
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
    Error failure;
    bool ok = false;
    if (type == kInterfaceWiFi && !isInterfaceUp()) {
        failure = Error::withDescription(kErrorDomain, kErrorInterfaceDown, kWiFiDownDescription);
    } else if (type == kInterfaceCellular && !isInterfaceUp()) {
        failure = Error::withDescription(kErrorDomain, kErrorInterfaceDown, kWWANDownDescription);
    } else if (type == kInterfaceCellular) {
        ok = socket->bindToPort(0, kCellularInterfaceName, &failure) &&
             socket->beginReceiving(&failure);
        // The cellular address alone does not choose the way out here: a host sends from any of
        // its addresses along the preferred route, usually Wi-Fi's. Pinning the socket to the
        // interface sends the probes over cellular, which is what they are meant to measure.
        if (ok)
            pinToInterface(socket, kCellularInterfaceName);
    } else {
        // Wi-Fi is checked but not pinned: the default route already leaves through it.
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
