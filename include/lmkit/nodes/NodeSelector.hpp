#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include "lmkit/models/AccConfig.hpp"
#include "lmkit/models/AccNode.hpp"
#include "lmkit/nodes/ScoringSettings.hpp"
#include "lmkit/platform/DispatchQueue.hpp"
#include "lmkit/platform/Error.hpp"
#include "lmkit/platform/UdpSocket.hpp"
#include "lmkit/platform/WeakTimer.hpp"

namespace lmkit {

class ProbeKeys;

/// Probes acceleration nodes over UDP and picks the best (Best Node), measures a node set for
/// multipath use (Test Multipath) or measures one address (Test Ping).
///
/// One run: the nodes' ping servers get `sendPacketCount` text probes each, paced in groups; the
/// echoes are matched by source address; when every probe key has all its replies, or the receive
/// time-out fires, each key's delays are condensed into delay, loss and deviation, every node is
/// scored against the run's AccConfig, the best nodes are chosen, and the success callback is
/// called once. A failure reports through the failure callback instead; a run reports at most
/// once.
///
/// Always create through create(): every socket event, timer and queued block holds the selector
/// weakly, so releasing the last reference ends a run silently. Set-up, reply bookkeeping,
/// scoring and the time-out run on the selector's serial data queue; group sending on
/// `sendPacketQueue`; socket events on `socketDelegateQueue`; user callbacks on the queue given
/// (or the main queue).
class NodeSelector : public std::enable_shared_from_this<NodeSelector> {
  public:
    static constexpr const char* kErrorDomain = "NodeSelectorErrorDomain";
    static constexpr const char* kEnableRearDelayKey = "EnableRearDelayUserDefaultsKeys";
    static constexpr const char* kEmptyNodesKey = "NodeSelectorErrorEmptyNodes";
    static constexpr const char* kTimeoutDescription = "Timeout, all packets lost...";
    static constexpr const char* kDidCloseDescription = "UDP socket did close";
    static constexpr const char* kWiFiDownDescription = "wifi interface is not up, do not bind.";
    static constexpr const char* kWWANDownDescription =
        "wwan interface(pdp_ip0) is not up, do not bind.";

    enum ErrorCode : long {
        kErrorSocket = 1,
        kErrorTimeout = 2,
        kErrorSocketClosed = 3,
        kErrorInterfaceDown = 4,
        kErrorEmptyNodes = 5,
    };
    enum Mode : long { kModeTestPing = 0, kModeBestNode = 1, kModeTestMultipath = 2 };
    enum DelayMode : long { kDelayModeAvg = 0, kDelayModeMin = 1 };
    enum InterfaceType : long { kInterfaceAny = 0, kInterfaceWiFi = 1, kInterfaceCellular = 2 };
    enum ComputingStatus : long {
        kStatusIdle = 0,
        kStatusComputing = 1,  // first reply seen
        kStatusTimedOut = 2,
        kStatusFinished = 3,
    };

    using Nodes = std::vector<std::shared_ptr<AccNode>>;
    /// Chosen nodes (best first), delay of the best node's key (ms), loss (0..1), deviation.
    using BestNodeNotifyBlock = std::function<void(const Nodes&, double, double, double)>;
    /// The single-node form: the best node, delay, loss, deviation.
    using NodeNotifyBlock =
        std::function<void(const std::shared_ptr<AccNode>&, double, double, double)>;
    using FailureBlock = std::function<void(const Error&)>;

    /// Any interface, 5 probes per server, computed time-outs; the rear delay is added when the
    /// standard user defaults say so under kEnableRearDelayKey.
    static std::shared_ptr<NodeSelector> create();
    /// A selector bound to `bindedInterfaceType` with a fixed receive time-out (2.5 s when not
    /// above 0) and `sendPacketCount` probes per server (5 when below 1); callbacks on
    /// `dispatchQueue` (the main queue when none). The rear delay is not added.
    static std::shared_ptr<NodeSelector> create(
        long bindedInterfaceType, double testPingTimeout, long sendPacketCount,
        std::optional<DispatchQueue> dispatchQueue = std::nullopt);
    ~NodeSelector();
    NodeSelector(const NodeSelector&) = delete;
    NodeSelector& operator=(const NodeSelector&) = delete;

    // Runs.

    void pickBestNodeFromNodes(const Nodes& nodes, std::shared_ptr<AccConfig> accConfig,
                               long delayMode, BestNodeNotifyBlock success, FailureBlock failure);
    void testMultipathNodeFromNodes(const Nodes& nodes, std::shared_ptr<AccConfig> accConfig,
                                    long delayMode, BestNodeNotifyBlock success,
                                    FailureBlock failure);
    void testPingFromNode(std::shared_ptr<AccNode> node, std::shared_ptr<AccConfig> accConfig,
                          NodeNotifyBlock success, FailureBlock failure);
    void testPingFromAddress(const std::string& host, long port, NodeNotifyBlock success,
                             FailureBlock failure);
    void testPingFromAddress(const std::string& host, NodeNotifyBlock success,
                             FailureBlock failure);
    /// Stops sending and the receive timer and closes the socket. No callback of the current run
    /// is made afterwards, including one already waiting for its queue.
    void stop();

    // Configuration.

    long port() const;  // 9999 when never set
    void setPort(long port);
    std::string sendDataPrefix() const;
    void setSendDataPrefix(const std::string& prefix);
    long bindedInterfaceType() const;
    std::string bindedInterfaceTypeString() const;
    long mode() const;
    std::string modeString() const;
    long delayMode() const;
    void setDelayMode(long delayMode);
    std::string delayModeString() const;
    long sendPacketCount() const;
    double testPingTimeout() const;
    bool enableRearDelay() const;
    void setEnableRearDelay(bool enable);
    DispatchQueue socketDelegateQueue() const;
    void setSocketDelegateQueue(DispatchQueue queue);
    DispatchQueue sendPacketQueue() const;
    void setSendPacketQueue(DispatchQueue queue);
    const DispatchQueue& dataProcessQueue() const { return dataProcessQueue_; }

    // State of the current or last run.

    long sendedPacketNumber() const;
    bool isIPV6() const;
    long occurNoBufferSpaceAvailableErrorTimes() const;
    long computingStatus() const { return computingStatus_.load(); }
    long counterOfComputedDelay() const;
    double firstPacketTimeStamp() const;
    long sendPacketGroupCount() const;
    double sendGroupPacketInternval() const;
    double packetReceiveTimeout() const;
    double costTimeOfSendPackets() const;
    std::vector<std::string> uniquePingServers() const;
    std::optional<Error> error() const;
    double startTime() const;
    double endTime() const;
    std::shared_ptr<UdpSocket> udpSocket() const;
    /// Replies of the current or last run that came after its receive time-out or after it had
    /// reported: lost for the run, counted here.
    long lateReplyCount() const { return lateReplies_.load(); }
    /// Replies beyond a key's probe count (a path or echo service that duplicates datagrams).
    long duplicateReplyCount() const { return duplicateReplies_.load(); }

    // Probe socket.

    /// Sends `repeatTime` probes to `host` on the selector's port, counting each.
    void sendDataToPingServer(const std::string& host, long repeatTime);
    static std::string constructKeyWithHost(const std::string& host, long port);
    /// Creates, binds and starts the probe socket unless one exists.
    bool createUdpSocketIfHasError(std::optional<Error>* error = nullptr);
    /// Whether the bound interface type is usable now (always for types other than 1 and 2).
    bool isInterfaceUp() const;
    /// Asks for a 128 KiB send buffer on `socket` (not part of the probing sequence).
    static void enlargeSocketSendBufferSize(const std::shared_ptr<UdpSocket>& socket);
    /// Makes `socket` send through `interfaceName` whatever the routes prefer (a warning when the
    /// system refuses).
    static void pinToInterface(const std::shared_ptr<UdpSocket>& socket,
                               const std::string& interfaceName);
    void closeUdpSocket();
    static bool isNoBufferSpaceAvailbaleError(const std::optional<Error>& error);
    /// Records one reply's delay under the probe key of `host` and `port` (on the data queue).
    void computeDelay(double delay, const std::string& host, long port);

    // Choosing and logging.

    /// How a run chose among equal and near-equal nodes: the score gap in force and every random
    /// draw, in order. The same seed and the same scores give the same draws.
    struct ChoiceTrace {
        std::optional<Number> scoreRangeGap;
        std::vector<std::string> draws;
    };

    /// The nodes to hand back, best first: every node by score in multipath mode; otherwise one
    /// node per address from equal-score buckets, the nodes within `scoreRangeGap` of the best in
    /// random order, nodes scored 0 left out.
    static Nodes chooseBestNodes(const Nodes& nodes, long mode,
                                 const std::optional<Number>& scoreRangeGap);
    /// The same with the draws taken from `random` and told in `trace` (when given).
    static Nodes chooseBestNodes(const Nodes& nodes, long mode,
                                 const std::optional<Number>& scoreRangeGap,
                                 std::mt19937_64& random, ChoiceTrace* trace);

    /// Makes the draws of the runs' choices repeatable; none (the default) seeds each run afresh.
    void setRandomSeed(std::optional<std::uint64_t> seed);
    /// The trace of the last run's choice (empty before one completes), shared rather than
    /// copied: a run over thousands of near-equal nodes draws thousands of times.
    std::shared_ptr<const ChoiceTrace> lastChoiceTrace() const;
    static void sortAndLogNodes(const Nodes& nodes);
    static void logBestNodes(const Nodes& nodes, std::size_t logCount, bool markPrefix);

  private:
    class SocketEvents;
    friend class SocketEvents;

    NodeSelector(long bindedInterfaceType, std::optional<DispatchQueue> dispatchQueue);
    void commonInit();

    void start(const Nodes& nodes, std::shared_ptr<AccConfig> accConfig,
               BestNodeNotifyBlock success, FailureBlock failure);
    void setUp(std::uint64_t generation, Nodes nodes, std::shared_ptr<AccConfig> accConfig);
    void sendPacketsDataByGroup(std::uint64_t generation);
    /// Sends a one-burst run: `count` probes to each of `servers`.
    void sendBurst(std::uint64_t generation, const std::shared_ptr<UdpSocket>& socket,
                   const std::vector<std::string>& servers, long count);
    /// What every probe of a run shares: its prefix, its port and the run's one origin (taken
    /// when the first probe is stamped).
    struct ProbeOrigin {
        std::string prefix;
        double firstPacketTimeStamp;
        std::uint16_t port;
    };
    ProbeOrigin probeOrigin();
    /// Stamps one probe to `host` with the clock reading `now` and adds it to `batch`.
    static void appendProbe(std::vector<OutgoingDatagram>& batch, const ProbeOrigin& origin,
                            const std::string& host, long tag, double now);
    /// Hands a group's probes to the socket in one call, then counts each as sent; false (and
    /// nothing sent or counted) once run `generation` is over.
    bool sendProbes(std::uint64_t generation, const std::shared_ptr<UdpSocket>& socket,
                    const std::vector<OutgoingDatagram>& batch);
    void packetReceiveTimeoutHandler(std::uint64_t generation);
    struct Reply {
        std::string host;
        long port;
        double delay;
        // An IPv6 source is counted under the IPv4 address it embeds (a translated network);
        // a node probed at a native IPv6 address is counted under that address instead.
        std::string ipv6Host;
    };
    void recordDelays(std::uint64_t generation, const std::vector<Reply>& replies);
    /// Scores every node of key `k` from the key's delays.
    void computeScoreOfObjectInDelayContainerWithKey(std::uint32_t k);
    void finishRun(std::uint64_t generation);
    /// At debug level, logs every candidate's terms and the draws of `trace`.
    void explainChoice(const Nodes& nodes, const std::shared_ptr<AccConfig>& config, long probePort,
                       ChoiceTrace& trace);
    void callFailureBlockIfNeeded();
    DispatchQueue callbackQueue() const;

    // Observed values: each changes only through its setter, which runs the reaction.
    void setSendedPacketNumber(long value);      // mutex_ held
    void setIsIPV6(bool value);                  // mutex_ held
    void setCounterOfComputedDelay(long value);  // data queue

    // Socket events (socket delegate queue).
    void didReceiveDatagrams(UdpSocket& socket, const std::vector<Datagram>& datagrams);
    void didNotSendData(UdpSocket& socket, long tag, const Error& error);
    void didClose(UdpSocket& socket, const std::optional<Error>& error);

    const DispatchQueue dataProcessQueue_;
    std::atomic<long> computingStatus_{kStatusIdle};
    std::atomic<long> lateReplies_{0};
    std::atomic<long> duplicateReplies_{0};

    mutable std::mutex mutex_;
    // Guarded by mutex_.
    std::shared_ptr<UdpSocket> udpSocket_;
    std::shared_ptr<SocketEvents> socketEvents_;  // the socket's (weakly held) delegate
    long bindedInterfaceType_ = kInterfaceAny;
    long port_ = 0;
    std::string sendDataPrefix_;
    double firstPacketTimeStamp_ = 0;
    long sendedPacketNumber_ = 0;
    bool isIPV6_ = false;
    long occurNoBufferSpaceAvailableErrorTimes_ = 0;
    DispatchQueue socketDelegateQueue_;
    DispatchQueue sendPacketQueue_;
    std::optional<Error> error_;
    long mode_ = kModeTestPing;
    long delayMode_ = kDelayModeAvg;
    double testPingTimeout_ = 0;
    long sendPacketCount_ = 5;
    long repeatSendCount_ = 0;
    long sendPacketGroupCount_ = 1;
    double sendGroupPacketInternval_ = 0;
    long currentSendingGroupIndex_ = 0;
    std::chrono::steady_clock::time_point nextGroupDue_;  // when the next group is due
    double costTimeOfSendPackets_ = 0;
    double packetReceiveTimeout_ = 0;
    std::shared_ptr<const std::vector<std::string>> uniquePingServers_;
    long counterOfComputedDelay_ = 0;
    std::shared_ptr<AccConfig> accConfig_;
    bool enableRearDelay_ = false;
    BestNodeNotifyBlock bestNodeNotifyBlock_;
    FailureBlock failureBlock_;
    std::optional<DispatchQueue> dispatchQueue_;
    std::shared_ptr<WeakTimer> packetRecvTimer_;
    std::shared_ptr<WeakTimer> sendGroupPacketTimer_;
    double startTime_ = 0;
    double endTime_ = 0;
    std::optional<std::uint64_t> randomSeed_;
    std::shared_ptr<const ChoiceTrace> lastChoiceTrace_ = std::make_shared<ChoiceTrace>();
    // Bumped by every run and by stop(): blocks queued for an earlier run see a different value
    // and do nothing.
    std::uint64_t generation_ = 0;

    // Data queue only.
    ScoringSettings scoringSettings_;        // read as the run starts, before any reply counts
    const std::unique_ptr<ProbeKeys> keys_;  // the run's keys, in node order
};

}  // namespace lmkit
